#include "uefi/runtime.h"

namespace tvl::rt {

ImageContext gImage;

namespace {
constexpr UINTN kInlineZeroBytes = 128;
}  // namespace

void initialize(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  gImage.imageHandle = imageHandle;
  gImage.systemTable = systemTable;
  gImage.bootServices = systemTable ? systemTable->BootServices : nullptr;
  gImage.runtimeServices = systemTable ? systemTable->RuntimeServices : nullptr;
}

VOID* allocateUncleared(UINTN size) {
  VOID* buffer = nullptr;
  if (bs()->AllocatePool(EfiBootServicesData, size, &buffer) != EFI_SUCCESS) return nullptr;
  return buffer;
}

VOID* allocateZero(UINTN size) {
  VOID* buffer = allocateUncleared(size);
  if (!buffer) return nullptr;
  // Pool memory is 8-byte aligned. Nearly every allocation is a node, an
  // attribute or a short text, cleared here a word at a time; longer ones
  // go to the firmware's own SetMem, far quicker than a loop.
  if (size > kInlineZeroBytes) {
    bs()->SetMem(buffer, size, 0);
    return buffer;
  }
  auto* bytes = static_cast<UINT8*>(buffer);
  UINTN i = 0;
  const UINT64 zero = 0;
  for (; i + sizeof zero <= size; i += sizeof zero) __builtin_memcpy(bytes + i, &zero, sizeof zero);
  for (; i < size; ++i) bytes[i] = 0;
  return buffer;
}

void release(VOID* buffer) {
  if (buffer) bs()->FreePool(buffer);
}

namespace {
constexpr UINTN kFirmwareCopyBytes = 256;
}  // namespace

void copyMem(VOID* dst, const VOID* src, UINTN n) {
  auto* d = static_cast<UINT8*>(dst);
  auto* s = static_cast<const UINT8*>(src);
  if (d == s || n == 0) return;
  // Long copies (a growing document, a whole string package) go to the
  // firmware's CopyMem, which handles overlap too and moves words rather
  // than bytes; short ones stay here, where a call would cost more.
  if (n >= kFirmwareCopyBytes && bs()) {
    bs()->CopyMem(d, const_cast<UINT8*>(s), n);
    return;
  }
  if (d < s || d >= s + n) {
    // Forward, a word at a time: each word is read before it is written,
    // and a destination below the source never reaches bytes not yet read.
    for (; n >= sizeof(UINT64); n -= sizeof(UINT64), d += sizeof(UINT64), s += sizeof(UINT64)) {
      UINT64 word;
      __builtin_memcpy(&word, s, sizeof word);
      __builtin_memcpy(d, &word, sizeof word);
    }
    for (UINTN i = 0; i < n; ++i) d[i] = s[i];
  } else {
    for (UINTN i = n; i-- > 0;) d[i] = s[i];
  }
}

void setMem(VOID* dst, UINTN n, UINT8 value) {
  auto* d = static_cast<volatile UINT8*>(dst);
  for (UINTN i = 0; i < n; ++i) d[i] = value;
}

INTN compareMem(const VOID* a, const VOID* b, UINTN n) {
  auto* x = static_cast<const UINT8*>(a);
  auto* y = static_cast<const UINT8*>(b);
  for (UINTN i = 0; i < n; ++i)
    if (x[i] != y[i]) return INTN(x[i]) - INTN(y[i]);
  return 0;
}

}  // namespace tvl::rt
