#include "firmware/app/exports.h"

#include "firmware/app/boot_drive.h"
#include "firmware/app/pool_watch.h"
#include "uefi/ifr.h"

namespace tvl::check {
namespace {

using rt::bs;
using rt::Pool;

constexpr UINTN kMaxOwners = 64;
constexpr UINTN kMaxListsPerOwner = 8;
constexpr UINTN kMaxFormSetsPerOwner = 8;
constexpr UINTN kMaxNameLength = 96;
constexpr UINTN kConnectRounds = 4;
constexpr CHAR16 kOutDirectory[] = u"\\out";
constexpr CHAR16 kDumpFile[] = u"\\out\\packages.hii";
constexpr CHAR16 kManifestFile[] = u"\\out\\manifest.txt";
constexpr CHAR16 kTraceFile[] = u"\\out\\traces.txt";
constexpr CHAR16 kSampleImageFile[] = u"\\sample_devices.efi";

// A driver handle that owns package lists with forms, and those lists.
struct Owner {
  EFI_HANDLE driver;
  UINTN listCount;
  EFI_HII_HANDLE lists[kMaxListsPerOwner];
  UINTN dumpNumber[kMaxListsPerOwner];  // position in the dump, from 1; 0: not in it
  UINTN formSetCount;
  EFI_GUID formSets[kMaxFormSetsPerOwner];  // as the forms processor reads them
  EFI_STATUS exported;                      // what HiiToNode answered
};

// Form sets that the firmware's drivers publish once every controller is
// connected, with how many lists hold each: the run must have reached and
// exported them all.
struct ExpectedFormSet {
  const CHAR16* name;
  EFI_GUID guid;
  UINTN lists;
};

constexpr ExpectedFormSet kExpectedFormSets[] = {
    {u"platform configuration", {0x7235c51c, 0x0c80, 0x4cab, {0x87, 0xac, 0x3b, 0x08, 0x4a, 0x63, 0x04, 0xb1}}, 1},
    {u"Secure Boot configuration", {0x5daf50a5, 0xea81, 0x4de2, {0x8f, 0x9b, 0xca, 0xbd, 0xa9, 0xcf, 0x5c, 0x14}}, 1},
    {u"RAM disk configuration", {0x2a46715f, 0x3581, 0x4a55, {0x8e, 0x73, 0x2b, 0x76, 0x9a, 0xaa, 0x30, 0xc5}}, 1},
    {u"TLS configuration", {0xb0eae4f8, 0x9a04, 0x4c6d, {0xa7, 0x48, 0x79, 0x3d, 0xaa, 0x0f, 0x65, 0xdf}}, 1},
    {u"iSCSI configuration", {0x4b47d616, 0xa8d6, 0x4552, {0x9d, 0x44, 0xcc, 0xad, 0x2e, 0x0f, 0x4c, 0xf9}}, 1},
    {u"Driver Health Manager", {0xcfb3b000, 0x0b63, 0x444b, {0xb1, 0xd1, 0x12, 0xd5, 0xd9, 0x5d, 0xc4, 0xfc}}, 1},
    {u"File Explorer", {0xfe561596, 0xe6bf, 0x41a6, {0x83, 0x76, 0xc7, 0x2b, 0x71, 0x98, 0x74, 0xd0}}, 3},
    {u"VLAN configuration", {0xd79df6b0, 0xef44, 0x43bd, {0x97, 0x97, 0x43, 0xe9, 0x3b, 0xcf, 0x5f, 0xa8}}, 1},
    {u"IPv4 configuration", {0x9b942747, 0x154e, 0x4d29, {0xa4, 0x36, 0xbf, 0x71, 0x00, 0xc8, 0xb5, 0x3b}}, 1},
    {u"IPv6 configuration", {0x02eea107, 0x98db, 0x400e, {0x98, 0x30, 0x46, 0x0a, 0x15, 0x42, 0xd7, 0x99}}, 1},
    {u"HTTP boot configuration", {0x4d20583a, 0x7765, 0x4e7a, {0x8a, 0x67, 0xdc, 0xde, 0x74, 0xee, 0x3e, 0xc5}}, 1},
};

struct Run {
  const Services& services;
  Report& report;
  BootDrive drive;
  PoolWatch watch;
  bool watching = false;
  Pool<UINT8> dumpListing;  // the HII handles in the order of the dump
  UINTN dumpCount = 0;
  Owner owners[kMaxOwners] = {};
  UINTN ownerCount = 0;
  UINTN nics = 0, systems = 0;  // locations registered for the firmware's own handles
  Text manifest;
  Text traces;

  Run(const Services& s, Report& r) : services(s), report(r) {}
};

// ---------------------------------------------------------------- helpers

// The package lists of `type` (0: all) in the database's order.
EFI_STATUS listPackageLists(EFI_HII_DATABASE_PROTOCOL* database, UINT8 type, Pool<UINT8>& buffer, UINTN& count) {
  UINTN size = 0;
  EFI_STATUS status =
      rt::callWithSizedBuffer(16 * sizeof(EFI_HII_HANDLE), buffer, size, [&](UINT8* handles, UINTN* bytes) {
        return database->ListPackageLists(database, type, nullptr, bytes, reinterpret_cast<EFI_HII_HANDLE*>(handles));
      });
  count = EFI_ERROR(status) ? 0 : size / sizeof(EFI_HII_HANDLE);
  return status;
}

// The firmware leaves the size as it was when the buffer was large enough,
// so the size is what the package-list headers add up to.
EFI_STATUS exportPackageLists(EFI_HII_DATABASE_PROTOCOL* database, EFI_HII_HANDLE handle, Pool<UINT8>& buffer,
                              UINTN& size) {
  UINTN bufferSize = 0;
  RETURN_IF_ERROR(rt::callWithSizedBuffer(4096, buffer, bufferSize, [&](UINT8* bytes, UINTN* length) {
    return database->ExportPackageLists(database, handle, length,
                                        reinterpret_cast<EFI_HII_PACKAGE_LIST_HEADER*>(bytes));
  }));
  size = 0;
  while (bufferSize - size >= sizeof(EFI_HII_PACKAGE_LIST_HEADER)) {
    UINT32 length = 0;
    rt::copyMem(&length, buffer.get() + size + sizeof(EFI_GUID), sizeof length);
    if (length < sizeof(EFI_HII_PACKAGE_LIST_HEADER) || length > bufferSize - size) break;
    size += length;
    if (handle) break;
  }
  return size ? EFI_SUCCESS : EFI_VOLUME_CORRUPTED;
}

UINTN devicePathSize(const EFI_DEVICE_PATH_PROTOCOL* path) {
  const auto* bytes = reinterpret_cast<const UINT8*>(path);
  UINTN size = 0;
  for (;;) {
    const UINT8* node = bytes + size;
    UINTN length = UINTN(node[2]) | (UINTN(node[3]) << 8);
    if (length < 4) return 0;
    size += length;
    if (node[0] == END_DEVICE_PATH_TYPE && node[1] == END_ENTIRE_DEVICE_PATH_SUBTYPE) return size;
  }
}

// The device path as text, for the console and the manifest.
Pool<CHAR16> pathText(const Services& s, const EFI_DEVICE_PATH_PROTOCOL* path) {
  if (s.pathText && path) {
    Pool<CHAR16> text(s.pathText->ConvertDevicePathToText(path, FALSE, FALSE));
    if (text) return text;
  }
  return rt::duplicate(u"(no device path)");
}

// Whether the ';'-separated list of language tags holds exactly `tag`.
bool hasLanguage(const CHAR8* languages, const CHAR8* tag) {
  const UINTN n = rt::length(tag);
  for (const CHAR8* p = languages; *p;) {
    const CHAR8* end = p;
    while (*end && *end != ';') ++end;
    if (UINTN(end - p) == n && rt::compareMem(p, tag, n) == 0) return true;
    p = *end ? end + 1 : end;
  }
  return false;
}

bool listHasLanguage(const Services& s, EFI_HII_HANDLE list, const CHAR8* tag) {
  Pool<UINT8> languages;
  UINTN size = 0;
  EFI_STATUS status = rt::callWithSizedBuffer(64, languages, size, [&](UINT8* buffer, UINTN* bytes) {
    return s.strings->GetLanguages(s.strings, list, reinterpret_cast<CHAR8*>(buffer), bytes);
  });
  // One byte more than the answer, so that the text is terminated.
  if (EFI_ERROR(status)) return false;
  Pool<CHAR8> text = rt::duplicate(reinterpret_cast<const CHAR8*>(languages.get()), size);
  return text && hasLanguage(text.get(), tag);
}

// A file name from a location text: letters, digits, '.' and '-' kept,
// anything else (':' in a disk's FQDD) becomes '_'.
void fileName(const CHAR16* fqdd, CHAR16 (&name)[kMaxNameLength]) {
  UINTN i = 0;
  for (; fqdd[i] && i + 1 < kMaxNameLength; ++i) {
    const CHAR16 c = fqdd[i];
    const bool keep = (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9') ||
                      c == u'.' || c == u'-';
    name[i] = keep ? c : u'_';
  }
  name[i] = 0;
}

void outPath(CHAR16 (&path)[2 * kMaxNameLength], const CHAR16* name, const CHAR16* extension) {
  UINTN n = 0;
  auto put = [&](const CHAR16* s) {
    while (*s && n + 1 < 2 * kMaxNameLength) path[n++] = *s++;
  };
  put(kOutDirectory);
  put(u"\\");
  put(name);
  put(extension);
  path[n] = 0;
}

// ---------------------------------------------------------------- steps

// Connects every controller, recursively, until a round adds no handle: the
// network drivers and the NIC's option ROM publish their forms only once
// they manage a controller.
void connectAll() {
  UINTN before = 0;
  for (UINTN round = 0; round < kConnectRounds; ++round) {
    Pool<EFI_HANDLE> handles;
    UINTN count = 0;
    if (EFI_ERROR(bs()->LocateHandleBuffer(AllHandles, nullptr, nullptr, &count, handles.receive()))) break;
    if (count == before) break;
    for (UINTN i = 0; i < count; ++i) bs()->ConnectController(handles[i], nullptr, nullptr, TRUE);
    before = count;
  }
  UINTN after = 0;
  Pool<EFI_HANDLE> handles;
  bs()->LocateHandleBuffer(AllHandles, nullptr, nullptr, &after, handles.receive());
  say(u"Connected every controller: %d handle(s)\r\n", int(after));
}

// The whole database as ExportPackageLists gives it, written before the
// sample devices exist, so that it holds the firmware's own lists only. Its
// lists must follow the listing order: the manifest numbers lists by it.
void dumpDatabase(Run& run) {
  const Services& s = run.services;
  Pool<UINT8> dump;
  UINTN size = 0;
  EFI_STATUS status = exportPackageLists(s.database, nullptr, dump, size);
  listPackageLists(s.database, EFI_HII_PACKAGE_TYPE_ALL, run.dumpListing, run.dumpCount);
  auto* listing = reinterpret_cast<EFI_HII_HANDLE*>(run.dumpListing.get());
  UINTN offset = 0, matching = 0;
  for (UINTN i = 0; !EFI_ERROR(status) && i < run.dumpCount; ++i) {
    Pool<UINT8> one;
    UINTN oneSize = 0;
    if (EFI_ERROR(exportPackageLists(s.database, listing[i], one, oneSize))) break;
    if (oneSize > size - offset || rt::compareMem(dump.get() + offset, one.get(), oneSize) != 0) {
      UINTN at = 0;
      while (at < oneSize && at < size - offset && dump[offset + at] == one[at]) ++at;
      say(u"  list %d (%g, %d bytes) differs from the dump at offset %d + %d\r\n", int(i + 1), one.get(),
          int(oneSize), int(offset), int(at));
      break;
    }
    offset += oneSize;
    ++matching;
  }
  run.report.check(!EFI_ERROR(status) && matching == run.dumpCount && offset == size,
                   u"ExportPackageLists: %r, %d bytes, %d of %d list(s) in listing order", status, int(size),
                   int(matching), int(run.dumpCount));
  if (EFI_ERROR(status)) return;
  status = run.drive.write(kDumpFile, dump.get(), size);
  run.report.check(status == EFI_SUCCESS, u"package lists written to %s: %r", kDumpFile, status);
}

// Loads the sample-device image from the boot drive; its entry publishes the
// devices with their package lists, stores and locations.
EFI_HANDLE loadSampleDevices(Run& run) {
  EFI_HANDLE handle = nullptr;
  EFI_STATUS status = run.drive.startImage(kSampleImageFile, &handle);
  run.report.check(status == EFI_SUCCESS, u"sample devices loaded from %s: %r", kSampleImageFile, status);
  return status == EFI_SUCCESS ? handle : nullptr;
}

// Every driver handle that owns package lists with forms, in the order of
// its first list.
void collectOwners(Run& run) {
  const Services& s = run.services;
  Pool<UINT8> buffer;
  UINTN count = 0;
  EFI_STATUS status = listPackageLists(s.database, EFI_HII_PACKAGE_FORMS, buffer, count);
  run.report.check(status == EFI_SUCCESS && count > 0, u"package lists with forms: %d (%r)", int(count), status);
  auto* lists = reinterpret_cast<EFI_HII_HANDLE*>(buffer.get());
  auto* dumped = reinterpret_cast<EFI_HII_HANDLE*>(run.dumpListing.get());
  for (UINTN i = 0; i < count; ++i) {
    EFI_HANDLE driver = nullptr;
    status = s.database->GetPackageListHandle(s.database, lists[i], &driver);
    if (EFI_ERROR(status) || !driver) {
      run.report.check(false, u"package list %p belongs to no driver handle (%r)", lists[i], status);
      continue;
    }
    Owner* owner = nullptr;
    for (UINTN o = 0; o < run.ownerCount && !owner; ++o)
      if (run.owners[o].driver == driver) owner = &run.owners[o];
    if (!owner) {
      if (run.ownerCount == kMaxOwners) break;
      owner = &run.owners[run.ownerCount++];
      owner->driver = driver;
    }
    if (owner->listCount == kMaxListsPerOwner) continue;
    owner->lists[owner->listCount] = lists[i];
    for (UINTN d = 0; d < run.dumpCount; ++d)
      if (dumped[d] == lists[i]) owner->dumpNumber[owner->listCount] = d + 1;
    ++owner->listCount;
  }
  run.report.check(run.ownerCount > 0, u"their owners: %d driver handle(s)", int(run.ownerCount));
}

// Whether the path runs through a NIC (a MAC address node).
bool throughNic(const EFI_DEVICE_PATH_PROTOCOL* path) {
  const auto* node = reinterpret_cast<const UINT8*>(path);
  for (;;) {
    if (node[0] == END_DEVICE_PATH_TYPE && node[1] == END_ENTIRE_DEVICE_PATH_SUBTYPE) return false;
    if (node[0] == MESSAGING_DEVICE_PATH && node[1] == MSG_MAC_ADDR_DP) return true;
    node += UINTN(node[2]) | (UINTN(node[3]) << 8);
  }
}

// The location text of a device path. The firmware's own drivers register
// no locations, so a path that nobody registered is registered here, in the
// order the handles are met: "NIC.Embedded.1-1-N" for the forms of the NIC
// and its network stack (the export maps NIC setting names for these),
// "System.Embedded.N-1" for the platform's other drivers.
EFI_STATUS locate(Run& run, const EFI_DEVICE_PATH_PROTOCOL* path, Pool<CHAR16>& fqdd) {
  DEVICE_LOCATION_PROTOCOL* location = run.services.location;
  Pool<CHAR16> description, text;
  EFI_STATUS status =
      location->DevicePathToLocationText(location, path, "en-US", description.receive(), fqdd.receive(), text.receive());
  if (status != EFI_NOT_FOUND) return status;
  CHAR16 made[40];
  const bool nic = throughNic(path);
  if (nic)
    format(made, 40, u"NIC.Embedded.1-1-%d", int(++run.nics));
  else
    format(made, 40, u"System.Embedded.%d-1", int(++run.systems));
  RETURN_IF_ERROR(location->RegisterLocation(location, path, made,
                                             nic ? u"Network settings of the embedded NIC" : u"Platform firmware"));
  return location->DevicePathToLocationText(location, path, "en-US", description.receive(), fqdd.receive(),
                                            text.receive());
}

// Every trace line of the converter and the services while the exports run,
// kept for the boot drive instead of the (slow) serial console.
VOID EFIAPI keepTrace(VOID* context, UINTN, const CHAR8* function, const CHAR16* line) {
  auto* traces = static_cast<Text*>(context);
  traces->add("%a: ", function ? function : "(unnamed)");
  traces->addNarrow(line ? line : u"");
  if (traces->size() && traces->get()[traces->size() - 1] != '\n') traces->add("\n");
}

// ---------------------------------------------------------------- stores

void addDigits(Text& line, const UINT8* bytes, UINTN size) {
  for (UINTN i = size; i-- > 0;) line.add("%02x", UINT32(bytes[i]));
}

// One line per store of the owner's forms: the answer of the driver's
// ExtractConfig to the store's header for a buffer store, and for an EFI
// variable store the bytes the forms processor reads with GetVariable, in
// the form of a whole-store answer. A store that answers nothing gets a
// comment line saying why.
void writeStore(EFI_HII_CONFIG_ACCESS_PROTOCOL* access, const HII_VARSTORE_RECORD* store, Text& lines,
                UINTN& answered) {
  if (store->StoreType == EFI_IFR_VARSTORE_OP) {
    EFI_STRING progress = nullptr;
    Pool<CHAR16> results;
    EFI_STATUS status =
        access ? access->ExtractConfig(access, store->ConfigHdr, &progress, results.receive()) : EFI_UNSUPPORTED;
    if (EFI_ERROR(status) || !results) {
      lines.add("# ExtractConfig %r: ", status);
      lines.addNarrow(store->ConfigHdr);
      lines.add("\n");
      return;
    }
    lines.addNarrow(results.get());
    lines.add("\n");
    ++answered;
    return;
  }
  if (store->StoreType != EFI_IFR_VARSTORE_EFI_OP) {
    lines.add("# name/value store: ");
    lines.addNarrow(store->ConfigHdr);
    lines.add("\n");
    return;
  }
  Pool<UINT8> data;
  UINTN size = 0;
  EFI_STATUS status = rt::callWithSizedBuffer(store->Size ? store->Size : 1, data, size,
                                              [&](UINT8* buffer, UINTN* bytes) {
                                                UINT32 attributes = 0;
                                                return rt::rts()->GetVariable(store->Name, &store->Guid, &attributes,
                                                                              bytes, buffer);
                                              });
  Pool<UINT8> bytes = Pool<UINT8>::bytes(store->Size ? store->Size : 1);
  if (!bytes) return;
  if (!EFI_ERROR(status)) rt::copyMem(bytes.get(), data.get(), size < store->Size ? size : store->Size);
  if (EFI_ERROR(status)) lines.add("# GetVariable %r: the forms read zeros\n", status);
  lines.addNarrow(store->ConfigHdr);
  lines.add("&OFFSET=0000&WIDTH=%04x&VALUE=", UINT32(store->Size));
  addDigits(lines, bytes.get(), store->Size);
  lines.add("\n");
  ++answered;
}

void writeStores(Run& run, Owner& owner, const CHAR16* name) {
  const Services& s = run.services;
  EFI_HII_CONFIG_ACCESS_PROTOCOL* access = nullptr;
  bs()->HandleProtocol(owner.driver, &gEfiHiiConfigAccessProtocolGuid, reinterpret_cast<VOID**>(&access));
  Text lines;
  Text seen;  // headers already written, each followed by '\n'
  UINTN stores = 0, answered = 0;
  for (UINTN l = 0; l < owner.listCount; ++l) {
    EFI_HII_HANDLE list = owner.lists[l];
    UINTN count = 0;
    HII_FORMSET_RECORD** sets = nullptr;
    if (EFI_ERROR(s.forms->ProcessForms(s.forms, &list, 1, nullptr, &count, &sets))) continue;
    for (UINTN f = 0; f < count; ++f) {
      if (owner.formSetCount < kMaxFormSetsPerOwner) owner.formSets[owner.formSetCount++] = sets[f]->Guid;
      for (UINTN v = 0; v < sets[f]->VarStoreBufferCount; ++v) {
        const HII_VARSTORE_RECORD* store = sets[f]->VarStoreBuffer[v];
        if (!store->ConfigHdr) continue;
        Text header;
        header.addNarrow(store->ConfigHdr);
        header.add("\n");
        bool known = false;
        for (const CHAR8* p = seen.get(); *p && !known;) {
          const CHAR8* end = p;
          while (*end != '\n') ++end;
          known = UINTN(end - p + 1) == header.size() && rt::compareMem(p, header.get(), header.size()) == 0;
          p = end + 1;
        }
        if (known) continue;
        seen.addRaw(header.get(), header.size());
        ++stores;
        writeStore(access, store, lines, answered);
      }
    }
    s.forms->DestroyFormSets(s.forms, count, sets);
  }
  CHAR16 path[2 * kMaxNameLength];
  outPath(path, name, u".config");
  EFI_STATUS status = lines.failed() ? EFI_OUT_OF_RESOURCES : run.drive.write(path, lines.get(), lines.size());
  run.report.check(status == EFI_SUCCESS, u"stores of %s: %d of %d answered, written to %s: %r", name, int(answered),
                   int(stores), path, status);
}

// ---------------------------------------------------------------- documents

struct Counts {
  UINTN formSets;
  UINTN forms;
  UINTN items;
};

// Counts FormSet, Form and ConfigItem elements below `root`, iteratively.
Counts countElements(const XML_NODE* root) {
  Counts counts = {};
  const XML_NODE* node = root;
  while (node) {
    if (rt::equal<CHAR8>(node->name, "FormSet")) ++counts.formSets;
    if (rt::equal<CHAR8>(node->name, "Form")) ++counts.forms;
    if (rt::equal<CHAR8>(node->name, "ConfigItem")) ++counts.items;
    if (node->children) {
      node = node->children;
      continue;
    }
    while (node && node != root && !node->next) node = node->parent;
    node = node && node != root ? node->next : nullptr;
  }
  return counts;
}

const CHAR8* attribute(const XML_NODE* node, const CHAR8* name) {
  for (const XML_ATTRIBUTE* a = node ? node->attributes : nullptr; a; a = a->next)
    if (rt::equal<CHAR8>(a->name, name)) return a->value;
  return nullptr;
}

// "ConfigData" with one "ConfigDataEntry" of this FQDD and type.
bool rootIsSound(const XML_NODE* root, const CHAR8* fqdd, const CHAR8* type) {
  if (!root || !rt::equal<CHAR8>(root->name, "ConfigData") || root->next) return false;
  const XML_NODE* entry = root->children;
  return entry && !entry->next && rt::equal<CHAR8>(entry->name, "ConfigDataEntry") &&
         rt::equal<CHAR8>(attribute(entry, "FQDD"), fqdd) && rt::equal<CHAR8>(attribute(entry, "Type"), type);
}

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

void exportOwner(Run& run, Owner& owner) {
  const Services& s = run.services;
  Report& report = run.report;
  EFI_DEVICE_PATH_PROTOCOL* path = nullptr;
  EFI_STATUS status = bs()->HandleProtocol(owner.driver, &gEfiDevicePathProtocolGuid, reinterpret_cast<VOID**>(&path));
  Pool<CHAR16> shown = pathText(s, status == EFI_SUCCESS ? path : nullptr);
  say(u"Driver handle %p, %d list(s): %s\r\n", owner.driver, int(owner.listCount), shown.get());
  if (!report.check(status == EFI_SUCCESS && path && devicePathSize(path), u"device path on %p: %r", owner.driver,
                    status))
    return;
  Pool<CHAR16> fqdd;
  status = locate(run, path, fqdd);
  if (!report.check(status == EFI_SUCCESS && fqdd, u"location of %s: %r %s", shown.get(), status,
                    fqdd ? fqdd.get() : u""))
    return;
  CHAR16 name[kMaxNameLength];
  fileName(fqdd.get(), name);
  Text narrowFqdd;
  narrowFqdd.addNarrow(fqdd.get());

  // Every list of the device must offer "en-US" for the export to succeed.
  bool english = true;
  for (UINTN l = 0; l < owner.listCount; ++l) english = english && listHasLanguage(s, owner.lists[l], "en-US");
  const EFI_STATUS expected = english ? EFI_SUCCESS : EFI_NOT_FOUND;

  writeStores(run, owner, name);

  if (run.watching) run.watch.begin();
  Tree possible(s.xml), current(s.xml);
  status = s.converter->HiiToNode(s.converter, owner.driver, possible.receive(), current.receive());
  owner.exported = status;
  report.check(status == expected, u"HiiToNode %s: %r (expected %r)", fqdd.get(), status, expected);
  UINTN written = 0;
  if (status == EFI_SUCCESS) {
    const Counts p = countElements(possible.get()), c = countElements(current.get());
    const bool sound = rootIsSound(possible.get(), narrowFqdd.get(), "PossibleValues") &&
                       rootIsSound(current.get(), narrowFqdd.get(), "CurrentValues");
    report.check(sound && p.formSets > 0 && p.formSets == c.formSets && p.forms == c.forms && p.items == c.items,
                 u"documents of %s: roots %s, %d/%d form set(s), %d/%d form(s), %d/%d item(s)", fqdd.get(),
                 sound ? u"sound" : u"WRONG", int(p.formSets), int(c.formSets), int(p.forms), int(c.forms),
                 int(p.items), int(c.items));
    Pool<CHAR8> text;
    EFI_STATUS combined = s.converter->NodesToCombinedXMLChar(s.converter, possible.get(), current.get(), text.receive());
    Text document;
    if (text) {
      document.addRaw(text.get(), rt::length(text.get()));
      document.add("\n");
    }
    CHAR16 file[2 * kMaxNameLength];
    outPath(file, name, u".xml");
    EFI_STATUS write = EFI_ERROR(combined) || !text ? combined : run.drive.write(file, document.get(), document.size());
    written = document.size();
    report.check(combined == EFI_SUCCESS && write == EFI_SUCCESS, u"NodesToCombinedXMLChar %s: %r, %d bytes to %s: %r",
                 fqdd.get(), combined, int(written), file, write);
  }
  possible.reset();
  current.reset();
  if (run.watching) {
    const PoolGrowth growth = run.watch.end();
    report.check(growth.outstanding == 0 && !growth.overflow,
                 u"pool after freeing %s: %d allocation(s), %d outstanding (%d bytes)", fqdd.get(),
                 int(growth.allocations), int(growth.outstanding), int(growth.bytes));
  }

  run.manifest.addNarrow(name);
  run.manifest.add("\t");
  run.manifest.addNarrow(fqdd.get());
  run.manifest.add("\t%r\t", status);
  for (UINTN l = 0; l < owner.listCount; ++l) run.manifest.add(l ? ",%d" : "%d", int(owner.dumpNumber[l]));
  run.manifest.add("\t");
  run.manifest.addNarrow(shown.get());
  run.manifest.add("\n");
}

// The images whose pool growth counts: those that hold the code of the
// converter and of each service.
void watchImages(Run& run, EFI_HANDLE sampleImage) {
  const Services& s = run.services;
  const VOID* code[] = {
      reinterpret_cast<const VOID*>(s.converter->HiiToNode), reinterpret_cast<const VOID*>(s.xml->XML_ParseText),
      reinterpret_cast<const VOID*>(s.forms->ProcessForms),
      reinterpret_cast<const VOID*>(s.location->DevicePathToLocationText),
      s.log ? reinterpret_cast<const VOID*>(s.log->Print) : nullptr};
  Pool<EFI_HANDLE> images;
  UINTN count = 0;
  if (EFI_ERROR(bs()->LocateHandleBuffer(ByProtocol, &gEfiLoadedImageProtocolGuid, nullptr, &count, images.receive())))
    return;
  UINTN watched = 0;
  for (UINTN i = 0; i < count; ++i) {
    EFI_LOADED_IMAGE_PROTOCOL* image = nullptr;
    if (EFI_ERROR(bs()->HandleProtocol(images[i], &gEfiLoadedImageProtocolGuid, reinterpret_cast<VOID**>(&image))))
      continue;
    const UINTN base = reinterpret_cast<UINTN>(image->ImageBase);
    bool ours = images[i] == sampleImage;
    for (const VOID* c : code) ours = ours || (c && reinterpret_cast<UINTN>(c) - base < image->ImageSize);
    if (ours && run.watch.watchImage(images[i]) == EFI_SUCCESS) ++watched;
  }
  run.watching = watched > 0 && run.watch.install();
  run.report.check(run.watching, u"pool watch on %d image(s)", int(watched));
}

// Every expected form set exported from as many lists as the firmware
// makes, and the NIC's option ROM forms, which carry no exact "en-US",
// refused.
void checkCoverage(Run& run) {
  for (const ExpectedFormSet& expected : kExpectedFormSets) {
    UINTN exported = 0;
    for (UINTN o = 0; o < run.ownerCount; ++o)
      for (UINTN f = 0; f < run.owners[o].formSetCount; ++f)
        if (rt::compareMem(&run.owners[o].formSets[f], &expected.guid, sizeof(EFI_GUID)) == 0 &&
            run.owners[o].exported == EFI_SUCCESS)
          ++exported;
    run.report.check(exported == expected.lists, u"%s exported from %d list(s) of %d", expected.name, int(exported),
                     int(expected.lists));
  }
  UINTN refused = 0;
  for (UINTN o = 0; o < run.ownerCount; ++o) refused += run.owners[o].exported == EFI_NOT_FOUND;
  run.report.check(refused == 1, u"option ROM forms without \"en-US\" refused: %d device(s)", int(refused));
}

}  // namespace

void runExports(const Services& services, Report& report) {
  say(u"Exports in firmware:\r\n");
  Run run(services, report);
  EFI_STATUS status = run.drive.open();
  if (!report.check(status == EFI_SUCCESS, u"boot drive opened: %r", status)) return;
  connectAll();
  dumpDatabase(run);
  EFI_HANDLE sampleImage = loadSampleDevices(run);
  watchImages(run, sampleImage);
  collectOwners(run);
  run.manifest.add("# file\tFQDD\tHiiToNode\tpackage lists in packages.hii\tdevice path\n");
  DEBUG_LOG_PROTOCOL* log = services.log;
  UINTN mask = 0;
  const bool tracing = log && log->GetLevelMask(log, &mask) == EFI_SUCCESS &&
                       log->RegisterSink(log, keepTrace, &run.traces) == EFI_SUCCESS;
  if (tracing) log->SetLevelMask(log, ~UINTN(0));
  for (UINTN o = 0; o < run.ownerCount; ++o) exportOwner(run, run.owners[o]);
  checkCoverage(run);
  if (tracing) {
    log->UnregisterSink(log, keepTrace, &run.traces);
    log->SetLevelMask(log, mask);
    status = run.traces.failed() ? EFI_OUT_OF_RESOURCES : run.drive.write(kTraceFile, run.traces.get(), run.traces.size());
    report.check(status == EFI_SUCCESS, u"traces written to %s: %r", kTraceFile, status);
  }
  status = run.manifest.failed() ? EFI_OUT_OF_RESOURCES : run.drive.write(kManifestFile, run.manifest.get(), run.manifest.size());
  report.check(status == EFI_SUCCESS, u"manifest of %d device(s) written to %s: %r", int(run.ownerCount), kManifestFile,
               status);
}

}  // namespace tvl::check
