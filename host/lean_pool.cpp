#include "host/lean_pool.h"

#include <sys/mman.h>

#include <algorithm>

namespace tvl::host {

namespace {

constexpr size_t kMaxChunkBytes = 32 * 1024 * 1024;
constexpr size_t kHugePage = 2 * 1024 * 1024;
static_assert(kHugePage % LeanPool::kPageBytes == 0, "chunks hold whole pages");
static_assert(LeanPool::kArenaBytes % kHugePage == 0, "the arena holds whole chunks");

}  // namespace

LeanPool::~LeanPool() {
  for (const Range& range : ranges_) munmap(range.mapping, range.mappingLength);
  if (arenaMapping_) munmap(arenaMapping_, kArenaBytes + kHugePage);
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

// Large blocks are anonymous mappings of their own; those of 2 MiB and
// more are aligned to 2 MiB and offered huge pages.
uintptr_t LeanPool::map(size_t bytes) {
  const size_t alignment = bytes >= kHugePage ? kHugePage : 0;
  if (bytes > SIZE_MAX - alignment) return 0;
  void* mapping = mmap(nullptr, bytes + alignment, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapping == MAP_FAILED) return 0;
  auto start = reinterpret_cast<uintptr_t>(mapping);
  if (alignment) {
    start = (start + alignment - 1) & ~uintptr_t(alignment - 1);
    madvise(reinterpret_cast<void*>(start), bytes, MADV_HUGEPAGE);
  }
  const Range range{start, start + bytes, mapping, bytes + alignment};
  ranges_.insert(firstAfter(start), range);
  return start;
}

// Pages come from one arena: address space reserved (inaccessible, so it
// costs no memory) on the first request and made usable a chunk at a time,
// 2 MiB-aligned and offered huge pages, so that a tree of a hundred
// thousand elements costs a few TLB entries instead of thousands. One
// range holds every page, so a release tells a small block from anything
// else with one compare.
bool LeanPool::addChunk() {
  if (!arenaMapping_) {
    void* reserved = mmap(nullptr, kArenaBytes + kHugePage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (reserved == MAP_FAILED) return false;
    arenaMapping_ = reserved;
    arenaStart_ = (reinterpret_cast<uintptr_t>(reserved) + kHugePage - 1) & ~uintptr_t(kHugePage - 1);
  }
  const size_t bytes = std::min(nextChunkBytes_, kArenaBytes - arenaUsable_);
  if (bytes == 0) return false;
  auto* start = reinterpret_cast<uint8_t*>(arenaStart_ + arenaUsable_);
  if (mprotect(start, bytes, PROT_READ | PROT_WRITE) != 0) return false;
  madvise(start, bytes, MADV_HUGEPAGE);
  arenaUsable_ += bytes;
  fresh_ = start;
  freshEnd_ = start + bytes;
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
  return page;
}

// Every block of the page is free again: it is laid out for `sizeClass`
// (the header, the bitmap, then the blocks) and handed out from its first
// block.
void LeanPool::startOver(Page* page, uint32_t sizeClass) {
  const auto footprint = uint32_t(classBytes(sizeClass));
  const size_t most = (kPageBytes - sizeof(Page)) / footprint;
  const size_t words = (most + 63) / 64;
  page->sizeClass = uint16_t(sizeClass);
  page->footprint = footprint;
  page->first = uint32_t(sizeof(Page) + words * 8);
  page->capacity = uint32_t((kPageBytes - page->first) / footprint);
  page->used = 0;
  page->cursor = 0;
  page->reciprocal = (uint64_t(1) << 40) / footprint + 1;
  // Bits past the last block count as out, so that no search stops there.
  uint64_t* live = page->live();
  for (size_t w = 0; w < words; ++w) live[w] = ~uint64_t(0);
  for (uint32_t w = 0; w < page->capacity / 64; ++w) live[w] = 0;
  if (page->capacity % 64) live[page->capacity / 64] = ~uint64_t(0) << (page->capacity % 64);
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
  return take(page);
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
  page->cursor = 0;
  // The current page of a class goes on from its first block (its bits
  // are all clear again); any other page is free for whichever class
  // needs one next.
  if (page->state != PageState::Current) {
    page->state = PageState::Empty;
    pool->empty_.push(page);
  }
}

// A large block: [size, 8 bytes][signature, 8 bytes][payload]; its range
// may be longer than that when it is a spare block reused for a smaller
// request.
void* LeanPool::allocateLarge(size_t size) {
  if (size > SIZE_MAX - kLargePrefix) return nullptr;
  uint8_t* base = takeSpare(size);
  if (!base) base = reinterpret_cast<uint8_t*>(map(kLargePrefix + size));
  if (!base) return nullptr;
  const uint64_t prefix[2] = {size, kLargeSignature};
  std::memcpy(base, prefix, sizeof prefix);
  return base + kLargePrefix;
}

// The smallest spare block that holds `size` bytes without wasting more
// than half of itself, or null.
uint8_t* LeanPool::takeSpare(size_t size) {
  size_t best = kSpareBlocks;
  size_t bestBytes = 0;
  for (size_t i = 0; i < kSpareBlocks; ++i) {
    if (spare_[i] == 0) continue;
    const size_t bytes = rangeAt(spare_[i])->end - spare_[i] - kLargePrefix;
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
  if (address != range->start + kLargePrefix) return false;
  uint64_t prefix[2];
  std::memcpy(prefix, reinterpret_cast<void*>(range->start), sizeof prefix);
  if (prefix[1] != kLargeSignature) return false;
  *size = size_t(prefix[0]);
  const uint64_t released = 0;
  std::memcpy(reinterpret_cast<uint8_t*>(range->start) + 8, &released, sizeof released);
  for (uintptr_t& spare : spare_) {
    if (spare != 0) continue;
    spare = range->start;
    return true;
  }
  munmap(range->mapping, range->mappingLength);
  ranges_.erase(range);
  return true;
}

bool EFIAPI LeanPool::releaseSlow(LeanPool* pool, void* block, size_t* size) {
  const auto address = reinterpret_cast<uintptr_t>(block);
  auto range = pool->rangeOf(address);
  return range != pool->ranges_.end() && pool->releaseLarge(range, address, size);
}

}  // namespace tvl::host
