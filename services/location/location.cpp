// The platform's device-location service (DEVICE_LOCATION_PROTOCOL): a
// table, filled by the platform, from device paths to location texts
// (FQDDs) and descriptions. Lookups match a device path byte for byte
// against the registered ones and answer new pool copies of the texts,
// together with the device path in its UEFI text form. Texts are not
// localised: every language gets the same answer.
#include "services/location/device_path_text.h"
#include "uefi/runtime.h"
#include "uefi/services.h"

namespace tvl::location {
namespace {

using tvl::rt::bs;
using tvl::rt::Pool;

constexpr UINT64 kSignature = 0x31434f4c4c565454ull;  // "TTVLLOC1"
// Longest FQDD or description accepted, in characters.
constexpr UINTN kMaxTextLength = 1024;

// One table entry and, in the same allocation right behind it, the FQDD,
// the description (both NUL-terminated) and the device path bytes.
struct Entry {
  Entry* next;
  UINTN pathSize;
  const UINT8* path;
  const CHAR16* fqdd;
  const CHAR16* description;
};
static_assert(sizeof(Entry) % sizeof(UINT64) == 0, "texts behind an entry stay aligned");

// The protocol comes first, so the interface pointer is the instance.
struct LocationService {
  DEVICE_LOCATION_PROTOCOL protocol;
  UINT64 signature;
  EFI_HANDLE handle;
  Entry* first;  // registration order
};

LocationService* gService = nullptr;

LocationService* serviceOf(DEVICE_LOCATION_PROTOCOL* This) {
  auto* service = reinterpret_cast<LocationService*>(This);
  return service && service->signature == kSignature ? service : nullptr;
}

// Length of a text of at most kMaxTextLength characters, or false.
bool boundedLength(const CHAR16* text, UINTN& length) {
  for (length = 0; length <= kMaxTextLength; ++length)
    if (text[length] == 0) return true;
  return false;
}

Entry* findPath(LocationService* service, const UINT8* path, UINTN size) {
  for (Entry* e = service->first; e; e = e->next)
    if (e->pathSize == size && tvl::rt::compareMem(e->path, path, size) == 0) return e;
  return nullptr;
}

Entry* findFqdd(LocationService* service, const CHAR16* fqdd) {
  for (Entry* e = service->first; e; e = e->next)
    if (tvl::rt::equal(e->fqdd, fqdd)) return e;
  return nullptr;
}

Pool<Entry> makeEntry(const UINT8* path, UINTN pathSize, const CHAR16* fqdd, UINTN fqddLength,
                      const CHAR16* description, UINTN descriptionLength) {
  const UINTN fqddBytes = (fqddLength + 1) * sizeof(CHAR16);
  const UINTN descriptionBytes = (descriptionLength + 1) * sizeof(CHAR16);
  Pool<Entry> entry = Pool<Entry>::bytes(sizeof(Entry) + fqddBytes + descriptionBytes + pathSize);
  if (!entry) return entry;
  auto* base = reinterpret_cast<UINT8*>(entry.get());
  auto* fqddCopy = reinterpret_cast<CHAR16*>(base + sizeof(Entry));
  auto* descriptionCopy = reinterpret_cast<CHAR16*>(base + sizeof(Entry) + fqddBytes);
  UINT8* pathCopy = base + sizeof(Entry) + fqddBytes + descriptionBytes;
  tvl::rt::copyMem(fqddCopy, fqdd, fqddLength * sizeof(CHAR16));
  tvl::rt::copyMem(descriptionCopy, description, descriptionLength * sizeof(CHAR16));
  tvl::rt::copyMem(pathCopy, path, pathSize);
  entry->next = nullptr;
  entry->pathSize = pathSize;
  entry->path = pathCopy;
  entry->fqdd = fqddCopy;
  entry->description = descriptionCopy;
  return entry;
}

// Puts `entry` in place of `old` (keeping its position), or at the end.
void link(LocationService* service, Entry* entry, Entry* old) {
  Entry** slot = &service->first;
  while (*slot && *slot != old) slot = &(*slot)->next;
  if (old) {
    entry->next = old->next;
    tvl::rt::release(old);
  }
  *slot = entry;
}

EFI_STATUS EFIAPI RegisterLocation(DEVICE_LOCATION_PROTOCOL* This, const EFI_DEVICE_PATH_PROTOCOL* DevicePath,
                                   const CHAR16* Fqdd, const CHAR16* Description) {
  LocationService* service = serviceOf(This);
  if (!service || !DevicePath || !Fqdd) return EFI_INVALID_PARAMETER;
  const UINTN pathSize = devicePathSize(DevicePath);
  UINTN fqddLength = 0, descriptionLength = 0;
  if (pathSize == 0 || !boundedLength(Fqdd, fqddLength) || fqddLength == 0) return EFI_INVALID_PARAMETER;
  if (!Description) Description = u"";
  if (!boundedLength(Description, descriptionLength)) return EFI_INVALID_PARAMETER;
  const auto* path = reinterpret_cast<const UINT8*>(DevicePath);
  Entry* old = findPath(service, path, pathSize);
  Entry* named = findFqdd(service, Fqdd);
  if (named && named != old) return EFI_ALREADY_STARTED;
  Pool<Entry> entry = makeEntry(path, pathSize, Fqdd, fqddLength, Description, descriptionLength);
  if (!entry) return EFI_OUT_OF_RESOURCES;
  link(service, entry.release(), old);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI DevicePathToLocationText(DEVICE_LOCATION_PROTOCOL* This, const EFI_DEVICE_PATH_PROTOCOL* DevicePath,
                                           const CHAR8* Language, CHAR16** Description, CHAR16** Fqdd,
                                           CHAR16** DevicePathText) {
  LocationService* service = serviceOf(This);
  if (!service || !DevicePath || !Language || !Description || !Fqdd || !DevicePathText) return EFI_INVALID_PARAMETER;
  const UINTN pathSize = devicePathSize(DevicePath);
  if (pathSize == 0) return EFI_INVALID_PARAMETER;
  const Entry* entry = findPath(service, reinterpret_cast<const UINT8*>(DevicePath), pathSize);
  if (!entry) return EFI_NOT_FOUND;
  Pool<CHAR16> description = tvl::rt::duplicate(entry->description);
  if (!description) return EFI_OUT_OF_RESOURCES;
  Pool<CHAR16> fqdd = tvl::rt::duplicate(entry->fqdd);
  if (!fqdd) return EFI_OUT_OF_RESOURCES;
  const UINTN textLength = devicePathToText(entry->path, entry->pathSize, nullptr, 0);
  Pool<CHAR16> text = Pool<CHAR16>::zeroed(textLength + 1);
  if (!text) return EFI_OUT_OF_RESOURCES;
  devicePathToText(entry->path, entry->pathSize, text.get(), textLength + 1);
  *Description = description.release();
  *Fqdd = fqdd.release();
  *DevicePathText = text.release();
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI LocationTextToDevicePath(DEVICE_LOCATION_PROTOCOL* This, const CHAR16* Fqdd,
                                           EFI_DEVICE_PATH_PROTOCOL** DevicePath) {
  LocationService* service = serviceOf(This);
  if (!service || !Fqdd || !DevicePath) return EFI_INVALID_PARAMETER;
  const Entry* entry = findFqdd(service, Fqdd);
  if (!entry) return EFI_NOT_FOUND;
  Pool<UINT8> copy = Pool<UINT8>::bytes(entry->pathSize);
  if (!copy) return EFI_OUT_OF_RESOURCES;
  tvl::rt::copyMem(copy.get(), entry->path, entry->pathSize);
  *DevicePath = reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL*>(copy.release());
  return EFI_SUCCESS;
}

void freeService(LocationService* service) {
  while (Entry* e = service->first) {
    service->first = e->next;
    tvl::rt::release(e);
  }
  service->signature = 0;
  tvl::rt::release(service);
}

EFI_STATUS EFIAPI Unload(EFI_HANDLE) {
  LocationService* service = gService;
  if (!service) return EFI_SUCCESS;
  RETURN_IF_ERROR(bs()->UninstallProtocolInterface(service->handle, &gDeviceLocationProtocolGuid, &service->protocol));
  gService = nullptr;
  freeService(service);
  return EFI_SUCCESS;
}

}  // namespace
}  // namespace tvl::location

extern "C" EFI_STATUS EFIAPI EfiMain(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  using namespace tvl::location;
  tvl::rt::initialize(imageHandle, systemTable);
  EFI_LOADED_IMAGE_PROTOCOL* image = nullptr;
  RETURN_IF_ERROR(bs()->HandleProtocol(imageHandle, &gEfiLoadedImageProtocolGuid, reinterpret_cast<void**>(&image)));
  Pool<LocationService> service = Pool<LocationService>::zeroed();
  if (!service) return EFI_OUT_OF_RESOURCES;
  service->protocol = {RegisterLocation, DevicePathToLocationText, LocationTextToDevicePath};
  service->signature = kSignature;
  RETURN_IF_ERROR(bs()->InstallProtocolInterface(&service->handle, &gDeviceLocationProtocolGuid, EFI_NATIVE_INTERFACE,
                                                 &service->protocol));
  gService = service.release();
  image->Unload = Unload;
  return EFI_SUCCESS;
}
