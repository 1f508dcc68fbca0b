// Small building blocks of the forms-processor service: a bounds-checked
// byte cursor, a growable array of plain values, appending to the pointer
// arrays of the records, and the failure report of the last parse.
#pragma once

#include "export/records/records.h"
#include "uefi/runtime.h"
#include "uefi/services.h"

namespace tvl::forms {

template <typename T>
T&& moved(T& value) {
  return static_cast<T&&>(value);
}

constexpr UINT32 kNone = 0xFFFFFFFFu;

// ---------------------------------------------------------------- cursor
// Reads little-endian fields from [base, base + size). Every read checks
// the bounds first; a failed read leaves the position unchanged.
class ByteCursor {
 public:
  ByteCursor(const UINT8* base, UINTN size) : base_(base), size_(size) {}

  UINTN position() const { return pos_; }
  UINTN remaining() const { return size_ - pos_; }
  bool seek(UINTN pos) {
    if (pos > size_) return false;
    pos_ = pos;
    return true;
  }
  bool skip(UINTN n) {
    if (n > remaining()) return false;
    pos_ += n;
    return true;
  }
  bool readU8(UINT8& v) { return readLe(&v, 1); }
  bool readU16(UINT16& v) { return readLe(&v, 2); }
  bool readU32(UINT32& v) { return readLe(&v, 4); }
  bool readU64(UINT64& v) { return readLe(&v, 8); }
  // Reads a number of `width` bytes (1, 2, 4 or 8) into a 64-bit value.
  bool readNumber(UINTN width, UINT64& v) {
    if (width > 8 || width > remaining()) return false;
    v = 0;
    for (UINTN i = width; i-- > 0;) v = (v << 8) | base_[pos_ + i];
    pos_ += width;
    return true;
  }
  bool readBytes(VOID* out, UINTN n) {
    if (n > remaining()) return false;
    rt::copyMem(out, base_ + pos_, n);
    pos_ += n;
    return true;
  }
  bool readGuid(EFI_GUID& g) { return readBytes(&g, sizeof(g)); }
  const UINT8* here() const { return base_ + pos_; }

 private:
  template <typename T>
  bool readLe(T* out, UINTN n) {
    UINT64 v;
    if (!readNumber(n, v)) return false;
    *out = static_cast<T>(v);
    return true;
  }

  const UINT8* base_;
  UINTN size_;
  UINTN pos_ = 0;
};

// ---------------------------------------------------------------- vector
// A growable pool-backed array of trivially copyable values.
template <typename T>
class Vector {
 public:
  Vector() = default;
  Vector(const Vector&) = delete;
  Vector& operator=(const Vector&) = delete;

  UINTN size() const { return size_; }
  T* data() const { return data_.get(); }
  T& operator[](UINTN i) const { return data_[i]; }
  T& back() const { return data_[size_ - 1]; }

  EFI_STATUS push(const T& item) {
    if (size_ == capacity_) RETURN_IF_ERROR(grow());
    data_[size_++] = item;
    return EFI_SUCCESS;
  }

 private:
  EFI_STATUS grow() {
    UINTN capacity = capacity_ ? capacity_ * 2 : 8;
    if (capacity < capacity_ || capacity > ~UINTN(0) / sizeof(T)) return EFI_OUT_OF_RESOURCES;
    rt::Pool<T> bigger = rt::Pool<T>::zeroed(capacity);
    if (!bigger) return EFI_OUT_OF_RESOURCES;
    if (size_) rt::copyMem(bigger.get(), data_.get(), size_ * sizeof(T));
    data_ = moved(bigger);
    capacity_ = capacity;
    return EFI_SUCCESS;
  }

  rt::Pool<T> data_;
  UINTN size_ = 0;
  UINTN capacity_ = 0;
};

// ---------------------------------------------------------------- sorting
// Heap sort with `less`; iterative, no extra memory.
template <typename T, typename Less>
void heapSort(T* a, UINTN n, Less less) {
  auto siftDown = [a, &less](UINTN root, UINTN end) {
    for (;;) {
      UINTN child = 2 * root + 1;
      if (child >= end) return;
      if (child + 1 < end && less(a[child], a[child + 1])) ++child;
      if (!less(a[root], a[child])) return;
      T t = a[root];
      a[root] = a[child];
      a[child] = t;
      root = child;
    }
  };
  for (UINTN i = n / 2; i-- > 0;) siftDown(i, n);
  for (UINTN end = n; end > 1; --end) {
    T t = a[0];
    a[0] = a[end - 1];
    a[end - 1] = t;
    siftDown(0, end - 1);
  }
}

// ---------------------------------------------------------------- record arrays
// Appends `item` to a record's pointer array of `count` entries. The array
// grows in powers of two (4, 8, 16, ...), so its capacity follows from the
// count alone. On success the array owns the item; on failure the caller
// still does.
template <typename T>
EFI_STATUS appendRecord(T**& array, UINT64& count, T* item) {
  bool full = count == 0 || (count >= 4 && (count & (count - 1)) == 0);
  if (full) {
    UINT64 capacity = count == 0 ? 4 : count * 2;
    if (capacity > ~UINTN(0) / sizeof(T*)) return EFI_OUT_OF_RESOURCES;
    rt::Pool<T*> grown = rt::Pool<T*>::zeroed(capacity);
    if (!grown) return EFI_OUT_OF_RESOURCES;
    if (count) rt::copyMem(grown.get(), array, count * sizeof(T*));
    rt::Pool<T*> old(array);
    array = grown.release();
  }
  array[count++] = item;
  return EFI_SUCCESS;
}

// Moves a freshly made record into a record array, freeing it when the
// array cannot take it. Gives the record (or null) through `added`.
template <typename T>
EFI_STATUS adoptRecord(T**& array, UINT64& count, rt::Pool<T>& item, T** added = nullptr) {
  RETURN_IF_ERROR(appendRecord(array, count, item.get()));
  T* record = item.release();
  if (added) *added = record;
  return EFI_SUCCESS;
}

// ---------------------------------------------------------------- failures
// Records the failure of the running ProcessForms call for GetLastError and
// returns `status`. `offset` is a byte offset into the package list being
// parsed. The message is formatted in the firmware print conventions.
EFI_STATUS EFIAPI reportFailure(EFI_STATUS status, UINTN offset, const CHAR8* format, ...);

}  // namespace tvl::forms
