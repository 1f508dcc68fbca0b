// Hand-assembled HII bytes for the tests: string-package headers and
// blocks written field by field, and exact-size copies so that any read
// past the end is caught by AddressSanitizer.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/hii/byte_reader.h"
#include "uefi/ifr.h"

namespace tvl::test::hii {

using Bytes = std::vector<uint8_t>;

// A heap block of exactly the input's size.
struct ExactCopy {
  explicit ExactCopy(const Bytes& b) : size(b.size()), data(new uint8_t[b.size() ? b.size() : 1]) {
    std::copy(b.begin(), b.end(), data.get());
  }
  size_t size;
  std::unique_ptr<uint8_t[]> data;
};

// A string package: header with `language`, then the given block bytes
// (which should end with EFI_HII_SIBT_END). The package length is patched.
inline Bytes stringPackage(const std::string& language, const Bytes& blocks) {
  host::hii::ByteWriter w;
  w.u24(0);
  w.u8(EFI_HII_PACKAGE_STRINGS);
  const uint32_t hdrSize = uint32_t(HII_STRING_PACKAGE_FIXED_SIZE + language.size() + 1);
  w.u32(hdrSize);
  w.u32(hdrSize);
  for (int i = 0; i < 16; ++i) w.u16(0);
  w.u16(0);
  w.asciiz(language);
  w.raw(blocks);
  w.patchU24(0, uint32_t(w.size()));
  return w.bytes();
}

// Block builders.
inline Bytes ucs2(const std::u16string& s) {
  host::hii::ByteWriter w;
  w.ucs2z(s);
  return w.bytes();
}
inline Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}
inline Bytes u16le(uint16_t v) { return {uint8_t(v), uint8_t(v >> 8)}; }

}  // namespace tvl::test::hii
