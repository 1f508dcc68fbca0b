// Variable arguments of EFIAPI (Microsoft x64) functions, read the same way
// on every build.
//
// In that convention every argument, named or variadic, occupies one 8-byte
// slot: the first four travel in registers and __builtin_ms_va_start spills
// them to their home slots, so a va_list is a plain pointer into a row of
// slots. A value narrower than 8 bytes sits in the low bytes of its slot;
// nothing wider than 8 bytes is passed by value in the driver's formats.
//
// The slots are read by hand rather than with __builtin_va_arg: GCC decides
// which convention a va_arg follows from the type of the list expression,
// and a __builtin_ms_va_list reached through a pointer or reference in a
// System V function is at -O0 taken for the System V list, which reads the
// wrong memory (optimised builds happened to hide it).
#pragma once

#include "uefi/base.h"

namespace tvl::rt {

typedef __builtin_ms_va_list VaList;

// The next argument as a T (at most 8 bytes), advancing the list by one
// slot.
template <typename T>
inline T vaArg(VaList& args) {
  static_assert(sizeof(T) <= 8, "EFIAPI variadic arguments are at most one slot");
  T value;
  __builtin_memcpy(&value, args, sizeof(T));
  args += 8;
  return value;
}

}  // namespace tvl::rt
