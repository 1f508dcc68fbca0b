#include "services/xml/buffer.h"

namespace tvl::xmlsvc {

using tvl::rt::Pool;

bool ByteBuffer::reserve(UINTN needed) {
  // `needed` bytes of text plus the terminator.
  if (needed == ~UINTN(0)) return false;
  if (needed + 1 <= capacity_) return true;
  UINTN capacity = capacity_ ? capacity_ : 64;
  while (capacity < needed + 1) {
    if (capacity > ~UINTN(0) / 2) {
      capacity = needed + 1;
      break;
    }
    capacity *= 2;
  }
  // Uncleared: every byte below size_ is written before it is read, and
  // copyFrom() makes terminated copies of its own.
  Pool<CHAR8> grown = Pool<CHAR8>::uncleared(capacity);
  if (!grown) return false;
  tvl::rt::copyMem(grown.get(), data_.get(), size_);
  data_ = static_cast<Pool<CHAR8>&&>(grown);
  capacity_ = capacity;
  return true;
}

bool ByteBuffer::grow(const void* bytes, UINTN n) {
  if (n > ~UINTN(0) - size_ || !reserve(size_ + n)) return false;
  tvl::rt::copyMem(data_.get() + size_, bytes, n);
  size_ += n;
  return true;
}

Pool<CHAR8> ByteBuffer::copyFrom(UINTN from) const {
  if (from > size_) from = size_;
  return tvl::rt::duplicate(data_.get() + from, size_ - from);
}

bool ChunkBuffer::spill(const UINT8* bytes, UINTN n) {
  if (count_ == kMaxChunks) return false;
  const UINTN room = UINTN(end_ - cursor_);
  const UINTN rest = n - room;
  const UINTN previous = count_ == 0 ? kFirstChunk / 2 : sizes_[count_ - 1];
  UINTN size = previous > ~UINTN(0) / 2 ? rest : previous * 2;
  if (size < rest) size = rest;
  Pool<CHAR8> chunk = Pool<CHAR8>::uncleared(size);
  if (!chunk) return false;
  // The current chunk is filled to its end, so that every chunk but the
  // last holds exactly its size.
  tvl::rt::copyMem(cursor_, bytes, room);
  cursor_ = chunk.get();
  end_ = cursor_ + size;
  sizes_[count_] = size;
  chunks_[count_++] = static_cast<Pool<CHAR8>&&>(chunk);
  tvl::rt::copyMem(cursor_, bytes + room, rest);
  cursor_ += rest;
  return true;
}

Pool<CHAR8> ChunkBuffer::join() {
  const UINTN last = count_ == 0 ? 0 : UINTN(cursor_ - chunks_[count_ - 1].get());
  UINTN total = last;
  for (UINTN i = 0; i + 1 < count_; ++i) total += sizes_[i];
  Pool<CHAR8> text = Pool<CHAR8>::uncleared(total + 1);
  if (!text) return text;
  CHAR8* at = text.get();
  for (UINTN i = 0; i < count_; ++i) {
    const UINTN bytes = i + 1 == count_ ? last : sizes_[i];
    tvl::rt::copyMem(at, chunks_[i].get(), bytes);
    at += bytes;
    chunks_[i] = Pool<CHAR8>();
  }
  *at = '\0';
  count_ = 0;
  cursor_ = end_ = nullptr;
  return text;
}

namespace {

UINT32 hashName(const UINT8* name, UINTN length) {
  UINT32 h = 2166136261u;
  for (UINTN i = 0; i < length; ++i) h = (h ^ name[i]) * 16777619u;
  return h;
}

}  // namespace

void NameSet::clear() {
  count_ = 0;
  if (++round_ == 0) {
    // The round counter wrapped: old entries could look current again.
    if (table_) tvl::rt::setMem(table_.get(), capacity_ * sizeof(Entry), 0);
    round_ = 1;
  }
}

bool NameSet::grow() {
  UINTN capacity = capacity_ ? capacity_ * 2 : 16;
  if (capacity < capacity_ || capacity > ~UINTN(0) / sizeof(Entry)) return false;
  Pool<Entry> table = Pool<Entry>::zeroed(capacity);
  if (!table) return false;
  for (UINTN i = 0; i < capacity_; ++i) {
    const Entry& e = table_[i];
    if (e.round != round_) continue;
    UINTN slot = e.hash & (capacity - 1);
    while (table[slot].round == round_) slot = (slot + 1) & (capacity - 1);
    table[slot] = e;
  }
  table_ = static_cast<Pool<Entry>&&>(table);
  capacity_ = capacity;
  return true;
}

NameSet::Result NameSet::add(const UINT8* name, UINTN length) {
  if ((count_ + 1) * 2 > capacity_ && !grow()) return kNoMemory;
  UINT32 hash = hashName(name, length);
  UINTN slot = hash & (capacity_ - 1);
  for (;; slot = (slot + 1) & (capacity_ - 1)) {
    Entry& e = table_[slot];
    if (e.round != round_) break;
    if (e.hash == hash && e.length == length && tvl::rt::compareMem(e.name, name, length) == 0) return kRepeated;
  }
  table_[slot] = Entry{name, length, hash, round_};
  ++count_;
  return kAdded;
}

}  // namespace tvl::xmlsvc
