// One import call: what it holds while the pending items are applied, the
// lookups it builds once, and the two outcome steps every type rule ends
// with.
#pragma once

#include "export/keyword.h"
#include "import/collections.h"
#include "import/internal.h"
#include "import/order.h"
#include "xml/owned_node.h"

namespace tvl::imp {

// The ConfigItems of a tree by the text of their first child, each name's
// items in document order: the first is what findNodeByChildContents
// finds from the root.
class NameIndex {
 public:
  EFI_STATUS build(XML_NODE* root);
  XML_NODE* first(const CHAR8* name) const;
  // As GetNodeByNameTagWithPartition for "ConfigItem" from the root.
  XML_NODE* withPartition(const CHAR8* name, const CHAR8* partition) const;

 private:
  struct Entry {
    XML_NODE* item;
    UINTN next;  // 1-based, 0: none
    UINTN last;  // on a name's first entry: its last entry, 1-based
  };
  HashMap<ByText<CHAR8>> heads_;  // name -> first entry, 1-based
  Vec<Entry> entries_;
};

// The statements of a form set by block name, in form and statement
// order, each statement's keyword name fetched the first time it is
// compared: GetStatement without walking every statement per item.
class StatementIndex {
 public:
  StatementIndex() = default;
  ~StatementIndex();
  StatementIndex(const StatementIndex&) = delete;
  StatementIndex& operator=(const StatementIndex&) = delete;

  EFI_STATUS build(HII_FORMSET_RECORD* formSet);
  // EFI_INVALID_PARAMETER without a form set or an item name.
  EFI_STATUS find(XML_NODE* item, const CHAR16* blockName, EFI_HII_HANDLE hiiHandle,
                  HII_STATEMENT_RECORD** statement);

 private:
  enum : UINT8 { kUnfetched = 0, kFetched, kNone };
  struct Entry {
    HII_STATEMENT_RECORD* statement;
    CHAR8* name;  // owned
    UINT8 state;
    UINTN next;  // 1-based
    UINTN last;
  };
  bool built_ = false;
  HashMap<ByText<CHAR16>> heads_;
  Vec<Entry> entries_;
};

// A pending item matched with the device's documents.
struct PendingItem {
  XML_NODE* pending = nullptr;
  XML_NODE* current = nullptr;
  XML_NODE* possible = nullptr;
  const CHAR8* name = nullptr;
  const CHAR8* type = nullptr;
  const CHAR16* blockName = nullptr;
  HII_STATEMENT_RECORD* statement = nullptr;  // null when none was found
};

struct ImportCall {
  ImportCall(CHAR16** request, XML_NODE** results, EFI_HII_HANDLE hii, HII_FORMSET_RECORD* firstFormSet)
      : configRequest(request), configResults(results), hiiHandle(hii), checkboxes(firstFormSet, hii) {
    resultsTarget.root = *results;
    rootGiven = *results != nullptr;
  }

  CHAR16** configRequest;
  XML_NODE** configResults;
  EFI_HII_HANDLE hiiHandle;
  bool isBios = false;
  xml::OwnedNode possible;
  xml::OwnedNode current;
  ResultsTarget resultsTarget;
  bool rootGiven = false;
  RequestText request;
  EFI_STATUS overall = EFI_SUCCESS;

  // An early end: its status, and whether the results root goes to the
  // caller (otherwise a root made by this call is freed).
  bool ended = false;
  EFI_STATUS endStatus = EFI_SUCCESS;
  bool storeResults = true;

  CommitOrder order;
  NameIndex currentNames;
  NameIndex possibleNames;
  StatementIndex statements;
  exp::CheckboxKeywords checkboxes;

  // Appends a segment; the caller holds the request from the first one on.
  bool addSegment(const CHAR16* configHdr, const CHAR16* blockName, const CHAR16* value);
  void recordSuccess(const PendingItem& item);
  // FALSE when the failure ends the call (mFailureMode 1).
  bool recordFailure(const PendingItem& item, UINT64 code, bool withItems = true);
  // Ends the call; always FALSE, for `return call.end(...)`.
  bool end(EFI_STATUS status, bool giveResults);
};

// The rule of the item's type: validation, encoding, request segment and
// result. FALSE when the call ends.
bool applyRule(ImportCall& call, PendingItem& item);

}  // namespace tvl::imp
