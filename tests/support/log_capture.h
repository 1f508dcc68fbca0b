// Records what the log service was asked to print, for assertions on
// traces: a sink of the log service, which silences the console meanwhile.
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

  // Registers the sink; false when no log service is installed (yet). A
  // capture that outlives its platform only forgets it.
  bool attach(host::Platform& platform);
  void detach();
  DEBUG_LOG_PROTOCOL* protocol() const { return log_; }

  // Lines whose level shares no bit with the mask reach no sink.
  EFI_STATUS setLevelMask(UINTN mask);

  const std::vector<LogRecord>& records() const { return records_; }
  void clear() { records_.clear(); }

  std::vector<LogRecord> from(const std::string& function) const;  // in order
  size_t count(const std::string& function, const std::string& text) const;
  // The first record with exactly this function and text, or null.
  const LogRecord* find(const std::string& function, const std::string& text) const;
  std::string dump() const;  // "level function: text" lines, for failure messages

 private:
  static VOID EFIAPI sink(VOID* context, UINTN level, const CHAR8* function, const CHAR16* line);

  host::Platform* platform_ = nullptr;
  DEBUG_LOG_PROTOCOL* log_ = nullptr;
  std::vector<LogRecord> records_;
};

// UCS-2 to std::string, keeping ASCII and showing anything else as '?'.
std::string narrow(const CHAR16* text);

}  // namespace tvl::test
