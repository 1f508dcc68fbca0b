// The forms-processor service: HII_FORMS_PROCESSOR2_PROTOCOL. ProcessForms
// exports each given package list from the HII database, walks its
// packages, parses the IFR of its forms packages into records and completes
// them with the device's current values and the evaluated conditions.
//
// Statuses: bad arguments (a null handle among them) give
// EFI_INVALID_PARAMETER; malformed package data (a package list, package
// or opcode that does not fit, misplaced or unclosed scopes, unknown
// opcodes, counts that overrun their opcode, malformed expressions, nesting
// past the limits, a forms package without a form set) gives
// EFI_VOLUME_CORRUPTED; no form set at all, or none with the GUID asked
// for, gives EFI_NOT_FOUND; the database's own failures are passed on. A
// failed call returns no records and keeps no memory beyond the parses the
// cache keeps (services/forms/cache.h); GetLastError tells
// its status, the index of the handle being parsed, the byte offset in
// that package list and a message. The filter compares the form set's own
// GUID.
//
// Current values: a buffer store is read through the driver's
// EFI_HII_CONFIG_ACCESS_PROTOCOL.ExtractConfig with its ConfigHdr alone (the
// whole store), an EFI variable store through GetVariable. Without
// configuration access, or when either read fails for another reason than
// a lack of memory, the values stay zero and the parse goes on; so does a
// question whose field lies outside its store. Passwords are never read
// back; a reference keeps the target its opcode names.
//
// Conditions are evaluated with those current values. A suppressif,
// disableif or grayoutif around a statement sets SuppressedMark,
// DisabledMark or ReadOnlyMark when any enclosing one is true; one inside a
// question's own scope that holds no option governs the question the same
// way; suppressif and disableif around an option set OptionSuppressed.
// Every grayoutif that governs a statement also makes its ReadOnlyCondition,
// whose boolean Result is true when any of them is. An expression whose
// value is not a boolean TRUE (undefined included) does not hold.
#include "services/forms/cache.h"
#include "services/forms/complete.h"
#include "services/forms/config.h"
#include "services/forms/parsed.h"
#include "services/forms/records.h"
#include "uefi/ifr.h"
#include "uefi/print.h"

namespace tvl::forms {
namespace {

constexpr UINT32 kRevision = 0x00020000;
constexpr UINTN kInitialExportSize = 512;
// Longest device path taken for a configuration header.
constexpr UINTN kMaxDevicePathSize = 0x10000;

HII_FORMS_PROCESSOR_ERROR gLastError;
UINTN gPackageListIndex;
bool gFailureReported;

void beginCall() {
  rt::setMem(&gLastError, sizeof(gLastError), 0);
  gPackageListIndex = 0;
  gFailureReported = false;
}

// The form sets handed out by one call, freed unless released.
class FormSetList {
 public:
  FormSetList() = default;
  FormSetList(const FormSetList&) = delete;
  FormSetList& operator=(const FormSetList&) = delete;
  ~FormSetList() { releaseFormSets(items_, count_); }

  // A form set of a parse that is not cached: the list owns it from now on.
  EFI_STATUS take(FormSetEntry& entry) {
    RETURN_IF_ERROR(appendRecord(items_, count_, entry.record));
    entry.record = nullptr;
    return EFI_SUCCESS;
  }
  // A form set of a cached parse: the list holds the loan.
  EFI_STATUS lend(HII_FORMSET_RECORD* record) { return appendRecord(items_, count_, record); }
  UINT64 count() const { return count_; }
  HII_FORMSET_RECORD** release() {
    HII_FORMSET_RECORD** items = items_;
    items_ = nullptr;
    count_ = 0;
    return items;
  }

 private:
  HII_FORMSET_RECORD** items_ = nullptr;
  UINT64 count_ = 0;
};

// A string package names its language after a fixed header: HdrSize u32,
// StringInfoOffset u32, LanguageWindow CHAR16[16], LanguageName u16, then
// the NUL-terminated tag inside HdrSize. Each tag is taken once, in order.
EFI_STATUS addLanguage(const PackageList& list, UINTN pos, UINTN len, Vector<const CHAR8*>& languages) {
  ByteCursor c(list.data + pos, len);
  UINT32 headerSize = 0;
  c.skip(HII_PACKAGE_HEADER_SIZE);
  if (len <= HII_STRING_PACKAGE_FIXED_SIZE || !c.readU32(headerSize) || headerSize <= HII_STRING_PACKAGE_FIXED_SIZE ||
      headerSize > len)
    return reportFailure(EFI_VOLUME_CORRUPTED, pos, "string package header does not fit its %d-byte package",
                         UINT32(len));
  const CHAR8* tag = reinterpret_cast<const CHAR8*>(list.data + pos + HII_STRING_PACKAGE_FIXED_SIZE);
  UINTN room = headerSize - HII_STRING_PACKAGE_FIXED_SIZE;
  UINTN n = 0;
  while (n < room && tag[n] != 0) ++n;
  if (n == room)
    return reportFailure(EFI_VOLUME_CORRUPTED, pos + HII_STRING_PACKAGE_FIXED_SIZE,
                         "language of a string package is not terminated inside its header");
  if (n == 0) return EFI_SUCCESS;
  for (UINTN i = 0; i < languages.size(); ++i)
    if (rt::equal(languages[i], tag)) return EFI_SUCCESS;
  return languages.push(tag);
}

void findDriver(EFI_HII_DATABASE_PROTOCOL* db, PackageList& list) {
  EFI_HANDLE driver = nullptr;
  if (db->GetPackageListHandle(db, list.hiiHandle, &driver) != EFI_SUCCESS || !driver) return;
  list.driverHandle = driver;
  EFI_GUID devicePathGuid = EFI_DEVICE_PATH_PROTOCOL_GUID;
  EFI_GUID configAccessGuid = EFI_HII_CONFIG_ACCESS_PROTOCOL_GUID;
  VOID* interface = nullptr;
  if (rt::bs()->HandleProtocol(driver, &devicePathGuid, &interface) == EFI_SUCCESS && interface) {
    list.devicePathSize = devicePathSize(static_cast<const UINT8*>(interface), kMaxDevicePathSize);
    if (list.devicePathSize) list.devicePath = static_cast<const UINT8*>(interface);
  }
  interface = nullptr;
  if (rt::bs()->HandleProtocol(driver, &configAccessGuid, &interface) == EFI_SUCCESS)
    list.configAccess = static_cast<EFI_HII_CONFIG_ACCESS_PROTOCOL*>(interface);
}

// Exports the package list of `handle` and parses it into `p`, with what
// follows from the IFR alone.
EFI_STATUS loadPackageList(EFI_HII_DATABASE_PROTOCOL* db, EFI_HII_HANDLE handle, const PackageList& driver,
                           ParsedPackageList& p) {
  UINTN size = 0;
  UINTN allocated = 0;
  EFI_STATUS status =
      rt::callWithSizedBuffer(kInitialExportSize, p.bytes, size, [db, handle, &allocated](UINT8* b, UINTN* s) {
        allocated = *s;
        return db->ExportPackageLists(db, handle, s, reinterpret_cast<EFI_HII_PACKAGE_LIST_HEADER*>(b));
      });
  if (EFI_ERROR(status)) return reportFailure(status, 0, "ExportPackageLists failed: %r", status);
  if (size > allocated)
    return reportFailure(EFI_VOLUME_CORRUPTED, 0, "ExportPackageLists reported %d bytes for a %d-byte buffer",
                         UINT32(size), UINT32(allocated));

  PackageList& list = p.list;
  list = driver;
  list.data = p.bytes.get();
  ByteCursor header(p.bytes.get(), size);
  UINT32 packageLength = 0;
  if (!header.seek(sizeof(EFI_GUID)) || !header.readU32(packageLength) ||
      packageLength < sizeof(EFI_HII_PACKAGE_LIST_HEADER) || packageLength > size)
    return reportFailure(EFI_VOLUME_CORRUPTED, sizeof(EFI_GUID),
                         "package list length %d does not fit the %d bytes exported", packageLength, UINT32(size));
  list.size = packageLength;

  for (UINTN pos = sizeof(EFI_HII_PACKAGE_LIST_HEADER); pos < list.size;) {
    if (list.size - pos < HII_PACKAGE_HEADER_SIZE)
      return reportFailure(EFI_VOLUME_CORRUPTED, pos, "package header runs past the end of the package list");
    UINT32 len = hiiPackageLength(list.data + pos);
    UINT8 type = hiiPackageType(list.data + pos);
    if (len < HII_PACKAGE_HEADER_SIZE || len > list.size - pos)
      return reportFailure(EFI_VOLUME_CORRUPTED, pos, "package of type 0x%02x has length %d, which does not fit",
                           UINT32(type), len);
    if (type == EFI_HII_PACKAGE_END) break;
    if (type == EFI_HII_PACKAGE_STRINGS) RETURN_IF_ERROR(addLanguage(list, pos, len, p.languages));
    if (type == EFI_HII_PACKAGE_FORMS)
      RETURN_IF_ERROR(parseFormsPackage(list, pos, pos + HII_PACKAGE_HEADER_SIZE, pos + len, p.parsed));
    pos += len;
  }
  RETURN_IF_ERROR(prepareFormSets(list, p.parsed, p.languages));
  return p.questions.build(p.parsed);
}

// A cached parse in use by the running call; given back when the call is
// done with it unless its form sets went to the caller.
class Loan {
 public:
  explicit Loan(ParsedPackageList* p) : p_(p && p->cached ? p : nullptr) {}
  Loan(const Loan&) = delete;
  Loan& operator=(const Loan&) = delete;
  ~Loan() {
    if (p_) giveBack(p_);
  }
  void handedOut() { p_ = nullptr; }

 private:
  ParsedPackageList* p_;
};

EFI_STATUS processPackageList(EFI_HII_DATABASE_PROTOCOL* db, bool caching, EFI_HII_HANDLE handle, UINTN index,
                              const EFI_GUID* filter, FormSetList& result) {
  PackageList driver;
  driver.hiiHandle = handle;
  findDriver(db, driver);
  ParsedOwner fresh;
  ParsedPackageList* p = caching ? takeParsed(handle, driver) : nullptr;
  if (!p) {
    if (!fresh.create()) return EFI_OUT_OF_RESOURCES;
    RETURN_IF_ERROR(loadPackageList(db, handle, driver, *fresh.get()));
    p = caching && cacheParsed(fresh.get()) ? fresh.release() : fresh.get();
  }
  Loan loan(p);
  p->list.index = index;
  RETURN_IF_ERROR(refreshFormSets(p->list, p->parsed, p->questions, filter));
  ParsedForms& parsed = p->parsed;
  for (UINTN i = 0; i < parsed.formSets.size(); ++i) {
    if (!parsed.formSets[i].kept) continue;
    if (!p->cached) {
      RETURN_IF_ERROR(result.take(parsed.formSets[i]));
      continue;
    }
    RETURN_IF_ERROR(result.lend(parsed.formSets[i].record));
    // From now on the form set list gives the parse back, also on failure.
    loan.handedOut();
  }
  return EFI_SUCCESS;
}

EFI_STATUS processForms(HII_FORMS_PROCESSOR2_PROTOCOL* This, EFI_HII_HANDLE* handles, UINTN handleCount,
                        const EFI_GUID* filter, UINTN* count, HII_FORMSET_RECORD*** buffer) {
  if (!This || !handles || handleCount == 0 || !count || !buffer)
    return reportFailure(EFI_INVALID_PARAMETER, 0, "missing argument");
  for (UINTN i = 0; i < handleCount; ++i) {
    if (!handles[i]) {
      gPackageListIndex = i;
      return reportFailure(EFI_INVALID_PARAMETER, 0, "HII handle %d is null", UINT32(i));
    }
  }
  EFI_GUID databaseGuid = EFI_HII_DATABASE_PROTOCOL_GUID;
  VOID* interface = nullptr;
  EFI_STATUS status = rt::bs()->LocateProtocol(&databaseGuid, nullptr, &interface);
  if (EFI_ERROR(status) || !interface)
    return reportFailure(EFI_ERROR(status) ? status : EFI_NOT_FOUND, 0, "no HII database: %r", status);
  auto* db = static_cast<EFI_HII_DATABASE_PROTOCOL*>(interface);

  bool caching = watchDatabase(db);
  FormSetList result;
  for (UINTN i = 0; i < handleCount; ++i) {
    gPackageListIndex = i;
    RETURN_IF_ERROR(processPackageList(db, caching, handles[i], i, filter, result));
  }
  if (result.count() == 0)
    return reportFailure(EFI_NOT_FOUND, 0, filter ? "no form set has the GUID asked for" : "no form set found");
  *count = result.count();
  *buffer = result.release();
  return EFI_SUCCESS;
}

// ---------------------------------------------------------------- protocol
EFI_STATUS EFIAPI GetRevision(HII_FORMS_PROCESSOR2_PROTOCOL* This, UINT32* Revision) {
  if (!This || !Revision) return EFI_INVALID_PARAMETER;
  *Revision = kRevision;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI ProcessForms(HII_FORMS_PROCESSOR2_PROTOCOL* This, EFI_HII_HANDLE* HiiHandles, UINTN HiiHandleCount,
                               const EFI_GUID* FormSetGuid, UINTN* FormSetBufferCount,
                               HII_FORMSET_RECORD*** FormSetBuffer) {
  beginCall();
  EFI_STATUS status = processForms(This, HiiHandles, HiiHandleCount, FormSetGuid, FormSetBufferCount, FormSetBuffer);
  if (EFI_ERROR(status) && !gFailureReported) reportFailure(status, 0, "ProcessForms failed: %r", status);
  return status;
}

EFI_STATUS EFIAPI GetLastError(HII_FORMS_PROCESSOR2_PROTOCOL* This, HII_FORMS_PROCESSOR_ERROR* Error) {
  if (!This || !Error) return EFI_INVALID_PARAMETER;
  rt::copyMem(Error, &gLastError, sizeof(gLastError));
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI DestroyFormSets(HII_FORMS_PROCESSOR2_PROTOCOL* This, UINTN FormSetBufferCount,
                                  HII_FORMSET_RECORD** FormSetBuffer) {
  if (!This) return EFI_INVALID_PARAMETER;
  if (!FormSetBuffer) return FormSetBufferCount ? EFI_INVALID_PARAMETER : EFI_SUCCESS;
  releaseFormSets(FormSetBuffer, FormSetBufferCount);
  return EFI_SUCCESS;
}

HII_FORMS_PROCESSOR2_PROTOCOL gProtocol = {GetRevision, ProcessForms, GetLastError, DestroyFormSets};

// Refused while a caller still holds form sets of a kept parse: they would
// outlive the code that frees them.
EFI_STATUS EFIAPI Unload(EFI_HANDLE imageHandle) {
  if (anyLent()) return EFI_ACCESS_DENIED;
  EFI_GUID guid = HII_FORMS_PROCESSOR2_PROTOCOL_GUID;
  RETURN_IF_ERROR(rt::bs()->UninstallProtocolInterface(imageHandle, &guid, &gProtocol));
  return closeCache();
}

}  // namespace

EFI_STATUS EFIAPI reportFailure(EFI_STATUS status, UINTN offset, const CHAR8* format, ...) {
  if (gFailureReported) return status;
  gFailureReported = true;
  gLastError.Status = status;
  gLastError.PackageListIndex = gPackageListIndex;
  gLastError.Offset = offset;
  rt::VaList args;
  __builtin_ms_va_start(args, format);
  rt::formatV(gLastError.Message, sizeof(gLastError.Message), format, &args);
  __builtin_ms_va_end(args);
  return status;
}

}  // namespace tvl::forms

// Frees the parses kept between calls (those a caller holds once given
// back). The emulated platform's tests call it before they count the pool.
extern "C" EFI_STATUS EFIAPI FormsProcessorReleaseCache() {
  tvl::forms::releaseParsedPackageLists();
  return EFI_SUCCESS;
}

extern "C" EFI_STATUS EFIAPI EfiMain(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  tvl::rt::initialize(imageHandle, systemTable);
  EFI_GUID guid = HII_FORMS_PROCESSOR2_PROTOCOL_GUID;
  EFI_HANDLE handle = imageHandle;
  RETURN_IF_ERROR(tvl::rt::bs()->InstallProtocolInterface(&handle, &guid, EFI_NATIVE_INTERFACE,
                                                          &tvl::forms::gProtocol));
  // A service that cannot follow database installs works without its cache.
  tvl::forms::watchDatabaseInstalls();
  EFI_GUID loadedImageGuid = EFI_LOADED_IMAGE_PROTOCOL_GUID;
  VOID* loadedImage = nullptr;
  if (tvl::rt::bs()->HandleProtocol(imageHandle, &loadedImageGuid, &loadedImage) == EFI_SUCCESS && loadedImage)
    static_cast<EFI_LOADED_IMAGE_PROTOCOL*>(loadedImage)->Unload = tvl::forms::Unload;
  return EFI_SUCCESS;
}
