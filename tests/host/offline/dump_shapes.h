// Package lists in the shapes that real firmware exports, built with the
// IFR builder (or opcode by opcode where a generator other than a VFR
// compiler made them), for the tests of the offline platform and of the
// command line:
//   - a platform-configuration list: en-US and x-UEFI strings, a buffer and
//     an EFI variable store, defaults of every kind, its device path;
//   - a list whose keyword strings are in "x-UEFI-ns" (a network driver's);
//   - a list with two forms packages, one form set each (a driver-health
//     manager's);
//   - lists that share one package-list GUID and hold the same forms, the
//     first with a device path and the others without (a file explorer
//     linked into several drivers);
//   - a list that a run-time generator builds: forms first, then strings
//     tagged "en-us" in lower case, a name/value store, two class GUIDs,
//     string questions without scope (a network boot ROM's per-NIC forms);
//   - lists without forms: fonts and images.
#pragma once

#include <string>
#include <vector>

#include "uefi/ifr.h"

namespace tvl::test::shapes {

using Bytes = std::vector<UINT8>;

// The platform-configuration list's stores and its questions' offsets.
inline constexpr EFI_GUID kPlatformGuid = {
    0x7235c51c, 0x0c80, 0x4cab, {0x87, 0xac, 0x3b, 0x08, 0x4a, 0x63, 0x04, 0xb1}};
inline constexpr EFI_GUID kPlatformStoreGuid = {
    0xd9bc7de0, 0x1f27, 0x4d3c, {0x9a, 0x21, 0x5c, 0x3e, 0x70, 0x11, 0x9b, 0x42}};
inline constexpr EFI_GUID kPlatformVariableGuid = {
    0x1e0c7a55, 0x3f6b, 0x4b18, {0x8d, 0x44, 0xa2, 0x9e, 0x0f, 0x61, 0x25, 0x7c}};
inline const char16_t kPlatformStore[] = u"MainFormState";    // buffer, 16 bytes
inline const char16_t kPlatformVariable[] = u"PlatformFlags";  // EFI variable, 4 bytes
constexpr UINT16 kPlatformStoreSize = 16;
constexpr UINT16 kPlatformVariableSize = 4;

Bytes platformConfigList();
Bytes keywordNamespaceList();
Bytes twoFormSetsList();
// The `n`-th (1, 2, 3) of the lists that share kSharedGuid.
inline constexpr EFI_GUID kSharedGuid = {0xfe561596, 0xe6bf, 0x41a6, {0x83, 0x76, 0xc7, 0x2b, 0x71, 0x98, 0x74, 0xd0}};
Bytes sharedGuidList(int n);
Bytes lowerCaseList();
Bytes fontList();
Bytes imageList();

// A file as a real machine's ExportPackageLists writes it, lists back to
// back, with what each list is and whether an export of it succeeds.
struct DumpedList {
  std::string what;
  bool hasForms;
  bool exports;  // false: HiiToNode answers EFI_NOT_FOUND (no exact "en-US")
};
struct DumpFile {
  Bytes bytes;
  std::vector<DumpedList> lists;
};
DumpFile firmwareDump();

}  // namespace tvl::test::shapes
