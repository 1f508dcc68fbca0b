#include "host/lean_pool.h"

#include <cstdlib>

namespace tvl::host {

namespace {

constexpr size_t kMaxChunkBytes = 8 * 1024 * 1024;

}  // namespace

LeanPool::~LeanPool() {
  for (const auto& [start, range] : ranges_) std::free(reinterpret_cast<void*>(start));
}

bool LeanPool::addChunk(size_t atLeast) {
  size_t bytes = nextChunkBytes_;
  while (bytes < atLeast) bytes *= 2;
  // calloc hands out large runs as fresh zero pages, so carving from a new
  // chunk needs no fill.
  void* chunk = std::calloc(1, bytes);
  if (!chunk) return false;
  auto start = reinterpret_cast<uintptr_t>(chunk);
  ranges_.emplace(start, Range{start + bytes, false});
  fresh_ = static_cast<uint8_t*>(chunk);
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
    if (!base) {
      base = static_cast<uint8_t*>(std::calloc(1, 2 * kHeadBytes + size));
      if (!base) return nullptr;
      auto start = reinterpret_cast<uintptr_t>(base);
      pool->ranges_.emplace(start, Range{start + 2 * kHeadBytes + size, true});
    }
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
    std::free(reinterpret_cast<void*>(range->first));
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
