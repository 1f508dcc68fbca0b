// Formatting in the firmware print conventions: %a (8-bit text), %s and %S
// (UCS-2 text), %c, %d and %i, %u, %x and %X, %p, %r (status), %g (GUID),
// %%, with the flags '-', '0', '+', ' ', ',' , a width or '*', a precision
// and 'l'/'L' for 64-bit numbers. Numbers without 'l' are 32-bit.
#pragma once

#include "uefi/varargs.h"

namespace tvl::rt {

// Writes at most `capacity` characters including the terminator; longer
// output is cut, and `*cut` (when given) tells whether it was. Texts given
// for %a and %s are read only as far as the output can take them. Returns
// the characters written, terminator excluded. A zero capacity writes
// nothing.
UINTN formatV(CHAR16* out, UINTN capacity, const CHAR16* format, VaList* args, bool* cut = nullptr);
UINTN formatV(CHAR8* out, UINTN capacity, const CHAR8* format, VaList* args, bool* cut = nullptr);

// The display text of a status ("Success", "Invalid Parameter", ...), or
// null for a code with no name.
const CHAR8* statusText(EFI_STATUS status);

}  // namespace tvl::rt
