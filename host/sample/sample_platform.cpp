#include "host/sample/sample_platform.h"

#include <stdexcept>

#include "host/hii/config_string.h"
#include "host/status.h"
#include "host/sample/sample_devices.h"

namespace tvl::host::sample {
namespace {


template <typename T>
T* locateAs(Platform& platform, const EFI_GUID& guid) {
  return static_cast<T*>(platform.locateProtocol(guid));
}


}  // namespace

std::string statusText(EFI_STATUS status) { return statusName(status); }

SamplePlatform::SamplePlatform(PoolMode poolMode)
    : owned_(std::make_unique<Platform>(poolMode)), platform_(owned_.get()) {
  build(sampleDevices());
}

SamplePlatform::SamplePlatform(Platform& platform) : platform_(&platform) { build(sampleDevices()); }

SamplePlatform::SamplePlatform(Platform& platform, std::vector<DeviceDescription> devices) : platform_(&platform) {
  build(std::move(devices));
}

SamplePlatform::~SamplePlatform() {
  devices_.clear();
  hii_.reset();
}

void SamplePlatform::build(std::vector<DeviceDescription> descriptions) {
  // The log first, so that the other services' traces have somewhere to go.
  loadService("log_service", gDebugLogProtocolGuid);
  loadService("xml_service", gXmlProtocolGuid);
  loadService("location_service", gDeviceLocationProtocolGuid);
  loadService("forms_service", gHiiFormsProcessor2ProtocolGuid);
  hii_ = std::make_unique<hii::HiiDatabase>(*platform_);
  for (auto& description : descriptions) addDevice(std::move(description));
}

void SamplePlatform::loadService(const std::string& image, const EFI_GUID& protocol) {
  ServiceImage service{image, protocol, nullptr};
  EFI_STATUS status = platform_->loadImage(image, &service.handle);
  if (status != EFI_SUCCESS)
    throw std::runtime_error("cannot load the service image " + image + " from " + Platform::imageDirectory() +
                             ": " + statusText(status));
  if (!platform_->locateProtocol(protocol))
    throw std::runtime_error("the service image " + image + " installed no protocol");
  services_.push_back(service);
}

void SamplePlatform::addDevice(DeviceDescription description) {
  const std::string name = hii::toAscii(description.fqdd);
  auto device = std::make_unique<devices::Device>(*platform_, *hii_, description.devicePath);
  for (const auto& store : description.formSet.varStores) {
    std::u16string storeName = hii::toUtf16(store.name);
    std::vector<UINT8> bytes = initialStorage(description.formSet, store);
    if (store.efiVariable)
      device->addVariableStorage(store.guid, storeName, bytes, store.attributes);
    else
      device->addBufferStorage(store.guid, storeName, bytes);
  }
  device->addPackageList(buildPackageList(description));

  DEVICE_LOCATION_PROTOCOL* service = location();
  EFI_STATUS status = service->RegisterLocation(
      service, reinterpret_cast<const EFI_DEVICE_PATH_PROTOCOL*>(description.devicePath.data()), description.fqdd.c_str(),
      description.description.c_str());
  if (status != EFI_SUCCESS)
    throw std::runtime_error("the location service refuses device " + name + ": " + statusText(status));
  devices_.push_back({std::move(description), std::move(device)});
}

DEVICE_LOCATION_PROTOCOL* SamplePlatform::location() const {
  return locateAs<DEVICE_LOCATION_PROTOCOL>(*platform_, gDeviceLocationProtocolGuid);
}
HII_FORMS_PROCESSOR2_PROTOCOL* SamplePlatform::formsProcessor() const {
  return locateAs<HII_FORMS_PROCESSOR2_PROTOCOL>(*platform_, gHiiFormsProcessor2ProtocolGuid);
}
XML_PROTOCOL* SamplePlatform::xml() const { return locateAs<XML_PROTOCOL>(*platform_, gXmlProtocolGuid); }
DEBUG_LOG_PROTOCOL* SamplePlatform::log() const { return locateAs<DEBUG_LOG_PROTOCOL>(*platform_, gDebugLogProtocolGuid); }

SampleDevice* SamplePlatform::findDevice(const std::u16string& fqdd) {
  for (auto& d : devices_)
    if (d.definition.fqdd == fqdd) return &d;
  return nullptr;
}

EFI_STATUS SamplePlatform::loadDriver(EFI_HANDLE* imageHandle) { return platform_->loadImage(kDriverImage, imageHandle); }

}  // namespace tvl::host::sample
