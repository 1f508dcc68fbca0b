// Common names of NIC settings that adapters publish under names of their
// own.
#pragma once

#include "uefi/base.h"

extern "C" {

// When `VendorName` is a known vendor name, `*MappedName` receives the
// common name (a constant text the caller must not free); otherwise it is
// left as it was.
VOID getMappedName(const CHAR8* VendorName, const CHAR8** MappedName);

}  // extern "C"
