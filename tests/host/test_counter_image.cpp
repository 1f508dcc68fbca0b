// A tiny freestanding image for the platform's own tests. It keeps a
// counter in a global (each load must get its own), and its entry does
// what the UEFI variable "TestImageMode" asks for, so that tests can drive
// entry failure, Exit(), unload handlers and allocations held by an image.
#include "tests/host/test_counter_image.h"

#include "uefi/protocols.h"
#include "uefi/runtime.h"

namespace {

UINT32 gMode = 0;
VOID* gHeld = nullptr;
TEST_COUNTER_PROTOCOL gProtocol;

UINT32 readMode() {
  EFI_GUID vendor = TEST_COUNTER_VENDOR_GUID;
  UINT32 mode = 0;
  UINTN size = sizeof mode;
  if (tvl::rt::rts()->GetVariable(u"TestImageMode", &vendor, nullptr, &size, &mode) != EFI_SUCCESS) return 0;
  return mode;
}

EFI_STATUS EFIAPI unloadImage(EFI_HANDLE imageHandle) {
  if (gMode & TEST_MODE_REFUSE_UNLOAD) return EFI_ACCESS_DENIED;
  if (gMode & TEST_MODE_INSTALL) {
    EFI_GUID guid = TEST_COUNTER_PROTOCOL_GUID;
    RETURN_IF_ERROR(tvl::rt::bs()->UninstallProtocolInterface(imageHandle, &guid, &gProtocol));
  }
  tvl::rt::release(gHeld);
  gHeld = nullptr;
  return EFI_SUCCESS;
}

UINTN EFIAPI protocolIncrement() { return counterIncrement(); }

}  // namespace

extern "C" {

UINTN gCounter = 0;

UINTN counterIncrement() { return ++gCounter; }

EFI_STATUS EFIAPI EfiMain(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  tvl::rt::initialize(imageHandle, systemTable);
  gMode = readMode();
  if (gMode & TEST_MODE_FAIL_ENTRY) return EFI_ABORTED;
  if (gMode & TEST_MODE_EXIT) tvl::rt::bs()->Exit(imageHandle, EFI_ABORTED, 0, nullptr);
  if (gMode & TEST_MODE_ALLOCATE) {
    gHeld = tvl::rt::allocateZero(32);
    if (!gHeld) return EFI_OUT_OF_RESOURCES;
  }
  if (gMode & TEST_MODE_INSTALL) {
    gProtocol.Increment = protocolIncrement;
    EFI_GUID guid = TEST_COUNTER_PROTOCOL_GUID;
    EFI_STATUS status = tvl::rt::bs()->InstallMultipleProtocolInterfaces(&imageHandle, &guid, &gProtocol, nullptr);
    if (EFI_ERROR(status)) {
      tvl::rt::release(gHeld);
      gHeld = nullptr;
      return status;
    }
  }
  if (gMode & TEST_MODE_UNLOADABLE) {
    EFI_GUID loadedGuid = EFI_LOADED_IMAGE_PROTOCOL_GUID;
    EFI_LOADED_IMAGE_PROTOCOL* loaded = nullptr;
    RETURN_IF_ERROR(tvl::rt::bs()->HandleProtocol(imageHandle, &loadedGuid, reinterpret_cast<VOID**>(&loaded)));
    loaded->Unload = unloadImage;
  }
  return EFI_SUCCESS;
}

}  // extern "C"
