// Shared between the test image and the tests that drive it.
#pragma once

#include "uefi/tables.h"

#define TEST_COUNTER_VENDOR_GUID \
  { 0x6a1d2a4e, 0x3f0b, 0x4c8e, { 0x9d, 0x21, 0x5b, 0x7e, 0x10, 0x42, 0xa3, 0x01 } }
#define TEST_COUNTER_PROTOCOL_GUID \
  { 0x6a1d2a4e, 0x3f0b, 0x4c8e, { 0x9d, 0x21, 0x5b, 0x7e, 0x10, 0x42, 0xa3, 0x02 } }

// Bits of the UEFI variable "TestImageMode" (a UINT32) read by the entry.
#define TEST_MODE_UNLOADABLE 0x01u    // set an Unload handler
#define TEST_MODE_FAIL_ENTRY 0x02u    // the entry returns EFI_ABORTED
#define TEST_MODE_ALLOCATE 0x04u      // keep a 32-byte allocation until unload
#define TEST_MODE_INSTALL 0x08u       // install TEST_COUNTER_PROTOCOL on the image handle
#define TEST_MODE_EXIT 0x10u          // leave the entry through Exit(EFI_ABORTED)
#define TEST_MODE_REFUSE_UNLOAD 0x20u // the Unload handler answers EFI_ACCESS_DENIED

struct TEST_COUNTER_PROTOCOL {
  UINTN(EFIAPI* Increment)();
};

extern "C" {
UINTN counterIncrement();
}
