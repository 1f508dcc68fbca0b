// The one way the driver traces: one call of the log service's Print per
// line, skipped while the log service is not bound.
#pragma once

#include "driver/globals.h"

namespace tvl {

// `function` is the calling function's name, `format` a UCS-2 format in the
// firmware print conventions. Arguments are passed on as given, so callers
// pass 64-bit values for %ld/%lx/%r and 32-bit ones for %d/%x.
template <typename... Args>
inline void trace(UINTN level, const CHAR8* function, const CHAR16* format, Args... args) {
  DEBUG_LOG_PROTOCOL* log = gLogProtocol;
  if (log) log->Print(log, level, function, format, args...);
}

}  // namespace tvl
