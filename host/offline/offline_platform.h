// The offline platform: the package lists of a file that a real machine's
// ExportPackageLists wrote, loaded into an emulated platform with the same
// services (log, XML, device location, forms processor), HII database and
// converter driver as the sample platform, so that its forms can be shown,
// exported and imported without the machine.
//
// Every package list of the file gets a driver handle of its own, as its
// driver gave it in firmware, carrying
//   - a device path: the list's device-path package, else a vendor
//     hardware node made for it (vendor GUID kOfflineVendorGuid, data the
//     list's number, counted from 1);
//   - EFI_HII_CONFIG_ACCESS_PROTOCOL over the stores that its forms declare
//     (devices::Device): buffer stores held by the device, EFI variable
//     stores as variables of the platform, which the forms processor reads
//     with GetVariable. ExtractConfig answers from them and RouteConfig
//     validates and writes them, as on the sample devices.
// The stores start from the standard defaults of the forms: EFI_IFR_DEFAULT
// for default store 0, with a constant or an expression (evaluated by the
// forms processor over the other defaults), else the default flags of
// one-of options and checkboxes; everything else is zero. applyConfig then
// writes the values of configuration lines (config_lines.h) over them.
//
// What the file's framing breaks (a list or package header cut short, a
// length past the end of its list or file, an END package missing or not
// last, bytes after it) refuses the whole file with InputError and the
// byte offset: a dump cut short or padded with zeros is not read. What
// real firmware bends inside a list is accepted with a warning (warnings()):
// a list that the HII database refuses stays in the listing without a
// device; an EFI variable store whose attributes the platform does not take
// is kept with non-volatile boot-service access.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/devices/default_config.h"
#include "host/devices/device.h"
#include "host/offline/config_lines.h"
#include "host/offline/hii_file.h"
#include "host/platform.h"
#include "host/sample/sample_platform.h"

namespace tvl::host::offline {

constexpr EFI_GUID kOfflineVendorGuid = {0x3e9b51c2, 0x7a04, 0x4d6f, {0xb1, 0x28, 0x5f, 0x90, 0xc3, 0x6a, 0x0e, 0xd7}};

struct OfflineList {
  FilePackageList file;             // where the list lies in the file and what it holds
  std::vector<uint8_t> devicePath;  // on its driver handle
  bool madeDevicePath = false;      // a vendor path made for a list without a device-path package
  std::unique_ptr<devices::Device> device;  // its driver handle; null when the database refused the list
  EFI_HII_HANDLE hiiHandle = nullptr;
  std::string refusal;                            // why the database refused it
  std::vector<devices::StoreDeclaration> stores;  // that its forms declare

  // "package list N (GUID ...)", as messages name it.
  std::string name(size_t index) const;
};

// A form set of a list as the forms processor reads it.
struct FormSetSummary {
  EFI_GUID guid{};
  std::u16string title;  // in "en-US", else the list's first language; empty when it has none
  std::vector<std::string> languages;  // of the list's string packages, as tagged
};

class OfflinePlatform {
 public:
  // Loads the services and registers every package list of `file` (the
  // bytes of a file of exported package lists). Throws InputError for a
  // file whose framing is broken, std::runtime_error when a service image
  // cannot be loaded. The platform's pool is served as `poolMode` says.
  explicit OfflinePlatform(const std::vector<uint8_t>& file, PoolMode poolMode = PoolMode::Checked);
  ~OfflinePlatform();
  OfflinePlatform(const OfflinePlatform&) = delete;
  OfflinePlatform& operator=(const OfflinePlatform&) = delete;

  Platform& platform() { return *platform_; }
  // The services, the HII database and the driver loader (with no sample
  // devices).
  sample::SamplePlatform& services() { return *services_; }
  std::vector<OfflineList>& lists() { return lists_; }
  const std::vector<std::string>& warnings() const { return warnings_; }

  // Registers `fqdd` for the device path of list `index` with the
  // device-location service (std::runtime_error when it refuses).
  void registerFqdd(size_t index, const std::u16string& fqdd, const std::u16string& description = u"");
  // Writes the values of `entries` into the stores of list `index`. A store
  // is matched by GUID and NAME (PATH names the real machine's device and is
  // not compared). Nothing is written when an entry names no store of the
  // list's forms or a block runs past its store: InputError "line N: ...".
  void applyConfig(size_t index, const std::vector<ConfigEntry>& entries);

  // The form sets of list `index`; on failure empty, with `why` set to the
  // status and the forms processor's message.
  std::vector<FormSetSummary> formSets(size_t index, std::string* why = nullptr);
  // The text of list `index`'s device path, as the location service writes it.
  std::u16string devicePathText(size_t index);

 private:
  void addList(size_t index, const std::vector<uint8_t>& file);
  void startStores(OfflineList& list);
  bool declareVariable(OfflineList& list, const devices::StoreDeclaration& store, const std::vector<uint8_t>& bytes);
  std::vector<devices::EvaluatedDefault> evaluateDefaults(OfflineList& list);
  std::vector<uint8_t> exported(const OfflineList& list);

  std::unique_ptr<Platform> platform_;
  std::unique_ptr<sample::SamplePlatform> services_;
  std::vector<OfflineList> lists_;  // their devices go before the database
  std::vector<std::string> warnings_;
};

}  // namespace tvl::host::offline
