// The handle database: protocol installation and removal, OpenProtocol
// bookkeeping, protocol-notify registrations and the locate services.
#include <algorithm>
#include <cstring>

#include "host/platform_internal.h"
#include "uefi/varargs.h"

namespace tvl::host {

namespace {

constexpr size_t kRetiredKept = 4096;
constexpr uint32_t kRemovableOpens =
    EFI_OPEN_PROTOCOL_BY_HANDLE_PROTOCOL | EFI_OPEN_PROTOCOL_GET_PROTOCOL | EFI_OPEN_PROTOCOL_TEST_PROTOCOL;
const EFI_GUID kDevicePathGuid = EFI_DEVICE_PATH_PROTOCOL_GUID;

// ---------------------------------------------------------------- device paths
constexpr size_t kMaxDevicePath = 1 << 20;

// Bytes of the first instance of a device path, up to (not including) its
// end node; -1 when a node is malformed or the path runs on too long.
long devicePathLength(const void* path) {
  const auto* p = static_cast<const uint8_t*>(path);
  size_t offset = 0;
  for (;;) {
    if (offset + 4 > kMaxDevicePath) return -1;
    uint8_t type = p[offset];
    uint8_t subType = p[offset + 1];
    size_t length = size_t(p[offset + 2]) | (size_t(p[offset + 3]) << 8);
    if (length < 4 || offset + length > kMaxDevicePath) return -1;
    if (type == END_DEVICE_PATH_TYPE && (subType == END_ENTIRE_DEVICE_PATH_SUBTYPE || subType == 0x01))
      return static_cast<long>(offset);
    offset += length;
  }
}

// ---------------------------------------------------------------- boot services
EFI_STATUS EFIAPI installProtocolInterface(EFI_HANDLE* handle, const EFI_GUID* guid, EFI_INTERFACE_TYPE type,
                                           VOID* iface) {
  if (type != EFI_NATIVE_INTERFACE) return EFI_INVALID_PARAMETER;
  return activeImpl().install(handle, guid, iface, true);
}

EFI_STATUS EFIAPI uninstallProtocolInterface(EFI_HANDLE handle, const EFI_GUID* guid, VOID* iface) {
  return activeImpl().uninstall(handle, guid, iface, true);
}

EFI_STATUS EFIAPI reinstallProtocolInterface(EFI_HANDLE handle, const EFI_GUID* guid, VOID* oldIface,
                                             VOID* newIface) {
  Platform::Impl& p = activeImpl();
  Handle* h = p.findHandle(handle);
  if (!h || !guid) return EFI_INVALID_PARAMETER;
  Interface* in = Platform::Impl::findInterface(h, *guid);
  if (!in || in->interface != oldIface) return EFI_NOT_FOUND;
  RETURN_IF_ERROR(p.disconnectUsers(in));
  in->interface = newIface;
  // The new interface counts as newly installed: it moves to the end of the
  // protocol's install order and every notify registration sees it again.
  auto& list = in->protocol->interfaces;
  list.remove(in);
  list.push_back(in);
  for (Registration* r : in->protocol->notifies) {
    auto& q = r->pending;
    q.erase(std::remove(q.begin(), q.end(), in), q.end());
  }
  p.notifyInstalled(in);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI openProtocol(EFI_HANDLE handle, const EFI_GUID* guid, VOID** iface, EFI_HANDLE agent,
                               EFI_HANDLE controller, UINT32 attributes);

EFI_STATUS EFIAPI handleProtocol(EFI_HANDLE handle, const EFI_GUID* guid, VOID** iface) {
  return openProtocol(handle, guid, iface, nullptr, nullptr, EFI_OPEN_PROTOCOL_BY_HANDLE_PROTOCOL);
}

EFI_STATUS EFIAPI openProtocol(EFI_HANDLE handle, const EFI_GUID* guid, VOID** iface, EFI_HANDLE agent,
                               EFI_HANDLE controller, UINT32 attributes) {
  Platform::Impl& p = activeImpl();
  if (!guid) return EFI_INVALID_PARAMETER;
  if (attributes != EFI_OPEN_PROTOCOL_TEST_PROTOCOL) {
    if (!iface) return EFI_INVALID_PARAMETER;
    *iface = nullptr;
  }
  Handle* h = p.findHandle(handle);
  if (!h) return EFI_INVALID_PARAMETER;
  switch (attributes) {
    case EFI_OPEN_PROTOCOL_BY_CHILD_CONTROLLER:
      if (!p.findHandle(agent) || !p.findHandle(controller) || handle == controller) return EFI_INVALID_PARAMETER;
      break;
    case EFI_OPEN_PROTOCOL_BY_DRIVER:
    case EFI_OPEN_PROTOCOL_BY_DRIVER | EFI_OPEN_PROTOCOL_EXCLUSIVE:
      if (!p.findHandle(agent) || !p.findHandle(controller)) return EFI_INVALID_PARAMETER;
      break;
    case EFI_OPEN_PROTOCOL_EXCLUSIVE:
      if (!p.findHandle(agent)) return EFI_INVALID_PARAMETER;
      break;
    case EFI_OPEN_PROTOCOL_BY_HANDLE_PROTOCOL:
    case EFI_OPEN_PROTOCOL_GET_PROTOCOL:
    case EFI_OPEN_PROTOCOL_TEST_PROTOCOL:
      break;
    default:
      return EFI_INVALID_PARAMETER;
  }
  Interface* in = Platform::Impl::findInterface(h, *guid);
  if (!in) return EFI_UNSUPPORTED;
  if (attributes == EFI_OPEN_PROTOCOL_TEST_PROTOCOL) return EFI_SUCCESS;

  bool byDriver = false;
  bool exclusive = false;
  for (OpenEntry& e : in->opens) {
    bool exact = e.agent == agent && e.attributes == attributes && e.controller == controller;
    if (e.attributes & EFI_OPEN_PROTOCOL_BY_DRIVER) {
      byDriver = true;
      if (exact) {
        *iface = in->interface;
        return EFI_ALREADY_STARTED;
      }
    }
    if (e.attributes & EFI_OPEN_PROTOCOL_EXCLUSIVE) {
      exclusive = true;
    } else if (exact) {
      e.count++;
      *iface = in->interface;
      return EFI_SUCCESS;
    }
  }
  switch (attributes) {
    case EFI_OPEN_PROTOCOL_BY_DRIVER:
      if (exclusive || byDriver) return EFI_ACCESS_DENIED;
      break;
    case EFI_OPEN_PROTOCOL_BY_DRIVER | EFI_OPEN_PROTOCOL_EXCLUSIVE:
    case EFI_OPEN_PROTOCOL_EXCLUSIVE:
      if (exclusive) return EFI_ACCESS_DENIED;
      // Firmware would now ask the drivers that hold it BY_DRIVER to
      // disconnect; there is no driver binding here, so they keep it.
      if (byDriver) return EFI_ACCESS_DENIED;
      break;
    default:
      break;
  }
  in->opens.push_back(OpenEntry{agent, controller, attributes, 1});
  *iface = in->interface;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI closeProtocol(EFI_HANDLE handle, const EFI_GUID* guid, EFI_HANDLE agent, EFI_HANDLE controller) {
  Platform::Impl& p = activeImpl();
  Handle* h = p.findHandle(handle);
  if (!h || !guid || !p.findHandle(agent)) return EFI_INVALID_PARAMETER;
  if (controller && !p.findHandle(controller)) return EFI_INVALID_PARAMETER;
  Interface* in = Platform::Impl::findInterface(h, *guid);
  if (!in) return EFI_NOT_FOUND;
  auto& opens = in->opens;
  auto kept = std::remove_if(opens.begin(), opens.end(), [&](const OpenEntry& e) {
    return e.agent == agent && e.controller == controller;
  });
  if (kept == opens.end()) return EFI_NOT_FOUND;
  opens.erase(kept, opens.end());
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI allocatePoolFromTable(UINTN size, VOID** buffer) {
  return activeImpl().bootServices.AllocatePool(EfiBootServicesData, size, buffer);
}

EFI_STATUS EFIAPI openProtocolInformation(EFI_HANDLE handle, const EFI_GUID* guid,
                                          EFI_OPEN_PROTOCOL_INFORMATION_ENTRY** entries, UINTN* count) {
  Platform::Impl& p = activeImpl();
  Handle* h = p.findHandle(handle);
  if (!h || !guid || !entries || !count) return EFI_INVALID_PARAMETER;
  Interface* in = Platform::Impl::findInterface(h, *guid);
  if (!in) return EFI_NOT_FOUND;
  size_t n = in->opens.size();
  VOID* buffer = nullptr;
  // One entry's room even when there are none, so a buffer always comes back.
  RETURN_IF_ERROR(allocatePoolFromTable(std::max<size_t>(n, 1) * sizeof(EFI_OPEN_PROTOCOL_INFORMATION_ENTRY),
                                        &buffer));
  auto* out = static_cast<EFI_OPEN_PROTOCOL_INFORMATION_ENTRY*>(buffer);
  for (size_t i = 0; i < n; ++i) {
    const OpenEntry& e = in->opens[i];
    out[i] = EFI_OPEN_PROTOCOL_INFORMATION_ENTRY{e.agent, e.controller, e.attributes, e.count};
  }
  *entries = out;
  *count = n;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI protocolsPerHandle(EFI_HANDLE handle, EFI_GUID*** buffer, UINTN* count) {
  Platform::Impl& p = activeImpl();
  Handle* h = p.findHandle(handle);
  if (!h || !buffer || !count) return EFI_INVALID_PARAMETER;
  size_t n = h->interfaces.size();
  VOID* memory = nullptr;
  RETURN_IF_ERROR(allocatePoolFromTable(n * sizeof(EFI_GUID*), &memory));
  auto* out = static_cast<EFI_GUID**>(memory);
  for (size_t i = 0; i < n; ++i) out[i] = &h->interfaces[i]->protocol->guid;
  *buffer = out;
  *count = n;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI registerProtocolNotify(const EFI_GUID* guid, EFI_EVENT event, VOID** registration) {
  Platform::Impl& p = activeImpl();
  if (!guid || !registration) return EFI_INVALID_PARAMETER;
  Event* e = p.findEvent(event);
  if (!e) return EFI_INVALID_PARAMETER;
  if (!p.consumeAttempt()) return EFI_OUT_OF_RESOURCES;
  auto r = std::make_unique<Registration>();
  r->protocol = p.protocolEntry(*guid, true);
  r->event = e;
  r->protocol->notifies.push_back(r.get());
  *registration = r.get();
  p.registrations.emplace(r.get(), std::move(r));
  return EFI_SUCCESS;
}

// The handles a locate request selects, in the order firmware reports
// them. A ByRegisterNotify search yields at most the next pending handle.
EFI_STATUS collectHandles(Platform::Impl& p, EFI_LOCATE_SEARCH_TYPE type, const EFI_GUID* guid, VOID* key,
                          std::vector<Handle*>& out, Registration** usedRegistration) {
  *usedRegistration = nullptr;
  switch (type) {
    case AllHandles:
      for (const auto& h : p.handles) out.push_back(h.get());
      return EFI_SUCCESS;
    case ByProtocol: {
      if (!guid) return EFI_INVALID_PARAMETER;
      ProtocolEntry* entry = p.protocolEntry(*guid, false);
      if (entry)
        for (Interface* in : entry->interfaces) out.push_back(in->handle);
      return EFI_SUCCESS;
    }
    case ByRegisterNotify: {
      auto it = key ? p.registrations.find(key) : p.registrations.end();
      if (it == p.registrations.end()) return EFI_INVALID_PARAMETER;
      Registration* r = it->second.get();
      if (!r->pending.empty()) out.push_back(r->pending.front()->handle);
      *usedRegistration = r;
      return EFI_SUCCESS;
    }
  }
  return EFI_INVALID_PARAMETER;
}

EFI_STATUS EFIAPI locateHandle(EFI_LOCATE_SEARCH_TYPE type, const EFI_GUID* guid, VOID* key, UINTN* bufferSize,
                               EFI_HANDLE* buffer) {
  Platform::Impl& p = activeImpl();
  if (!bufferSize || (*bufferSize > 0 && !buffer)) return EFI_INVALID_PARAMETER;
  std::vector<Handle*> found;
  Registration* r = nullptr;
  RETURN_IF_ERROR(collectHandles(p, type, guid, key, found, &r));
  size_t needed = found.size() * sizeof(EFI_HANDLE);
  if (found.empty()) {
    *bufferSize = 0;
    return EFI_NOT_FOUND;
  }
  if (*bufferSize < needed) {
    *bufferSize = needed;
    return EFI_BUFFER_TOO_SMALL;
  }
  for (size_t i = 0; i < found.size(); ++i) buffer[i] = found[i];
  *bufferSize = needed;
  if (r) r->pending.pop_front();
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI locateHandleBuffer(EFI_LOCATE_SEARCH_TYPE type, const EFI_GUID* guid, VOID* key, UINTN* count,
                                     EFI_HANDLE** buffer) {
  Platform::Impl& p = activeImpl();
  if (!count || !buffer) return EFI_INVALID_PARAMETER;
  *count = 0;
  *buffer = nullptr;
  std::vector<Handle*> found;
  Registration* r = nullptr;
  RETURN_IF_ERROR(collectHandles(p, type, guid, key, found, &r));
  if (found.empty()) return EFI_NOT_FOUND;
  VOID* memory = nullptr;
  RETURN_IF_ERROR(allocatePoolFromTable(found.size() * sizeof(EFI_HANDLE), &memory));
  auto* out = static_cast<EFI_HANDLE*>(memory);
  for (size_t i = 0; i < found.size(); ++i) out[i] = found[i];
  *buffer = out;
  *count = found.size();
  if (r) r->pending.pop_front();
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI locateProtocol(const EFI_GUID* guid, VOID* registration, VOID** iface) {
  Platform::Impl& p = activeImpl();
  if (!iface || !guid) return EFI_INVALID_PARAMETER;
  *iface = nullptr;
  if (registration) {
    auto it = p.registrations.find(registration);
    if (it == p.registrations.end()) return EFI_INVALID_PARAMETER;
    Registration* r = it->second.get();
    if (r->pending.empty()) return EFI_NOT_FOUND;
    *iface = r->pending.front()->interface;
    r->pending.pop_front();
    return EFI_SUCCESS;
  }
  ProtocolEntry* entry = p.protocolEntry(*guid, false);
  if (!entry || entry->interfaces.empty()) return EFI_NOT_FOUND;
  *iface = entry->interfaces.front()->interface;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI locateDevicePath(const EFI_GUID* guid, EFI_DEVICE_PATH_PROTOCOL** path, EFI_HANDLE* device) {
  Platform::Impl& p = activeImpl();
  if (!guid || !path || !*path || !device) return EFI_INVALID_PARAMETER;
  long sourceSize = devicePathLength(*path);
  if (sourceSize < 0) return EFI_INVALID_PARAMETER;
  ProtocolEntry* entry = p.protocolEntry(*guid, false);
  if (!entry) return EFI_NOT_FOUND;
  long best = -1;
  Handle* bestHandle = nullptr;
  for (Interface* in : entry->interfaces) {
    Interface* dp = Platform::Impl::findInterface(in->handle, kDevicePathGuid);
    if (!dp || !dp->interface) continue;
    long size = devicePathLength(dp->interface);
    if (size < 0 || size > sourceSize || size <= best) continue;
    if (std::memcmp(*path, dp->interface, static_cast<size_t>(size)) != 0) continue;
    best = size;
    bestHandle = in->handle;
  }
  if (!bestHandle) return EFI_NOT_FOUND;
  *device = bestHandle;
  *path = reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL*>(reinterpret_cast<uint8_t*>(*path) + best);
  return EFI_SUCCESS;
}

// Whether some handle already carries exactly this device path.
bool devicePathInstalled(Platform::Impl& p, const void* path) {
  long size = devicePathLength(path);
  if (size < 0) return false;
  ProtocolEntry* entry = p.protocolEntry(kDevicePathGuid, false);
  if (!entry) return false;
  for (Interface* in : entry->interfaces) {
    if (!in->interface || devicePathLength(in->interface) != size) continue;
    if (std::memcmp(in->interface, path, static_cast<size_t>(size)) == 0) return true;
  }
  return false;
}

struct Pair {
  const EFI_GUID* guid;
  void* iface;
};

std::vector<Pair> readPairs(__builtin_ms_va_list& args) {
  std::vector<Pair> pairs;
  for (;;) {
    auto* guid = tvl::rt::vaArg<const EFI_GUID*>(args);
    if (!guid) break;
    void* iface = tvl::rt::vaArg<void*>(args);
    pairs.push_back(Pair{guid, iface});
  }
  return pairs;
}

EFI_STATUS installMultiple(Platform::Impl& p, EFI_HANDLE* handle, const std::vector<Pair>& pairs) {
  if (!handle) return EFI_INVALID_PARAMETER;
  // Notifications wait until every interface is in place (or rolled back).
  EFI_TPL old = p.tpl;
  if (p.tpl < TPL_NOTIFY) p.tpl = TPL_NOTIFY;
  EFI_HANDLE original = *handle;
  EFI_STATUS status = EFI_SUCCESS;
  size_t done = 0;
  for (; done < pairs.size(); ++done) {
    const Pair& pair = pairs[done];
    if (*pair.guid == kDevicePathGuid && pair.iface && devicePathInstalled(p, pair.iface)) {
      status = EFI_ALREADY_STARTED;
      break;
    }
    status = p.install(handle, pair.guid, pair.iface, true);
    if (EFI_ERROR(status)) break;
  }
  if (EFI_ERROR(status)) {
    EFI_HANDLE created = *handle;
    for (size_t i = done; i-- > 0;) p.uninstall(created, pairs[i].guid, pairs[i].iface, true);
    *handle = original;
  }
  p.tpl = old;
  p.dispatch(old);
  return status;
}

EFI_STATUS uninstallMultiple(Platform::Impl& p, EFI_HANDLE handle, const std::vector<Pair>& pairs) {
  Handle* h = p.findHandle(handle);
  if (!h) return EFI_INVALID_PARAMETER;
  EFI_STATUS status = EFI_SUCCESS;
  size_t done = 0;
  for (; done < pairs.size(); ++done) {
    status = p.uninstall(handle, pairs[done].guid, pairs[done].iface, false);
    if (EFI_ERROR(status)) break;
  }
  if (EFI_ERROR(status)) {
    // Put back what was already removed; the handle stayed in the database.
    for (size_t i = done; i-- > 0;) {
      EFI_HANDLE same = handle;
      p.install(&same, pairs[i].guid, pairs[i].iface, false);
    }
    status = EFI_INVALID_PARAMETER;
  }
  p.dropIfEmpty(h);
  return status;
}

EFI_STATUS EFIAPI installMultipleProtocolInterfaces(EFI_HANDLE* handle, ...) {
  __builtin_ms_va_list args;
  __builtin_ms_va_start(args, handle);
  std::vector<Pair> pairs = readPairs(args);
  __builtin_ms_va_end(args);
  return installMultiple(activeImpl(), handle, pairs);
}

EFI_STATUS EFIAPI uninstallMultipleProtocolInterfaces(EFI_HANDLE handle, ...) {
  __builtin_ms_va_list args;
  __builtin_ms_va_start(args, handle);
  std::vector<Pair> pairs = readPairs(args);
  __builtin_ms_va_end(args);
  return uninstallMultiple(activeImpl(), handle, pairs);
}

}  // namespace

// ---------------------------------------------------------------- Impl helpers
Handle* Platform::Impl::findHandle(EFI_HANDLE h) const {
  if (!h) return nullptr;
  auto it = handleIndex.find(h);
  return it == handleIndex.end() ? nullptr : it->second;
}

Handle* Platform::Impl::newHandle() {
  auto h = std::make_unique<Handle>();
  h->serial = nextSerial++;
  Handle* raw = h.get();
  handles.push_back(std::move(h));
  handleIndex.emplace(raw, raw);
  return raw;
}

void Platform::Impl::retireHandle(Handle* h) {
  handleIndex.erase(h);
  auto it = std::find_if(handles.begin(), handles.end(), [&](const auto& u) { return u.get() == h; });
  if (it == handles.end()) return;
  std::unique_ptr<Handle> owned = std::move(*it);
  handles.erase(it);
  if (h->image) {
    h->image->handleStore = std::move(owned);
    return;
  }
  retiredHandles.push_back(std::move(owned));
  if (retiredHandles.size() > kRetiredKept) retiredHandles.pop_front();
}

ProtocolEntry* Platform::Impl::protocolEntry(const EFI_GUID& guid, bool create) {
  std::string key = guidKey(guid);
  auto it = protocols.find(key);
  if (it != protocols.end()) return it->second.get();
  if (!create) return nullptr;
  auto entry = std::make_unique<ProtocolEntry>();
  entry->guid = guid;
  ProtocolEntry* raw = entry.get();
  protocols.emplace(key, std::move(entry));
  return raw;
}

Interface* Platform::Impl::findInterface(Handle* h, const EFI_GUID& guid) {
  for (const auto& in : h->interfaces)
    if (in->protocol->guid == guid) return in.get();
  return nullptr;
}

EFI_STATUS Platform::Impl::install(EFI_HANDLE* handle, const EFI_GUID* guid, void* iface, bool consume) {
  if (!handle || !guid) return EFI_INVALID_PARAMETER;
  Handle* h = nullptr;
  if (*handle) {
    h = findHandle(*handle);
    if (!h || findInterface(h, *guid)) return EFI_INVALID_PARAMETER;
  }
  if (consume && !consumeAttempt()) return EFI_OUT_OF_RESOURCES;
  if (!h) h = newHandle();
  auto in = std::make_unique<Interface>();
  in->handle = h;
  in->protocol = protocolEntry(*guid, true);
  in->interface = iface;
  Interface* raw = in.get();
  h->interfaces.push_back(std::move(in));
  raw->protocol->interfaces.push_back(raw);
  *handle = h;
  notifyInstalled(raw);
  return EFI_SUCCESS;
}

void Platform::Impl::notifyInstalled(Interface* in) {
  std::vector<Event*> toSignal;
  for (Registration* r : in->protocol->notifies) {
    r->pending.push_back(in);
    toSignal.push_back(r->event);
  }
  // A notify function may close events or install more protocols; only
  // events that still exist are signalled.
  for (Event* e : toSignal)
    if (findEvent(e)) signal(e);
}

EFI_STATUS Platform::Impl::disconnectUsers(Interface* in) {
  for (const OpenEntry& e : in->opens)
    if (e.attributes & EFI_OPEN_PROTOCOL_BY_DRIVER) return EFI_ACCESS_DENIED;
  auto& opens = in->opens;
  opens.erase(std::remove_if(opens.begin(), opens.end(),
                             [](const OpenEntry& e) { return (e.attributes & kRemovableOpens) != 0; }),
              opens.end());
  return opens.empty() ? EFI_SUCCESS : EFI_ACCESS_DENIED;
}

void Platform::Impl::forgetInterface(Interface* in) {
  in->protocol->interfaces.remove(in);
  for (Registration* r : in->protocol->notifies) {
    auto& q = r->pending;
    q.erase(std::remove(q.begin(), q.end(), in), q.end());
  }
  auto& list = in->handle->interfaces;
  list.erase(std::find_if(list.begin(), list.end(), [&](const auto& u) { return u.get() == in; }));
}

EFI_STATUS Platform::Impl::uninstall(EFI_HANDLE handle, const EFI_GUID* guid, void* iface, bool dropEmptyHandle) {
  Handle* h = findHandle(handle);
  if (!h || !guid) return EFI_INVALID_PARAMETER;
  Interface* in = findInterface(h, *guid);
  if (!in || in->interface != iface) return EFI_NOT_FOUND;
  if (EFI_ERROR(disconnectUsers(in))) return EFI_ACCESS_DENIED;
  forgetInterface(in);
  if (dropEmptyHandle) dropIfEmpty(h);
  return EFI_SUCCESS;
}

void Platform::Impl::dropIfEmpty(Handle* h) {
  if (h->interfaces.empty()) retireHandle(h);
}

void Platform::Impl::closeOpensByAgent(EFI_HANDLE agent) {
  for (const auto& h : handles)
    for (const auto& in : h->interfaces) {
      auto& opens = in->opens;
      opens.erase(std::remove_if(opens.begin(), opens.end(), [&](const OpenEntry& e) { return e.agent == agent; }),
                  opens.end());
    }
}

void fillHandleServices(EFI_BOOT_SERVICES& bs) {
  bs.InstallProtocolInterface = installProtocolInterface;
  bs.ReinstallProtocolInterface = reinstallProtocolInterface;
  bs.UninstallProtocolInterface = uninstallProtocolInterface;
  bs.HandleProtocol = handleProtocol;
  bs.Reserved = nullptr;
  bs.RegisterProtocolNotify = registerProtocolNotify;
  bs.LocateHandle = locateHandle;
  bs.LocateDevicePath = locateDevicePath;
  bs.OpenProtocol = openProtocol;
  bs.CloseProtocol = closeProtocol;
  bs.OpenProtocolInformation = openProtocolInformation;
  bs.ProtocolsPerHandle = protocolsPerHandle;
  bs.LocateHandleBuffer = locateHandleBuffer;
  bs.LocateProtocol = locateProtocol;
  bs.InstallMultipleProtocolInterfaces = installMultipleProtocolInterfaces;
  bs.UninstallMultipleProtocolInterfaces = uninstallMultipleProtocolInterfaces;
}

// ---------------------------------------------------------------- host-side API
// Host-side installation is set-up work of the test, not a firmware
// allocation: injected faults do not reach it.
EFI_STATUS Platform::installProtocol(EFI_HANDLE* handle, const EFI_GUID& guid, void* iface) {
  return impl_->install(handle, &guid, iface, false);
}

EFI_STATUS Platform::uninstallProtocol(EFI_HANDLE handle, const EFI_GUID& guid, void* iface) {
  return impl_->uninstall(handle, &guid, iface, true);
}

void* Platform::locateProtocol(const EFI_GUID& guid) {
  ProtocolEntry* entry = impl_->protocolEntry(guid, false);
  return entry && !entry->interfaces.empty() ? entry->interfaces.front()->interface : nullptr;
}

std::vector<EFI_HANDLE> Platform::handlesWith(const EFI_GUID& guid) {
  std::vector<EFI_HANDLE> out;
  if (ProtocolEntry* entry = impl_->protocolEntry(guid, false))
    for (Interface* in : entry->interfaces) out.push_back(in->handle);
  return out;
}

std::vector<EFI_HANDLE> Platform::allHandles() {
  std::vector<EFI_HANDLE> out;
  for (const auto& h : impl_->handles) out.push_back(h.get());
  return out;
}

void* Platform::handleProtocol(EFI_HANDLE handle, const EFI_GUID& guid) {
  Handle* h = impl_->findHandle(handle);
  Interface* in = h ? Impl::findInterface(h, guid) : nullptr;
  return in ? in->interface : nullptr;
}

}  // namespace tvl::host
