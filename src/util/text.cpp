#include "util/text.h"

#include "uefi/print.h"
#include "uefi/runtime.h"

using tvl::rt::Pool;

namespace {

constexpr UINT64 kLastSafeTenth = 0x1999999999999999ull;  // (2^64 - 1) / 10
constexpr UINTN kFixedUnicodeCapacity = 256 / sizeof(CHAR16);
constexpr UINTN kMaxDecimalDigits = 20;

bool isDigit(CHAR8 c) { return INT8(c) >= '0' && INT8(c) <= '9'; }
bool isOctalDigit(CHAR8 c) { return c >= '0' && c <= '7'; }
bool isPrintable(UINT8 c) { return c >= 32 && c <= 126; }

template <typename C>
void lowerInPlace(C* text) {
  if (!text) return;
  for (; *text; ++text)
    if (*text >= 'A' && *text <= 'Z') *text = C(*text + 32);
}

CHAR8 upperAscii(CHAR8 c) { return (c >= 'a' && c <= 'z') ? CHAR8(c - 32) : c; }

// Position of the first occurrence of `search` (of `searchLength` > 0
// characters) in `text` at or after `from`, or null.
const CHAR8* findFrom(const CHAR8* from, const CHAR8* search, UINTN searchLength) {
  for (const CHAR8* p = from; *p; ++p)
    if (tvl::rt::compareMem(p, search, searchLength) == 0) return p;
  return nullptr;
}

}  // namespace

extern "C" {

UINT64 parseDecimal(const CHAR8* text) {
  if (!text) return 0;
  while (*text == ' ') ++text;
  UINT64 value = 0;
  for (; isDigit(*text); ++text) {
    UINT64 digit = UINT64(*text - '0');
    if (value > kLastSafeTenth || (value == kLastSafeTenth && digit > 5)) return ~UINT64(0);
    value = value * 10 + digit;
  }
  return value;
}

BOOLEAN isAllDigits(const CHAR8* text) {
  if (!text) return TRUE;
  for (; *text; ++text)
    if (!isDigit(*text)) return FALSE;
  return TRUE;
}

INT64 compareNoCase(const CHAR8* a, const CHAR8* b) {
  if (tvl::rt::equal(a, b)) return 0;
  UINTN lengthA = tvl::rt::length(a);
  UINTN lengthB = tvl::rt::length(b);
  if (lengthA != lengthB) return INT64(lengthA) - INT64(lengthB);
  for (UINTN i = 0; i < lengthA; ++i) {
    INT8 x = INT8(upperAscii(a[i]));
    INT8 y = INT8(upperAscii(b[i]));
    if (x != y) return INT64(x) - INT64(y);
  }
  return 0;
}

VOID toLowerUnicode(CHAR16* text) { lowerInPlace(text); }
VOID toLowerAscii(CHAR8* text) { lowerInPlace(text); }

VOID narrowToAscii(const CHAR16* source, CHAR8* destination) {
  if (!destination) return;
  UINTN n = 0;
  if (source) {
    for (; source[n]; ++n) {
      UINT8 low = UINT8(source[n] & 0xFF);
      destination[n] = CHAR8(isPrintable(low) ? low : ' ');
    }
  }
  destination[n] = 0;
}

CHAR8* numberToDecimalText(UINT64 number) {
  CHAR8 digits[kMaxDecimalDigits];
  UINTN count = 0;
  do {
    digits[count++] = CHAR8('0' + number % 10);
    number /= 10;
  } while (number != 0);
  Pool<CHAR8> text = Pool<CHAR8>::bytes(count + 1);
  if (!text) return nullptr;
  for (UINTN i = 0; i < count; ++i) text[i] = digits[count - 1 - i];
  return text.release();
}

VOID EFIAPI formatUnicodeFixed(CHAR16* destination, const CHAR16* format, ...) {
  tvl::rt::VaList args;
  __builtin_ms_va_start(args, format);
  tvl::rt::formatV(destination, kFixedUnicodeCapacity, format, &args);
  __builtin_ms_va_end(args);
}

VOID EFIAPI formatUnicodeN(CHAR16* destination, UINTN capacity, const CHAR16* format, ...) {
  tvl::rt::VaList args;
  __builtin_ms_va_start(args, format);
  tvl::rt::formatV(destination, capacity, format, &args);
  __builtin_ms_va_end(args);
}

VOID EFIAPI formatAsciiN(CHAR8* destination, UINTN capacity, const CHAR8* format, ...) {
  tvl::rt::VaList args;
  __builtin_ms_va_start(args, format);
  tvl::rt::formatV(destination, capacity, format, &args);
  __builtin_ms_va_end(args);
}

UINTN asciiLength(const CHAR8* text) { return tvl::rt::length(text); }

VOID freeIfSet(VOID* buffer) { tvl::rt::release(buffer); }

// Replacing each occurrence in its own step, with the next search starting
// after the inserted replacement, is the same as one non-overlapping
// left-to-right scan of the original text; the result is built in one
// allocation of exactly its length + 1 bytes.
EFI_STATUS replaceAll(const CHAR8* search, const CHAR8* replacement, CHAR8** text) {
  if (!search || !replacement || !text || !*text || *search == 0) return EFI_INVALID_PARAMETER;
  const UINTN searchLength = tvl::rt::length(search);
  const UINTN replacementLength = tvl::rt::length(replacement);
  const CHAR8* source = *text;

  UINTN occurrences = 0;
  for (const CHAR8* p = findFrom(source, search, searchLength); p; p = findFrom(p + searchLength, search, searchLength))
    ++occurrences;
  if (occurrences == 0) return EFI_NOT_FOUND;

  const UINTN resultLength = tvl::rt::length(source) - occurrences * searchLength + occurrences * replacementLength;
  Pool<CHAR8> result = Pool<CHAR8>::bytes(resultLength + 1);
  if (!result) return EFI_OUT_OF_RESOURCES;

  CHAR8* out = result.get();
  const CHAR8* rest = source;
  for (const CHAR8* p = findFrom(rest, search, searchLength); p; p = findFrom(rest, search, searchLength)) {
    tvl::rt::copyMem(out, rest, UINTN(p - rest));
    out += p - rest;
    tvl::rt::copyMem(out, replacement, replacementLength);
    out += replacementLength;
    rest = p + searchLength;
  }
  tvl::rt::copyMem(out, rest, tvl::rt::length(rest));

  tvl::rt::release(*text);
  *text = result.release();
  return EFI_SUCCESS;
}

VOID decodeOctalEscapes(const CHAR8* source, CHAR8** out) {
  if (!source || !out) return;
  const UINTN sourceLength = tvl::rt::length(source);
  if (!findFrom(source, "\\", 1)) return;

  Pool<CHAR8> decoded = tvl::rt::duplicate(source, sourceLength);
  if (!decoded) return;
  *out = decoded.release();

  for (const CHAR8* p = findFrom(source, "\\", 1); p; p = findFrom(p + 1, "\\", 1)) {
    if (!p[1] || !p[2] || !p[3]) continue;
    if (!isOctalDigit(p[1]) || !isOctalDigit(p[2]) || !isOctalDigit(p[3])) continue;
    UINT8 value = UINT8((p[1] - '0') * 64 + (p[2] - '0') * 8 + (p[3] - '0'));
    if (!isPrintable(value)) continue;
    const CHAR8 escape[5] = {p[0], p[1], p[2], p[3], 0};
    const CHAR8 character[2] = {CHAR8(value), 0};
    replaceAll(escape, character, out);
  }
}

}  // extern "C"
