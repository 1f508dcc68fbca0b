// The lean pool: blocks carved from large chunks and recycled through one
// free list per size class, as a firmware pool does. Each block carries an
// 8-byte head (signature, size class, size) in front of it; the pool keeps
// no record per block beyond that, so allocation and release cost a few
// dozen instructions and no host allocation. Blocks are 8-byte aligned, the
// alignment the UEFI specification promises for pool memory, and come
// zero-filled.
//
// Blocks above the largest class are host mappings of their own and the
// only blocks the pool lists (they are few and large). A few of
// them are kept when released, for later requests that fit them, so that a
// large text built again and again does not return to the host (and come
// back as fresh pages) every time.
//
// Release checks what it can cheaply: the address must be 8-byte aligned,
// lie inside one of the pool's chunks or large blocks, and its head must
// carry the signature of a live block. Addresses the pool never handed out
// and second releases of a block are refused that way; a second release of
// a block that has been handed out again in between is not detected, and
// neither is writing past a block's end.
//
// The fast paths are inline and call nothing, and the slow paths are
// EFIAPI: the pool is reached from EFIAPI entry points, which would
// otherwise save and restore ten XMM registers around every call into
// System V code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "uefi/base.h"

namespace tvl::host {

class LeanPool {
 public:
  LeanPool() = default;
  // Returns every chunk and large block to the host.
  ~LeanPool();
  LeanPool(const LeanPool&) = delete;
  LeanPool& operator=(const LeanPool&) = delete;

  // A zero-filled block of `size` bytes; null when the host has no memory
  // left. A zero-size request still gets a block of its own.
  void* allocate(size_t size) {
    if (size <= kLargestClass) {
      const uint32_t sizeClass = classOf(size);
      if (void* recycled = freeLists_[sizeClass]) {
        std::memcpy(&freeLists_[sizeClass], recycled, sizeof(void*));
        // The next allocation of this class reads the block after this one
        // from its first bytes: fetch it now rather than stall on it then.
        __builtin_prefetch(freeLists_[sizeClass], 1);
        zero(recycled, size);
        return withHead(static_cast<uint8_t*>(recycled), sizeClass, size);
      }
      const size_t footprint = kHeadBytes + classBytes(sizeClass);
      if (size_t(freshEnd_ - fresh_) >= footprint) {
        uint8_t* base = fresh_;
        fresh_ += footprint;
        return withHead(base + kHeadBytes, sizeClass, size);
      }
    }
    return allocateSlow(this, size);
  }

  // Releases a block and sets *size to what it was allocated with; false
  // (nothing changes) when `block` is not a live block of this pool.
  bool release(void* block, size_t* size) {
    const auto address = reinterpret_cast<uintptr_t>(block);
    if (address % kAlignment != 0 || address - kHeadBytes < lastChunk_.start ||
        address >= lastChunk_.end)
      return releaseSlow(this, block, size);
    Head head;
    std::memcpy(&head, headAddress(address), sizeof head);
    if (head.signature != kLiveSignature || head.sizeClass >= kClasses || head.size > classBytes(head.sizeClass))
      return false;
    *size = head.size;
    pushFree(block, head);
    return true;
  }

  static constexpr size_t kHeadBytes = 8;
  static constexpr size_t kAlignment = 8;
  static constexpr size_t kLargestClass = 64 * 1024;

 private:
  struct Head {
    uint16_t signature;
    uint16_t sizeClass;
    uint32_t size;  // a large block keeps its size in the 8 bytes before the head
  };
  static_assert(sizeof(Head) == kHeadBytes, "block heads keep payloads 8-byte aligned");

  static constexpr uint16_t kLiveSignature = 0x4c50;
  static constexpr uint16_t kFreedSignature = 0x4650;
  static constexpr uint32_t kSmallClasses = 64;            // 8, 16, ... 512 bytes
  static constexpr uint32_t kClasses = kSmallClasses + 7;  // then 1 KiB ... 64 KiB
  static constexpr uint16_t kLargeClass = kClasses;

  struct Span {
    uintptr_t start = 0;
    uintptr_t end = 0;
  };
  struct Range {
    uintptr_t start;
    uintptr_t end;
    bool large;
    void* mapping;  // the host mapping that holds it
    size_t mappingLength;
  };

  static uint32_t classOf(size_t size) {
    if (size <= kSmallClasses * 8) return size == 0 ? 0 : uint32_t((size - 1) / 8);
    // 513..1024 bytes: the first power-of-two class, and so on.
    return kSmallClasses + uint32_t(64 - __builtin_clzll(size - 1)) - 10;
  }
  static size_t classBytes(uint32_t sizeClass) {
    return sizeClass < kSmallClasses ? (size_t(sizeClass) + 1) * 8 : size_t(1024) << (sizeClass - kSmallClasses);
  }
  static void* headAddress(uintptr_t address) { return reinterpret_cast<void*>(address - kHeadBytes); }
  static void* withHead(uint8_t* block, uint32_t sizeClass, size_t size) {
    const Head head{kLiveSignature, uint16_t(sizeClass), uint32_t(size)};
    std::memcpy(block - kHeadBytes, &head, sizeof head);
    return block;
  }
  // Word stores through a volatile pointer, so that the compiler keeps the
  // loop instead of calling memset.
  static void zero(void* block, size_t size) {
    auto* words = static_cast<volatile uint64_t*>(block);
    for (size_t i = 0, n = (size + 7) / 8; i < n; ++i) words[i] = 0;
  }
  void pushFree(void* block, Head head) {
    head.signature = kFreedSignature;
    std::memcpy(headAddress(reinterpret_cast<uintptr_t>(block)), &head, sizeof head);
    std::memcpy(block, &freeLists_[head.sizeClass], sizeof(void*));
    freeLists_[head.sizeClass] = block;
  }

  static void* EFIAPI allocateSlow(LeanPool* pool, size_t size);
  static bool EFIAPI releaseSlow(LeanPool* pool, void* block, size_t* size);
  uintptr_t map(size_t bytes, bool large);  // 0 when the host refuses
  bool addChunk(size_t atLeast);
  uint8_t* takeSpare(size_t size);

  // Free blocks of each class, linked through their first bytes.
  void* freeLists_[kClasses] = {};
  // The untouched rest of the newest chunk (zero, as the host handed it out).
  uint8_t* fresh_ = nullptr;
  uint8_t* freshEnd_ = nullptr;
  size_t nextChunkBytes_ = 64 * 1024;
  // The chunk of the latest release that needed a look-up: releases tend to
  // come in runs from one chunk.
  Span lastChunk_;
  // The chunks and the large blocks, sorted by start address: a release
  // outside the latest chunk searches it, and it stays a few dozen entries
  // long and contiguous, so that costs a handful of cached compares.
  std::vector<Range> ranges_;
  std::vector<Range>::iterator firstAfter(uintptr_t address);  // the first range starting above it
  std::vector<Range>::iterator rangeOf(uintptr_t address);     // end() when none holds it
  Range* rangeAt(uintptr_t start);
  // Released large blocks kept for reuse (their starts; 0: none).
  static constexpr size_t kSpareBlocks = 16;
  uintptr_t spare_[kSpareBlocks] = {};
};

}  // namespace tvl::host
