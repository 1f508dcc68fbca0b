#include "services/forms/config.h"

namespace tvl::forms {
namespace {

constexpr CHAR16 kHexDigits[] = u"0123456789abcdef";

// Writes into a text of known capacity; the capacity is computed before the
// allocation, so writing past it is a programming error that is refused.
class TextWriter {
 public:
  TextWriter(CHAR16* out, UINTN capacity) : out_(out), capacity_(capacity) {}
  void put(CHAR16 c) {
    if (used_ + 1 < capacity_) out_[used_++] = c;
  }
  void put(const CHAR16* s) {
    while (*s) put(*s++);
  }
  void hex(UINT64 value, UINTN digits) {
    for (UINTN i = digits; i-- > 0;) put(kHexDigits[(value >> (4 * i)) & 0xF]);
  }
  // At least `minDigits` digits, more when the value needs them.
  void hexMin(UINT64 value, UINTN minDigits) {
    UINTN digits = 1;
    while (digits < 16 && (value >> (4 * digits)) != 0) ++digits;
    hex(value, digits > minDigits ? digits : minDigits);
  }

 private:
  CHAR16* out_;
  UINTN capacity_;
  UINTN used_ = 0;
};

int hexValue(CHAR16 c) {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}

bool startsWith(const CHAR16* text, const CHAR16* prefix) {
  for (; *prefix; ++text, ++prefix)
    if (*text != *prefix) return false;
  return true;
}

// Reads "<field><hex digits>" at `p`: the digits run to the next '&' or the
// end. Gives the digits' span; false when the field is missing or a
// character is not a hex digit.
bool readField(const CHAR16*& p, const CHAR16* field, const CHAR16*& digits, UINTN& count) {
  if (!startsWith(p, field)) return false;
  p += rt::length(field);
  digits = p;
  count = 0;
  while (p[count] != 0 && p[count] != u'&') {
    if (hexValue(p[count]) < 0) return false;
    ++count;
  }
  p += count;
  return true;
}

bool readNumberField(const CHAR16*& p, const CHAR16* field, UINT64& value) {
  const CHAR16* digits;
  UINTN count;
  if (!readField(p, field, digits, count) || count == 0) return false;
  // Leading zeros are allowed; more than 16 significant digits are not.
  UINTN i = 0;
  while (i + 1 < count && digits[i] == u'0') ++i;
  if (count - i > 16) return false;
  value = 0;
  for (; i < count; ++i) value = (value << 4) | UINT64(hexValue(digits[i]));
  return true;
}

}  // namespace

rt::Pool<CHAR16> makeConfigHdr(const EFI_GUID& guid, const CHAR16* name, const UINT8* devicePath,
                               UINTN devicePathSize) {
  UINTN nameLength = rt::length(name);
  if (!devicePath) devicePathSize = 0;
  UINTN capacity = 5 + 2 * sizeof(EFI_GUID) + 6 + 4 * nameLength + 6 + 2 * devicePathSize + 1;
  rt::Pool<CHAR16> text = rt::Pool<CHAR16>::zeroed(capacity);
  if (!text) return text;
  TextWriter w(text.get(), capacity);
  w.put(u"GUID=");
  const UINT8* g = reinterpret_cast<const UINT8*>(&guid);
  for (UINTN i = 0; i < sizeof(EFI_GUID); ++i) w.hex(g[i], 2);
  w.put(u"&NAME=");
  for (UINTN i = 0; i < nameLength; ++i) w.hex(name[i], 4);
  w.put(u"&PATH=");
  for (UINTN i = 0; i < devicePathSize; ++i) w.hex(devicePath[i], 2);
  return text;
}

rt::Pool<CHAR16> makeBlockName(UINT16 offset, UINT16 width) {
  constexpr UINTN kCapacity = 8 + 4 + 7 + 4 + 1;
  rt::Pool<CHAR16> text = rt::Pool<CHAR16>::zeroed(kCapacity);
  if (!text) return text;
  TextWriter w(text.get(), kCapacity);
  w.put(u"&OFFSET=");
  w.hexMin(offset, 4);
  w.put(u"&WIDTH=");
  w.hexMin(width, 4);
  return text;
}

UINTN applyConfigResp(const CHAR16* response, UINT8* store, UINTN size) {
  if (!response) return 0;
  UINTN copied = 0;
  const CHAR16* p = response;
  for (;;) {
    // Next block: skip the header fields up to "&OFFSET=".
    while (*p && !startsWith(p, u"&OFFSET=")) {
      if (startsWith(p, u"&ALTCFG=")) return copied;
      ++p;
    }
    if (!*p) return copied;
    ++p;  // past '&'
    UINT64 offset = 0, width = 0;
    const CHAR16* digits;
    UINTN count;
    if (!readNumberField(p, u"OFFSET=", offset)) return copied;
    if (!startsWith(p, u"&WIDTH=")) return copied;
    ++p;
    if (!readNumberField(p, u"WIDTH=", width)) return copied;
    if (!startsWith(p, u"&VALUE=")) return copied;
    ++p;
    if (!readField(p, u"VALUE=", digits, count)) return copied;
    if (width == 0 || offset > size || width > size - offset || count > 2 * width) continue;
    // The digits are one number: the last byte of the block comes first.
    UINT8* block = store + offset;
    for (UINTN b = 0; b < width; ++b) {
      UINT8 byte = 0;
      for (UINTN half = 0; half < 2; ++half) {
        UINTN fromEnd = 2 * b + half;  // 0 = last digit
        if (fromEnd < count) byte |= UINT8(hexValue(digits[count - 1 - fromEnd]) << (4 * half));
      }
      block[b] = byte;
    }
    ++copied;
  }
}

UINTN devicePathSize(const UINT8* path, UINTN limit) {
  if (!path) return 0;
  UINTN size = 0;
  for (;;) {
    if (limit - size < 4) return 0;
    const UINT8* node = path + size;
    UINTN nodeLength = UINTN(node[2]) | (UINTN(node[3]) << 8);
    if (nodeLength < 4 || nodeLength > limit - size) return 0;
    size += nodeLength;
    if (node[0] == END_DEVICE_PATH_TYPE && node[1] == END_ENTIRE_DEVICE_PATH_SUBTYPE) return size;
  }
}

}  // namespace tvl::forms
