#include "host/hii/config_string.h"

#include "host/hii/device_path.h"

namespace tvl::host::hii {
namespace {

constexpr char16_t kDigits[] = u"0123456789abcdef";
constexpr size_t kGuidDigits = 2 * sizeof(EFI_GUID);

int hexValue(char16_t c) {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}

void putHex(std::u16string& out, uint64_t value, int digits) {
  for (int i = digits - 1; i >= 0; --i) out.push_back(kDigits[(value >> (4 * i)) & 0xF]);
}

std::u16string number(uint64_t value) {
  int digits = 4;
  while (digits < 16 && (value >> (4 * digits)) != 0) ++digits;
  std::u16string out;
  putHex(out, value, digits);
  return out;
}

void guidBytes(const EFI_GUID& g, uint8_t out[16]) {
  for (int i = 0; i < 4; ++i) out[i] = uint8_t(g.Data1 >> (8 * i));
  out[4] = uint8_t(g.Data2);
  out[5] = uint8_t(g.Data2 >> 8);
  out[6] = uint8_t(g.Data3);
  out[7] = uint8_t(g.Data3 >> 8);
  for (int i = 0; i < 8; ++i) out[8 + i] = g.Data4[i];
}

EFI_GUID guidOf(const uint8_t b[16]) {
  EFI_GUID g;
  g.Data1 = uint32_t(b[0]) | (uint32_t(b[1]) << 8) | (uint32_t(b[2]) << 16) | (uint32_t(b[3]) << 24);
  g.Data2 = uint16_t(b[4] | (b[5] << 8));
  g.Data3 = uint16_t(b[6] | (b[7] << 8));
  for (int i = 0; i < 8; ++i) g.Data4[i] = b[8 + i];
  return g;
}

class Scanner {
 public:
  Scanner(std::u16string_view text, size_t start, ConfigError* error)
      : t_(text), pos_(start), pairStart_(start), error_(error) {}

  size_t pos() const { return pos_; }
  bool atEnd() const { return pos_ >= t_.size(); }
  bool atPairEnd() const { return atEnd() || t_[pos_] == u'&'; }

  // Matches the name of the next pair ("&WIDTH=", or "GUID=" at the
  // start); that pair then is the one being read.
  bool pair(std::u16string_view name) {
    if (t_.substr(pos_, name.size()) != name) return false;
    pairStart_ = pos_;
    pos_ += name.size();
    return true;
  }
  size_t hexRun() const {
    size_t n = 0;
    while (pos_ + n < t_.size() && hexValue(t_[pos_ + n]) >= 0) ++n;
    return n;
  }
  // Two digits to a byte, first digit high.
  void bytes(size_t count, uint8_t* out) {
    for (size_t i = 0; i < count; ++i, pos_ += 2) out[i] = uint8_t(hexValue(t_[pos_]) << 4 | hexValue(t_[pos_ + 1]));
  }
  void skip(size_t n) { pos_ += n; }
  std::u16string_view slice(size_t from, size_t to) const { return t_.substr(from, to - from); }

  // A fault inside the value of the pair being read: Progress at that
  // pair's '&' (the start of the string for the first pair).
  EFI_STATUS failValue(size_t position, const char* message) { return fail(position, pairStart_, message); }
  // The next pair is not the one expected: Progress at its '&', or at the
  // pair just read when the text ends or goes on with something else.
  EFI_STATUS failPair(const char* message) {
    const bool nextPair = pos_ < t_.size() && t_[pos_] == u'&';
    return fail(pos_, nextPair ? pos_ : pairStart_, message);
  }

  // A hexadecimal number of at most 64 bits.
  EFI_STATUS number(uint64_t& value, const char* what) {
    const size_t n = hexRun();
    if (n == 0) return failValue(pos_, what);
    value = 0;
    for (size_t i = 0; i < n; ++i) {
      if (value >> 60) return failValue(pos_ + i, "number does not fit 64 bits");
      value = value << 4 | uint64_t(hexValue(t_[pos_ + i]));
    }
    pos_ += n;
    return EFI_SUCCESS;
  }

 private:
  EFI_STATUS fail(size_t position, size_t progress, const char* message) {
    if (error_) {
      error_->position = position;
      error_->progress = progress;
      error_->message = message;
    }
    return EFI_INVALID_PARAMETER;
  }

  std::u16string_view t_;
  size_t pos_;
  size_t pairStart_;
  ConfigError* error_;
};

EFI_STATUS header(Scanner& s, ConfigHeader& out) {
  ConfigHeader h;
  h.begin = s.pos();
  if (!s.pair(u"GUID=")) return s.failPair("expected GUID=");
  if (s.hexRun() < kGuidDigits) return s.failValue(s.pos() + s.hexRun(), "GUID needs 32 hex digits");
  uint8_t g[16];
  s.bytes(16, g);
  h.guid = guidOf(g);
  if (!s.atPairEnd()) return s.failValue(s.pos(), "GUID needs 32 hex digits");

  if (!s.pair(u"&NAME=")) return s.failPair("expected &NAME=");
  const size_t nameDigits = s.hexRun();
  if (nameDigits % 4 != 0) return s.failValue(s.pos() + nameDigits, "NAME needs 4 hex digits per character");
  for (size_t i = 0; i < nameDigits / 4; ++i) {
    uint8_t c[2];
    s.bytes(2, c);
    h.name.push_back(char16_t(c[0] << 8 | c[1]));
  }
  if (!s.atPairEnd()) return s.failValue(s.pos(), "NAME needs 4 hex digits per character");

  if (!s.pair(u"&PATH=")) return s.failPair("expected &PATH=");
  const size_t pathStart = s.pos();
  const size_t pathDigits = s.hexRun();
  if (pathDigits == 0 || pathDigits % 2 != 0)
    return s.failValue(s.pos() + pathDigits, "PATH needs 2 hex digits per byte");
  h.path.resize(pathDigits / 2);
  s.bytes(h.path.size(), h.path.data());
  if (!s.atPairEnd()) return s.failValue(s.pos(), "PATH needs 2 hex digits per byte");
  if (devicePathSize(h.path.data(), h.path.size()) != h.path.size())
    return s.failValue(pathStart, "PATH is not one well-formed device path");
  h.end = s.pos();
  out = std::move(h);
  return EFI_SUCCESS;
}

EFI_STATUS value(Scanner& s, ConfigBlock& block) {
  const size_t digits = s.hexRun();
  if (digits == 0) return s.failValue(s.pos(), "VALUE without digits");
  if (digits > 2 * block.width) return s.failValue(s.pos() + 2 * block.width, "VALUE wider than WIDTH");
  // Zero-extend to 2 x width digits; the last pair is byte 0.
  std::u16string padded(2 * block.width - digits, u'0');
  padded.append(s.slice(s.pos(), s.pos() + digits));
  block.value.resize(block.width);
  for (size_t i = 0; i < block.width; ++i) {
    const size_t at = 2 * (block.width - 1 - i);
    block.value[i] = uint8_t(hexValue(padded[at]) << 4 | hexValue(padded[at + 1]));
  }
  block.hasValue = true;
  s.skip(digits);
  return EFI_SUCCESS;
}

EFI_STATUS block(Scanner& s, ConfigKind kind, ConfigBlock& out) {
  ConfigBlock b;
  b.begin = s.pos();
  if (!s.pair(u"&OFFSET=")) return s.failPair("expected &OFFSET=");
  RETURN_IF_ERROR(s.number(b.offset, "OFFSET without digits"));
  if (!s.pair(u"&WIDTH=")) return s.failPair("expected &WIDTH=");
  const size_t widthAt = s.pos();
  RETURN_IF_ERROR(s.number(b.width, "WIDTH without digits"));
  if (b.width == 0) return s.failValue(widthAt, "WIDTH of zero");
  if (b.width > kMaxConfigWidth) return s.failValue(widthAt, "WIDTH too large");
  b.blockText = std::u16string(s.slice(b.begin, s.pos()));
  const size_t valueAt = s.pos();
  if (s.pair(u"&VALUE=")) {
    if (kind == ConfigKind::Request) return s.failValue(valueAt, "VALUE in a request");
    RETURN_IF_ERROR(value(s, b));
  } else if (kind == ConfigKind::Response) {
    return s.failPair("expected &VALUE=");
  }
  if (!s.atPairEnd()) return s.failValue(s.pos(), "unexpected character after a value");
  out = std::move(b);
  return EFI_SUCCESS;
}

}  // namespace

std::u16string hexOfBytes(const uint8_t* data, size_t size) {
  std::u16string out;
  for (size_t i = 0; i < size; ++i) putHex(out, data[i], 2);
  return out;
}

std::u16string configHdr(const EFI_GUID& guid, const std::u16string& name, const std::vector<uint8_t>& devicePath) {
  uint8_t g[16];
  guidBytes(guid, g);
  std::u16string out = u"GUID=" + hexOfBytes(g, sizeof g) + u"&NAME=";
  for (char16_t c : name) putHex(out, c, 4);
  out += u"&PATH=" + hexOfBytes(devicePath.data(), devicePath.size());
  return out;
}

void appendValueDigits(std::u16string& out, const uint8_t* data, size_t size) {
  const size_t at = out.size();
  out.resize(at + 2 * size);
  char16_t* digit = out.data() + at;
  for (size_t i = size; i-- > 0;) {
    *digit++ = kDigits[data[i] >> 4];
    *digit++ = kDigits[data[i] & 0xF];
  }
}

std::u16string valueDigits(const uint8_t* data, size_t size) {
  std::u16string out;
  appendValueDigits(out, data, size);
  return out;
}

std::u16string blockName(uint64_t offset, uint64_t width) {
  return u"&OFFSET=" + number(offset) + u"&WIDTH=" + number(width);
}

void appendBlockConfig(std::u16string& out, uint64_t offset, const uint8_t* data, size_t width) {
  out += blockName(offset, width);
  out += u"&VALUE=";
  appendValueDigits(out, data, width);
}

std::u16string blockConfig(uint64_t offset, const uint8_t* data, size_t width) {
  std::u16string out;
  appendBlockConfig(out, offset, data, width);
  return out;
}

EFI_STATUS parseConfigHeader(std::u16string_view text, size_t start, ConfigHeader& out, ConfigError* error) {
  Scanner s(text, start, error);
  return header(s, out);
}

EFI_STATUS parseConfigString(std::u16string_view text, ConfigKind kind, ConfigString& out, ConfigError* error) {
  Scanner s(text, 0, error);
  ConfigString parsed;
  RETURN_IF_ERROR(header(s, parsed.header));
  while (!s.atEnd()) {
    ConfigBlock b;
    RETURN_IF_ERROR(block(s, kind, b));
    parsed.blocks.push_back(std::move(b));
  }
  out = std::move(parsed);
  return EFI_SUCCESS;
}

std::u16string toUtf16(std::string_view ascii) {
  std::u16string out;
  for (unsigned char c : ascii) out.push_back(char16_t(c));
  return out;
}

std::string toAscii(std::u16string_view text) {
  std::string out;
  for (char16_t c : text) out.push_back(c < 0x80 ? char(c) : '?');
  return out;
}

}  // namespace tvl::host::hii
