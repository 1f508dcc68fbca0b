// `tolvane info`: loads the converter driver into the sample platform and
// shows what its entry installed and bound.
#include <cstring>
#include <iomanip>

#include "host/sample/sample_platform.h"
#include "host/sample/sample_state.h"
#include "tools/cli.h"

namespace tvl::cli {
namespace {


constexpr const char* kSlotNames[] = {
    "HiiToNode", "NodeToHii", "(slot 3)", "(slot 4)", "NodeSaveToHii", "(slot 6)",
    "SetBIOSPassword", "(slot 8)", "NodesToCombinedXMLChar",
};
constexpr size_t kSlotCount = sizeof(kSlotNames) / sizeof(kSlotNames[0]);
static_assert(8 + 8 * kSlotCount == sizeof(TOLVANE_PROTOCOL), "one name per slot");

struct BoundService {
  const char* global;  // the driver's global that holds the service
  EFI_GUID guid;
  bool required;
};

const BoundService kBoundServices[] = {
    {"gLogProtocol", DEBUG_LOG_PROTOCOL_GUID, false},
    {"gHiiFormsProcessor2Protocol", HII_FORMS_PROCESSOR2_PROTOCOL_GUID, true},
    {"gHiiDatabase", EFI_HII_DATABASE_PROTOCOL_GUID, true},
    {"XMLProtocol", XML_PROTOCOL_GUID, true},
    {"HiiStringProtocol", EFI_HII_STRING_PROTOCOL_GUID, true},
    {"gPassword2Protocol", PASSWORD2_PROTOCOL_GUID, false},
    {"gLegacyPasswordProtocol", LEGACY_PASSWORD_PROTOCOL_GUID, false},
    {"gDeviceLocationProtocol", DEVICE_LOCATION_PROTOCOL_GUID, false},
};

void* slotAt(const TOLVANE_PROTOCOL& record, size_t index) {
  void* slot = nullptr;
  std::memcpy(&slot, reinterpret_cast<const UINT8*>(&record) + 8 + 8 * index, sizeof slot);
  return slot;
}

void printSlots(std::ostream& out, const TOLVANE_PROTOCOL& record, void* unsupported) {
  out << "Operation slots:\n";
  for (size_t i = 0; i < kSlotCount; ++i) {
    void* slot = slotAt(record, i);
    const char* state = !slot                  ? "empty"
                        : slot == unsupported ? "unsupported (answers EFI_UNSUPPORTED)"
                                              : "implemented";
    out << "  " << i + 1 << " " << std::left << std::setw(24) << kSlotNames[i] << state << "\n";
  }
}

void printServices(std::ostream& out, host::Platform& platform, EFI_HANDLE driver) {
  out << "Bound services:\n";
  for (const BoundService& s : kBoundServices) {
    void** global = static_cast<void**>(platform.imageSymbol(driver, s.global));
    std::string state;
    if (!global) {
      state = "unknown (the driver exports no such global)";
    } else if (!*global) {
      state = "not bound";
    } else {
      state = *global == platform.locateProtocol(s.guid) ? "bound" : "bound to an instance no longer installed";
    }
    out << "  " << std::left << std::setw(30) << s.global << guidText(s.guid) << "  " << state
        << (s.required ? "" : "  (optional)") << "\n";
  }
}

// Which of the two password services the driver bound (the newer one wins
// when the platform loads both).
void printPasswordService(std::ostream& out, host::Platform& platform, EFI_HANDLE driver,
                          host::sample::PasswordServices loaded) {
  auto bound = [&](const char* global) {
    void** address = static_cast<void**>(platform.imageSymbol(driver, global));
    return address && *address;
  };
  const char* service = bound("gPassword2Protocol")        ? "PASSWORD2_PROTOCOL, the newer service"
                        : bound("gLegacyPasswordProtocol") ? "LEGACY_PASSWORD_PROTOCOL, the older service"
                                                           : "none bound";
  out << "Password service: " << service << " (the platform loads: "
      << host::sample::passwordServicesName(loaded) << ")\n";
}

}  // namespace

int runInfo(const std::vector<std::string>& args, std::ostream& out) {
  Options options({}, args);
  host::sample::SamplePlatform sample(poolMode());
  loadState(sample);
  host::Platform& platform = sample.platform();

  EFI_HANDLE driver = nullptr;
  EFI_STATUS entry = sample.loadDriver(&driver);
  out << "Driver image:     " << host::sample::SamplePlatform::kDriverImage << " (" << handleName(platform, driver)
      << ")\n";
  out << "Entry status:     " << host::sample::statusText(entry) << "\n";
  if (entry != EFI_SUCCESS) failure("the driver's entry failed with " + host::sample::statusText(entry));

  std::vector<EFI_HANDLE> carriers = platform.handlesWith(gTolvaneProtocolGuid);
  if (carriers.empty()) failure("the driver's entry succeeded but no converter protocol is installed");
  auto* record = static_cast<TOLVANE_PROTOCOL*>(platform.handleProtocol(carriers[0], gTolvaneProtocolGuid));
  out << "Protocol:         TOLVANE_PROTOCOL " << guidText(gTolvaneProtocolGuid) << "\n";
  out << "Installed on:     " << handleName(platform, carriers[0])
      << (carriers[0] == driver ? " (the driver's image handle)" : " (not the driver's image handle)") << "\n";
  if (carriers.size() > 1) out << "                  and " << carriers.size() - 1 << " further handle(s)\n";
  out << "Revision:         " << hex(record->Revision) << "\n";

  void* unsupported = platform.imageSymbol(driver, "UnsupportedOperation");
  if (!unsupported) failure("the driver image exports no UnsupportedOperation");
  printSlots(out, *record, unsupported);
  printServices(out, platform, driver);
  printPasswordService(out, platform, driver, sample.passwordServices());
  checkPool(platform);
  return kExitOk;
}

}  // namespace tvl::cli
