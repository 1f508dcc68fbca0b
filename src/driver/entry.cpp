#include "driver/driver.h"
#include "uefi/runtime.h"

// The image entry: capture the system pointers, then run the driver's
// entry, whose status is the image's status.
extern "C" EFI_STATUS EFIAPI EfiMain(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  tvl::rt::initialize(imageHandle, systemTable);
  return TolvaneInitialize(imageHandle, systemTable);
}
