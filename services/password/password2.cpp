// The newer password service (PASSWORD2_PROTOCOL): sets and clears a
// password from a plain text (method 2) or from a SHA-256 hash text with an
// optional salt text (method 1). It is the management path and does not ask
// for the old password: its old-password argument is taken for the layout
// of the call and not examined.
#include "services/password/service.h"
#include "services/password/store.h"
#include "uefi/varargs.h"

namespace tvl::password {
namespace {

using tvl::rt::vaArg;
using tvl::rt::VaList;

// (CHAR16* Old, CHAR16* New); a salt argument after them is not read.
EFI_STATUS changePlain(UINT16 which, VaList& args) {
  const CHAR16* old = vaArg<const CHAR16*>(args);
  const CHAR16* password = vaArg<const CHAR16*>(args);
  if (!old || !isPlainPassword(password)) return EFI_INVALID_PARAMETER;
  if (isDisabled(which)) return EFI_WRITE_PROTECTED;
  return setPlain(which, password);
}

// (CHAR16* Old, CHAR8* HashText, CHAR8* SaltText or null).
EFI_STATUS changeHash(UINT16 which, VaList& args) {
  const CHAR16* old = vaArg<const CHAR16*>(args);
  const CHAR8* hashText = vaArg<const CHAR8*>(args);
  const CHAR8* saltText = vaArg<const CHAR8*>(args);
  if (!old || !isHashText(hashText) || !isSaltText(saltText)) return EFI_INVALID_PARAMETER;
  if (isDisabled(which)) return EFI_WRITE_PROTECTED;
  return setHash(which, hashText, saltText);
}

TVL_VARIADIC_AFTER_NARROW_BEGIN
EFI_STATUS EFIAPI ChangePassword(PASSWORD_SERVICE_PROTOCOL* This, UINT16 Method, UINT16 Which, ...) {
  if (!isInstance(This)) return EFI_INVALID_PARAMETER;
  if (Method != PASSWORD_METHOD_SHA256 && Method != PASSWORD_METHOD_PLAIN) return EFI_UNSUPPORTED;
  if (!isWhich(Which)) return EFI_INVALID_PARAMETER;
  VaList args;
  __builtin_ms_va_start(args, Which);
  EFI_STATUS status = Method == PASSWORD_METHOD_PLAIN ? changePlain(Which, args) : changeHash(Which, args);
  __builtin_ms_va_end(args);
  return status;
}
TVL_VARIADIC_AFTER_NARROW_END

}  // namespace
}  // namespace tvl::password

extern "C" EFI_STATUS EFIAPI EfiMain(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  using namespace tvl::password;
  const ServiceDescription description = {&gPassword2ProtocolGuid, ChangePassword,
                                          1u << PASSWORD_METHOD_SHA256 | 1u << PASSWORD_METHOD_PLAIN};
  return startService(imageHandle, systemTable, description);
}
