// `tolvane forms`: what the forms processor makes of the sample devices'
// forms, or of a file of exported package lists.
#include <algorithm>
#include <memory>

#include "host/hii/hii_database.h"
#include "host/offline/offline_platform.h"
#include "host/sample/sample_platform.h"
#include "host/sample/sample_state.h"
#include "tools/cli.h"
#include "tools/outline.h"

namespace tvl::cli {
namespace {

using host::sample::SampleDevice;
using host::sample::SamplePlatform;
using host::sample::statusText;

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
  if (storage && status != EFI_SUCCESS) {
    HII_FORMS_PROCESSOR_ERROR e = sets.lastError();
    out << "  without a filter: " << statusText(status) << ": " << e.Message << "\n";
    status = sets.process(handles.data(), handles.size(), &gInternalSSDSetup);
  }
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
  loadState(sample);
  FormsOutline outline(out, sample.hii().strings());
  for (SampleDevice* d : selectDevices(sample, fqdd)) deviceForms(sample, *d, outline, out);
  checkPool(sample.platform());
  return kExitOk;
}

// ---------------------------------------------------------------- file
void printList(std::ostream& out, size_t index, const host::offline::OfflineList& list) {
  out << "Package list " << index + 1 << " at " << offsetText(list.file.offset) << ": GUID " << guidText(list.file.guid)
      << ", " << list.file.length << " bytes\n";
  out << "  packages:";
  for (const auto& p : list.file.packages) {
    out << " " << host::offline::packageTypeName(p.type);
    if (!p.language.empty()) out << "(" << p.language << ")";
  }
  out << "\n";
}

int fileForms(const std::string& file, std::ostream& out) {
  std::unique_ptr<host::offline::OfflinePlatform> offline = loadOffline(file);
  auto& lists = offline->lists();

  // Parse every list before printing, so that a malformed one is reported
  // alone. A file does not tell which device a list comes from, so the
  // storage rule of an export is tried for every list: when the forms cannot
  // be read as a whole, the storage controller's form set alone.
  HII_FORMS_PROCESSOR2_PROTOCOL* processor = offline->services().formsProcessor();
  std::vector<std::unique_ptr<FormSets>> parsed;
  std::vector<std::string> notes(lists.size());
  for (size_t i = 0; i < lists.size(); ++i) {
    parsed.push_back(std::make_unique<FormSets>(processor));
    if (!lists[i].device) {
      notes[i] = "  left out: the HII database refuses it: " + lists[i].refusal + "\n";
      continue;
    }
    if (!lists[i].file.hasForms) continue;
    EFI_STATUS status = parsed.back()->process(&lists[i].hiiHandle, 1, nullptr);
    if (status == EFI_SUCCESS) continue;
    HII_FORMS_PROCESSOR_ERROR e = parsed.back()->lastError();
    if (parsed.back()->process(&lists[i].hiiHandle, 1, &gInternalSSDSetup) == EFI_SUCCESS) {
      notes[i] = "  without a filter: " + statusText(status) + ": " + e.Message + "\n  form-set filter: " +
                 guidText(gInternalSSDSetup) + " (storage controller)\n";
      continue;
    }
    badRecord(file, lists[i].file.offset + e.Offset,
              "the forms of package list " + std::to_string(i + 1) + " are malformed (" + statusText(status) +
                  "): " + e.Message);
  }
  size_t total = 0;
  for (const auto& list : lists) total = std::max(total, list.file.offset + list.file.length);
  out << "File " << file << ": " << lists.size() << " package list(s), " << total << " bytes\n";
  FormsOutline outline(out, offline->services().hii().strings());
  for (size_t i = 0; i < lists.size(); ++i) {
    printList(out, i, lists[i]);
    out << notes[i] << "  form sets: " << parsed[i]->count << "\n";
    outline.formSets(parsed[i]->count, parsed[i]->sets, 1);
  }
  parsed.clear();  // back to the forms processor before the platform goes
  checkPool(offline->platform());
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
