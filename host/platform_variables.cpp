// Runtime services: the variable store with the UEFI GetVariable /
// SetVariable / GetNextVariableName rules, the host clock, and a recorded
// ResetSystem. The other runtime slots answer EFI_UNSUPPORTED.
#include <cstring>
#include <ctime>

#include "host/platform_internal.h"

namespace tvl::host {

namespace {

constexpr uint32_t kAccess = EFI_VARIABLE_BOOTSERVICE_ACCESS | EFI_VARIABLE_RUNTIME_ACCESS;
constexpr uint32_t kHardwareErrorRecord = 0x08;
constexpr uint32_t kAuthenticatedWrite = 0x10;
constexpr uint32_t kTimeBasedAuthenticatedWrite = 0x20;
constexpr uint32_t kAppendWrite = 0x40;
constexpr uint32_t kEnhancedAuthenticatedAccess = 0x80;
constexpr uint32_t kKnownAttributes = EFI_VARIABLE_NON_VOLATILE | kAccess | kHardwareErrorRecord |
                                      kAuthenticatedWrite | kTimeBasedAuthenticatedWrite | kAppendWrite |
                                      kEnhancedAuthenticatedAccess;
// Authenticated variables and hardware error records are not emulated.
constexpr uint32_t kNotEmulated =
    kHardwareErrorRecord | kAuthenticatedWrite | kTimeBasedAuthenticatedWrite | kEnhancedAuthenticatedAccess;

size_t nameBytes(const std::u16string& name) { return (name.size() + 1) * sizeof(char16_t); }

size_t storageUsed(const Platform::Impl& p) {
  size_t used = 0;
  for (const Variable& v : p.variables) used += nameBytes(v.name) + v.data.size();
  return used;
}

Variable* findVariable(Platform::Impl& p, const std::u16string& name, const EFI_GUID& vendor) {
  for (Variable& v : p.variables)
    if (v.vendor == vendor && v.name == name) return &v;
  return nullptr;
}

EFI_STATUS getVariableIn(Platform::Impl& p, const CHAR16* name, const EFI_GUID* vendor, UINT32* attributes,
                         UINTN* dataSize, VOID* data) {
  if (!name || !vendor || !dataSize) return EFI_INVALID_PARAMETER;
  if (name[0] == 0) return EFI_NOT_FOUND;
  Variable* v = findVariable(p, name, *vendor);
  if (!v) return EFI_NOT_FOUND;
  if (attributes) *attributes = v->attributes;
  if (*dataSize < v->data.size()) {
    *dataSize = v->data.size();
    return EFI_BUFFER_TOO_SMALL;
  }
  if (!data) return EFI_INVALID_PARAMETER;
  if (!v->data.empty()) std::memcpy(data, v->data.data(), v->data.size());
  *dataSize = v->data.size();
  return EFI_SUCCESS;
}

EFI_STATUS setVariableIn(Platform::Impl& p, const CHAR16* name, const EFI_GUID* vendor, UINT32 attributes,
                         UINTN dataSize, const VOID* data) {
  if (!name || !vendor || name[0] == 0) return EFI_INVALID_PARAMETER;
  if (dataSize && !data) return EFI_INVALID_PARAMETER;
  if (attributes & ~kKnownAttributes) return EFI_INVALID_PARAMETER;
  if (attributes & kNotEmulated) return EFI_UNSUPPORTED;
  if ((attributes & EFI_VARIABLE_RUNTIME_ACCESS) && !(attributes & EFI_VARIABLE_BOOTSERVICE_ACCESS))
    return EFI_INVALID_PARAMETER;
  std::u16string key(name);
  if (dataSize > Platform::kMaxVariableSize || nameBytes(key) + dataSize > Platform::kMaxVariableSize)
    return EFI_INVALID_PARAMETER;
  const bool append = (attributes & kAppendWrite) != 0;
  Variable* v = findVariable(p, key, *vendor);
  // Rewriting with other attributes is refused, except for deletion by
  // attributes 0 and for the append flag itself.
  if (v && attributes != 0 && (attributes & ~kAppendWrite) != v->attributes) return EFI_INVALID_PARAMETER;
  const auto* bytes = static_cast<const uint8_t*>(data);
  if (append && dataSize == 0 && (attributes & kAccess)) return EFI_SUCCESS;  // nothing to add
  const bool deleting = (!append && dataSize == 0) || (attributes & kAccess) == 0;
  if (deleting) {
    if (!v) return EFI_NOT_FOUND;
    p.variables.erase(p.variables.begin() + (v - p.variables.data()));
    return EFI_SUCCESS;
  }
  size_t used = storageUsed(p);
  if (v && append) {
    if (v->data.size() + dataSize > Platform::kMaxVariableSize - nameBytes(key)) return EFI_INVALID_PARAMETER;
    if (used + dataSize > Platform::kVariableStorage) return EFI_OUT_OF_RESOURCES;
    v->data.insert(v->data.end(), bytes, bytes + dataSize);
    return EFI_SUCCESS;
  }
  size_t replaced = v ? nameBytes(key) + v->data.size() : 0;
  if (used - replaced + nameBytes(key) + dataSize > Platform::kVariableStorage) return EFI_OUT_OF_RESOURCES;
  if (v) {
    v->data.assign(bytes, bytes + dataSize);
    return EFI_SUCCESS;
  }
  Variable fresh;
  fresh.vendor = *vendor;
  fresh.name = key;
  fresh.attributes = attributes & ~kAppendWrite;
  fresh.data.assign(bytes, bytes + dataSize);
  p.variables.push_back(std::move(fresh));
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI getVariable(const CHAR16* name, const EFI_GUID* vendor, UINT32* attributes, UINTN* dataSize,
                              VOID* data) {
  return getVariableIn(activeImpl(), name, vendor, attributes, dataSize, data);
}

EFI_STATUS EFIAPI setVariable(const CHAR16* name, const EFI_GUID* vendor, UINT32 attributes, UINTN dataSize,
                              const VOID* data) {
  return setVariableIn(activeImpl(), name, vendor, attributes, dataSize, data);
}

EFI_STATUS EFIAPI getNextVariableName(UINTN* nameSize, CHAR16* name, EFI_GUID* vendor) {
  Platform::Impl& p = activeImpl();
  if (!nameSize || !name || !vendor) return EFI_INVALID_PARAMETER;
  // The given name must end within the given buffer size.
  size_t chars = *nameSize / sizeof(CHAR16);
  size_t length = 0;
  while (length < chars && name[length] != 0) ++length;
  if (length == chars) return EFI_INVALID_PARAMETER;
  size_t next = 0;
  if (length != 0) {
    Variable* v = findVariable(p, std::u16string(name, length), *vendor);
    if (!v) return EFI_INVALID_PARAMETER;
    next = static_cast<size_t>(v - p.variables.data()) + 1;
  }
  if (next >= p.variables.size()) return EFI_NOT_FOUND;
  const Variable& v = p.variables[next];
  size_t needed = nameBytes(v.name);
  if (*nameSize < needed) {
    *nameSize = needed;
    return EFI_BUFFER_TOO_SMALL;
  }
  std::memcpy(name, v.name.c_str(), needed);
  *vendor = v.vendor;
  *nameSize = needed;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI queryVariableInfo(UINT32 attributes, UINT64* maxStorage, UINT64* remaining, UINT64* maxSize) {
  Platform::Impl& p = activeImpl();
  if (!maxStorage || !remaining || !maxSize) return EFI_INVALID_PARAMETER;
  if (attributes == 0 || (attributes & ~kKnownAttributes) || (attributes & kAccess) == 0) return EFI_INVALID_PARAMETER;
  if ((attributes & EFI_VARIABLE_RUNTIME_ACCESS) && !(attributes & EFI_VARIABLE_BOOTSERVICE_ACCESS))
    return EFI_INVALID_PARAMETER;
  if (attributes & kNotEmulated) return EFI_UNSUPPORTED;
  *maxStorage = Platform::kVariableStorage;
  *remaining = Platform::kVariableStorage - storageUsed(p);
  *maxSize = Platform::kMaxVariableSize;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI getTime(EFI_TIME* time, VOID* capabilities) {
  if (!time) return EFI_INVALID_PARAMETER;
  struct timespec now {};
  clock_gettime(CLOCK_REALTIME, &now);
  struct tm parts {};
  gmtime_r(&now.tv_sec, &parts);
  std::memset(time, 0, sizeof *time);
  time->Year = static_cast<UINT16>(parts.tm_year + 1900);
  time->Month = static_cast<UINT8>(parts.tm_mon + 1);
  time->Day = static_cast<UINT8>(parts.tm_mday);
  time->Hour = static_cast<UINT8>(parts.tm_hour);
  time->Minute = static_cast<UINT8>(parts.tm_min);
  time->Second = static_cast<UINT8>(parts.tm_sec);
  time->Nanosecond = static_cast<UINT32>(now.tv_nsec);
  time->TimeZone = EFI_UNSPECIFIED_TIMEZONE;
  if (capabilities) {
    auto* caps = static_cast<EFI_TIME_CAPABILITIES*>(capabilities);
    caps->Resolution = 1;
    caps->Accuracy = 50000000;  // 50 ppm, counted in units of 1e-12
    caps->SetsToZero = FALSE;
  }
  return EFI_SUCCESS;
}

// The emulation cannot reset: the request is recorded and the call returns.
VOID EFIAPI resetSystem(EFI_RESET_TYPE type, EFI_STATUS status, UINTN, VOID*) {
  Platform::Impl& p = activeImpl();
  p.resetRequested = true;
  p.resetType = type;
  p.resetStatus = status;
}

EFI_STATUS EFIAPI unsupportedSetTime(EFI_TIME*) { return EFI_UNSUPPORTED; }
EFI_STATUS EFIAPI unsupportedGetWakeupTime(BOOLEAN*, BOOLEAN*, EFI_TIME*) { return EFI_UNSUPPORTED; }
EFI_STATUS EFIAPI unsupportedSetWakeupTime(BOOLEAN, EFI_TIME*) { return EFI_UNSUPPORTED; }
EFI_STATUS EFIAPI unsupportedSetVirtualAddressMap(UINTN, UINTN, UINT32, EFI_MEMORY_DESCRIPTOR*) {
  return EFI_UNSUPPORTED;
}
EFI_STATUS EFIAPI unsupportedConvertPointer(UINTN, VOID**) { return EFI_UNSUPPORTED; }
EFI_STATUS EFIAPI unsupportedGetNextHighMonotonicCount(UINT32*) { return EFI_UNSUPPORTED; }
EFI_STATUS EFIAPI unsupportedUpdateCapsule(EFI_CAPSULE_HEADER**, UINTN, EFI_PHYSICAL_ADDRESS) {
  return EFI_UNSUPPORTED;
}
EFI_STATUS EFIAPI unsupportedQueryCapsuleCapabilities(EFI_CAPSULE_HEADER**, UINTN, UINT64*, EFI_RESET_TYPE*) {
  return EFI_UNSUPPORTED;
}

}  // namespace

void fillRuntimeServices(EFI_RUNTIME_SERVICES& rt) {
  rt.GetTime = getTime;
  rt.SetTime = unsupportedSetTime;
  rt.GetWakeupTime = unsupportedGetWakeupTime;
  rt.SetWakeupTime = unsupportedSetWakeupTime;
  rt.SetVirtualAddressMap = unsupportedSetVirtualAddressMap;
  rt.ConvertPointer = unsupportedConvertPointer;
  rt.GetVariable = getVariable;
  rt.GetNextVariableName = getNextVariableName;
  rt.SetVariable = setVariable;
  rt.GetNextHighMonotonicCount = unsupportedGetNextHighMonotonicCount;
  rt.ResetSystem = resetSystem;
  rt.UpdateCapsule = unsupportedUpdateCapsule;
  rt.QueryCapsuleCapabilities = unsupportedQueryCapsuleCapabilities;
  rt.QueryVariableInfo = queryVariableInfo;
}

EFI_STATUS Platform::setVariable(const std::u16string& name, const EFI_GUID& vendor, uint32_t attributes,
                                 const std::vector<uint8_t>& data) {
  return setVariableIn(*impl_, name.c_str(), &vendor, attributes, data.size(), data.empty() ? nullptr : data.data());
}

EFI_STATUS Platform::getVariable(const std::u16string& name, const EFI_GUID& vendor, std::vector<uint8_t>* data,
                                 uint32_t* attributes) const {
  Variable* v = findVariable(*impl_, name, vendor);
  if (!v) return EFI_NOT_FOUND;
  if (data) *data = v->data;
  if (attributes) *attributes = v->attributes;
  return EFI_SUCCESS;
}

}  // namespace tvl::host
