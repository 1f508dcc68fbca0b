#include "support/log_capture.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace tvl::test {

std::string narrow(const CHAR16* text) {
  std::string out;
  for (; text && *text; ++text) out.push_back(*text < 0x80 ? char(*text) : '?');
  return out;
}

LogCapture::~LogCapture() { detach(); }

bool LogCapture::attach(host::Platform& platform) {
  if (log_) return true;
  auto* log = static_cast<DEBUG_LOG_PROTOCOL*>(platform.locateProtocol(DEBUG_LOG_PROTOCOL_GUID));
  if (!log || EFI_ERROR(log->RegisterSink(log, &LogCapture::sink, this))) return false;
  platform_ = &platform;
  log_ = log;
  return true;
}

void LogCapture::detach() {
  // The service's code is only callable while its platform is current.
  if (log_ && host::currentPlatform() == platform_) log_->UnregisterSink(log_, &LogCapture::sink, this);
  log_ = nullptr;
  platform_ = nullptr;
}

EFI_STATUS LogCapture::setLevelMask(UINTN mask) { return log_ ? log_->SetLevelMask(log_, mask) : EFI_NOT_READY; }

VOID EFIAPI LogCapture::sink(VOID* context, UINTN level, const CHAR8* function, const CHAR16* line) {
  static_cast<LogCapture*>(context)->records_.push_back({level, function ? function : "", narrow(line)});
}

std::vector<LogRecord> LogCapture::from(const std::string& function) const {
  std::vector<LogRecord> out;
  std::copy_if(records_.begin(), records_.end(), std::back_inserter(out),
               [&](const LogRecord& r) { return r.function == function; });
  return out;
}

size_t LogCapture::count(const std::string& function, const std::string& text) const {
  return std::count_if(records_.begin(), records_.end(),
                       [&](const LogRecord& r) { return r.function == function && r.text == text; });
}

const LogRecord* LogCapture::find(const std::string& function, const std::string& text) const {
  for (const LogRecord& r : records_) if (r.function == function && r.text == text) return &r;
  return nullptr;
}

std::string LogCapture::dump() const {
  std::string out;
  char level[32];
  for (const LogRecord& r : records_) {
    std::snprintf(level, sizeof level, "%#llx ", static_cast<unsigned long long>(r.level));
    out += level + r.function + ": " + r.text;
    if (out.back() != '\n') out += '\n';
  }
  return out;
}

}  // namespace tvl::test
