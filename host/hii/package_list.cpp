#include "host/hii/package_list.h"

#include <stdexcept>

#include "host/hii/byte_reader.h"
#include "uefi/ifr.h"

namespace tvl::host::hii {
namespace {

EFI_STATUS refuse(FormatError* error, size_t offset, const char* message) {
  if (error) {
    error->offset = offset;
    error->message = message;
  }
  return EFI_INVALID_PARAMETER;
}

constexpr size_t kListHeaderSize = sizeof(EFI_HII_PACKAGE_LIST_HEADER);

}  // namespace

EFI_STATUS parsePackageList(const uint8_t* data, size_t available, PackageListView& out, FormatError* error) {
  if (!data) return refuse(error, 0, "no package list");
  ByteReader header(data, available);
  EFI_GUID guid;
  uint32_t length = 0;
  if (!header.guid(guid) || !header.u32(length)) return refuse(error, 0, "package list header truncated");
  if (length < kListHeaderSize + HII_PACKAGE_HEADER_SIZE)
    return refuse(error, 16, "package list length too small for the header and an END package");
  if (length > available) return refuse(error, 16, "package list length runs past the end of the data");

  PackageListView view;
  view.guid = guid;
  view.size = length;
  size_t offset = kListHeaderSize;
  for (;;) {
    if (offset == length) return refuse(error, offset, "package list has no END package");
    if (length - offset < HII_PACKAGE_HEADER_SIZE) return refuse(error, offset, "package header truncated");
    const uint8_t* p = data + offset;
    const uint32_t size = hiiPackageLength(p);
    const uint8_t type = hiiPackageType(p);
    if (size < HII_PACKAGE_HEADER_SIZE) return refuse(error, offset, "package length smaller than its header");
    if (size > length - offset) return refuse(error, offset, "package runs past the end of the package list");
    if (type == EFI_HII_PACKAGE_END) {
      if (size != HII_PACKAGE_HEADER_SIZE) return refuse(error, offset, "END package with a payload");
      if (offset + size != length) return refuse(error, offset, "data after the END package");
      break;
    }
    view.packages.push_back(PackageView{type, p, size, offset});
    offset += size;
  }
  out = std::move(view);
  return EFI_SUCCESS;
}

EFI_STATUS parsePackageLists(const uint8_t* data, size_t size, std::vector<PackageListView>& out,
                             FormatError* error) {
  std::vector<PackageListView> lists;
  size_t offset = 0;
  while (offset < size) {
    PackageListView view;
    FormatError inner;
    if (parsePackageList(data + offset, size - offset, view, &inner) != EFI_SUCCESS) {
      if (error) {
        error->offset = offset + inner.offset;
        error->message = inner.message;
      }
      return EFI_INVALID_PARAMETER;
    }
    offset += view.size;
    lists.push_back(std::move(view));
  }
  out = std::move(lists);
  return EFI_SUCCESS;
}

std::vector<uint8_t> buildPackage(uint8_t type, const std::vector<uint8_t>& payload) {
  const size_t size = HII_PACKAGE_HEADER_SIZE + payload.size();
  if (size > 0xFFFFFF) throw std::length_error("HII package longer than 24 bits");
  ByteWriter w;
  w.u24(uint32_t(size));
  w.u8(type);
  w.raw(payload);
  return std::move(w.bytes());
}

std::vector<uint8_t> buildPackageList(const EFI_GUID& guid, const std::vector<std::vector<uint8_t>>& packages) {
  ByteWriter w;
  w.guid(guid);
  w.u32(0);
  for (const auto& package : packages) w.raw(package);
  w.u24(HII_PACKAGE_HEADER_SIZE);
  w.u8(EFI_HII_PACKAGE_END);
  if (w.size() > 0xFFFFFFFFu) throw std::length_error("HII package list longer than 32 bits");
  w.patchU32(16, uint32_t(w.size()));
  return std::move(w.bytes());
}

}  // namespace tvl::host::hii
