// Default configurations of a device's storage, derived from the device's
// forms as UEFI configuration routing derives them: the <AltResp> sections
// ("<ConfigHdr>&ALTCFG=<DefaultId>" and OFFSET/WIDTH/VALUE blocks) that
// follow the current configuration in a ConfigAltResp.
//
// A storage is matched by GUID and NAME against the EFI_IFR_VARSTORE and
// EFI_IFR_VARSTORE_EFI opcodes of every form set. Each form set that
// declares it contributes one configuration per default store it declares
// (EFI_IFR_DEFAULTSTORE, in declaration order; a store declared by several
// form sets keeps its first place). A configuration holds the fields of the
// form set's one-of, numeric, checkbox and ordered-list questions on that
// storage that have a default for its default store:
// - EFI_IFR_DEFAULT with a constant value, for the store it names;
// - EFI_IFR_DEFAULT whose value an expression computes, when the caller
//   hands in its evaluated value (EvaluatedDefault: this code evaluates no
//   expression; the forms processor does);
// - otherwise one-of options flagged EFI_IFR_OPTION_DEFAULT (standard) or
//   EFI_IFR_OPTION_DEFAULT_MFG (manufacturing), and the checkbox flags,
//   which give both the standard and the manufacturing value (0 when the
//   flag is clear).
// An expression default without an evaluated value, and defaults of other
// question kinds, are left out; so is a forms package whose opcodes do not
// split.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "uefi/base.h"

namespace tvl::host::devices {

struct DefaultField {
  uint16_t offset = 0;
  std::vector<uint8_t> bytes;  // the question's width, storage order
};

struct DefaultConfig {
  uint16_t defaultId = 0;
  std::vector<DefaultField> fields;  // by offset; a later question at an offset replaces an earlier one
};

// The value of an expression default of the question whose opcode starts
// at byte `opcodeOffset` of package list `listIndex` (of those handed to
// defaultConfigs), for default store `defaultId`: the number in storage
// order, cut or zero-extended to the question's width.
struct EvaluatedDefault {
  size_t listIndex = 0;
  size_t opcodeOffset = 0;
  uint16_t defaultId = 0;
  std::vector<uint8_t> value;
};

// A storage, as the forms name it.
struct StorageName {
  EFI_GUID guid{};
  std::u16string name;
  bool operator<(const StorageName& other) const;
};
using DeviceDefaults = std::map<StorageName, std::vector<DefaultConfig>>;

// The default configurations of every storage that the forms packages of
// `packageLists` (each one whole package list) declare, from one walk over
// them. With `alwaysStandard` every form set counts as declaring the
// standard default store. A varstore id declared twice in a form set keeps
// its first storage.
DeviceDefaults allDefaultConfigs(const std::vector<std::vector<uint8_t>>& packageLists,
                                 const std::vector<EvaluatedDefault>& evaluated = {}, bool alwaysStandard = false);

// The fields of the standard configuration of storage GUID/NAME in
// `defaults`; none when it has none.
std::vector<DefaultField> standardFields(const DeviceDefaults& defaults, const EFI_GUID& guid,
                                         const std::u16string& name);

// The default configurations of storage GUID/NAME from the forms packages
// of `packageLists` (each one whole package list).
std::vector<DefaultConfig> defaultConfigs(const std::vector<std::vector<uint8_t>>& packageLists, const EFI_GUID& guid,
                                          const std::u16string& name,
                                          const std::vector<EvaluatedDefault>& evaluated = {});

// The standard configuration (default store 0) of storage GUID/NAME, also
// where no form set declares the standard default store: the fields a
// device's store starts from when nothing else gives its values.
std::vector<DefaultField> standardDefaults(const std::vector<std::vector<uint8_t>>& packageLists, const EFI_GUID& guid,
                                           const std::u16string& name,
                                           const std::vector<EvaluatedDefault>& evaluated = {});

// A store that the forms declare: EFI_IFR_VARSTORE (buffer) or
// EFI_IFR_VARSTORE_EFI with its size and name. Name/value stores, and EFI
// variable stores in the short layout without size and name, are not
// listed.
struct StoreDeclaration {
  EFI_GUID guid{};
  std::u16string name;
  uint16_t size = 0;
  bool efiVariable = false;
  uint32_t attributes = 0;  // EFI variable stores
};

// Every store of the forms packages of `packageLists`, once per GUID and
// NAME in the order of first declaration; a store declared more than once
// takes the largest size.
std::vector<StoreDeclaration> declaredStores(const std::vector<std::vector<uint8_t>>& packageLists);

}  // namespace tvl::host::devices
