// A small image that exports the runtime's copyMem and the image's own
// memmove, so that tests run the copies exactly as an image does (a test
// calling memmove directly would get the host C library's).
#include "uefi/runtime.h"

extern "C" {

void* memmove(void* dst, const void* src, UINTN n);

void probeCopyMem(VOID* dst, const VOID* src, UINTN n) { tvl::rt::copyMem(dst, src, n); }
void probeMemmove(VOID* dst, const VOID* src, UINTN n) { memmove(dst, src, n); }

EFI_STATUS EFIAPI EfiMain(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  tvl::rt::initialize(imageHandle, systemTable);
  return EFI_SUCCESS;
}

}  // extern "C"
