// How a statement looks in each document: the "ConfigItem" element with its
// type and state attributes, the predicates that read a statement's state
// out of the forms-processor records, and the display elements that carry
// a localised text with its "Lang".
#pragma once

#include "export/records/records.h"
#include "uefi/services.h"

extern "C" {

// A new "ConfigItem" for the possible-values document: "Type" by opcode,
// then "Min", "Max" (numeric, password, string), "Step", "ValueType"
// (numeric) and "RebootNeeded"="true". EFI_NOT_FOUND for an opcode that is
// not exported. `Fqdd` decides the password type ("String" on a device
// whose FQDD contains "NIC").
EFI_STATUS createPossibleConfigItem(HII_STATEMENT_RECORD* Statement, const CHAR16* Fqdd, XML_NODE** Out);

// A new "ConfigItem" for the current-values document: "Type", then
// "ReadOnly"="true" and "Suppressed"="true" where the statement's state
// says so and its keyword text does not lift it (ProgWrite, ProgUnhide).
EFI_STATUS createCurrentConfigItem(HII_STATEMENT_RECORD* Statement, const CHAR16* Fqdd, const CHAR8* KeywordText,
                                   XML_NODE** Out);

// Statement state; an absent statement gives FALSE.
BOOLEAN isStatementReadOnly(const HII_STATEMENT_RECORD* Statement);
BOOLEAN isStatementSuppressed(const HII_STATEMENT_RECORD* Statement);
BOOLEAN isStatementDisabled(const HII_STATEMENT_RECORD* Statement);

// A chain of `ElementName` elements, one per usable language of the form
// set ("en-US" only; "x-UEFI" in any case is skipped) in which `StringId`
// fetches to a non-empty text, each with "Lang". EFI_NOT_FOUND when none.
EFI_STATUS createLangStringNodes(const CHAR8* ElementName, EFI_STRING_ID StringId, HII_FORMSET_RECORD* FormSet,
                                 EFI_HII_HANDLE HiiHandle, XML_NODE** Out);

// TRUE when the node has "Suppressed" whose value is "true" in any case.
BOOLEAN isNodeSuppressed(XML_NODE* Node);

}  // extern "C"
