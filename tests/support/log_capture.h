// Records what the log service was asked to print, for assertions on
// traces. A LogCapture registers itself as a sink of the log service on the
// current platform; while it is registered the console receives no log
// lines.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "host/platform.h"
#include "uefi/services.h"

namespace tvl::test {

struct LogRecord {
  UINTN level = 0;
  std::string function;
  std::string text;  // the formatted line, narrowed (non-ASCII shown as '?')
};

class LogCapture {
 public:
  LogCapture() = default;
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Locates the log service on `platform` and registers the sink. False
  // when no log service is installed (yet). Detach before the platform
  // goes away; a capture that outlives its platform only forgets it.
  bool attach(host::Platform& platform);
  void detach();
  bool attached() const { return log_ != nullptr; }
  DEBUG_LOG_PROTOCOL* protocol() const { return log_; }

  // Filters at the service: lines whose level shares no bit with the mask
  // are dropped before any sink sees them.
  EFI_STATUS setLevelMask(UINTN mask);

  const std::vector<LogRecord>& records() const { return records_; }
  void clear() { records_.clear(); }

  // Records of one function, in order.
  std::vector<LogRecord> from(const std::string& function) const;
  // Number of records with exactly this function and text.
  size_t count(const std::string& function, const std::string& text) const;
  // The first record with exactly this function and text, or null.
  const LogRecord* find(const std::string& function, const std::string& text) const;
  // The first record whose text contains `fragment`, or null.
  const LogRecord* findContaining(const std::string& fragment) const;
  // Every record as "level function: text", for failure messages.
  std::string dump() const;

 private:
  static VOID EFIAPI sink(VOID* context, UINTN level, const CHAR8* function, const CHAR16* line);

  host::Platform* platform_ = nullptr;
  DEBUG_LOG_PROTOCOL* log_ = nullptr;
  std::vector<LogRecord> records_;
};

// UCS-2 to std::string, keeping ASCII and showing anything else as '?'.
std::string narrow(const CHAR16* text);

}  // namespace tvl::test
