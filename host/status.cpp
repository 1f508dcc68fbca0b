#include "host/status.h"

#include <cstdio>

namespace tvl::host {
namespace {

struct StatusName {
  EFI_STATUS status;
  const char* name;
};

constexpr StatusName kStatusNames[] = {
    {EFI_SUCCESS, "EFI_SUCCESS"},
    {EFI_LOAD_ERROR, "EFI_LOAD_ERROR"},
    {EFI_INVALID_PARAMETER, "EFI_INVALID_PARAMETER"},
    {EFI_UNSUPPORTED, "EFI_UNSUPPORTED"},
    {EFI_BAD_BUFFER_SIZE, "EFI_BAD_BUFFER_SIZE"},
    {EFI_BUFFER_TOO_SMALL, "EFI_BUFFER_TOO_SMALL"},
    {EFI_NOT_READY, "EFI_NOT_READY"},
    {EFI_DEVICE_ERROR, "EFI_DEVICE_ERROR"},
    {EFI_WRITE_PROTECTED, "EFI_WRITE_PROTECTED"},
    {EFI_OUT_OF_RESOURCES, "EFI_OUT_OF_RESOURCES"},
    {EFI_VOLUME_CORRUPTED, "EFI_VOLUME_CORRUPTED"},
    {EFI_NOT_FOUND, "EFI_NOT_FOUND"},
    {EFI_ACCESS_DENIED, "EFI_ACCESS_DENIED"},
    {EFI_ALREADY_STARTED, "EFI_ALREADY_STARTED"},
    {EFI_ABORTED, "EFI_ABORTED"},
    {EFI_PROTOCOL_ERROR, "EFI_PROTOCOL_ERROR"},
    {EFI_SECURITY_VIOLATION, "EFI_SECURITY_VIOLATION"},
    {EFI_INVALID_LANGUAGE, "EFI_INVALID_LANGUAGE"},
};

}  // namespace

std::string statusName(EFI_STATUS status) {
  for (const StatusName& s : kStatusNames)
    if (s.status == status) return s.name;
  char text[32];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(status));
  return text;
}

}  // namespace tvl::host
