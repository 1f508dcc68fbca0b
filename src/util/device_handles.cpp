#include "util/device_handles.h"

#include "driver/globals.h"
#include "uefi/runtime.h"

using tvl::rt::Pool;

extern "C" EFI_STATUS HandleToHiiHandleBuffer(EFI_HANDLE DriverHandle, UINTN* Count, EFI_HII_HANDLE** Handles) {
  if (Count == nullptr || Handles == nullptr) return EFI_INVALID_PARAMETER;

  // The listing starts with a one-byte buffer, so the database reports the
  // size it needs.
  Pool<UINT8> listing;
  UINTN size = 0;
  RETURN_IF_ERROR(tvl::rt::callWithSizedBuffer(1, listing, size, [&](UINT8* into, UINTN* bytes) {
    return gHiiDatabase->ListPackageLists(gHiiDatabase, EFI_HII_PACKAGE_TYPE_ALL, nullptr, bytes,
                                          reinterpret_cast<EFI_HII_HANDLE*>(into));
  }));

  UINTN listed = size / sizeof(EFI_HII_HANDLE);
  auto* all = reinterpret_cast<EFI_HII_HANDLE*>(listing.get());
  Pool<EFI_HII_HANDLE> owned = Pool<EFI_HII_HANDLE>::bytes(size);
  if (!owned) return EFI_OUT_OF_RESOURCES;

  UINTN found = 0;
  for (UINTN i = 0; i < listed; ++i) {
    EFI_HANDLE owner = nullptr;
    RETURN_IF_ERROR(gHiiDatabase->GetPackageListHandle(gHiiDatabase, all[i], &owner));
    if (owner == DriverHandle) owned[found++] = all[i];
  }
  if (found == 0) return EFI_NOT_FOUND;
  *Count = found;
  *Handles = owned.release();
  return EFI_SUCCESS;
}
