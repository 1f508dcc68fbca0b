// Working collections of one import call, all in pool memory: a growable
// array, a hash map with pointer or text keys, a stable sort, and an
// iterative document-order walk. Every operation that allocates reports a
// refusal of the pool (false or EFI_OUT_OF_RESOURCES) and leaves the
// collection as it was.
#pragma once

#include "uefi/runtime.h"
#include "uefi/services.h"

namespace tvl::imp {

// A growable array of trivially copyable elements. Capacity doubles, so n
// appends cost O(n) copies in all.
template <typename T>
class Vec {
 public:
  Vec() = default;
  ~Vec() { rt::release(data_); }
  Vec(const Vec&) = delete;
  Vec& operator=(const Vec&) = delete;

  UINTN size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T* data() const { return data_; }
  T& operator[](UINTN i) const { return data_[i]; }
  T& back() const { return data_[size_ - 1]; }

  bool reserve(UINTN capacity) {
    if (capacity <= capacity_) return true;
    rt::Pool<T> bigger = rt::Pool<T>::zeroed(capacity);
    if (!bigger) return false;
    if (size_) rt::copyMem(bigger.get(), data_, size_ * sizeof(T));
    rt::release(data_);
    data_ = bigger.release();
    capacity_ = capacity;
    return true;
  }
  bool push(const T& value) {
    if (size_ == capacity_ && !reserve(capacity_ ? capacity_ * 2 : 16)) return false;
    data_[size_++] = value;
    return true;
  }
  // Grows to `count` elements, the new ones zero-filled.
  bool resize(UINTN count) {
    if (count > capacity_ && !reserve(count)) return false;
    if (count > size_) rt::setMem(data_ + size_, (count - size_) * sizeof(T), 0);
    size_ = count;
    return true;
  }
  void pop() { --size_; }
  void clear() { size_ = 0; }

 private:
  T* data_ = nullptr;
  UINTN size_ = 0;
  UINTN capacity_ = 0;
};

// Key behaviour of a HashMap: by address, or by the NUL-terminated text the
// key points at (8-bit or UCS-2).
struct ByAddress {
  static UINT64 hash(const void* key) { return UINT64(UINTN(key)); }
  static bool equal(const void* a, const void* b) { return a == b; }
};
template <typename C>
struct ByText {
  static UINT64 hash(const void* key) {
    UINT64 h = 0xCBF29CE484222325ull;
    for (const C* p = static_cast<const C*>(key); *p; ++p) h = (h ^ UINT64(*p)) * 0x100000001B3ull;
    return h;
  }
  static bool equal(const void* a, const void* b) { return rt::equal(static_cast<const C*>(a), static_cast<const C*>(b)); }
};

// Open addressing with linear probing; keys are never null and stay valid
// while the map lives.
template <typename Keys>
class HashMap {
 public:
  bool find(const void* key, UINT64* value) const {
    if (!count_) return false;
    for (UINTN i = slotOf(key);; i = (i + 1) & (capacity_ - 1)) {
      if (!slots_[i].key) return false;
      if (Keys::equal(slots_[i].key, key)) {
        *value = slots_[i].value;
        return true;
      }
    }
  }
  // Adds the key, or replaces its value.
  bool put(const void* key, UINT64 value) {
    if ((count_ + 1) * 4 > capacity_ * 3 && !grow()) return false;
    place(key, value);
    return true;
  }

 private:
  struct Slot {
    const void* key;
    UINT64 value;
  };
  // The key's hash, mixed so that every bit of it reaches the low bits
  // that pick the slot (short texts that differ in their last characters
  // differ only in a few bits of a plain FNV hash).
  UINTN slotOf(const void* key) const {
    UINT64 h = Keys::hash(key);
    h = (h ^ (h >> 33)) * 0xFF51AFD7ED558CCDull;
    h = (h ^ (h >> 33)) * 0xC4CEB9FE1A85EC53ull;
    return UINTN(h ^ (h >> 33)) & (capacity_ - 1);
  }
  void place(const void* key, UINT64 value) {
    UINTN i = slotOf(key);
    while (slots_[i].key && !Keys::equal(slots_[i].key, key)) i = (i + 1) & (capacity_ - 1);
    if (!slots_[i].key) ++count_;
    slots_[i] = {key, value};
  }
  bool grow() {
    UINTN capacity = capacity_ ? capacity_ * 2 : 64;
    rt::Pool<Slot> bigger = rt::Pool<Slot>::zeroed(capacity);
    if (!bigger) return false;
    rt::Pool<Slot> old(slots_.release());
    UINTN oldCapacity = capacity_;
    slots_ = static_cast<rt::Pool<Slot>&&>(bigger);
    capacity_ = capacity;
    count_ = 0;
    for (UINTN i = 0; i < oldCapacity; ++i)
      if (old[i].key) place(old[i].key, old[i].value);
    return true;
  }

  rt::Pool<Slot> slots_;
  UINTN capacity_ = 0;
  UINTN count_ = 0;
};

// Stable sort of `items` by `less`, with a scratch array of the same size.
template <typename T, typename Less>
bool stableSort(Vec<T>& items, Less&& less) {
  const UINTN n = items.size();
  if (n < 2) return true;
  rt::Pool<T> scratch = rt::Pool<T>::zeroed(n);
  if (!scratch) return false;
  T* from = items.data();
  T* to = scratch.get();
  for (UINTN width = 1; width < n; width *= 2) {
    for (UINTN left = 0; left < n; left += 2 * width) {
      UINTN mid = left + width < n ? left + width : n;
      UINTN right = left + 2 * width < n ? left + 2 * width : n;
      UINTN i = left, j = mid, k = left;
      while (i < mid && j < right) to[k++] = less(from[j], from[i]) ? from[j++] : from[i++];
      while (i < mid) to[k++] = from[i++];
      while (j < right) to[k++] = from[j++];
    }
    T* swap = from;
    from = to;
    to = swap;
  }
  if (from != items.data()) rt::copyMem(items.data(), from, n * sizeof(T));
  return true;
}

// What a document-order walk does after visiting a node.
enum class Step {
  Enter,  // its children, then its next sibling
  Pass,   // its next sibling, not its children
  Leave,  // neither: the walk resumes after the node's parent level
  Stop,   // ends the walk
};

// Visits `start`, its descendants and its following siblings with theirs,
// in document order, without recursion. The ancestors whose next siblings
// are still to come are kept on a stack whose first levels need no pool
// memory.
template <typename Visit>
EFI_STATUS walkDocument(XML_NODE* start, Visit&& visit) {
  constexpr UINTN kInline = 32;
  XML_NODE* inlineLevels[kInline];
  Vec<XML_NODE*> deeper;
  UINTN depth = 0;
  XML_NODE* node = start;
  while (node) {
    Step step = visit(node);
    if (step == Step::Stop) return EFI_SUCCESS;
    if (step == Step::Enter && node->children) {
      if (node->next) {
        if (depth < kInline)
          inlineLevels[depth] = node;
        else if (!deeper.push(node))
          return EFI_OUT_OF_RESOURCES;
        ++depth;
      }
      node = node->children;
      continue;
    }
    if (step != Step::Leave && node->next) {
      node = node->next;
      continue;
    }
    node = nullptr;
    if (depth > 0) {
      --depth;
      if (depth < kInline) {
        node = inlineLevels[depth]->next;
      } else {
        node = deeper.back()->next;
        deeper.pop();
      }
    }
  }
  return EFI_SUCCESS;
}

inline bool named(const XML_NODE* node, const CHAR8* name) { return node->name && rt::equal(node->name, name); }

}  // namespace tvl::imp
