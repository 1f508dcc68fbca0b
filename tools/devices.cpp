// `tolvane devices` and `tolvane export-hii`: the sample devices as the
// platform presents them, and their package lists as a file.
#include <cerrno>
#include <cstring>
#include <fstream>

#include "host/hii/config_string.h"
#include "host/sample/sample_platform.h"
#include "host/sample/sample_state.h"
#include "tools/cli.h"

namespace tvl::cli {
namespace {

using host::sample::SampleDevice;
using host::sample::SamplePlatform;
using host::sample::statusText;


struct Location {
  std::u16string description, fqdd, path;
};

std::u16string takePoolText(host::Platform& platform, CHAR16* text) {
  if (!text) return {};
  std::u16string copy(text);
  platform.bootServices()->FreePool(text);
  return copy;
}

// What the device-location service says about the device's own device path.
Location locate(SamplePlatform& sample, const SampleDevice& device) {
  host::Platform& platform = sample.platform();
  auto* path = static_cast<const EFI_DEVICE_PATH_PROTOCOL*>(platform.handleProtocol(device.handle(), gEfiDevicePathProtocolGuid));
  if (!path) failure("device " + utf8(device.fqdd()) + " has no device path");
  DEVICE_LOCATION_PROTOCOL* service = sample.location();
  CHAR16 *description = nullptr, *fqdd = nullptr, *text = nullptr;
  EFI_STATUS status = service->DevicePathToLocationText(service, path, "en-US", &description, &fqdd, &text);
  if (status != EFI_SUCCESS)
    failure("the device-location service does not know device " + utf8(device.fqdd()) + ": " + statusText(status));
  Location l;
  l.description = takePoolText(platform, description);
  l.fqdd = takePoolText(platform, fqdd);
  l.path = takePoolText(platform, text);
  return l;
}

// One package list as ExportPackageLists writes it.
std::vector<UINT8> exportList(host::sample::SamplePlatform& sample, EFI_HII_HANDLE handle) {
  EFI_HII_DATABASE_PROTOCOL* db = sample.hii().database();
  UINTN size = 0;
  EFI_STATUS status = db->ExportPackageLists(db, handle, &size, nullptr);
  if (status != EFI_BUFFER_TOO_SMALL) failure("ExportPackageLists cannot size a package list: " + statusText(status));
  std::vector<UINT8> bytes(size);
  status = db->ExportPackageLists(db, handle, &size, reinterpret_cast<EFI_HII_PACKAGE_LIST_HEADER*>(bytes.data()));
  if (status != EFI_SUCCESS) failure("ExportPackageLists failed: " + statusText(status));
  bytes.resize(size);
  return bytes;
}

}  // namespace

std::vector<SampleDevice*> selectDevices(SamplePlatform& sample, const std::string& fqdd) {
  std::vector<SampleDevice*> chosen;
  for (auto& d : sample.devices())
    if (fqdd.empty() || utf8(d.fqdd()) == fqdd) chosen.push_back(&d);
  if (chosen.empty()) {
    std::string known;
    for (auto& d : sample.devices()) known += (known.empty() ? "" : ", ") + utf8(d.fqdd());
    badInput("no device with FQDD '" + fqdd + "'; known devices: " + known);
  }
  return chosen;
}

int runDevices(const std::vector<std::string>& args, std::ostream& out) {
  Options options({}, args);
  SamplePlatform sample(poolMode());
  loadState(sample);
  for (SampleDevice& d : sample.devices()) {
    Location l = locate(sample, d);
    out << utf8(l.fqdd) << "\n";
    out << "  description:   " << utf8(l.description) << "\n";
    out << "  device path:   " << utf8(l.path) << "\n";
    out << "  driver handle: " << handleName(sample.platform(), d.handle()) << "\n";
    out << "  package lists: " << d.packageLists().size() << "\n";
  }
  checkPool(sample.platform());
  return kExitOk;
}

int runExportHii(const std::vector<std::string>& args, std::ostream& out) {
  Options options({{"--device", true}, {"-o", true}, {"--output", true}}, args);
  if (options.has("-o") && options.has("--output")) badInput("give the output file once, with -o or --output");
  std::string file = options.has("-o") ? options.value("-o") : options.value("--output");
  if (file.empty()) badInput("no output file: give -o FILE");
  SamplePlatform sample(poolMode());
  loadState(sample);
  std::vector<UINT8> bytes;
  size_t lists = 0;
  for (SampleDevice* d : selectDevices(sample, options.value("--device"))) {
    for (EFI_HII_HANDLE handle : d->packageLists()) {
      std::vector<UINT8> list = exportList(sample, handle);
      bytes.insert(bytes.end(), list.begin(), list.end());
      ++lists;
    }
  }
  checkPool(sample.platform());
  std::ofstream stream(file, std::ios::binary | std::ios::trunc);
  if (!stream) failure("cannot create " + file + ": " + std::strerror(errno));
  stream.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
  stream.close();
  if (!stream) failure("cannot write " + file + ": " + std::strerror(errno));
  out << "wrote " << lists << " package list(s), " << bytes.size() << " bytes, to " << file << "\n";
  return kExitOk;
}

}  // namespace tvl::cli
