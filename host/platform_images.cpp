// Image loading: every load copies NAME.so into an anonymous memory file
// and maps it from there, so each load is a separate instance with its own
// globals. Modules stay mapped until the platform is destroyed, so events
// and pointers that outlive an image never reach unmapped memory.
#include <dlfcn.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "host/platform_internal.h"

#ifndef TOLVANE_DEFAULT_IMAGE_DIR
#define TOLVANE_DEFAULT_IMAGE_DIR "images"
#endif

namespace tvl::host {

namespace {

const EFI_GUID kLoadedImageGuid = EFI_LOADED_IMAGE_PROTOCOL_GUID;
constexpr uint8_t kMediaFilePathSubType = 0x04;

// Descriptors of modules that stayed resident after dlclose (the loader
// keeps some objects for good). Their /proc/self/fd/N names must never be
// handed out again, or dlopen would return the old instance.
std::vector<int>& residentDescriptors() {
  static std::vector<int> fds;
  return fds;
}

struct ModuleExtent {
  uintptr_t base;
  uintptr_t end;
};

int findExtent(struct dl_phdr_info* info, size_t, void* data) {
  auto* extent = static_cast<ModuleExtent*>(data);
  if (info->dlpi_addr != extent->base) return 0;
  uintptr_t lowest = UINTPTR_MAX;
  uintptr_t highest = 0;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const auto& ph = info->dlpi_phdr[i];
    if (ph.p_type != PT_LOAD) continue;
    lowest = std::min<uintptr_t>(lowest, ph.p_vaddr);
    highest = std::max<uintptr_t>(highest, ph.p_vaddr + ph.p_memsz);
  }
  if (highest == 0) return 0;
  extent->base = info->dlpi_addr + lowest;
  extent->end = info->dlpi_addr + highest;
  return 1;
}

void describeMapping(Image& img) {
  struct link_map* map = nullptr;
  if (dlinfo(img.module, RTLD_DI_LINKMAP, &map) != 0 || !map) return;
  ModuleExtent extent{map->l_addr, 0};
  if (dl_iterate_phdr(findExtent, &extent) == 0) return;
  img.loaded.ImageBase = reinterpret_cast<void*>(extent.base);
  img.loaded.ImageSize = extent.end - extent.base;
}

bool readFile(const std::string& path, std::vector<char>& bytes) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
}

bool writeAll(int fd, const std::vector<char>& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Runs the entry of `img`. Exit() from inside it jumps back here.
EFI_STATUS runEntry(Platform::Impl& p, Image* img) {
  std::jmp_buf jump;
  std::jmp_buf* outer = img->exitJump;
  img->exitJump = &jump;
  const size_t depth = p.running.size();
  const EFI_TPL tpl = p.tpl;
  p.running.push_back(img);
  volatile EFI_STATUS status = EFI_SUCCESS;
  if (setjmp(jump) == 0) {
    status = img->entry(img->handle, &p.systemTable);
  } else {
    status = img->exitStatus;
    p.tpl = tpl;
  }
  p.running.resize(depth);
  img->exitJump = outer;
  return status;
}

// The image name that a device path names: the text of its last media
// file-path node, without directories and without a .efi or .so suffix.
bool imageNameFromDevicePath(const EFI_DEVICE_PATH_PROTOCOL* path, std::string& name, size_t& pathBytes) {
  const auto* p = reinterpret_cast<const uint8_t*>(path);
  constexpr size_t kLimit = 1 << 16;
  std::u16string text;
  size_t offset = 0;
  for (;;) {
    if (offset + 4 > kLimit) return false;
    size_t length = size_t(p[offset + 2]) | (size_t(p[offset + 3]) << 8);
    if (length < 4 || offset + length > kLimit) return false;
    if (p[offset] == END_DEVICE_PATH_TYPE && p[offset + 1] == END_ENTIRE_DEVICE_PATH_SUBTYPE) {
      pathBytes = offset + length;
      break;
    }
    if (p[offset] == MEDIA_DEVICE_PATH && p[offset + 1] == kMediaFilePathSubType) {
      text.clear();
      for (size_t i = offset + 4; i + 1 < offset + length; i += 2) {
        char16_t c = static_cast<char16_t>(p[i] | (p[i + 1] << 8));
        if (c == 0) break;
        text += c;
      }
    }
    offset += length;
  }
  size_t slash = text.find_last_of(u"\\/");
  if (slash != std::u16string::npos) text.erase(0, slash + 1);
  for (const char16_t* suffix : {u".efi", u".EFI", u".so"}) {
    std::u16string s(suffix);
    if (text.size() > s.size() && text.compare(text.size() - s.size(), s.size(), s) == 0) {
      text.erase(text.size() - s.size());
      break;
    }
  }
  name.clear();
  for (char16_t c : text) {
    bool ok = (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9') || c == u'_' ||
              c == u'-' || c == u'.';
    if (!ok) return false;
    name += static_cast<char>(c);
  }
  return !name.empty() && name != "." && name != "..";
}

// ---------------------------------------------------------------- boot services
// LoadImage takes the image from a device path whose (last) media
// file-path node names it, e.g. "\tolvane_driver.efi"; loading from a
// memory buffer is not emulated and answers EFI_UNSUPPORTED.
EFI_STATUS EFIAPI loadImage(BOOLEAN, EFI_HANDLE parent, EFI_DEVICE_PATH_PROTOCOL* path, VOID* source, UINTN,
                            EFI_HANDLE* imageHandle) {
  Platform::Impl& p = activeImpl();
  if (!imageHandle) return EFI_INVALID_PARAMETER;
  Handle* parentHandle = p.findHandle(parent);
  if (!parentHandle || !Platform::Impl::findInterface(parentHandle, kLoadedImageGuid))
    return EFI_INVALID_PARAMETER;
  if (source) return EFI_UNSUPPORTED;
  if (!path) return EFI_NOT_FOUND;
  std::string name;
  size_t pathBytes = 0;
  if (!imageNameFromDevicePath(path, name, pathBytes)) return EFI_NOT_FOUND;
  EFI_HANDLE handle = nullptr;
  RETURN_IF_ERROR(p.openImage(name, parent, &handle));
  Image* img = p.imageOf(handle);
  const auto* bytes = reinterpret_cast<const uint8_t*>(path);
  img->filePath.assign(bytes, bytes + pathBytes);
  img->loaded.FilePath = reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL*>(img->filePath.data());
  *imageHandle = handle;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI startImage(EFI_HANDLE handle, UINTN* exitDataSize, CHAR16** exitData) {
  Platform::Impl& p = activeImpl();
  Image* img = p.imageOf(handle);
  if (!img || img->unloaded || img->started) return EFI_INVALID_PARAMETER;
  EFI_STATUS status = p.startImage(img);
  if (exitDataSize) *exitDataSize = img->exitDataSize;
  if (exitData) {
    *exitData = img->exitData;
  } else if (img->exitData) {
    p.bootServices.FreePool(img->exitData);
  }
  img->exitData = nullptr;
  img->exitDataSize = 0;
  return status;
}

EFI_STATUS EFIAPI exitImage(EFI_HANDLE handle, EFI_STATUS status, UINTN dataSize, CHAR16* data) {
  Platform::Impl& p = activeImpl();
  Image* img = p.imageOf(handle);
  if (!img || img->unloaded) return EFI_INVALID_PARAMETER;
  if (!img->started) {
    p.retireImage(img);
    return EFI_SUCCESS;
  }
  if (!img->exitJump || p.running.empty() || p.running.back() != img) return EFI_INVALID_PARAMETER;
  img->exitStatus = status;
  img->exitDataSize = data ? dataSize : 0;
  img->exitData = data;
  std::longjmp(*img->exitJump, 1);
}

EFI_STATUS EFIAPI unloadImageService(EFI_HANDLE handle) {
  Platform::Impl& p = activeImpl();
  Image* img = p.imageOf(handle);
  if (!img || img->unloaded) return EFI_INVALID_PARAMETER;
  return p.unloadImage(img);
}

}  // namespace

Image* Platform::Impl::imageOf(EFI_HANDLE h) const {
  if (!h) return nullptr;
  for (const auto& img : images)
    if (img->handle == h) return img.get();
  return nullptr;
}

EFI_STATUS Platform::Impl::openImage(const std::string& name, EFI_HANDLE parent, EFI_HANDLE* out) {
  std::vector<char> bytes;
  std::string path = Platform::imageDirectory() + "/" + name + ".so";
  if (!readFile(path, bytes)) return EFI_NOT_FOUND;
  int fd = memfd_create(name.c_str(), MFD_CLOEXEC);
  if (fd < 0) return EFI_OUT_OF_RESOURCES;
  if (!writeAll(fd, bytes)) {
    ::close(fd);
    return EFI_LOAD_ERROR;
  }
  std::string fdPath = "/proc/self/fd/" + std::to_string(fd);
  void* module = dlopen(fdPath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!module) {
    std::fprintf(stderr, "tolvane host: cannot load %s: %s\n", path.c_str(), dlerror());
    ::close(fd);
    return EFI_LOAD_ERROR;
  }
  auto img = std::make_unique<Image>();
  img->name = name;
  img->instance = ++loadCounts[name];
  img->module = module;
  img->fd = fd;  // kept open while mapped so that the name stays unique
  img->entry = reinterpret_cast<EFI_IMAGE_ENTRY_POINT>(dlsym(module, "EfiMain"));
  Image* raw = img.get();
  images.push_back(std::move(img));
  if (!raw->entry) {
    std::fprintf(stderr, "tolvane host: %s has no EfiMain\n", path.c_str());
    raw->unloaded = true;
    return EFI_LOAD_ERROR;
  }
  raw->loaded.Revision = EFI_LOADED_IMAGE_PROTOCOL_REVISION;
  raw->loaded.ParentHandle = parent;
  raw->loaded.SystemTable = &systemTable;
  raw->loaded.ImageCodeType = EfiBootServicesCode;
  raw->loaded.ImageDataType = EfiBootServicesData;
  describeMapping(*raw);
  Handle* h = newHandle();
  h->image = raw;
  raw->handle = h;
  EFI_HANDLE handle = h;
  install(&handle, &kLoadedImageGuid, &raw->loaded, false);
  *out = handle;
  return EFI_SUCCESS;
}

EFI_STATUS Platform::Impl::startImage(Image* img) {
  img->started = true;
  EFI_STATUS status = runEntry(*this, img);
  // A driver whose entry fails is unloaded, as firmware does.
  if (EFI_ERROR(status) && !img->unloaded) retireImage(img);
  return status;
}

EFI_STATUS Platform::Impl::unloadImage(Image* img) {
  if (!img->started) {
    retireImage(img);
    return EFI_SUCCESS;
  }
  EFI_IMAGE_UNLOAD unload = img->loaded.Unload;
  if (!unload) return EFI_UNSUPPORTED;
  EFI_STATUS status;
  {
    RunningImage guard(*this, img);
    status = unload(img->handle);
  }
  if (EFI_ERROR(status)) return status;
  if (!img->unloaded) retireImage(img);
  return EFI_SUCCESS;
}

// Removes what firmware removes when an image goes away: the opens it made
// as an agent and its loaded-image protocol (other protocols that it left
// on its handle stay, and so does the handle then). The code stays mapped.
void Platform::Impl::retireImage(Image* img) {
  img->unloaded = true;
  closeOpensByAgent(img->handle);
  if (Handle* h = findHandle(img->handle)) {
    if (Interface* in = findInterface(h, kLoadedImageGuid)) {
      if (in->interface == &img->loaded) {
        forgetInterface(in);
        dropIfEmpty(h);
      }
    }
  }
}

void Platform::Impl::teardown() {
  queue.clear();
  running.clear();
  for (auto& [address, a] : allocations) std::free(address);
  allocations.clear();
  lean.reset();
  for (auto& [address, r] : pageRuns) std::free(reinterpret_cast<void*>(address));
  pageRuns.clear();
  registrations.clear();
  events.clear();
  retiredEvents.clear();
  handleIndex.clear();
  handles.clear();
  retiredHandles.clear();
  protocols.clear();
  for (auto it = images.rbegin(); it != images.rend(); ++it) {
    Image& img = **it;
    img.handleStore.reset();
    if (img.module) {
      dlclose(img.module);
      std::string fdPath = "/proc/self/fd/" + std::to_string(img.fd);
      if (void* still = dlopen(fdPath.c_str(), RTLD_LAZY | RTLD_NOLOAD)) {
        dlclose(still);
        residentDescriptors().push_back(img.fd);
        img.fd = -1;
      }
    }
    if (img.fd >= 0) ::close(img.fd);
  }
  images.clear();
}

void fillImageServices(EFI_BOOT_SERVICES& bs) {
  bs.LoadImage = loadImage;
  bs.StartImage = startImage;
  bs.Exit = exitImage;
  bs.UnloadImage = unloadImageService;
}

// ---------------------------------------------------------------- host-side API
std::string Platform::imageDirectory() {
  const char* env = std::getenv("TOLVANE_IMAGE_DIR");
  if (env && *env) return env;
  return TOLVANE_DEFAULT_IMAGE_DIR;
}

EFI_STATUS Platform::loadImage(const std::string& name, EFI_HANDLE* imageHandle) {
  if (!imageHandle) return EFI_INVALID_PARAMETER;
  *imageHandle = nullptr;
  EFI_HANDLE handle = nullptr;
  RETURN_IF_ERROR(impl_->openImage(name, nullptr, &handle));
  *imageHandle = handle;
  return impl_->startImage(impl_->imageOf(handle));
}

EFI_STATUS Platform::unloadImage(EFI_HANDLE imageHandle) {
  Image* img = impl_->imageOf(imageHandle);
  if (!img || img->unloaded) return EFI_INVALID_PARAMETER;
  return impl_->unloadImage(img);
}

void* Platform::imageSymbol(EFI_HANDLE imageHandle, const char* symbol) const {
  Image* img = impl_->imageOf(imageHandle);
  if (!img || !img->module || !symbol) return nullptr;
  return dlsym(img->module, symbol);
}

}  // namespace tvl::host
