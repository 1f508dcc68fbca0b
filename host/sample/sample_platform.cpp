#include "host/sample/sample_platform.h"

#include <algorithm>
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

constexpr const char* kPassword2Image = "password2_service";
constexpr const char* kLegacyPasswordImage = "legacy_password_service";

struct PasswordServicesName {
  PasswordServices services;
  const char* name;
};
constexpr PasswordServicesName kPasswordServicesNames[] = {
    {PasswordServices::None, "none"},
    {PasswordServices::Newer, "new"},
    {PasswordServices::Legacy, "legacy"},
    {PasswordServices::Both, "both"},
};


}  // namespace

std::string statusText(EFI_STATUS status) { return statusName(status); }

const char* passwordServicesName(PasswordServices services) {
  for (const auto& n : kPasswordServicesNames)
    if (n.services == services) return n.name;
  return "?";
}

std::optional<PasswordServices> parsePasswordServices(const std::string& text) {
  for (const auto& n : kPasswordServicesNames)
    if (text == n.name) return n.services;
  return std::nullopt;
}

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
  setPasswordServices(PasswordServices::Newer);
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

void SamplePlatform::unloadService(const std::string& image) {
  auto it = std::find_if(services_.begin(), services_.end(), [&](const ServiceImage& s) { return s.image == image; });
  if (it == services_.end()) return;
  EFI_STATUS status = platform_->unloadImage(it->handle);
  if (status != EFI_SUCCESS)
    throw std::runtime_error("the service image " + image + " refuses to unload: " + statusText(status));
  services_.erase(it);
}

bool SamplePlatform::hasService(const std::string& image) const {
  return std::any_of(services_.begin(), services_.end(), [&](const ServiceImage& s) { return s.image == image; });
}

void SamplePlatform::setPasswordServices(PasswordServices services) {
  const bool newer = services == PasswordServices::Newer || services == PasswordServices::Both;
  const bool legacy = services == PasswordServices::Legacy || services == PasswordServices::Both;
  if (!newer) unloadService(kPassword2Image);
  if (!legacy) unloadService(kLegacyPasswordImage);
  if (newer && !hasService(kPassword2Image)) loadService(kPassword2Image, gPassword2ProtocolGuid);
  if (legacy && !hasService(kLegacyPasswordImage)) loadService(kLegacyPasswordImage, gLegacyPasswordProtocolGuid);
  passwordServices_ = services;
}

void SamplePlatform::setPasswordDisabled(UINT16 which, bool disabled) {
  if (which != PASSWORD_WHICH_SYSTEM && which != PASSWORD_WHICH_SETUP)
    throw std::invalid_argument("no password " + std::to_string(which));
  std::vector<uint8_t> marks;
  platform_->getVariable(PASSWORD_DISABLED_VARIABLE, gPasswordStoreGuid, &marks);
  UINT8 bits = marks.size() == 1 ? marks[0] : 0;
  const UINT8 bit = UINT8(1u << (which - 1));
  bits = disabled ? UINT8(bits | bit) : UINT8(bits & ~bit);
  // No mark at all is stored as no variable.
  std::vector<uint8_t> data;
  if (bits) data.push_back(bits);
  EFI_STATUS status =
      platform_->setVariable(PASSWORD_DISABLED_VARIABLE, gPasswordStoreGuid, PASSWORD_VARIABLE_ATTRIBUTES, data);
  if (status != EFI_SUCCESS && !(data.empty() && status == EFI_NOT_FOUND))
    throw std::runtime_error("cannot store the disabled marks: " + statusText(status));
}

bool SamplePlatform::passwordDisabled(UINT16 which) const {
  std::vector<uint8_t> marks;
  if (platform_->getVariable(PASSWORD_DISABLED_VARIABLE, gPasswordStoreGuid, &marks) != EFI_SUCCESS) return false;
  // As the services read it: a mark they cannot read disables.
  return marks.size() != 1 || (marks[0] >> (which - 1) & 1);
}

void SamplePlatform::addDevice(DeviceDescription description) {
  const std::string name = hii::toAscii(description.fqdd);
  auto device = std::make_unique<devices::Device>(*platform_, *hii_, description.devicePath);
  for (const auto& formSet : description.formSets) {
    for (const auto& store : formSet.varStores) {
      std::u16string storeName = hii::toUtf16(store.name);
      std::vector<UINT8> bytes = initialStorage(formSet, store);
      if (store.efiVariable)
        device->addVariableStorage(store.guid, storeName, bytes, store.attributes);
      else
        device->addBufferStorage(store.guid, storeName, bytes);
      if (store.refusesWideZero) device->refuseWideZeroWrites(store.guid, storeName);
    }
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

PASSWORD2_PROTOCOL* SamplePlatform::password2() const {
  return locateAs<PASSWORD2_PROTOCOL>(*platform_, gPassword2ProtocolGuid);
}
LEGACY_PASSWORD_PROTOCOL* SamplePlatform::legacyPassword() const {
  return locateAs<LEGACY_PASSWORD_PROTOCOL>(*platform_, gLegacyPasswordProtocolGuid);
}

SampleDevice* SamplePlatform::findDevice(const std::u16string& fqdd) {
  for (auto& d : devices_)
    if (d.definition.fqdd == fqdd) return &d;
  return nullptr;
}

EFI_STATUS SamplePlatform::loadDriver(EFI_HANDLE* imageHandle) { return platform_->loadImage(kDriverImage, imageHandle); }

}  // namespace tvl::host::sample
