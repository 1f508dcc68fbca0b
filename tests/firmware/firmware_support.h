// Test support for the firmware side on the host: the combined document of
// one device as the driver makes it, and the device handle that carries a
// device path.
#pragma once

#include <string>
#include <vector>

#include "host/platform.h"
#include "uefi/services.h"

namespace tvl::test::firmware {

// HiiToNode and NodesToCombinedXMLChar on `device`, followed by a line feed
// as the command line and the firmware's test application write it; on
// failure "HiiToNode <status>" or "NodesToCombinedXMLChar <status>".
std::string combinedDocument(host::Platform& platform, EFI_HANDLE device);

// The handles whose device path is `path` and that carry the
// configuration-access protocol, in creation order.
std::vector<EFI_HANDLE> devicesWithPath(host::Platform& platform, const std::vector<uint8_t>& path);

}  // namespace tvl::test::firmware
