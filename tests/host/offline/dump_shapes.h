// Package lists in the shapes real firmware exports, for the tests of the
// offline platform and of the command line: platform configuration (buffer
// and EFI variable stores, defaults of every kind), keywords in "x-UEFI-ns",
// two forms packages in one list, lists sharing one GUID (the first with a
// device path), a run-time generator's list (forms before "en-us" strings, a
// name/value store, string questions without scope), fonts and images.
#pragma once

#include <string>
#include <vector>

#include "uefi/ifr.h"

namespace tvl::test::shapes {

using Bytes = std::vector<UINT8>;

inline constexpr EFI_GUID kPlatformGuid = {0x7235c51c, 0x0c80, 0x4cab, {0x87, 0xac, 0x3b, 0x08, 0x4a, 0x63, 0x04, 0xb1}};
inline constexpr EFI_GUID kPlatformStoreGuid = {0xd9bc7de0, 0x1f27, 0x4d3c, {0x9a, 0x21, 0x5c, 0x3e, 0x70, 0x11, 0x9b, 0x42}};
inline constexpr EFI_GUID kPlatformVariableGuid = {0x1e0c7a55, 0x3f6b, 0x4b18, {0x8d, 0x44, 0xa2, 0x9e, 0x0f, 0x61, 0x25, 0x7c}};
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

// A file as ExportPackageLists writes it, lists back to back, with what each
// list is and whether it exports (false: HiiToNode answers EFI_NOT_FOUND, no exact "en-US").
struct DumpedList { std::string what; bool hasForms; bool exports; };
struct DumpFile { Bytes bytes; std::vector<DumpedList> lists; };
DumpFile firmwareDump();

}  // namespace tvl::test::shapes
