// Bounds-checked little-endian reader over a byte range. Every read either
// succeeds completely or fails without moving the position, so a parser can
// report where malformed input starts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "uefi/base.h"

namespace tvl::host::hii {

class ByteReader {
 public:
  ByteReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  size_t position() const { return pos_; }
  size_t remaining() const { return size_ - pos_; }
  bool atEnd() const { return pos_ == size_; }
  const uint8_t* here() const { return data_ + pos_; }

  bool skip(size_t n) {
    if (n > remaining()) return false;
    pos_ += n;
    return true;
  }
  bool u8(uint8_t& v) {
    if (remaining() < 1) return false;
    v = data_[pos_++];
    return true;
  }
  bool u16(uint16_t& v) {
    if (remaining() < 2) return false;
    v = uint16_t(data_[pos_] | (data_[pos_ + 1] << 8));
    pos_ += 2;
    return true;
  }
  bool u32(uint32_t& v) {
    if (remaining() < 4) return false;
    v = uint32_t(data_[pos_]) | (uint32_t(data_[pos_ + 1]) << 8) | (uint32_t(data_[pos_ + 2]) << 16) |
        (uint32_t(data_[pos_ + 3]) << 24);
    pos_ += 4;
    return true;
  }
  bool guid(EFI_GUID& g) {
    if (remaining() < sizeof(EFI_GUID)) return false;
    ByteReader r(data_ + pos_, sizeof(EFI_GUID));
    r.u32(g.Data1);
    r.u16(g.Data2);
    r.u16(g.Data3);
    for (auto& b : g.Data4) r.u8(b);
    pos_ += sizeof(EFI_GUID);
    return true;
  }
  // A NUL-terminated UCS-2 text; the terminator is consumed, not stored.
  bool ucs2z(std::u16string& out) {
    std::u16string text;
    for (size_t p = pos_; p + 2 <= size_; p += 2) {
      char16_t c = char16_t(data_[p] | (data_[p + 1] << 8));
      if (c == 0) {
        out = std::move(text);
        pos_ = p + 2;
        return true;
      }
      text.push_back(c);
    }
    return false;
  }
  // A NUL-terminated 8-bit text; the terminator is consumed, not stored.
  bool asciiz(std::string& out) {
    for (size_t p = pos_; p < size_; ++p) {
      if (data_[p] == 0) {
        out.assign(reinterpret_cast<const char*>(data_ + pos_), p - pos_);
        pos_ = p + 1;
        return true;
      }
    }
    return false;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

// Little-endian appender for the builders.
class ByteWriter {
 public:
  std::vector<uint8_t>& bytes() { return out_; }
  size_t size() const { return out_.size(); }
  void u8(uint8_t v) { out_.push_back(v); }
  void u16(uint16_t v) {
    u8(uint8_t(v));
    u8(uint8_t(v >> 8));
  }
  void u24(uint32_t v) {
    u16(uint16_t(v));
    u8(uint8_t(v >> 16));
  }
  void u32(uint32_t v) {
    u16(uint16_t(v));
    u16(uint16_t(v >> 16));
  }
  void guid(const EFI_GUID& g) {
    u32(g.Data1);
    u16(g.Data2);
    u16(g.Data3);
    for (uint8_t b : g.Data4) u8(b);
  }
  void raw(const uint8_t* p, size_t n) { out_.insert(out_.end(), p, p + n); }
  void raw(const std::vector<uint8_t>& v) { raw(v.data(), v.size()); }
  void ucs2z(const std::u16string& s) {
    for (char16_t c : s) u16(uint16_t(c));
    u16(0);
  }
  void asciiz(const std::string& s) {
    for (char c : s) u8(uint8_t(c));
    u8(0);
  }
  // Patches a little-endian value written earlier.
  void patchU32(size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) out_[at + i] = uint8_t(v >> (8 * i));
  }
  void patchU24(size_t at, uint32_t v) {
    for (int i = 0; i < 3; ++i) out_[at + i] = uint8_t(v >> (8 * i));
  }

 private:
  std::vector<uint8_t> out_;
};

}  // namespace tvl::host::hii
