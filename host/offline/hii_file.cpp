#include "host/offline/hii_file.h"

#include <cstdio>
#include <cstring>

#include "host/hii/device_path.h"
#include "host/hii/string_package.h"

namespace tvl::host::offline {
namespace {

std::string hex(UINT64 value, int digits) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%0*llx", digits, static_cast<unsigned long long>(value));
  return buf;
}

constexpr size_t kListHeader = sizeof(EFI_HII_PACKAGE_LIST_HEADER);
constexpr size_t kPackageHeader = 4;

UINT32 u32At(const UINT8* p) { return UINT32(p[0]) | UINT32(p[1]) << 8 | UINT32(p[2]) << 16 | UINT32(p[3]) << 24; }

bool knownType(UINT8 type) {
  return (type >= EFI_HII_PACKAGE_TYPE_GUID && type <= EFI_HII_PACKAGE_ANIMATIONS && type != 0x03) ||
         type == EFI_HII_PACKAGE_END || type >= 0xE0;
}

bool fail(FileFault& fault, size_t offset, const std::string& message) {
  fault.offset = offset;
  fault.message = message;
  return false;
}

// The packages of the list at `start` (`length` bytes, header validated).
bool scanPackages(const UINT8* data, size_t start, size_t length, FilePackageList& list, FileFault& fault) {
  const size_t end = start + length;
  for (size_t at = start + kListHeader; at < end;) {
    if (end - at < kPackageHeader)
      return fail(fault, at,
                  "package header cut short: " + std::to_string(end - at) + " byte(s) left in the package list");
    const UINT32 word = u32At(data + at);
    const size_t plen = word & 0xFFFFFF;
    const UINT8 type = UINT8(word >> 24);
    if (plen < kPackageHeader)
      return fail(fault, at, "package of type " + packageTypeName(type) + " has length " + std::to_string(plen) +
                                 ", shorter than its 4-byte header");
    if (plen > end - at)
      return fail(fault, at, "package of type " + packageTypeName(type) + " has length " + std::to_string(plen) +
                                 ", which runs past the end of its package list (" + std::to_string(end - at) +
                                 " byte(s) left)");
    if (!knownType(type)) return fail(fault, at, "package of unknown type " + hex(type, 2));
    if (type == EFI_HII_PACKAGE_END) {
      if (plen != kPackageHeader) return fail(fault, at, "END package has length " + std::to_string(plen) + ", not 4");
      if (at + plen != end)
        return fail(fault, at, "END package is followed by " + std::to_string(end - at - plen) +
                                   " more byte(s) of its package list");
      return true;
    }
    FilePackage package{type, at, plen, {}};
    if (type == EFI_HII_PACKAGE_STRINGS) {
      host::hii::StringPackage strings;
      host::hii::FormatError error;
      if (host::hii::parseStringPackage(data + at, plen, strings, &error) == EFI_SUCCESS)
        package.language = strings.language;
      else
        list.flaws.push_back({at + error.offset, "malformed string package: " + error.message});
    }
    if (type == EFI_HII_PACKAGE_DEVICE_PATH) {
      const UINT8* path = data + at + kPackageHeader;
      size_t size = host::hii::devicePathSize(path, plen - kPackageHeader);
      if (size == 0)
        list.flaws.push_back({at, "device-path package holds no well-formed device path"});
      else
        list.devicePath.assign(path, path + size);
    }
    if (type == EFI_HII_PACKAGE_FORMS) list.hasForms = true;
    list.packages.push_back(package);
    at += plen;
  }
  return fail(fault, start, "package list ends without an END package");
}

}  // namespace

std::string packageTypeName(UINT8 type) {
  switch (type) {
    case EFI_HII_PACKAGE_TYPE_GUID: return "GUID";
    case EFI_HII_PACKAGE_FORMS: return "FORMS";
    case EFI_HII_PACKAGE_STRINGS: return "STRINGS";
    case EFI_HII_PACKAGE_FONTS: return "FONTS";
    case EFI_HII_PACKAGE_IMAGES: return "IMAGES";
    case EFI_HII_PACKAGE_SIMPLE_FONTS: return "SIMPLE_FONTS";
    case EFI_HII_PACKAGE_DEVICE_PATH: return "DEVICE_PATH";
    case EFI_HII_PACKAGE_KEYBOARD_LAYOUT: return "KEYBOARD_LAYOUT";
    case EFI_HII_PACKAGE_ANIMATIONS: return "ANIMATIONS";
    case EFI_HII_PACKAGE_END: return "END";
    default: return hex(type, 2);
  }
}

bool scanPackageLists(const UINT8* data, size_t size, std::vector<FilePackageList>& lists, FileFault& fault) {
  lists.clear();
  if (size == 0) return fail(fault, 0, "the file is empty: it holds no package list");
  for (size_t at = 0; at < size;) {
    const size_t left = size - at;
    if (left < kListHeader)
      return fail(fault, at, "package-list header cut short: " + std::to_string(left) +
                                 " byte(s) left of its 20-byte header");
    FilePackageList list;
    list.offset = at;
    list.length = u32At(data + at + sizeof(EFI_GUID));
    std::memcpy(&list.guid, data + at, sizeof(EFI_GUID));
    if (list.length < kListHeader + kPackageHeader)
      return fail(fault, at, "package-list length " + std::to_string(list.length) +
                                 " is shorter than its 20-byte header and a 4-byte END package");
    if (list.length > left)
      return fail(fault, at, "package-list length " + std::to_string(list.length) +
                                 " runs past the end of the file (" + std::to_string(left) + " byte(s) left)");
    if (!scanPackages(data, at, list.length, list, fault)) return false;
    lists.push_back(std::move(list));
    at += lists.back().length;
  }
  return true;
}

}  // namespace tvl::host::offline
