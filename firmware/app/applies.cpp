#include "firmware/app/applies.h"

#include "firmware/app/boot_drive.h"

namespace tvl::check {
namespace {

using rt::bs;
using rt::Pool;

constexpr CHAR16 kSecondBootFile[] = u"\\second.boot";
constexpr CHAR16 kSampleImageFile[] = u"\\sample_devices.efi";
constexpr CHAR16 kAppliedFile[] = u"\\out\\applied.txt";
constexpr CHAR16 kApplyTraceFile[] = u"\\out\\apply-traces.txt";
constexpr CHAR16 kBiosFqdd[] = u"BIOS.InternalSetup.1-1";
constexpr UINTN kMaxPath = 160;

// The device path of the driver of OVMF's platform configuration forms.
struct VendorPath {
  UINT8 type, subType, length[2];
  EFI_GUID guid;
  UINT8 endType, endSubType, endLength[2];
};
static_assert(sizeof(VendorPath) == 24, "vendor node and end node");
constexpr VendorPath kOvmfPlatformPath = {
    HARDWARE_DEVICE_PATH, HW_VENDOR_DP, {20, 0},
    {0xd9dcc5df, 0x4007, 0x435e, {0x90, 0x98, 0x89, 0x70, 0x93, 0x55, 0x04, 0xb2}},
    END_DEVICE_PATH_TYPE, END_ENTIRE_DEVICE_PATH_SUBTYPE, {4, 0}};

// A call that the step must not make.
constexpr EFI_STATUS kNotCalled = ~EFI_STATUS(0);

enum class Target { SampleBios, OvmfPlatform };

struct Record {
  const CHAR8* name;
  const CHAR8* status;
  const CHAR8* code;
};

struct Value {
  const CHAR8* item;
  const CHAR8* value;
};

// One pending document and what applying it must give. The same documents
// go through `tolvane apply` on the host, which must write the same
// ConfigResults bytes.
struct Step {
  const CHAR16* name;  // \apply\<name>.xml
  Target target;
  EFI_STATUS password, import, save;  // what SetBIOSPassword, NodeToHii and NodeSaveToHii answer
  const Record* records;  // the ConfigResults records, in order
  UINTN recordCount;
  const Value* values;  // in the device's next export
  UINTN valueCount;
  const CHAR8* unchanged;  // an item whose value the step must leave as it was
  int setupPasswordInstalled;  // afterwards, by the password service: 1, 0; -1 not asked
};

constexpr Record kSettingsRecords[] = {
    {"ProcPwrLimit", "Success", "0"}, {"MemTest", "Success", "0"},   {"AssetTag", "Success", "0"},
    {"TpmSecurity", "Success", "0"},  {"MemOpMode", "Success", "0"}, {"BootMode", "Failure", "101"},
};
constexpr Value kSettingsValues[] = {
    {"ProcPwrLimit", "200"}, {"MemTest", "true"}, {"AssetTag", "FW-APPLY"},
    {"TpmSecurity", "Off"},  {"MemOpMode", "FaultResilientMode"},
};
constexpr Record kThermalRecords[] = {{"FanSpeedOffset", "Success", "0"}};
// The thermal store's driver refuses a zero over both bytes; the one-byte
// retry clears the offset and leaves the fan table (0x02 in the high byte).
constexpr Value kThermalValues[] = {{"FanSpeedOffset", "512"}};
constexpr Record kPasswordChanged[] = {{"SetupPassword", "Success", "0"}, {"OldSetupPassword", "Success", "0"}};
constexpr Record kPasswordRefused[] = {{"SetupPassword", "Failure", "603"}};
constexpr Record kOvmfRecords[] = {{"Change Preferred Resolution for Next Boot", "Failure", "101"}};

#define ENTRIES(a) a, sizeof(a) / sizeof(a[0])

constexpr Step kSteps[] = {
    {u"01-bios-settings", Target::SampleBios, kNotCalled, EFI_ABORTED, EFI_SUCCESS, ENTRIES(kSettingsRecords),
     ENTRIES(kSettingsValues), "BootMode", -1},
    {u"02-bios-thermal", Target::SampleBios, kNotCalled, EFI_SUCCESS, EFI_SUCCESS, ENTRIES(kThermalRecords),
     ENTRIES(kThermalValues), nullptr, -1},
    {u"03-password-set", Target::SampleBios, EFI_SUCCESS, EFI_SUCCESS, kNotCalled, ENTRIES(kPasswordChanged),
     nullptr, 0, nullptr, 1},
    {u"04-password-wrong-old", Target::SampleBios, EFI_ABORTED, EFI_SUCCESS, kNotCalled, ENTRIES(kPasswordRefused),
     nullptr, 0, nullptr, 1},
    {u"05-password-right-old", Target::SampleBios, EFI_SUCCESS, EFI_SUCCESS, kNotCalled, ENTRIES(kPasswordChanged),
     nullptr, 0, nullptr, 1},
    {u"06-password-clear", Target::SampleBios, EFI_SUCCESS, EFI_SUCCESS, kNotCalled, ENTRIES(kPasswordChanged),
     nullptr, 0, nullptr, 0},
    // OVMF's strings exist in "en-US" only, so no option has the name the
    // document gives: refused, and nothing is written.
    {u"07-ovmf-platform", Target::OvmfPlatform, kNotCalled, EFI_DEVICE_ERROR, kNotCalled, ENTRIES(kOvmfRecords),
     nullptr, 0, "Change Preferred Resolution for Next Boot", -1},
};

// The passwords of the documents above, as typed and as the documents carry
// them (Base64); none may appear in anything the application writes. The
// older service lower-cases passwords, so they are looked for in any case.
constexpr const CHAR8* kSecrets[] = {"Fw-Pass1", "Fw-Pass2", "Not-It", "RnctUGFzczE=", "RnctUGFzczI=", "Tm90LUl0"};

// Frees a tree through the XML service when it goes out of scope.
class Tree {
 public:
  explicit Tree(XML_PROTOCOL* xml) : xml_(xml) {}
  ~Tree() { reset(); }
  Tree(const Tree&) = delete;
  Tree& operator=(const Tree&) = delete;
  void reset() {
    if (root_) xml_->XML_FreeNode(xml_, root_);
    root_ = nullptr;
  }
  XML_NODE* get() const { return root_; }
  XML_NODE** receive() { return &root_; }

 private:
  XML_PROTOCOL* xml_;
  XML_NODE* root_ = nullptr;
};

const XML_NODE* child(const XML_NODE* node, const CHAR8* name) {
  for (const XML_NODE* c = node ? node->children : nullptr; c; c = c->next)
    if (c->name && rt::equal<CHAR8>(c->name, name)) return c;
  return nullptr;
}

const CHAR8* text(const XML_NODE* node) { return node && node->contents ? node->contents : ""; }

// Document order below a root, with the path kept here: the walk does not
// rely on the nodes' parent links, which not every node maker sets.
class Walk {
 public:
  explicit Walk(const XML_NODE* root) : node_(root) {}
  const XML_NODE* get() const { return node_; }
  // The next node; `descend` false passes over the children of this one.
  void next(bool descend = true) {
    if (descend && node_->children && depth_ < kMaxDepth) {
      path_[depth_++] = node_;
      node_ = node_->children;
      return;
    }
    while (depth_ > 0 && !node_->next) node_ = path_[--depth_];
    node_ = depth_ > 0 ? node_->next : nullptr;
  }

 private:
  static constexpr UINTN kMaxDepth = 32;
  const XML_NODE* node_;
  const XML_NODE* path_[kMaxDepth] = {};
  UINTN depth_ = 0;
};

// The first Value of the ConfigItem named `item`, or null.
const CHAR8* valueOf(const XML_NODE* root, const CHAR8* item) {
  for (Walk walk(root); walk.get(); walk.next()) {
    const XML_NODE* node = walk.get();
    if (!node->name || !rt::equal<CHAR8>(node->name, "ConfigItem")) continue;
    if (!node->children || !rt::equal<CHAR8>(text(node->children), item)) continue;
    for (Walk inner(node); inner.get(); inner.next())
      if (inner.get()->name && rt::equal<CHAR8>(inner.get()->name, "Value")) return text(inner.get());
    return "";
  }
  return nullptr;
}

// Whether a password item has a pending change: a CommitIndex other than
// 0, or one without contents (SetBIOSPassword counts that as pending too).
bool hasPendingPassword(const XML_NODE* root) {
  constexpr const CHAR8* kItems[] = {"SetupPassword", "SysPassword", "SHA256SetupPassword", "SHA256SystemPassword"};
  for (Walk walk(root); walk.get(); walk.next()) {
    const XML_NODE* node = walk.get();
    if (!node->name || !rt::equal<CHAR8>(node->name, "ConfigItem") || !node->children) continue;
    const XML_NODE* index = child(node, "CommitIndex");
    if (!index) continue;
    for (const CHAR8* item : kItems)
      if (rt::equal<CHAR8>(text(node->children), item) &&
          (!index->contents || !rt::equal<CHAR8>(index->contents, "0")))
        return true;
  }
  return false;
}

CHAR8 lower(CHAR8 c) { return c >= 'A' && c <= 'Z' ? CHAR8(c - 'A' + 'a') : c; }

bool containsIgnoringCase(const CHAR8* haystack, UINTN size, const CHAR8* needle) {
  const UINTN n = rt::length(needle);
  for (UINTN at = 0; n && at + n <= size; ++at) {
    UINTN i = 0;
    while (i < n && lower(haystack[at + i]) == lower(needle[i])) ++i;
    if (i == n) return true;
  }
  return false;
}

void outFile(CHAR16 (&path)[kMaxPath], const CHAR16* name, const CHAR16* suffix) {
  format(path, kMaxPath, u"\\out\\%s%s", name, suffix);
}

VOID EFIAPI keepTrace(VOID* context, UINTN, const CHAR8* function, const CHAR16* line) {
  auto* traces = static_cast<Text*>(context);
  traces->add("%a: ", function ? function : "(unnamed)");
  traces->addNarrow(line ? line : u"");
  if (traces->size() && traces->get()[traces->size() - 1] != '\n') traces->add("\n");
}

struct Device {
  EFI_HANDLE handle = nullptr;
  Pool<CHAR16> fqdd;
};

// The driver handle that owns forms and has the location text `fqdd` or
// the device path `path`.
EFI_STATUS findDevice(const Services& s, const CHAR16* fqdd, const VOID* path, UINTN pathSize, Device& device) {
  UINTN size = 0;
  Pool<UINT8> buffer;
  RETURN_IF_ERROR(rt::callWithSizedBuffer(16 * sizeof(EFI_HII_HANDLE), buffer, size, [&](UINT8* handles, UINTN* bytes) {
    return s.database->ListPackageLists(s.database, EFI_HII_PACKAGE_FORMS, nullptr, bytes,
                                        reinterpret_cast<EFI_HII_HANDLE*>(handles));
  }));
  auto* lists = reinterpret_cast<EFI_HII_HANDLE*>(buffer.get());
  for (UINTN i = 0; i < size / sizeof(EFI_HII_HANDLE); ++i) {
    EFI_HANDLE driver = nullptr;
    EFI_DEVICE_PATH_PROTOCOL* devicePath = nullptr;
    if (EFI_ERROR(s.database->GetPackageListHandle(s.database, lists[i], &driver)) || !driver ||
        EFI_ERROR(bs()->HandleProtocol(driver, &gEfiDevicePathProtocolGuid, reinterpret_cast<VOID**>(&devicePath))))
      continue;
    if (path && rt::compareMem(devicePath, path, pathSize) != 0) continue;
    Pool<CHAR16> description, location, shown;
    if (EFI_ERROR(s.location->DevicePathToLocationText(s.location, devicePath, "en-US", description.receive(),
                                                       location.receive(), shown.receive())) ||
        !location)
      continue;
    if (fqdd && !rt::equal<CHAR16>(location.get(), fqdd)) continue;
    device.handle = driver;
    device.fqdd = static_cast<Pool<CHAR16>&&>(location);
    return EFI_SUCCESS;
  }
  return EFI_NOT_FOUND;
}

EFI_STATUS findBios(const Services& s, Device& device) { return findDevice(s, kBiosFqdd, nullptr, 0, device); }

// The device's current values, as a tree and as the text of the combined
// document.
EFI_STATUS exportCurrent(const Services& s, EFI_HANDLE device, Tree& current, Text& document) {
  Tree possible(s.xml);
  RETURN_IF_ERROR(s.converter->HiiToNode(s.converter, device, possible.receive(), current.receive()));
  Pool<CHAR8> combined;
  RETURN_IF_ERROR(s.converter->NodesToCombinedXMLChar(s.converter, possible.get(), current.get(), combined.receive()));
  document.addRaw(combined.get(), rt::length(combined.get()));
  document.add("\n");
  return document.failed() ? EFI_OUT_OF_RESOURCES : EFI_SUCCESS;
}

struct Applier {
  const Services& services;
  Report& report;
  BootDrive drive;
  Device bios, ovmf;
  Text applied;  // one line per step: name, target, FQDD
  Text written;  // every document written, for the password search

  Applier(const Services& s, Report& r) : services(s), report(r) {}

  EFI_STATUS write(const CHAR16* path, const Text& document) {
    written.addRaw(document.get(), document.size());
    return document.failed() ? EFI_OUT_OF_RESOURCES : drive.write(path, document.get(), document.size());
  }
};

// What one step's calls answered.
struct Calls {
  EFI_STATUS password = kNotCalled, import = kNotCalled, save = kNotCalled;
};

// The calls of `tolvane apply`: SetBIOSPassword first when a password item
// is pending, then NodeToHii, then NodeSaveToHii with the request when the
// import judged every item (success, or failures beside accepted values).
Calls apply(const Services& s, EFI_HANDLE device, XML_NODE* pending, Tree& results) {
  Calls calls;
  if (hasPendingPassword(pending)) calls.password = s.converter->SetBIOSPassword(s.converter, pending, results.receive());
  Pool<CHAR16> request;
  calls.import = s.converter->NodeToHii(s.converter, device, pending, request.receive(), results.receive());
  const bool judged = calls.import == EFI_SUCCESS || calls.import == EFI_DEVICE_ERROR || calls.import == EFI_ABORTED;
  if (request && judged) calls.save = s.converter->NodeSaveToHii(s.converter, device, request.get(), results.receive());
  return calls;
}

void checkRecords(Applier& a, const Step& step, const XML_NODE* results) {
  UINTN count = 0;
  bool same = true;
  for (const XML_NODE* op = results ? results->children : nullptr; op; op = op->next, ++count) {
    const CHAR8* name = text(child(op, "Name"));
    const CHAR8* status = text(child(op, "Status"));
    const CHAR8* code = text(child(op, "ErrorCode"));
    const bool expected = count < step.recordCount && rt::equal<CHAR8>(name, step.records[count].name) &&
                          rt::equal<CHAR8>(status, step.records[count].status) &&
                          rt::equal<CHAR8>(code, step.records[count].code);
    if (!expected) say(u"    unexpected record %d: %a %a %a\r\n", int(count + 1), name, status, code);
    same = same && expected;
  }
  a.report.check(same && count == step.recordCount, u"%s: ConfigResults holds %d record(s) of %d expected", step.name,
                 int(count), int(step.recordCount));
}

void runStep(Applier& a, const Step& step, LEGACY_PASSWORD_PROTOCOL* older) {
  const Services& s = a.services;
  Device& device = step.target == Target::SampleBios ? a.bios : a.ovmf;
  say(u"Apply %s to %s:\r\n", step.name, device.fqdd.get());
  CHAR16 path[kMaxPath];
  format(path, kMaxPath, u"\\apply\\%s.xml", step.name);
  Pool<UINT8> input;
  UINTN size = 0;
  EFI_STATUS status = a.drive.read(path, input, size);
  if (!a.report.check(status == EFI_SUCCESS, u"%s read: %r", path, status)) return;
  Tree pending(s.xml);
  XML_PARSE_ERROR error = {};
  status = s.xml->XML_ParseText(s.xml, reinterpret_cast<const CHAR8*>(input.get()), size, pending.receive(), &error);
  if (!a.report.check(status == EFI_SUCCESS, u"%s parsed: %r (line %d: %a)", path, status, int(error.Line),
                      error.Message))
    return;

  // The value that the step must leave alone, before it.
  Pool<CHAR8> before;
  if (step.unchanged) {
    Tree current(s.xml);
    Text ignored;
    if (!EFI_ERROR(exportCurrent(s, device.handle, current, ignored))) {
      const CHAR8* value = valueOf(current.get(), step.unchanged);
      if (value) before = rt::duplicate(value);
    }
  }

  Tree results(s.xml);
  const Calls calls = apply(s, device.handle, pending.get(), results);
  a.report.check(calls.password == step.password && calls.import == step.import && calls.save == step.save,
                 u"%s: SetBIOSPassword %r, NodeToHii %r, NodeSaveToHii %r", step.name, calls.password, calls.import,
                 calls.save);

  // The results document as `tolvane apply -o` writes it: an empty
  // ConfigResults when nothing was recorded.
  Tree empty(s.xml);
  XML_NODE* root = results.get();
  if (!root && !EFI_ERROR(s.xml->XML_CreateNode(s.xml, "ConfigResults", empty.receive()))) root = empty.get();
  Pool<CHAR8> serialised;
  status = root ? s.xml->XML_NodeToXML(s.xml, root, serialised.receive()) : EFI_OUT_OF_RESOURCES;
  Text document;
  if (serialised) {
    document.addRaw(serialised.get(), rt::length(serialised.get()));
    document.add("\n");
  }
  outFile(path, step.name, u".results.xml");
  if (!EFI_ERROR(status)) status = a.write(path, document);
  a.report.check(status == EFI_SUCCESS, u"%s: %d bytes to %s: %r", step.name, int(document.size()), path, status);
  checkRecords(a, step, results.get());

  // What reached the device: its next export.
  Tree current(s.xml);
  Text after;
  status = exportCurrent(s, device.handle, current, after);
  outFile(path, step.name, u".after.xml");
  if (!EFI_ERROR(status)) status = a.write(path, after);
  if (!a.report.check(status == EFI_SUCCESS, u"%s: exported again to %s: %r", step.name, path, status)) return;
  for (UINTN i = 0; i < step.valueCount; ++i) {
    const CHAR8* value = valueOf(current.get(), step.values[i].item);
    a.report.check(value && rt::equal<CHAR8>(value, step.values[i].value), u"%s: %a is %a (expected %a)", step.name,
                   step.values[i].item, value ? value : "(missing)", step.values[i].value);
  }
  if (step.unchanged) {
    const CHAR8* value = valueOf(current.get(), step.unchanged);
    a.report.check(before && value && rt::equal<CHAR8>(value, before.get()), u"%s: %a unchanged: %a (before: %a)",
                   step.name, step.unchanged, value ? value : "(missing)", before ? before.get() : "(missing)");
  }
  if (step.setupPasswordInstalled >= 0 && older) {
    UINT16 bits = 0;
    UINT8 type = 0;
    status = older->GetProperties(older, PASSWORD_WHICH_SETUP, &bits, &type, nullptr, nullptr, nullptr);
    const int installed = (bits & EFI_VORK_PASSWORD_INSTALLED) ? 1 : 0;
    a.report.check(status == EFI_SUCCESS && installed == step.setupPasswordInstalled,
                   u"%s: setup password %s by the older service: %r", step.name,
                   installed ? u"installed" : u"not installed", status);
  }
  a.applied.addNarrow(step.name);
  a.applied.add("\t%a\t", step.target == Target::SampleBios ? "sample" : "ovmf");
  a.applied.addNarrow(device.fqdd.get());
  a.applied.add("\n");
}

}  // namespace

bool isSecondBoot() {
  BootDrive drive;
  Pool<UINT8> marker;
  UINTN size = 0;
  return !EFI_ERROR(drive.open()) && !EFI_ERROR(drive.read(kSecondBootFile, marker, size));
}

void runApplies(const Services& s, Report& report) {
  say(u"Applies in firmware:\r\n");
  Applier a(s, report);
  EFI_STATUS status = a.drive.open();
  if (!report.check(status == EFI_SUCCESS, u"boot drive opened: %r", status)) return;
  status = findBios(s, a.bios);
  report.check(status == EFI_SUCCESS, u"sample BIOS %s found: %r", kBiosFqdd, status);
  EFI_STATUS ovmf = findDevice(s, nullptr, &kOvmfPlatformPath, sizeof kOvmfPlatformPath, a.ovmf);
  report.check(ovmf == EFI_SUCCESS, u"OVMF platform configuration found: %r %s", ovmf,
               a.ovmf.fqdd ? a.ovmf.fqdd.get() : u"");
  auto* older = [] {
    VOID* interface = nullptr;
    bs()->LocateProtocol(&gLegacyPasswordProtocolGuid, nullptr, &interface);
    return static_cast<LEGACY_PASSWORD_PROTOCOL*>(interface);
  }();
  report.check(older != nullptr, u"older password service present for SetBIOSPassword");

  DEBUG_LOG_PROTOCOL* log = s.log;
  Text traces;
  UINTN mask = 0;
  const bool tracing = log && log->GetLevelMask(log, &mask) == EFI_SUCCESS &&
                       log->RegisterSink(log, keepTrace, &traces) == EFI_SUCCESS;
  if (tracing) log->SetLevelMask(log, ~UINTN(0));
  for (const Step& step : kSteps)
    if ((step.target == Target::SampleBios ? status : ovmf) == EFI_SUCCESS) runStep(a, step, older);
  if (tracing) {
    log->UnregisterSink(log, keepTrace, &traces);
    log->SetLevelMask(log, mask);
    status = a.write(kApplyTraceFile, traces);
    report.check(status == EFI_SUCCESS, u"traces written to %s: %r", kApplyTraceFile, status);
  }
  status = a.applied.failed() ? EFI_OUT_OF_RESOURCES : a.drive.write(kAppliedFile, a.applied.get(), a.applied.size());
  report.check(status == EFI_SUCCESS, u"steps written to %s: %r", kAppliedFile, status);

  UINTN found = 0;
  for (const CHAR8* secret : kSecrets) {
    if (!containsIgnoringCase(a.written.get(), a.written.size(), secret)) continue;
    say(u"    %a found\r\n", secret);
    ++found;
  }
  report.check(!a.written.failed() && a.written.size() > 0 && found == 0,
               u"no password in the %d bytes of documents and traces written: %d found", int(a.written.size()),
               int(found));
}

void runSecondBoot(const Services& s, Report& report) {
  say(u"Second boot, same variable store:\r\n");
  BootDrive drive;
  EFI_STATUS status = drive.open();
  if (!report.check(status == EFI_SUCCESS, u"boot drive opened: %r", status)) return;
  EFI_HANDLE image = nullptr;
  status = drive.startImage(kSampleImageFile, &image);
  if (!report.check(status == EFI_SUCCESS, u"sample devices loaded again: %r", status)) return;
  Device bios;
  status = findBios(s, bios);
  if (!report.check(status == EFI_SUCCESS, u"sample BIOS %s found: %r", kBiosFqdd, status)) return;
  Tree current(s.xml);
  Text document;
  status = exportCurrent(s, bios.handle, current, document);
  if (!EFI_ERROR(status)) status = drive.write(u"\\out\\second-boot.xml", document.get(), document.size());
  if (!report.check(status == EFI_SUCCESS, u"exported again: %r", status)) return;
  // TpmSecurity lives in an EFI variable store, which the first boot's
  // RouteConfig wrote; the asset tag lives in the device's own buffer, which
  // starts from its reset state on every boot.
  const Value kept[] = {{"TpmSecurity", "Off"}, {"AssetTag", "ASSET-0042"}};
  for (const Value& v : kept) {
    const CHAR8* value = valueOf(current.get(), v.item);
    report.check(value && rt::equal<CHAR8>(value, v.value), u"after the reboot %a is %a (expected %a)", v.item,
                 value ? value : "(missing)", v.value);
  }
}

}  // namespace tvl::check
