// Per-image runtime of every freestanding image (the driver and each
// platform service): the captured system pointers, pool memory with a
// move-only owner, and small memory and text primitives.
#pragma once

#include "uefi/tables.h"

namespace tvl::rt {

// Captured by the image entry before anything else runs.
struct ImageContext {
  EFI_HANDLE imageHandle;
  EFI_SYSTEM_TABLE* systemTable;
  EFI_BOOT_SERVICES* bootServices;
  EFI_RUNTIME_SERVICES* runtimeServices;
};
extern ImageContext gImage;

// Records the image handle and the system table; the firmware library
// constructors do the same before a driver's entry runs.
void initialize(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable);

inline EFI_BOOT_SERVICES* bs() { return gImage.bootServices; }
inline EFI_RUNTIME_SERVICES* rts() { return gImage.runtimeServices; }

// Zero-filled boot-services data; null when the pool refuses.
VOID* allocateZero(UINTN size);
// Boot-services data left as the pool hands it out, for buffers that are
// written before they are read; null when the pool refuses.
VOID* allocateUncleared(UINTN size);
// The one place that returns memory to the pool. Null is ignored.
void release(VOID* buffer);

// Move-only owner of one pool allocation. Frees in its destructor;
// release() hands the buffer on to whoever takes ownership.
template <typename T>
class Pool {
 public:
  Pool() = default;
  explicit Pool(T* p) : p_(p) {}
  ~Pool() { tvl::rt::release(const_cast<void*>(static_cast<const void*>(p_))); }
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;
  Pool(Pool&& other) : p_(other.p_) { other.p_ = nullptr; }
  Pool& operator=(Pool&& other) {
    if (this != &other) {
      reset(other.p_);
      other.p_ = nullptr;
    }
    return *this;
  }

  // Allocates `count` zero-filled elements; empty on failure.
  static Pool zeroed(UINTN count = 1) {
    if (count != 0 && sizeof(T) > ~UINTN(0) / count) return Pool();
    return Pool(static_cast<T*>(allocateZero(count * sizeof(T))));
  }
  static Pool bytes(UINTN size) { return Pool(static_cast<T*>(allocateZero(size))); }
  static Pool uncleared(UINTN size) { return Pool(static_cast<T*>(allocateUncleared(size))); }

  T* get() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  T& operator[](UINTN i) const { return p_[i]; }
  explicit operator bool() const { return p_ != nullptr; }

  // Gives up ownership without freeing.
  T* release() {
    T* p = p_;
    p_ = nullptr;
    return p;
  }
  void reset(T* p = nullptr) {
    if (p_ != p) tvl::rt::release(const_cast<void*>(static_cast<const void*>(p_)));
    p_ = p;
  }
  // For out-parameters of calls that hand over a pool buffer.
  T** receive() {
    reset();
    return &p_;
  }

 private:
  T* p_ = nullptr;
};

// The EFI_BUFFER_TOO_SMALL two-call dance. `call(buffer, &size)` is made
// with a zero-filled buffer of `initialSize` bytes; when it answers
// EFI_BUFFER_TOO_SMALL the buffer is replaced by one of the reported size
// and the call is made once more. A failed allocation gives
// EFI_OUT_OF_RESOURCES with `buffer` empty; `calls` (optional) tells how
// many calls were made, so a caller can tell which allocation failed. On
// return `buffer` holds the last buffer used and `size` the last size
// reported.
template <typename Call>
EFI_STATUS callWithSizedBuffer(UINTN initialSize, Pool<UINT8>& buffer, UINTN& size, Call&& call,
                               UINTN* calls = nullptr) {
  UINTN made = 0;
  if (calls) *calls = 0;
  buffer = Pool<UINT8>::bytes(initialSize);
  if (!buffer) return EFI_OUT_OF_RESOURCES;
  size = initialSize;
  EFI_STATUS status = call(buffer.get(), &size);
  if (calls) *calls = ++made;
  if (status != EFI_BUFFER_TOO_SMALL) return status;
  buffer = Pool<UINT8>::bytes(size);
  if (!buffer) return EFI_OUT_OF_RESOURCES;
  status = call(buffer.get(), &size);
  if (calls) *calls = ++made;
  return status;
}

// Memory primitives.
void copyMem(VOID* dst, const VOID* src, UINTN n);
void setMem(VOID* dst, UINTN n, UINT8 value);
INTN compareMem(const VOID* a, const VOID* b, UINTN n);

// The n bytes at `from` (Word <= n <= 2 * Word) moved as two words, the
// first and the last, which overlap when n is less than 2 * Word.
template <typename Word>
inline void copyEnds(UINT8* to, const UINT8* from, UINTN n) {
  Word head, tail;
  __builtin_memcpy(&head, from, sizeof(Word));
  __builtin_memcpy(&tail, from + n - sizeof(Word), sizeof(Word));
  __builtin_memcpy(to, &head, sizeof(Word));
  __builtin_memcpy(to + n - sizeof(Word), &tail, sizeof(Word));
}

// Copies n bytes between buffers that do not overlap. Names, short texts
// and pieces of markup are a few bytes each, where a call and a loop would
// cost more than the copy: up to 16 bytes move as two words (or two halves
// of one); longer copies go to copyMem.
//
// The empty asm hides where `from` points: a caller's literal shorter than
// 8 bytes would otherwise draw array-bounds warnings from the word branch
// that its length never takes.
inline void copyShort(VOID* to, const VOID* from, UINTN n) {
  const auto* s = static_cast<const UINT8*>(from);
  auto* d = static_cast<UINT8*>(to);
  __asm__("" : "+r"(s));
  if (n > 16)
    copyMem(d, s, n);
  else if (n >= 8)
    copyEnds<UINT64>(d, s, n);
  else if (n >= 4)
    copyEnds<UINT32>(d, s, n);
  else
    for (UINTN i = 0; i < n; ++i) d[i] = s[i];
}

// NUL-terminated text primitives for 8-bit and UCS-2 texts.
template <typename C>
UINTN length(const C* s) {
  UINTN n = 0;
  if (s)
    while (s[n]) ++n;
  return n;
}
template <typename C>
bool equal(const C* a, const C* b) {
  if (a == b) return true;
  if (!a || !b) return false;
  for (;; ++a, ++b) {
    if (*a != *b) return false;
    if (*a == 0) return true;
  }
}
// A new pool copy of `s` (length + 1 elements, the last one zero), or
// empty. Every element is written, so the copy reads as a zero-filled
// block into which `s` was copied, without clearing it first.
template <typename C>
Pool<C> duplicate(const C* s, UINTN n) {
  if (n >= ~UINTN(0) / sizeof(C)) return Pool<C>();
  Pool<C> copy = Pool<C>::uncleared((n + 1) * sizeof(C));
  if (!copy) return copy;
  copyShort(copy.get(), s, n * sizeof(C));
  copy[n] = C(0);
  return copy;
}
template <typename C>
Pool<C> duplicate(const C* s) {
  return duplicate(s, length(s));
}

}  // namespace tvl::rt
