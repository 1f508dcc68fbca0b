#include "import/order.h"

#include "util/text.h"
#include "xml/node.h"

namespace {
struct InPool {};
}  // namespace

// Construction in memory that the pool gave.
void* operator new(decltype(sizeof(0)), void* at, InPool) noexcept { return at; }

namespace tvl::imp {
namespace {

constexpr UINTN kNone = ~UINTN(0);

XML_NODE* firstNamed(const CHAR8* name, XML_NODE* start) {
  XML_NODE* node = nullptr;
  return start && !EFI_ERROR(findNodeByName(name, start, &node)) ? node : nullptr;
}

bool isPasswordName(const XML_NODE* node) {
  return named(node, "Name") && node->contents &&
         (rt::equal(node->contents, "SysPassword") || rt::equal(node->contents, "SetupPassword"));
}

}  // namespace

// Candidates by (value, position): the first live one with a given value at
// or after a position is a binary search followed by a skip over dead
// slots, whose links are shortened as they are followed.
class Search {
 public:
  struct Entry {
    UINT64 value;
    UINTN position;
    UINTN record;
  };

  bool add(UINT64 value, UINTN position, UINTN record) { return entries_.push({value, position, record}); }
  // Positions are added in ascending order, so a stable sort by value
  // orders by (value, position).
  bool build() {
    if (!stableSort(entries_, [](const Entry& a, const Entry& b) { return a.value < b.value; })) return false;
    if (!skip_.resize(entries_.size() + 1)) return false;
    for (UINTN i = 0; i <= entries_.size(); ++i) skip_[i] = i;
    return true;
  }
  UINTN size() const { return entries_.size(); }
  const Entry& at(UINTN slot) const { return entries_[slot]; }

  UINTN first(UINT64 value, UINTN from) {
    UINTN low = 0, high = entries_.size();
    while (low < high) {
      UINTN middle = low + (high - low) / 2;
      const Entry& e = entries_[middle];
      if (e.value < value || (e.value == value && e.position < from))
        low = middle + 1;
      else
        high = middle;
    }
    UINTN slot = live(low);
    return slot < entries_.size() && entries_[slot].value == value ? slot : kNone;
  }
  void kill(UINTN slot) { skip_[slot] = slot + 1; }

 private:
  UINTN live(UINTN slot) {
    UINTN end = slot;
    while (skip_[end] != end) end = skip_[end];
    while (skip_[slot] != end) {
      UINTN next = skip_[slot];
      skip_[slot] = end;
      slot = next;
    }
    return end;
  }

  Vec<Entry> entries_;
  Vec<UINTN> skip_;
};

// The candidates of one head's sibling chain. Each member of the chain
// gives a segment: the first ConfigItem reachable from it and that item's
// following siblings. Members that reach the same item share a segment
// (the same candidates again can find nothing new). A segment whose item
// lies inside the member is "inner"; inner segments never overlap and are
// kept as one list. A segment whose item is itself a chain member is the
// rest of the chain; of those, a search needs only the first one at or
// after its start, because every later one is a part of it.
class ChainIndex {
 public:
  EFI_STATUS build(CommitOrder& order, XML_NODE* head, UINTN id);
  // The record of the first live candidate with `value` for a search that
  // starts at `segment`, or kNone.
  UINTN find(UINTN segment, UINT64 value);
  const Search& inner() const { return inner_; }
  const Search& members() const { return members_; }

 private:
  struct Segment {
    bool isChain;
    UINTN innerStart;  // inner positions before this segment
    UINTN chainStart;  // chain segments: the member the rest starts at
    UINTN nextChain;   // the first chain segment at or after this one
  };
  EFI_STATUS addCandidate(CommitOrder& order, Search& search, XML_NODE* node, UINTN* position);

  Vec<Segment> segments_;
  Search inner_;
  Search members_;
};

EFI_STATUS ChainIndex::addCandidate(CommitOrder& order, Search& search, XML_NODE* node, UINTN* position) {
  UINTN record = 0;
  RETURN_IF_ERROR(order.recordOf(node, &record));
  // A candidate applied before this chain was indexed reads "0" by now.
  if (record == CommitOrder::kRejected || !order.records_[record].alive) return EFI_SUCCESS;
  if (!search.add(order.records_[record].value, (*position)++, record)) return EFI_OUT_OF_RESOURCES;
  return EFI_SUCCESS;
}

EFI_STATUS ChainIndex::build(CommitOrder& order, XML_NODE* head, UINTN id) {
  Vec<XML_NODE*> members;
  for (XML_NODE* node = head; node; node = node->next)
    if (!members.push(node)) return EFI_OUT_OF_RESOURCES;
  const UINTN count = members.size();

  // The item each member reaches, found from the back: the member itself,
  // else the first ConfigItem inside it, else what the next member reaches.
  struct Reach {
    XML_NODE* item;
    UINTN member;  // the item's chain position, kNone for an item inside a member
  };
  Vec<Reach> reach;
  if (!reach.resize(count)) return EFI_OUT_OF_RESOURCES;
  Reach after{nullptr, kNone};
  for (UINTN k = count; k-- > 0;) {
    XML_NODE* member = members[k];
    if (named(member, "ConfigItem")) {
      after = {member, k};
    } else if (XML_NODE* inside = firstNamed("ConfigItem", member->children)) {
      after = {inside, kNone};
    }
    reach[k] = after;
  }

  Vec<UINTN> segmentOf;
  if (!segmentOf.resize(count)) return EFI_OUT_OF_RESOURCES;
  UINTN innerCount = 0;
  UINTN firstChainMember = kNone;
  for (UINTN k = 0; k < count; ++k) {
    if (!reach[k].item) {
      segmentOf[k] = kNone;  // reaches nothing, nor does any later member
      continue;
    }
    if (k > 0 && reach[k].item == reach[k - 1].item) {
      segmentOf[k] = segmentOf[k - 1];
      continue;
    }
    Segment segment{reach[k].member != kNone, innerCount, reach[k].member, kNone};
    segmentOf[k] = segments_.size();
    if (!segments_.push(segment)) return EFI_OUT_OF_RESOURCES;
    if (segment.isChain) {
      if (firstChainMember == kNone) firstChainMember = segment.chainStart;
      continue;
    }
    for (XML_NODE* item = reach[k].item; item; item = item->next)
      RETURN_IF_ERROR(addCandidate(order, inner_, item, &innerCount));
  }
  if (firstChainMember != kNone) {
    for (UINTN m = firstChainMember; m < count; ++m) {
      UINTN position = m;
      RETURN_IF_ERROR(addCandidate(order, members_, members[m], &position));
    }
  }
  UINTN nextChain = kNone;
  for (UINTN s = segments_.size(); s-- > 0;) {
    if (segments_[s].isChain) nextChain = s;
    segments_[s].nextChain = nextChain;
  }

  if (!inner_.build() || !members_.build()) return EFI_OUT_OF_RESOURCES;
  Search* searches[] = {&inner_, &members_};
  for (Search* search : searches)
    for (UINTN slot = 0; slot < search->size(); ++slot)
      if (!order.addOccurrence(search->at(slot).record, search, slot)) return EFI_OUT_OF_RESOURCES;

  // A member already known keeps the chain that first indexed it: both
  // give the same answers from it.
  for (UINTN k = 0; k < count; ++k) {
    UINT64 known = 0;
    if (order.chainByNode_.find(members[k], &known)) continue;
    UINTN segment = segmentOf[k] == kNone ? segments_.size() : segmentOf[k];
    if (!order.chainByNode_.put(members[k], (UINT64(id) << 32) | segment)) return EFI_OUT_OF_RESOURCES;
  }
  return EFI_SUCCESS;
}

UINTN ChainIndex::find(UINTN segment, UINT64 value) {
  if (segment >= segments_.size()) return kNone;
  const Segment& start = segments_[segment];
  UINTN innerSlot = inner_.first(value, start.innerStart);
  if (start.nextChain != kNone) {
    const Segment& chain = segments_[start.nextChain];
    if (innerSlot != kNone && inner_.at(innerSlot).position < chain.innerStart) return inner_.at(innerSlot).record;
    UINTN memberSlot = members_.first(value, chain.chainStart);
    if (memberSlot != kNone) return members_.at(memberSlot).record;
  }
  return innerSlot != kNone ? inner_.at(innerSlot).record : kNone;
}

CommitOrder::~CommitOrder() {
  for (UINTN i = 0; i < chains_.size(); ++i) {
    chains_[i]->~ChainIndex();
    rt::release(chains_[i]);
  }
}

EFI_STATUS CommitOrder::recordOf(XML_NODE* node, UINTN* record) {
  UINT64 known = 0;
  if (recordByNode_.find(node, &known)) {
    *record = known ? UINTN(known - 1) : kRejected;
    return EFI_SUCCESS;
  }
  // The item's first CommitIndex, and whether it names a password that
  // only the password entry applies.
  XML_NODE* indexNode = nullptr;
  bool password = false;
  RETURN_IF_ERROR(walkDocument(node->children, [&](XML_NODE* n) {
    if (!indexNode && named(n, "CommitIndex")) indexNode = n;
    if (isPasswordName(n)) {
      password = true;
      return Step::Stop;
    }
    return Step::Enter;
  }));
  UINT64 value = indexNode ? parseDecimal(indexNode->contents) : 0;
  if (password || value == 0) {
    *record = kRejected;
    return recordByNode_.put(node, 0) ? EFI_SUCCESS : EFI_OUT_OF_RESOURCES;
  }
  if (!records_.push({node, indexNode, value, 0, true})) return EFI_OUT_OF_RESOURCES;
  *record = records_.size() - 1;
  if (!recordByNode_.put(node, *record + 1)) return EFI_OUT_OF_RESOURCES;
  UINT64 owner = 0;
  UINT64 mark = ownerByIndex_.find(indexNode, &owner) ? kShared : *record + 1;
  return ownerByIndex_.put(indexNode, mark) ? EFI_SUCCESS : EFI_OUT_OF_RESOURCES;
}

bool CommitOrder::addOccurrence(UINTN record, Search* search, UINTN slot) {
  if (!occurrences_.push({search, slot, records_[record].firstOccurrence})) return false;
  records_[record].firstOccurrence = occurrences_.size();
  return true;
}

void CommitOrder::kill(UINTN record) {
  Record& r = records_[record];
  if (!r.alive) return;
  r.alive = false;
  for (UINTN o = r.firstOccurrence; o; o = occurrences_[o - 1].next)
    occurrences_[o - 1].search->kill(occurrences_[o - 1].slot);
}

EFI_STATUS CommitOrder::headOf(XML_NODE* start, XML_NODE** head) {
  UINT64 known = 0;
  if (headByStart_.find(start, &known)) {
    *head = reinterpret_cast<XML_NODE*>(UINTN(known));
    return EFI_SUCCESS;
  }
  *head = firstNamed("Form", start);
  return headByStart_.put(start, UINT64(UINTN(*head))) ? EFI_SUCCESS : EFI_OUT_OF_RESOURCES;
}

EFI_STATUS CommitOrder::search(XML_NODE* start, UINT64 n, XML_NODE** item) {
  *item = nullptr;
  XML_NODE* head = nullptr;
  RETURN_IF_ERROR(headOf(start, &head));
  if (!head) return EFI_SUCCESS;
  UINT64 place = 0;
  if (!chainByNode_.find(head, &place)) {
    void* memory = rt::allocateZero(sizeof(ChainIndex));
    if (!memory) return EFI_OUT_OF_RESOURCES;
    ChainIndex* chain = new (memory, InPool{}) ChainIndex();
    if (!chains_.push(chain)) {
      chain->~ChainIndex();
      rt::release(chain);
      return EFI_OUT_OF_RESOURCES;
    }
    RETURN_IF_ERROR(chain->build(*this, head, chains_.size() - 1));
    chainByNode_.find(head, &place);
  }
  UINTN record = chains_[UINTN(place >> 32)]->find(UINTN(place & 0xFFFFFFFFu), n);
  if (record != kNone) *item = records_[record].node;
  return EFI_SUCCESS;
}

EFI_STATUS CommitOrder::prepare(XML_NODE* root) {
  root_ = root;
  XML_NODE* item = nullptr;
  // Indexes the root's head; a value no candidate holds finds nothing.
  return search(root, 0, &item);
}

EFI_STATUS CommitOrder::passValues(UINT64 max, Vec<UINT64>& values) const {
  if (chains_.empty()) return EFI_SUCCESS;
  const Search& a = chains_[0]->inner();
  const Search& b = chains_[0]->members();
  UINTN i = 0, j = 0;
  while (i < a.size() || j < b.size()) {
    UINT64 value;
    if (j >= b.size() || (i < a.size() && a.at(i).value <= b.at(j).value))
      value = a.at(i++).value;
    else
      value = b.at(j++).value;
    if (value > max) break;
    if ((values.empty() || values.back() != value) && !values.push(value)) return EFI_OUT_OF_RESOURCES;
  }
  return EFI_SUCCESS;
}

EFI_STATUS CommitOrder::first(UINT64 n, XML_NODE** item) { return search(root_, n, item); }

EFI_STATUS CommitOrder::next(UINT64 n, XML_NODE* handled, XML_NODE** item) {
  *item = nullptr;
  return handled->parent ? search(handled->parent, n, item) : EFI_SUCCESS;
}

void CommitOrder::consume(XML_NODE* item) {
  UINT64 known = 0;
  if (recordByNode_.find(item, &known) && known) kill(UINTN(known - 1));
  XML_NODE* cleared = firstNamed("CommitIndex", item);
  if (!cleared) return;
  // Whatever reads the cleared node reads "0" from now on.
  UINT64 owner = 0;
  if (ownerByIndex_.find(cleared, &owner)) {
    if (owner != kShared) {
      kill(UINTN(owner - 1));
    } else {
      for (UINTN r = 0; r < records_.size(); ++r)
        if (records_[r].indexNode == cleared) kill(r);
    }
  }
  CHAR8* zero = rt::duplicate("0").release();
  if (!zero) return;
  rt::release(cleared->contents);
  cleared->contents = zero;
}

}  // namespace tvl::imp
