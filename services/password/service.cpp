#include "services/password/service.h"

#include "services/password/store.h"
#include "uefi/runtime.h"

namespace tvl::password {
namespace {

using tvl::rt::bs;
using tvl::rt::Pool;

constexpr UINT32 kRevision = 0x00010000;

struct PasswordService {
  PASSWORD_SERVICE_PROTOCOL protocol;  // first, so that This is the instance
  EFI_HANDLE handle;
  const EFI_GUID* guid;
  UINT64 methods;
};

PasswordService* gService;

PasswordService* serviceOf(PASSWORD_SERVICE_PROTOCOL* This) {
  return This && gService && This == &gService->protocol ? gService : nullptr;
}

EFI_STATUS EFIAPI GetRevision(PASSWORD_SERVICE_PROTOCOL* This, UINT32* Revision) {
  if (!serviceOf(This) || !Revision) return EFI_INVALID_PARAMETER;
  *Revision = kRevision;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI GetProperties(PASSWORD_SERVICE_PROTOCOL* This, UINT16 Which, UINT16* PasswordStatus,
                                UINT8* PasswordType, UINT16* MinLength, UINT16* MaxLength, UINT64* Attributes) {
  PasswordService* service = serviceOf(This);
  if (!service || !isWhich(Which) || !PasswordStatus) return EFI_INVALID_PARAMETER;
  UINT16 status = 0;
  UINT8 type = PASSWORD_TYPE_NONE;
  RETURN_IF_ERROR(properties(Which, &status, &type));
  *PasswordStatus = status;
  if (PasswordType) *PasswordType = type;
  if (MinLength) *MinLength = 1;
  if (MaxLength) *MaxLength = PASSWORD_MAX_LENGTH;
  if (Attributes) *Attributes = service->methods;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI VerifyPassword(PASSWORD_SERVICE_PROTOCOL* This, UINT16 Which, const CHAR16* Password) {
  if (!serviceOf(This) || !isWhich(Which) || !Password) return EFI_INVALID_PARAMETER;
  return verify(Which, Password);
}

EFI_STATUS EFIAPI Unload(EFI_HANDLE) {
  PasswordService* service = gService;
  if (!service) return EFI_SUCCESS;
  RETURN_IF_ERROR(bs()->UninstallProtocolInterface(service->handle, service->guid, &service->protocol));
  gService = nullptr;
  tvl::rt::release(service);
  return EFI_SUCCESS;
}

}  // namespace

bool isInstance(const PASSWORD_SERVICE_PROTOCOL* This) {
  return serviceOf(const_cast<PASSWORD_SERVICE_PROTOCOL*>(This)) != nullptr;
}

EFI_STATUS startService(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable, const ServiceDescription& description) {
  tvl::rt::initialize(imageHandle, systemTable);
  EFI_LOADED_IMAGE_PROTOCOL* image = nullptr;
  RETURN_IF_ERROR(bs()->HandleProtocol(imageHandle, &gEfiLoadedImageProtocolGuid, reinterpret_cast<VOID**>(&image)));
  Pool<PasswordService> service = Pool<PasswordService>::zeroed();
  if (!service) return EFI_OUT_OF_RESOURCES;
  service->protocol = {GetRevision, GetProperties, VerifyPassword, description.changePassword};
  service->guid = description.protocol;
  service->methods = description.methods;
  RETURN_IF_ERROR(bs()->InstallProtocolInterface(&service->handle, description.protocol, EFI_NATIVE_INTERFACE,
                                                 &service->protocol));
  gService = service.release();
  image->Unload = Unload;
  return EFI_SUCCESS;
}

}  // namespace tvl::password
