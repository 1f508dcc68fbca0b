// The built-in sample platform: a complete emulated machine that the
// command line, the driver's tests and the benchmarks share. It holds
//   - the platform services as loaded images: log, XML, device location and
//     forms processor;
//   - the HII database and string protocols;
//   - the sample devices (sample_devices.h), each a driver handle with its
//     device path, configuration access over its stores, its package list
//     registered in the HII database and its FQDD registered with the
//     device-location service.
// The converter driver is not loaded by default: loadDriver() loads a fresh
// instance on demand.
//
// Building fails with std::runtime_error naming the step (an image that
// cannot be loaded, a device the location service refuses).
#pragma once

#include <memory>
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
  void addDevice(DeviceDescription description);

  std::unique_ptr<Platform> owned_;
  Platform* platform_;
  std::vector<ServiceImage> services_;
  std::unique_ptr<hii::HiiDatabase> hii_;
  std::vector<SampleDevice> devices_;  // destroyed before the database
};

// "0x..." or the EFI_* name of a status.
std::string statusText(EFI_STATUS status);

}  // namespace tvl::host::sample
