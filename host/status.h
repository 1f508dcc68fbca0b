// Status codes as the names firmware engineers know ("EFI_NOT_FOUND"), for
// messages of the host tools and tests.
#pragma once

#include <string>

#include "uefi/base.h"

namespace tvl::host {

// The symbolic name of a status, or its hexadecimal value when it has none.
std::string statusName(EFI_STATUS status);

}  // namespace tvl::host
