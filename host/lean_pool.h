// The lean pool: blocks carved from large chunks and recycled through one
// free list per size class, as a firmware pool does. Each block carries a
// 16-byte head (signature, size class, size) in front of it; the pool keeps
// no record per block beyond that, so allocation and release cost a few
// dozen instructions and no host allocation.
//
// Blocks above the largest class come from the host allocator one by one
// and are the only ones the pool lists (they are few and large).
//
// Release checks what it can cheaply: the address must be 16-byte aligned,
// lie inside one of the pool's chunks or large blocks, and its head must
// carry the signature of a live block. Addresses the pool never handed out
// and second releases of a block are refused that way; a second release of
// a block that has been handed out again in between is not detected, and
// neither is writing past a block's end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>

namespace tvl::host {

class LeanPool {
 public:
  LeanPool() = default;
  // Returns every chunk and large block to the host.
  ~LeanPool();
  LeanPool(const LeanPool&) = delete;
  LeanPool& operator=(const LeanPool&) = delete;

  // A zero-filled block of `size` bytes, 16-byte aligned; null when the
  // host has no memory left. A zero-size request still gets a block of its
  // own.
  void* allocate(size_t size);
  // Releases a block and sets *size to what it was allocated with; false
  // (nothing changes) when `block` is not a live block of this pool.
  bool release(void* block, size_t* size);

  static constexpr size_t kHeadBytes = 16;
  static constexpr size_t kLargestClass = 64 * 1024;

 private:
  struct Head {
    uint32_t signature;
    uint32_t sizeClass;
    uint64_t size;
  };
  static_assert(sizeof(Head) == kHeadBytes, "block heads keep payloads 16-byte aligned");

  static constexpr uint32_t kSmallClasses = 32;  // 16, 32, ... 512 bytes
  static constexpr uint32_t kClasses = kSmallClasses + 7;  // then 1 KiB ... 64 KiB
  static constexpr uint32_t kLargeClass = kClasses;

  static uint32_t classOf(size_t size);
  static size_t classBytes(uint32_t sizeClass);
  bool addChunk(size_t atLeast);
  Head* headOf(void* block) const;

  // Free blocks of each class, linked through their first bytes.
  void* freeLists_[kClasses] = {};
  // The untouched rest of the newest chunk (zero, as the host handed it out).
  uint8_t* fresh_ = nullptr;
  uint8_t* freshEnd_ = nullptr;
  size_t nextChunkBytes_ = 64 * 1024;
  // The chunks and the large blocks, by start address.
  struct Range {
    uintptr_t end;
    bool large;
  };
  std::map<uintptr_t, Range> ranges_;
};

}  // namespace tvl::host
