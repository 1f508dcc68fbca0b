// UEFI configuration strings (the HII configuration language), host side:
// producing and parsing <ConfigHdr> and the block form of <ConfigRequest>
// and <ConfigResp>.
//
//   ConfigHdr   GUID=<32 hex: the GUID's bytes in memory order>
//               &NAME=<4 hex per UCS-2 character: the character's value>
//               &PATH=<2 hex per byte of the device path, end node included>
//   Block       &OFFSET=<hex>&WIDTH=<hex>           (request)
//               &OFFSET=<hex>&WIDTH=<hex>&VALUE=<hex> (response)
//
// VALUE is the field's bytes read as a little-endian number and written
// most significant digit first: bytes 41 00 42 00 become "00420041". Fewer
// than 2 x WIDTH digits are zero-extended; more are refused. Hex digits are
// produced in lower case and accepted in either case.
//
// Errors carry the UEFI "Progress" position: the '&' that begins the
// failing name/value pair (a pair with a bad value, or an unexpected pair
// where another was due), or the start of the string when the failure lies
// in the first pair (GUID=). When the text ends where a pair was due, the
// last pair read counts as the failing one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "uefi/base.h"

namespace tvl::host::hii {

// ---- producing
std::u16string hexOfBytes(const uint8_t* data, size_t size);
std::u16string configHdr(const EFI_GUID& guid, const std::u16string& name, const std::vector<uint8_t>& devicePath);
// VALUE digits of a field: its bytes in reverse order, 2 x size digits.
std::u16string valueDigits(const uint8_t* data, size_t size);
void appendValueDigits(std::u16string& out, const uint8_t* data, size_t size);
// "&OFFSET=xxxx&WIDTH=xxxx" with at least four digits each.
std::u16string blockName(uint64_t offset, uint64_t width);
// blockName(offset, width) + "&VALUE=" + valueDigits; the append form
// writes it at the end of `out`, with no text made on the way.
std::u16string blockConfig(uint64_t offset, const uint8_t* data, size_t width);
void appendBlockConfig(std::u16string& out, uint64_t offset, const uint8_t* data, size_t width);

// ---- parsing
// A WIDTH larger than this is refused before anything is allocated for it.
constexpr uint64_t kMaxConfigWidth = 16u * 1024 * 1024;

struct ConfigHeader {
  EFI_GUID guid{};
  std::u16string name;
  std::vector<uint8_t> path;
  size_t begin = 0;  // index of "GUID="
  size_t end = 0;    // index just past the PATH digits
};

struct ConfigBlock {
  size_t begin = 0;  // index of the '&' of OFFSET
  uint64_t offset = 0;
  uint64_t width = 0;
  std::u16string blockText;  // "&OFFSET=..&WIDTH=.." as written
  bool hasValue = false;
  std::vector<uint8_t> value;  // `width` bytes in storage order
};

struct ConfigString {
  ConfigHeader header;
  std::vector<ConfigBlock> blocks;
};

enum class ConfigKind {
  Request,   // blocks without VALUE
  Response,  // every block with VALUE
};

struct ConfigError {
  size_t position = 0;  // the first bad character
  size_t progress = 0;  // where UEFI Progress points
  std::string message;
};

// Parses the header at `start` of `text`.
EFI_STATUS parseConfigHeader(std::u16string_view text, size_t start, ConfigHeader& out, ConfigError* error = nullptr);

// Parses one configuration string (one header and its blocks) that runs to
// the end of `text`. EFI_INVALID_PARAMETER for any syntax error.
EFI_STATUS parseConfigString(std::u16string_view text, ConfigKind kind, ConfigString& out,
                             ConfigError* error = nullptr);

// UTF-8/ASCII conveniences for tests and tools.
std::u16string toUtf16(std::string_view ascii);
std::string toAscii(std::u16string_view text);  // characters above 0x7F become '?'

}  // namespace tvl::host::hii
