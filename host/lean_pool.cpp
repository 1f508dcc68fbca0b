#include "host/lean_pool.h"

#include <sys/mman.h>


namespace tvl::host {

namespace {

constexpr size_t kMaxChunkBytes = 8 * 1024 * 1024;
constexpr size_t kHugePage = 2 * 1024 * 1024;

}  // namespace

LeanPool::~LeanPool() {
  for (const auto& [start, range] : ranges_) munmap(range.mapping, range.mappingLength);
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
  ranges_.emplace(start, Range{start + bytes, large, mapping, bytes + slack});
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
    const size_t bytes = ranges_.at(spare_[i]).end - spare_[i] - 2 * kHeadBytes;
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

bool EFIAPI LeanPool::releaseSlow(LeanPool* pool, void* block, size_t* size) {
  const auto address = reinterpret_cast<uintptr_t>(block);
  if (address % kAlignment != 0 || address < 2 * kHeadBytes) return false;
  auto range = pool->ranges_.upper_bound(address);
  if (range == pool->ranges_.begin()) return false;
  --range;
  const uintptr_t head = address - kHeadBytes;
  if (head < range->first || address >= range->second.end) return false;
  // A large block is alone in its range.
  if (range->second.large && head != range->first + kHeadBytes) return false;
  Head h;
  std::memcpy(&h, headAddress(address), sizeof h);
  if (h.signature != kLiveSignature) return false;
  if (range->second.large) {
    if (h.sizeClass != kLargeClass) return false;
    uint64_t fullSize;
    std::memcpy(&fullSize, reinterpret_cast<void*>(range->first), sizeof fullSize);
    *size = size_t(fullSize);
    for (uintptr_t& spare : pool->spare_) {
      if (spare != 0) continue;
      spare = range->first;
      h.signature = kFreedSignature;
      std::memcpy(headAddress(address), &h, sizeof h);
      return true;
    }
    munmap(range->second.mapping, range->second.mappingLength);
    pool->ranges_.erase(range);
    return true;
  }
  if (h.sizeClass >= kClasses || h.size > classBytes(h.sizeClass)) return false;
  pool->lastChunk_ = Span{range->first, range->second.end};
  *size = h.size;
  pool->pushFree(block, h);
  return true;
}

}  // namespace tvl::host
