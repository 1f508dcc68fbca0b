// The sample-device driver image: publishes the sample platform's devices
// from their reset state, as their drivers would in firmware. For each
// device it
//   - gives the buffer stores their reset-state bytes and writes the
//     reset-state bytes of the EFI variable stores into their variables,
//     unless an earlier boot left the variable (the platform's
//     non-volatile settings);
//   - installs the device path and the configuration access (config_access.h)
//     on a new handle;
//   - registers the device's package list under that handle;
//   - registers the device's location text (FQDD) with the device-location
//     service.
// The HII database and the device-location service must be there; a device
// that cannot be published undoes the ones before it and the entry fails
// with its status. Unload removes what the entry published (the variables
// stay, as the platform's non-volatile settings).
#include "firmware/sample/config_access.h"
#include "uefi/runtime.h"
#include "uefi/services.h"

namespace tvl::sample {
namespace {

using rt::bs;
using rt::Pool;

struct Image {
  EFI_HII_DATABASE_PROTOCOL* database;
  DEVICE_LOCATION_PROTOCOL* location;
  PublishedDevice* devices;  // kSampleDeviceCount
  UINTN published;
};

Image* gImage = nullptr;

void freeStores(PublishedDevice& device) {
  if (!device.stores) return;
  for (UINTN i = 0; i < device.data->storeCount; ++i) rt::release(device.stores[i].bytes);
  rt::release(device.stores);
  device.stores = nullptr;
}

void unpublish(Image& image, PublishedDevice& device) {
  if (device.hiiHandle) image.database->RemovePackageList(image.database, device.hiiHandle);
  if (device.handle) {
    bs()->UninstallProtocolInterface(device.handle, &gEfiHiiConfigAccessProtocolGuid, &device.access);
    bs()->UninstallProtocolInterface(device.handle, &gEfiDevicePathProtocolGuid,
                                     const_cast<UINT8*>(device.data->path));
  }
  freeStores(device);
  device.signature = 0;
}

EFI_STATUS resetStores(PublishedDevice& device) {
  const SampleDevice& data = *device.data;
  if (data.storeCount == 0) return EFI_SUCCESS;
  device.stores = Pool<PublishedStore>::zeroed(data.storeCount).release();
  if (!device.stores) return EFI_OUT_OF_RESOURCES;
  for (UINTN i = 0; i < data.storeCount; ++i) {
    const SampleStore& store = data.stores[i];
    device.stores[i].data = &store;
    if (store.variable) {
      // A variable that an earlier boot left, of the store's size, holds the
      // platform's settings and stays; otherwise the reset state is written.
      EFI_GUID guid = store.guid;
      UINTN size = 0;
      UINT32 attributes = 0;
      if (rt::rts()->GetVariable(store.name, &guid, &attributes, &size, nullptr) == EFI_BUFFER_TOO_SMALL &&
          size == store.size)
        continue;
      RETURN_IF_ERROR(rt::rts()->SetVariable(store.name, &guid, store.attributes, store.size,
                                             const_cast<UINT8*>(store.initial)));
      continue;
    }
    device.stores[i].bytes = Pool<UINT8>::bytes(store.size ? store.size : 1).release();
    if (!device.stores[i].bytes) return EFI_OUT_OF_RESOURCES;
    rt::copyMem(device.stores[i].bytes, store.initial, store.size);
  }
  return EFI_SUCCESS;
}

EFI_STATUS publish(Image& image, PublishedDevice& device, const SampleDevice& data) {
  device.access = {SampleExtractConfig, SampleRouteConfig, SampleCallback};
  device.signature = kPublishedDeviceSignature;
  device.data = &data;
  RETURN_IF_ERROR(resetStores(device));
  RETURN_IF_ERROR(bs()->InstallProtocolInterface(&device.handle, &gEfiDevicePathProtocolGuid, EFI_NATIVE_INTERFACE,
                                                 const_cast<UINT8*>(data.path)));
  EFI_STATUS status = bs()->InstallProtocolInterface(&device.handle, &gEfiHiiConfigAccessProtocolGuid,
                                                     EFI_NATIVE_INTERFACE, &device.access);
  if (EFI_ERROR(status)) {
    bs()->UninstallProtocolInterface(device.handle, &gEfiDevicePathProtocolGuid, const_cast<UINT8*>(data.path));
    device.handle = nullptr;
    return status;
  }
  RETURN_IF_ERROR(image.database->NewPackageList(
      image.database, reinterpret_cast<const EFI_HII_PACKAGE_LIST_HEADER*>(data.packageList), device.handle,
      &device.hiiHandle));
  return image.location->RegisterLocation(image.location, reinterpret_cast<const EFI_DEVICE_PATH_PROTOCOL*>(data.path),
                                          data.fqdd, data.description);
}

void freeImage(Image* image) {
  for (UINTN i = image->published; i-- > 0;) unpublish(*image, image->devices[i]);
  rt::release(image->devices);
  rt::release(image);
}

EFI_STATUS EFIAPI Unload(EFI_HANDLE) {
  if (gImage) freeImage(gImage);
  gImage = nullptr;
  return EFI_SUCCESS;
}

template <typename T>
EFI_STATUS locate(const EFI_GUID& guid, T*& interface) {
  return bs()->LocateProtocol(&guid, nullptr, reinterpret_cast<VOID**>(&interface));
}

}  // namespace
}  // namespace tvl::sample

extern "C" EFI_STATUS EFIAPI EfiMain(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  using namespace tvl::sample;
  tvl::rt::initialize(imageHandle, systemTable);
  EFI_LOADED_IMAGE_PROTOCOL* loaded = nullptr;
  RETURN_IF_ERROR(bs()->HandleProtocol(imageHandle, &gEfiLoadedImageProtocolGuid, reinterpret_cast<void**>(&loaded)));
  Pool<Image> image = Pool<Image>::zeroed();
  if (!image) return EFI_OUT_OF_RESOURCES;
  RETURN_IF_ERROR(locate(gEfiHiiDatabaseProtocolGuid, image->database));
  RETURN_IF_ERROR(locate(gDeviceLocationProtocolGuid, image->location));
  image->devices = Pool<PublishedDevice>::zeroed(kSampleDeviceCount).release();
  if (!image->devices) return EFI_OUT_OF_RESOURCES;
  for (UINTN i = 0; i < kSampleDeviceCount; ++i) {
    EFI_STATUS status = publish(*image, image->devices[i], kSampleDevices[i]);
    image->published = i + 1;
    if (EFI_ERROR(status)) {
      freeImage(image.release());
      return status;
    }
  }
  gImage = image.release();
  loaded->Unload = Unload;
  return EFI_SUCCESS;
}
