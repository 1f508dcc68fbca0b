// The platform's log service (DEBUG_LOG_PROTOCOL). Each Print is one line
// record: a level, the calling function's name and the formatted UCS-2
// text. A level mask drops lines whose level shares no bit with it.
// Registered sinks receive every line that passes; while none is
// registered, lines go to the console as "FunctionName: text" with "\n"
// shown as "\r\n".
//
// A line is formatted into a fixed buffer of kMaxLineCharacters, as
// firmware debug libraries do: whatever a line's arguments hold, printing
// it costs at most that much. A longer line is cut there, the texts it
// prints are read no further, and its last characters become kCutMark.
#include "uefi/print.h"
#include "uefi/runtime.h"
#include "uefi/services.h"

using tvl::rt::bs;
using tvl::rt::Pool;

namespace {

constexpr UINTN kMaxSinks = 8;
constexpr UINTN kMaxLineCharacters = 1024;
constexpr CHAR16 kCutMark[] = u"[...]\n";
constexpr UINTN kConsoleChunk = 128;

struct SinkEntry {
  DEBUG_LOG_SINK sink;
  VOID* context;
};

// The protocol comes first so that `This` is the instance.
struct LogInstance {
  DEBUG_LOG_PROTOCOL protocol;
  UINTN levelMask;
  SinkEntry sinks[kMaxSinks];
  UINTN sinkCount;
};

LogInstance* instanceOf(DEBUG_LOG_PROTOCOL* This) { return reinterpret_cast<LogInstance*>(This); }

// Console output in chunks, with "\n" widened to "\r\n".
class ConsoleWriter {
 public:
  explicit ConsoleWriter(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* console) : console_(console) {}
  ~ConsoleWriter() { flush(); }
  void put(CHAR16 c) {
    if (c == u'\n') putRaw(u'\r');
    putRaw(c);
  }
  void put8(const CHAR8* text) {
    for (; text && *text; ++text) put(CHAR16(UINT8(*text)));
  }
  void put16(const CHAR16* text) {
    for (; text && *text; ++text) put(*text);
  }

 private:
  void putRaw(CHAR16 c) {
    if (count_ + 1 == kConsoleChunk) flush();
    buffer_[count_++] = c;
  }
  void flush() {
    if (count_ == 0) return;
    buffer_[count_] = 0;
    console_->OutputString(console_, buffer_);
    count_ = 0;
  }

  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* console_;
  CHAR16 buffer_[kConsoleChunk];
  UINTN count_ = 0;
};

void deliver(LogInstance* log, UINTN level, const CHAR8* functionName, const CHAR16* line) {
  if (log->sinkCount == 0) {
    EFI_SYSTEM_TABLE* st = tvl::rt::gImage.systemTable;
    if (!st || !st->ConOut) return;
    ConsoleWriter console(st->ConOut);
    console.put8(functionName);
    console.put8(": ");
    console.put16(line);
    return;
  }
  // Sinks may register or unregister others while they run; work on a
  // snapshot.
  SinkEntry sinks[kMaxSinks];
  UINTN count = log->sinkCount;
  tvl::rt::copyMem(sinks, log->sinks, count * sizeof(SinkEntry));
  for (UINTN i = 0; i < count; ++i) sinks[i].sink(sinks[i].context, level, functionName, line);
}

bool passes(const LogInstance* log, UINTN level) { return (level & log->levelMask) != 0; }

EFI_STATUS EFIAPI SetLevelMask(DEBUG_LOG_PROTOCOL* This, UINTN Mask) {
  if (!This) return EFI_INVALID_PARAMETER;
  instanceOf(This)->levelMask = Mask;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI GetLevelMask(DEBUG_LOG_PROTOCOL* This, UINTN* Mask) {
  if (!This || !Mask) return EFI_INVALID_PARAMETER;
  *Mask = instanceOf(This)->levelMask;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI RegisterSink(DEBUG_LOG_PROTOCOL* This, DEBUG_LOG_SINK Sink, VOID* Context) {
  if (!This || !Sink) return EFI_INVALID_PARAMETER;
  LogInstance* log = instanceOf(This);
  for (UINTN i = 0; i < log->sinkCount; ++i)
    if (log->sinks[i].sink == Sink && log->sinks[i].context == Context) return EFI_ALREADY_STARTED;
  if (log->sinkCount == kMaxSinks) return EFI_OUT_OF_RESOURCES;
  log->sinks[log->sinkCount++] = {Sink, Context};
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI UnregisterSink(DEBUG_LOG_PROTOCOL* This, DEBUG_LOG_SINK Sink, VOID* Context) {
  if (!This || !Sink) return EFI_INVALID_PARAMETER;
  LogInstance* log = instanceOf(This);
  for (UINTN i = 0; i < log->sinkCount; ++i) {
    if (log->sinks[i].sink != Sink || log->sinks[i].context != Context) continue;
    for (UINTN j = i + 1; j < log->sinkCount; ++j) log->sinks[j - 1] = log->sinks[j];
    --log->sinkCount;
    return EFI_SUCCESS;
  }
  return EFI_NOT_FOUND;
}

EFI_STATUS EFIAPI WriteLine(DEBUG_LOG_PROTOCOL* This, UINTN Level, const CHAR8* FunctionName, const CHAR16* Line) {
  if (!This || !Line) return EFI_INVALID_PARAMETER;
  LogInstance* log = instanceOf(This);
  if (passes(log, Level)) deliver(log, Level, FunctionName, Line);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI PrintV(DEBUG_LOG_PROTOCOL* This, UINTN Level, const CHAR8* FunctionName, const CHAR16* Format,
                         tvl::rt::VaList* Arguments) {
  if (!This || !Format || !Arguments) return EFI_INVALID_PARAMETER;
  LogInstance* log = instanceOf(This);
  if (!passes(log, Level)) return EFI_SUCCESS;

  CHAR16 line[kMaxLineCharacters + 1];
  tvl::rt::VaList copy = *Arguments;  // a list is a pointer into the argument slots
  bool cut = false;
  UINTN written = tvl::rt::formatV(line, kMaxLineCharacters + 1, Format, &copy, &cut);
  if (cut) {
    const UINTN mark = tvl::rt::length(kCutMark);
    tvl::rt::copyMem(line + written - mark, kCutMark, (mark + 1) * sizeof(CHAR16));
  }
  deliver(log, Level, FunctionName, line);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Print(DEBUG_LOG_PROTOCOL* This, UINTN Level, const CHAR8* FunctionName, const CHAR16* Format, ...) {
  tvl::rt::VaList args;
  __builtin_ms_va_start(args, Format);
  EFI_STATUS status = PrintV(This, Level, FunctionName, Format, &args);
  __builtin_ms_va_end(args);
  return status;
}

}  // namespace

// Installs one log service instance on a new handle.
extern "C" EFI_STATUS EFIAPI EfiMain(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  tvl::rt::initialize(imageHandle, systemTable);
  Pool<LogInstance> log = Pool<LogInstance>::zeroed();
  if (!log) return EFI_OUT_OF_RESOURCES;
  log->protocol = {SetLevelMask, GetLevelMask, RegisterSink, UnregisterSink, WriteLine, Print, PrintV};
  log->levelMask = ~UINTN(0);
  EFI_HANDLE handle = nullptr;
  RETURN_IF_ERROR(bs()->InstallProtocolInterface(&handle, &gDebugLogProtocolGuid, EFI_NATIVE_INTERFACE, &log->protocol));
  log.release();  // lives as long as the platform
  return EFI_SUCCESS;
}
