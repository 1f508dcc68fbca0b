// Internal state of the emulated platform, shared by the platform_*.cpp
// files. Nothing here is visible to the freestanding images: they see only
// the tables.
#pragma once

#include <csetjmp>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "host/lean_pool.h"
#include "host/platform.h"

namespace tvl::host {

struct Handle;
struct Event;
struct Image;
struct ProtocolEntry;

// One OpenProtocol record of an interface.
struct OpenEntry {
  EFI_HANDLE agent = nullptr;
  EFI_HANDLE controller = nullptr;
  uint32_t attributes = 0;
  uint32_t count = 0;
};

// One protocol interface installed on one handle.
struct Interface {
  Handle* handle = nullptr;
  ProtocolEntry* protocol = nullptr;
  void* interface = nullptr;
  std::vector<OpenEntry> opens;
};

struct Handle {
  uint64_t serial = 0;
  Image* image = nullptr;  // set on image handles, which are never reused
  std::vector<std::unique_ptr<Interface>> interfaces;  // install order on this handle
};

struct Registration;

// Everything known about one protocol GUID. Its address is stable, so the
// GUID pointers that ProtocolsPerHandle hands out stay valid.
struct ProtocolEntry {
  EFI_GUID guid{};
  std::list<Interface*> interfaces;  // install order (a reinstall moves to the end)
  std::vector<Registration*> notifies;
};

// A RegisterProtocolNotify registration: the interfaces installed since it
// was made that LocateProtocol / LocateHandle have not handed out yet.
struct Registration {
  ProtocolEntry* protocol = nullptr;
  Event* event = nullptr;
  std::deque<Interface*> pending;
};

struct Event {
  uint64_t serial = 0;
  uint32_t type = 0;
  EFI_TPL tpl = 0;
  EFI_EVENT_NOTIFY notify = nullptr;
  void* context = nullptr;
  bool hasGroup = false;
  EFI_GUID group{};
  bool signaled = false;
  bool queued = false;
  Image* owner = nullptr;  // the image that created it (null: the host)
};

struct Allocation {
  uint64_t sequence = 0;
  size_t size = 0;
  EFI_MEMORY_TYPE type = EfiBootServicesData;
  std::string owner;
};

struct PageRun {
  uint64_t sequence = 0;
  size_t pages = 0;
  std::string owner;
};

struct Image {
  std::string name;
  unsigned instance = 0;  // 1 for the first load of this name, 2 for the second...
  void* module = nullptr;
  int fd = -1;
  std::unique_ptr<Handle> handleStore;  // owned here so the handle value is never reused
  Handle* handle = nullptr;
  EFI_LOADED_IMAGE_PROTOCOL loaded{};
  EFI_IMAGE_ENTRY_POINT entry = nullptr;
  bool started = false;
  bool unloaded = false;
  // Exit() from inside the entry jumps back to the StartImage that runs it.
  std::jmp_buf* exitJump = nullptr;
  EFI_STATUS exitStatus = EFI_SUCCESS;
  UINTN exitDataSize = 0;
  CHAR16* exitData = nullptr;
  std::vector<uint8_t> filePath;  // the device path LoadImage was given

  std::string label() const { return name + "#" + std::to_string(instance); }
};

struct Variable {
  EFI_GUID vendor{};
  std::u16string name;
  uint32_t attributes = 0;
  std::vector<uint8_t> data;
};

struct Platform::Impl {
  Platform* owner = nullptr;
  Platform* previous = nullptr;  // the platform that was current before this one
  Impl* previousImpl = nullptr;

  EFI_SYSTEM_TABLE systemTable{};
  EFI_BOOT_SERVICES bootServices{};
  EFI_RUNTIME_SERVICES runtimeServices{};
  std::u16string firmwareVendor = u"Tolvane host";
  std::vector<EFI_CONFIGURATION_TABLE> configurationTables;

  // ---- console
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL conOut{};
  SIMPLE_TEXT_OUTPUT_MODE conOutMode{};
  std::u16string console;
  bool echo = false;
  EFI_HANDLE consoleHandle = nullptr;

  // ---- pool
  PoolMode poolMode = PoolMode::Checked;
  std::unique_ptr<LeanPool> lean;  // the lean pool's memory (lean mode only)
  std::unordered_map<void*, Allocation> allocations;  // checked mode only
  std::map<uintptr_t, PageRun> pageRuns;
  uint64_t nextSequence = 1;
  size_t attempts = 0;
  std::unordered_set<size_t> failAt;  // absolute attempt numbers that fail
  size_t failFrom = 0;                // 0: off
  PoolStats stats;
  std::vector<std::string> poolErrors;  // invalid frees and overruns, as text
  Platform::FreeObserver freeObserver;

  // ---- handle database
  uint64_t nextSerial = 1;
  std::vector<std::unique_ptr<Handle>> handles;  // creation order
  std::unordered_map<const void*, Handle*> handleIndex;
  std::deque<std::unique_ptr<Handle>> retiredHandles;  // kept for a while so addresses are not reused
  std::map<std::string, std::unique_ptr<ProtocolEntry>> protocols;  // by GUID bytes
  std::unordered_map<const void*, std::unique_ptr<Registration>> registrations;

  // ---- events
  std::unordered_map<const void*, std::unique_ptr<Event>> events;
  std::deque<std::unique_ptr<Event>> retiredEvents;
  std::vector<Event*> queue;  // signalled notifies waiting for the TPL to drop
  EFI_TPL tpl = TPL_APPLICATION;
  size_t tplViolations = 0;
  uint64_t monotonicCount = 0;

  // ---- images
  std::vector<std::unique_ptr<Image>> images;
  std::vector<Image*> running;  // images whose code is running, innermost last
  std::map<std::string, unsigned> loadCounts;

  // ---- variables
  std::vector<Variable> variables;
  bool resetRequested = false;
  EFI_RESET_TYPE resetType = EfiResetCold;
  EFI_STATUS resetStatus = EFI_SUCCESS;

  // ---- helpers shared between the files
  std::string currentOwner() const;
  // Counts an allocation attempt; false when fault injection refuses it.
  bool consumeAttempt() {
    ++attempts;
    return (failFrom == 0 && failAt.empty()) || !injectedFault(*this);
  }
  // Whether an armed fault refuses the attempt just counted. EFIAPI like
  // the pool entry points that reach it, so that their fast paths call no
  // System V code (which would make them save the XMM registers).
  static bool EFIAPI injectedFault(Impl& p);

  Handle* findHandle(EFI_HANDLE h) const;
  Handle* newHandle();
  void retireHandle(Handle* h);
  ProtocolEntry* protocolEntry(const EFI_GUID& guid, bool create);
  static Interface* findInterface(Handle* h, const EFI_GUID& guid);
  EFI_STATUS install(EFI_HANDLE* handle, const EFI_GUID* guid, void* iface, bool consume);
  EFI_STATUS uninstall(EFI_HANDLE handle, const EFI_GUID* guid, void* iface, bool dropEmptyHandle);
  void dropIfEmpty(Handle* h);
  EFI_STATUS disconnectUsers(Interface* in);
  void notifyInstalled(Interface* in);
  void forgetInterface(Interface* in);
  void closeOpensByAgent(EFI_HANDLE agent);

  Event* findEvent(EFI_EVENT e) const;
  EFI_STATUS createEvent(uint32_t type, EFI_TPL tpl, EFI_EVENT_NOTIFY fn, void* ctx, const EFI_GUID* group,
                         EFI_EVENT* out);
  EFI_STATUS signal(Event* e);
  void queueNotify(Event* e);
  void dispatch(EFI_TPL level);
  void closeEvent(Event* e);

  Image* imageOf(EFI_HANDLE h) const;
  EFI_STATUS openImage(const std::string& name, EFI_HANDLE parent, EFI_HANDLE* out);
  EFI_STATUS startImage(Image* img);
  EFI_STATUS unloadImage(Image* img);
  void retireImage(Image* img);

  void setupTables();
  void teardown();
};

// The platform that boot-service calls act on (aborts when there is none).
extern __thread Platform::Impl* tActiveImpl;
[[noreturn]] void EFIAPI noActivePlatform();
inline Platform::Impl& activeImpl() {
  if (!tActiveImpl) noActivePlatform();
  return *tActiveImpl;
}

// Table fillers, one per file.
void fillPoolServices(EFI_BOOT_SERVICES& bs, PoolMode mode);
void fillHandleServices(EFI_BOOT_SERVICES& bs);
void fillEventServices(EFI_BOOT_SERVICES& bs);
void fillImageServices(EFI_BOOT_SERVICES& bs);
void fillRuntimeServices(EFI_RUNTIME_SERVICES& rt);

// Key of a GUID in maps.
std::string guidKey(const EFI_GUID& g);
std::string guidText(const EFI_GUID& g);

// Pushes an image (or the host, with null) as the running code for the
// lifetime of the guard: allocations made meanwhile are attributed to it.
class RunningImage {
 public:
  RunningImage(Platform::Impl& p, Image* img) : p_(p) { p_.running.push_back(img); }
  ~RunningImage() { p_.running.pop_back(); }
  RunningImage(const RunningImage&) = delete;
  RunningImage& operator=(const RunningImage&) = delete;

 private:
  Platform::Impl& p_;
};

}  // namespace tvl::host
