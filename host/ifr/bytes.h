// Little-endian byte appends and opcode framing shared by the IFR builder
// and the package assembly.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "uefi/ifr.h"

namespace tvl::host::ifr::detail {

inline void put8(std::vector<UINT8>& out, UINT8 v) { out.push_back(v); }
inline void put16(std::vector<UINT8>& out, UINT16 v) {
  out.push_back(UINT8(v));
  out.push_back(UINT8(v >> 8));
}
inline void put32(std::vector<UINT8>& out, UINT32 v) {
  for (int i = 0; i < 4; ++i) out.push_back(UINT8(v >> (8 * i)));
}
inline void put64(std::vector<UINT8>& out, UINT64 v) {
  for (int i = 0; i < 8; ++i) out.push_back(UINT8(v >> (8 * i)));
}
inline void putN(std::vector<UINT8>& out, UINT64 v, unsigned bytes) {
  for (unsigned i = 0; i < bytes; ++i) out.push_back(UINT8(v >> (8 * i)));
}
// EFI_GUID in its memory layout: Data1..Data3 little-endian, Data4 as is.
inline void putGuid(std::vector<UINT8>& out, const EFI_GUID& g) {
  put32(out, g.Data1);
  put16(out, g.Data2);
  put16(out, g.Data3);
  for (UINT8 b : g.Data4) out.push_back(b);
}
inline void putBytes(std::vector<UINT8>& out, const std::vector<UINT8>& bytes) {
  out.insert(out.end(), bytes.begin(), bytes.end());
}

// One opcode: header (OpCode, Length:7, Scope:1) and its fields.
inline void putOp(std::vector<UINT8>& out, UINT8 opcode, bool scope, const std::vector<UINT8>& fields) {
  size_t length = IFR_OP_HEADER_SIZE + fields.size();
  if (length > 0x7F)
    throw std::invalid_argument("IFR opcode " + std::to_string(opcode) + " longer than 127 bytes");
  out.push_back(opcode);
  out.push_back(UINT8(length | (scope ? 0x80 : 0)));
  putBytes(out, fields);
}
inline void putEnd(std::vector<UINT8>& out) { putOp(out, EFI_IFR_END_OP, false, {}); }

}  // namespace tvl::host::ifr::detail
