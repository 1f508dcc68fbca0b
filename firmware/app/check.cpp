// tolvane_check: a UEFI application that the firmware's shell runs after the
// service images and the driver have been loaded. It checks what they
// installed, exercises the XML service, the log service, the forms
// processor (on the firmware's own HII database) and both password services
// (on the firmware's own variable store), prints what it finds,
// ends with one verdict line and shuts the machine down.
#include "export/records/records.h"
#include "uefi/print.h"
#include "uefi/runtime.h"
#include "uefi/services.h"

using tvl::rt::bs;
using tvl::rt::Pool;

namespace {


constexpr UINTN kLineCharacters = 256;
constexpr CHAR8 kFunctionName[] = "TolvaneCheck";

// ---------------------------------------------------------------- output

void EFIAPI say(const CHAR16* format, ...) {
  CHAR16 line[kLineCharacters];
  tvl::rt::VaList args;
  __builtin_ms_va_start(args, format);
  tvl::rt::formatV(line, kLineCharacters, format, &args);
  __builtin_ms_va_end(args);
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* out = tvl::rt::gImage.systemTable->ConOut;
  if (out) out->OutputString(out, line);
}

// The first failure decides the verdict; every later check still runs so
// that one run shows everything that is wrong.
struct Verdict {
  const CHAR8* failure = nullptr;
  void fail(const CHAR8* reason) {
    if (!failure) failure = reason;
    say(u"  FAILED: %a\r\n", reason);
  }
};

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
  const CHAR8* missing;
};

constexpr ServiceEntry kServices[] = {
    {u"log service", DEBUG_LOG_PROTOCOL_GUID, "log service not installed"},
    {u"XML service", XML_PROTOCOL_GUID, "XML service not installed"},
    {u"forms processor", HII_FORMS_PROCESSOR2_PROTOCOL_GUID, "forms processor not installed"},
    {u"device location service", DEVICE_LOCATION_PROTOCOL_GUID, "device location service not installed"},
    {u"password service (newer)", PASSWORD2_PROTOCOL_GUID, "newer password service not installed"},
    {u"password service (older)", LEGACY_PASSWORD_PROTOCOL_GUID, "older password service not installed"},
    {u"HII database (firmware)", EFI_HII_DATABASE_PROTOCOL_GUID, "firmware has no HII database"},
    {u"HII string (firmware)", EFI_HII_STRING_PROTOCOL_GUID, "firmware has no HII string protocol"},
};

void checkServices(Verdict& verdict) {
  say(u"Services:\r\n");
  for (const ServiceEntry& s : kServices) {
    UINTN count = 0;
    Pool<EFI_HANDLE> handles;
    EFI_STATUS status = bs()->LocateHandleBuffer(ByProtocol, &s.guid, nullptr, &count, handles.receive());
    if (EFI_ERROR(status)) count = 0;
    say(u"  %-26s %g  %s\r\n", s.name, &s.guid, count ? u"installed" : u"missing");
    if (!count) verdict.fail(s.missing);
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
// arguments and must answer EFI_UNSUPPORTED.
void checkSlots(TOLVANE_PROTOCOL* converter, Verdict& verdict) {
  VOID* unsupported = slotAt(converter, 2);
  say(u"Operation slots:\r\n");
  for (UINTN i = 0; i < kSlotCount; ++i) {
    VOID* slot = slotAt(converter, i);
    if (!slot) {
      say(u"  %d %-24s empty\r\n", int(i + 1), kSlotNames[i]);
      verdict.fail("empty converter slot");
      continue;
    }
    if (slot != unsupported) {
      say(u"  %d %-24s implemented\r\n", int(i + 1), kSlotNames[i]);
      if (kReservedSlot[i]) verdict.fail("a reserved converter slot is not the unsupported operation");
      continue;
    }
    auto call = reinterpret_cast<TOLVANE_UNSUPPORTED>(reinterpret_cast<void (*)()>(slot));
    EFI_STATUS status = call(nullptr, nullptr, nullptr, nullptr, nullptr);
    say(u"  %d %-24s unsupported, answers %r\r\n", int(i + 1), kSlotNames[i], status);
    if (status != EFI_UNSUPPORTED) verdict.fail("an unsupported slot does not answer EFI_UNSUPPORTED");
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

EFI_STATUS parse(XML_PROTOCOL* xml, const CHAR8* text, Tree& tree) {
  XML_PARSE_ERROR error = {};
  EFI_STATUS status = xml->XML_ParseText(xml, text, tvl::rt::length(text), tree.receive(), &error);
  if (EFI_ERROR(status))
    say(u"  parse %r at line %d column %d: %a\r\n", status, int(error.Line), int(error.Column), error.Message);
  return status;
}

// Serialises `root` and compares the text with `expected`.
void expectText(XML_PROTOCOL* xml, XML_NODE* root, const CHAR8* expected, const CHAR8* failure, Verdict& verdict) {
  Pool<CHAR8> text;
  EFI_STATUS status = xml->XML_NodeToXML(xml, root, text.receive());
  say(u"  %r: %a\r\n", status, text ? text.get() : "");
  if (EFI_ERROR(status) || !tvl::rt::equal<CHAR8>(text.get(), expected)) verdict.fail(failure);
}

void checkXml(XML_PROTOCOL* xml, Verdict& verdict) {
  say(u"XML service:\r\n");
  {
    Tree node(xml);
    EFI_STATUS status = xml->XML_CreateNode(xml, "TolvaneCheck", node.receive());
    say(u"  CreateNode %r\r\n", status);
    if (EFI_ERROR(status)) return verdict.fail("XML CreateNode failed");
    expectText(xml, node.get(), "<TolvaneCheck/>", "XML serialisation of a new node differs", verdict);
  }
  constexpr CHAR8 kDocument[] = "<a x=\"1 &amp; 2\"><b>t&lt;u</b><c/></a>";
  Tree tree(xml);
  if (EFI_ERROR(parse(xml, kDocument, tree))) return verdict.fail("XML ParseText failed");
  expectText(xml, tree.get(), kDocument, "XML parse and serialise round trip differs", verdict);
}

// The one operation the driver implements so far: two documents made by the
// XML service, combined into one text by the driver.
void checkCombined(TOLVANE_PROTOCOL* converter, XML_PROTOCOL* xml, Verdict& verdict) {
  if (slotAt(converter, 8) == slotAt(converter, 2)) return;
  say(u"NodesToCombinedXMLChar:\r\n");
  Tree first(xml);
  Tree second(xml);
  if (EFI_ERROR(parse(xml, "<ConfigData><ConfigDataEntry n=\"1\"/></ConfigData>", first)) ||
      EFI_ERROR(parse(xml, "<ConfigData><ConfigDataEntry n=\"2\"/></ConfigData>", second)))
    return verdict.fail("XML ParseText failed");
  Pool<CHAR8> text;
  EFI_STATUS status = converter->NodesToCombinedXMLChar(converter, first.get(), second.get(), text.receive());
  say(u"  %r: %a\r\n", status, text ? text.get() : "");
  if (EFI_ERROR(status) ||
      !tvl::rt::equal<CHAR8>(text.get(),
                             "<ConfigData><ConfigDataEntry n=\"1\"/><ConfigDataEntry n=\"2\"/></ConfigData>"))
    verdict.fail("combined document differs");
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
void checkLog(DEBUG_LOG_PROTOCOL* log, Verdict& verdict) {
  say(u"Log service:\r\n");
  UINTN mask = 0;
  if (EFI_ERROR(log->GetLevelMask(log, &mask))) return verdict.fail("log GetLevelMask failed");
  log->SetLevelMask(log, ~UINTN(0));
  CapturedLine captured = {};
  EFI_STATUS status = log->RegisterSink(log, captureLine, &captured);
  if (EFI_ERROR(status)) {
    log->SetLevelMask(log, mask);
    return verdict.fail("log RegisterSink failed");
  }
  log->Print(log, TVL_LEVEL_PROGRESS, kFunctionName, u"%a %d 0x%x %X %s %r", "sink", -42, 0xBEEFu, 0xBEEFu, u"line",
             EFI_NOT_FOUND);
  log->UnregisterSink(log, captureLine, &captured);
  log->SetLevelMask(log, mask);
  say(u"  sink received %d line(s): %s\r\n", int(captured.calls), captured.line);
  if (captured.calls != 1 || captured.level != TVL_LEVEL_PROGRESS || !captured.functionMatches ||
      !tvl::rt::equal<CHAR16>(captured.line, u"sink -42 0xbeef BEEF line Not Found"))
    verdict.fail("log line through a sink differs");
  status = log->Print(log, TVL_LEVEL_FAILURE, kFunctionName, u"printed to the console by the log service (%d)\n", 1);
  if (EFI_ERROR(status)) verdict.fail("log Print to the console failed");
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
                EFI_HII_STRING_PROTOCOL* strings, Verdict& verdict) {
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
  if (EFI_ERROR(status)) {
    say(u"  ListPackageLists %r\r\n", status);
    return verdict.fail("ListPackageLists failed");
  }
  FormTotals totals = {};
  totals.handles = size / sizeof(EFI_HII_HANDLE);
  auto* handles = reinterpret_cast<EFI_HII_HANDLE*>(buffer.get());
  for (UINTN i = 0; i < totals.handles; ++i) processOne(forms, strings, handles[i], totals);
  say(u"  %d of %d HII handle(s) parsed: %d form set(s), %d form(s), %d statement(s)\r\n", int(totals.parsed),
      int(totals.handles), int(totals.formSets), int(totals.forms), int(totals.statements));
  if (totals.handles == 0) verdict.fail("the firmware lists no package list with forms");
  if (totals.parsed == 0) verdict.fail("no form package list of the firmware parsed");
}

// ---------------------------------------------------------------- passwords

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
void checkPasswords(PASSWORD2_PROTOCOL* newer, LEGACY_PASSWORD_PROTOCOL* older, Verdict& verdict) {
  say(u"Password services:\r\n");
  VOID* rng = nullptr;
  say(u"  salt source: %s\r\n", EFI_ERROR(bs()->LocateProtocol(&gEfiRngProtocolGuid, nullptr, &rng))
                                     ? u"monotonic count and time (no EFI_RNG_PROTOCOL)"
                                     : u"EFI_RNG_PROTOCOL");
  const UINT16 which = PASSWORD_WHICH_SYSTEM;
  UINT64 started = secondsOfDay();
  EFI_STATUS status = newer->ChangePassword(newer, PASSWORD_METHOD_PLAIN, which, u"", u"check-pw", nullptr);
  say(u"  newer service, method 2: %r (about %ld s)\r\n", status, secondsOfDay() - started);
  if (EFI_ERROR(status)) return verdict.fail("the newer password service does not set a password");
  UINTN size = 0;
  UINT32 attributes = 0;
  status = tvl::rt::rts()->GetVariable(PASSWORD_SYSTEM_VARIABLE, &gPasswordStoreGuid, &attributes, &size, nullptr);
  say(u"  stored record: %r, %d bytes, attributes 0x%x\r\n", status, int(size), attributes);
  if (status != EFI_BUFFER_TOO_SMALL || size != 128) verdict.fail("no password record in the variable store");
  UINT16 bits = 0;
  UINT8 type = 0;
  status = older->GetProperties(older, which, &bits, &type, nullptr, nullptr, nullptr);
  say(u"  older service sees status 0x%x, type %d: %r\r\n", bits, type, status);
  if (EFI_ERROR(status) || bits != EFI_VORK_PASSWORD_INSTALLED) verdict.fail("the older service does not see it");
  status = older->ChangePassword(older, PASSWORD_METHOD_CHECKED, which, u"wrong", u"other");
  say(u"  older service, wrong old password: %r\r\n", status);
  if (status != EFI_ACCESS_DENIED) verdict.fail("a wrong old password is not refused");
  status = older->ChangePassword(older, PASSWORD_METHOD_CHECKED, which, u"check-pw", u"");
  say(u"  older service, clear with the right one: %r\r\n", status);
  if (EFI_ERROR(status)) verdict.fail("the older password service does not clear");
  status = newer->GetProperties(newer, which, &bits, &type, nullptr, nullptr, nullptr);
  if (EFI_ERROR(status) || bits != 0) verdict.fail("the password is still installed after the clear");
}

// ---------------------------------------------------------------- run

void runChecks(Verdict& verdict) {
  checkServices(verdict);

  auto* converter = locate<TOLVANE_PROTOCOL>(gTolvaneProtocolGuid);
  if (!converter) return verdict.fail("converter protocol not installed");
  say(u"Converter protocol revision 0x%x\r\n", converter->Revision);
  if (converter->Revision != TOLVANE_PROTOCOL_REVISION) verdict.fail("unexpected converter revision");
  checkSlots(converter, verdict);

  auto* xml = locate<XML_PROTOCOL>(gXmlProtocolGuid);
  if (xml) {
    checkXml(xml, verdict);
    checkCombined(converter, xml, verdict);
  }
  auto* log = locate<DEBUG_LOG_PROTOCOL>(gDebugLogProtocolGuid);
  if (log) checkLog(log, verdict);
  auto* forms = locate<HII_FORMS_PROCESSOR2_PROTOCOL>(gHiiFormsProcessor2ProtocolGuid);
  auto* database = locate<EFI_HII_DATABASE_PROTOCOL>(gEfiHiiDatabaseProtocolGuid);
  if (forms && database) checkForms(forms, database, locate<EFI_HII_STRING_PROTOCOL>(gEfiHiiStringProtocolGuid), verdict);
  auto* newer = locate<PASSWORD2_PROTOCOL>(gPassword2ProtocolGuid);
  auto* older = locate<LEGACY_PASSWORD_PROTOCOL>(gLegacyPasswordProtocolGuid);
  if (newer && older) checkPasswords(newer, older, verdict);
}

}  // namespace

extern "C" EFI_STATUS EFIAPI EfiMain(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  tvl::rt::initialize(imageHandle, systemTable);
  say(u"\r\nTolvane check in %s (revision 0x%x)\r\n", systemTable->FirmwareVendor, systemTable->FirmwareRevision);
  Verdict verdict;
  runChecks(verdict);
  if (verdict.failure)
    say(u"TOLVANE-CHECK: FAIL %a\r\n", verdict.failure);
  else
    say(u"TOLVANE-CHECK: PASS\r\n");
  tvl::rt::rts()->ResetSystem(EfiResetShutdown, EFI_SUCCESS, 0, nullptr);
  return verdict.failure ? EFI_ABORTED : EFI_SUCCESS;
}
