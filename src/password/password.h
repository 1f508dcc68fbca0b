// Setting and clearing the firmware's setup and system passwords from the
// password items of a pending document, through whichever password service
// the driver bound, with one "Operation" record per outcome in the caller's
// results tree.
//
// The password items of a BIOS document:
//
//   name                   second name                form    Which
//   SysPassword            OldSysPassword             plain   system
//   SetupPassword          OldSetupPassword           plain   setup
//   SHA256SetupPassword    SHA256SetupPasswordSalt    hash    setup
//   SHA256SystemPassword   SHA256SystemPasswordSalt   hash    system
//
// A plain password is Base64 text in a Value marked Encoding="Base64"; the
// second item holds the old password, which only the older service checks.
// A hash is the text of a SHA-256 digest handed to the newer service as it
// is, with the second item's text as its salt. Empty contents clear.
//
// No password value ever reaches a results record or a trace, and every
// pool buffer that held one is wiped before it goes back to the pool.
#pragma once

#include "uefi/services.h"

extern "C" {

// Type codes of SetBIOSPassword: 1 and 2 take the plain form, 3 and 4 the
// hash form; which password changes follows from the name.
#define TVL_PASSWORD_TYPE_SYSTEM 1
#define TVL_PASSWORD_TYPE_SETUP 2
#define TVL_PASSWORD_TYPE_SHA256_SETUP 3
#define TVL_PASSWORD_TYPE_SHA256_SYSTEM 4

// Applies the password item `Name` of `Root`. Refusals before the service
// is asked to change anything return at once and leave `*Results` as it
// was:
//   EFI_INVALID_PARAMETER  no password service, a missing Name, Root or
//                          Results, a missing SecondName with the older
//                          service, a hash form without the newer service,
//                          an unknown name, a missing item or Value, a
//                          missing Encoding="Base64", a password over 32
//                          bytes, a hash text over 64 or a salt over 32
//                          characters, a clear with nothing installed;
//   EFI_DEVICE_ERROR       the password is disabled; with the older
//                          service, old and new password are equal after
//                          lower-casing;
//   EFI_OUT_OF_RESOURCES   a buffer for a decoded password;
//   GetProperties' own status.
// Otherwise (and for a type code other than 1 to 4, which counts as
// EFI_DEVICE_ERROR) the outcome is recorded and returned: success adds
// "Success" records for Name and SecondName; EFI_ACCESS_DENIED (a wrong old
// password) one "Failure" record 603 for Name; any other failure "Failure"
// records 605 for Name and SecondName. A record that cannot be written
// leaves the status as it is, as in the import.
EFI_STATUS SetBIOSPassword(const CHAR8* Name, const CHAR8* SecondName, XML_NODE* Root, UINT8 Type,
                           XML_NODE** Results);

// The SetBIOSPassword operation of TOLVANE_PROTOCOL: applies, in the order
// SetupPassword, SysPassword, SHA256SetupPassword, SHA256SystemPassword,
// each password item whose CommitIndex marks a pending change (non-zero or
// empty), consuming the mark first. A hash item's salt mark is consumed with
// it. `*Results` (a results root or null) receives the tree with the new
// records. EFI_INVALID_PARAMETER, before anything is read, for a missing
// This, Root or Results or no bound password service. Otherwise the last
// attempt decides: EFI_SUCCESS when it succeeded or answered
// EFI_WRITE_PROTECTED, or when nothing was attempted; EFI_ABORTED when it
// failed otherwise.
EFI_STATUS EFIAPI tvlSetBIOSPassword(TOLVANE_PROTOCOL* This, XML_NODE* Root, XML_NODE** Results);

}  // extern "C"
