#include "host/ifr/ifr_dump.h"

#include <cstdio>

namespace tvl::host::ifr {

namespace {

constexpr const char* kNames[] = {
    nullptr,           "FORM",           "SUBTITLE",       "TEXT",          "IMAGE",          "ONE_OF",
    "CHECKBOX",        "NUMERIC",        "PASSWORD",       "ONE_OF_OPTION", "SUPPRESS_IF",    "LOCKED",
    "ACTION",          "RESET_BUTTON",   "FORM_SET",       "REF",           "NO_SUBMIT_IF",   "INCONSISTENT_IF",
    "EQ_ID_VAL",       "EQ_ID_ID",       "EQ_ID_VAL_LIST", "AND",           "OR",             "NOT",
    "RULE",            "GRAY_OUT_IF",    "DATE",           "TIME",          "STRING",         "REFRESH",
    "DISABLE_IF",      "ANIMATION",      "TO_LOWER",       "TO_UPPER",      "MAP",            "ORDERED_LIST",
    "VARSTORE",        "VARSTORE_NAME_VALUE", "VARSTORE_EFI", "VARSTORE_DEVICE", "VERSION",    "END",
    "MATCH",           "GET",            "SET",            "READ",          "WRITE",          "EQUAL",
    "NOT_EQUAL",       "GREATER_THAN",   "GREATER_EQUAL",  "LESS_THAN",     "LESS_EQUAL",     "BITWISE_AND",
    "BITWISE_OR",      "BITWISE_NOT",    "SHIFT_LEFT",     "SHIFT_RIGHT",   "ADD",            "SUBTRACT",
    "MULTIPLY",        "DIVIDE",         "MODULO",         "RULE_REF",      "QUESTION_REF1",  "QUESTION_REF2",
    "UINT8",           "UINT16",         "UINT32",         "UINT64",        "TRUE",           "FALSE",
    "TO_UINT",         "TO_STRING",      "TO_BOOLEAN",     "MID",           "FIND",           "TOKEN",
    "STRING_REF1",     "STRING_REF2",    "CONDITIONAL",    "QUESTION_REF3", "ZERO",           "ONE",
    "ONES",            "UNDEFINED",      "LENGTH",         "DUP",           "THIS",           "SPAN",
    "VALUE",           "DEFAULT",        "DEFAULTSTORE",   "FORM_MAP",      "CATENATE",       "GUID",
    "SECURITY",        "MODAL_TAG",      "REFRESH_ID",     "WARNING_IF",    "MATCH2",
};
static_assert(sizeof(kNames) / sizeof(kNames[0]) == EFI_IFR_MATCH2_OP + 1, "one name per opcode");

std::string hex(UINT64 v) {
  char buf[24];
  std::snprintf(buf, sizeof buf, "0x%llx", (unsigned long long)v);
  return buf;
}
std::string offsetText(size_t v) {
  char buf[24];
  std::snprintf(buf, sizeof buf, "%04zx", v);
  return buf;
}

// Bounds-checked reader over one opcode's fields. A read past the end
// sets `short_` and yields zero; the caller reports it once.
class Cursor {
 public:
  Cursor(const UINT8* data, size_t size) : data_(data), size_(size) {}
  bool has(size_t n) const { return !short_ && size_ - pos_ >= n; }
  size_t left() const { return short_ ? 0 : size_ - pos_; }
  bool isShort() const { return short_; }
  UINT64 num(unsigned bytes) {
    if (!has(bytes)) {
      short_ = true;
      return 0;
    }
    UINT64 v = 0;
    for (unsigned i = 0; i < bytes; ++i) v |= UINT64(data_[pos_ + i]) << (8 * i);
    pos_ += bytes;
    return v;
  }
  UINT8 u8() { return UINT8(num(1)); }
  UINT16 u16() { return UINT16(num(2)); }
  UINT32 u32() { return UINT32(num(4)); }
  UINT64 u64() { return num(8); }
  EFI_GUID guid() {
    EFI_GUID g{};
    g.Data1 = u32();
    g.Data2 = u16();
    g.Data3 = u16();
    for (UINT8& b : g.Data4) b = u8();
    return g;
  }
  // ASCII up to a NUL inside the fields; a missing NUL is an error.
  std::string cstr() {
    std::string s;
    while (has(1)) {
      UINT8 c = data_[pos_++];
      if (c == 0) return s;
      s.push_back(char(c));
    }
    short_ = true;
    return s;
  }
  std::string restHex() {
    std::string s;
    while (has(1)) {
      char buf[4];
      std::snprintf(buf, sizeof buf, "%02x", data_[pos_++]);
      s += buf;
    }
    return s;
  }

 private:
  const UINT8* data_;
  size_t size_;
  size_t pos_ = 0;
  bool short_ = false;
};

std::string questionHeader(Cursor& c) {
  std::string s = "prompt=" + std::to_string(c.u16());
  s += " help=" + std::to_string(c.u16());
  s += " qid=" + std::to_string(c.u16());
  s += " varstore=" + std::to_string(c.u16());
  s += " info=" + hex(c.u16());
  s += " qflags=" + hex(c.u8());
  return s;
}

std::string minMaxStep(Cursor& c, UINT8 flags) {
  unsigned bytes = 1u << (flags & EFI_IFR_NUMERIC_SIZE);
  std::string s = " flags=" + hex(flags);
  s += " min=" + std::to_string(c.num(bytes));
  s += " max=" + std::to_string(c.num(bytes));
  s += " step=" + std::to_string(c.num(bytes));
  return s;
}

// A typed constant (options, defaults): numbers decimal, booleans,
// string ids, anything else as the hexadecimal bytes left.
std::string typedValue(Cursor& c, UINT8 type) {
  std::string s = " type=" + std::to_string(type);
  if (type <= EFI_IFR_TYPE_NUM_SIZE_64) return s + " value=" + std::to_string(c.num(1u << type));
  if (type == EFI_IFR_TYPE_BOOLEAN) return s + " value=" + (c.u8() ? "true" : "false");
  if (type == EFI_IFR_TYPE_STRING) return s + " string=" + std::to_string(c.u16());
  if (c.left() == 0) return s;
  return s + " bytes=" + c.restHex();
}

const EFI_GUID kTianoGuid = EFI_IFR_TIANO_GUID;

// The key fields of one opcode (everything after its header).
std::string fields(UINT8 opcode, Cursor& c) {
  switch (opcode) {
    case EFI_IFR_FORM_SET_OP: {
      std::string s = "guid=" + guidText(c.guid());
      s += " title=" + std::to_string(c.u16());
      s += " help=" + std::to_string(c.u16());
      UINT8 flags = c.u8();
      s += " flags=" + hex(flags);
      for (unsigned i = 0; i < (flags & 3u); ++i) s += " class=" + guidText(c.guid());
      return s;
    }
    case EFI_IFR_FORM_OP: {
      std::string s = "id=" + std::to_string(c.u16());
      return s + " title=" + std::to_string(c.u16());
    }
    case EFI_IFR_SUBTITLE_OP: {
      std::string s = "prompt=" + std::to_string(c.u16());
      s += " help=" + std::to_string(c.u16());
      return s + " flags=" + hex(c.u8());
    }
    case EFI_IFR_TEXT_OP: {
      std::string s = "prompt=" + std::to_string(c.u16());
      s += " help=" + std::to_string(c.u16());
      return s + " text2=" + std::to_string(c.u16());
    }
    case EFI_IFR_IMAGE_OP:
      return "image=" + std::to_string(c.u16());
    case EFI_IFR_ONE_OF_OP:
    case EFI_IFR_NUMERIC_OP: {
      std::string s = questionHeader(c);
      return s + minMaxStep(c, c.u8());
    }
    case EFI_IFR_CHECKBOX_OP: {
      std::string s = questionHeader(c);
      return s + " flags=" + hex(c.u8());
    }
    case EFI_IFR_PASSWORD_OP: {
      std::string s = questionHeader(c);
      s += " minsize=" + std::to_string(c.u16());
      return s + " maxsize=" + std::to_string(c.u16());
    }
    case EFI_IFR_STRING_OP: {
      std::string s = questionHeader(c);
      s += " minsize=" + std::to_string(c.u8());
      s += " maxsize=" + std::to_string(c.u8());
      return s + " flags=" + hex(c.u8());
    }
    case EFI_IFR_ORDERED_LIST_OP: {
      std::string s = questionHeader(c);
      s += " maxcontainers=" + std::to_string(c.u8());
      return s + " flags=" + hex(c.u8());
    }
    case EFI_IFR_ACTION_OP: {
      std::string s = questionHeader(c);
      if (c.left() >= 2) s += " config=" + std::to_string(c.u16());
      return s;
    }
    case EFI_IFR_REF_OP: {
      std::string s = questionHeader(c);
      if (c.left() == 0) return s;  // REF5
      s += " form=" + std::to_string(c.u16());
      if (c.left() == 0) return s;  // REF
      s += " question=" + std::to_string(c.u16());
      if (c.left() == 0) return s;  // REF2
      s += " formset=" + guidText(c.guid());
      if (c.left() == 0) return s;  // REF3
      return s + " devicepath=" + std::to_string(c.u16());
    }
    case EFI_IFR_ONE_OF_OPTION_OP: {
      std::string s = "text=" + std::to_string(c.u16());
      s += " flags=" + hex(c.u8());
      return s + typedValue(c, c.u8());
    }
    case EFI_IFR_VARSTORE_OP: {
      std::string s = "guid=" + guidText(c.guid());
      s += " id=" + std::to_string(c.u16());
      s += " size=" + std::to_string(c.u16());
      return s + " name=" + c.cstr();
    }
    case EFI_IFR_VARSTORE_EFI_OP: {
      std::string s = "id=" + std::to_string(c.u16());
      s += " guid=" + guidText(c.guid());
      s += " attributes=" + hex(c.u32());
      s += " size=" + std::to_string(c.u16());
      return s + " name=" + c.cstr();
    }
    case EFI_IFR_VARSTORE_NAME_VALUE_OP: {
      std::string s = "id=" + std::to_string(c.u16());
      return s + " guid=" + guidText(c.guid());
    }
    case EFI_IFR_DEFAULTSTORE_OP: {
      std::string s = "name=" + std::to_string(c.u16());
      return s + " id=" + std::to_string(c.u16());
    }
    case EFI_IFR_DEFAULT_OP: {
      std::string s = "id=" + std::to_string(c.u16());
      UINT8 type = c.u8();
      if (c.left() == 0) return s + " type=" + std::to_string(type);
      return s + typedValue(c, type);
    }
    case EFI_IFR_EQ_ID_VAL_OP: {
      std::string s = "qid=" + std::to_string(c.u16());
      return s + " value=" + std::to_string(c.u16());
    }
    case EFI_IFR_EQ_ID_ID_OP: {
      std::string s = "qid1=" + std::to_string(c.u16());
      return s + " qid2=" + std::to_string(c.u16());
    }
    case EFI_IFR_EQ_ID_VAL_LIST_OP: {
      std::string s = "qid=" + std::to_string(c.u16());
      UINT16 n = c.u16();
      s += " count=" + std::to_string(n) + " values=";
      for (UINT16 i = 0; i < n && !c.isShort(); ++i) s += (i ? "," : "") + std::to_string(c.u16());
      return s;
    }
    case EFI_IFR_QUESTION_REF1_OP:
      return "qid=" + std::to_string(c.u16());
    case EFI_IFR_UINT8_OP:
      return "value=" + std::to_string(c.u8());
    case EFI_IFR_UINT16_OP:
      return "value=" + std::to_string(c.u16());
    case EFI_IFR_UINT32_OP:
      return "value=" + std::to_string(c.u32());
    case EFI_IFR_UINT64_OP:
      return "value=" + std::to_string(c.u64());
    case EFI_IFR_GUID_OP: {
      EFI_GUID g = c.guid();
      if (!c.isShort() && g == kTianoGuid && c.left() == 3) {
        UINT8 ext = c.u8();
        if (ext == EFI_IFR_EXTEND_OP_LABEL) return "label=" + std::to_string(c.u16());
        return "tiano ext=" + std::to_string(ext) + " bytes=" + c.restHex();
      }
      std::string s = "guid=" + guidText(g);
      if (c.left() > 0) s += " bytes=" + c.restHex();
      return s;
    }
    default:
      return c.left() ? "bytes=" + c.restHex() : "";
  }
}

// Appends the outline of the IFR at `data` (offsets printed as the offset
// in the IFR plus `shown`), indented by `indent` spaces. False with
// `error` set on malformed input.
bool outlineIfr(const UINT8* data, size_t size, size_t shown, unsigned indent, std::string& text,
                std::string& error) {
  std::vector<OpInfo> ops;
  bool ok = walkIfr(data, size, ops, &error);
  for (const OpInfo& op : ops) {
    Cursor c(data + op.offset + IFR_OP_HEADER_SIZE, op.length - IFR_OP_HEADER_SIZE);
    std::string f = fields(op.opcode, c);
    text += offsetText(op.offset + shown) + " " + std::string(indent + 2 * op.depth, ' ') + opcodeName(op.opcode);
    text += " len=" + std::to_string(op.length);
    if (op.scope) text += " scope";
    if (!f.empty()) text += " " + f;
    text += "\n";
    if (c.isShort()) {
      error = opcodeName(op.opcode) + " at offset " + offsetText(op.offset + shown) + ": length " +
              std::to_string(op.length) + " is shorter than its fields";
      return false;
    }
  }
  return ok;
}

std::string languageOf(const UINT8* p, size_t size) {
  // Header (4), HdrSize, StringInfoOffset, LanguageWindow[16], LanguageName,
  // then the NUL-terminated language.
  std::string lang;
  for (size_t i = HII_STRING_PACKAGE_FIXED_SIZE; i < size && p[i] != 0; ++i) lang.push_back(char(p[i]));
  return lang;
}

}  // namespace

std::string opcodeName(UINT8 opcode) {
  if (opcode != 0 && opcode < sizeof(kNames) / sizeof(kNames[0])) return kNames[opcode];
  char buf[8];
  std::snprintf(buf, sizeof buf, "OP_%02x", opcode);
  return buf;
}

std::string guidText(const EFI_GUID& g) {
  char buf[40];
  std::snprintf(buf, sizeof buf, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", g.Data1, g.Data2, g.Data3,
                g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
  return buf;
}

bool walkIfr(const UINT8* data, size_t size, std::vector<OpInfo>& ops, std::string* error) {
  auto fail = [&](size_t offset, const std::string& what) {
    if (error) *error = what + " at offset " + offsetText(offset);
    return false;
  };
  unsigned depth = 0;
  size_t pos = 0;
  while (pos < size) {
    if (size - pos < IFR_OP_HEADER_SIZE) return fail(pos, "truncated opcode header");
    OpInfo op;
    op.offset = pos;
    op.opcode = data[pos];
    op.length = ifrLength(data[pos + 1]);
    op.scope = ifrScope(data[pos + 1]);
    if (op.length < IFR_OP_HEADER_SIZE) return fail(pos, "opcode length " + std::to_string(op.length));
    if (op.length > size - pos) return fail(pos, opcodeName(op.opcode) + " runs past the end");
    if (op.opcode == EFI_IFR_END_OP) {
      if (depth == 0) return fail(pos, "END without an open scope");
      --depth;
    }
    op.depth = depth;
    ops.push_back(op);
    if (op.scope) ++depth;
    pos += op.length;
  }
  if (depth != 0) return fail(pos, std::to_string(depth) + " scope(s) left open");
  return true;
}

Outline dumpIfr(const UINT8* data, size_t size) {
  Outline o;
  outlineIfr(data, size, 0, 0, o.text, o.error);
  return o;
}

Outline dumpFormsPackage(const UINT8* data, size_t size) {
  Outline o;
  if (size < HII_PACKAGE_HEADER_SIZE) {
    o.error = "forms package shorter than its header";
    return o;
  }
  UINT32 length = hiiPackageLength(data);
  if (hiiPackageType(data) != EFI_HII_PACKAGE_FORMS) {
    o.error = "package type " + hex(hiiPackageType(data)) + " is not a forms package";
    return o;
  }
  if (length < HII_PACKAGE_HEADER_SIZE || length > size) {
    o.error = "forms package length " + std::to_string(length) + " does not fit " + std::to_string(size) + " bytes";
    return o;
  }
  o.text = "FORMS_PACKAGE len=" + std::to_string(length) + "\n";
  outlineIfr(data + HII_PACKAGE_HEADER_SIZE, length - HII_PACKAGE_HEADER_SIZE, HII_PACKAGE_HEADER_SIZE, 2, o.text,
             o.error);
  return o;
}

Outline dumpPackageList(const UINT8* data, size_t size) {
  Outline o;
  if (size < sizeof(EFI_HII_PACKAGE_LIST_HEADER)) {
    o.error = "package list shorter than its header";
    return o;
  }
  Cursor c(data, size);
  EFI_GUID guid = c.guid();
  UINT32 total = c.u32();
  o.text = "PACKAGE_LIST guid=" + guidText(guid) + " len=" + std::to_string(total) + "\n";
  if (total < sizeof(EFI_HII_PACKAGE_LIST_HEADER) || total > size) {
    o.error = "package list length " + std::to_string(total) + " does not fit " + std::to_string(size) + " bytes";
    return o;
  }
  size_t pos = sizeof(EFI_HII_PACKAGE_LIST_HEADER);
  while (pos < total) {
    if (total - pos < HII_PACKAGE_HEADER_SIZE) {
      o.error = "truncated package header at offset " + offsetText(pos);
      return o;
    }
    const UINT8* p = data + pos;
    UINT32 length = hiiPackageLength(p);
    UINT8 type = hiiPackageType(p);
    if (length < HII_PACKAGE_HEADER_SIZE || length > total - pos) {
      o.error = "package length " + std::to_string(length) + " at offset " + offsetText(pos) + " does not fit";
      return o;
    }
    o.text += offsetText(pos) + "   ";
    if (type == EFI_HII_PACKAGE_FORMS) {
      o.text += "FORMS len=" + std::to_string(length) + "\n";
      if (!outlineIfr(p + HII_PACKAGE_HEADER_SIZE, length - HII_PACKAGE_HEADER_SIZE, pos + HII_PACKAGE_HEADER_SIZE,
                      4, o.text, o.error))
        return o;
    } else if (type == EFI_HII_PACKAGE_STRINGS) {
      o.text += "STRINGS len=" + std::to_string(length) + " language=" + languageOf(p, length) + "\n";
    } else if (type == EFI_HII_PACKAGE_END) {
      o.text += "END len=" + std::to_string(length) + "\n";
      if (pos + length != total) {
        o.error = "END package at offset " + offsetText(pos) + " is not the last";
        return o;
      }
      return o;
    } else {
      o.text += "PACKAGE type=" + hex(type) + " len=" + std::to_string(length) + "\n";
    }
    pos += length;
  }
  o.error = "package list without an END package";
  return o;
}

}  // namespace tvl::host::ifr
