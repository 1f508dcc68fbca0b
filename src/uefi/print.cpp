#include "uefi/print.h"

#include "uefi/status_table.h"

namespace tvl::rt {
namespace {

// Bounded output that always leaves room for the terminator and remembers
// whether anything had to be left out.
template <typename C>
class Sink {
 public:
  Sink(C* out, UINTN capacity) : out_(out), capacity_(capacity) {}
  void put(UINT32 c) {
    if (capacity_ != 0 && n_ + 1 < capacity_)
      out_[n_++] = static_cast<C>(c);
    else
      cut_ = true;
  }
  // Characters that still fit.
  UINTN room() const { return capacity_ != 0 ? capacity_ - 1 - n_ : 0; }
  bool cut() const { return cut_; }
  UINTN finish() {
    if (capacity_ != 0) out_[n_] = 0;
    return n_;
  }

 private:
  C* out_;
  UINTN capacity_;
  UINTN n_ = 0;
  bool cut_ = false;
};

struct Conversion {
  bool left = false;
  bool zero = false;
  bool plus = false;
  bool space = false;
  bool wide = false;
  UINTN width = 0;
  UINTN precision = ~UINTN(0);
};

template <typename C>
void pad(Sink<C>& sink, UINTN count, UINT32 c) {
  for (UINTN i = 0; i < count; ++i) sink.put(c);
}

// Emits `len` characters produced by `at(i)` with the width and alignment
// of `conv`.
template <typename C, typename At>
void emitText(Sink<C>& sink, const Conversion& conv, UINTN len, At at) {
  if (len > conv.precision) len = conv.precision;
  UINTN fill = conv.width > len ? conv.width - len : 0;
  if (!conv.left) pad(sink, fill, ' ');
  for (UINTN i = 0; i < len; ++i) sink.put(at(i));
  if (conv.left) pad(sink, fill, ' ');
}

template <typename C, typename T>
void emitString(Sink<C>& sink, const Conversion& conv, const T* s) {
  if (!s) {
    const CHAR8* null = "<null string>";
    emitText(sink, conv, 13, [&](UINTN i) { return UINT32(UINT8(null[i])); });
    return;
  }
  // The text is read no further than the output can take (one character
  // more tells that it was cut), or than its field width where that is
  // larger: a long text costs what fits, not its whole length.
  UINTN limit = sink.room() + 1;
  if (conv.width > limit) limit = conv.width;
  if (conv.precision < limit) limit = conv.precision;
  UINTN len = 0;
  while (len < limit && s[len]) ++len;
  emitText(sink, conv, len, [&](UINTN i) { return UINT32(s[i]) & (sizeof(T) == 1 ? 0xFFu : 0xFFFFu); });
}

template <typename C>
void emitNumber(Sink<C>& sink, const Conversion& conv, UINT64 value, bool negative, UINT32 base, bool upper) {
  CHAR8 digits[24];
  UINTN n = 0;
  const CHAR8* set = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  do {
    digits[n++] = set[value % base];
    value /= base;
  } while (value != 0);
  CHAR8 sign = negative ? '-' : conv.plus ? '+' : conv.space ? ' ' : 0;
  UINTN len = n + (sign ? 1 : 0);
  UINTN fill = conv.width > len ? conv.width - len : 0;
  if (!conv.left && !conv.zero) pad(sink, fill, ' ');
  if (sign) sink.put(UINT32(sign));
  if (!conv.left && conv.zero) pad(sink, fill, '0');
  while (n > 0) sink.put(UINT32(digits[--n]));
  if (conv.left) pad(sink, fill, ' ');
}

template <typename C>
void emitGuid(Sink<C>& sink, const EFI_GUID* g) {
  Conversion none;
  if (!g) {
    emitString(sink, none, "<null guid>");
    return;
  }
  Conversion hex;
  hex.zero = true;
  hex.width = 8;
  emitNumber(sink, hex, g->Data1, false, 16, false);
  sink.put('-');
  hex.width = 4;
  emitNumber(sink, hex, g->Data2, false, 16, false);
  sink.put('-');
  emitNumber(sink, hex, g->Data3, false, 16, false);
  sink.put('-');
  hex.width = 2;
  for (int i = 0; i < 8; ++i) {
    if (i == 2) sink.put('-');
    emitNumber(sink, hex, g->Data4[i], false, 16, false);
  }
}

template <typename C>
UINTN format(C* out, UINTN capacity, const C* fmt, VaList* args, bool* cut) {
  Sink<C> sink(out, capacity);
  struct Report {
    Sink<C>& sink;
    bool* cut;
    ~Report() {
      if (cut) *cut = sink.cut();
    }
  } report{sink, cut};
  if (!fmt) return sink.finish();
  for (const C* p = fmt; *p; ++p) {
    if (*p != '%') {
      sink.put(UINT32(*p));
      continue;
    }
    Conversion conv;
    ++p;
    for (;; ++p) {
      if (*p == '-') conv.left = true;
      else if (*p == '0') conv.zero = true;
      else if (*p == '+') conv.plus = true;
      else if (*p == ' ') conv.space = true;
      else if (*p == ',') {
      } else break;
    }
    if (*p == '*') {
      conv.width = vaArg<UINTN>(*args);
      ++p;
    }
    while (*p >= '0' && *p <= '9') conv.width = conv.width * 10 + UINTN(*p++ - '0');
    if (*p == '.') {
      ++p;
      conv.precision = 0;
      if (*p == '*') {
        conv.precision = vaArg<UINTN>(*args);
        ++p;
      }
      while (*p >= '0' && *p <= '9') conv.precision = conv.precision * 10 + UINTN(*p++ - '0');
    }
    while (*p == 'l' || *p == 'L') {
      conv.wide = true;
      ++p;
    }
    switch (*p) {
      case 0:
        return sink.finish();
      case '%':
        sink.put('%');
        break;
      case 'a':
        emitString(sink, conv, vaArg<const CHAR8*>(*args));
        break;
      case 's':
      case 'S':
        emitString(sink, conv, vaArg<const CHAR16*>(*args));
        break;
      case 'c': {
        UINT32 c = UINT32(vaArg<UINTN>(*args)) & 0xFFFF;
        emitText(sink, conv, 1, [&](UINTN) { return c; });
        break;
      }
      case 'd':
      case 'i': {
        INT64 v = conv.wide ? vaArg<INT64>(*args) : INT64(vaArg<INT32>(*args));
        bool negative = v < 0;
        UINT64 magnitude = negative ? UINT64(0) - UINT64(v) : UINT64(v);
        emitNumber(sink, conv, magnitude, negative, 10, false);
        break;
      }
      case 'u': {
        UINT64 v = conv.wide ? vaArg<UINT64>(*args) : UINT64(vaArg<UINT32>(*args));
        emitNumber(sink, conv, v, false, 10, false);
        break;
      }
      case 'x':
      case 'X': {
        UINT64 v = conv.wide ? vaArg<UINT64>(*args) : UINT64(vaArg<UINT32>(*args));
        emitNumber(sink, conv, v, false, 16, *p == 'X');
        break;
      }
      case 'p': {
        Conversion ptr = conv;
        ptr.zero = true;
        if (ptr.width == 0) ptr.width = 16;
        emitNumber(sink, ptr, UINT64(UINTN(vaArg<VOID*>(*args))), false, 16, false);
        break;
      }
      case 'r': {
        EFI_STATUS status = vaArg<EFI_STATUS>(*args);
        if (const CHAR8* text = statusText(status)) {
          emitString(sink, conv, text);
        } else {
          Conversion hex;
          emitString(sink, hex, "0x");
          emitNumber(sink, hex, status, false, 16, false);
        }
        break;
      }
      case 'g':
        emitGuid(sink, vaArg<const EFI_GUID*>(*args));
        break;
      default:
        // Unknown conversion: shown as written so that the fault is visible.
        sink.put('%');
        sink.put(UINT32(*p));
        break;
    }
  }
  return sink.finish();
}

}  // namespace

const CHAR8* statusText(EFI_STATUS status) {
  const StatusEntry* entry = findStatus(status);
  return entry ? entry->text : nullptr;
}

UINTN formatV(CHAR16* out, UINTN capacity, const CHAR16* format, VaList* args, bool* cut) {
  return tvl::rt::format(out, capacity, format, args, cut);
}

UINTN formatV(CHAR8* out, UINTN capacity, const CHAR8* format, VaList* args, bool* cut) {
  return tvl::rt::format(out, capacity, format, args, cut);
}

}  // namespace tvl::rt
