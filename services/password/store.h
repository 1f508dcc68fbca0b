// The passwords of both password services: reading, checking, setting and
// clearing the stored records (record.h), the disabled marks the platform
// sets, and the salt of a new password. Nothing here uses the pool;
// password material lives on the stack and is wiped before it is left.
#pragma once

#include "services/password/record.h"
#include "uefi/services.h"

// PBKDF2 iterations of every password this image sets, fixed when the image
// is built. Exported so that tests can see the count.
extern "C" const UINT32 gPasswordIterations;

namespace tvl::password {

constexpr UINTN kSaltSize = sizeof(PASSWORD_RECORD::Salt);
constexpr UINTN kMaxSaltText = sizeof(PASSWORD_RECORD::SaltText);
constexpr UINTN kHashTextLength = 64;

inline bool isWhich(UINT16 which) { return which == PASSWORD_WHICH_SYSTEM || which == PASSWORD_WHICH_SETUP; }

// The length of a text, or `limit` + 1 when it is longer than `limit`
// (the scan stops there).
UINTN lengthUpTo(const CHAR16* text, UINTN limit);
UINTN lengthUpTo(const CHAR8* text, UINTN limit);

// Argument checks of ChangePassword, before anything is looked up.
bool isPlainPassword(const CHAR16* password);  // at most PASSWORD_MAX_LENGTH characters
bool isHashText(const CHAR8* text);            // empty, or exactly 64 hexadecimal digits
bool isSaltText(const CHAR8* text);            // null, or at most 64 bytes

// Whether the platform marked the password disabled. A mark that cannot be
// read counts as set.
bool isDisabled(UINT16 which);

// PasswordStatus bits and PasswordType of GetProperties; the variable
// store's status when it fails otherwise than by a missing record.
EFI_STATUS properties(UINT16 which, UINT16* status, UINT8* type);

// EFI_SUCCESS when `candidate` is the installed password (the empty text
// when none is installed), EFI_ACCESS_DENIED when it is not,
// EFI_VOLUME_CORRUPTED when the record cannot be read.
EFI_STATUS verify(UINT16 which, const CHAR16* candidate);

// Store a new password, replacing any earlier one; an empty password or an
// empty hash text clears it instead. The arguments have passed the checks
// above.
EFI_STATUS setPlain(UINT16 which, const CHAR16* password);
EFI_STATUS setHash(UINT16 which, const CHAR8* hashText, const CHAR8* saltText);
EFI_STATUS clear(UINT16 which);

}  // namespace tvl::password
