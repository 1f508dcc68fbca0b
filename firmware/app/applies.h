// Pending documents applied in real firmware: the documents in the boot
// drive's \apply directory go through SetBIOSPassword (when they hold a
// pending password), NodeToHii and NodeSaveToHii, in the order and with the
// calls `tolvane apply` makes, against the sample BIOS and OVMF's own
// platform configuration. Each ConfigResults document is written to \out
// for the host's comparison, checked record by record, and the device is
// exported again to see what reached it.
//
// A second boot of the same variable store (the runner puts \second.boot on
// the drive for it) finds the settings that a variable store keeps.
#pragma once

#include "firmware/app/exports.h"

namespace tvl::check {

// Whether this is the runner's second boot.
bool isSecondBoot();

// After runExports: the sample devices are loaded and OVMF's devices have
// their locations.
void runApplies(const Services& services, Report& report);

// The second boot's checks: loads the sample devices again and exports the
// BIOS device.
void runSecondBoot(const Services& services, Report& report);

}  // namespace tvl::check
