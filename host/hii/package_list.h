// HII package lists as bytes: validation and splitting into packages, the
// export format (package lists back to back), and a builder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "uefi/protocols.h"

namespace tvl::host::hii {

// Where and why a byte layout was refused.
struct FormatError {
  size_t offset = 0;  // from the start of the input
  std::string message;
};

// One package inside a package list; `data` points at its header.
struct PackageView {
  uint8_t type = 0;
  const uint8_t* data = nullptr;
  size_t size = 0;    // header included
  size_t offset = 0;  // from the start of the package list
};

struct PackageListView {
  EFI_GUID guid{};
  size_t size = 0;                    // the list's PackageLength
  std::vector<PackageView> packages;  // in order, the END package left out
};

// Validates one package list that starts at `data` with `available` bytes
// readable: the header fits, PackageLength covers the header and an END
// package and does not exceed `available`, every package header fits, each
// package length is at least its header and stays inside the list, and the
// list ends with an END package of 4 bytes that closes it exactly.
// EFI_INVALID_PARAMETER when any rule fails.
EFI_STATUS parsePackageList(const uint8_t* data, size_t available, PackageListView& out,
                            FormatError* error = nullptr);

// Package lists placed back to back, as ExportPackageLists writes them.
EFI_STATUS parsePackageLists(const uint8_t* data, size_t size, std::vector<PackageListView>& out,
                             FormatError* error = nullptr);

// A package: 4-byte header (24-bit length, type) followed by `payload`.
std::vector<uint8_t> buildPackage(uint8_t type, const std::vector<uint8_t>& payload);

// A package list: header with `guid`, the packages in order, and the END
// package appended.
std::vector<uint8_t> buildPackageList(const EFI_GUID& guid, const std::vector<std::vector<uint8_t>>& packages);

}  // namespace tvl::host::hii
