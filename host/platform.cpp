// The platform object: system table assembly, the current-platform stack,
// the console, and the small boot services (CRC, memory utilities,
// monotonic count, configuration tables, the slots that answer
// EFI_UNSUPPORTED).
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/platform_internal.h"

namespace tvl::host {

namespace {

thread_local Platform* tCurrent = nullptr;

const EFI_GUID kSimpleTextOutputGuid = {
    0x387477c2, 0x69c7, 0x11d2, {0x8e, 0x39, 0x00, 0xa0, 0xc9, 0x69, 0x72, 0x3b}};

// ---------------------------------------------------------------- console
Platform::Impl* consoleOwner(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* self) {
  Platform::Impl& p = activeImpl();
  return self == &p.conOut ? &p : nullptr;
}

std::string narrow(const std::u16string& s) {
  std::string out;
  for (char16_t c : s) {
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

EFI_STATUS EFIAPI conReset(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* self, BOOLEAN) {
  Platform::Impl* p = consoleOwner(self);
  if (!p) return EFI_INVALID_PARAMETER;
  p->conOutMode.CursorColumn = 0;
  p->conOutMode.CursorRow = 0;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI conOutputString(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* self, const CHAR16* text) {
  Platform::Impl* p = consoleOwner(self);
  if (!p || !text) return EFI_INVALID_PARAMETER;
  const size_t start = p->console.size();
  p->console += text;
  if (p->echo) {
    std::string out = narrow(p->console.substr(start));
    std::fwrite(out.data(), 1, out.size(), stdout);
    std::fflush(stdout);
  }
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI conTestString(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* self, const CHAR16* text) {
  return consoleOwner(self) && text ? EFI_SUCCESS : EFI_INVALID_PARAMETER;
}

constexpr UINTN kColumns = 80;
constexpr UINTN kRows = 25;

EFI_STATUS EFIAPI conQueryMode(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* self, UINTN mode, UINTN* columns, UINTN* rows) {
  if (!consoleOwner(self) || !columns || !rows) return EFI_INVALID_PARAMETER;
  if (mode != 0) return EFI_UNSUPPORTED;
  *columns = kColumns;
  *rows = kRows;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI conSetMode(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* self, UINTN mode) {
  if (!consoleOwner(self)) return EFI_INVALID_PARAMETER;
  return mode == 0 ? EFI_SUCCESS : EFI_UNSUPPORTED;
}

EFI_STATUS EFIAPI conSetAttribute(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* self, UINTN attribute) {
  Platform::Impl* p = consoleOwner(self);
  if (!p) return EFI_INVALID_PARAMETER;
  p->conOutMode.Attribute = static_cast<INT32>(attribute & 0x7F);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI conClearScreen(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* self) {
  Platform::Impl* p = consoleOwner(self);
  if (!p) return EFI_INVALID_PARAMETER;
  p->conOutMode.CursorColumn = 0;
  p->conOutMode.CursorRow = 0;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI conSetCursorPosition(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* self, UINTN column, UINTN row) {
  Platform::Impl* p = consoleOwner(self);
  if (!p) return EFI_INVALID_PARAMETER;
  if (column >= kColumns || row >= kRows) return EFI_UNSUPPORTED;
  p->conOutMode.CursorColumn = static_cast<INT32>(column);
  p->conOutMode.CursorRow = static_cast<INT32>(row);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI conEnableCursor(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* self, BOOLEAN visible) {
  Platform::Impl* p = consoleOwner(self);
  if (!p) return EFI_INVALID_PARAMETER;
  p->conOutMode.CursorVisible = visible;
  return EFI_SUCCESS;
}

// ---------------------------------------------------------------- small services
uint32_t crc32(const uint8_t* data, size_t n) {
  uint32_t crc = 0xFFFFFFFFu;
  for (size_t i = 0; i < n; ++i) {
    crc ^= data[i];
    for (int b = 0; b < 8; ++b) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

EFI_STATUS EFIAPI calculateCrc32(VOID* data, UINTN size, UINT32* crc) {
  if (!data || size == 0 || !crc) return EFI_INVALID_PARAMETER;
  *crc = crc32(static_cast<const uint8_t*>(data), size);
  return EFI_SUCCESS;
}

VOID EFIAPI copyMem(VOID* dst, VOID* src, UINTN n) {
  if (n) std::memmove(dst, src, n);
}

VOID EFIAPI setMem(VOID* dst, UINTN n, UINT8 value) {
  if (n) std::memset(dst, value, n);
}

EFI_STATUS EFIAPI getNextMonotonicCount(UINT64* count) {
  if (!count) return EFI_INVALID_PARAMETER;
  *count = activeImpl().monotonicCount++;
  return EFI_SUCCESS;
}

// Time does not pass in the emulation: nothing waits on a timer.
EFI_STATUS EFIAPI stall(UINTN) { return EFI_SUCCESS; }

EFI_STATUS EFIAPI setWatchdogTimer(UINTN, UINT64 code, UINTN, CHAR16*) {
  return code <= 0xFFFF ? EFI_SUCCESS : EFI_INVALID_PARAMETER;
}

void refreshSystemTableCrc(Platform::Impl& p) {
  p.systemTable.NumberOfTableEntries = p.configurationTables.size();
  p.systemTable.ConfigurationTable = p.configurationTables.empty() ? nullptr : p.configurationTables.data();
  p.systemTable.Hdr.CRC32 = 0;
  p.systemTable.Hdr.CRC32 = crc32(reinterpret_cast<const uint8_t*>(&p.systemTable), sizeof(p.systemTable));
}

EFI_STATUS EFIAPI installConfigurationTable(const EFI_GUID* guid, VOID* table) {
  if (!guid) return EFI_INVALID_PARAMETER;
  Platform::Impl& p = activeImpl();
  auto& tables = p.configurationTables;
  for (size_t i = 0; i < tables.size(); ++i) {
    if (tables[i].VendorGuid != *guid) continue;
    if (table) {
      tables[i].VendorTable = table;
    } else {
      tables.erase(tables.begin() + static_cast<std::ptrdiff_t>(i));
    }
    refreshSystemTableCrc(p);
    return EFI_SUCCESS;
  }
  if (!table) return EFI_NOT_FOUND;
  tables.push_back(EFI_CONFIGURATION_TABLE{*guid, table});
  refreshSystemTableCrc(p);
  return EFI_SUCCESS;
}

// Slots the emulation does not provide.
EFI_STATUS EFIAPI unsupportedGetMemoryMap(UINTN*, EFI_MEMORY_DESCRIPTOR*, UINTN*, UINTN*, UINT32*) {
  return EFI_UNSUPPORTED;
}
EFI_STATUS EFIAPI unsupportedSetTimer(EFI_EVENT, EFI_TIMER_DELAY, UINT64) { return EFI_UNSUPPORTED; }
EFI_STATUS EFIAPI unsupportedExitBootServices(EFI_HANDLE, UINTN) { return EFI_UNSUPPORTED; }
EFI_STATUS EFIAPI unsupportedConnectController(EFI_HANDLE, EFI_HANDLE*, EFI_DEVICE_PATH_PROTOCOL*, BOOLEAN) {
  return EFI_UNSUPPORTED;
}
EFI_STATUS EFIAPI unsupportedDisconnectController(EFI_HANDLE, EFI_HANDLE, EFI_HANDLE) { return EFI_UNSUPPORTED; }

}  // namespace

__thread Platform::Impl* tActiveImpl = nullptr;

void EFIAPI noActivePlatform() {
  std::fprintf(stderr, "tolvane host: a boot or runtime service was called with no platform\n");
  std::abort();
}

Platform* currentPlatform() { return tCurrent; }

std::string guidKey(const EFI_GUID& g) { return std::string(reinterpret_cast<const char*>(&g), sizeof g); }

std::string guidText(const EFI_GUID& g) {
  char text[40];
  std::snprintf(text, sizeof text, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", g.Data1, g.Data2, g.Data3,
                g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
  return text;
}

std::string Platform::Impl::currentOwner() const {
  if (running.empty() || running.back() == nullptr) return "host";
  return running.back()->label();
}

void Platform::Impl::setupTables() {
  conOutMode.MaxMode = 1;
  conOutMode.Mode = 0;
  conOutMode.Attribute = 0x07;
  conOutMode.CursorVisible = TRUE;
  conOut.Reset = conReset;
  conOut.OutputString = conOutputString;
  conOut.TestString = conTestString;
  conOut.QueryMode = conQueryMode;
  conOut.SetMode = conSetMode;
  conOut.SetAttribute = conSetAttribute;
  conOut.ClearScreen = conClearScreen;
  conOut.SetCursorPosition = conSetCursorPosition;
  conOut.EnableCursor = conEnableCursor;
  conOut.Mode = &conOutMode;

  EFI_BOOT_SERVICES& bs = bootServices;
  bs.Hdr.Signature = EFI_BOOT_SERVICES_SIGNATURE;
  bs.Hdr.Revision = EFI_2_70_SYSTEM_TABLE_REVISION;
  bs.Hdr.HeaderSize = sizeof(EFI_BOOT_SERVICES);
  fillPoolServices(bs, poolMode);
  fillHandleServices(bs);
  fillEventServices(bs);
  fillImageServices(bs);
  bs.GetMemoryMap = unsupportedGetMemoryMap;
  bs.SetTimer = unsupportedSetTimer;
  bs.InstallConfigurationTable = installConfigurationTable;
  bs.ExitBootServices = unsupportedExitBootServices;
  bs.GetNextMonotonicCount = getNextMonotonicCount;
  bs.Stall = stall;
  bs.SetWatchdogTimer = setWatchdogTimer;
  bs.ConnectController = unsupportedConnectController;
  bs.DisconnectController = unsupportedDisconnectController;
  bs.CalculateCrc32 = calculateCrc32;
  bs.CopyMem = copyMem;
  bs.SetMem = setMem;
  bs.Hdr.CRC32 = crc32(reinterpret_cast<const uint8_t*>(&bs), sizeof bs);

  EFI_RUNTIME_SERVICES& rt = runtimeServices;
  rt.Hdr.Signature = EFI_RUNTIME_SERVICES_SIGNATURE;
  rt.Hdr.Revision = EFI_2_70_SYSTEM_TABLE_REVISION;
  rt.Hdr.HeaderSize = sizeof(EFI_RUNTIME_SERVICES);
  fillRuntimeServices(rt);
  rt.Hdr.CRC32 = crc32(reinterpret_cast<const uint8_t*>(&rt), sizeof rt);

  EFI_SYSTEM_TABLE& st = systemTable;
  st.Hdr.Signature = EFI_SYSTEM_TABLE_SIGNATURE;
  st.Hdr.Revision = EFI_2_70_SYSTEM_TABLE_REVISION;
  st.Hdr.HeaderSize = sizeof(EFI_SYSTEM_TABLE);
  st.FirmwareVendor = firmwareVendor.data();
  st.FirmwareRevision = 0x00010000;
  st.ConIn = nullptr;
  st.ConOut = &conOut;
  st.StdErr = &conOut;
  st.RuntimeServices = &runtimeServices;
  st.BootServices = &bootServices;
  // The console output device is a handle of its own, as in firmware.
  install(&consoleHandle, &kSimpleTextOutputGuid, &conOut, false);
  st.ConsoleOutHandle = consoleHandle;
  st.StandardErrorHandle = consoleHandle;
  refreshSystemTableCrc(*this);
}

Platform::Platform(PoolMode poolMode) : impl_(std::make_unique<Impl>()) {
  impl_->owner = this;
  impl_->poolMode = poolMode;
  if (poolMode == PoolMode::Lean) impl_->lean = std::make_unique<LeanPool>();
  impl_->previous = tCurrent;
  impl_->previousImpl = tActiveImpl;
  tCurrent = this;
  tActiveImpl = impl_.get();
  // TOLVANE_CONSOLE_ECHO=1 shows what images print while tests run.
  const char* echo = std::getenv("TOLVANE_CONSOLE_ECHO");
  impl_->echo = echo && *echo && *echo != '0';
  impl_->setupTables();
}

void Platform::bindToThisThread() {
  tCurrent = this;
  tActiveImpl = impl_.get();
}

Platform::~Platform() {
  // Teardown may still reach boot services (nothing runs image code, but
  // the helpers share the entry points), so act on this platform.
  Platform* outer = tCurrent;
  Impl* outerImpl = tActiveImpl;
  tCurrent = this;
  tActiveImpl = impl_.get();
  impl_->teardown();
  if (outer == this) {
    tCurrent = impl_->previous;
    tActiveImpl = impl_->previousImpl;
  } else {
    // Destroyed out of order: the platforms above this one now sit on the
    // one below it.
    tCurrent = outer;
    tActiveImpl = outerImpl;
    for (Impl* above = outerImpl; above; above = above->previousImpl) {
      if (above->previousImpl != impl_.get()) continue;
      above->previous = impl_->previous;
      above->previousImpl = impl_->previousImpl;
      break;
    }
  }
}

EFI_SYSTEM_TABLE* Platform::systemTable() { return &impl_->systemTable; }
EFI_BOOT_SERVICES* Platform::bootServices() { return &impl_->bootServices; }
EFI_RUNTIME_SERVICES* Platform::runtimeServices() { return &impl_->runtimeServices; }

std::u16string Platform::consoleText() const { return impl_->console; }
std::string Platform::consoleTextNarrow() const { return narrow(impl_->console); }
void Platform::clearConsole() { impl_->console.clear(); }
void Platform::echoConsole(bool on) { impl_->echo = on; }

bool Platform::resetRequested() const { return impl_->resetRequested; }
EFI_RESET_TYPE Platform::resetType() const { return impl_->resetType; }

}  // namespace tvl::host
