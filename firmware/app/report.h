// Console output of the test application: free lines, and one line per
// check ("PASS ..." or "FAIL ...") counted for the final verdict line.
#pragma once

#include "uefi/runtime.h"

namespace tvl::check {

// One line to the console (the caller writes "\r\n").
void EFIAPI say(const CHAR16* format, ...);

// Formats into `out` (at most `capacity` characters with the terminator).
void EFIAPI format(CHAR16* out, UINTN capacity, const CHAR16* format, ...);

class Report {
 public:
  // Prints "  PASS <what>" or "  FAIL <what>" and counts it; returns `ok`.
  bool EFIAPI check(bool ok, const CHAR16* format, ...);
  UINTN passed() const { return passed_; }
  UINTN failed() const { return failed_; }
  // "<passed> passed, <failed> failed".
  void verdict() const;

 private:
  UINTN passed_ = 0;
  UINTN failed_ = 0;
};

}  // namespace tvl::check
