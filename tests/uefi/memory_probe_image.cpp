// Exports the runtime's memory functions and the image's own memmove, memset
// and memcmp (a test calling memmove directly would get the host's).
#include "uefi/runtime.h"

extern "C" {

void* memmove(void* dst, const void* src, UINTN n);
void* memset(void* dst, int value, UINTN n);
int memcmp(const void* a, const void* b, UINTN n);

void probeCopyMem(VOID* dst, const VOID* src, UINTN n) { tvl::rt::copyMem(dst, src, n); }
void probeMemmove(VOID* dst, const VOID* src, UINTN n) { memmove(dst, src, n); }
void probeSetMem(VOID* dst, UINTN n, UINT8 value) { tvl::rt::setMem(dst, n, value); }
void probeMemset(VOID* dst, UINTN n, UINT8 value) { memset(dst, value, n); }
INTN probeCompareMem(const VOID* a, const VOID* b, UINTN n) { return tvl::rt::compareMem(a, b, n); }
INTN probeMemcmp(const VOID* a, const VOID* b, UINTN n) { return memcmp(a, b, n); }

EFI_STATUS EFIAPI EfiMain(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  tvl::rt::initialize(imageHandle, systemTable);
  return EFI_SUCCESS;
}

}  // extern "C"
