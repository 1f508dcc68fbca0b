// The import: a pending configuration document checked item by item against
// a device's forms. Accepted values become one configuration request text
// (UEFI configuration strings in block-name form, one segment per value);
// every outcome becomes an "Operation" record of a "ConfigResults"
// document with its error code.
#pragma once

#include "export/records/records.h"
#include "uefi/services.h"

extern "C" {

// ---------------------------------------------------------------- module state
// 1: the import ends at the first failed item; any other value: it goes on
// with the next item. The build fixes it at 2.
extern UINT16 mFailureMode;
// Set while an ordered-list item builds its requests: its value texts are
// appended as they are instead of being zero-padded to the field's width.
extern UINT8 mOrderedListRequest;

// ---------------------------------------------------------------- entry
// The NodeToHii operation of TOLVANE_PROTOCOL. Applies the ConfigItems of
// `PendingTree` whose "CommitIndex" is 1 or more, lowest index first, to a
// fresh export of the device. `*ConfigRequest` receives the request text
// after every item that added to it and belongs to the caller from then on,
// whatever the status; `*ConfigResults` (in: a results root or null)
// receives the results root at the end of a call that got as far as the
// items. Visited items leave with "CommitIndex" "0".
EFI_STATUS EFIAPI tvlNodeToHii(TOLVANE_PROTOCOL* This, EFI_HANDLE ControllerHandle, XML_NODE* PendingTree,
                               CHAR16** ConfigRequest, XML_NODE** ConfigResults);

// ---------------------------------------------------------------- requests
// Appends one segment, ConfigHdr + BlockName + "&VALUE=" + value digits,
// to the request in `*Request` (null: a new request). With
// mOrderedListRequest clear the digits are zero-padded on the left to twice
// the block name's WIDTH. On success `*Request` is a new text and the old
// one is freed; on failure it is unchanged.
EFI_STATUS CreateConfigRequest(const CHAR16* ConfigHdr, const CHAR16* BlockName, const CHAR16* Value,
                               CHAR16** Request);

// The partition index of a ConfigItem: the text of the first node among
// `Node` and its following siblings that carries a text and an attribute
// whose value is "Partition" in any letter case (not a copy).
EFI_STATUS getPartitionIndex(XML_NODE* Node, CHAR8** PartitionIndex);

// The first `Tag` element in document order from `Node` whose first child
// holds `Name` and whose partition index equals `PartitionIndex` in any
// letter case.
EFI_STATUS GetNodeByNameTagWithPartition(const CHAR8* Name, const CHAR8* PartitionIndex, const CHAR8* Tag,
                                         XML_NODE* Node, XML_NODE** Found);

// ---------------------------------------------------------------- results
// Appends an "Operation" record (DisplayValue, Name, Detail with the old
// and new values, Status, ErrorCode) to the results root in `*ResultsRoot`
// (null: a new "ConfigResults" root, stored there on success). A success
// whose pending value equals the current one is left out while a restore
// is in progress.
EFI_STATUS addStatusNode(const CHAR8* Name, XML_NODE* CurrentItem, XML_NODE* PendingItem, const CHAR8* StatusWord,
                         UINT64 ErrorCode, XML_NODE** ResultsRoot);

// The name of the restore trigger, read under gTolvaneVariableGuid.
extern const CHAR16 kRestoreVariableName[];

// ---------------------------------------------------------------- error reports
struct ERROR_MESSAGE_ROW {
  UINT64 Code;
  const CHAR8* Message;
};
// Every error code of the results documents with its message, ended by a
// row whose code is 0 and whose message is null.
extern const ERROR_MESSAGE_ROW ErrorMessageTable[];
// The message of a code, or null.
const CHAR8* errorMessage(UINT64 Code);

// Turns the first record of `Name` in the results tree into a failure:
// "Status" becomes "Failure" and "ErrorCode" the code. Missing pieces leave
// the tree as it is.
VOID addErrorNode(const CHAR8* Name, UINT64 ErrorCode, XML_NODE** ResultsRoot);

// ---------------------------------------------------------------- commit indexes
// Raises `*Max` to the largest "CommitIndex" reachable from `Start`: a
// document-order visit in which a "CommitIndex" that raises the maximum
// ends the visit of itself and of its following siblings.
VOID getMaxCommitIndex(XML_NODE* Start, UINT64* Max);

// The first ConfigItem (other than the SysPassword and SetupPassword items)
// whose CommitIndex equals `N`, searched from the first Form reachable from
// `Start`: that Form and each of its following siblings gives the first
// ConfigItem found from it and that item's following siblings.
EFI_STATUS findPendingItemByCommitIndex(UINT64 N, XML_NODE* Start, XML_NODE** Found);

// Sets the item's CommitIndex text to "0".
EFI_STATUS clearCommitIndex(XML_NODE* Item);

// EFI_SUCCESS (and the index set to "0") when the item named `ItemName`
// under `Start` is to be applied; EFI_NOT_FOUND when its index is 0.
EFI_STATUS CheckAndClearCommitIndex(XML_NODE* Start, const CHAR8* ItemName);

// TRUE for a ConfigItem whose "Type" is one the import can set; `*Type`
// then points at that attribute's value.
BOOLEAN isConfigItemWritable(XML_NODE* Item, CHAR8** Type);

// Removes the "BlockName" element that follows the current ConfigItem's
// CommitIndex and hands out a copy of the block name.
EFI_STATUS takeBlockName(XML_NODE* Item, CHAR8** BlockName);

// The first "ValueStruct" child whose first "Index" attribute reads `N`.
EFI_STATUS findValueStructByIndex(XML_NODE* Item, UINT64 N, XML_NODE** Found);

// EFI_SUCCESS when the pending and current items (their first children)
// hold the same value, EFI_NOT_FOUND when they differ,
// EFI_INVALID_PARAMETER when they cannot be compared.
EFI_STATUS CompareNodes(XML_NODE* SrcNode, XML_NODE* DstNode);

// The statement of the first kept form set whose block name is `BlockName`
// and whose keyword name is the item's name.
EFI_STATUS GetStatement(XML_NODE* Item, const CHAR16* BlockName, HII_STATEMENT_RECORD** Statement,
                        EFI_HII_HANDLE HiiHandle);

}  // extern "C"
