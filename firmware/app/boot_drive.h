// The FAT volume the test application was loaded from: whole files written
// and read back, and an 8-bit text that grows as lines are added.
#pragma once

#include "uefi/media.h"
#include "uefi/runtime.h"

namespace tvl::check {

class BootDrive {
 public:
  BootDrive() = default;
  ~BootDrive();
  BootDrive(const BootDrive&) = delete;
  BootDrive& operator=(const BootDrive&) = delete;

  // Opens the root directory of the volume that holds this image.
  EFI_STATUS open();
  // Writes `size` bytes as the file `path`, replacing one of that name.
  EFI_STATUS write(const CHAR16* path, const VOID* data, UINTN size);
  // The whole file `path` as a new pool buffer.
  EFI_STATUS read(const CHAR16* path, rt::Pool<UINT8>& data, UINTN& size);
  // Loads and starts the image in the file `path`; its handle in `*image`.
  EFI_STATUS startImage(const CHAR16* path, EFI_HANDLE* image);

 private:
  EFI_FILE_PROTOCOL* root_ = nullptr;
};

// An 8-bit text in one pool buffer that doubles as it fills. After a failed
// allocation it stays as it was and failed() tells.
class Text {
 public:
  void EFIAPI add(const CHAR8* format, ...);
  void addRaw(const CHAR8* text, UINTN length);
  // Narrows UCS-2 to its low bytes, as the documents narrow texts.
  void addNarrow(const CHAR16* text);
  const CHAR8* get() const { return buffer_.get() ? buffer_.get() : ""; }
  UINTN size() const { return length_; }
  bool failed() const { return failed_; }

 private:
  bool reserve(UINTN more);
  rt::Pool<CHAR8> buffer_;
  UINTN length_ = 0;
  UINTN capacity_ = 0;
  bool failed_ = false;
};

}  // namespace tvl::check
