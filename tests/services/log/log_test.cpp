// The log service: one line record per Print, the level mask, sinks, and
// the console while no sink is registered.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/fixture.h"
#include "support/log_capture.h"
#include "uefi/services.h"

namespace {

using tvl::test::LogCapture;
using tvl::test::LogRecord;

constexpr EFI_GUID kLogGuid = DEBUG_LOG_PROTOCOL_GUID;

// Gathers its arguments and hands them to PrintV, as a caller with its own
// variadic wrapper would.
EFI_STATUS EFIAPI printThroughPrintV(DEBUG_LOG_PROTOCOL* log, UINTN level, const CHAR8* function,
                                     const CHAR16* format, ...) {
  tvl::rt::VaList args;
  __builtin_ms_va_start(args, format);
  EFI_STATUS status = log->PrintV(log, level, function, format, &args);
  __builtin_ms_va_end(args);
  return status;
}

struct Sink {
  std::vector<std::string> lines;
  std::function<void()> onLine;
  static VOID EFIAPI receive(VOID* context, UINTN, const CHAR8*, const CHAR16* line) {
    auto* self = static_cast<Sink*>(context);
    self->lines.push_back(tvl::test::narrow(line));
    if (self->onLine) self->onLine();
  }
};

class LogServiceTest : public tvl::test::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    load("log_service");
    log_ = locate<DEBUG_LOG_PROTOCOL>(kLogGuid);
    ASSERT_NE(log_, nullptr);
    markBaseline();
  }
  void TearDown() override {
    capture_.detach();
    PlatformTest::TearDown();
  }
  LogCapture& capture() {
    if (!capture_.attached()) {
      EXPECT_TRUE(capture_.attach(platform()));
    }
    return capture_;
  }

  DEBUG_LOG_PROTOCOL* log_ = nullptr;
  LogCapture capture_;
};

TEST_F(LogServiceTest, EachPrintIsOneFormattedLineRecord) {
  struct Case {
    const char* name;
    std::function<EFI_STATUS(DEBUG_LOG_PROTOCOL*)> print;
    std::string text;
  } cases[] = {
      {"plain", [](DEBUG_LOG_PROTOCOL* l) { return l->Print(l, 8, "Fn", u"Entering\n"); }, "Entering\n"},
      {"texts", [](DEBUG_LOG_PROTOCOL* l) { return l->Print(l, 8, "Fn", u"%a/%s", "narrow", u"wide"); },
       "narrow/wide"},
      {"status", [](DEBUG_LOG_PROTOCOL* l) { return l->Print(l, 8, "Fn", u"%r|%r", EFI_NOT_FOUND, EFI_SUCCESS); },
       "Not Found|Success"},
      {"numbers",
       [](DEBUG_LOG_PROTOCOL* l) {
         return l->Print(l, 8, "Fn", u"%d %ld %x %lx %5d|%-3d|", -7, -8000000000ll, 0xBEEFu, 0x8000000000000005ull,
                         42, 1);
       },
       "-7 -8000000000 beef 8000000000000005    42|1  |"},
      {"low half of a status with %x",
       [](DEBUG_LOG_PROTOCOL* l) { return l->Print(l, 8, "Fn", u"Status = %x\n", EFI_ACCESS_DENIED); },
       "Status = f\n"},
      {"gathered",
       [](DEBUG_LOG_PROTOCOL* l) { return printThroughPrintV(l, 8, "Fn", u"%a=%d", "n", 3); }, "n=3"},
      {"written", [](DEBUG_LOG_PROTOCOL* l) { return l->WriteLine(l, 8, "Fn", u"as is %d"); }, "as is %d"},
  };
  for (const Case& c : cases) {
    capture().clear();
    ASSERT_EQ(c.print(log_), EFI_SUCCESS) << c.name;
    ASSERT_EQ(capture().records().size(), 1u) << c.name;
    const LogRecord& r = capture().records()[0];
    EXPECT_EQ(r.text, c.text) << c.name;
    EXPECT_EQ(r.function, "Fn") << c.name;
    EXPECT_EQ(r.level, 8u) << c.name;
  }
  EXPECT_EQ(log_->Print(nullptr, 8, "Fn", u"x"), EFI_INVALID_PARAMETER);
  EXPECT_EQ(log_->WriteLine(log_, 8, "Fn", nullptr), EFI_INVALID_PARAMETER);
}

TEST_F(LogServiceTest, LevelMaskDropsLinesSharingNoBit) {
  UINTN mask = 0;
  ASSERT_EQ(log_->GetLevelMask(log_, &mask), EFI_SUCCESS);
  EXPECT_EQ(mask, ~UINTN(0));
  struct Case {
    UINTN mask;
    UINTN level;
    bool delivered;
  } cases[] = {
      {~UINTN(0), 0x80000000, true}, {~UINTN(0), 0, false},         {0x80, 0x80000080, true},
      {0x8, 0x80, false},            {0, 0x8, false},               {0x800000 | 0x8, 0x800000, true},
  };
  for (const Case& c : cases) {
    // Set through the capture, the way tests filter traces.
    ASSERT_EQ(capture().setLevelMask(c.mask), EFI_SUCCESS);
    capture().clear();
    log_->Print(log_, c.level, "Fn", u"printed");
    log_->WriteLine(log_, c.level, "Fn", u"written");
    printThroughPrintV(log_, c.level, "Fn", u"gathered");
    EXPECT_EQ(capture().records().size(), c.delivered ? 3u : 0u) << std::hex << c.mask << " " << c.level;
  }
}

TEST_F(LogServiceTest, ConsoleReceivesLinesWhileNoSinkIsRegistered) {
  platform().clearConsole();
  log_->Print(log_, 8, "GetString", u"first\nsecond %d\n", 2);
  EXPECT_EQ(platform().consoleTextNarrow(), "GetString: first\r\nsecond 2\r\n");

  Sink sink;
  ASSERT_EQ(log_->RegisterSink(log_, &Sink::receive, &sink), EFI_SUCCESS);
  platform().clearConsole();
  log_->Print(log_, 8, "Fn", u"to the sink\n");
  EXPECT_EQ(platform().consoleTextNarrow(), "");
  EXPECT_EQ(sink.lines, std::vector<std::string>{"to the sink\n"});

  ASSERT_EQ(log_->UnregisterSink(log_, &Sink::receive, &sink), EFI_SUCCESS);
  std::string longText(300, 'z');
  log_->Print(log_, 8, "Fn", u"%a\n", longText.c_str());
  EXPECT_EQ(platform().consoleTextNarrow(), "Fn: " + longText + "\r\n");
}

TEST_F(LogServiceTest, SinkRegistration) {
  Sink sinks[9];
  for (int i = 0; i < 8; ++i) ASSERT_EQ(log_->RegisterSink(log_, &Sink::receive, &sinks[i]), EFI_SUCCESS) << i;
  EXPECT_EQ(log_->RegisterSink(log_, &Sink::receive, &sinks[8]), EFI_OUT_OF_RESOURCES);
  EXPECT_EQ(log_->RegisterSink(log_, &Sink::receive, &sinks[0]), EFI_ALREADY_STARTED);
  EXPECT_EQ(log_->RegisterSink(log_, nullptr, &sinks[8]), EFI_INVALID_PARAMETER);
  EXPECT_EQ(log_->UnregisterSink(log_, &Sink::receive, &sinks[8]), EFI_NOT_FOUND);

  // A sink that leaves while a line is delivered: the others still get it.
  sinks[0].onLine = [&] { log_->UnregisterSink(log_, &Sink::receive, &sinks[0]); };
  log_->Print(log_, 8, "Fn", u"one");
  log_->Print(log_, 8, "Fn", u"two");
  EXPECT_EQ(sinks[0].lines, std::vector<std::string>{"one"});
  for (int i = 1; i < 8; ++i) EXPECT_EQ(sinks[i].lines, (std::vector<std::string>{"one", "two"})) << i;
  for (int i = 1; i < 8; ++i) EXPECT_EQ(log_->UnregisterSink(log_, &Sink::receive, &sinks[i]), EFI_SUCCESS);
}

TEST_F(LogServiceTest, LongLinesArriveWhole) {
  std::string text(5000, 'q');
  capture().clear();
  log_->Print(log_, 8, "Fn", u"<%a>", text.c_str());
  ASSERT_EQ(capture().records().size(), 1u);
  EXPECT_EQ(capture().records()[0].text, "<" + text + ">");

  // Without pool memory for it, the line arrives cut rather than lost.
  capture().clear();
  platform().failAllocationsFrom(1);
  log_->Print(log_, 8, "Fn", u"<%a>", text.c_str());
  platform().clearAllocationFaults();
  ASSERT_EQ(capture().records().size(), 1u);
  const std::string& cut = capture().records()[0].text;
  EXPECT_GT(cut.size(), 500u);
  EXPECT_LT(cut.size(), text.size());
  EXPECT_EQ(cut, ("<" + text).substr(0, cut.size()));
}

TEST_F(LogServiceTest, EachInstanceKeepsItsOwnState) {
  load("log_service");
  std::vector<EFI_HANDLE> handles = platform().handlesWith(kLogGuid);
  ASSERT_EQ(handles.size(), 2u);
  auto* second = static_cast<DEBUG_LOG_PROTOCOL*>(platform().handleProtocol(handles[1], kLogGuid));
  ASSERT_NE(second, log_);
  markBaseline();

  Sink sink;
  ASSERT_EQ(log_->RegisterSink(log_, &Sink::receive, &sink), EFI_SUCCESS);
  ASSERT_EQ(second->SetLevelMask(second, 0), EFI_SUCCESS);
  UINTN mask = 0;
  ASSERT_EQ(log_->GetLevelMask(log_, &mask), EFI_SUCCESS);
  EXPECT_EQ(mask, ~UINTN(0));
  log_->Print(log_, 8, "Fn", u"first");
  platform().clearConsole();
  second->Print(second, 8, "Fn", u"second");
  EXPECT_EQ(sink.lines, std::vector<std::string>{"first"});
  EXPECT_EQ(platform().consoleTextNarrow(), "");  // masked, and no sink of its own
  EXPECT_EQ(log_->UnregisterSink(log_, &Sink::receive, &sink), EFI_SUCCESS);
}

}  // namespace
