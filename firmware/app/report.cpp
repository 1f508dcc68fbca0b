#include "firmware/app/report.h"

#include "uefi/print.h"

namespace tvl::check {
namespace {

constexpr UINTN kLineCharacters = 512;

void write(const CHAR16* text) {
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* out = rt::gImage.systemTable->ConOut;
  if (out) out->OutputString(out, text);
}

}  // namespace

void EFIAPI say(const CHAR16* format, ...) {
  CHAR16 line[kLineCharacters];
  rt::VaList args;
  __builtin_ms_va_start(args, format);
  rt::formatV(line, kLineCharacters, format, &args);
  __builtin_ms_va_end(args);
  write(line);
}

void EFIAPI format(CHAR16* out, UINTN capacity, const CHAR16* format, ...) {
  rt::VaList args;
  __builtin_ms_va_start(args, format);
  rt::formatV(out, capacity, format, &args);
  __builtin_ms_va_end(args);
}

bool EFIAPI Report::check(bool ok, const CHAR16* format, ...) {
  CHAR16 line[kLineCharacters];
  rt::VaList args;
  __builtin_ms_va_start(args, format);
  rt::formatV(line, kLineCharacters, format, &args);
  __builtin_ms_va_end(args);
  write(ok ? u"  PASS " : u"  FAIL ");
  write(line);
  write(u"\r\n");
  ++(ok ? passed_ : failed_);
  return ok;
}

void Report::verdict() const {
  say(u"TOLVANE-CHECK: %d passed, %d failed\r\n", int(passed_), int(failed_));
}

}  // namespace tvl::check
