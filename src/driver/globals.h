// The services the driver binds at entry. Every other part of the driver
// calls them through these pointers; a null pointer means the service is
// not bound. The log and device-location services may be bound later by
// protocol-notify callbacks; nothing sets a pointer back to null after the
// entry.
#pragma once

#include "uefi/services.h"

extern "C" {

extern DEBUG_LOG_PROTOCOL* gLogProtocol;
extern HII_FORMS_PROCESSOR2_PROTOCOL* gHiiFormsProcessor2Protocol;
extern EFI_HII_DATABASE_PROTOCOL* gHiiDatabase;
extern XML_PROTOCOL* XMLProtocol;
extern EFI_HII_STRING_PROTOCOL* HiiStringProtocol;
// At most one of the two password services is bound: the older one is only
// looked for when the newer one is absent.
extern PASSWORD2_PROTOCOL* gPassword2Protocol;
extern LEGACY_PASSWORD_PROTOCOL* gLegacyPasswordProtocol;
extern DEVICE_LOCATION_PROTOCOL* gDeviceLocationProtocol;

}  // extern "C"
