// The parts the two password services share: the instance, the slots that
// behave alike in both (revision, properties, verification), and the entry
// and unload of an image. Each image brings its own ChangePassword.
#pragma once

#include "uefi/services.h"

namespace tvl::password {

typedef EFI_STATUS(EFIAPI* ChangePasswordFunction)(PASSWORD_SERVICE_PROTOCOL* This, UINT16 Method, UINT16 Which, ...);

struct ServiceDescription {
  const EFI_GUID* protocol;
  ChangePasswordFunction changePassword;
  UINT64 methods;  // bit (1 << code) for each ChangePassword method code taken
};

// Installs this image's one instance on a new handle and sets the image's
// Unload handler, which uninstalls and frees it again.
EFI_STATUS startService(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable, const ServiceDescription& description);

// Whether `This` is this image's instance.
bool isInstance(const PASSWORD_SERVICE_PROTOCOL* This);

}  // namespace tvl::password

// ChangePassword starts its argument list after the 16-bit Which. Every
// argument of an EFIAPI call has an 8-byte slot of its own, so that is well
// defined; clang's warning about promoted types concerns other conventions.
#if defined(__clang__)
#define TVL_VARIADIC_AFTER_NARROW_BEGIN \
  _Pragma("clang diagnostic push") _Pragma("clang diagnostic ignored \"-Wvarargs\"")
#define TVL_VARIADIC_AFTER_NARROW_END _Pragma("clang diagnostic pop")
#else
#define TVL_VARIADIC_AFTER_NARROW_BEGIN
#define TVL_VARIADIC_AFTER_NARROW_END
#endif
