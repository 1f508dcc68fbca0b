// UEFI string packages (EFI_HII_PACKAGE_STRINGS): a parsed model, the parser
// over the string information blocks, and the builders that tests, the IFR
// builder and the sample platform use to assemble package lists.
//
// Package layout: package header (4), HdrSize u32, StringInfoOffset u32,
// LanguageWindow CHAR16[16], LanguageName u16 (a string id), Language
// (NUL-terminated 8-bit: the primary tag, then any secondary tags after
// ';'), and from StringInfoOffset the string information blocks up to and
// including EFI_HII_SIBT_END. String ids start at 1 and count up block by
// block; SKIP blocks leave ids undefined, DUPLICATE repeats an earlier
// string, the EXT blocks (fonts among them) take no id.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "host/hii/package_list.h"
#include "uefi/ifr.h"

namespace tvl::host::hii {

struct StringEntry {
  bool defined = false;  // false for ids left out by SKIP blocks
  std::u16string text;
  bool hasFont = false;
  uint8_t fontId = 0;
};

struct StringPackage {
  std::string language;  // the Language field as stored (primary[;secondary...])
  std::array<char16_t, 16> languageWindow{};
  EFI_STRING_ID languageName = 0;
  std::vector<StringEntry> strings;  // index 0 is string id 1
  // EXT1/EXT2/EXT4 blocks (font definitions among them), kept verbatim and
  // written back before the strings.
  std::vector<std::vector<uint8_t>> extendedBlocks;

  // The tag before the first ';'.
  std::string primaryLanguage() const;
  // The tags after the first ';', as written (';'-separated), or empty.
  std::string secondaryLanguages() const;
  // The entry of `id`, or null when the id is 0, beyond the package or skipped.
  const StringEntry* find(EFI_STRING_ID id) const;
  StringEntry* find(EFI_STRING_ID id);
  // The highest id the package covers (defined or skipped).
  EFI_STRING_ID lastId() const { return EFI_STRING_ID(strings.size()); }
};

// Parses one string package of `size` bytes (header included; `size` is the
// package's own length). Refusals: EFI_INVALID_PARAMETER for a malformed
// header or block (truncated, running past the package, missing END, a
// DUPLICATE of an id not yet defined, ids beyond 0xFFFF), EFI_UNSUPPORTED
// for SCSU text that uses SCSU control tags (plain ASCII and the default
// Latin-1 window decode).
EFI_STATUS parseStringPackage(const uint8_t* data, size_t size, StringPackage& out, FormatError* error = nullptr);

// Writes the package back: header, extended blocks, then the strings as
// STRING_UCS2 / STRING_UCS2_FONT blocks with SKIP1/SKIP2 over undefined
// ids, and EFI_HII_SIBT_END.
std::vector<uint8_t> serializeStringPackage(const StringPackage& package);

// A string package for `language` whose string id N (N >= 1) is
// strings[N - 1]; LanguageName is 0 and the language window empty.
std::vector<uint8_t> buildStringPackage(const std::string& language, const std::vector<std::u16string>& strings);

}  // namespace tvl::host::hii
