#include "host/hii/device_path.h"

#include <stdexcept>

#include "host/hii/byte_reader.h"

namespace tvl::host::hii {
namespace {

constexpr size_t kMacAddressBytes = 32;

std::vector<uint8_t> le(uint64_t value, size_t bytes) {
  std::vector<uint8_t> out(bytes);
  for (size_t i = 0; i < bytes; ++i) out[i] = uint8_t(value >> (8 * i));
  return out;
}

}  // namespace

DevicePathBuilder& DevicePathBuilder::node(uint8_t type, uint8_t subType, const std::vector<uint8_t>& data) {
  const size_t length = kDevicePathNodeHeader + data.size();
  if (length > 0xFFFF) throw std::length_error("device path node longer than 16 bits");
  bytes_.push_back(type);
  bytes_.push_back(subType);
  bytes_.push_back(uint8_t(length));
  bytes_.push_back(uint8_t(length >> 8));
  bytes_.insert(bytes_.end(), data.begin(), data.end());
  return *this;
}

DevicePathBuilder& DevicePathBuilder::acpi(uint32_t hid, uint32_t uid) {
  std::vector<uint8_t> data = le(hid, 4);
  auto u = le(uid, 4);
  data.insert(data.end(), u.begin(), u.end());
  return node(ACPI_DEVICE_PATH, ACPI_DP, data);
}

DevicePathBuilder& DevicePathBuilder::pciRoot(uint32_t uid) { return acpi(eisaPnpId(0x0A03), uid); }

DevicePathBuilder& DevicePathBuilder::pcieRoot(uint32_t uid) { return acpi(eisaPnpId(0x0A08), uid); }

DevicePathBuilder& DevicePathBuilder::pci(uint8_t device, uint8_t function) {
  // PCI_DEVICE_PATH: Function first, then Device.
  return node(HARDWARE_DEVICE_PATH, HW_PCI_DP, {function, device});
}

DevicePathBuilder& DevicePathBuilder::mac(const std::array<uint8_t, 6>& address, uint8_t ifType) {
  std::vector<uint8_t> data(kMacAddressBytes + 1, 0);
  for (size_t i = 0; i < address.size(); ++i) data[i] = address[i];
  data[kMacAddressBytes] = ifType;
  return node(MESSAGING_DEVICE_PATH, MSG_MAC_ADDR_DP, data);
}

DevicePathBuilder& DevicePathBuilder::sata(uint16_t hbaPort, uint16_t portMultiplierPort, uint16_t lun) {
  std::vector<uint8_t> data = le(hbaPort, 2);
  for (uint16_t v : {portMultiplierPort, lun}) {
    auto b = le(v, 2);
    data.insert(data.end(), b.begin(), b.end());
  }
  return node(MESSAGING_DEVICE_PATH, MSG_SATA_DP, data);
}

DevicePathBuilder& DevicePathBuilder::nvme(uint32_t namespaceId, uint64_t eui64) {
  std::vector<uint8_t> data = le(namespaceId, 4);
  auto e = le(eui64, 8);
  data.insert(data.end(), e.begin(), e.end());
  return node(MESSAGING_DEVICE_PATH, MSG_NVME_NAMESPACE_DP, data);
}

DevicePathBuilder& DevicePathBuilder::vendorHardware(const EFI_GUID& vendor, const std::vector<uint8_t>& data) {
  ByteWriter w;
  w.guid(vendor);
  w.raw(data);
  return node(HARDWARE_DEVICE_PATH, HW_VENDOR_DP, w.bytes());
}

std::vector<uint8_t> DevicePathBuilder::build() const {
  std::vector<uint8_t> out = bytes_;
  out.insert(out.end(), {END_DEVICE_PATH_TYPE, END_ENTIRE_DEVICE_PATH_SUBTYPE, 4, 0});
  return out;
}

size_t devicePathSize(const void* path, size_t available) {
  if (!path) return 0;
  if (available > kMaxDevicePathSize) available = kMaxDevicePathSize;
  ByteReader r(static_cast<const uint8_t*>(path), available);
  for (;;) {
    const size_t at = r.position();
    uint8_t type = 0, subType = 0;
    uint16_t length = 0;
    if (!r.u8(type) || !r.u8(subType) || !r.u16(length)) return 0;
    if (length < kDevicePathNodeHeader) return 0;
    if (!r.skip(length - kDevicePathNodeHeader)) return 0;
    if (type == END_DEVICE_PATH_TYPE && subType == END_ENTIRE_DEVICE_PATH_SUBTYPE) return at + length;
  }
}

}  // namespace tvl::host::hii
