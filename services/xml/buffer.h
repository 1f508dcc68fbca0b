// Growable pool-backed storage for the parser and the serialiser: a byte
// buffer for the parser's texts, chunks for the serialiser's text, a stack
// of plain records and a set of names that detects repeats in linear time.
#pragma once

#include "uefi/runtime.h"

namespace tvl::xmlsvc {

// Bytes that grow by doubling. A failed growth leaves the buffer as it was
// and is reported by the appending call.
class ByteBuffer {
 public:
  bool append(const void* bytes, UINTN n) {
    if (n < capacity_ - size_) {
      tvl::rt::copyShort(data_.get() + size_, bytes, n);
      size_ += n;
      return true;
    }
    return grow(bytes, n);
  }
  bool append(const CHAR8* text) { return append(text, tvl::rt::length(text)); }
  bool push(UINT8 b) {
    if (size_ + 1 < capacity_) {
      data_[size_++] = CHAR8(b);
      return true;
    }
    return append(&b, 1);
  }
  UINTN size() const { return size_; }
  const CHAR8* data() const { return data_.get(); }
  void truncate(UINTN size) {
    if (size < size_) size_ = size;
  }
  // A new exact-size NUL-terminated copy of bytes [from, size()).
  tvl::rt::Pool<CHAR8> copyFrom(UINTN from) const;

 private:
  bool reserve(UINTN needed);
  bool grow(const void* bytes, UINTN n);

  tvl::rt::Pool<CHAR8> data_;
  UINTN size_ = 0;
  UINTN capacity_ = 0;  // always leaves room for a terminator
};

// Bytes appended in chunks that are never moved: each new chunk is twice
// the size of the one before (or as large as an append needs), and join()
// copies them once into a block of exactly the text's size. A failed
// allocation leaves what was appended as it was and is reported by the
// call that made it.
class ChunkBuffer {
 public:
  bool append(const void* bytes, UINTN n) {
    if (n <= UINTN(end_ - cursor_)) {
      tvl::rt::copyShort(cursor_, bytes, n);
      cursor_ += n;
      return true;
    }
    return spill(static_cast<const UINT8*>(bytes), n);
  }
  // The whole text, NUL-terminated, in a new block of its size plus one;
  // the chunks are released. Null when that block cannot be had.
  tvl::rt::Pool<CHAR8> join();

 private:
  bool spill(const UINT8* bytes, UINTN n);

  // Doubling from kFirstChunk, 48 chunks hold more than any memory.
  static constexpr UINTN kFirstChunk = 4096;
  static constexpr UINTN kMaxChunks = 48;
  tvl::rt::Pool<CHAR8> chunks_[kMaxChunks];
  UINTN sizes_[kMaxChunks] = {};  // bytes of each chunk; all but the last are full
  UINTN count_ = 0;
  CHAR8* cursor_ = nullptr;
  CHAR8* end_ = nullptr;
};

// A stack of trivially copyable records.
template <typename T>
class Stack {
 public:
  bool push(const T& value) {
    if (size_ == capacity_) {
      UINTN capacity = capacity_ ? capacity_ * 2 : 16;
      if (capacity < capacity_) return false;
      tvl::rt::Pool<T> grown = tvl::rt::Pool<T>::zeroed(capacity);
      if (!grown) return false;
      tvl::rt::copyMem(grown.get(), items_.get(), size_ * sizeof(T));
      items_ = static_cast<tvl::rt::Pool<T>&&>(grown);
      capacity_ = capacity;
    }
    items_[size_++] = value;
    return true;
  }
  void pop() { --size_; }
  T& top() const { return items_[size_ - 1]; }
  bool empty() const { return size_ == 0; }
  UINTN size() const { return size_; }

 private:
  tvl::rt::Pool<T> items_;
  UINTN size_ = 0;
  UINTN capacity_ = 0;
};

// The names of one element's attributes, to find a repeated name in time
// linear in their number. `clear` starts the next element without touching
// the table: entries of earlier rounds are told apart by their round.
class NameSet {
 public:
  enum Result { kAdded, kRepeated, kNoMemory };
  void clear();
  // `name` must stay valid until the next clear.
  Result add(const UINT8* name, UINTN length);

 private:
  struct Entry {
    const UINT8* name;
    UINTN length;
    UINT32 hash;
    UINT32 round;
  };
  bool grow();

  tvl::rt::Pool<Entry> table_;
  UINTN capacity_ = 0;  // a power of two, or 0
  UINTN count_ = 0;     // entries of the current round
  UINT32 round_ = 1;
};

}  // namespace tvl::xmlsvc
