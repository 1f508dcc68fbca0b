// The lean pool: blocks carved from pages of one size class each, as a
// firmware pool carves its pool pages per bucket. A page's header holds
// its class, how many of its blocks are out, and one bit per block that
// says whether it is out; the blocks themselves carry nothing, so a block
// of a 5-byte text takes 8 bytes and a 32-byte record 32. Allocation and
// release cost a few dozen instructions and no host allocation. Blocks
// are 8-byte aligned, the alignment the UEFI specification promises for
// pool memory, and, as in firmware, not cleared: a recycled block holds
// what its last owner left (the checked pool fills blocks with a pattern,
// so that tests catch code that counts on zeroes).
//
// Why pages and bits: a free list threaded through the blocks hands them
// out in the order they were last released, so after a large tree has
// been built and freed a few times its nodes lie scattered, and walking the
// next tree costs a cache miss per node; and releasing a block would write
// to the block, so freeing a tree would load every text of it only to
// link it into a list. Here a class takes the lowest free block of its
// current page, so consecutive allocations are neighbours however often
// the pool has been through the same work, and release touches only the
// page header.
//
// Pages come from one reserved stretch of address space, made usable a
// chunk at a time. Blocks above the largest class are host mappings of
// their own and the only blocks the pool lists (they are few and large).
// A few of them are kept when released, for later requests that fit them,
// so that a large text built again and again does not return to the host
// (and come back as fresh pages) every time.
//
// Release refuses what it can tell is not a live block: an address outside
// the pool's pages and large blocks, one that is not the start of a block
// of its page, and a block that is not out (a second release). A second
// release of a block that has been handed out again in between is not
// detected, and neither is writing past a block's end.
//
// The pool counts a small block as its class's size; PoolStats of the
// lean mode are in those sizes.
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

  // A block of at least `size` bytes; null when the host has no memory
  // left. A zero-size request still gets a block of its own.
  void* allocate(size_t size) {
    if (size <= kLargestClass) {
      if (Page* page = current_[classOf(size)]; page && page->used < page->capacity) return take(page);
    }
    return allocateSlow(this, size);
  }

  // Releases a block and sets *size to the bytes it was counted as; false
  // (nothing changes) when `block` is not a live block of this pool.
  bool release(void* block, size_t* size) {
    const auto address = reinterpret_cast<uintptr_t>(block);
    if (address - arenaStart_ >= arenaUsable_) return releaseSlow(this, block, size);
    Page* page = pageOf(address);
    uint32_t index;
    if (!liveBlock(page, address, &index)) return false;
    page->live()[index / 64] &= ~(uint64_t(1) << (index % 64));
    if (index / 64 < page->cursor) page->cursor = index / 64;
    *size = page->footprint;
    // A page that was full, or is now empty, changes lists.
    if (--page->used == 0 || page->state == PageState::Full) settle(this, page);
    return true;
  }

  // The bytes the pool counts for a request of `size`.
  static size_t countedBytes(size_t size) { return size <= kLargestClass ? classBytes(classOf(size)) : size; }

  static constexpr size_t kLargestClass = 64 * 1024;
  // Pages are this large and aligned to their size, so a block's page is
  // its address rounded down.
  static constexpr size_t kPageBytes = 256 * 1024;
  // Address space reserved for pages; only what is used becomes memory.
  static constexpr size_t kArenaBytes = size_t(16) << 30;

 private:
  enum class PageState : uint8_t { Current, Partial, Full, Empty };
  struct Page {
    uint32_t signature;
    uint16_t sizeClass;
    PageState state;
    uint8_t reserved;
    uint32_t footprint;  // bytes of one block
    uint32_t capacity;   // blocks the page holds
    uint32_t used;       // blocks out
    uint32_t cursor;     // no word of `live` below this one has a free block
    uint32_t first;      // offset of the first block
    uint32_t reserved2;
    uint64_t reciprocal;  // 2^40 / footprint + 1: offset * reciprocal >> 40 is the block index
    Page* previous;       // in its class's partial list or the empty list
    Page* next;
    // One bit per block, set while the block is out; follows the header.
    uint64_t* live() { return reinterpret_cast<uint64_t*>(this + 1); }
  };
  static_assert(sizeof(Page) % 8 == 0, "the bitmap after the header is 8-byte aligned");

  static constexpr uint32_t kPageSignature = 0x4c504147;
  static constexpr uint32_t kSmallClasses = 64;            // 8, 16, ... 512 bytes
  static constexpr uint32_t kClasses = kSmallClasses + 7;  // then 1 KiB ... 64 KiB
  static constexpr uint64_t kLargeSignature = 0x4b434f4c42475241;
  static constexpr size_t kLargePrefix = 16;  // a large block's size and signature

  struct Range {  // a large block
    uintptr_t start;
    uintptr_t end;
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

  // The lowest free block of a page that has one.
  static void* take(Page* page) {
    uint64_t* live = page->live();
    uint32_t word = page->cursor;
    while (live[word] == ~uint64_t(0)) ++word;
    page->cursor = word;
    const uint32_t bit = uint32_t(__builtin_ctzll(~live[word]));
    live[word] |= uint64_t(1) << bit;
    page->used++;
    return reinterpret_cast<uint8_t*>(page) + page->first + size_t(word * 64 + bit) * page->footprint;
  }
  // Whether `address` (inside a chunk) starts a block of its page that is
  // out; its index goes to *index.
  static bool liveBlock(Page* page, uintptr_t address, uint32_t* index) {
    if (page->signature != kPageSignature) return false;
    const uintptr_t offset = address - reinterpret_cast<uintptr_t>(page);
    if (offset < page->first) return false;
    const uint64_t blockOffset = offset - page->first;  // below kPageBytes
    const auto i = uint32_t((blockOffset * page->reciprocal) >> 40);
    if (i >= page->capacity || uint64_t(i) * page->footprint != blockOffset) return false;
    *index = i;
    return (page->live()[i / 64] >> (i % 64)) & 1;
  }

  static void* EFIAPI allocateSlow(LeanPool* pool, size_t size);
  static bool EFIAPI releaseSlow(LeanPool* pool, void* block, size_t* size);
  static void EFIAPI settle(LeanPool* pool, Page* page);
  void* allocateLarge(size_t size);
  bool releaseLarge(std::vector<Range>::iterator range, uintptr_t address, size_t* size);
  Page* newPage();  // null when the host refuses
  static void startOver(Page* page, uint32_t sizeClass);
  uintptr_t map(size_t bytes);  // 0 when the host refuses
  bool addChunk();
  uint8_t* takeSpare(size_t size);

  // The page each class takes from, or null before its first block.
  Page* current_[kClasses] = {};
  // Pages of each class, other than the current one, with free blocks.
  PageList partial_[kClasses];
  // Pages with no block out, ready for any class.
  PageList empty_;
  // The arena: reserved address space whose first arenaUsable_ bytes are
  // chunks of pages.
  void* arenaMapping_ = nullptr;
  uintptr_t arenaStart_ = 0;
  size_t arenaUsable_ = 0;
  // The uncarved rest of the newest chunk, in whole pages.
  uint8_t* fresh_ = nullptr;
  uint8_t* freshEnd_ = nullptr;
  size_t nextChunkBytes_ = 2 * 1024 * 1024;
  // The large blocks, sorted by start address.
  std::vector<Range> ranges_;
  std::vector<Range>::iterator firstAfter(uintptr_t address);  // the first range starting above it
  std::vector<Range>::iterator rangeOf(uintptr_t address);     // end() when none holds it
  Range* rangeAt(uintptr_t start);
  // Released large blocks kept for reuse (their starts; 0: none).
  static constexpr size_t kSpareBlocks = 16;
  uintptr_t spare_[kSpareBlocks] = {};
};

}  // namespace tvl::host
