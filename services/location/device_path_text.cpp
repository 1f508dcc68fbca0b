#include "services/location/device_path_text.h"

namespace tvl::location {
namespace {

constexpr UINTN kNodeHeader = 4;
constexpr UINT8 kEndInstanceSubType = 0x01;
constexpr UINT32 kPnpPciRoot = 0x0A0341D0;   // EISA PNP0A03
constexpr UINT32 kPnpPcieRoot = 0x0A0841D0;  // EISA PNP0A08
constexpr UINT32 kEisaPnpMask = 0xFFFF;
constexpr UINT32 kEisaPnpTag = 0x41D0;

// Node lengths of the fixed-size nodes.
constexpr UINTN kPciLength = 6;
constexpr UINTN kAcpiLength = 12;
constexpr UINTN kMacLength = 37;
constexpr UINTN kMacAddressBytes = 32;
constexpr UINTN kEthernetAddressBytes = 6;
constexpr UINTN kSataLength = 10;
constexpr UINTN kNvmeLength = 16;
constexpr UINTN kVendorMinLength = kNodeHeader + 16;

// Bounded UCS-2 output that counts every character, written or not.
class TextSink {
 public:
  TextSink(CHAR16* out, UINTN capacity) : out_(out), capacity_(capacity) {}

  void put(CHAR16 c) {
    if (out_ && length_ + 1 < capacity_) out_[length_] = c;
    ++length_;
  }
  void text(const CHAR8* s) {
    for (; *s; ++s) put(CHAR16(*s));
  }
  // Upper-case hexadecimal with at least `digits` digits.
  void hex(UINT64 value, UINTN digits = 1) {
    UINTN n = 1;
    while (n < 16 && (value >> (4 * n)) != 0) ++n;
    if (n < digits) n = digits;
    for (UINTN i = n; i-- > 0;) put(CHAR16("0123456789ABCDEF"[(value >> (4 * i)) & 0xF]));
  }
  void hex0x(UINT64 value) {
    text("0x");
    hex(value);
  }
  void decimal(UINT64 value) {
    CHAR16 digits[20];
    UINTN n = 0;
    do {
      digits[n++] = CHAR16(u'0' + value % 10);
      value /= 10;
    } while (value != 0);
    while (n > 0) put(digits[--n]);
  }
  void bytes(const UINT8* p, UINTN n) {
    for (UINTN i = 0; i < n; ++i) hex(p[i], 2);
  }
  UINTN finish() {
    if (out_ && capacity_ != 0) out_[length_ < capacity_ ? length_ : capacity_ - 1] = 0;
    return length_;
  }

 private:
  CHAR16* out_;
  UINTN capacity_;
  UINTN length_ = 0;
};

// Little-endian fields of one node, read inside the node's own length.
class Node {
 public:
  Node(const UINT8* data, UINTN length) : data_(data), length_(length) {}
  UINT8 type() const { return data_[0]; }
  UINT8 subType() const { return data_[1]; }
  UINTN length() const { return length_; }
  const UINT8* payload() const { return data_ + kNodeHeader; }
  UINTN payloadLength() const { return length_ - kNodeHeader; }
  UINT64 field(UINTN offset, UINTN width) const {
    UINT64 v = 0;
    for (UINTN i = 0; i < width && offset + i < length_; ++i) v |= UINT64(data_[offset + i]) << (8 * i);
    return v;
  }

 private:
  const UINT8* data_;
  UINTN length_;
};

UINT64 littleEndian(const UINT8* p, UINTN width) {
  UINT64 v = 0;
  for (UINTN i = 0; i < width; ++i) v |= UINT64(p[i]) << (8 * i);
  return v;
}

// Registry format: Data1-Data2-Data3-Data4[0..1]-Data4[2..7].
void guid(TextSink& s, const UINT8* g) {
  s.hex(littleEndian(g, 4), 8);
  s.put(u'-');
  s.hex(littleEndian(g + 4, 2), 4);
  s.put(u'-');
  s.hex(littleEndian(g + 6, 2), 4);
  s.put(u'-');
  s.bytes(g + 8, 2);
  s.put(u'-');
  s.bytes(g + 10, 6);
}

void generic(TextSink& s, const Node& n) {
  s.text("Path(");
  s.decimal(n.type());
  s.put(u',');
  s.decimal(n.subType());
  if (n.payloadLength() != 0) {
    s.put(u',');
    s.bytes(n.payload(), n.payloadLength());
  }
  s.put(u')');
}

void pci(TextSink& s, const Node& n) {
  s.text("Pci(");
  s.hex0x(n.field(5, 1));
  s.put(u',');
  s.hex0x(n.field(4, 1));
  s.put(u')');
}

void acpi(TextSink& s, const Node& n) {
  const UINT32 hid = UINT32(n.field(4, 4));
  const UINT64 uid = n.field(8, 4);
  if (hid == kPnpPciRoot || hid == kPnpPcieRoot) {
    s.text(hid == kPnpPciRoot ? "PciRoot(" : "PcieRoot(");
  } else if ((hid & kEisaPnpMask) == kEisaPnpTag) {
    s.text("Acpi(PNP");
    s.hex(hid >> 16, 4);
    s.put(u',');
  } else {
    s.text("Acpi(");
    s.hex0x(hid);
    s.put(u',');
  }
  s.hex0x(uid);
  s.put(u')');
}

void mac(TextSink& s, const Node& n) {
  const UINT8 ifType = UINT8(n.field(kNodeHeader + kMacAddressBytes, 1));
  const UINTN bytes = (ifType == 0 || ifType == 1) ? kEthernetAddressBytes : kMacAddressBytes;
  s.text("MAC(");
  s.bytes(n.payload(), bytes);
  s.put(u',');
  s.hex0x(ifType);
  s.put(u')');
}

void sata(TextSink& s, const Node& n) {
  s.text("Sata(");
  s.hex0x(n.field(4, 2));
  s.put(u',');
  s.hex0x(n.field(6, 2));
  s.put(u',');
  s.hex0x(n.field(8, 2));
  s.put(u')');
}

void nvme(TextSink& s, const Node& n) {
  s.text("NVMe(");
  s.hex0x(n.field(4, 4));
  s.put(u',');
  for (UINTN i = 8; i-- > 0;) {
    s.hex(n.field(8 + i, 1), 2);
    if (i != 0) s.put(u'-');
  }
  s.put(u')');
}

void vendorHardware(TextSink& s, const Node& n) {
  s.text("VenHw(");
  guid(s, n.payload());
  if (n.length() > kVendorMinLength) {
    s.put(u',');
    s.bytes(n.payload() + 16, n.length() - kVendorMinLength);
  }
  s.put(u')');
}

struct NodeForm {
  UINT8 type;
  UINT8 subType;
  UINTN length;  // exact node length, or the minimum when `atLeast`
  bool atLeast;
  void (*write)(TextSink&, const Node&);
};

constexpr NodeForm kForms[] = {
    {HARDWARE_DEVICE_PATH, HW_PCI_DP, kPciLength, false, pci},
    {HARDWARE_DEVICE_PATH, HW_VENDOR_DP, kVendorMinLength, true, vendorHardware},
    {ACPI_DEVICE_PATH, ACPI_DP, kAcpiLength, false, acpi},
    {MESSAGING_DEVICE_PATH, MSG_MAC_ADDR_DP, kMacLength, false, mac},
    {MESSAGING_DEVICE_PATH, MSG_SATA_DP, kSataLength, false, sata},
    {MESSAGING_DEVICE_PATH, MSG_NVME_NAMESPACE_DP, kNvmeLength, false, nvme},
};

void node(TextSink& s, const Node& n) {
  for (const NodeForm& form : kForms) {
    if (form.type != n.type() || form.subType != n.subType()) continue;
    const bool fits = form.atLeast ? n.length() >= form.length : n.length() == form.length;
    if (fits) {
      form.write(s, n);
      return;
    }
    break;
  }
  generic(s, n);
}

UINTN nodeLength(const UINT8* p) { return UINTN(p[2]) | (UINTN(p[3]) << 8); }

}  // namespace

UINTN devicePathSize(const EFI_DEVICE_PATH_PROTOCOL* path) {
  if (!path) return 0;
  const auto* bytes = reinterpret_cast<const UINT8*>(path);
  UINTN offset = 0;
  for (;;) {
    if (kMaxDevicePathSize - offset < kNodeHeader) return 0;
    const UINT8* p = bytes + offset;
    const UINTN length = nodeLength(p);
    if (length < kNodeHeader || length > kMaxDevicePathSize - offset) return 0;
    offset += length;
    if (p[0] == END_DEVICE_PATH_TYPE && p[1] == END_ENTIRE_DEVICE_PATH_SUBTYPE) return offset;
  }
}

UINTN devicePathToText(const UINT8* path, UINTN size, CHAR16* out, UINTN capacity) {
  TextSink s(out, capacity);
  bool first = true;
  for (UINTN offset = 0; offset + kNodeHeader <= size;) {
    const Node n(path + offset, nodeLength(path + offset));
    if (n.length() < kNodeHeader || n.length() > size - offset) break;
    offset += n.length();
    if (n.type() == END_DEVICE_PATH_TYPE) {
      if (n.subType() == END_ENTIRE_DEVICE_PATH_SUBTYPE) break;
      if (n.subType() == kEndInstanceSubType) {
        s.put(u',');
        first = true;
        continue;
      }
    }
    if (!first) s.put(u'/');
    node(s, n);
    first = false;
  }
  return s.finish();
}

}  // namespace tvl::location
