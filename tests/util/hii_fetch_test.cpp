// String fetch and device package lists, through the real HII database and
// string protocols of the emulated platform and a freshly loaded driver.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "host/hii/hii_database.h"
#include "host/hii/package_list.h"
#include "host/hii/string_package.h"
#include "support/fixture.h"
#include "support/log_capture.h"
#include "util/device_handles.h"
#include "util/hii_string.h"

namespace {

using tvl::host::hii::HiiDatabase;

EFI_GUID listGuid(uint8_t n) { return {0x7e1a0000u + n, 0x1234, 0x5678, {1, 2, 3, 4, 5, 6, 7, n}}; }

class HiiFetchTest : public tvl::test::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    load("log_service");
    load("xml_service");
    load("forms_service");
    hii_ = std::make_unique<HiiDatabase>(platform());
    driver_ = load("tolvane_driver");
    ASSERT_TRUE(log_.attach(platform()));
    getString_ = platform().imageFunction<decltype(&GetString)>(driver_, "GetString");
    beforeBracket_ = platform().imageFunction<decltype(&GetStringBeforeBracket)>(driver_, "GetStringBeforeBracket");
    handles_ = platform().imageFunction<decltype(&HandleToHiiHandleBuffer)>(driver_, "HandleToHiiHandleBuffer");
    ASSERT_TRUE(getString_ && beforeBracket_ && handles_);
    markBaseline();
  }
  void TearDown() override {
    log_.detach();
    PlatformTest::TearDown();
    hii_.reset();
  }

  // Registers a package list with one string package per language.
  EFI_HII_HANDLE addStrings(EFI_HANDLE owner, const std::vector<std::pair<std::string, std::vector<std::u16string>>>&
                                                  languages) {
    std::vector<std::vector<uint8_t>> packages;
    for (const auto& [language, strings] : languages)
      packages.push_back(tvl::host::hii::buildStringPackage(language, strings));
    EFI_HII_HANDLE handle = nullptr;
    EXPECT_EQ(hii_->addPackageList(tvl::host::hii::buildPackageList(listGuid(++lists_), packages), owner, &handle),
              EFI_SUCCESS);
    return handle;
  }

  // Fetches and frees; the text is returned as std::string.
  EFI_STATUS fetch(decltype(&GetString) fn, const char* language, EFI_HII_HANDLE handle, EFI_STRING_ID id,
                   std::string* text) {
    CHAR8* out = nullptr;
    EFI_STATUS status = fn(language, handle, id, &out);
    if (out) {
      if (text) *text = out;
      bs()->FreePool(out);
    }
    return status;
  }

  EFI_HANDLE newDriverHandle() {
    static uint64_t marker;
    EFI_HANDLE handle = nullptr;
    EXPECT_EQ(platform().installProtocol(&handle, EFI_HII_CONFIG_ACCESS_PROTOCOL_GUID, &marker), EFI_SUCCESS);
    return handle;
  }

  std::unique_ptr<HiiDatabase> hii_;
  tvl::test::LogCapture log_;
  EFI_HANDLE driver_ = nullptr;
  decltype(&GetString) getString_ = nullptr;
  decltype(&GetStringBeforeBracket) beforeBracket_ = nullptr;
  decltype(&HandleToHiiHandleBuffer) handles_ = nullptr;
  uint8_t lists_ = 0;
};

TEST_F(HiiFetchTest, FetchesNarrowsAndSizesTheBuffer) {
  std::u16string s255(255, u'a'), s256(256, u'b');
  std::u16string wide = u"Caf\u00e9\tA\u0141B";  // é and tab become blanks, U+0141 keeps its low byte 'A'
  EFI_HII_HANDLE h = addStrings(newDriverHandle(), {{"en-US", {s255, s256, wide, u"[x]tail", u"Name [k:v]"}}});
  struct Case {
    EFI_STRING_ID id;
    std::string expected;
    std::vector<UINTN> bufferSizes;  // StringSize handed to the service per call
  } cases[] = {
      {1, std::string(255, 'a'), {512}},
      {2, std::string(256, 'b'), {512, 514}},
      {3, "Caf  AAB", {512}},
      {4, "[x]tail", {512}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.id);
    hii_->clearGetStringCalls();
    std::string text;
    EXPECT_EQ(fetch(getString_, "en-US", h, c.id, &text), EFI_SUCCESS);
    EXPECT_EQ(text, c.expected);
    std::vector<UINTN> sizes;
    for (const auto& call : hii_->getStringCalls()) sizes.push_back(call.bufferSize);
    EXPECT_EQ(sizes, c.bufferSizes);
  }
  EXPECT_TRUE(log_.find("GetString", "GetString StringId:2 Language:en-US\n")) << log_.dump();
  EXPECT_EQ(log_.count("GetString", "GetString returning status Success\n"), 4u);
  for (const auto& r : log_.from("GetString")) EXPECT_EQ(r.level, 8u);
}

TEST_F(HiiFetchTest, RefusesAndPassesOnFailures) {
  EFI_HII_HANDLE h = addStrings(newDriverHandle(), {{"en-US", {u"one", u""}}, {"x-UEFI", {u"One[k:v]"}}});
  struct Case {
    const char* name;
    const char* language;
    EFI_HII_HANDLE handle;
    EFI_STRING_ID id;
    EFI_STATUS status;
    size_t serviceCalls;
    const char* trace;
  } cases[] = {
      {"string id 0", "en-US", h, 0, EFI_INVALID_PARAMETER, 0, "GetString invalid parameter: Invalid Parameter\n"},
      {"no language", nullptr, h, 1, EFI_INVALID_PARAMETER, 0, "GetString invalid parameter: Invalid Parameter\n"},
      {"no handle", "en-US", nullptr, 1, EFI_INVALID_PARAMETER, 0, "GetString invalid parameter: Invalid Parameter\n"},
      {"unknown language", "fr-FR", h, 1, EFI_INVALID_LANGUAGE, 1,
       "HiiStringProtocol->GetString ERROR: Invalid Language\n"},
      {"unknown id", "en-US", h, 9, EFI_NOT_FOUND, 1, "HiiStringProtocol->GetString ERROR: Not Found\n"},
      {"empty string", "en-US", h, 2, EFI_NOT_FOUND, 1, "GetString zero length String: Not Found\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    hii_->clearGetStringCalls();
    log_.clear();
    CHAR8* out = reinterpret_cast<CHAR8*>(uintptr_t(0x5a5a));
    EXPECT_EQ(getString_(c.language, c.handle, c.id, &out), c.status);
    EXPECT_EQ(out, reinterpret_cast<CHAR8*>(uintptr_t(0x5a5a))) << "output written on failure";
    EXPECT_EQ(hii_->getStringCalls().size(), c.serviceCalls);
    EXPECT_TRUE(log_.find("GetString", c.trace)) << log_.dump();
  }
}

TEST_F(HiiFetchTest, CutsKeywordTextsBeforeTheBracket) {
  EFI_HII_HANDLE h =
      addStrings(newDriverHandle(), {{"x-UEFI", {u"BootMode[Dep:A]", u"[Only]", u"Plain", u"Spaced [k:v]", u""}}});
  struct Case {
    EFI_STRING_ID id;
    EFI_STATUS status;
    std::string expected;
  } cases[] = {
      {1, EFI_SUCCESS, "BootMode"}, {2, EFI_SUCCESS, ""},          {3, EFI_SUCCESS, "Plain"},
      {4, EFI_SUCCESS, "Spaced "},  {5, EFI_NOT_FOUND, "<unset>"}, {0, EFI_INVALID_PARAMETER, "<unset>"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.id);
    std::string text = "<unset>";
    EXPECT_EQ(fetch(beforeBracket_, "x-UEFI", h, c.id, &text), c.status);
    EXPECT_EQ(text, c.expected);
  }
  CHAR8* out = nullptr;
  EXPECT_EQ(beforeBracket_(nullptr, h, 1, &out), EFI_INVALID_PARAMETER);
}

TEST_F(HiiFetchTest, EveryAllocationFailureIsReportedWithoutLeak) {
  EFI_HII_HANDLE h = addStrings(newDriverHandle(), {{"en-US", {std::u16string(300, u'z'), u"Key[a:b]"}}});
  struct Case {
    const char* name;
    decltype(&GetString) fn;
    EFI_STRING_ID id;
    size_t attempts;  // 300 characters: first buffer, retry buffer, text
  } cases[] = {
      {"GetString with retry", getString_, 1, 3},
      {"GetStringBeforeBracket", beforeBracket_, 2, 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    log_.clear();
    size_t n = sweepAllocationFailures([&] { return fetch(c.fn, "en-US", h, c.id, nullptr); },
                                       [](EFI_STATUS status, size_t) { EXPECT_EQ(status, EFI_OUT_OF_RESOURCES); });
    EXPECT_EQ(n, c.attempts);
  }
  // Only the first buffer's failure is traced.
  EXPECT_EQ(log_.count("GetString", "GetString ERROR: Out of Resources\n"), 1u) << log_.dump();
}

TEST_F(HiiFetchTest, FindsTheListsOfOneDriverInDatabaseOrder) {
  EFI_HANDLE device = newDriverHandle();
  EFI_HANDLE other = newDriverHandle();
  std::vector<EFI_HII_HANDLE> mine;
  for (int i = 1; i <= 6; ++i) {
    bool owned = i == 2 || i == 5 || i == 6;
    EFI_HII_HANDLE h = addStrings(owned ? device : other, {{"en-US", {u"s"}}});
    if (owned) mine.push_back(h);
  }
  UINTN count = 0;
  EFI_HII_HANDLE* handles = nullptr;
  ASSERT_EQ(handles_(device, &count, &handles), EFI_SUCCESS);
  EXPECT_EQ(std::vector<EFI_HII_HANDLE>(handles, handles + count), mine);
  bs()->FreePool(handles);

  EFI_HANDLE none = newDriverHandle();
  count = 77;
  handles = nullptr;
  EXPECT_EQ(handles_(none, &count, &handles), EFI_NOT_FOUND);
  EXPECT_EQ(count, 77u);
  EXPECT_EQ(handles, nullptr);

  size_t attempts = sweepAllocationFailures(
      [&] {
        EFI_STATUS status = handles_(device, &count, &handles);
        if (!EFI_ERROR(status)) bs()->FreePool(handles);
        return status;
      },
      [](EFI_STATUS status, size_t) { EXPECT_EQ(status, EFI_OUT_OF_RESOURCES); });
  EXPECT_EQ(attempts, 3u);  // one-byte listing, sized listing, result array
}

TEST_F(HiiFetchTest, AnEmptyDatabaseAnswersNotFound) {
  UINTN count = 5;
  EFI_HII_HANDLE* handles = nullptr;
  EXPECT_EQ(handles_(newDriverHandle(), &count, &handles), EFI_NOT_FOUND);
  EXPECT_EQ(count, 5u);
  EXPECT_EQ(handles, nullptr);
}

}  // namespace
