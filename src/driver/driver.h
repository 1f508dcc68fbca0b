// The driver's life cycle: the entry that binds the services and installs
// TOLVANE_PROTOCOL on the image handle (replacing an earlier instance), the
// protocol-notify callbacks that bind optional services late, the unload
// handler, and the operation behind the protocol slots that have none.
#pragma once

#include "driver/globals.h"

extern "C" {

// Binds the services, installs the converter protocol and sets the unload
// handler. Its status is the image's status.
EFI_STATUS EFIAPI TolvaneInitialize(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE* SystemTable);

// Uninstalls the converter protocol from the image handle and frees its
// record. EFI_SUCCESS when nothing is installed; a refused uninstall
// refuses the unload and keeps the record.
EFI_STATUS EFIAPI TolvaneUnload(EFI_HANDLE ImageHandle);

// Notify functions: (re)bind the log and the device-location service.
VOID EFIAPI OnLogProtocolNotify(EFI_EVENT Event, VOID* Context);
VOID EFIAPI OnDeviceLocationProtocolNotify(EFI_EVENT Event, VOID* Context);

// Fills the slots without an operation; ignores whatever it is given.
EFI_STATUS EFIAPI UnsupportedOperation(...);

}  // extern "C"
