// A device of the emulated platform as its UEFI driver would present it: a
// driver handle carrying the device path and EFI_HII_CONFIG_ACCESS_PROTOCOL,
// HII package lists registered under that handle, and configuration storage
// that ExtractConfig and RouteConfig read and write through real UEFI
// configuration strings.
//
// Storage comes in two kinds, each identified by GUID and NAME as in the
// <ConfigHdr> of its configuration strings:
// - buffer storage: bytes held by the device itself;
// - EFI variable storage: bytes of the platform variable NAME/GUID, read
//   with GetVariable and written with SetVariable on every access.
//
// ExtractConfig(Request):
// - null Request: every storage, whole, as <ConfigHdr>&OFFSET=0000&WIDTH=
//   <size>&VALUE=<digits>, each followed by its default configurations as
//   configuration routing appends them ("&<ConfigHdr>&ALTCFG=<DefaultId>"
//   and blocks, see default_config.h), joined by '&'; Progress is set to
//   null;
// - a <ConfigHdr> alone: that storage, whole, with its default
//   configurations under the header as written;
// - a <ConfigHdr> with OFFSET/WIDTH blocks: those fields, the header and
//   each block echoed as written, followed by &VALUE=.
// RouteConfig(Configuration): a <ConfigHdr> and OFFSET/WIDTH/VALUE blocks,
// applied only when the whole string is valid. A storage marked by
// refuseWideZeroWrites refuses a block of more than one byte whose value is
// all zeros (its driver keeps bytes of its own in the higher bytes of such
// fields): EFI_INVALID_PARAMETER with Progress at that block, nothing
// written. A one-byte block of zero is accepted.
// Statuses: EFI_INVALID_PARAMETER for null arguments, syntax errors and
// fields outside the storage (Progress at the most recent '&' before the
// fault); EFI_NOT_FOUND when GUID, NAME or PATH names no storage of this
// device (Progress at the start of the string); EFI_OUT_OF_RESOURCES when
// the pool refuses the Results string. Results are pool allocations that the
// caller frees with FreePool.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/devices/default_config.h"
#include "host/hii/hii_database.h"
#include "host/platform.h"
#include "uefi/protocols.h"

namespace tvl::host::devices {

class Device {
 public:
  // Creates a new handle with `devicePath` (end node included) and the
  // configuration-access protocol.
  Device(Platform& platform, hii::HiiDatabase& hii, std::vector<uint8_t> devicePath);
  // Removes the device's package lists and uninstalls its protocols; must
  // run before the database is destroyed (nothing is done when the
  // platform is no longer the current one).
  ~Device();
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  EFI_HANDLE handle() const;
  const std::vector<uint8_t>& devicePath() const;
  EFI_HII_CONFIG_ACCESS_PROTOCOL* configAccess();

  // ---- storage
  void addBufferStorage(const EFI_GUID& guid, const std::u16string& name, std::vector<uint8_t> bytes);
  // Declares an EFI variable store and writes `initial` into the variable.
  void addVariableStorage(const EFI_GUID& guid, const std::u16string& name, std::vector<uint8_t> initial,
                          uint32_t attributes = EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS);
  // From now on RouteConfig refuses blocks wider than one byte that write
  // zero into this storage (throws std::out_of_range for an unknown one).
  void refuseWideZeroWrites(const EFI_GUID& guid, const std::u16string& name);
  // Current bytes of a storage (throws std::out_of_range for an unknown one).
  std::vector<uint8_t> storage(const EFI_GUID& guid, const std::u16string& name) const;
  void setStorage(const EFI_GUID& guid, const std::u16string& name, const std::vector<uint8_t>& bytes);
  // GUID=...&NAME=...&PATH=... of a storage of this device.
  std::u16string configHdr(const EFI_GUID& guid, const std::u16string& name) const;

  // ---- HII
  // Registers a package list under the device's handle (throws
  // std::runtime_error when the database refuses it).
  EFI_HII_HANDLE addPackageList(const std::vector<uint8_t>& packageList);
  const std::vector<EFI_HII_HANDLE>& packageLists() const;
  // Values of the expression defaults of the device's forms (list indexes
  // count the device's package lists), for the default configurations
  // that whole-store answers carry.
  void setEvaluatedDefaults(std::vector<EvaluatedDefault> evaluated);

  // ---- observation and behaviour for tests of the device's callers
  struct Call {
    std::u16string text;  // Request or Configuration; empty for a null Request
    bool textNull = false;
    EFI_STATUS status = EFI_SUCCESS;
    size_t progress = 0;  // index Progress pointed at
  };
  const std::vector<Call>& extractConfigCalls() const;
  const std::vector<Call>& routeConfigCalls() const;
  // Forgets the calls seen so far (a long-running caller keeps the logs
  // from growing).
  void clearCalls();
  // Consulted for every RouteConfig whose string is valid, before anything
  // is written; a status other than EFI_SUCCESS is returned unchanged with
  // Progress at the start of the string and nothing written.
  void setRouteConfigFilter(std::function<EFI_STATUS(const std::u16string&)> filter);

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace tvl::host::devices
