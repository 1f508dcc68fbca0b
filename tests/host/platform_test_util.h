// Shared bits of the platform tests.
#pragma once

#include <cstring>
#include <vector>

#include "tests/support/fixture.h"

namespace tvl::test {

inline EFI_GUID testGuid(uint8_t n) {
  return EFI_GUID{0x7e57a11d, 0x1234, 0x5678, {0x9a, 0xbc, 0xde, 0xf0, 0x00, 0x00, 0x00, n}};
}

// A device path made of hardware vendor-less PCI nodes (function, device)
// and the end node.
inline std::vector<uint8_t> pciPath(std::initializer_list<uint8_t> devices) {
  std::vector<uint8_t> path;
  for (uint8_t d : devices) {
    const uint8_t node[] = {HARDWARE_DEVICE_PATH, HW_PCI_DP, 6, 0, 0, d};
    path.insert(path.end(), node, node + sizeof node);
  }
  const uint8_t end[] = {END_DEVICE_PATH_TYPE, END_ENTIRE_DEVICE_PATH_SUBTYPE, 4, 0};
  path.insert(path.end(), end, end + sizeof end);
  return path;
}

inline bool inDatabase(host::Platform& platform, EFI_HANDLE h) {
  for (EFI_HANDLE x : platform.allHandles())
    if (x == h) return true;
  return false;
}

}  // namespace tvl::test
