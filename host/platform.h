// The UEFI platform emulated on Linux: system table, boot and runtime
// services, console, pool with accounting and fault injection, runtime
// variables, and image loading. Freestanding images (the driver and the
// platform services) reach it only through the system table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "uefi/protocols.h"

namespace tvl::host {

struct PoolStats {
  size_t outstanding = 0;       // allocations not yet freed
  size_t outstandingBytes = 0;  // their bytes
  size_t allocations = 0;       // AllocatePool calls that succeeded
  size_t frees = 0;             // FreePool calls that succeeded
  size_t failedByInjection = 0; // allocation attempts refused by a fault
  size_t invalidFrees = 0;      // FreePool/FreePages of memory that was not allocated (or freed twice)
  size_t overruns = 0;          // allocations whose guard bytes were overwritten when freed
  size_t outstandingPages = 0;  // pages from AllocatePages not yet freed
};

// How AllocatePool and FreePool are served.
enum class PoolMode {
  // Every allocation is recorded with its sequence number, size and owner,
  // filled with a pattern when handed out and when freed, and followed by
  // guard bytes that are checked when it is freed. Leaks are listed one by
  // one. The tests use this pool.
  Checked,
  // Pages of one size class each, a bit per block in its page and counts
  // only (see host/lean_pool.h): blocks are not cleared, as in firmware,
  // frees of anything but a live block are refused, overruns go unnoticed
  // and leaks are reported as a total in block sizes. Fault injection works
  // as in the checked pool. For the command line and the benchmarks.
  Lean,
};

// One outstanding pool allocation.
struct AllocationInfo {
  uint64_t sequence = 0;  // 1 for the platform's first allocation, counting up
  size_t size = 0;
  std::string owner;      // "NAME#N" of the image that was running, or "host"
  void* address = nullptr;
};

class Platform {
 public:
  explicit Platform(PoolMode poolMode = PoolMode::Checked);
  // Frees everything and unmaps every image. Image code does not run
  // during teardown (Unload handlers are not called).
  ~Platform();
  Platform(const Platform&) = delete;
  Platform& operator=(const Platform&) = delete;

  // Makes this platform the one whose services the calling thread reaches,
  // for work handed to a thread of its own (a small stack, say). The
  // platform must outlive that work; the thread makes no platform itself.
  void bindToThisThread();

  EFI_SYSTEM_TABLE* systemTable();
  EFI_BOOT_SERVICES* bootServices();
  EFI_RUNTIME_SERVICES* runtimeServices();

  // ---- pool
  PoolMode poolMode() const;
  // Kept in both modes, except `overruns`, which only the checked pool sees.
  PoolStats poolStats() const;
  // One line per outstanding allocation: sequence number, size, and the
  // image that was running when it was made (its entry, its Unload handler,
  // or a notify function of an event it created), or "host". The lean pool
  // lists page runs so, and its pool allocations in one line of totals.
  std::string leakReport() const;
  // The same for allocations whose sequence number is at least `sinceSequence`.
  std::string leakReport(uint64_t sinceSequence) const;
  // Outstanding pool allocations and page runs, oldest first (the lean
  // pool: page runs only).
  std::vector<AllocationInfo> outstandingAllocations() const;
  // The sequence number that the next allocation will get.
  uint64_t nextAllocationSequence() const;
  // Invalid frees and overwritten guard bytes seen so far, one line each.
  std::string poolErrorReport() const;
  // Allocation attempts made so far; a sweep counts the attempts of an
  // operation and then fails each one in turn. Besides AllocatePool and
  // AllocatePages, the services that the UEFI specification lets fail with
  // EFI_OUT_OF_RESOURCES because they allocate (InstallProtocolInterface,
  // CreateEvent(Ex), RegisterProtocolNotify, LocateHandleBuffer,
  // ProtocolsPerHandle, OpenProtocolInformation) make one attempt each, so
  // injected faults reach their failure paths too.
  size_t allocationAttempts() const;
  void failAllocation(size_t k);       // the k-th attempt from now (1-based) fails
  void failAllocationsFrom(size_t k);  // the k-th attempt from now and every later one fail
  void clearAllocationFaults();
  // Sees every pool block and page run as it is freed, with its size, before
  // the pool overwrites it (tests look for secrets left in freed memory).
  // An empty function removes the observer.
  using FreeObserver = std::function<void(const void* block, size_t size)>;
  void setFreeObserver(FreeObserver observer);

  // ---- images
  // Directory of the freestanding images (NAME.so); defaults to the
  // build's image directory, overridden by TOLVANE_IMAGE_DIR.
  static std::string imageDirectory();
  // Loads a fresh instance of image `name` (its own globals), installs its
  // EFI_LOADED_IMAGE_PROTOCOL on a new image handle and runs its entry
  // EfiMain. The handle is returned even when the entry fails.
  // When the entry fails the image is unloaded as firmware does (its
  // loaded-image protocol and the protocols it opened are removed).
  EFI_STATUS loadImage(const std::string& name, EFI_HANDLE* imageHandle);
  // Calls the image's Unload handler: EFI_UNSUPPORTED when it has none,
  // otherwise its status; on success the loaded-image protocol is removed.
  // The code stays mapped until the platform is destroyed, so events and
  // pointers that outlive an image never run into unmapped memory.
  EFI_STATUS unloadImage(EFI_HANDLE imageHandle);
  // An exported symbol of a loaded image, or null.
  void* imageSymbol(EFI_HANDLE imageHandle, const char* symbol) const;
  template <typename T>
  T imageFunction(EFI_HANDLE imageHandle, const char* symbol) const {
    return reinterpret_cast<T>(imageSymbol(imageHandle, symbol));
  }

  // ---- protocols (host-side convenience; same semantics as boot services)
  EFI_STATUS installProtocol(EFI_HANDLE* handle, const EFI_GUID& guid, void* interface);
  EFI_STATUS uninstallProtocol(EFI_HANDLE handle, const EFI_GUID& guid, void* interface);
  void* locateProtocol(const EFI_GUID& guid);
  std::vector<EFI_HANDLE> handlesWith(const EFI_GUID& guid);
  // Every handle in the database, in creation order.
  std::vector<EFI_HANDLE> allHandles();
  // The interface of `guid` on `handle`, or null.
  void* handleProtocol(EFI_HANDLE handle, const EFI_GUID& guid);

  // ---- events and task priority
  EFI_TPL currentTpl() const;
  // RaiseTPL above / RestoreTPL below the current level (indeterminate in
  // UEFI): counted, the level is left unchanged.
  size_t tplViolations() const;
  size_t openEvents() const;

  // ---- console
  std::u16string consoleText() const;
  std::string consoleTextNarrow() const;
  void clearConsole();
  // Echo console output to the process's standard output as it arrives
  // (on from the start when the environment has TOLVANE_CONSOLE_ECHO=1).
  void echoConsole(bool on);

  // ---- variables (host-side convenience)
  EFI_STATUS setVariable(const std::u16string& name, const EFI_GUID& vendor, uint32_t attributes,
                         const std::vector<uint8_t>& data);
  // The variable's data (and attributes), or EFI_NOT_FOUND.
  EFI_STATUS getVariable(const std::u16string& name, const EFI_GUID& vendor, std::vector<uint8_t>* data,
                         uint32_t* attributes = nullptr) const;
  // Limits of the variable store (reported by QueryVariableInfo).
  static constexpr size_t kVariableStorage = 256 * 1024;
  static constexpr size_t kMaxVariableSize = 64 * 1024;  // name (UCS-2 with NUL) + data

  // ---- ResetSystem is recorded, never carried out
  bool resetRequested() const;
  EFI_RESET_TYPE resetType() const;

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

// The platform that the boot-services calls of the running code act on.
// The emulation serves one platform at a time per thread: creating a
// Platform makes it the current one, and destroying it makes the one that
// was current before current again (a stack; destroy in reverse order).
Platform* currentPlatform();

}  // namespace tvl::host
