#include "host/hii/hii_database.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <stdexcept>

#include "host/hii/byte_reader.h"
#include "host/hii/device_path.h"
#include "host/hii/package_list.h"
#include "host/hii/string_package.h"
#include "uefi/ifr.h"

namespace tvl::host::hii {
namespace {


// Opaque token ranges; nothing is ever mapped there by the emulation.
constexpr uintptr_t kHiiHandleBase = 0x484900000000ull;
constexpr uintptr_t kNotifyHandleBase = 0x4e4f00000000ull;
constexpr uintptr_t kTokenStep = 0x10;

constexpr size_t kGuidPackageMin = HII_PACKAGE_HEADER_SIZE + sizeof(EFI_GUID);

struct StoredPackage {
  uint8_t type = 0;
  std::vector<uint8_t> bytes;              // header included
  std::shared_ptr<StringPackage> strings;  // parsed model of a string package
};

struct StoredList {
  EFI_HII_HANDLE handle = nullptr;
  EFI_GUID guid{};
  EFI_HANDLE driverHandle = nullptr;
  std::vector<StoredPackage> packages;  // END left out
};

struct Registration {
  EFI_HANDLE token = nullptr;
  uint8_t type = 0;
  bool hasGuid = false;
  EFI_GUID guid{};
  EFI_HII_DATABASE_NOTIFY function = nullptr;
  UINTN notifyTypes = 0;
};

bool guidOfPackage(const std::vector<uint8_t>& bytes, EFI_GUID& guid) {
  if (bytes.size() < kGuidPackageMin) return false;
  ByteReader r(bytes.data() + HII_PACKAGE_HEADER_SIZE, sizeof(EFI_GUID));
  return r.guid(guid);
}

// Whether the primary language of a package's Language field (the tag
// before any ';') is `b`, ignoring case; reads the field in place, as
// GetString asks this of every package for every string.
bool primaryLanguageIs(const StringPackage& package, const char* b) {
  auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c; };
  const std::string& field = package.language;
  size_t i = 0;
  for (; i < field.size() && field[i] != ';'; ++i)
    if (b[i] == '\0' || lower(field[i]) != lower(b[i])) return false;
  return b[i] == '\0';
}

// Copies `text` with its terminator into a caller's buffer of *size bytes,
// with the UEFI buffer-size protocol.
template <typename C>
EFI_STATUS copyOut(const std::basic_string<C>& text, C* buffer, UINTN* size) {
  const UINTN needed = (text.size() + 1) * sizeof(C);
  if (*size < needed) {
    *size = needed;
    return EFI_BUFFER_TOO_SMALL;
  }
  std::memcpy(buffer, text.data(), text.size() * sizeof(C));
  buffer[text.size()] = 0;
  *size = needed;
  return EFI_SUCCESS;
}

}  // namespace

struct HiiDatabase::Impl {
  struct DatabaseInterface {
    EFI_HII_DATABASE_PROTOCOL protocol;
    Impl* impl;
  };
  struct StringInterface {
    EFI_HII_STRING_PROTOCOL protocol;
    Impl* impl;
  };

  explicit Impl(Platform& p);

  static Impl* of(const EFI_HII_DATABASE_PROTOCOL* This) {
    return This ? reinterpret_cast<const DatabaseInterface*>(This)->impl : nullptr;
  }
  static Impl* of(const EFI_HII_STRING_PROTOCOL* This) {
    return This ? reinterpret_cast<const StringInterface*>(This)->impl : nullptr;
  }

  // ---- package lists
  StoredList* find(EFI_HII_HANDLE handle) {
    for (auto& list : lists)
      if (list.handle == handle) return &list;
    return nullptr;
  }

  EFI_STATUS decode(const uint8_t* data, size_t available, StoredList& out) {
    PackageListView view;
    RETURN_IF_ERROR(parsePackageList(data, available, view, &lastError));
    StoredList list;
    list.guid = view.guid;
    for (const auto& package : view.packages) {
      StoredPackage stored;
      stored.type = package.type;
      stored.bytes.assign(package.data, package.data + package.size);
      if (package.type == EFI_HII_PACKAGE_STRINGS) {
        auto model = std::make_shared<StringPackage>();
        FormatError error;
        if (parseStringPackage(package.data, package.size, *model, &error) != EFI_SUCCESS) {
          lastError.offset = package.offset + error.offset;
          lastError.message = error.message;
          return EFI_INVALID_PARAMETER;
        }
        stored.strings = std::move(model);
      }
      list.packages.push_back(std::move(stored));
    }
    out = std::move(list);
    return EFI_SUCCESS;
  }

  void addDevicePathPackage(StoredList& list) {
    if (!list.driverHandle) return;
    for (const auto& package : list.packages)
      if (package.type == EFI_HII_PACKAGE_DEVICE_PATH) return;
    void* path = nullptr;
    EFI_GUID guid = gEfiDevicePathProtocolGuid;
    if (platform.bootServices()->HandleProtocol(list.driverHandle, &guid, &path) != EFI_SUCCESS || !path) return;
    const size_t size = devicePathSize(path);
    if (size == 0) return;
    const auto* bytes = static_cast<const uint8_t*>(path);
    StoredPackage package;
    package.type = EFI_HII_PACKAGE_DEVICE_PATH;
    package.bytes = buildPackage(EFI_HII_PACKAGE_DEVICE_PATH, std::vector<uint8_t>(bytes, bytes + size));
    list.packages.push_back(std::move(package));
  }

  // Bytes of `list` as ExportPackageLists writes it: header, packages, end.
  static size_t exportedSize(const StoredList& list) {
    size_t size = sizeof(EFI_HII_PACKAGE_LIST_HEADER) + HII_PACKAGE_HEADER_SIZE;
    for (const auto& package : list.packages) size += package.bytes.size();
    return size;
  }

  // Writes `list` at `out`, which holds exportedSize(list) bytes; returns
  // the byte after it. Written in place: a large list is copied once.
  static uint8_t* writeExported(const StoredList& list, uint8_t* out) {
    const size_t size = exportedSize(list);
    EFI_HII_PACKAGE_LIST_HEADER header{list.guid, uint32_t(size)};
    std::memcpy(out, &header, sizeof header);
    out += sizeof header;
    for (const auto& package : list.packages) {
      if (!package.bytes.empty()) std::memcpy(out, package.bytes.data(), package.bytes.size());
      out += package.bytes.size();
    }
    const uint8_t end[HII_PACKAGE_HEADER_SIZE] = {HII_PACKAGE_HEADER_SIZE, 0, 0, EFI_HII_PACKAGE_END};
    std::memcpy(out, end, sizeof end);
    return out + sizeof end;
  }

  bool anyRegistered(UINTN event) const {
    return std::any_of(registrations.begin(), registrations.end(),
                       [&](const Registration& r) { return (r.notifyTypes & event) != 0; });
  }

  bool matches(const StoredPackage& package, uint8_t type, const EFI_GUID* guid) const {
    if (type == EFI_HII_PACKAGE_TYPE_ALL) return true;
    if (package.type != type) return false;
    if (type != EFI_HII_PACKAGE_TYPE_GUID) return true;
    EFI_GUID own;
    return guid && guidOfPackage(package.bytes, own) && own == *guid;
  }

  // Calls the registered functions for `packages` of the list `handle`.
  // The packages are copies, so a function may change the database.
  void notify(UINTN event, EFI_HII_HANDLE handle, const std::vector<StoredPackage>& packages) {
    const std::vector<Registration> registrations = this->registrations;
    for (const auto& package : packages) {
      for (const auto& r : registrations) {
        if (!(r.notifyTypes & event) || !matches(package, r.type, r.hasGuid ? &r.guid : nullptr)) continue;
        EFI_GUID own{};
        const bool isGuid = package.type == EFI_HII_PACKAGE_TYPE_GUID && guidOfPackage(package.bytes, own);
        r.function(package.type, isGuid ? &own : nullptr,
                   reinterpret_cast<const EFI_HII_PACKAGE_HEADER*>(package.bytes.data()), handle, event);
      }
    }
  }

  EFI_HII_HANDLE newHandle() {
    auto handle = reinterpret_cast<EFI_HII_HANDLE>(kHiiHandleBase + kTokenStep * nextHandle++);
    issued.insert(handle);
    return handle;
  }

  EFI_STATUS newPackageList(const uint8_t* data, size_t available, EFI_HANDLE driverHandle,
                            EFI_HII_HANDLE* handle) {
    StoredList list;
    RETURN_IF_ERROR(decode(data, available, list));
    // The same package-list GUID may be registered once per driver handle
    // (two devices of one driver publish the same forms).
    for (const auto& existing : lists)
      if (existing.guid == list.guid && existing.driverHandle == driverHandle) return EFI_INVALID_PARAMETER;
    list.driverHandle = driverHandle;
    addDevicePathPackage(list);
    list.handle = newHandle();
    *handle = list.handle;
    lists.push_back(list);
    notify(kNotifyNewPack, list.handle, list.packages);
    return EFI_SUCCESS;
  }

  EFI_STATUS removePackageList(EFI_HII_HANDLE handle) {
    auto it = std::find_if(lists.begin(), lists.end(), [&](const StoredList& l) { return l.handle == handle; });
    if (it == lists.end()) return EFI_NOT_FOUND;
    const StoredList removed = *it;
    notify(kNotifyRemovePack, removed.handle, removed.packages);
    // A notification function may itself have removed the list.
    it = std::find_if(lists.begin(), lists.end(), [&](const StoredList& l) { return l.handle == handle; });
    if (it != lists.end()) lists.erase(it);
    return EFI_SUCCESS;
  }

  // Packages of the update replace every package of the same type (of the
  // same GUID for GUID packages); the others stay.
  EFI_STATUS updatePackageList(EFI_HII_HANDLE handle, const uint8_t* data, size_t available) {
    StoredList* list = find(handle);
    if (!list) return EFI_NOT_FOUND;
    StoredList update;
    RETURN_IF_ERROR(decode(data, available, update));
    auto replaced = [&](const StoredPackage& old) {
      for (const auto& incoming : update.packages) {
        if (incoming.type != old.type) continue;
        if (old.type != EFI_HII_PACKAGE_TYPE_GUID) return true;
        EFI_GUID a, b;
        if (guidOfPackage(incoming.bytes, a) && guidOfPackage(old.bytes, b) && a == b) return true;
      }
      return false;
    };
    std::vector<StoredPackage> kept, removed;
    for (auto& package : list->packages) (replaced(package) ? removed : kept).push_back(package);
    notify(kNotifyRemovePack, handle, removed);
    list = find(handle);
    if (!list) return EFI_SUCCESS;  // a notification removed the list
    kept.insert(kept.end(), update.packages.begin(), update.packages.end());
    list->packages = std::move(kept);
    notify(kNotifyAddPack, handle, update.packages);
    return EFI_SUCCESS;
  }

  // ---- strings
  std::vector<StoredPackage*> stringPackages(StoredList& list) {
    std::vector<StoredPackage*> out;
    for (auto& package : list.packages)
      if (package.strings) out.push_back(&package);
    return out;
  }

  std::vector<StoredPackage*> packagesOfLanguage(StoredList& list, const char* language) {
    std::vector<StoredPackage*> out;
    for (auto* package : stringPackages(list))
      if (primaryLanguageIs(*package->strings, language)) out.push_back(package);
    return out;
  }

  static void rewrite(StoredPackage& package) { package.bytes = serializeStringPackage(*package.strings); }

  EFI_STATUS getString(const CHAR8* language, EFI_HII_HANDLE packageList, EFI_STRING_ID id, EFI_STRING string,
                       UINTN* size, EFI_FONT_INFO** fontInfo) {
    if (!language || !size) return EFI_INVALID_PARAMETER;
    if (!string && *size != 0) return EFI_INVALID_PARAMETER;
    StoredList* list = find(packageList);
    if (!list || id == 0) return EFI_NOT_FOUND;
    // One pass over the list's packages: the export asks for every string
    // of every statement, so this stays free of host allocations.
    bool languageFound = false;
    for (const auto& package : list->packages) {
      if (!package.strings || !primaryLanguageIs(*package.strings, language)) continue;
      languageFound = true;
      const StringEntry* entry = package.strings->find(id);
      if (!entry) continue;
      RETURN_IF_ERROR(copyOut(entry->text, string, size));
      if (fontInfo) *fontInfo = nullptr;
      return EFI_SUCCESS;
    }
    return languageFound ? EFI_NOT_FOUND : EFI_INVALID_LANGUAGE;
  }

  static void putString(StringPackage& package, EFI_STRING_ID id, const std::u16string& text) {
    if (package.strings.size() < id) package.strings.resize(id);
    StringEntry& entry = package.strings[id - 1];
    entry.defined = true;
    entry.text = text;
  }

  EFI_STATUS newString(EFI_HII_HANDLE packageList, EFI_STRING_ID* id, const CHAR8* language,
                       const CHAR16* languageName, const CHAR16* string) {
    if (!id || !language || !string || !*language) return EFI_INVALID_PARAMETER;
    StoredList* list = find(packageList);
    if (!list) return EFI_NOT_FOUND;
    size_t last = 0;
    for (auto* package : stringPackages(*list)) last = std::max<size_t>(last, package->strings->lastId());
    const bool newLanguage = packagesOfLanguage(*list, language).empty();
    const size_t needed = last + 1 + (newLanguage && languageName ? 1 : 0);
    if (needed > 0xFFFF) return EFI_OUT_OF_RESOURCES;
    if (newLanguage) {
      StoredPackage package;
      package.type = EFI_HII_PACKAGE_STRINGS;
      package.strings = std::make_shared<StringPackage>();
      package.strings->language = language;
      list->packages.push_back(std::move(package));
    }
    // A new id is reserved in every language; the text goes to all of them
    // until SetString gives a language its own.
    auto all = stringPackages(*list);
    if (newLanguage && languageName) {
      const auto nameId = EFI_STRING_ID(++last);
      for (auto* package : all) putString(*package->strings, nameId, languageName);
      packagesOfLanguage(*list, language).front()->strings->languageName = nameId;
    }
    const auto newId = EFI_STRING_ID(last + 1);
    for (auto* package : all) {
      putString(*package->strings, newId, string);
      rewrite(*package);
    }
    *id = newId;
    return EFI_SUCCESS;
  }

  EFI_STATUS setString(EFI_HII_HANDLE packageList, EFI_STRING_ID id, const CHAR8* language, const CHAR16* string) {
    if (!language || !string) return EFI_INVALID_PARAMETER;
    StoredList* list = find(packageList);
    if (!list) return EFI_NOT_FOUND;
    for (auto* package : packagesOfLanguage(*list, language)) {
      StringEntry* entry = package->strings->find(id);
      if (!entry) continue;
      entry->text = string;
      rewrite(*package);
      return EFI_SUCCESS;
    }
    return EFI_NOT_FOUND;
  }

  EFI_STATUS getLanguages(EFI_HII_HANDLE packageList, CHAR8* languages, UINTN* size) {
    if (!size || (!languages && *size != 0)) return EFI_INVALID_PARAMETER;
    StoredList* list = find(packageList);
    if (!list) return EFI_NOT_FOUND;
    std::vector<std::string> tags;
    for (auto* package : stringPackages(*list)) {
      std::string tag = package->strings->primaryLanguage();
      if (std::find(tags.begin(), tags.end(), tag) == tags.end()) tags.push_back(tag);
    }
    if (tags.empty()) return EFI_NOT_FOUND;
    std::string text;
    for (const auto& tag : tags) text += (text.empty() ? "" : ";") + tag;
    return copyOut(text, languages, size);
  }

  EFI_STATUS getSecondaryLanguages(EFI_HII_HANDLE packageList, const CHAR8* primary, CHAR8* languages,
                                   UINTN* size) {
    if (!primary || !size || (!languages && *size != 0)) return EFI_INVALID_PARAMETER;
    StoredList* list = find(packageList);
    if (!list) return EFI_NOT_FOUND;
    const auto packages = packagesOfLanguage(*list, primary);
    if (packages.empty()) return EFI_INVALID_LANGUAGE;
    return copyOut(packages.front()->strings->secondaryLanguages(), languages, size);
  }

  Platform& platform;
  DatabaseInterface db;
  StringInterface str;
  EFI_HANDLE handle = nullptr;
  std::vector<StoredList> lists;  // registration order
  std::set<EFI_HII_HANDLE> issued;
  uintptr_t nextHandle = 1;
  std::vector<Registration> registrations;
  uintptr_t nextNotify = 1;
  std::vector<GetStringCall> calls;
  // Tests read the calls; a lean platform (command line, benchmarks) keeps
  // nothing per call, or a long run would hold one record per string read.
  bool recordCalls = false;
  FormatError lastError;
};

namespace {

using Impl = HiiDatabase::Impl;

// Reads the PackageLength of a caller's package list header.
size_t declaredLength(const EFI_HII_PACKAGE_LIST_HEADER* list) {
  ByteReader r(reinterpret_cast<const uint8_t*>(list), sizeof(EFI_HII_PACKAGE_LIST_HEADER));
  uint32_t length = 0;
  r.skip(sizeof(EFI_GUID));
  r.u32(length);
  return length;
}

EFI_STATUS EFIAPI NewPackageList(const EFI_HII_DATABASE_PROTOCOL* This, const EFI_HII_PACKAGE_LIST_HEADER* PackageList,
                                 EFI_HANDLE DriverHandle, EFI_HII_HANDLE* Handle) {
  Impl* impl = Impl::of(This);
  if (!impl || !PackageList || !Handle) return EFI_INVALID_PARAMETER;
  return impl->newPackageList(reinterpret_cast<const uint8_t*>(PackageList), declaredLength(PackageList),
                              DriverHandle, Handle);
}

EFI_STATUS EFIAPI RemovePackageList(const EFI_HII_DATABASE_PROTOCOL* This, EFI_HII_HANDLE Handle) {
  Impl* impl = Impl::of(This);
  if (!impl) return EFI_INVALID_PARAMETER;
  return impl->removePackageList(Handle);
}

EFI_STATUS EFIAPI UpdatePackageList(const EFI_HII_DATABASE_PROTOCOL* This, EFI_HII_HANDLE Handle,
                                    const EFI_HII_PACKAGE_LIST_HEADER* PackageList) {
  Impl* impl = Impl::of(This);
  if (!impl || !PackageList) return EFI_INVALID_PARAMETER;
  return impl->updatePackageList(Handle, reinterpret_cast<const uint8_t*>(PackageList), declaredLength(PackageList));
}

EFI_STATUS EFIAPI ListPackageLists(const EFI_HII_DATABASE_PROTOCOL* This, UINT8 PackageType,
                                   const EFI_GUID* PackageGuid, UINTN* HandleBufferLength, EFI_HII_HANDLE* Handle) {
  Impl* impl = Impl::of(This);
  if (!impl || !HandleBufferLength) return EFI_INVALID_PARAMETER;
  if (*HandleBufferLength != 0 && !Handle) return EFI_INVALID_PARAMETER;
  if ((PackageType == EFI_HII_PACKAGE_TYPE_GUID) != (PackageGuid != nullptr)) return EFI_INVALID_PARAMETER;
  std::vector<EFI_HII_HANDLE> found;
  for (const auto& list : impl->lists) {
    const bool any = PackageType == EFI_HII_PACKAGE_TYPE_ALL ||
                     std::any_of(list.packages.begin(), list.packages.end(), [&](const StoredPackage& p) {
                       return impl->matches(p, PackageType, PackageGuid);
                     });
    if (any) found.push_back(list.handle);
  }
  if (found.empty()) return EFI_NOT_FOUND;
  const UINTN needed = found.size() * sizeof(EFI_HII_HANDLE);
  if (*HandleBufferLength < needed) {
    *HandleBufferLength = needed;
    return EFI_BUFFER_TOO_SMALL;
  }
  std::memcpy(Handle, found.data(), needed);
  *HandleBufferLength = needed;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI ExportPackageLists(const EFI_HII_DATABASE_PROTOCOL* This, EFI_HII_HANDLE Handle,
                                     UINTN* BufferSize, EFI_HII_PACKAGE_LIST_HEADER* Buffer) {
  Impl* impl = Impl::of(This);
  if (!impl || !BufferSize) return EFI_INVALID_PARAMETER;
  if (*BufferSize != 0 && !Buffer) return EFI_INVALID_PARAMETER;
  std::vector<const StoredList*> chosen;
  if (Handle) {
    const StoredList* list = impl->find(Handle);
    if (!list) return EFI_NOT_FOUND;
    chosen.push_back(list);
  } else {
    for (const auto& list : impl->lists) chosen.push_back(&list);
  }
  size_t needed = 0;
  for (const auto* list : chosen) needed += Impl::exportedSize(*list);
  if (*BufferSize < needed) {
    *BufferSize = needed;
    return EFI_BUFFER_TOO_SMALL;
  }
  auto* out = reinterpret_cast<uint8_t*>(Buffer);
  for (const auto* list : chosen) out = Impl::writeExported(*list, out);
  *BufferSize = needed;
  if (!impl->anyRegistered(kNotifyExportPack)) return EFI_SUCCESS;
  std::vector<std::pair<EFI_HII_HANDLE, std::vector<StoredPackage>>> exported;
  for (const auto* list : chosen) exported.emplace_back(list->handle, list->packages);
  for (const auto& [handle, packages] : exported) impl->notify(kNotifyExportPack, handle, packages);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI RegisterPackageNotify(const EFI_HII_DATABASE_PROTOCOL* This, UINT8 PackageType,
                                        const EFI_GUID* PackageGuid, EFI_HII_DATABASE_NOTIFY PackageNotifyFn,
                                        EFI_HII_DATABASE_NOTIFY_TYPE NotifyType, EFI_HANDLE* NotifyHandle) {
  Impl* impl = Impl::of(This);
  if (!impl || !NotifyHandle || !PackageNotifyFn) return EFI_INVALID_PARAMETER;
  if ((PackageType == EFI_HII_PACKAGE_TYPE_GUID) != (PackageGuid != nullptr)) return EFI_INVALID_PARAMETER;
  const UINTN known = kNotifyNewPack | kNotifyRemovePack | kNotifyExportPack | kNotifyAddPack;
  if (NotifyType == 0 || (NotifyType & ~known) != 0) return EFI_INVALID_PARAMETER;
  Registration r;
  r.token = reinterpret_cast<EFI_HANDLE>(kNotifyHandleBase + kTokenStep * impl->nextNotify++);
  r.type = PackageType;
  r.hasGuid = PackageGuid != nullptr;
  if (PackageGuid) r.guid = *PackageGuid;
  r.function = PackageNotifyFn;
  r.notifyTypes = NotifyType;
  impl->registrations.push_back(r);
  *NotifyHandle = r.token;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI UnregisterPackageNotify(const EFI_HII_DATABASE_PROTOCOL* This, EFI_HANDLE NotificationHandle) {
  Impl* impl = Impl::of(This);
  if (!impl) return EFI_INVALID_PARAMETER;
  auto& regs = impl->registrations;
  auto it = std::find_if(regs.begin(), regs.end(), [&](const Registration& r) { return r.token == NotificationHandle; });
  if (it == regs.end()) return EFI_NOT_FOUND;
  regs.erase(it);
  return EFI_SUCCESS;
}

// Keyboard layout packages are stored and exported but not interpreted:
// the database knows no layouts.
EFI_STATUS EFIAPI FindKeyboardLayouts(const EFI_HII_DATABASE_PROTOCOL* This, UINT16* KeyGuidBufferLength,
                                      EFI_GUID* KeyGuidBuffer) {
  if (!This || !KeyGuidBufferLength) return EFI_INVALID_PARAMETER;
  if (*KeyGuidBufferLength != 0 && !KeyGuidBuffer) return EFI_INVALID_PARAMETER;
  return EFI_NOT_FOUND;
}

EFI_STATUS EFIAPI GetKeyboardLayout(const EFI_HII_DATABASE_PROTOCOL* This, const EFI_GUID*,
                                    UINT16* KeyboardLayoutLength, EFI_HII_KEYBOARD_LAYOUT* KeyboardLayout) {
  if (!This || !KeyboardLayoutLength) return EFI_INVALID_PARAMETER;
  if (*KeyboardLayoutLength != 0 && !KeyboardLayout) return EFI_INVALID_PARAMETER;
  return EFI_NOT_FOUND;
}

EFI_STATUS EFIAPI SetKeyboardLayout(const EFI_HII_DATABASE_PROTOCOL* This, const EFI_GUID* KeyGuid) {
  if (!This || !KeyGuid) return EFI_INVALID_PARAMETER;
  return EFI_NOT_FOUND;
}

EFI_STATUS EFIAPI GetPackageListHandle(const EFI_HII_DATABASE_PROTOCOL* This, EFI_HII_HANDLE PackageListHandle,
                                       EFI_HANDLE* DriverHandle) {
  Impl* impl = Impl::of(This);
  if (!impl || !DriverHandle) return EFI_INVALID_PARAMETER;
  if (!impl->issued.count(PackageListHandle)) return EFI_INVALID_PARAMETER;
  const StoredList* list = impl->find(PackageListHandle);
  if (!list) return EFI_NOT_FOUND;
  *DriverHandle = list->driverHandle;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI NewString(const EFI_HII_STRING_PROTOCOL* This, EFI_HII_HANDLE PackageList, EFI_STRING_ID* StringId,
                            const CHAR8* Language, const CHAR16* LanguageName, const CHAR16* String,
                            const EFI_FONT_INFO*) {
  Impl* impl = Impl::of(This);
  if (!impl) return EFI_INVALID_PARAMETER;
  return impl->newString(PackageList, StringId, Language, LanguageName, String);
}

EFI_STATUS EFIAPI GetString(const EFI_HII_STRING_PROTOCOL* This, const CHAR8* Language, EFI_HII_HANDLE PackageList,
                            EFI_STRING_ID StringId, EFI_STRING String, UINTN* StringSize,
                            EFI_FONT_INFO** StringFontInfo) {
  Impl* impl = Impl::of(This);
  if (!impl) return EFI_INVALID_PARAMETER;
  const UINTN bufferSize = StringSize ? *StringSize : 0;
  const EFI_STATUS status = impl->getString(Language, PackageList, StringId, String, StringSize, StringFontInfo);
  if (impl->recordCalls) {
    GetStringCall call;
    call.languageNull = Language == nullptr;
    if (Language) call.language = Language;
    call.packageList = PackageList;
    call.stringId = StringId;
    call.bufferSize = bufferSize;
    call.status = status;
    impl->calls.push_back(call);
  }
  return status;
}

EFI_STATUS EFIAPI SetString(const EFI_HII_STRING_PROTOCOL* This, EFI_HII_HANDLE PackageList, EFI_STRING_ID StringId,
                            const CHAR8* Language, const CHAR16* String, const EFI_FONT_INFO*) {
  Impl* impl = Impl::of(This);
  if (!impl) return EFI_INVALID_PARAMETER;
  return impl->setString(PackageList, StringId, Language, String);
}

EFI_STATUS EFIAPI GetLanguages(const EFI_HII_STRING_PROTOCOL* This, EFI_HII_HANDLE PackageList, CHAR8* Languages,
                               UINTN* LanguagesSize) {
  Impl* impl = Impl::of(This);
  if (!impl) return EFI_INVALID_PARAMETER;
  return impl->getLanguages(PackageList, Languages, LanguagesSize);
}

EFI_STATUS EFIAPI GetSecondaryLanguages(const EFI_HII_STRING_PROTOCOL* This, EFI_HII_HANDLE PackageList,
                                        const CHAR8* PrimaryLanguage, CHAR8* SecondaryLanguages,
                                        UINTN* SecondaryLanguagesSize) {
  Impl* impl = Impl::of(This);
  if (!impl) return EFI_INVALID_PARAMETER;
  return impl->getSecondaryLanguages(PackageList, PrimaryLanguage, SecondaryLanguages, SecondaryLanguagesSize);
}

}  // namespace

HiiDatabase::Impl::Impl(Platform& p) : platform(p), recordCalls(p.poolMode() == PoolMode::Checked) {
  db.protocol = EFI_HII_DATABASE_PROTOCOL{NewPackageList,      RemovePackageList,   UpdatePackageList,
                                          ListPackageLists,    ExportPackageLists,  RegisterPackageNotify,
                                          UnregisterPackageNotify, FindKeyboardLayouts, GetKeyboardLayout,
                                          SetKeyboardLayout,   GetPackageListHandle};
  db.impl = this;
  str.protocol = EFI_HII_STRING_PROTOCOL{NewString, GetString, SetString, GetLanguages, GetSecondaryLanguages};
  str.impl = this;
}

HiiDatabase::HiiDatabase(Platform& platform) : impl_(std::make_unique<Impl>(platform)) {
  if (platform.installProtocol(&impl_->handle, gEfiHiiDatabaseProtocolGuid, &impl_->db.protocol) != EFI_SUCCESS)
    throw std::runtime_error("cannot install the HII database protocol");
  if (platform.installProtocol(&impl_->handle, gEfiHiiStringProtocolGuid, &impl_->str.protocol) != EFI_SUCCESS) {
    platform.uninstallProtocol(impl_->handle, gEfiHiiDatabaseProtocolGuid, &impl_->db.protocol);
    throw std::runtime_error("cannot install the HII string protocol");
  }
}

HiiDatabase::~HiiDatabase() {
  // A platform torn down first has taken its handles with it.
  if (currentPlatform() != &impl_->platform) return;
  impl_->platform.uninstallProtocol(impl_->handle, gEfiHiiStringProtocolGuid, &impl_->str.protocol);
  impl_->platform.uninstallProtocol(impl_->handle, gEfiHiiDatabaseProtocolGuid, &impl_->db.protocol);
}

EFI_HII_DATABASE_PROTOCOL* HiiDatabase::database() { return &impl_->db.protocol; }
EFI_HII_STRING_PROTOCOL* HiiDatabase::strings() { return &impl_->str.protocol; }
EFI_HANDLE HiiDatabase::handle() const { return impl_->handle; }

EFI_STATUS HiiDatabase::addPackageList(const std::vector<uint8_t>& packageList, EFI_HANDLE driverHandle,
                                       EFI_HII_HANDLE* handle) {
  if (!handle) return EFI_INVALID_PARAMETER;
  return impl_->newPackageList(packageList.data(), packageList.size(), driverHandle, handle);
}

EFI_STATUS HiiDatabase::removePackageList(EFI_HII_HANDLE handle) { return impl_->removePackageList(handle); }

std::vector<EFI_HII_HANDLE> HiiDatabase::handles() const {
  std::vector<EFI_HII_HANDLE> out;
  for (const auto& list : impl_->lists) out.push_back(list.handle);
  return out;
}

EFI_STATUS HiiDatabase::exportPackageLists(EFI_HII_HANDLE handle, std::vector<uint8_t>& out) {
  UINTN size = 0;
  EFI_STATUS status = ExportPackageLists(database(), handle, &size, nullptr);
  if (status == EFI_SUCCESS) {
    out.clear();
    return status;
  }
  if (status != EFI_BUFFER_TOO_SMALL) return status;
  std::vector<uint8_t> bytes(size);
  RETURN_IF_ERROR(
      ExportPackageLists(database(), handle, &size, reinterpret_cast<EFI_HII_PACKAGE_LIST_HEADER*>(bytes.data())));
  out = std::move(bytes);
  return EFI_SUCCESS;
}

const std::vector<GetStringCall>& HiiDatabase::getStringCalls() const { return impl_->calls; }
void HiiDatabase::clearGetStringCalls() { impl_->calls.clear(); }

}  // namespace tvl::host::hii
