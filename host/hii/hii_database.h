// The platform's HII database: EFI_HII_DATABASE_PROTOCOL and
// EFI_HII_STRING_PROTOCOL over real package lists, installed together on
// one handle of the emulated platform.
//
// Package lists are kept as validated copies in registration order. Their
// string packages are parsed when a list is registered (a list with a
// malformed string package is refused as a whole) and written back after
// NewString/SetString, so that ExportPackageLists always returns what the
// string protocol serves. When the driver handle of a new list carries a
// device path and the list has no device path package, one is added before
// the END package, as the UEFI specification describes.
//
// HII handles are opaque tokens, never pointers to memory. A handle that was
// never given out is invalid; one whose list was removed is "not found".
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/platform.h"
#include "uefi/protocols.h"

namespace tvl::host::hii {

// One GetString call as the string protocol received it.
struct GetStringCall {
  std::string language;  // empty when Language was null
  bool languageNull = false;
  EFI_HII_HANDLE packageList = nullptr;
  EFI_STRING_ID stringId = 0;
  UINTN bufferSize = 0;  // *StringSize on entry (0 when StringSize was null)
  EFI_STATUS status = EFI_SUCCESS;
};

// Notification types of RegisterPackageNotify.
constexpr UINTN kNotifyNewPack = 0x01;
constexpr UINTN kNotifyRemovePack = 0x02;
constexpr UINTN kNotifyExportPack = 0x04;
constexpr UINTN kNotifyAddPack = 0x08;

class HiiDatabase {
 public:
  // Installs both protocols on a new handle of `platform`, which must be
  // the current platform. Destroying the database uninstalls them again
  // (nothing is done when the platform is no longer the current one).
  explicit HiiDatabase(Platform& platform);
  ~HiiDatabase();
  HiiDatabase(const HiiDatabase&) = delete;
  HiiDatabase& operator=(const HiiDatabase&) = delete;

  EFI_HII_DATABASE_PROTOCOL* database();
  EFI_HII_STRING_PROTOCOL* strings();
  EFI_HANDLE handle() const;

  // Host-side conveniences with the protocol's semantics.
  EFI_STATUS addPackageList(const std::vector<uint8_t>& packageList, EFI_HANDLE driverHandle,
                            EFI_HII_HANDLE* handle);
  EFI_STATUS removePackageList(EFI_HII_HANDLE handle);
  // Handles in registration order.
  std::vector<EFI_HII_HANDLE> handles() const;
  // One list (or all of them when `handle` is null), back to back.
  EFI_STATUS exportPackageLists(EFI_HII_HANDLE handle, std::vector<uint8_t>& out);

  // Every GetString call, oldest first (on a platform with the checked pool).
  const std::vector<GetStringCall>& getStringCalls() const;
  void clearGetStringCalls();

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace tvl::host::hii
