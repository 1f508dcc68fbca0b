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
// - otherwise one-of options flagged EFI_IFR_OPTION_DEFAULT (standard) or
//   EFI_IFR_OPTION_DEFAULT_MFG (manufacturing), and the checkbox flags,
//   which give both the standard and the manufacturing value (0 when the
//   flag is clear).
// A default computed by an expression, and defaults of other question
// kinds, are left out; so is a forms package whose opcodes do not split.
#pragma once

#include <cstdint>
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

// The default configurations of storage GUID/NAME from the forms packages
// of `packageLists` (each one whole package list).
std::vector<DefaultConfig> defaultConfigs(const std::vector<std::vector<uint8_t>>& packageLists, const EFI_GUID& guid,
                                          const std::u16string& name);

}  // namespace tvl::host::devices
