#include "tests/firmware/firmware_support.h"

#include <cstring>

#include "host/hii/device_path.h"
#include "host/status.h"

namespace tvl::test::firmware {

std::string combinedDocument(host::Platform& platform, EFI_HANDLE device) {
  auto* converter = static_cast<TOLVANE_PROTOCOL*>(platform.locateProtocol(gTolvaneProtocolGuid));
  auto* xml = static_cast<XML_PROTOCOL*>(platform.locateProtocol(gXmlProtocolGuid));
  if (!converter || !xml) return "no converter or XML service";
  XML_NODE* possible = nullptr;
  XML_NODE* current = nullptr;
  EFI_STATUS status = converter->HiiToNode(converter, device, &possible, &current);
  if (status != EFI_SUCCESS) return "HiiToNode " + host::statusName(status);
  CHAR8* text = nullptr;
  status = converter->NodesToCombinedXMLChar(converter, possible, current, &text);
  std::string document = status == EFI_SUCCESS && text ? std::string(text) + "\n"
                                                       : "NodesToCombinedXMLChar " + host::statusName(status);
  if (text) platform.bootServices()->FreePool(text);
  xml->XML_FreeNode(xml, possible);
  xml->XML_FreeNode(xml, current);
  return document;
}

std::vector<EFI_HANDLE> devicesWithPath(host::Platform& platform, const std::vector<uint8_t>& path) {
  std::vector<EFI_HANDLE> found;
  for (EFI_HANDLE handle : platform.handlesWith(gEfiHiiConfigAccessProtocolGuid)) {
    const auto* bytes = static_cast<const uint8_t*>(platform.handleProtocol(handle, gEfiDevicePathProtocolGuid));
    const size_t size = bytes ? host::hii::devicePathSize(bytes) : 0;
    if (size == path.size() && std::memcmp(bytes, path.data(), size) == 0) found.push_back(handle);
  }
  return found;
}

}  // namespace tvl::test::firmware
