// The lean pool: blocks carved from pages of one size class each, as a
// firmware pool carves its pool pages per bucket. Each block carries an
// 8-byte head (signature, size class, size) in front of it; each page
// carries a header (its class, how many of its blocks are out, its free
// list and where its uncarved rest starts). Nothing else is recorded per
// block, so allocation and release cost a few dozen instructions and no
// host allocation. Blocks are 8-byte aligned, the alignment the UEFI
// specification promises for pool memory, and, as in firmware, not
// cleared: a recycled block holds what its last owner left (the checked
// pool fills blocks with a pattern, so that tests catch code that counts
// on zeroes).
//
// Why pages rather than one free list per class: a free list shared by a
// whole class hands blocks out in the order they were last released, so
// after a large tree has been built and freed a few times its nodes lie
// scattered across every chunk, and walking the next tree costs a cache
// miss per node. A page's blocks are carved in address order, a page whose
// blocks are all back starts over from its first block, and a class takes
// from its current page until that is full; consecutive allocations so
// stay neighbours however often the pool has been through the same work.
//
// Blocks above the largest class are host mappings of their own and the
// only blocks the pool lists besides its chunks (they are few and large).
// A few of them are kept when released, for later requests that fit them,
// so that a large text built again and again does not return to the host
// (and come back as fresh pages) every time.
//
// Release checks what it can cheaply: the address must lie inside one of
// the pool's chunks or large blocks, at the start of a carved block of a
// page, and its head must carry the signature of a live block. Addresses
// the pool never handed out and second releases of a block are refused
// that way; a second release of a block that has been handed out again in
// between is not detected, and neither is writing past a block's end.
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

  // A block of `size` bytes; null when the host has no memory left. A
  // zero-size request still gets a block of its own.
  void* allocate(size_t size) {
    if (size <= kLargestClass) {
      const uint32_t sizeClass = classOf(size);
      if (Page* page = current_[sizeClass]) {
        if (void* recycled = page->freeList) {
          std::memcpy(&page->freeList, recycled, sizeof(void*));
          page->used++;
          return withHead(static_cast<uint8_t*>(recycled), sizeClass, size);
        }
        if (size_t(page->end - page->bump) >= page->footprint) {
          uint8_t* block = page->bump + kHeadBytes;
          page->bump += page->footprint;
          page->used++;
          return withHead(block, sizeClass, size);
        }
      }
    }
    return allocateSlow(this, size);
  }

  // Releases a block and sets *size to what it was allocated with; false
  // (nothing changes) when `block` is not a live block of this pool.
  bool release(void* block, size_t* size) {
    const auto address = reinterpret_cast<uintptr_t>(block);
    if (address < lastChunk_.start || address >= lastChunk_.end) return releaseSlow(this, block, size);
    Page* page = pageOf(address);
    Head head;
    if (!carvedBlock(page, address, &head)) return false;
    *size = head.size;
    head.signature = kFreedSignature;
    std::memcpy(headAddress(address), &head, sizeof head);
    std::memcpy(block, &page->freeList, sizeof(void*));
    page->freeList = block;
    // A page that was full, or is now empty, changes lists.
    if (--page->used == 0 || page->state == PageState::Full) settle(this, page);
    return true;
  }

  static constexpr size_t kHeadBytes = 8;
  static constexpr size_t kAlignment = 8;
  static constexpr size_t kLargestClass = 64 * 1024;
  // Pages are this large and aligned to their size, so a block's page is
  // its address rounded down.
  static constexpr size_t kPageBytes = 256 * 1024;
  static_assert(kPageBytes <= UINT32_MAX, "offsets in a page fit 32 bits");

 private:
  struct Head {
    uint16_t signature;
    uint16_t sizeClass;
    uint32_t size;  // a large block keeps its size in the 8 bytes before the head
  };
  static_assert(sizeof(Head) == kHeadBytes, "block heads keep payloads 8-byte aligned");

  enum class PageState : uint8_t { Current, Partial, Full, Empty };
  struct Page {
    uint32_t signature;
    uint16_t sizeClass;
    PageState state;
    uint8_t reserved;
    uint32_t used;       // blocks handed out and not released
    uint32_t footprint;  // head and payload of one block
    uint8_t* bump;       // the first block never carved since the page started over
    uint8_t* end;
    void* freeList;      // released blocks, linked through their first bytes
    Page* previous;      // in its class's partial list or the empty list
    Page* next;
  };
  static constexpr size_t kPageHeaderBytes = 64;
  static_assert(sizeof(Page) <= kPageHeaderBytes, "the page header fits before the first block");
  static_assert((kLargestClass + kHeadBytes) * 3 + kPageHeaderBytes <= kPageBytes, "a page holds three of the largest class");

  static constexpr uint16_t kLiveSignature = 0x4c50;
  static constexpr uint16_t kFreedSignature = 0x4650;
  static constexpr uint32_t kPageSignature = 0x4c504147;
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
  // A doubly linked list of pages.
  struct PageList {
    Page* first = nullptr;
    void push(Page* page);
    void remove(Page* page);
    Page* pop();
  };

  static uint32_t classOf(size_t size) {
    if (size <= kSmallClasses * 8) return size == 0 ? 0 : uint32_t((size - 1) / 8);
    // 513..1024 bytes: the first power-of-two class, and so on.
    return kSmallClasses + uint32_t(64 - __builtin_clzll(size - 1)) - 10;
  }
  static size_t classBytes(uint32_t sizeClass) {
    return sizeClass < kSmallClasses ? (size_t(sizeClass) + 1) * 8 : size_t(1024) << (sizeClass - kSmallClasses);
  }
  static Page* pageOf(uintptr_t address) { return reinterpret_cast<Page*>(address & ~uintptr_t(kPageBytes - 1)); }
  static void* headAddress(uintptr_t address) { return reinterpret_cast<void*>(address - kHeadBytes); }
  static void* withHead(uint8_t* block, uint32_t sizeClass, size_t size) {
    const Head head{kLiveSignature, uint16_t(sizeClass), uint32_t(size)};
    std::memcpy(block - kHeadBytes, &head, sizeof head);
    return block;
  }
  // Whether `address` (inside a chunk) is the payload of a block carved
  // from its page and still out; its head goes to *head.
  static bool carvedBlock(const Page* page, uintptr_t address, Head* head) {
    const uintptr_t first = reinterpret_cast<uintptr_t>(page) + kPageHeaderBytes + kHeadBytes;
    // The offset is below kPageBytes: a 32-bit division, several times
    // quicker than a 64-bit one on the release path.
    if (page->signature != kPageSignature || address < first || address >= uintptr_t(page->bump) ||
        uint32_t(address - first) % page->footprint != 0)
      return false;
    std::memcpy(head, headAddress(address), sizeof *head);
    return head->signature == kLiveSignature && head->sizeClass == page->sizeClass &&
           head->size <= classBytes(head->sizeClass);
  }

  static void* EFIAPI allocateSlow(LeanPool* pool, size_t size);
  static bool EFIAPI releaseSlow(LeanPool* pool, void* block, size_t* size);
  static void EFIAPI settle(LeanPool* pool, Page* page);
  void* allocateLarge(size_t size);
  bool releaseLarge(std::vector<Range>::iterator range, uintptr_t address, size_t* size);
  Page* newPage();                           // null when the host refuses
  static void startOver(Page* page, uint32_t sizeClass);
  uintptr_t map(size_t bytes, bool large);  // 0 when the host refuses
  bool addChunk();
  uint8_t* takeSpare(size_t size);

  // The page each class carves from, or null before its first block.
  Page* current_[kClasses] = {};
  // Pages of each class, other than the current one, with blocks to reuse.
  PageList partial_[kClasses];
  // Pages with no block out, ready for any class.
  PageList empty_;
  // The uncarved rest of the newest chunk, in whole pages.
  uint8_t* fresh_ = nullptr;
  uint8_t* freshEnd_ = nullptr;
  size_t nextChunkBytes_ = 2 * 1024 * 1024;
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
