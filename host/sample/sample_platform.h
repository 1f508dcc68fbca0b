// The built-in sample platform: a complete emulated machine that the
// command line, the driver's tests and the benchmarks share. It holds
//   - the platform services as loaded images: log, XML, device location and
//     forms processor, and the password services its setting asks for (the
//     newer one by default);
//   - the HII database and string protocols;
//   - the sample devices (sample_devices.h), each a driver handle with its
//     device path, configuration access over its stores, its package list
//     registered in the HII database and its FQDD registered with the
//     device-location service.
// The converter driver is not loaded by default: loadDriver() loads a fresh
// instance on demand. The devices' stores start from the values their
// descriptions give; sample_state.h keeps them between runs for a caller
// that asks for it (the command line does, tests do not).
//
// Building fails with std::runtime_error naming the step (an image that
// cannot be loaded, a device the location service refuses).
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/devices/device.h"
#include "host/hii/hii_database.h"
#include "host/platform.h"
#include "host/sample/form_description.h"
#include "uefi/services.h"

namespace tvl::host::sample {

struct SampleDevice {
  DeviceDescription definition;
  std::unique_ptr<devices::Device> device;

  const std::u16string& fqdd() const { return definition.fqdd; }
  EFI_HANDLE handle() const { return device->handle(); }
  const std::vector<EFI_HII_HANDLE>& packageLists() const { return device->packageLists(); }
};

// Which password service images the platform loads.
enum class PasswordServices { None, Newer, Legacy, Both };
// "none", "new", "legacy", "both"; and back (nothing for another text).
const char* passwordServicesName(PasswordServices services);
std::optional<PasswordServices> parsePasswordServices(const std::string& text);

// A loaded service image and the protocol it installed.
struct ServiceImage {
  std::string image;  // image name, e.g. "forms_service"
  EFI_GUID protocol{};
  EFI_HANDLE handle = nullptr;
};

class SamplePlatform {
 public:
  // The sample platform on a platform of its own with the given pool.
  explicit SamplePlatform(PoolMode poolMode = PoolMode::Checked);
  // The sample platform on `platform`, which must outlive it, with the
  // given devices (the sample devices by default).
  explicit SamplePlatform(Platform& platform);
  SamplePlatform(Platform& platform, std::vector<DeviceDescription> devices);
  // Removes the devices and the HII database; the images stay with the
  // platform.
  ~SamplePlatform();
  SamplePlatform(const SamplePlatform&) = delete;
  SamplePlatform& operator=(const SamplePlatform&) = delete;

  Platform& platform() { return *platform_; }
  hii::HiiDatabase& hii() { return *hii_; }

  // ---- services
  const std::vector<ServiceImage>& services() const { return services_; }
  DEVICE_LOCATION_PROTOCOL* location() const;
  HII_FORMS_PROCESSOR2_PROTOCOL* formsProcessor() const;
  XML_PROTOCOL* xml() const;
  DEBUG_LOG_PROTOCOL* log() const;
  // The installed password services, or null.
  PASSWORD2_PROTOCOL* password2() const;
  LEGACY_PASSWORD_PROTOCOL* legacyPassword() const;

  // ---- passwords
  PasswordServices passwordServices() const { return passwordServices_; }
  // Loads and unloads password service images to match `services`. A driver
  // binds its password service when it is loaded, so change this before
  // loadDriver(). Throws std::runtime_error when an image cannot be loaded
  // or refuses to unload.
  void setPasswordServices(PasswordServices services);
  // The platform's disabled marks, which both services read: a disabled
  // password cannot be changed. `which` is PASSWORD_WHICH_SYSTEM or
  // PASSWORD_WHICH_SETUP.
  void setPasswordDisabled(UINT16 which, bool disabled);
  bool passwordDisabled(UINT16 which) const;

  // ---- devices
  std::vector<SampleDevice>& devices() { return devices_; }
  // The device with this FQDD (exact match), or null.
  SampleDevice* findDevice(const std::u16string& fqdd);

  // ---- driver
  // Loads a fresh instance of the converter driver image ("tolvane_driver")
  // and returns its entry status; *imageHandle is set even when the entry
  // fails.
  EFI_STATUS loadDriver(EFI_HANDLE* imageHandle);
  static constexpr const char* kDriverImage = "tolvane_driver";

 private:
  void build(std::vector<DeviceDescription> descriptions);
  void loadService(const std::string& image, const EFI_GUID& protocol);
  void unloadService(const std::string& image);
  bool hasService(const std::string& image) const;
  void addDevice(DeviceDescription description);

  std::unique_ptr<Platform> owned_;
  Platform* platform_;
  std::vector<ServiceImage> services_;
  PasswordServices passwordServices_ = PasswordServices::None;
  std::unique_ptr<hii::HiiDatabase> hii_;
  std::vector<SampleDevice> devices_;  // destroyed before the database
};

// "0x..." or the EFI_* name of a status.
std::string statusText(EFI_STATUS status);

}  // namespace tvl::host::sample
