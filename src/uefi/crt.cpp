// The four memory functions that a compiler may call on its own for
// structure copies and zero-initialisation. A freestanding image has no C
// library, so it carries them; on ELF they stay private to the image.
#include "uefi/base.h"

#if defined(__ELF__)
#define TVL_IMAGE_LOCAL __attribute__((visibility("hidden")))
#else
#define TVL_IMAGE_LOCAL
#endif

#if defined(__GNUC__) && !defined(__clang__)
// Keep GCC from turning these loops back into calls to themselves.
#pragma GCC optimize("no-tree-loop-distribute-patterns")
#endif

extern "C" {

TVL_IMAGE_LOCAL void* memcpy(void* dst, const void* src, UINTN n) {
  auto* d = static_cast<volatile UINT8*>(dst);
  auto* s = static_cast<const UINT8*>(src);
  for (UINTN i = 0; i < n; ++i) d[i] = s[i];
  return dst;
}

TVL_IMAGE_LOCAL void* memmove(void* dst, const void* src, UINTN n) {
  auto* d = static_cast<volatile UINT8*>(dst);
  auto* s = static_cast<const UINT8*>(src);
  if (d < s) {
    for (UINTN i = 0; i < n; ++i) d[i] = s[i];
  } else {
    for (UINTN i = n; i-- > 0;) d[i] = s[i];
  }
  return dst;
}

TVL_IMAGE_LOCAL void* memset(void* dst, int value, UINTN n) {
  auto* d = static_cast<volatile UINT8*>(dst);
  for (UINTN i = 0; i < n; ++i) d[i] = static_cast<UINT8>(value);
  return dst;
}

TVL_IMAGE_LOCAL int memcmp(const void* a, const void* b, UINTN n) {
  auto* x = static_cast<const UINT8*>(a);
  auto* y = static_cast<const UINT8*>(b);
  for (UINTN i = 0; i < n; ++i)
    if (x[i] != y[i]) return int(x[i]) - int(y[i]);
  return 0;
}

}  // extern "C"
