#include "host/lean_pool.h"

#include <sys/mman.h>

#include <algorithm>

namespace tvl::host {

namespace {

constexpr size_t kMaxChunkBytes = 8 * 1024 * 1024;
constexpr size_t kHugePage = 2 * 1024 * 1024;

}  // namespace

LeanPool::~LeanPool() {
  for (const Range& range : ranges_) munmap(range.mapping, range.mappingLength);
}

// Chunks and large blocks are anonymous mappings of their own: fresh zero
// pages, so carving from a chunk needs no fill. Those of 2 MiB and more
// are aligned to 2 MiB and offered huge pages: a tree of a hundred
// thousand elements then costs a few TLB entries instead of thousands.
uintptr_t LeanPool::map(size_t bytes, bool large) {
  const size_t slack = bytes >= kHugePage ? kHugePage : 0;
  if (bytes > SIZE_MAX - slack) return 0;
  void* mapping = mmap(nullptr, bytes + slack, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapping == MAP_FAILED) return 0;
  auto start = reinterpret_cast<uintptr_t>(mapping);
  if (slack) {
    start = (start + kHugePage - 1) & ~uintptr_t(kHugePage - 1);
    madvise(reinterpret_cast<void*>(start), bytes, MADV_HUGEPAGE);
  }
  const Range range{start, start + bytes, large, mapping, bytes + slack};
  ranges_.insert(firstAfter(start), range);
  return start;
}

bool LeanPool::addChunk(size_t atLeast) {
  size_t bytes = nextChunkBytes_;
  while (bytes < atLeast) bytes *= 2;
  const uintptr_t start = map(bytes, false);
  if (!start) return false;
  fresh_ = reinterpret_cast<uint8_t*>(start);
  freshEnd_ = fresh_ + bytes;
  if (nextChunkBytes_ < kMaxChunkBytes) nextChunkBytes_ *= 2;
  return true;
}

// A large block: [size, 8 bytes][head][payload]; its range may be longer
// than that when it is a spare block reused for a smaller request.
void* EFIAPI LeanPool::allocateSlow(LeanPool* pool, size_t size) {
  if (size > kLargestClass) {
    if (size > SIZE_MAX - 2 * kHeadBytes) return nullptr;
    uint8_t* base = pool->takeSpare(size);
    if (!base) base = reinterpret_cast<uint8_t*>(pool->map(2 * kHeadBytes + size, true));
    if (!base) return nullptr;
    const uint64_t fullSize = size;
    std::memcpy(base, &fullSize, sizeof fullSize);
    return withHead(base + 2 * kHeadBytes, kLargeClass, 0);
  }
  // The newest chunk has no room left for this class: what remains of it
  // is given up, and the next chunk serves.
  const uint32_t sizeClass = classOf(size);
  const size_t footprint = kHeadBytes + classBytes(sizeClass);
  if (!pool->addChunk(footprint)) return nullptr;
  uint8_t* base = pool->fresh_;
  pool->fresh_ += footprint;
  return withHead(base + kHeadBytes, sizeClass, size);
}

// The smallest spare block that holds `size` bytes without wasting more
// than half of itself, zero-filled, or null.
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
  std::memset(base + 2 * kHeadBytes, 0, size);
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

bool EFIAPI LeanPool::releaseSlow(LeanPool* pool, void* block, size_t* size) {
  const auto address = reinterpret_cast<uintptr_t>(block);
  if (address % kAlignment != 0 || address < 2 * kHeadBytes) return false;
  auto range = pool->rangeOf(address - kHeadBytes);
  if (range == pool->ranges_.end() || address >= range->end) return false;
  const uintptr_t head = address - kHeadBytes;
  // A large block is alone in its range.
  if (range->large && head != range->start + kHeadBytes) return false;
  Head h;
  std::memcpy(&h, headAddress(address), sizeof h);
  if (h.signature != kLiveSignature) return false;
  if (range->large) {
    if (h.sizeClass != kLargeClass) return false;
    uint64_t fullSize;
    std::memcpy(&fullSize, reinterpret_cast<void*>(range->start), sizeof fullSize);
    *size = size_t(fullSize);
    for (uintptr_t& spare : pool->spare_) {
      if (spare != 0) continue;
      spare = range->start;
      h.signature = kFreedSignature;
      std::memcpy(headAddress(address), &h, sizeof h);
      return true;
    }
    munmap(range->mapping, range->mappingLength);
    pool->ranges_.erase(range);
    return true;
  }
  if (h.sizeClass >= kClasses || h.size > classBytes(h.sizeClass)) return false;
  pool->lastChunk_ = Span{range->start, range->end};
  *size = h.size;
  pool->pushFree(block, h);
  return true;
}

}  // namespace tvl::host
