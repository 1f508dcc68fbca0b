#include "driver/driver.h"

#include "assembly/combined.h"
#include "driver/trace.h"
#include "export/export.h"
#include "import/import.h"
#include "password/password.h"
#include "import/save.h"
#include "uefi/runtime.h"

using tvl::trace;
using tvl::rt::bs;
using tvl::rt::Pool;

extern "C" {
DEBUG_LOG_PROTOCOL* gLogProtocol;
HII_FORMS_PROCESSOR2_PROTOCOL* gHiiFormsProcessor2Protocol;
EFI_HII_DATABASE_PROTOCOL* gHiiDatabase;
XML_PROTOCOL* XMLProtocol;
EFI_HII_STRING_PROTOCOL* HiiStringProtocol;
PASSWORD2_PROTOCOL* gPassword2Protocol;
LEGACY_PASSWORD_PROTOCOL* gLegacyPasswordProtocol;
DEVICE_LOCATION_PROTOCOL* gDeviceLocationProtocol;
}

namespace {


constexpr CHAR8 kEntryName[] = "TolvaneInitialize";

// Binds the first instance of a service into `global`; a miss leaves the
// global null.
template <typename T>
EFI_STATUS bind(const EFI_GUID& guid, T** global) {
  VOID* instance = nullptr;
  EFI_STATUS status = bs()->LocateProtocol(&guid, nullptr, &instance);
  *global = EFI_ERROR(status) ? nullptr : static_cast<T*>(instance);
  return status;
}

// A signal event at TPL_CALLBACK that runs `notify` whenever an instance of
// `guid` is installed. It is signalled once at creation, so `notify` also
// runs once now. Null when the event cannot be made.
EFI_EVENT createProtocolNotifyEvent(const EFI_GUID& guid, EFI_EVENT_NOTIFY notify) {
  EFI_EVENT event = nullptr;
  if (EFI_ERROR(bs()->CreateEvent(EVT_NOTIFY_SIGNAL, TPL_CALLBACK, notify, nullptr, &event))) return nullptr;
  VOID* registration = nullptr;
  if (EFI_ERROR(bs()->RegisterProtocolNotify(&guid, event, &registration))) {
    bs()->CloseEvent(event);
    return nullptr;
  }
  bs()->SignalEvent(event);
  return event;
}

void closeEventIfSet(EFI_EVENT event) {
  if (event) bs()->CloseEvent(event);
}

// Removes the converter protocol of an earlier load of this driver from
// every handle that carries it and frees its record, so that at most one
// instance stays installed. Only a failure to list the handles stops the
// entry; a handle that refuses the uninstall is traced and passed over.
EFI_STATUS replaceEarlierInstance() {
  VOID* old = nullptr;
  bs()->LocateProtocol(&gTolvaneProtocolGuid, nullptr, &old);
  if (!old) return EFI_SUCCESS;

  UINTN count = 0;
  Pool<EFI_HANDLE> handles;
  EFI_STATUS status = bs()->LocateHandleBuffer(ByProtocol, &gTolvaneProtocolGuid, nullptr, &count, handles.receive());
  if (EFI_ERROR(status)) {
    trace(TVL_LEVEL_FAILURE, kEntryName, u"LocateHandleBuffer status = %x\n", status);
    return status;
  }
  for (UINTN i = 0; i < count; ++i) {
    // Once the record is freed, later handles are asked to uninstall a null
    // interface, which they refuse harmlessly.
    status = bs()->UninstallProtocolInterface(handles[i], &gTolvaneProtocolGuid, old);
    if (!EFI_ERROR(status)) {
      tvl::rt::release(old);
      old = nullptr;
    }
    trace(TVL_LEVEL_PROGRESS, kEntryName, u"UninstallProtocolInterface Status = %x\n", status);
  }
  return EFI_SUCCESS;
}

EFI_STATUS bindRequiredServices() {
  RETURN_IF_ERROR(bind(gHiiFormsProcessor2ProtocolGuid, &gHiiFormsProcessor2Protocol));
  RETURN_IF_ERROR(bind(gEfiHiiDatabaseProtocolGuid, &gHiiDatabase));
  RETURN_IF_ERROR(bind(gXmlProtocolGuid, &XMLProtocol));
  RETURN_IF_ERROR(bind(gEfiHiiStringProtocolGuid, &HiiStringProtocol));
  return EFI_SUCCESS;
}

// The newer password service wins; the older one is only looked for when
// the newer one is absent, so at most one of them is bound.
void bindPasswordService() {
  if (!EFI_ERROR(bind(gPassword2ProtocolGuid, &gPassword2Protocol))) {
    trace(TVL_LEVEL_PROGRESS, kEntryName, u"New password2 protocol found\n");
    return;
  }
  if (EFI_ERROR(bind(gLegacyPasswordProtocolGuid, &gLegacyPasswordProtocol)))
    trace(TVL_LEVEL_PROGRESS, kEntryName, u" Both new and old password protocols not found \n");
}

template <typename F>
F unsupported() {
  // Through the generic function pointer type: the slot's own signature
  // differs, and UnsupportedOperation reads none of its arguments.
  return reinterpret_cast<F>(reinterpret_cast<void (*)()>(&UnsupportedOperation));
}

void fillRecord(TOLVANE_PROTOCOL& record) {
  record.Revision = TOLVANE_PROTOCOL_REVISION;
  record.HiiToNode = tvlHiiToNode;
  record.NodeToHii = tvlNodeToHii;
  record.Slot3 = &UnsupportedOperation;
  record.Slot4 = &UnsupportedOperation;
  record.NodeSaveToHii = tvlNodeSaveToHii;
  record.Slot6 = &UnsupportedOperation;
  record.SetBIOSPassword = tvlSetBIOSPassword;
  record.Slot8 = &UnsupportedOperation;
  record.NodesToCombinedXMLChar = tvlNodesToCombinedXMLChar;
}

}  // namespace

extern "C" {

VOID EFIAPI OnLogProtocolNotify(EFI_EVENT, VOID*) {
  bs()->LocateProtocol(&gDebugLogProtocolGuid, nullptr, reinterpret_cast<VOID**>(&gLogProtocol));
}

VOID EFIAPI OnDeviceLocationProtocolNotify(EFI_EVENT, VOID*) {
  bs()->LocateProtocol(&gDeviceLocationProtocolGuid, nullptr, reinterpret_cast<VOID**>(&gDeviceLocationProtocol));
}

EFI_STATUS EFIAPI UnsupportedOperation(...) { return EFI_UNSUPPORTED; }

EFI_STATUS EFIAPI TolvaneInitialize(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE*) {
  if (EFI_ERROR(bind(gDebugLogProtocolGuid, &gLogProtocol))) createProtocolNotifyEvent(gDebugLogProtocolGuid, OnLogProtocolNotify);
  trace(TVL_LEVEL_PROGRESS, kEntryName, u"Entering\n");

  RETURN_IF_ERROR(replaceEarlierInstance());

  VOID* loadedImageInterface = nullptr;
  RETURN_IF_ERROR(bs()->OpenProtocol(ImageHandle, &gEfiLoadedImageProtocolGuid, &loadedImageInterface, ImageHandle, ImageHandle,
                                     EFI_OPEN_PROTOCOL_GET_PROTOCOL));
  auto* loadedImage = static_cast<EFI_LOADED_IMAGE_PROTOCOL*>(loadedImageInterface);

  RETURN_IF_ERROR(bindRequiredServices());
  bindPasswordService();

  EFI_EVENT locationEvent = nullptr;
  if (EFI_ERROR(bind(gDeviceLocationProtocolGuid, &gDeviceLocationProtocol)))
    locationEvent = createProtocolNotifyEvent(gDeviceLocationProtocolGuid, OnDeviceLocationProtocolNotify);

  Pool<TOLVANE_PROTOCOL> record = Pool<TOLVANE_PROTOCOL>::zeroed();
  if (!record) {
    closeEventIfSet(locationEvent);
    return EFI_OUT_OF_RESOURCES;
  }
  fillRecord(*record);

  EFI_HANDLE handle = ImageHandle;
  EFI_STATUS status = bs()->InstallMultipleProtocolInterfaces(&handle, &gTolvaneProtocolGuid, record.get(), nullptr);
  if (EFI_ERROR(status)) {
    closeEventIfSet(locationEvent);
    return status;
  }
  record.release();  // installed: owned by the protocol database until unload

  loadedImage->Unload = TolvaneUnload;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI TolvaneUnload(EFI_HANDLE ImageHandle) {
  VOID* record = nullptr;
  if (EFI_ERROR(bs()->HandleProtocol(ImageHandle, &gTolvaneProtocolGuid, &record))) return EFI_SUCCESS;
  EFI_STATUS status = bs()->UninstallProtocolInterface(ImageHandle, &gTolvaneProtocolGuid, record);
  if (!EFI_ERROR(status)) tvl::rt::release(record);
  return status;
}

}  // extern "C"
