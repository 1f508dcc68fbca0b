// Character classes of XML 1.0 (fifth edition) and strict UTF-8 decoding,
// shared by the parser and the serialiser.
#pragma once

#include "uefi/base.h"

namespace tvl::xmlsvc {

inline bool isSpace(UINT8 b) { return b == ' ' || b == '\t' || b == '\n' || b == '\r'; }

// Char: tab, line feed, carriage return and everything from U+0020 up,
// except surrogates, U+FFFE and U+FFFF.
constexpr bool isXmlChar(UINT32 cp) {
  return cp == 0x9 || cp == 0xA || cp == 0xD || (cp >= 0x20 && cp <= 0xD7FF) || (cp >= 0xE000 && cp <= 0xFFFD) ||
         (cp >= 0x10000 && cp <= 0x10FFFF);
}

struct CodeRange {
  UINT32 first;
  UINT32 last;
};

constexpr CodeRange kNameStartRanges[] = {
    {':', ':'},         {'A', 'Z'},         {'_', '_'},         {'a', 'z'},         {0xC0, 0xD6},
    {0xD8, 0xF6},       {0xF8, 0x2FF},      {0x370, 0x37D},     {0x37F, 0x1FFF},    {0x200C, 0x200D},
    {0x2070, 0x218F},   {0x2C00, 0x2FEF},   {0x3001, 0xD7FF},   {0xF900, 0xFDCF},   {0xFDF0, 0xFFFD},
    {0x10000, 0xEFFFF},
};
constexpr CodeRange kNameExtraRanges[] = {
    {'-', '-'}, {'.', '.'}, {'0', '9'}, {0xB7, 0xB7}, {0x300, 0x36F}, {0x203F, 0x2040},
};

template <UINTN N>
constexpr bool inRanges(const CodeRange (&ranges)[N], UINT32 cp) {
  for (UINTN i = 0; i < N; ++i)
    if (cp >= ranges[i].first && cp <= ranges[i].last) return true;
  return false;
}
constexpr bool isNameStart(UINT32 cp) { return inRanges(kNameStartRanges, cp); }
constexpr bool isNameChar(UINT32 cp) { return isNameStart(cp) || inRanges(kNameExtraRanges, cp); }

// The same classes for ASCII, which nearly every name is made of, as one
// table: bit 0 name start, bit 1 name character.
struct AsciiNameClasses {
  UINT8 bits[0x80];
};
constexpr UINT8 kNameStartBit = 1;
constexpr UINT8 kNameCharBit = 2;
constexpr AsciiNameClasses asciiNameClasses() {
  AsciiNameClasses classes{};
  for (UINT32 b = 0; b < 0x80; ++b)
    classes.bits[b] = UINT8((isNameStart(b) ? kNameStartBit : 0) | (isNameChar(b) ? kNameCharBit : 0));
  return classes;
}
inline constexpr AsciiNameClasses kAsciiNameClasses = asciiNameClasses();

// Decodes one UTF-8 sequence from `s` (at most `avail` bytes). Returns its
// length, or 0 for a malformed, overlong, surrogate or out-of-range
// sequence.
inline UINTN decodeUtf8(const UINT8* s, UINTN avail, UINT32* cp) {
  if (avail == 0) return 0;
  UINT8 b0 = s[0];
  if (b0 < 0x80) {
    *cp = b0;
    return 1;
  }
  UINTN n;
  UINT32 value;
  UINT8 lo = 0x80, hi = 0xBF;  // allowed range of the second byte
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    n = 2;
    value = b0 & 0x1F;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    n = 3;
    value = b0 & 0x0F;
    if (b0 == 0xE0) lo = 0xA0;
    if (b0 == 0xED) hi = 0x9F;
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    n = 4;
    value = b0 & 0x07;
    if (b0 == 0xF0) lo = 0x90;
    if (b0 == 0xF4) hi = 0x8F;
  } else {
    return 0;
  }
  if (avail < n) return 0;
  for (UINTN i = 1; i < n; ++i) {
    UINT8 b = s[i];
    if (i == 1 ? (b < lo || b > hi) : (b < 0x80 || b > 0xBF)) return 0;
    value = (value << 6) | (b & 0x3F);
  }
  *cp = value;
  return n;
}

// Writes the UTF-8 form of a valid code point into `out` (4 bytes room);
// returns its length.
inline UINTN encodeUtf8(UINT32 cp, UINT8* out) {
  if (cp < 0x80) {
    out[0] = UINT8(cp);
    return 1;
  }
  if (cp < 0x800) {
    out[0] = UINT8(0xC0 | (cp >> 6));
    out[1] = UINT8(0x80 | (cp & 0x3F));
    return 2;
  }
  if (cp < 0x10000) {
    out[0] = UINT8(0xE0 | (cp >> 12));
    out[1] = UINT8(0x80 | ((cp >> 6) & 0x3F));
    out[2] = UINT8(0x80 | (cp & 0x3F));
    return 3;
  }
  out[0] = UINT8(0xF0 | (cp >> 18));
  out[1] = UINT8(0x80 | ((cp >> 12) & 0x3F));
  out[2] = UINT8(0x80 | ((cp >> 6) & 0x3F));
  out[3] = UINT8(0x80 | (cp & 0x3F));
  return 4;
}

// Length of the XML Name at the start of `s` (at most `avail` bytes), or 0
// when `s` does not start with a name.
inline UINTN scanName(const UINT8* s, UINTN avail) {
  UINTN pos = 0;
  while (pos < avail) {
    UINT8 b = s[pos];
    if (b < 0x80) {
      if (!(kAsciiNameClasses.bits[b] & (pos == 0 ? kNameStartBit : kNameCharBit))) break;
      ++pos;
      continue;
    }
    UINT32 cp;
    UINTN n = decodeUtf8(s + pos, avail - pos, &cp);
    if (n == 0 || !(pos == 0 ? isNameStart(cp) : isNameChar(cp))) break;
    pos += n;
  }
  return pos;
}

// The five predefined entities.
struct PredefinedEntity {
  const CHAR8* name;
  UINTN length;
  UINT8 character;
};
constexpr PredefinedEntity kPredefinedEntities[] = {
    {"amp", 3, '&'}, {"lt", 2, '<'}, {"gt", 2, '>'}, {"quot", 4, '"'}, {"apos", 4, '\''},
};

// The character of a predefined entity name, or 0.
inline UINT8 predefinedEntity(const UINT8* name, UINTN length) {
  for (const PredefinedEntity& e : kPredefinedEntities) {
    if (e.length != length) continue;
    UINTN i = 0;
    while (i < length && UINT8(e.name[i]) == name[i]) ++i;
    if (i == length) return e.character;
  }
  return 0;
}

// Reads the digits of a numeric character reference: `s` points just past
// "&#" and holds "x" hexdigits ";" or decimal digits ";". Returns the bytes
// read including the ";" (0 when the form is malformed) and stores the
// value, saturated above U+10FFFF so that huge numbers cannot wrap.
inline UINTN scanCharReference(const UINT8* s, UINTN avail, UINT32* cp) {
  UINTN pos = 0;
  UINT32 base = 10;
  if (pos < avail && s[pos] == 'x') {
    base = 16;
    ++pos;
  }
  UINTN digitsStart = pos;
  UINT32 value = 0;
  for (; pos < avail; ++pos) {
    UINT8 b = s[pos];
    UINT32 digit;
    if (b >= '0' && b <= '9') {
      digit = b - '0';
    } else if (base == 16 && b >= 'a' && b <= 'f') {
      digit = b - 'a' + 10;
    } else if (base == 16 && b >= 'A' && b <= 'F') {
      digit = b - 'A' + 10;
    } else {
      break;
    }
    value = value * base + digit;
    if (value > 0x110000) value = 0x110000;
  }
  if (pos == digitsStart || pos >= avail || s[pos] != ';') return 0;
  *cp = value;
  return pos + 1;
}

}  // namespace tvl::xmlsvc
