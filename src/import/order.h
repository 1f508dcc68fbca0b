// The order in which an import applies pending items, found without
// searching the pending tree again for every commit index.
//
// The import makes one pass per commit index n (ascending, up to the
// document's maximum). A pass searches from the pending tree's root for the
// first candidate whose CommitIndex reads n, applies it, and searches again
// from the applied item's parent, until a search finds nothing. A search
// from a start node looks at the first "Form" reachable from it (the
// head) and then, for the head and each of its following siblings, at the
// first "ConfigItem" reachable from that sibling and that item's
// following siblings; items holding the SysPassword or SetupPassword name
// are never candidates.
//
// Here each head's candidates are collected once, into a chain index, and
// a search becomes a lookup: the first live candidate with value n at or
// after the segment where the search starts. Applied items die (their
// index reads "0" from then on), so no candidate is found twice. Passes
// are made only for the values the root's candidates hold: the others
// find nothing.
#pragma once

#include "import/collections.h"

namespace tvl::imp {

class ChainIndex;
class Search;

class CommitOrder {
 public:
  CommitOrder() = default;
  ~CommitOrder();
  CommitOrder(const CommitOrder&) = delete;
  CommitOrder& operator=(const CommitOrder&) = delete;

  // Indexes the candidates of the root's head. The tree must hold a Form.
  EFI_STATUS prepare(XML_NODE* root);
  // The commit indexes 1..max that the root's candidates hold, ascending.
  EFI_STATUS passValues(UINT64 max, Vec<UINT64>& values) const;
  // The first live candidate with value n searched from the root; null
  // when there is none.
  EFI_STATUS first(UINT64 n, XML_NODE** item);
  // The next one, searched from the parent of `handled`.
  EFI_STATUS next(UINT64 n, XML_NODE* handled, XML_NODE** item);
  // The item is applied: it is never found again. Its CommitIndex text
  // becomes "0" as clearCommitIndex makes it; that may also end other
  // candidates that read the same node. A text that cannot be allocated
  // leaves the tree as it was, and the item is still never found again.
  void consume(XML_NODE* item);

 private:
  friend class ChainIndex;
  struct Record {
    XML_NODE* node;
    XML_NODE* indexNode;  // its first CommitIndex
    UINT64 value;
    UINTN firstOccurrence;  // 1-based into occurrences_, 0: none
    bool alive;
  };
  struct Occurrence {
    Search* search;
    UINTN slot;
    UINTN next;  // 1-based, 0: none
  };

  // The record of a candidate node: its index, kRejected for a node that
  // can never be found.
  EFI_STATUS recordOf(XML_NODE* node, UINTN* record);
  EFI_STATUS headOf(XML_NODE* start, XML_NODE** head);
  EFI_STATUS search(XML_NODE* start, UINT64 n, XML_NODE** item);
  void kill(UINTN record);
  bool addOccurrence(UINTN record, Search* search, UINTN slot);

  static constexpr UINTN kRejected = ~UINTN(0);
  XML_NODE* root_ = nullptr;
  Vec<Record> records_;
  Vec<Occurrence> occurrences_;
  HashMap<ByAddress> recordByNode_;  // node -> record + 1, or 0 when rejected
  HashMap<ByAddress> headByStart_;   // start -> its head (or null)
  HashMap<ByAddress> chainByNode_;   // chain member -> (index << 32) | segment
  HashMap<ByAddress> ownerByIndex_;  // CommitIndex node -> record + 1, or kShared
  static constexpr UINT64 kShared = ~UINT64(0);
  Vec<ChainIndex*> chains_;
};

}  // namespace tvl::imp
