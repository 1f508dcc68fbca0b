#include "host/lean_pool.h"

#include <sys/mman.h>

#include <algorithm>

namespace tvl::host {

namespace {

constexpr size_t kMaxChunkBytes = 32 * 1024 * 1024;
constexpr size_t kHugePage = 2 * 1024 * 1024;
static_assert(kHugePage % LeanPool::kPageBytes == 0, "chunks hold whole pages");

}  // namespace

LeanPool::~LeanPool() {
  for (const Range& range : ranges_) munmap(range.mapping, range.mappingLength);
}

void LeanPool::PageList::push(Page* page) {
  page->previous = nullptr;
  page->next = first;
  if (first) first->previous = page;
  first = page;
}

void LeanPool::PageList::remove(Page* page) {
  if (page->previous)
    page->previous->next = page->next;
  else
    first = page->next;
  if (page->next) page->next->previous = page->previous;
  page->previous = page->next = nullptr;
}

LeanPool::Page* LeanPool::PageList::pop() {
  Page* page = first;
  if (page) remove(page);
  return page;
}

// Chunks and large blocks are anonymous mappings of their own. Chunks, and large blocks of 2 MiB and more, are aligned to 2 MiB and
// offered huge pages: a tree of a hundred thousand elements then costs a
// few TLB entries instead of thousands.
uintptr_t LeanPool::map(size_t bytes, bool large) {
  const size_t alignment = !large || bytes >= kHugePage ? kHugePage : 0;
  if (bytes > SIZE_MAX - alignment) return 0;
  void* mapping = mmap(nullptr, bytes + alignment, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapping == MAP_FAILED) return 0;
  auto start = reinterpret_cast<uintptr_t>(mapping);
  if (alignment) {
    start = (start + alignment - 1) & ~uintptr_t(alignment - 1);
    madvise(reinterpret_cast<void*>(start), bytes, MADV_HUGEPAGE);
  }
  const Range range{start, start + bytes, large, mapping, bytes + alignment};
  ranges_.insert(firstAfter(start), range);
  return start;
}

bool LeanPool::addChunk() {
  const uintptr_t start = map(nextChunkBytes_, false);
  if (!start) return false;
  fresh_ = reinterpret_cast<uint8_t*>(start);
  freshEnd_ = fresh_ + nextChunkBytes_;
  if (nextChunkBytes_ < kMaxChunkBytes) nextChunkBytes_ *= 2;
  return true;
}

// A page for a class that has filled its current one: an empty page if
// there is one, else one carved from the newest chunk.
LeanPool::Page* LeanPool::newPage() {
  if (Page* page = empty_.pop()) return page;
  if (fresh_ == freshEnd_ && !addChunk()) return nullptr;
  auto* page = reinterpret_cast<Page*>(fresh_);
  fresh_ += kPageBytes;
  page->signature = kPageSignature;
  page->end = reinterpret_cast<uint8_t*>(page) + kPageBytes;
  return page;
}

// Every block of the page is free again: carving starts over from its
// first block, for `sizeClass`.
void LeanPool::startOver(Page* page, uint32_t sizeClass) {
  page->sizeClass = uint16_t(sizeClass);
  page->footprint = uint32_t(kHeadBytes + classBytes(sizeClass));
  page->used = 0;
  page->freeList = nullptr;
  page->bump = reinterpret_cast<uint8_t*>(page) + kPageHeaderBytes;
}

void* EFIAPI LeanPool::allocateSlow(LeanPool* pool, size_t size) {
  if (size > kLargestClass) return pool->allocateLarge(size);
  // The class's current page is full (or it has none yet): the next one
  // is a page of the class with blocks released, else a new page.
  const uint32_t sizeClass = classOf(size);
  if (Page* full = pool->current_[sizeClass]) full->state = PageState::Full;
  Page* page = pool->partial_[sizeClass].pop();
  if (!page) {
    page = pool->newPage();
    if (!page) {
      pool->current_[sizeClass] = nullptr;
      return nullptr;
    }
    startOver(page, sizeClass);
  }
  page->state = PageState::Current;
  pool->current_[sizeClass] = page;
  return pool->allocate(size);
}

// A release left `page` with no block out, or was the first release of a
// full page.
void EFIAPI LeanPool::settle(LeanPool* pool, Page* page) {
  if (page->used != 0) {  // full, and now has a block to reuse
    page->state = PageState::Partial;
    pool->partial_[page->sizeClass].push(page);
    return;
  }
  if (page->state == PageState::Partial) pool->partial_[page->sizeClass].remove(page);
  startOver(page, page->sizeClass);
  // The current page of a class carves from its start again; any other
  // page is free for whichever class needs one next.
  if (page->state != PageState::Current) {
    page->state = PageState::Empty;
    pool->empty_.push(page);
  }
}

// A large block: [size, 8 bytes][head][payload]; its range may be longer
// than that when it is a spare block reused for a smaller request.
void* LeanPool::allocateLarge(size_t size) {
  if (size > SIZE_MAX - 2 * kHeadBytes) return nullptr;
  uint8_t* base = takeSpare(size);
  if (!base) base = reinterpret_cast<uint8_t*>(map(2 * kHeadBytes + size, true));
  if (!base) return nullptr;
  const uint64_t fullSize = size;
  std::memcpy(base, &fullSize, sizeof fullSize);
  return withHead(base + 2 * kHeadBytes, kLargeClass, 0);
}

// The smallest spare block that holds `size` bytes without wasting more
// than half of itself, or null.
uint8_t* LeanPool::takeSpare(size_t size) {
  size_t best = kSpareBlocks;
  size_t bestBytes = 0;
  for (size_t i = 0; i < kSpareBlocks; ++i) {
    if (spare_[i] == 0) continue;
    const size_t bytes = rangeAt(spare_[i])->end - spare_[i] - 2 * kHeadBytes;
    if (bytes >= size && bytes / 2 <= size && (best == kSpareBlocks || bytes < bestBytes)) {
      best = i;
      bestBytes = bytes;
    }
  }
  if (best == kSpareBlocks) return nullptr;
  auto* base = reinterpret_cast<uint8_t*>(spare_[best]);
  spare_[best] = 0;
  return base;
}

std::vector<LeanPool::Range>::iterator LeanPool::firstAfter(uintptr_t address) {
  return std::upper_bound(ranges_.begin(), ranges_.end(), address,
                          [](uintptr_t a, const Range& r) { return a < r.start; });
}

std::vector<LeanPool::Range>::iterator LeanPool::rangeOf(uintptr_t address) {
  auto after = firstAfter(address);
  if (after == ranges_.begin()) return ranges_.end();
  auto range = after - 1;
  return address < range->end ? range : ranges_.end();
}

LeanPool::Range* LeanPool::rangeAt(uintptr_t start) {
  auto range = rangeOf(start);
  return range != ranges_.end() && range->start == start ? &*range : nullptr;
}

bool LeanPool::releaseLarge(std::vector<Range>::iterator range, uintptr_t address, size_t* size) {
  // A large block is alone in its range.
  if (address != range->start + 2 * kHeadBytes) return false;
  Head h;
  std::memcpy(&h, headAddress(address), sizeof h);
  if (h.signature != kLiveSignature || h.sizeClass != kLargeClass) return false;
  uint64_t fullSize;
  std::memcpy(&fullSize, reinterpret_cast<void*>(range->start), sizeof fullSize);
  *size = size_t(fullSize);
  for (uintptr_t& spare : spare_) {
    if (spare != 0) continue;
    spare = range->start;
    h.signature = kFreedSignature;
    std::memcpy(headAddress(address), &h, sizeof h);
    return true;
  }
  munmap(range->mapping, range->mappingLength);
  ranges_.erase(range);
  return true;
}

bool EFIAPI LeanPool::releaseSlow(LeanPool* pool, void* block, size_t* size) {
  const auto address = reinterpret_cast<uintptr_t>(block);
  auto range = pool->rangeOf(address);
  if (range == pool->ranges_.end()) return false;
  if (range->large) return pool->releaseLarge(range, address, size);
  // Inside a chunk: from here the fast path serves, and serves the next
  // releases from this chunk too.
  pool->lastChunk_ = Span{range->start, range->end};
  return pool->release(block, size);
}

}  // namespace tvl::host
