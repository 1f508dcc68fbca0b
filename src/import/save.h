// The save path: a request text that the import built, cut into its
// configuration strings, each judged against the device's forms and
// routed to the device's driver through RouteConfig; refusals and failures
// mark the item's record in the results document.
#pragma once

#include "import/import.h"

namespace tvl::imp {

// Verdicts of GetInfoByBlockName.
constexpr UINT64 kVerdictWrite = 0;
constexpr UINT64 kVerdictUnchanged = 2;
constexpr UINT64 kVerdictReadOnly = 0x901;
constexpr UINT64 kVerdictSuppressed = 0x902;
constexpr UINT64 kVerdictOptionSuppressed = 0x903;

// Position of the first occurrence of `word` in `text`, or null.
const CHAR16* findWide(const CHAR16* text, const CHAR16* word);

}  // namespace tvl::imp

extern "C" {

// The NodeSaveToHii operation of TOLVANE_PROTOCOL. Routes each "GUID="
// segment of `ConfigRequest` to the configuration access of
// `DriverHandle` unless the lookup refuses it or finds it unchanged.
// `*ConfigResults` (a results root or null) is marked in place and handed
// back. EFI_SUCCESS when the first segment was written and nothing later
// was refused or rejected, EFI_DEVICE_ERROR when nothing was written,
// EFI_ABORTED for a mix.
EFI_STATUS EFIAPI tvlNodeSaveToHii(TOLVANE_PROTOCOL* This, EFI_HANDLE DriverHandle, CHAR16* ConfigRequest,
                                   XML_NODE** ConfigResults);

// The request cut after its first "WIDTH=" and followed by "1&VALUE=00",
// when the "VALUE=" field holds nothing but zeros over twice the width; a
// new text, or null.
CHAR16* TrimConfigRequest(const CHAR16* ConfigRequest);

// The statement that a configuration string addresses: `*Name` receives
// its keyword name (the caller frees it) and `*Verdict` one of the
// verdicts above. EFI_NOT_FOUND when no statement matches.
EFI_STATUS GetInfoByBlockName(EFI_HANDLE DriverHandle, const CHAR16* ConfigHdr, const CHAR16* BlockName,
                              CHAR8** Name, UINT64* Verdict);

// The hexadecimal digits of `FieldName` at `*ConfigString` as bytes, two
// digits to a byte in text order; advances `*ConfigString` past them.
// EFI_BUFFER_TOO_SMALL with the bytes needed in `*BufferSize`.
EFI_STATUS GetComponentData(CHAR16** ConfigString, const CHAR16* FieldName, UINTN* BufferSize, UINT8* Buffer);

// TRUE for a one-of statement whose current value, zero-padded to its
// field, begins the value text.
BOOLEAN isStatementValueUnchanged(const HII_STATEMENT_RECORD* Statement, const CHAR16* Value);
// TRUE when the first option whose unpadded hexadecimal text equals the
// value text is suppressed.
BOOLEAN isOptionSuppressed(const HII_STATEMENT_RECORD* Statement, const CHAR16* Value);
// `HexText` right-aligned in zeros to twice the WIDTH of the statement's
// block name; a new text, or null.
CHAR16* padHexToWidth(const HII_STATEMENT_RECORD* Statement, const CHAR16* HexText);

}  // extern "C"
