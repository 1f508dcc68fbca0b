// ProcessForms on arbitrary package lists, twice per input: directly, from
// a database that exports the bytes as they are (what the forms processor
// itself must refuse), and through the HII database, whose own checks run
// first and which hands a list it accepts to the forms processor.
#include <cstring>
#include <vector>

#include "fuzz/support.h"

namespace {

using tvl::fuzz::fail;

const EFI_HII_HANDLE kRawHandle = reinterpret_cast<EFI_HII_HANDLE>(0x7a11);

// Installed before the sample platform's database, so the forms processor
// finds it first; it exports the input for kRawHandle and passes
// everything else on to the real database.
struct RawDatabase : EFI_HII_DATABASE_PROTOCOL {
  const EFI_HII_DATABASE_PROTOCOL* real = nullptr;
  const uint8_t* bytes = nullptr;
  size_t size = 0;
};
RawDatabase gRaw{};

EFI_STATUS EFIAPI exportLists(const EFI_HII_DATABASE_PROTOCOL*, EFI_HII_HANDLE handle, UINTN* size,
                              EFI_HII_PACKAGE_LIST_HEADER* buffer) {
  if (handle != kRawHandle) return gRaw.real->ExportPackageLists(gRaw.real, handle, size, buffer);
  if (!size) return EFI_INVALID_PARAMETER;
  const bool fits = *size >= gRaw.size;
  *size = gRaw.size;
  if (!fits) return EFI_BUFFER_TOO_SMALL;
  if (gRaw.size) std::memcpy(buffer, gRaw.bytes, gRaw.size);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI driverOf(const EFI_HII_DATABASE_PROTOCOL*, EFI_HII_HANDLE handle, EFI_HANDLE* driver) {
  if (handle == kRawHandle) return EFI_NOT_FOUND;
  return gRaw.real->GetPackageListHandle(gRaw.real, handle, driver);
}

void install(tvl::host::Platform& platform) {
  gRaw.ExportPackageLists = exportLists;
  gRaw.GetPackageListHandle = driverOf;
  EFI_HANDLE handle = nullptr;
  if (platform.installProtocol(&handle, gEfiHiiDatabaseProtocolGuid, &gRaw) != EFI_SUCCESS)
    fail("cannot install the raw database");
}

// One ProcessForms call on one handle: a failure hands out nothing and
// leaves its reason; form sets handed out go back.
void process(tvl::fuzz::Session& s, EFI_HII_HANDLE handle) {
  HII_FORMS_PROCESSOR2_PROTOCOL* forms = s.sample->formsProcessor();
  UINTN count = 0;
  HII_FORMSET_RECORD** sets = nullptr;
  EFI_STATUS status = forms->ProcessForms(forms, &handle, 1, nullptr, &count, &sets);
  if (status != EFI_SUCCESS) {
    if (sets || count) fail("a failed ProcessForms hands out form sets");
    HII_FORMS_PROCESSOR_ERROR error{};
    if (forms->GetLastError(forms, &error) != EFI_SUCCESS || error.Status != status)
      fail("the last error does not give the failure's status");
    if (!std::memchr(error.Message, 0, sizeof error.Message)) fail("the last error's message is not terminated");
    return;
  }
  if (!sets || !count) fail("ProcessForms succeeds with no form sets");
  if (forms->DestroyFormSets(forms, count, sets) != EFI_SUCCESS) fail("DestroyFormSets refuses its own form sets");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tvl::fuzz::Session& s = tvl::fuzz::session(install);
  gRaw.real = s.sample->hii().database();
  tvl::fuzz::PoolWatch watch(*s.platform);
  gRaw.bytes = data;
  gRaw.size = size;
  process(s, kRawHandle);
  watch.check("ProcessForms on the raw package list");

  EFI_HII_HANDLE handle = nullptr;
  std::vector<uint8_t> list(data, data + size);
  if (s.sample->hii().addPackageList(list, s.bios().handle(), &handle) == EFI_SUCCESS) {
    process(s, handle);
    if (s.sample->hii().removePackageList(handle) != EFI_SUCCESS) fail("cannot remove the package list again");
  }
  s.reset();
  watch.check("ProcessForms through the HII database");
  return 0;
}
