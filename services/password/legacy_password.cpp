// The older password service (LEGACY_PASSWORD_PROTOCOL): one method (3)
// that changes, sets or clears a plain password after checking the old one.
// With no password installed the old password is the empty text.
#include "services/password/service.h"
#include "services/password/store.h"
#include "uefi/varargs.h"

namespace tvl::password {
namespace {

using tvl::rt::vaArg;
using tvl::rt::VaList;

TVL_VARIADIC_AFTER_NARROW_BEGIN
EFI_STATUS EFIAPI ChangePassword(PASSWORD_SERVICE_PROTOCOL* This, UINT16 Method, UINT16 Which, ...) {
  if (!isInstance(This)) return EFI_INVALID_PARAMETER;
  if (Method != PASSWORD_METHOD_CHECKED) return EFI_UNSUPPORTED;
  if (!isWhich(Which)) return EFI_INVALID_PARAMETER;
  VaList args;
  __builtin_ms_va_start(args, Which);
  const CHAR16* old = vaArg<const CHAR16*>(args);
  const CHAR16* password = vaArg<const CHAR16*>(args);
  __builtin_ms_va_end(args);
  if (!old || !isPlainPassword(password)) return EFI_INVALID_PARAMETER;
  if (isDisabled(Which)) return EFI_WRITE_PROTECTED;
  RETURN_IF_ERROR(verify(Which, old));
  return setPlain(Which, password);
}
TVL_VARIADIC_AFTER_NARROW_END

}  // namespace
}  // namespace tvl::password

extern "C" EFI_STATUS EFIAPI EfiMain(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  using namespace tvl::password;
  const ServiceDescription description = {&gLegacyPasswordProtocolGuid, ChangePassword,
                                          1u << PASSWORD_METHOD_CHECKED};
  return startService(imageHandle, systemTable, description);
}
