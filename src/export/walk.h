// The walk that fills the export's two documents: form sets and forms,
// statements, and the value lists of choice and value statements. The two
// trees are built side by side; for every element the possible tree's copy
// is made first.
#pragma once

#include "export/records/records.h"
#include "export/tree.h"
#include "uefi/ifr.h"

namespace tvl::exp {

// What one export knows about its device.
struct ExportContext {
  const CHAR16* fqdd = nullptr;       // the device's location text
  EFI_HII_HANDLE hiiHandle = nullptr; // every string is fetched through the first handle
  bool nicDevice = false;             // the FQDD holds "NIC." (names are mapped)
  bool biosPasswords = false;         // the FQDD holds "BIOS" (password copies)
  UINTN displayBase = 0;              // 100 per form whose statements are walked
  XML_NODE* possibleRoot = nullptr;
  XML_NODE* currentRoot = nullptr;
};

// One form set being walked.
struct FormSetWalk {
  ExportContext* export_ = nullptr;
  HII_FORMSET_RECORD* record = nullptr;
  const CHAR8* language = nullptr;  // the chosen language: "x-UEFI" where offered, else "en-US"
  bool mapped = false;              // names come from the "x-UEFI" strings
};

// One form being walked: the Form element of each tree and the position
// counter of its exported statements.
struct FormWalk {
  FormSetWalk* formSet = nullptr;
  ChildList possible;
  ChildList current;
  UINTN position = 0;
};

// Replaces mConfigHdr with a new copy of a variable store's header.
EFI_STATUS keepConfigHdr(const CHAR16* header);

// Finds the chosen language of a form set. EFI_NOT_FOUND without an
// "en-US" language.
EFI_STATUS chooseLanguage(const HII_FORMSET_RECORD& formSet, const CHAR8** language, bool* mapped);

// Appends one FormSet element (and its MappingSource) to each entry and
// walks its forms. An error ends the export.
EFI_STATUS walkFormSet(ExportContext& context, HII_FORMSET_RECORD* formSet, ChildList& possibleEntry,
                       ChildList& currentEntry);

// Writes the ConfigItem elements of one statement. Statements that cannot be
// exported are skipped; an error ends the export.
EFI_STATUS walkStatement(FormWalk& form, HII_STATEMENT_RECORD* statement);

// The value lists of one-of, checkbox, numeric, string and ordered-list
// statements. `turnedAway` is set when the statement's value type is not
// one the list handles (the walk then gives it no closing elements).
struct ValueLists {
  FormWalk& form;
  HII_STATEMENT_RECORD* statement;
  bool isVersion;           // the statement is named "Version"
  ChildList& possibleItem;  // children of the possible ConfigItem
  ChildList& currentItem;   // children of the current ConfigItem
  // Set by writeValueLists: where the current tree's "MappingSource" goes
  // in an unmapped form set (the current item, or the value's ValueStruct
  // for numeric and checkbox statements).
  XML_NODE* mappingParent;
};
EFI_STATUS writeValueLists(ValueLists& lists, bool* turnedAway);

}  // namespace tvl::exp
