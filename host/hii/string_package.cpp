#include "host/hii/string_package.h"

#include <stdexcept>

#include "host/hii/byte_reader.h"

namespace tvl::host::hii {
namespace {

constexpr size_t kHeaderFixed = HII_STRING_PACKAGE_FIXED_SIZE;
constexpr uint32_t kMaxStringId = 0xFFFF;

// Minimum lengths of the extended blocks (block header included).
constexpr uint32_t kExt1Min = 3;
constexpr uint32_t kExt2Min = 4;
constexpr uint32_t kExt4Min = 6;
// EFI_HII_SIBT_FONT payload after its EXT2 header: FontId u8,
// FontSize u16, FontStyle u32, then the NUL-terminated UCS-2 font name.
constexpr size_t kFontFixed = 7;

class Parser {
 public:
  Parser(const uint8_t* data, size_t size, FormatError* error) : data_(data), size_(size), error_(error) {}

  EFI_STATUS run(StringPackage& out) {
    StringPackage package;
    RETURN_IF_ERROR(header(package));
    RETURN_IF_ERROR(blocks(package));
    out = std::move(package);
    return EFI_SUCCESS;
  }

 private:
  EFI_STATUS fail(size_t offset, const char* message, EFI_STATUS status = EFI_INVALID_PARAMETER) {
    if (error_) {
      error_->offset = offset;
      error_->message = message;
    }
    return status;
  }

  EFI_STATUS header(StringPackage& package) {
    if (size_ < kHeaderFixed) return fail(0, "string package header truncated");
    if (hiiPackageLength(data_) != size_) return fail(0, "string package length does not match its header");
    if (hiiPackageType(data_) != EFI_HII_PACKAGE_STRINGS) return fail(3, "not a string package");
    ByteReader r(data_, size_);
    r.skip(HII_PACKAGE_HEADER_SIZE);
    uint32_t hdrSize = 0;
    r.u32(hdrSize);
    r.u32(infoOffset_);
    for (auto& c : package.languageWindow) {
      uint16_t v = 0;
      r.u16(v);
      c = char16_t(v);
    }
    r.u16(package.languageName);
    if (hdrSize <= kHeaderFixed || hdrSize > size_) return fail(4, "HdrSize outside the package");
    ByteReader language(data_ + kHeaderFixed, hdrSize - kHeaderFixed);
    if (!language.asciiz(package.language)) return fail(kHeaderFixed, "Language not terminated inside the header");
    if (package.language.empty()) return fail(kHeaderFixed, "empty Language");
    if (infoOffset_ < hdrSize || infoOffset_ >= size_) return fail(8, "StringInfoOffset outside the package");
    return EFI_SUCCESS;
  }

  EFI_STATUS addString(StringPackage& package, size_t at, std::u16string text, bool hasFont, uint8_t fontId) {
    if (package.strings.size() >= kMaxStringId) return fail(at, "string id beyond 0xFFFF");
    StringEntry entry;
    entry.defined = true;
    entry.text = std::move(text);
    entry.hasFont = hasFont;
    entry.fontId = fontId;
    package.strings.push_back(std::move(entry));
    return EFI_SUCCESS;
  }

  EFI_STATUS skipIds(StringPackage& package, size_t at, uint32_t count) {
    if (package.strings.size() + count > kMaxStringId) return fail(at, "string id beyond 0xFFFF");
    package.strings.resize(package.strings.size() + count);
    return EFI_SUCCESS;
  }

  // One SCSU text. Plain ASCII and bytes of the default dynamic window 0
  // (0x80-0xFF map to U+0080-U+00FF) decode; SCSU tags are refused.
  EFI_STATUS scsuText(ByteReader& r, size_t at, std::u16string& out) {
    std::string bytes;
    if (!r.asciiz(bytes)) return fail(at, "SCSU string runs past the package");
    out.clear();
    for (unsigned char b : bytes) {
      const bool plain = b == 0x09 || b == 0x0A || b == 0x0D || (b >= 0x20 && b < 0x80);
      if (plain) {
        out.push_back(char16_t(b));
      } else if (b >= 0x80) {
        out.push_back(char16_t(0x0080 + (b - 0x80)));
      } else {
        return fail(at, "SCSU control tags are not supported", EFI_UNSUPPORTED);
      }
    }
    return EFI_SUCCESS;
  }

  EFI_STATUS ucs2Text(ByteReader& r, size_t at, std::u16string& out) {
    if (!r.ucs2z(out)) return fail(at, "UCS-2 string runs past the package");
    return EFI_SUCCESS;
  }

  EFI_STATUS textBlock(StringPackage& package, ByteReader& r, size_t at, bool scsu, bool font, bool many) {
    uint8_t fontId = 0;
    if (font && !r.u8(fontId)) return fail(at, "string block truncated");
    uint16_t count = 1;
    if (many && !r.u16(count)) return fail(at, "string block truncated");
    for (uint16_t i = 0; i < count; ++i) {
      std::u16string text;
      RETURN_IF_ERROR(scsu ? scsuText(r, at, text) : ucs2Text(r, at, text));
      RETURN_IF_ERROR(addString(package, at, std::move(text), font, fontId));
    }
    return EFI_SUCCESS;
  }

  EFI_STATUS duplicate(StringPackage& package, ByteReader& r, size_t at) {
    uint16_t id = 0;
    if (!r.u16(id)) return fail(at, "DUPLICATE block truncated");
    const StringEntry* original = package.find(id);
    if (!original) return fail(at, "DUPLICATE of a string id that is not defined before it");
    StringEntry copy = *original;
    return addString(package, at, std::move(copy.text), copy.hasFont, copy.fontId);
  }

  EFI_STATUS extended(StringPackage& package, ByteReader& r, size_t at, uint8_t type) {
    uint8_t type2 = 0;
    uint32_t length = 0;
    uint32_t minimum = 0;
    bool ok = r.u8(type2);
    if (type == EFI_HII_SIBT_EXT1) {
      uint8_t v = 0;
      ok = ok && r.u8(v);
      length = v;
      minimum = kExt1Min;
    } else if (type == EFI_HII_SIBT_EXT2) {
      uint16_t v = 0;
      ok = ok && r.u16(v);
      length = v;
      minimum = kExt2Min;
    } else {
      ok = ok && r.u32(length);
      minimum = kExt4Min;
    }
    if (!ok) return fail(at, "extended block header truncated");
    if (length < minimum) return fail(at, "extended block shorter than its header");
    const size_t rest = length - minimum;
    if (rest > r.remaining()) return fail(at, "extended block runs past the package");
    if (type2 == EFI_HII_SIBT_FONT) RETURN_IF_ERROR(font(r.here(), rest, at));
    package.extendedBlocks.emplace_back(data_ + at, data_ + at + length);
    r.skip(rest);
    return EFI_SUCCESS;
  }

  EFI_STATUS font(const uint8_t* payload, size_t size, size_t at) {
    if (size < kFontFixed) return fail(at, "font block truncated");
    ByteReader name(payload + kFontFixed, size - kFontFixed);
    std::u16string text;
    if (!name.ucs2z(text)) return fail(at, "font name runs past its block");
    return EFI_SUCCESS;
  }

  EFI_STATUS blocks(StringPackage& package) {
    ByteReader r(data_, size_);
    r.skip(infoOffset_);
    for (;;) {
      const size_t at = r.position();
      uint8_t type = 0;
      if (!r.u8(type)) return fail(at, "string blocks end without EFI_HII_SIBT_END");
      switch (type) {
        case EFI_HII_SIBT_END:
          return EFI_SUCCESS;
        case EFI_HII_SIBT_STRING_SCSU:
        case EFI_HII_SIBT_STRING_SCSU_FONT:
        case EFI_HII_SIBT_STRINGS_SCSU:
        case EFI_HII_SIBT_STRINGS_SCSU_FONT:
        case EFI_HII_SIBT_STRING_UCS2:
        case EFI_HII_SIBT_STRING_UCS2_FONT:
        case EFI_HII_SIBT_STRINGS_UCS2:
        case EFI_HII_SIBT_STRINGS_UCS2_FONT: {
          const bool scsu = type < EFI_HII_SIBT_STRING_UCS2;
          const bool font = (type & 1) != 0;
          const bool many = (type & 2) != 0;
          RETURN_IF_ERROR(textBlock(package, r, at, scsu, font, many));
          break;
        }
        case EFI_HII_SIBT_DUPLICATE:
          RETURN_IF_ERROR(duplicate(package, r, at));
          break;
        case EFI_HII_SIBT_SKIP1: {
          uint8_t count = 0;
          if (!r.u8(count)) return fail(at, "SKIP1 block truncated");
          RETURN_IF_ERROR(skipIds(package, at, count));
          break;
        }
        case EFI_HII_SIBT_SKIP2: {
          uint16_t count = 0;
          if (!r.u16(count)) return fail(at, "SKIP2 block truncated");
          RETURN_IF_ERROR(skipIds(package, at, count));
          break;
        }
        case EFI_HII_SIBT_EXT1:
        case EFI_HII_SIBT_EXT2:
        case EFI_HII_SIBT_EXT4:
          RETURN_IF_ERROR(extended(package, r, at, type));
          break;
        default:
          return fail(at, "unknown string block type");
      }
    }
  }

  const uint8_t* data_;
  size_t size_;
  FormatError* error_;
  uint32_t infoOffset_ = 0;
};

void putSkip(ByteWriter& w, size_t count) {
  while (count > 0) {
    if (count <= 0xFF) {
      w.u8(EFI_HII_SIBT_SKIP1);
      w.u8(uint8_t(count));
      return;
    }
    const size_t n = count > 0xFFFF ? 0xFFFF : count;
    w.u8(EFI_HII_SIBT_SKIP2);
    w.u16(uint16_t(n));
    count -= n;
  }
}

}  // namespace

std::string StringPackage::primaryLanguage() const { return language.substr(0, language.find(';')); }

std::string StringPackage::secondaryLanguages() const {
  const size_t semicolon = language.find(';');
  return semicolon == std::string::npos ? std::string() : language.substr(semicolon + 1);
}

const StringEntry* StringPackage::find(EFI_STRING_ID id) const {
  if (id == 0 || id > strings.size()) return nullptr;
  const StringEntry& entry = strings[id - 1];
  return entry.defined ? &entry : nullptr;
}

StringEntry* StringPackage::find(EFI_STRING_ID id) {
  return const_cast<StringEntry*>(static_cast<const StringPackage*>(this)->find(id));
}

EFI_STATUS parseStringPackage(const uint8_t* data, size_t size, StringPackage& out, FormatError* error) {
  if (!data) {
    if (error) *error = FormatError{0, "no string package"};
    return EFI_INVALID_PARAMETER;
  }
  return Parser(data, size, error).run(out);
}

std::vector<uint8_t> serializeStringPackage(const StringPackage& package) {
  ByteWriter w;
  w.u24(0);
  w.u8(EFI_HII_PACKAGE_STRINGS);
  const uint32_t hdrSize = uint32_t(kHeaderFixed + package.language.size() + 1);
  w.u32(hdrSize);
  w.u32(hdrSize);
  for (char16_t c : package.languageWindow) w.u16(uint16_t(c));
  w.u16(package.languageName);
  w.asciiz(package.language);
  for (const auto& block : package.extendedBlocks) w.raw(block);
  size_t skipped = 0;
  for (const auto& entry : package.strings) {
    if (!entry.defined) {
      ++skipped;
      continue;
    }
    putSkip(w, skipped);
    skipped = 0;
    if (entry.hasFont) {
      w.u8(EFI_HII_SIBT_STRING_UCS2_FONT);
      w.u8(entry.fontId);
    } else {
      w.u8(EFI_HII_SIBT_STRING_UCS2);
    }
    w.ucs2z(entry.text);
  }
  putSkip(w, skipped);
  w.u8(EFI_HII_SIBT_END);
  if (w.size() > 0xFFFFFF) throw std::length_error("string package longer than 24 bits");
  w.patchU24(0, uint32_t(w.size()));
  return std::move(w.bytes());
}

std::vector<uint8_t> buildStringPackage(const std::string& language, const std::vector<std::u16string>& strings) {
  if (language.empty() || language.find('\0') != std::string::npos)
    throw std::invalid_argument("a string package needs a language tag");
  if (strings.size() > kMaxStringId) throw std::invalid_argument("more strings than string ids");
  StringPackage package;
  package.language = language;
  for (const auto& text : strings) {
    StringEntry entry;
    entry.defined = true;
    entry.text = text;
    package.strings.push_back(std::move(entry));
  }
  return serializeStringPackage(package);
}

}  // namespace tvl::host::hii
