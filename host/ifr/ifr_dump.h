// IFR decoder: walks IFR opcodes, forms packages and package lists with a
// bounds-checked cursor and prints an opcode outline, one line per opcode:
//
//   <offset> <indent><NAME> len=<n>[ scope] <key fields>
//
// The offset is the opcode's position in hexadecimal (from the start of the
// IFR, or of the package list), the indent is two spaces per open scope.
// Ids and sizes are decimal, flags and storage offsets hexadecimal, GUIDs
// in registry format. Malformed input (a truncated opcode, a length shorter
// than the opcode's fields, an END without an open scope, scopes left open)
// stops the walk; the outline then holds everything up to that point and
// `error` says what is wrong and where.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "uefi/ifr.h"

namespace tvl::host::ifr {

struct OpInfo {
  size_t offset = 0;  // from the start of the IFR
  UINT8 opcode = 0;
  UINT8 length = 0;
  bool scope = false;
  unsigned depth = 0;  // scopes open before this opcode (an END is at its scope's depth - 1)
};

struct Outline {
  std::string text;
  std::string error;  // empty when the input was well formed
  bool ok() const { return error.empty(); }
};

// The opcode's name without the EFI_IFR_ prefix and _OP suffix
// ("FORM_SET", "ONE_OF_OPTION"), or "OP_xx" for an unknown opcode.
std::string opcodeName(UINT8 opcode);

// Splits IFR into opcodes (headers and scopes only). False, with `error`
// set, on a truncated opcode, a zero or one-byte length, an END without an
// open scope or scopes still open at the end; `ops` then holds the opcodes
// read so far.
bool walkIfr(const UINT8* data, size_t size, std::vector<OpInfo>& ops, std::string* error = nullptr);

// Outline of bare IFR opcodes.
Outline dumpIfr(const UINT8* data, size_t size);
inline Outline dumpIfr(const std::vector<UINT8>& ifr) { return dumpIfr(ifr.data(), ifr.size()); }

// Outline of one forms package (EFI_HII_PACKAGE_HEADER + IFR).
Outline dumpFormsPackage(const UINT8* data, size_t size);
inline Outline dumpFormsPackage(const std::vector<UINT8>& p) { return dumpFormsPackage(p.data(), p.size()); }

// Outline of a package list: its header, then one line per package, with
// the opcodes of every forms package and the language of every string
// package.
Outline dumpPackageList(const UINT8* data, size_t size);
inline Outline dumpPackageList(const std::vector<UINT8>& l) { return dumpPackageList(l.data(), l.size()); }

// Registry format of a GUID, upper-case hexadecimal.
std::string guidText(const EFI_GUID& guid);

}  // namespace tvl::host::ifr
