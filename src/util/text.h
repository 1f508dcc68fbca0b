// Small text operations shared by the whole driver: a tolerant decimal
// parser, case handling, narrowing of UCS-2 firmware strings into the 8-bit
// texts that documents carry, number-to-text conversion, bounded formatting,
// an allocating replace-all and the decoding of backslash-octal escapes.
//
// A text is an 8-bit NUL-terminated string, a UCS-2 text a NUL-terminated
// string of 16-bit characters. Character classes are plain ASCII ranges.
// Every allocation comes from the boot-services pool, zero-filled; whoever
// receives a new text frees it.
#pragma once

#include "uefi/base.h"

extern "C" {

// Decimal value of the digits that follow any leading blanks (0x20 only).
// Stops at the first non-digit; a text without leading digits, or a null
// text, gives 0. A value beyond 64 bits gives all ones.
UINT64 parseDecimal(const CHAR8* text);

// TRUE when every character is '0' to '9'; empty and null texts qualify.
BOOLEAN isAllDigits(const CHAR8* text);

// 0 when the texts are equal ignoring the case of a-z. Texts of different
// lengths compare by length (length(a) - length(b)); texts of equal length
// by the first differing upper-cased character, as signed 8-bit values.
// Both texts must be present.
INT64 compareNoCase(const CHAR8* a, const CHAR8* b);

// In-place lower-casing of 'A' to 'Z'; other characters stay.
VOID toLowerUnicode(CHAR16* text);
VOID toLowerAscii(CHAR8* text);

// Stores the low byte of each UCS-2 character, replacing bytes outside
// 32..126 by a blank, and terminates. `destination` holds the source's
// length + 1 bytes.
VOID narrowToAscii(const CHAR16* source, CHAR8* destination);

// The decimal digits of `number` in a new pool text of exactly length + 1
// bytes; null when the pool refuses.
CHAR8* numberToDecimalText(UINT64 number);

// Bounded formatting in the firmware print conventions. The output is
// always terminated and silently cut to the capacity, which includes the
// terminator.
// Into a 256-byte UCS-2 buffer (128 characters).
VOID EFIAPI formatUnicodeFixed(CHAR16* destination, const CHAR16* format, ...);
// Into a UCS-2 buffer of `capacity` characters.
VOID EFIAPI formatUnicodeN(CHAR16* destination, UINTN capacity, const CHAR16* format, ...);
// Into an 8-bit buffer of `capacity` bytes.
VOID EFIAPI formatAsciiN(CHAR8* destination, UINTN capacity, const CHAR8* format, ...);

// Length of a text; 0 for null.
UINTN asciiLength(const CHAR8* text);

// Returns a pool buffer to the pool unless it is null.
VOID freeIfSet(VOID* buffer);

// Replaces every occurrence of `search` in `*text`, left to right and
// without overlap (replacement text is never searched again), by
// `replacement`. `*text` is a pool text and is replaced by a new one.
// EFI_INVALID_PARAMETER for a missing argument or an empty search text,
// EFI_NOT_FOUND when nothing occurs (the text stays), EFI_OUT_OF_RESOURCES
// when the pool refuses (the text stays as it was).
EFI_STATUS replaceAll(const CHAR8* search, const CHAR8* replacement, CHAR8** text);

// When `source` holds a backslash, `*out` receives a new pool copy of it in
// which every backslash followed by three octal digits whose value (modulo
// 256) is printable (32..126) is replaced by that character. Otherwise, or
// when an argument is null, nothing is allocated and `*out` is not written.
VOID decodeOctalEscapes(const CHAR8* source, CHAR8** out);

}  // extern "C"

namespace tvl {

// 0-15 for a hexadecimal digit of either case, -1 for anything else.
constexpr INTN hexDigitValue(CHAR16 c) {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}

// The hexadecimal number whose digits start at `digits`, up to the first
// other character; `limit` + 1 as soon as it grows past `limit`, so that
// no run of digits wraps around to a small number. `limit` is below 2^60,
// where one more digit still fits in 64 bits.
constexpr UINT64 hexNumberUpTo(const CHAR16* digits, UINT64 limit) {
  UINT64 value = 0;
  for (; hexDigitValue(*digits) >= 0; ++digits) {
    value = value * 16 + UINT64(hexDigitValue(*digits));
    if (value > limit) return limit + 1;
  }
  return value;
}

}  // namespace tvl
