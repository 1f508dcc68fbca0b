// The HII package lists that belong to one device.
#pragma once

#include "uefi/protocols.h"

extern "C" {

// Every HII handle whose package list was registered by `DriverHandle`, in
// the order the HII database lists them, as a new pool array of `*Count`
// handles that the caller frees. EFI_NOT_FOUND when none belongs to it; on
// failure neither output is written.
EFI_STATUS HandleToHiiHandleBuffer(EFI_HANDLE DriverHandle, UINTN* Count, EFI_HII_HANDLE** Handles);

}  // extern "C"
