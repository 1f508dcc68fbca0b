#include "host/devices/device.h"

#include <algorithm>
#include <map>
#include <optional>

#include <cstring>
#include <stdexcept>
#include <string_view>

#include "host/devices/default_config.h"
#include "host/hii/config_string.h"
#include "host/hii/device_path.h"

namespace tvl::host::devices {
namespace {


struct Storage {
  EFI_GUID guid{};
  std::u16string name;
  bool variable = false;
  uint32_t attributes = 0;
  std::vector<uint8_t> bytes;  // buffer storage only
  bool refusesWideZero = false;
};

std::u16string_view viewOf(const CHAR16* text) {
  size_t n = 0;
  while (text[n]) ++n;
  return std::u16string_view(text, n);
}

}  // namespace

struct Device::Impl {
  struct Interface {
    EFI_HII_CONFIG_ACCESS_PROTOCOL protocol;
    Impl* impl;
  };

  Impl(Platform& p, hii::HiiDatabase& h, std::vector<uint8_t> path) : platform(p), hii(h), devicePath(std::move(path)) {}

  static Impl* of(const EFI_HII_CONFIG_ACCESS_PROTOCOL* This) {
    return This ? reinterpret_cast<const Interface*>(This)->impl : nullptr;
  }

  Storage* find(const EFI_GUID& guid, const std::u16string& name) {
    for (auto& s : storages)
      if (s.guid == guid && s.name == name) return &s;
    return nullptr;
  }
  const Storage& get(const EFI_GUID& guid, const std::u16string& name) const {
    for (const auto& s : storages)
      if (s.guid == guid && s.name == name) return s;
    throw std::out_of_range("no such storage on this device");
  }

  // ---- storage bytes
  EFI_STATUS read(const Storage& s, std::vector<uint8_t>& out) const {
    if (!s.variable) {
      out = s.bytes;
      return EFI_SUCCESS;
    }
    EFI_GUID guid = s.guid;
    UINTN size = 0;
    UINT32 attributes = 0;
    EFI_STATUS status = platform.runtimeServices()->GetVariable(s.name.c_str(), &guid, &attributes, &size, nullptr);
    if (status == EFI_SUCCESS) {
      out.clear();
      return EFI_SUCCESS;
    }
    if (status != EFI_BUFFER_TOO_SMALL) return status;
    std::vector<uint8_t> data(size);
    RETURN_IF_ERROR(platform.runtimeServices()->GetVariable(s.name.c_str(), &guid, &attributes, &size, data.data()));
    data.resize(size);
    out = std::move(data);
    return EFI_SUCCESS;
  }

  EFI_STATUS write(Storage& s, const std::vector<uint8_t>& bytes) {
    if (!s.variable) {
      s.bytes = bytes;
      return EFI_SUCCESS;
    }
    EFI_GUID guid = s.guid;
    return platform.runtimeServices()->SetVariable(s.name.c_str(), &guid, s.attributes, bytes.size(), bytes.data());
  }

  std::u16string header(const Storage& s) const { return hii::configHdr(s.guid, s.name, devicePath); }

  // ---- ExtractConfig
  // The whole storage as <ConfigResp> under `hdr`, followed by an <AltResp>
  // per default store of the device's forms: "&<hdr>&ALTCFG=<4 hex
  // DefaultId>" and the fields that have a default there (those that fit).
  std::u16string wholeStorage(const std::u16string& hdr, const Storage& s, const std::vector<uint8_t>& bytes) const {
    std::u16string text = hdr;
    hii::appendBlockConfig(text, 0, bytes.data(), bytes.size());
    for (const DefaultConfig& config : defaultsOf(s)) {
      const uint8_t id[2] = {uint8_t(config.defaultId), uint8_t(config.defaultId >> 8)};
      text += u'&';
      text += hdr;
      text += u"&ALTCFG=";
      hii::appendValueDigits(text, id, 2);
      for (const DefaultField& f : config.fields)
        if (f.offset + f.bytes.size() <= bytes.size())
          hii::appendBlockConfig(text, f.offset, f.bytes.data(), f.bytes.size());
    }
    return text;
  }

  // The default sections of a storage depend only on the device's forms:
  // worked out for every storage at once, in one walk over the forms, and
  // again only after the package lists change.
  const std::vector<DefaultConfig>& defaultsOf(const Storage& s) const {
    if (!defaultCache) {
      std::vector<std::vector<uint8_t>> packageLists;
      for (EFI_HII_HANDLE list : lists) {
        std::vector<uint8_t> exported;  // stays empty when the export fails, keeping the lists' indexes
        if (hii.exportPackageLists(list, exported) != EFI_SUCCESS) exported.clear();
        packageLists.push_back(std::move(exported));
      }
      defaultCache = allDefaultConfigs(packageLists, evaluated);
    }
    static const std::vector<DefaultConfig> kNone;
    auto found = defaultCache->find(StorageName{s.guid, s.name});
    return found != defaultCache->end() ? found->second : kNone;
  }

  EFI_STATUS extractAll(std::u16string& results) {
    if (storages.empty()) return EFI_NOT_FOUND;
    for (const auto& s : storages) {
      std::vector<uint8_t> bytes;
      RETURN_IF_ERROR(read(s, bytes));
      if (!results.empty()) results += u'&';
      results += wholeStorage(header(s), s, bytes);
    }
    return EFI_SUCCESS;
  }

  // Finds the storage that a header names; EFI_NOT_FOUND for another
  // device's or an unknown storage.
  EFI_STATUS route(std::u16string_view text, hii::ConfigHeader& header, Storage*& storage, size_t& progress) {
    hii::ConfigError error;
    if (hii::parseConfigHeader(text, 0, header, &error) != EFI_SUCCESS) {
      progress = error.progress;
      return EFI_INVALID_PARAMETER;
    }
    storage = header.path == devicePath ? find(header.guid, header.name) : nullptr;
    if (!storage) {
      progress = 0;
      return EFI_NOT_FOUND;
    }
    return EFI_SUCCESS;
  }

  EFI_STATUS parseBody(std::u16string_view text, hii::ConfigKind kind, const std::vector<uint8_t>& bytes,
                       hii::ConfigString& parsed, size_t& progress) {
    hii::ConfigError error;
    if (hii::parseConfigString(text, kind, parsed, &error) != EFI_SUCCESS) {
      progress = error.progress;
      return EFI_INVALID_PARAMETER;
    }
    for (const auto& block : parsed.blocks) {
      if (block.offset > bytes.size() || block.width > bytes.size() - block.offset) {
        progress = block.begin;
        return EFI_INVALID_PARAMETER;
      }
    }
    return EFI_SUCCESS;
  }

  EFI_STATUS extract(std::u16string_view text, std::u16string& results, size_t& progress) {
    hii::ConfigHeader header;
    Storage* storage = nullptr;
    RETURN_IF_ERROR(route(text, header, storage, progress));
    std::vector<uint8_t> bytes;
    RETURN_IF_ERROR(read(*storage, bytes));
    if (header.end == text.size()) {
      results = wholeStorage(std::u16string(text), *storage, bytes);
    } else {
      results = std::u16string(text.substr(0, header.end));
      hii::ConfigString parsed;
      RETURN_IF_ERROR(parseBody(text, hii::ConfigKind::Request, bytes, parsed, progress));
      for (const auto& block : parsed.blocks) {
        results += block.blockText;
        results += u"&VALUE=";
        hii::appendValueDigits(results, bytes.data() + block.offset, block.width);
      }
    }
    progress = text.size();
    return EFI_SUCCESS;
  }

  EFI_STATUS routeConfig(std::u16string_view text, size_t& progress) {
    hii::ConfigHeader header;
    Storage* storage = nullptr;
    RETURN_IF_ERROR(route(text, header, storage, progress));
    std::vector<uint8_t> bytes;
    RETURN_IF_ERROR(read(*storage, bytes));
    hii::ConfigString parsed;
    RETURN_IF_ERROR(parseBody(text, hii::ConfigKind::Response, bytes, parsed, progress));
    if (storage->refusesWideZero) {
      for (const auto& block : parsed.blocks) {
        if (block.width > 1 && std::all_of(block.value.begin(), block.value.end(), [](uint8_t b) { return b == 0; })) {
          progress = block.begin;
          return EFI_INVALID_PARAMETER;
        }
      }
    }
    if (filter) {
      progress = 0;
      RETURN_IF_ERROR(filter(std::u16string(text)));
    }
    for (const auto& block : parsed.blocks)
      std::memcpy(bytes.data() + block.offset, block.value.data(), block.width);
    RETURN_IF_ERROR(write(*storage, bytes));
    progress = text.size();
    return EFI_SUCCESS;
  }

  // A pool copy of `text` with its terminator, as the caller frees it.
  EFI_STATUS poolString(const std::u16string& text, EFI_STRING* out) {
    void* buffer = nullptr;
    const UINTN size = (text.size() + 1) * sizeof(CHAR16);
    EFI_STATUS status = platform.bootServices()->AllocatePool(EfiBootServicesData, size, &buffer);
    if (status != EFI_SUCCESS || !buffer) return EFI_OUT_OF_RESOURCES;
    std::memcpy(buffer, text.c_str(), size);
    *out = static_cast<EFI_STRING>(buffer);
    return EFI_SUCCESS;
  }

  Platform& platform;
  hii::HiiDatabase& hii;
  std::vector<uint8_t> devicePath;
  Interface access{};
  EFI_HANDLE handle = nullptr;
  std::vector<Storage> storages;
  std::vector<EFI_HII_HANDLE> lists;
  std::vector<EvaluatedDefault> evaluated;
  // Of every storage the forms declare; none until first asked for.
  mutable std::optional<DeviceDefaults> defaultCache;
  std::vector<Call> extracts;
  std::vector<Call> routes;
  std::function<EFI_STATUS(const std::u16string&)> filter;
};

namespace {

using Impl = Device::Impl;

EFI_STATUS EFIAPI ExtractConfig(const EFI_HII_CONFIG_ACCESS_PROTOCOL* This, const CHAR16* Request,
                                EFI_STRING* Progress, EFI_STRING* Results) {
  Impl* impl = Impl::of(This);
  if (!impl || !Progress || !Results) return EFI_INVALID_PARAMETER;
  Device::Call call;
  call.textNull = Request == nullptr;
  std::u16string results;
  if (!Request) {
    *Progress = nullptr;
    call.status = impl->extractAll(results);
  } else {
    const std::u16string_view text = viewOf(Request);
    call.text = std::u16string(text);
    call.status = impl->extract(text, results, call.progress);
    *Progress = const_cast<EFI_STRING>(Request + call.progress);
  }
  if (call.status == EFI_SUCCESS) call.status = impl->poolString(results, Results);
  impl->extracts.push_back(call);
  return call.status;
}

EFI_STATUS EFIAPI RouteConfig(const EFI_HII_CONFIG_ACCESS_PROTOCOL* This, const CHAR16* Configuration,
                              EFI_STRING* Progress) {
  Impl* impl = Impl::of(This);
  if (!impl || !Configuration || !Progress) return EFI_INVALID_PARAMETER;
  Device::Call call;
  const std::u16string_view text = viewOf(Configuration);
  call.text = std::u16string(text);
  call.status = impl->routeConfig(text, call.progress);
  *Progress = const_cast<EFI_STRING>(Configuration + call.progress);
  impl->routes.push_back(call);
  return call.status;
}

EFI_STATUS EFIAPI Callback(const EFI_HII_CONFIG_ACCESS_PROTOCOL*, EFI_BROWSER_ACTION, EFI_QUESTION_ID, UINT8,
                           EFI_IFR_TYPE_VALUE_RAW*, EFI_BROWSER_ACTION_REQUEST*) {
  return EFI_UNSUPPORTED;
}

}  // namespace

Device::Device(Platform& platform, hii::HiiDatabase& hii, std::vector<uint8_t> devicePath)
    : impl_(std::make_unique<Impl>(platform, hii, std::move(devicePath))) {
  if (hii::devicePathSize(impl_->devicePath.data(), impl_->devicePath.size()) != impl_->devicePath.size())
    throw std::invalid_argument("device path is not one well-formed path");
  impl_->access.protocol = EFI_HII_CONFIG_ACCESS_PROTOCOL{ExtractConfig, RouteConfig, Callback};
  impl_->access.impl = impl_.get();
  if (platform.installProtocol(&impl_->handle, gEfiDevicePathProtocolGuid, impl_->devicePath.data()) != EFI_SUCCESS)
    throw std::runtime_error("cannot install the device path");
  if (platform.installProtocol(&impl_->handle, gEfiHiiConfigAccessProtocolGuid, &impl_->access.protocol) != EFI_SUCCESS) {
    platform.uninstallProtocol(impl_->handle, gEfiDevicePathProtocolGuid, impl_->devicePath.data());
    throw std::runtime_error("cannot install the configuration-access protocol");
  }
}

Device::~Device() {
  if (currentPlatform() != &impl_->platform) return;  // the platform went first
  for (EFI_HII_HANDLE list : impl_->lists) impl_->hii.removePackageList(list);
  impl_->platform.uninstallProtocol(impl_->handle, gEfiHiiConfigAccessProtocolGuid, &impl_->access.protocol);
  impl_->platform.uninstallProtocol(impl_->handle, gEfiDevicePathProtocolGuid, impl_->devicePath.data());
}

EFI_HANDLE Device::handle() const { return impl_->handle; }
const std::vector<uint8_t>& Device::devicePath() const { return impl_->devicePath; }
EFI_HII_CONFIG_ACCESS_PROTOCOL* Device::configAccess() { return &impl_->access.protocol; }

void Device::addBufferStorage(const EFI_GUID& guid, const std::u16string& name, std::vector<uint8_t> bytes) {
  if (impl_->find(guid, name)) throw std::invalid_argument("storage declared twice");
  Storage s;
  s.guid = guid;
  s.name = name;
  s.bytes = std::move(bytes);
  impl_->storages.push_back(std::move(s));
}

void Device::addVariableStorage(const EFI_GUID& guid, const std::u16string& name, std::vector<uint8_t> initial,
                                uint32_t attributes) {
  if (impl_->find(guid, name)) throw std::invalid_argument("storage declared twice");
  Storage s;
  s.guid = guid;
  s.name = name;
  s.variable = true;
  s.attributes = attributes;
  if (impl_->write(s, initial) != EFI_SUCCESS) throw std::runtime_error("cannot write the storage's variable");
  impl_->storages.push_back(std::move(s));
}

void Device::refuseWideZeroWrites(const EFI_GUID& guid, const std::u16string& name) {
  Storage* s = impl_->find(guid, name);
  if (!s) throw std::out_of_range("no such storage on this device");
  s->refusesWideZero = true;
}

std::vector<uint8_t> Device::storage(const EFI_GUID& guid, const std::u16string& name) const {
  std::vector<uint8_t> bytes;
  if (impl_->read(impl_->get(guid, name), bytes) != EFI_SUCCESS) throw std::runtime_error("cannot read the storage");
  return bytes;
}

void Device::setStorage(const EFI_GUID& guid, const std::u16string& name, const std::vector<uint8_t>& bytes) {
  Storage* s = impl_->find(guid, name);
  if (!s) throw std::out_of_range("no such storage on this device");
  if (impl_->write(*s, bytes) != EFI_SUCCESS) throw std::runtime_error("cannot write the storage");
}

std::u16string Device::configHdr(const EFI_GUID& guid, const std::u16string& name) const {
  return impl_->header(impl_->get(guid, name));
}

EFI_HII_HANDLE Device::addPackageList(const std::vector<uint8_t>& packageList) {
  EFI_HII_HANDLE handle = nullptr;
  if (impl_->hii.addPackageList(packageList, impl_->handle, &handle) != EFI_SUCCESS)
    throw std::runtime_error("the HII database refused the package list");
  impl_->lists.push_back(handle);
  impl_->defaultCache.reset();
  return handle;
}

const std::vector<EFI_HII_HANDLE>& Device::packageLists() const { return impl_->lists; }
void Device::setEvaluatedDefaults(std::vector<EvaluatedDefault> evaluated) {
  impl_->evaluated = std::move(evaluated);
  impl_->defaultCache.reset();
}

const std::vector<Device::Call>& Device::extractConfigCalls() const { return impl_->extracts; }
const std::vector<Device::Call>& Device::routeConfigCalls() const { return impl_->routes; }
void Device::clearCalls() {
  impl_->extracts.clear();
  impl_->routes.clear();
}

void Device::setRouteConfigFilter(std::function<EFI_STATUS(const std::u16string&)> filter) {
  impl_->filter = std::move(filter);
}

}  // namespace tvl::host::devices
