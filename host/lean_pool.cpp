#include "host/lean_pool.h"

#include <cstdlib>
#include <cstring>

namespace tvl::host {

namespace {

// Head signatures of a block in use and of one on a free list.
constexpr uint32_t kLiveSignature = 0x4b4c4250;
constexpr uint32_t kFreedSignature = 0x46524545;
constexpr size_t kMaxChunkBytes = 8 * 1024 * 1024;
constexpr size_t kAlignment = 16;

}  // namespace

LeanPool::~LeanPool() {
  for (const auto& [start, range] : ranges_) std::free(reinterpret_cast<void*>(start));
}

uint32_t LeanPool::classOf(size_t size) {
  if (size <= kSmallClasses * 16) return size == 0 ? 0 : uint32_t((size - 1) / 16);
  if (size > kLargestClass) return kLargeClass;
  uint32_t sizeClass = kSmallClasses;
  for (size_t bytes = 1024; bytes < size; bytes *= 2) ++sizeClass;
  return sizeClass;
}

size_t LeanPool::classBytes(uint32_t sizeClass) {
  if (sizeClass < kSmallClasses) return (size_t(sizeClass) + 1) * 16;
  return size_t(1024) << (sizeClass - kSmallClasses);
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

void* LeanPool::allocate(size_t size) {
  const uint32_t sizeClass = classOf(size);
  uint8_t* base = nullptr;
  if (sizeClass == kLargeClass) {
    if (size > SIZE_MAX - kHeadBytes) return nullptr;
    base = static_cast<uint8_t*>(std::calloc(1, kHeadBytes + size));
    if (!base) return nullptr;
    auto start = reinterpret_cast<uintptr_t>(base);
    ranges_.emplace(start, Range{start + kHeadBytes + size, true});
  } else if (void* recycled = freeLists_[sizeClass]) {
    std::memcpy(&freeLists_[sizeClass], recycled, sizeof(void*));
    std::memset(recycled, 0, size);
    base = static_cast<uint8_t*>(recycled) - kHeadBytes;
  } else {
    const size_t footprint = kHeadBytes + classBytes(sizeClass);
    if (size_t(freshEnd_ - fresh_) < footprint && !addChunk(footprint)) return nullptr;
    base = fresh_;
    fresh_ += footprint;
  }
  Head head{kLiveSignature, sizeClass, size};
  std::memcpy(base, &head, sizeof head);
  return base + kHeadBytes;
}

LeanPool::Head* LeanPool::headOf(void* block) const {
  auto address = reinterpret_cast<uintptr_t>(block);
  if (address % kAlignment != 0 || address < kHeadBytes) return nullptr;
  auto range = ranges_.upper_bound(address);
  if (range == ranges_.begin()) return nullptr;
  --range;
  const uintptr_t start = address - kHeadBytes;
  if (start < range->first || address >= range->second.end) return nullptr;
  // A large block is alone in its range; a block in a chunk is one of many.
  if (range->second.large && start != range->first) return nullptr;
  auto* head = reinterpret_cast<Head*>(start);
  if (head->signature != kLiveSignature) return nullptr;
  if (range->second.large ? head->sizeClass != kLargeClass
                          : head->sizeClass >= kClasses || head->size > classBytes(head->sizeClass))
    return nullptr;
  return head;
}

bool LeanPool::release(void* block, size_t* size) {
  Head* head = headOf(block);
  if (!head) return false;
  *size = size_t(head->size);
  if (head->sizeClass == kLargeClass) {
    ranges_.erase(reinterpret_cast<uintptr_t>(head));
    std::free(head);
    return true;
  }
  head->signature = kFreedSignature;
  std::memcpy(block, &freeLists_[head->sizeClass], sizeof(void*));
  freeLists_[head->sizeClass] = block;
  return true;
}

}  // namespace tvl::host
