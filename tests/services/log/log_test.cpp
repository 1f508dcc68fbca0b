// The log service: one line record per Print, sinks, and the console while
// no sink is registered. (%a, %s, %r and %x: the driver's traces.)
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/fixture.h"
#include "support/log_capture.h"
#include "uefi/services.h"

namespace {

using Lines = std::vector<std::string>;

struct Sink {
  Lines lines;
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
    log_ = locate<DEBUG_LOG_PROTOCOL>(gDebugLogProtocolGuid);
    ASSERT_NE(log_, nullptr);
    markBaseline();
    ASSERT_TRUE(capture_.attach(platform()));
  }
  void TearDown() override {
    capture_.detach();
    PlatformTest::TearDown();
  }
  EFI_STATUS registerSink(Sink& s) { return log_->RegisterSink(log_, &Sink::receive, &s); }
  EFI_STATUS unregisterSink(Sink& s) { return log_->UnregisterSink(log_, &Sink::receive, &s); }

  DEBUG_LOG_PROTOCOL* log_ = nullptr;
  tvl::test::LogCapture capture_;
};

TEST_F(LogServiceTest, EachPrintIsOneFormattedLineRecord) {
  using L = DEBUG_LOG_PROTOCOL*;
  const struct { std::function<EFI_STATUS(L)> print; std::string text; } cases[] = {
      {[](L l) {
         return l->Print(l, 8, "Fn", u"%d %ld %x %lx %5d|%-3d|", -7, -8000000000ll, 0xBEEFu, 0x8000000000000005ull,
                         42, 1);
       },
       "-7 -8000000000 beef 8000000000000005    42|1  |"},
      // Zero padding goes between the sign and the digits; '-' overrides '0'.
      {[](L l) {
         return l->Print(l, 8, "Fn", u"%05d|%+04d|%+05ld|% 04d|%05d|%-05d|%04x", -42, 7, -3ll, 5, 42, -4, 0xAu);
       },
       "-0042|+007|-0003| 005|00042|-4   |000a"},
  };
  for (const auto& c : cases) {
    capture_.clear();
    ASSERT_EQ(c.print(log_), EFI_SUCCESS) << c.text;
    ASSERT_EQ(capture_.records().size(), 1u) << c.text;
    const auto& record = capture_.records()[0];
    EXPECT_TRUE(record.text == c.text && record.function == "Fn" && record.level == 8u) << record.text;
  }
  EXPECT_EQ(log_->Print(nullptr, 8, "Fn", u"x"), EFI_INVALID_PARAMETER);
}

// A line takes at most 1,024 characters: a longer one is cut and marked,
// and its texts are read no further than the cut (a guard page follows).
TEST_F(LogServiceTest, LongLinesAreCutAndMarked) {
  const size_t page = size_t(sysconf(_SC_PAGESIZE));
  auto* pages = static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(pages, MAP_FAILED);
  ASSERT_EQ(mprotect(pages + page, page, PROT_NONE), 0);
  std::memset(pages, 'q', page);  // no terminator before the guard page
  auto* wide = reinterpret_cast<CHAR16*>(pages);
  const std::string unterminated(page, 'q');
  const std::string wideQs(page / 2, '?');  // read as UCS-2: 0x7171 characters, shown as '?'
  using L = DEBUG_LOG_PROTOCOL*;
  const std::string mark = "[...]\n";
  const struct { std::function<EFI_STATUS(L)> print; std::string whole; } cases[] = {  // whole: without the cap
      {[](L l) { return l->Print(l, 8, "Fn", u"<%a>", std::string(1022, 'a').c_str()); }, "<" + std::string(1022, 'a') + ">"},
      {[](L l) { return l->Print(l, 8, "Fn", u"<%a>", std::string(1023, 'a').c_str()); }, "<" + std::string(1023, 'a') + ">"},
      {[](L l) { return l->Print(l, 8, "Fn", u"%a|%d\n", std::string(5000, 'b').c_str(), 7); }, std::string(5000, 'b') + "|7\n"},
      {[](L l) { return l->Print(l, 8, "Fn", u"%1100a", "ab"); }, std::string(1098, ' ') + "ab"},
      {[&](L l) { return l->Print(l, 8, "Fn", u"<%a>", pages); }, "<" + unterminated},
      {[&](L l) { return l->Print(l, 8, "Fn", u"<%s>", wide); }, "<" + wideQs},
  };
  for (const auto& c : cases) {
    capture_.clear();
    ASSERT_EQ(c.print(log_), EFI_SUCCESS);
    ASSERT_EQ(capture_.records().size(), 1u);
    EXPECT_EQ(capture_.records()[0].text,
              c.whole.size() <= 1024 ? c.whole : c.whole.substr(0, 1024 - mark.size()) + mark);
  }
  munmap(pages, 2 * page);
}

TEST_F(LogServiceTest, ConsoleReceivesLinesWhileNoSinkIsRegistered) {
  capture_.detach();
  platform().clearConsole();
  log_->Print(log_, 8, "GetString", u"first\nsecond %d\n", 2);
  EXPECT_EQ(platform().consoleTextNarrow(), "GetString: first\r\nsecond 2\r\n");

  Sink sink;
  ASSERT_EQ(registerSink(sink), EFI_SUCCESS);
  platform().clearConsole();
  log_->Print(log_, 8, "Fn", u"to the sink\n");
  EXPECT_EQ(platform().consoleTextNarrow(), "");
  EXPECT_EQ(sink.lines, Lines{"to the sink\n"});

  ASSERT_EQ(unregisterSink(sink), EFI_SUCCESS);
  std::string longText(300, 'z');
  log_->Print(log_, 8, "Fn", u"%a\n", longText.c_str());
  EXPECT_EQ(platform().consoleTextNarrow(), "Fn: " + longText + "\r\n");
}

TEST_F(LogServiceTest, SinkRegistration) {
  Sink sinks[8];  // with the capture's, the table is full
  for (int i = 0; i < 7; ++i) ASSERT_EQ(registerSink(sinks[i]), EFI_SUCCESS) << i;
  EXPECT_EQ(registerSink(sinks[7]), EFI_OUT_OF_RESOURCES);
  EXPECT_EQ(registerSink(sinks[0]), EFI_ALREADY_STARTED);
  EXPECT_EQ(log_->RegisterSink(log_, nullptr, &sinks[7]), EFI_INVALID_PARAMETER);
  EXPECT_EQ(unregisterSink(sinks[7]), EFI_NOT_FOUND);

  // A sink that leaves while a line is delivered: the others still get it.
  sinks[0].onLine = [&] { unregisterSink(sinks[0]); };
  log_->Print(log_, 8, "Fn", u"one");
  log_->Print(log_, 8, "Fn", u"two");
  EXPECT_EQ(sinks[0].lines, Lines{"one"});
  for (int i = 1; i < 7; ++i) EXPECT_EQ(sinks[i].lines, (Lines{"one", "two"})) << i;
  for (int i = 1; i < 7; ++i) EXPECT_EQ(unregisterSink(sinks[i]), EFI_SUCCESS) << i;
}

}  // namespace
