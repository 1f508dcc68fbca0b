// Device paths as bytes: a builder for the node types the sample devices
// use (ACPI PCI root, PCI, MAC, SATA, NVMe, vendor-defined hardware and any
// raw node), and a bounds-checked size walk.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "uefi/protocols.h"

namespace tvl::host::hii {

constexpr size_t kDevicePathNodeHeader = 4;
// A device path longer than this is treated as malformed by the walkers.
constexpr size_t kMaxDevicePathSize = 64 * 1024;

class DevicePathBuilder {
 public:
  // ACPI node of the PCI root bridge (HID PNP0A03) with `uid`.
  DevicePathBuilder& pciRoot(uint32_t uid = 0);
  // ACPI node of a PCI Express root bridge (HID PNP0A08) with `uid`.
  DevicePathBuilder& pcieRoot(uint32_t uid = 0);
  DevicePathBuilder& acpi(uint32_t hid, uint32_t uid);
  DevicePathBuilder& pci(uint8_t device, uint8_t function);
  // MAC address node; IfType 1 (Ethernet) uses the first 6 address bytes.
  DevicePathBuilder& mac(const std::array<uint8_t, 6>& address, uint8_t ifType = 1);
  DevicePathBuilder& sata(uint16_t hbaPort, uint16_t portMultiplierPort, uint16_t lun);
  DevicePathBuilder& nvme(uint32_t namespaceId, uint64_t eui64);
  // Vendor-defined hardware node with optional vendor data.
  DevicePathBuilder& vendorHardware(const EFI_GUID& vendor, const std::vector<uint8_t>& data = {});
  // Any node: header with the length computed, then `data`.
  DevicePathBuilder& node(uint8_t type, uint8_t subType, const std::vector<uint8_t>& data);
  // The nodes followed by the end-of-entire-path node.
  std::vector<uint8_t> build() const;

 private:
  std::vector<uint8_t> bytes_;
};

// EISA id of a PNP device, as ACPI device-path nodes carry it.
constexpr uint32_t eisaPnpId(uint16_t pnp) { return (uint32_t(pnp) << 16) | 0x41D0u; }

// Bytes of the device path at `path`, end node included, reading at most
// `available` bytes (and never more than kMaxDevicePathSize). 0 when a node
// is shorter than its header, runs past the limit, or no end node comes.
size_t devicePathSize(const void* path, size_t available = kMaxDevicePathSize);

}  // namespace tvl::host::hii
