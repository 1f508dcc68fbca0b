// `tolvane forms`: what the forms processor makes of the sample devices'
// forms, or of a file of exported package lists.
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>

#include "host/hii/hii_database.h"
#include "host/sample/sample_platform.h"
#include "tools/cli.h"
#include "tools/hii_file.h"
#include "tools/outline.h"

namespace tvl::cli {
namespace {

using host::sample::SampleDevice;
using host::sample::SamplePlatform;
using host::sample::statusText;

// Marks the stand-in driver handle of a package list read from a file that
// carries no device path.
constexpr EFI_GUID kOfflineOwnerGuid = {0x3e9b51c2, 0x7a04, 0x4d6f, {0xb1, 0x28, 0x5f, 0x90, 0xc3, 0x6a, 0x0e, 0xd7}};

std::string offsetText(size_t offset) { return "byte offset " + std::to_string(offset) + " (" + hex(offset) + ")"; }

// "FILE: at byte offset N (0xN): what is wrong"
[[noreturn]] void badRecord(const std::string& file, size_t offset, const std::string& message) {
  badInput(file + ": at " + offsetText(offset) + ": " + message);
}

// Form sets from one ProcessForms call, given back exactly once.
class FormSets {
 public:
  explicit FormSets(HII_FORMS_PROCESSOR2_PROTOCOL* processor) : processor_(processor) {}
  ~FormSets() {
    if (sets) processor_->DestroyFormSets(processor_, count, sets);
  }
  FormSets(const FormSets&) = delete;
  FormSets& operator=(const FormSets&) = delete;

  EFI_STATUS process(EFI_HII_HANDLE* handles, UINTN handleCount, const EFI_GUID* filter) {
    return processor_->ProcessForms(processor_, handles, handleCount, filter, &count, &sets);
  }
  HII_FORMS_PROCESSOR_ERROR lastError() const {
    HII_FORMS_PROCESSOR_ERROR error{};
    processor_->GetLastError(processor_, &error);
    return error;
  }

  UINTN count = 0;
  HII_FORMSET_RECORD** sets = nullptr;

 private:
  HII_FORMS_PROCESSOR2_PROTOCOL* processor_;
};

bool containsNoCase(const std::u16string& text, const std::string& part) {
  auto lower = [](char16_t c) { return c >= u'A' && c <= u'Z' ? char16_t(c - u'A' + u'a') : c; };
  for (size_t at = 0; at + part.size() <= text.size(); ++at) {
    size_t i = 0;
    while (i < part.size() && lower(text[at + i]) == lower(char16_t(part[i]))) ++i;
    if (i == part.size()) return true;
  }
  return false;
}

// ---------------------------------------------------------------- sample devices
void deviceForms(SamplePlatform& sample, SampleDevice& device, FormsOutline& outline, std::ostream& out) {
  // The same choice of forms as an export: the BIOS setup's own form set,
  // storage controllers without a filter and then with the controller's.
  const bool storage = containsNoCase(device.fqdd(), "Disk.Bay") || containsNoCase(device.fqdd(), "PCIeSSD.Slot");
  const bool bios = !storage && containsNoCase(device.fqdd(), "BIOS.InternalSetup.1");
  out << "Device " << utf8(device.fqdd()) << " " << quoted(device.definition.description) << "\n";
  out << "  package lists: " << device.packageLists().size() << "\n";
  out << "  form-set filter: "
      << (bios ? guidText(gInternalBIOSSetup) + " (BIOS internal setup)"
               : storage ? "none, then " + guidText(gInternalSSDSetup) + " (storage controller)" : std::string("none"))
      << "\n";
  std::vector<EFI_HII_HANDLE> handles = device.packageLists();
  if (handles.empty()) {
    out << "  form sets: 0 (the device has no package list)\n";
    return;
  }
  FormSets sets(sample.formsProcessor());
  EFI_STATUS status = sets.process(handles.data(), handles.size(), bios ? &gInternalBIOSSetup : nullptr);
  if (storage && status != EFI_SUCCESS) status = sets.process(handles.data(), handles.size(), &gInternalSSDSetup);
  if (status != EFI_SUCCESS) {
    HII_FORMS_PROCESSOR_ERROR e = sets.lastError();
    failure("ProcessForms for device " + utf8(device.fqdd()) + " failed with " + statusText(status) + ": " +
            e.Message + " (package list " + std::to_string(e.PackageListIndex + 1) + ", " + offsetText(e.Offset) +
            ")");
  }
  out << "  form sets: " << sets.count << "\n";
  outline.formSets(sets.count, sets.sets, 1);
}

int sampleForms(const std::string& fqdd, std::ostream& out) {
  SamplePlatform sample(poolMode());
  FormsOutline outline(out, sample.hii().strings());
  for (SampleDevice* d : selectDevices(sample, fqdd)) deviceForms(sample, *d, outline, out);
  checkPool(sample.platform());
  return kExitOk;
}

// ---------------------------------------------------------------- file
std::vector<UINT8> readFile(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) badInput("cannot read " + file + ": " + std::strerror(errno));
  std::vector<UINT8> bytes((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
  if (stream.bad()) badInput("cannot read " + file + ": " + std::strerror(errno));
  return bytes;
}

// A bare platform that holds the package lists of a file: the forms
// processor, the HII database, and one stand-in driver handle per list
// (carrying the list's device path when it has one, and no configuration
// access).
struct OfflinePlatform {
  std::vector<FilePackageList> lists;  // device paths installed below point here
  host::Platform platform{poolMode()};
  std::unique_ptr<host::hii::HiiDatabase> hii;
  std::vector<EFI_HII_HANDLE> handles;  // per list

  ~OfflinePlatform() { hii.reset(); }

  void load(const std::string& file, const std::vector<UINT8>& bytes) {
    EFI_HANDLE image = nullptr;
    EFI_STATUS status = platform.loadImage("forms_service", &image);
    if (status != EFI_SUCCESS)
      failure("cannot load the forms processor from " + host::Platform::imageDirectory() + ": " + statusText(status));
    hii = std::make_unique<host::hii::HiiDatabase>(platform);
    static const UINT8 kOwnerTag = 0;
    for (size_t i = 0; i < lists.size(); ++i) {
      FilePackageList& list = lists[i];
      EFI_HANDLE owner = nullptr;
      if (!list.devicePath.empty())
        status = platform.installProtocol(&owner, gEfiDevicePathProtocolGuid, list.devicePath.data());
      else
        status = platform.installProtocol(&owner, kOfflineOwnerGuid, const_cast<UINT8*>(&kOwnerTag));
      if (status != EFI_SUCCESS) failure("cannot make a driver handle: " + statusText(status));
      std::vector<UINT8> copy(bytes.begin() + long(list.offset), bytes.begin() + long(list.offset + list.length));
      EFI_HII_HANDLE handle = nullptr;
      status = hii->addPackageList(copy, owner, &handle);
      if (status != EFI_SUCCESS)
        badRecord(file, list.offset,
                  "the HII database refuses package list " + std::to_string(i + 1) + ": " + statusText(status));
      handles.push_back(handle);
    }
  }
};

void printList(std::ostream& out, size_t index, const FilePackageList& list) {
  out << "Package list " << index + 1 << " at " << offsetText(list.offset) << ": GUID " << guidText(list.guid) << ", "
      << list.length << " bytes\n";
  out << "  packages:";
  for (const FilePackage& p : list.packages) {
    out << " " << packageTypeName(p.type);
    if (!p.language.empty()) out << "(" << p.language << ")";
  }
  out << "\n";
}

int fileForms(const std::string& file, std::ostream& out) {
  std::vector<UINT8> bytes = readFile(file);
  auto offline = std::make_unique<OfflinePlatform>();
  FileFault fault;
  if (!scanPackageLists(bytes.data(), bytes.size(), offline->lists, fault))
    badRecord(file, fault.offset, fault.message);
  bool anyForms = false;
  for (const auto& list : offline->lists) anyForms = anyForms || list.hasForms;
  if (!anyForms) badInput(file + ": no package list holds a FORMS package");
  offline->load(file, bytes);

  // Parse every list before printing, so that a malformed one is reported
  // alone.
  HII_FORMS_PROCESSOR2_PROTOCOL* processor =
      static_cast<HII_FORMS_PROCESSOR2_PROTOCOL*>(offline->platform.locateProtocol(gHiiFormsProcessor2ProtocolGuid));
  std::vector<std::unique_ptr<FormSets>> parsed;
  for (size_t i = 0; i < offline->lists.size(); ++i) {
    parsed.push_back(std::make_unique<FormSets>(processor));
    if (!offline->lists[i].hasForms) continue;
    EFI_STATUS status = parsed.back()->process(&offline->handles[i], 1, nullptr);
    if (status != EFI_SUCCESS) {
      HII_FORMS_PROCESSOR_ERROR e = parsed.back()->lastError();
      badRecord(file, offline->lists[i].offset + e.Offset,
                "the forms of package list " + std::to_string(i + 1) + " are malformed (" + statusText(status) +
                    "): " + e.Message);
    }
  }
  out << "File " << file << ": " << offline->lists.size() << " package list(s), " << bytes.size() << " bytes\n";
  FormsOutline outline(out, offline->hii->strings());
  for (size_t i = 0; i < offline->lists.size(); ++i) {
    printList(out, i, offline->lists[i]);
    out << "  form sets: " << parsed[i]->count << "\n";
    outline.formSets(parsed[i]->count, parsed[i]->sets, 1);
  }
  parsed.clear();  // back to the forms processor before the platform goes
  checkPool(offline->platform);
  return kExitOk;
}

}  // namespace

int runForms(const std::vector<std::string>& args, std::ostream& out) {
  Options options({{"--device", true}, {"--hii", true}}, args);
  if (options.has("--hii") && options.has("--device"))
    badInput("--device names a sample device; it cannot be combined with --hii");
  if (options.has("--hii")) return fileForms(options.value("--hii"), out);
  return sampleForms(options.value("--device"), out);
}

}  // namespace tvl::cli
