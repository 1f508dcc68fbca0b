// tolvane_check: the test application that the firmware's shell runs after
// the service images and the driver have been loaded. It checks what they
// installed, exercises the XML service, the log service and the forms
// processor on the firmware's own HII database, exports every device that
// owns forms (exports.h), applies the pending documents on the boot drive
// (applies.h), and then exercises both password services on the
// firmware's own variable store. On the runner's second boot it checks
// what the first one left instead. One line per check, a final
// "N passed, N failed" line, and the machine shuts down.
#include "export/records/records.h"
#include "firmware/app/applies.h"
#include "firmware/app/boot_drive.h"
#include "firmware/app/report.h"
#include "uefi/media.h"
#include "uefi/print.h"
#include "uefi/runtime.h"
#include "uefi/services.h"

using tvl::check::BootDrive;
using tvl::check::Report;
using tvl::check::say;
using tvl::rt::bs;
using tvl::rt::Pool;

namespace {

constexpr UINTN kLineCharacters = 256;
constexpr CHAR8 kFunctionName[] = "TolvaneCheck";

template <typename T>
T* locate(const EFI_GUID& guid) {
  VOID* interface = nullptr;
  if (EFI_ERROR(bs()->LocateProtocol(&guid, nullptr, &interface))) return nullptr;
  return static_cast<T*>(interface);
}

// ---------------------------------------------------------------- services

struct ServiceEntry {
  const CHAR16* name;
  EFI_GUID guid;
};

constexpr ServiceEntry kServices[] = {
    {u"log service", DEBUG_LOG_PROTOCOL_GUID},
    {u"XML service", XML_PROTOCOL_GUID},
    {u"forms processor", HII_FORMS_PROCESSOR2_PROTOCOL_GUID},
    {u"device location service", DEVICE_LOCATION_PROTOCOL_GUID},
    {u"password service (older)", LEGACY_PASSWORD_PROTOCOL_GUID},
    {u"HII database (firmware)", EFI_HII_DATABASE_PROTOCOL_GUID},
    {u"HII string (firmware)", EFI_HII_STRING_PROTOCOL_GUID},
};

void checkServices(Report& report) {
  say(u"Services:\r\n");
  for (const ServiceEntry& s : kServices) {
    UINTN count = 0;
    Pool<EFI_HANDLE> handles;
    EFI_STATUS status = bs()->LocateHandleBuffer(ByProtocol, &s.guid, nullptr, &count, handles.receive());
    if (EFI_ERROR(status)) count = 0;
    report.check(count > 0, u"%s installed (%g)", s.name, &s.guid);
  }
}

// ---------------------------------------------------------------- converter

constexpr const CHAR16* kSlotNames[] = {
    u"HiiToNode", u"NodeToHii", u"(slot 3)", u"(slot 4)", u"NodeSaveToHii", u"(slot 6)",
    u"SetBIOSPassword", u"(slot 8)", u"NodesToCombinedXMLChar",
};
constexpr UINTN kSlotCount = sizeof(kSlotNames) / sizeof(kSlotNames[0]);
static_assert(8 + 8 * kSlotCount == sizeof(TOLVANE_PROTOCOL), "one name per slot");
// Slots with no operation behind them at all (3, 4, 6 and 8, 1-based).
constexpr bool kReservedSlot[kSlotCount] = {false, false, true, true, false, true, false, true, false};

VOID* slotAt(const TOLVANE_PROTOCOL* record, UINTN index) {
  VOID* slot = nullptr;
  tvl::rt::copyMem(&slot, reinterpret_cast<const UINT8*>(record) + 8 + 8 * index, sizeof slot);
  return slot;
}

// Slots that hold the driver's unsupported operation (the pointer in the
// third slot, which never has an operation) are called with null
// arguments and must answer EFI_UNSUPPORTED; reserved slots must hold it.
void checkSlots(TOLVANE_PROTOCOL* converter, Report& report) {
  VOID* unsupported = slotAt(converter, 2);
  say(u"Operation slots:\r\n");
  for (UINTN i = 0; i < kSlotCount; ++i) {
    VOID* slot = slotAt(converter, i);
    if (!slot) {
      report.check(false, u"slot %d %s is empty", int(i + 1), kSlotNames[i]);
      continue;
    }
    if (slot != unsupported) {
      report.check(!kReservedSlot[i], u"slot %d %s implemented%s", int(i + 1), kSlotNames[i],
                   kReservedSlot[i] ? u", but it is reserved" : u"");
      continue;
    }
    auto call = reinterpret_cast<TOLVANE_UNSUPPORTED>(reinterpret_cast<void (*)()>(slot));
    EFI_STATUS status = call(nullptr, nullptr, nullptr, nullptr, nullptr);
    report.check(status == EFI_UNSUPPORTED, u"slot %d %s unsupported, answers %r", int(i + 1), kSlotNames[i], status);
  }
}

// ---------------------------------------------------------------- XML

// Owns a tree made by the XML service and hands it back to it.
class Tree {
 public:
  explicit Tree(XML_PROTOCOL* xml) : xml_(xml) {}
  ~Tree() {
    if (root_) xml_->XML_FreeNode(xml_, root_);
  }
  Tree(const Tree&) = delete;
  Tree& operator=(const Tree&) = delete;
  XML_NODE* get() const { return root_; }
  XML_NODE** receive() { return &root_; }

 private:
  XML_PROTOCOL* xml_;
  XML_NODE* root_ = nullptr;
};

EFI_STATUS parse(XML_PROTOCOL* xml, const CHAR8* text, Tree& tree, Report& report) {
  XML_PARSE_ERROR error = {};
  EFI_STATUS status = xml->XML_ParseText(xml, text, tvl::rt::length(text), tree.receive(), &error);
  report.check(status == EFI_SUCCESS, u"XML_ParseText %a: %r (line %d column %d %a)", text, status, int(error.Line),
               int(error.Column), error.Message);
  return status;
}

// Serialises `root` and compares the text with `expected`.
void expectText(XML_PROTOCOL* xml, XML_NODE* root, const CHAR8* expected, Report& report) {
  Pool<CHAR8> text;
  EFI_STATUS status = xml->XML_NodeToXML(xml, root, text.receive());
  report.check(status == EFI_SUCCESS && tvl::rt::equal<CHAR8>(text.get(), expected), u"XML_NodeToXML %r: %a", status,
               text ? text.get() : "");
}

void checkXml(XML_PROTOCOL* xml, Report& report) {
  say(u"XML service:\r\n");
  {
    Tree node(xml);
    EFI_STATUS status = xml->XML_CreateNode(xml, "TolvaneCheck", node.receive());
    if (report.check(status == EFI_SUCCESS, u"XML_CreateNode: %r", status))
      expectText(xml, node.get(), "<TolvaneCheck/>", report);
  }
  constexpr CHAR8 kDocument[] = "<a x=\"1 &amp; 2\"><b>t&lt;u</b><c/></a>";
  Tree tree(xml);
  if (!EFI_ERROR(parse(xml, kDocument, tree, report))) expectText(xml, tree.get(), kDocument, report);
}

// Two documents made by the XML service, combined into one text by the
// driver.
void checkCombined(TOLVANE_PROTOCOL* converter, XML_PROTOCOL* xml, Report& report) {
  say(u"NodesToCombinedXMLChar:\r\n");
  Tree first(xml);
  Tree second(xml);
  if (EFI_ERROR(parse(xml, "<ConfigData><ConfigDataEntry n=\"1\"/></ConfigData>", first, report)) ||
      EFI_ERROR(parse(xml, "<ConfigData><ConfigDataEntry n=\"2\"/></ConfigData>", second, report)))
    return;
  Pool<CHAR8> text;
  EFI_STATUS status = converter->NodesToCombinedXMLChar(converter, first.get(), second.get(), text.receive());
  report.check(status == EFI_SUCCESS &&
                   tvl::rt::equal<CHAR8>(text.get(),
                                         "<ConfigData><ConfigDataEntry n=\"1\"/><ConfigDataEntry n=\"2\"/></ConfigData>"),
               u"NodesToCombinedXMLChar %r: %a", status, text ? text.get() : "");
}

// ---------------------------------------------------------------- log

struct CapturedLine {
  UINTN calls;
  UINTN level;
  bool functionMatches;
  CHAR16 line[kLineCharacters];
};

VOID EFIAPI captureLine(VOID* context, UINTN level, const CHAR8* functionName, const CHAR16* line) {
  auto* captured = static_cast<CapturedLine*>(context);
  ++captured->calls;
  captured->level = level;
  captured->functionMatches = tvl::rt::equal<CHAR8>(functionName, kFunctionName);
  UINTN n = tvl::rt::length(line);
  if (n >= kLineCharacters) n = kLineCharacters - 1;
  tvl::rt::copyMem(captured->line, line, n * sizeof(CHAR16));
  captured->line[n] = 0;
}

// A line through a sink first (so the formatting across the image boundary
// is compared), then one to the console, where the log service writes while
// no sink is registered.
void checkLog(DEBUG_LOG_PROTOCOL* log, Report& report) {
  say(u"Log service:\r\n");
  UINTN mask = 0;
  EFI_STATUS status = log->GetLevelMask(log, &mask);
  if (!report.check(status == EFI_SUCCESS, u"GetLevelMask: %r", status)) return;
  log->SetLevelMask(log, ~UINTN(0));
  CapturedLine captured = {};
  status = log->RegisterSink(log, captureLine, &captured);
  if (!report.check(status == EFI_SUCCESS, u"RegisterSink: %r", status)) {
    log->SetLevelMask(log, mask);
    return;
  }
  log->Print(log, TVL_LEVEL_PROGRESS, kFunctionName, u"%a %d 0x%x %X %s %r", "sink", -42, 0xBEEFu, 0xBEEFu, u"line",
             EFI_NOT_FOUND);
  log->UnregisterSink(log, captureLine, &captured);
  log->SetLevelMask(log, mask);
  report.check(captured.calls == 1 && captured.level == TVL_LEVEL_PROGRESS && captured.functionMatches &&
                   tvl::rt::equal<CHAR16>(captured.line, u"sink -42 0xbeef BEEF line Not Found"),
               u"sink received %d line(s): %s", int(captured.calls), captured.line);
  status = log->Print(log, TVL_LEVEL_FAILURE, kFunctionName, u"printed to the console by the log service (%d)\n", 1);
  report.check(status == EFI_SUCCESS, u"Print to the console: %r", status);
}

// ---------------------------------------------------------------- forms

struct FormTotals {
  UINTN handles;
  UINTN parsed;
  UINTN formSets;
  UINTN forms;
  UINTN statements;
};

// Title of a form set in English through the firmware's HII string protocol.
void sayTitle(EFI_HII_STRING_PROTOCOL* strings, EFI_HII_HANDLE handle, EFI_STRING_ID title) {
  if (!strings) return say(u"\r\n");
  Pool<UINT8> text;
  UINTN size = 0;
  EFI_STATUS status = tvl::rt::callWithSizedBuffer(64 * sizeof(CHAR16), text, size, [&](UINT8* buffer, UINTN* bytes) {
    return strings->GetString(strings, "en-US", handle, title, reinterpret_cast<CHAR16*>(buffer), bytes, nullptr);
  });
  if (EFI_ERROR(status)) return say(u" (title: %r)\r\n", status);
  say(u" \"%s\"\r\n", reinterpret_cast<const CHAR16*>(text.get()));
}

void processOne(HII_FORMS_PROCESSOR2_PROTOCOL* forms, EFI_HII_STRING_PROTOCOL* strings, EFI_HII_HANDLE handle,
                FormTotals& totals) {
  UINTN count = 0;
  HII_FORMSET_RECORD** sets = nullptr;
  EFI_STATUS status = forms->ProcessForms(forms, &handle, 1, nullptr, &count, &sets);
  if (EFI_ERROR(status)) {
    HII_FORMS_PROCESSOR_ERROR error = {};
    forms->GetLastError(forms, &error);
    say(u"  handle %p: %r at offset 0x%lx: %a\r\n", handle, status, UINT64(error.Offset), error.Message);
    return;
  }
  UINTN formCount = 0;
  UINTN statementCount = 0;
  for (UINTN s = 0; s < count; ++s) {
    const HII_FORMSET_RECORD* set = sets[s];
    formCount += set->FormCount;
    for (UINTN f = 0; f < set->FormCount; ++f) statementCount += set->Forms[f]->StatementCount;
  }
  say(u"  handle %p: %d form set(s), %d form(s), %d statement(s)\r\n", handle, int(count), int(formCount),
      int(statementCount));
  for (UINTN s = 0; s < count; ++s) {
    say(u"    %g", &sets[s]->Guid);
    sayTitle(strings, handle, sets[s]->FormSetTitle);
  }
  forms->DestroyFormSets(forms, count, sets);
  ++totals.parsed;
  totals.formSets += count;
  totals.forms += formCount;
  totals.statements += statementCount;
}

void checkForms(HII_FORMS_PROCESSOR2_PROTOCOL* forms, EFI_HII_DATABASE_PROTOCOL* database,
                EFI_HII_STRING_PROTOCOL* strings, Report& report) {
  say(u"Forms processor on the firmware's HII database:\r\n");
  UINT32 revision = 0;
  forms->GetRevision(forms, &revision);
  say(u"  revision 0x%x\r\n", revision);
  Pool<UINT8> buffer;
  UINTN size = 0;
  EFI_STATUS status = tvl::rt::callWithSizedBuffer(16 * sizeof(EFI_HII_HANDLE), buffer, size,
                                                   [&](UINT8* handles, UINTN* bytes) {
                                                     return database->ListPackageLists(
                                                         database, EFI_HII_PACKAGE_FORMS, nullptr, bytes,
                                                         reinterpret_cast<EFI_HII_HANDLE*>(handles));
                                                   });
  if (!report.check(status == EFI_SUCCESS, u"ListPackageLists of forms: %r", status)) return;
  FormTotals totals = {};
  totals.handles = size / sizeof(EFI_HII_HANDLE);
  auto* handles = reinterpret_cast<EFI_HII_HANDLE*>(buffer.get());
  for (UINTN i = 0; i < totals.handles; ++i) processOne(forms, strings, handles[i], totals);
  report.check(totals.handles > 0 && totals.parsed == totals.handles,
               u"ProcessForms: %d of %d HII handle(s) parsed: %d form set(s), %d form(s), %d statement(s)",
               int(totals.parsed), int(totals.handles), int(totals.formSets), int(totals.forms),
               int(totals.statements));
}

// ---------------------------------------------------------------- passwords

// The driver binds the newer password service when it finds one at its
// entry, so the shell loads only the older one, which checks old passwords;
// the newer one is loaded here once the applies are done.
PASSWORD2_PROTOCOL* loadNewerService(Report& report) {
  BootDrive drive;
  EFI_HANDLE image = nullptr;
  EFI_STATUS status = drive.open();
  if (!EFI_ERROR(status)) status = drive.startImage(u"\\password2_service.efi", &image);
  PASSWORD2_PROTOCOL* newer = locate<PASSWORD2_PROTOCOL>(gPassword2ProtocolGuid);
  report.check(status == EFI_SUCCESS && newer, u"password service (newer) loaded after the applies: %r", status);
  return newer;
}

// Seconds since midnight by the firmware's clock (its resolution is often a
// whole second).
UINT64 secondsOfDay() {
  EFI_TIME now = {};
  if (EFI_ERROR(tvl::rt::rts()->GetTime(&now, nullptr))) return 0;
  return UINT64(now.Hour) * 3600 + now.Minute * 60 + now.Second;
}

// The system password set through the newer service, checked, refused with
// a wrong old password by the older one and cleared with the right one;
// the firmware's variable store keeps the record in between.
void checkPasswords(PASSWORD2_PROTOCOL* newer, LEGACY_PASSWORD_PROTOCOL* older, Report& report) {
  say(u"Password services:\r\n");
  VOID* rng = nullptr;
  say(u"  salt source: %s\r\n", EFI_ERROR(bs()->LocateProtocol(&gEfiRngProtocolGuid, nullptr, &rng))
                                     ? u"monotonic count and time (no EFI_RNG_PROTOCOL)"
                                     : u"EFI_RNG_PROTOCOL");
  const UINT16 which = PASSWORD_WHICH_SYSTEM;
  UINT64 started = secondsOfDay();
  EFI_STATUS status = newer->ChangePassword(newer, PASSWORD_METHOD_PLAIN, which, u"", u"check-pw", nullptr);
  if (!report.check(status == EFI_SUCCESS, u"newer service sets a password, method 2: %r (about %ld s)", status,
                    secondsOfDay() - started))
    return;
  UINTN size = 0;
  UINT32 attributes = 0;
  status = tvl::rt::rts()->GetVariable(PASSWORD_SYSTEM_VARIABLE, &gPasswordStoreGuid, &attributes, &size, nullptr);
  report.check(status == EFI_BUFFER_TOO_SMALL && size == 128, u"stored record: %r, %d bytes, attributes 0x%x", status,
               int(size), attributes);
  UINT16 bits = 0;
  UINT8 type = 0;
  status = older->GetProperties(older, which, &bits, &type, nullptr, nullptr, nullptr);
  report.check(!EFI_ERROR(status) && bits == EFI_VORK_PASSWORD_INSTALLED,
               u"older service sees it: status 0x%x, type %d: %r", bits, type, status);
  status = older->ChangePassword(older, PASSWORD_METHOD_CHECKED, which, u"wrong", u"other");
  report.check(status == EFI_ACCESS_DENIED, u"older service refuses a wrong old password: %r", status);
  status = older->ChangePassword(older, PASSWORD_METHOD_CHECKED, which, u"check-pw", u"");
  report.check(status == EFI_SUCCESS, u"older service clears it with the right one: %r", status);
  status = newer->GetProperties(newer, which, &bits, &type, nullptr, nullptr, nullptr);
  report.check(!EFI_ERROR(status) && bits == 0, u"no password installed after the clear: status 0x%x: %r", bits,
               status);
}

// ---------------------------------------------------------------- run

void runChecks(Report& report) {
  checkServices(report);

  tvl::check::Services s = {};
  s.converter = locate<TOLVANE_PROTOCOL>(gTolvaneProtocolGuid);
  if (!report.check(s.converter != nullptr, u"converter protocol installed")) return;
  report.check(s.converter->Revision == TOLVANE_PROTOCOL_REVISION, u"converter revision 0x%x", s.converter->Revision);
  checkSlots(s.converter, report);

  s.xml = locate<XML_PROTOCOL>(gXmlProtocolGuid);
  s.log = locate<DEBUG_LOG_PROTOCOL>(gDebugLogProtocolGuid);
  s.forms = locate<HII_FORMS_PROCESSOR2_PROTOCOL>(gHiiFormsProcessor2ProtocolGuid);
  s.location = locate<DEVICE_LOCATION_PROTOCOL>(gDeviceLocationProtocolGuid);
  s.database = locate<EFI_HII_DATABASE_PROTOCOL>(gEfiHiiDatabaseProtocolGuid);
  s.strings = locate<EFI_HII_STRING_PROTOCOL>(gEfiHiiStringProtocolGuid);
  s.pathText = locate<EFI_DEVICE_PATH_TO_TEXT_PROTOCOL>(gEfiDevicePathToTextProtocolGuid);
  if (s.xml) {
    checkXml(s.xml, report);
    checkCombined(s.converter, s.xml, report);
  }
  if (s.log) checkLog(s.log, report);
  if (tvl::check::isSecondBoot()) {
    if (s.xml && s.location && s.database) tvl::check::runSecondBoot(s, report);
    return;
  }
  if (s.forms && s.database) checkForms(s.forms, s.database, s.strings, report);
  // The service checks above said what is missing.
  if (s.xml && s.forms && s.location && s.database && s.strings) {
    tvl::check::runExports(s, report);
    tvl::check::runApplies(s, report);
  }
  auto* older = locate<LEGACY_PASSWORD_PROTOCOL>(gLegacyPasswordProtocolGuid);
  auto* newer = older ? loadNewerService(report) : nullptr;
  if (newer && older) checkPasswords(newer, older, report);
}

}  // namespace

extern "C" EFI_STATUS EFIAPI EfiMain(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  tvl::rt::initialize(imageHandle, systemTable);
  say(u"\r\nTolvane check in %s (revision 0x%x)\r\n", systemTable->FirmwareVendor, systemTable->FirmwareRevision);
  Report report;
  runChecks(report);
  report.verdict();
  tvl::rt::rts()->ResetSystem(EfiResetShutdown, EFI_SUCCESS, 0, nullptr);
  return report.failed() ? EFI_ABORTED : EFI_SUCCESS;
}
