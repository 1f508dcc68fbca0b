#include "firmware/app/boot_drive.h"

#include "uefi/print.h"

namespace tvl::check {
namespace {

constexpr UINTN kReadChunk = 64 * 1024;
constexpr UINTN kFormatCapacity = 1024;

// Closes a file handle when it goes out of scope.
class OpenFile {
 public:
  ~OpenFile() {
    if (file_) file_->Close(file_);
  }
  EFI_FILE_PROTOCOL* get() const { return file_; }
  EFI_FILE_PROTOCOL** receive() { return &file_; }
  // Deleting closes the handle too.
  EFI_STATUS remove() {
    EFI_FILE_PROTOCOL* file = file_;
    file_ = nullptr;
    return file->Delete(file);
  }

 private:
  EFI_FILE_PROTOCOL* file_ = nullptr;
};

}  // namespace

BootDrive::~BootDrive() {
  if (root_) root_->Close(root_);
}

EFI_STATUS BootDrive::open() {
  EFI_LOADED_IMAGE_PROTOCOL* image = nullptr;
  RETURN_IF_ERROR(rt::bs()->HandleProtocol(rt::gImage.imageHandle, &gEfiLoadedImageProtocolGuid,
                                           reinterpret_cast<VOID**>(&image)));
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL* volume = nullptr;
  RETURN_IF_ERROR(rt::bs()->HandleProtocol(image->DeviceHandle, &gEfiSimpleFileSystemProtocolGuid,
                                           reinterpret_cast<VOID**>(&volume)));
  return volume->OpenVolume(volume, &root_);
}

EFI_STATUS BootDrive::write(const CHAR16* path, const VOID* data, UINTN size) {
  if (!root_) return EFI_NOT_READY;
  {
    // A file left from an earlier run would keep its longer tail.
    OpenFile old;
    if (root_->Open(root_, old.receive(), path, EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0) == EFI_SUCCESS)
      RETURN_IF_ERROR(old.remove());
  }
  OpenFile file;
  RETURN_IF_ERROR(root_->Open(root_, file.receive(), path,
                              EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE | EFI_FILE_MODE_CREATE, 0));
  UINTN written = size;
  RETURN_IF_ERROR(file.get()->Write(file.get(), &written, data));
  if (written != size) return EFI_VOLUME_FULL;
  return file.get()->Flush(file.get());
}

EFI_STATUS BootDrive::read(const CHAR16* path, rt::Pool<UINT8>& data, UINTN& size) {
  if (!root_) return EFI_NOT_READY;
  OpenFile file;
  RETURN_IF_ERROR(root_->Open(root_, file.receive(), path, EFI_FILE_MODE_READ, 0));
  rt::Pool<UINT8> buffer;
  UINTN used = 0, capacity = 0;
  for (;;) {
    if (capacity - used < kReadChunk) {
      rt::Pool<UINT8> larger = rt::Pool<UINT8>::bytes(capacity + kReadChunk);
      if (!larger) return EFI_OUT_OF_RESOURCES;
      rt::copyMem(larger.get(), buffer.get(), used);
      buffer = static_cast<rt::Pool<UINT8>&&>(larger);
      capacity += kReadChunk;
    }
    UINTN chunk = capacity - used;
    RETURN_IF_ERROR(file.get()->Read(file.get(), &chunk, buffer.get() + used));
    if (chunk == 0) break;
    used += chunk;
  }
  data = static_cast<rt::Pool<UINT8>&&>(buffer);
  size = used;
  return EFI_SUCCESS;
}

EFI_STATUS BootDrive::startImage(const CHAR16* path, EFI_HANDLE* image) {
  rt::Pool<UINT8> bytes;
  UINTN size = 0;
  *image = nullptr;
  RETURN_IF_ERROR(read(path, bytes, size));
  RETURN_IF_ERROR(rt::bs()->LoadImage(FALSE, rt::gImage.imageHandle, nullptr, bytes.get(), size, image));
  return rt::bs()->StartImage(*image, nullptr, nullptr);
}

bool Text::reserve(UINTN more) {
  if (failed_) return false;
  if (capacity_ - length_ > more) return true;
  UINTN capacity = capacity_ ? capacity_ : 4096;
  while (capacity - length_ <= more) capacity *= 2;
  rt::Pool<CHAR8> larger = rt::Pool<CHAR8>::zeroed(capacity);
  if (!larger) {
    failed_ = true;
    return false;
  }
  rt::copyMem(larger.get(), buffer_.get(), length_);
  buffer_ = static_cast<rt::Pool<CHAR8>&&>(larger);
  capacity_ = capacity;
  return true;
}

void Text::addRaw(const CHAR8* text, UINTN length) {
  if (!reserve(length)) return;
  rt::copyMem(buffer_.get() + length_, text, length);
  length_ += length;
}

void Text::addNarrow(const CHAR16* text) {
  UINTN length = rt::length(text);
  if (!reserve(length)) return;
  for (UINTN i = 0; i < length; ++i) buffer_[length_ + i] = CHAR8(text[i] & 0xFF);
  length_ += length;
}

void EFIAPI Text::add(const CHAR8* format, ...) {
  CHAR8 line[kFormatCapacity];
  rt::VaList args;
  __builtin_ms_va_start(args, format);
  UINTN length = rt::formatV(line, kFormatCapacity, format, &args);
  __builtin_ms_va_end(args);
  addRaw(line, length);
}

}  // namespace tvl::check
