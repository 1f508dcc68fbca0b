#include "firmware/sample/config_access.h"

#include "uefi/runtime.h"

namespace tvl::sample {
namespace {

using rt::Pool;

constexpr CHAR16 kDigits[] = u"0123456789abcdef";
constexpr UINTN kGuidDigits = 2 * sizeof(EFI_GUID);
// A WIDTH larger than this is refused before anything is sized by it.
constexpr UINT64 kMaxWidth = 16u * 1024 * 1024;

int hexValue(CHAR16 c) {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}

// A span of hex digits in the configuration text, two to a byte, first
// digit high; the device path of PATH is read through it without a copy.
struct HexBytes {
  const CHAR16* digits;
  UINTN count;  // bytes
  UINT8 at(UINTN i) const { return UINT8(hexValue(digits[2 * i]) << 4 | hexValue(digits[2 * i + 1])); }
};

// Bytes of the well-formed device path in `path`: nodes of at least their
// 4-byte header, ending with the end-of-entire-path node; 0 otherwise.
UINTN devicePathSize(const HexBytes& path) {
  UINTN size = 0;
  for (;;) {
    if (path.count - size < 4) return 0;
    const UINTN length = UINTN(path.at(size + 2)) | (UINTN(path.at(size + 3)) << 8);
    if (length < 4 || length > path.count - size) return 0;
    const bool end = path.at(size) == END_DEVICE_PATH_TYPE && path.at(size + 1) == END_ENTIRE_DEVICE_PATH_SUBTYPE;
    size += length;
    if (end) return size;
  }
}

struct Header {
  EFI_GUID guid;
  const CHAR16* name;  // NAME digits, 4 per character
  UINTN nameLength;    // characters
  HexBytes path;
  UINTN end;  // just past the PATH digits
};

struct Block {
  UINTN begin;  // the '&' of OFFSET
  UINTN textEnd;  // just past the WIDTH digits
  UINT64 offset;
  UINT64 width;
  const CHAR16* value;  // VALUE digits (a response), null in a request
  UINTN valueDigits;
};

enum class Kind { Request, Response };

// Reads name/value pairs. A fault inside a pair's value puts Progress at
// that pair's '&' (the start of the string for GUID=); an unexpected pair
// puts it at the next pair's '&', or at the pair just read when the text
// ends or goes on with something else.
class Scanner {
 public:
  Scanner(const CHAR16* text, UINTN length, UINTN start) : t_(text), n_(length), pos_(start), pairStart_(start) {}

  UINTN pos() const { return pos_; }
  UINTN progress() const { return progress_; }
  bool atEnd() const { return pos_ >= n_; }
  bool atPairEnd() const { return atEnd() || t_[pos_] == u'&'; }

  bool pair(const CHAR16* name) {
    const UINTN length = rt::length(name);
    if (n_ - pos_ < length || rt::compareMem(t_ + pos_, name, length * sizeof(CHAR16)) != 0) return false;
    pairStart_ = pos_;
    pos_ += length;
    return true;
  }
  UINTN hexRun() const {
    UINTN n = 0;
    while (pos_ + n < n_ && hexValue(t_[pos_ + n]) >= 0) ++n;
    return n;
  }
  const CHAR16* here() const { return t_ + pos_; }
  void skip(UINTN n) { pos_ += n; }

  EFI_STATUS failValue() {
    progress_ = pairStart_;
    return EFI_INVALID_PARAMETER;
  }
  EFI_STATUS failPair() {
    progress_ = pos_ < n_ && t_[pos_] == u'&' ? pos_ : pairStart_;
    return EFI_INVALID_PARAMETER;
  }
  // A hexadecimal number of at most 64 bits.
  EFI_STATUS number(UINT64& value) {
    const UINTN n = hexRun();
    if (n == 0) return failValue();
    value = 0;
    for (UINTN i = 0; i < n; ++i) {
      if (value >> 60) return failValue();
      value = value << 4 | UINT64(hexValue(t_[pos_ + i]));
    }
    pos_ += n;
    return EFI_SUCCESS;
  }

 private:
  const CHAR16* t_;
  UINTN n_;
  UINTN pos_;
  UINTN pairStart_;
  UINTN progress_ = 0;
};

EFI_STATUS readHeader(Scanner& s, Header& h) {
  if (!s.pair(u"GUID=")) return s.failPair();
  if (s.hexRun() < kGuidDigits) return s.failValue();
  const HexBytes guid = {s.here(), sizeof(EFI_GUID)};
  auto* g = reinterpret_cast<UINT8*>(&h.guid);
  for (UINTN i = 0; i < sizeof(EFI_GUID); ++i) g[i] = guid.at(i);
  s.skip(kGuidDigits);
  if (!s.atPairEnd()) return s.failValue();

  if (!s.pair(u"&NAME=")) return s.failPair();
  const UINTN nameDigits = s.hexRun();
  if (nameDigits % 4 != 0) return s.failValue();
  h.name = s.here();
  h.nameLength = nameDigits / 4;
  s.skip(nameDigits);
  if (!s.atPairEnd()) return s.failValue();

  if (!s.pair(u"&PATH=")) return s.failPair();
  const UINTN pathDigits = s.hexRun();
  if (pathDigits == 0 || pathDigits % 2 != 0) return s.failValue();
  h.path = {s.here(), pathDigits / 2};
  s.skip(pathDigits);
  if (!s.atPairEnd()) return s.failValue();
  if (devicePathSize(h.path) != h.path.count) return s.failValue();
  h.end = s.pos();
  return EFI_SUCCESS;
}

EFI_STATUS readBlock(Scanner& s, Kind kind, Block& b) {
  b.begin = s.pos();
  b.value = nullptr;
  b.valueDigits = 0;
  if (!s.pair(u"&OFFSET=")) return s.failPair();
  RETURN_IF_ERROR(s.number(b.offset));
  if (!s.pair(u"&WIDTH=")) return s.failPair();
  RETURN_IF_ERROR(s.number(b.width));
  if (b.width == 0 || b.width > kMaxWidth) return s.failValue();
  b.textEnd = s.pos();
  if (s.pair(u"&VALUE=")) {
    if (kind == Kind::Request) return s.failValue();
    const UINTN digits = s.hexRun();
    if (digits == 0 || digits > 2 * b.width) return s.failValue();
    b.value = s.here();
    b.valueDigits = digits;
    s.skip(digits);
  } else if (kind == Kind::Response) {
    return s.failPair();
  }
  if (!s.atPairEnd()) return s.failValue();
  return EFI_SUCCESS;
}

// The blocks behind the header, each handed to `visit`; the first syntax
// error ends the walk with Progress set.
template <typename Visit>
EFI_STATUS forEachBlock(const CHAR16* text, UINTN length, const Header& h, Kind kind, UINTN& progress, Visit&& visit) {
  Scanner s(text, length, h.end);
  while (!s.atEnd()) {
    Block b;
    if (EFI_ERROR(readBlock(s, kind, b))) {
      progress = s.progress();
      return EFI_INVALID_PARAMETER;
    }
    RETURN_IF_ERROR(visit(b));
  }
  return EFI_SUCCESS;
}

// ---------------------------------------------------------------- output

// A UCS-2 text in one pool buffer that doubles as it fills; after a failed
// allocation it only remembers the failure.
class Out {
 public:
  void put(CHAR16 c) {
    if (!reserve(1)) return;
    buffer_[length_++] = c;
  }
  void put(const CHAR16* s, UINTN n) {
    if (!reserve(n)) return;
    rt::copyMem(buffer_.get() + length_, s, n * sizeof(CHAR16));
    length_ += n;
  }
  void put(const CHAR16* s) { put(s, rt::length(s)); }
  void hex(UINT64 value, UINTN digits) {
    for (UINTN i = digits; i-- > 0;) put(kDigits[(value >> (4 * i)) & 0xF]);
  }
  // At least four digits, more when the number needs them.
  void number(UINT64 value) {
    UINTN digits = 4;
    while (digits < 16 && (value >> (4 * digits)) != 0) ++digits;
    hex(value, digits);
  }
  // A field's bytes read as a little-endian number, most significant first.
  void valueDigits(const UINT8* bytes, UINTN size) {
    for (UINTN i = size; i-- > 0;) hex(bytes[i], 2);
  }
  void blockConfig(UINT64 offset, const UINT8* bytes, UINTN width) {
    put(u"&OFFSET=");
    number(offset);
    put(u"&WIDTH=");
    number(width);
    put(u"&VALUE=");
    valueDigits(bytes, width);
  }
  bool failed() const { return failed_; }
  UINTN length() const { return length_; }
  // The finished, terminated text (the buffer always has room for the
  // terminator and is zero-filled).
  CHAR16* release() { return buffer_.release(); }

 private:
  bool reserve(UINTN more) {
    if (failed_) return false;
    if (capacity_ - length_ > more) return true;
    UINTN capacity = capacity_ ? capacity_ : 256;
    while (capacity - length_ <= more) capacity *= 2;
    Pool<CHAR16> larger = Pool<CHAR16>::zeroed(capacity);
    if (!larger) {
      failed_ = true;
      return false;
    }
    rt::copyMem(larger.get(), buffer_.get(), length_ * sizeof(CHAR16));
    buffer_ = static_cast<Pool<CHAR16>&&>(larger);
    capacity_ = capacity;
    return true;
  }

  Pool<CHAR16> buffer_;
  UINTN length_ = 0;
  UINTN capacity_ = 0;
  bool failed_ = false;
};

// ---------------------------------------------------------------- stores

// A store's current bytes: the buffer, or the EFI variable read afresh.
struct Bytes {
  Pool<UINT8> owned;  // a variable's copy
  const UINT8* data = nullptr;
  UINTN size = 0;
};

EFI_STATUS readStore(const PublishedStore& store, Bytes& out) {
  if (!store.data->variable) {
    out.data = store.bytes;
    out.size = store.data->size;
    return EFI_SUCCESS;
  }
  EFI_GUID guid = store.data->guid;
  UINT32 attributes = 0;
  UINTN size = 0;
  EFI_STATUS status = rt::rts()->GetVariable(store.data->name, &guid, &attributes, &size, nullptr);
  if (status == EFI_SUCCESS) return EFI_SUCCESS;  // empty
  if (status != EFI_BUFFER_TOO_SMALL) return status;
  out.owned = Pool<UINT8>::bytes(size ? size : 1);
  if (!out.owned) return EFI_OUT_OF_RESOURCES;
  RETURN_IF_ERROR(rt::rts()->GetVariable(store.data->name, &guid, &attributes, &size, out.owned.get()));
  out.data = out.owned.get();
  out.size = size;
  return EFI_SUCCESS;
}

EFI_STATUS writeStore(PublishedStore& store, const UINT8* bytes, UINTN size) {
  if (!store.data->variable) {
    rt::copyMem(store.bytes, bytes, size);
    return EFI_SUCCESS;
  }
  EFI_GUID guid = store.data->guid;
  return rt::rts()->SetVariable(store.data->name, &guid, store.data->attributes, size, const_cast<UINT8*>(bytes));
}

bool nameMatches(const Header& h, const CHAR16* name) {
  if (h.nameLength != rt::length(name)) return false;
  for (UINTN i = 0; i < h.nameLength; ++i) {
    const HexBytes c = {h.name + 4 * i, 2};
    if (CHAR16(c.at(0) << 8 | c.at(1)) != name[i]) return false;
  }
  return true;
}

bool pathMatches(const Header& h, const SampleDevice* device) {
  if (h.path.count != device->pathSize) return false;
  for (UINTN i = 0; i < h.path.count; ++i)
    if (h.path.at(i) != device->path[i]) return false;
  return true;
}

// The store that a header names: parsed, then matched by PATH, GUID and
// NAME. EFI_NOT_FOUND (Progress at the start) for another device's or an
// unknown store.
EFI_STATUS route(PublishedDevice* device, const CHAR16* text, UINTN length, Header& h, PublishedStore*& store,
                 UINTN& progress) {
  Scanner s(text, length, 0);
  if (EFI_ERROR(readHeader(s, h))) {
    progress = s.progress();
    return EFI_INVALID_PARAMETER;
  }
  store = nullptr;
  if (pathMatches(h, device->data))
    for (UINTN i = 0; i < device->data->storeCount && !store; ++i)
      if (rt::compareMem(&device->data->stores[i].guid, &h.guid, sizeof h.guid) == 0 &&
          nameMatches(h, device->data->stores[i].name))
        store = &device->stores[i];
  if (!store) {
    progress = 0;
    return EFI_NOT_FOUND;
  }
  return EFI_SUCCESS;
}

// Every block of the text parsed, then every field checked against the
// store: a syntax error anywhere comes before a field out of range.
EFI_STATUS checkBlocks(const CHAR16* text, UINTN length, const Header& h, Kind kind, UINTN size, UINTN& progress) {
  RETURN_IF_ERROR(forEachBlock(text, length, h, kind, progress, [](const Block&) { return EFI_SUCCESS; }));
  return forEachBlock(text, length, h, kind, progress, [&](const Block& b) {
    if (b.offset > size || b.width > size - b.offset) {
      progress = b.begin;
      return EFI_INVALID_PARAMETER;
    }
    return EFI_SUCCESS;
  });
}

void ownHeader(Out& out, const PublishedDevice* device, const SampleStore& store) {
  out.put(u"GUID=");
  const auto* g = reinterpret_cast<const UINT8*>(&store.guid);
  for (UINTN i = 0; i < sizeof(EFI_GUID); ++i) out.hex(g[i], 2);
  out.put(u"&NAME=");
  for (const CHAR16* c = store.name; *c; ++c) out.hex(*c, 4);
  out.put(u"&PATH=");
  for (UINTN i = 0; i < device->data->pathSize; ++i) out.hex(device->data->path[i], 2);
}

// The whole store under a header (`header` of `headerLength` characters, or
// the device's own when null), followed by one section per default store.
void wholeStore(Out& out, const PublishedDevice* device, const PublishedStore& store, const Bytes& bytes,
                const CHAR16* header, UINTN headerLength) {
  auto putHeader = [&] {
    if (header)
      out.put(header, headerLength);
    else
      ownHeader(out, device, *store.data);
  };
  putHeader();
  out.blockConfig(0, bytes.data, bytes.size);
  for (UINTN d = 0; d < store.data->defaultsCount; ++d) {
    const SampleDefaults& defaults = store.data->defaults[d];
    out.put(u'&');
    putHeader();
    out.put(u"&ALTCFG=");
    const UINT8 id[2] = {UINT8(defaults.defaultId), UINT8(defaults.defaultId >> 8)};
    out.valueDigits(id, 2);
    for (UINTN f = 0; f < defaults.fieldCount; ++f) {
      const SampleField& field = defaults.fields[f];
      if (UINTN(field.offset) + field.size <= bytes.size) out.blockConfig(field.offset, field.bytes, field.size);
    }
  }
}

EFI_STATUS extractAll(PublishedDevice* device, Out& out) {
  if (device->data->storeCount == 0) return EFI_NOT_FOUND;
  for (UINTN i = 0; i < device->data->storeCount; ++i) {
    Bytes bytes;
    RETURN_IF_ERROR(readStore(device->stores[i], bytes));
    if (i) out.put(u'&');
    wholeStore(out, device, device->stores[i], bytes, nullptr, 0);
  }
  return EFI_SUCCESS;
}

EFI_STATUS extract(PublishedDevice* device, const CHAR16* text, UINTN length, Out& out, UINTN& progress) {
  Header h;
  PublishedStore* store = nullptr;
  RETURN_IF_ERROR(route(device, text, length, h, store, progress));
  Bytes bytes;
  RETURN_IF_ERROR(readStore(*store, bytes));
  if (h.end == length) {
    wholeStore(out, device, *store, bytes, text, length);
  } else {
    RETURN_IF_ERROR(checkBlocks(text, length, h, Kind::Request, bytes.size, progress));
    out.put(text, h.end);
    forEachBlock(text, length, h, Kind::Request, progress, [&](const Block& b) {
      out.put(text + b.begin, b.textEnd - b.begin);
      out.put(u"&VALUE=");
      out.valueDigits(bytes.data + b.offset, UINTN(b.width));
      return EFI_SUCCESS;
    });
  }
  progress = length;
  return EFI_SUCCESS;
}

// A VALUE's digits into the `width` bytes of a field, zero-extended.
void decodeValue(const Block& b, UINT8* field) {
  for (UINTN i = 0; i < b.width; ++i) {
    UINT8 byte = 0;
    for (UINTN half = 0; half < 2; ++half) {
      const UINTN fromEnd = 2 * i + half;  // 0: the last digit
      if (fromEnd < b.valueDigits) byte |= UINT8(hexValue(b.value[b.valueDigits - 1 - fromEnd]) << (4 * half));
    }
    field[i] = byte;
  }
}

// A store whose driver keeps bytes of its own in the higher bytes of its
// fields refuses a block wider than one byte whose value is all zeros:
// EFI_INVALID_PARAMETER with Progress at that block, nothing written.
EFI_STATUS refuseWideZero(const CHAR16* text, UINTN length, const Header& h, UINTN& progress) {
  UINTN refusedAt = length;
  forEachBlock(text, length, h, Kind::Response, progress, [&](const Block& b) {
    if (b.width <= 1 || refusedAt != length) return EFI_SUCCESS;
    // The digits that make the field's bytes: the last 2 * WIDTH.
    const UINTN used = b.valueDigits < 2 * b.width ? b.valueDigits : UINTN(2 * b.width);
    bool zero = true;
    for (UINTN i = b.valueDigits - used; i < b.valueDigits && zero; ++i) zero = hexValue(b.value[i]) == 0;
    if (zero) refusedAt = b.begin;
    return EFI_SUCCESS;
  });
  if (refusedAt == length) return EFI_SUCCESS;
  progress = refusedAt;
  return EFI_INVALID_PARAMETER;
}

EFI_STATUS routeConfig(PublishedDevice* device, const CHAR16* text, UINTN length, UINTN& progress) {
  Header h;
  PublishedStore* store = nullptr;
  RETURN_IF_ERROR(route(device, text, length, h, store, progress));
  Bytes bytes;
  RETURN_IF_ERROR(readStore(*store, bytes));
  RETURN_IF_ERROR(checkBlocks(text, length, h, Kind::Response, bytes.size, progress));
  if (store->data->refusesWideZero) RETURN_IF_ERROR(refuseWideZero(text, length, h, progress));
  Pool<UINT8> updated = Pool<UINT8>::bytes(bytes.size ? bytes.size : 1);
  if (!updated) return EFI_OUT_OF_RESOURCES;
  rt::copyMem(updated.get(), bytes.data, bytes.size);
  forEachBlock(text, length, h, Kind::Response, progress, [&](const Block& b) {
    decodeValue(b, updated.get() + b.offset);
    return EFI_SUCCESS;
  });
  RETURN_IF_ERROR(writeStore(*store, updated.get(), bytes.size));
  progress = length;
  return EFI_SUCCESS;
}

PublishedDevice* deviceOf(const EFI_HII_CONFIG_ACCESS_PROTOCOL* This) {
  auto* device = reinterpret_cast<PublishedDevice*>(const_cast<EFI_HII_CONFIG_ACCESS_PROTOCOL*>(This));
  return device && device->signature == kPublishedDeviceSignature ? device : nullptr;
}

}  // namespace

EFI_STATUS EFIAPI SampleExtractConfig(const EFI_HII_CONFIG_ACCESS_PROTOCOL* This, const CHAR16* Request,
                                      EFI_STRING* Progress, EFI_STRING* Results) {
  PublishedDevice* device = deviceOf(This);
  if (!device || !Progress || !Results) return EFI_INVALID_PARAMETER;
  Out out;
  EFI_STATUS status;
  if (!Request) {
    *Progress = nullptr;
    status = extractAll(device, out);
  } else {
    const UINTN length = rt::length(Request);
    UINTN progress = 0;
    status = extract(device, Request, length, out, progress);
    *Progress = const_cast<EFI_STRING>(Request + progress);
  }
  if (EFI_ERROR(status)) return status;
  out.put(u"", 0);  // an empty answer still gets its buffer
  if (out.failed()) return EFI_OUT_OF_RESOURCES;
  *Results = out.release();
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SampleRouteConfig(const EFI_HII_CONFIG_ACCESS_PROTOCOL* This, const CHAR16* Configuration,
                                    EFI_STRING* Progress) {
  PublishedDevice* device = deviceOf(This);
  if (!device || !Configuration || !Progress) return EFI_INVALID_PARAMETER;
  UINTN progress = 0;
  EFI_STATUS status = routeConfig(device, Configuration, rt::length(Configuration), progress);
  *Progress = const_cast<EFI_STRING>(Configuration + progress);
  return status;
}

EFI_STATUS EFIAPI SampleCallback(const EFI_HII_CONFIG_ACCESS_PROTOCOL*, EFI_BROWSER_ACTION, EFI_QUESTION_ID, UINT8,
                                 EFI_IFR_TYPE_VALUE_RAW*, EFI_BROWSER_ACTION_REQUEST*) {
  return EFI_UNSUPPORTED;
}

}  // namespace tvl::sample
