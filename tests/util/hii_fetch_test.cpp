// String fetch and device package lists, through the real HII database and
// string protocols of the emulated platform and a freshly loaded driver.
#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "driver/globals.h"
#include "export/export_fixture.h"
#include "util/device_handles.h"
#include "util/hii_string.h"

namespace {

class HiiFetchTest : public tvl::test::ExportTest {
 protected:
  // Fetches and frees, handing back the text.
  EFI_STATUS fetch(decltype(&GetString) fn, const char* language, EFI_HII_HANDLE handle, EFI_STRING_ID id,
                   std::string* text) {
    CHAR8* out = nullptr;
    EFI_STATUS status = fn(language, handle, id, &out);
    if (out && text) *text = out;
    if (out) bs()->FreePool(out);
    return status;
  }
};

TEST_F(HiiFetchTest, FetchesNarrowsAndSizesTheBufferNeverReadingPastIt) {
  std::u16string s255(255, u'a'), s256(256, u'b');
  // é, tab, DEL and U+0100 (low byte 0) become blanks; U+0141 keeps its low byte 'A'.
  std::u16string wide = u"Caf\u00e9\tA\u0141B\u007F\u0100~";
  EFI_HII_HANDLE h = addStrings({{"en-US", {s255, s256, wide, u"[x]tail"}}});
  struct Case { EFI_STRING_ID id; std::string expected; std::vector<UINTN> bufferSizes; } cases[] = {
      {1, std::string(255, 'a'), {512}}, {2, std::string(256, 'b'), {512, 514}},  // sizes handed to the service
      {3, "Caf  AAB  ~", {512}},            {4, "[x]tail", {512}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.id);
    hii().clearGetStringCalls();
    std::string text;
    EXPECT_EQ(fetch(DRIVER_FN(GetString), "en-US", h, c.id, &text), EFI_SUCCESS);
    EXPECT_EQ(text, c.expected);
    std::vector<UINTN> sizes;
    for (const auto& call : hii().getStringCalls()) sizes.push_back(call.bufferSize);
    EXPECT_EQ(sizes, c.bufferSizes);
  }
  EXPECT_TRUE(log().find("GetString", "GetString StringId:2 Language:en-US\n")) << log().dump();
  EXPECT_EQ(log().count("GetString", "GetString returning status Success\n"), 4u);
  for (const auto& r : log().from("GetString")) EXPECT_EQ(r.level, 8u);

  // A service that fills the whole buffer and leaves out the terminator: the
  // text ends inside the buffer, its last character giving way to the terminator.
  struct Unterminated {
    static EFI_STATUS EFIAPI getString(const EFI_HII_STRING_PROTOCOL*, const CHAR8*, EFI_HII_HANDLE, EFI_STRING_ID,
                                       EFI_STRING string, UINTN* size, EFI_FONT_INFO**) {
      std::fill_n(string, *size / sizeof(CHAR16), u'u');
      return EFI_SUCCESS;
    }
  };
  EFI_HII_STRING_PROTOCOL service{};
  service.GetString = &Unterminated::getString;
  EFI_HII_STRING_PROTOCOL*& bound = DRIVER_GLOBAL(HiiStringProtocol);
  EFI_HII_STRING_PROTOCOL* real = std::exchange(bound, &service);
  std::string text;
  EXPECT_EQ(fetch(DRIVER_FN(GetString), "en-US", h, 1, &text), EFI_SUCCESS);
  bound = real;
  EXPECT_EQ(text, std::string(255, 'u'));
}

TEST_F(HiiFetchTest, RefusesAndPassesOnFailures) {
  EFI_HII_HANDLE h = addStrings({{"en-US", {u"one", u""}}, {"x-UEFI", {u"One[k:v]"}}});
  struct Case {
    const char* name; const char* language; EFI_HII_HANDLE handle; EFI_STRING_ID id; EFI_STATUS status;
    size_t serviceCalls; const char* trace;
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
    hii().clearGetStringCalls();
    log().clear();
    CHAR8* out = reinterpret_cast<CHAR8*>(uintptr_t(0x5a5a));
    EXPECT_EQ(DRIVER_FN(GetString)(c.language, c.handle, c.id, &out), c.status);
    EXPECT_EQ(out, reinterpret_cast<CHAR8*>(uintptr_t(0x5a5a))) << "output written on failure";
    EXPECT_EQ(hii().getStringCalls().size(), c.serviceCalls);
    EXPECT_TRUE(log().find("GetString", c.trace)) << log().dump();
  }
}

TEST_F(HiiFetchTest, CutsKeywordTextsBeforeTheBracket) {
  EFI_HII_HANDLE h = addStrings({{"x-UEFI", {u"BootMode[Dep:A]", u"[Only]", u"Plain", u"Spaced [k:v]", u""}}});
  struct Case { EFI_STRING_ID id; EFI_STATUS status; std::string expected; } cases[] = {
      {1, EFI_SUCCESS, "BootMode"}, {2, EFI_SUCCESS, ""},          {3, EFI_SUCCESS, "Plain"},
      {4, EFI_SUCCESS, "Spaced "},  {5, EFI_NOT_FOUND, "<unset>"},  // GetString's refusals pass through
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.id);
    std::string text = "<unset>";
    EXPECT_EQ(fetch(DRIVER_FN(GetStringBeforeBracket), "x-UEFI", h, c.id, &text), c.status);
    EXPECT_EQ(text, c.expected);
  }
  EXPECT_EQ(DRIVER_FN(GetStringBeforeBracket)("x-UEFI", h, 1, nullptr), EFI_INVALID_PARAMETER);
}

TEST_F(HiiFetchTest, EveryAllocationFailureIsReportedWithoutLeak) {
  EFI_HII_HANDLE h = addStrings({{"en-US", {std::u16string(300, u'z'), u"Key[a:b]"}}});
  struct Case { const char* name; decltype(&GetString) fn; EFI_STRING_ID id; size_t attempts; } cases[] = {
      // 300 characters: first buffer, retry buffer, text
      {"GetString with retry", DRIVER_FN(GetString), 1, 3},
      {"GetStringBeforeBracket", DRIVER_FN(GetStringBeforeBracket), 2, 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    log().clear();
    size_t n = sweepAllocationFailures([&] { return fetch(c.fn, "en-US", h, c.id, nullptr); },
                                       [](EFI_STATUS status, size_t) { EXPECT_EQ(status, EFI_OUT_OF_RESOURCES); });
    EXPECT_EQ(n, c.attempts);
    // Only the first buffer's failure is traced, not the retry buffer's.
    EXPECT_EQ(log().count("GetString", "GetString ERROR: Out of Resources\n"), 1u) << log().dump();
  }
}

TEST_F(HiiFetchTest, FindsTheListsOfOneDriverInDatabaseOrder) {
  UINTN count = 77;
  EFI_HII_HANDLE* handles = nullptr;
  auto expectNoneFor = [&](EFI_HANDLE driver) {  // outputs untouched
    EXPECT_EQ(DRIVER_FN(HandleToHiiHandleBuffer)(driver, &count, &handles), EFI_NOT_FOUND);
    EXPECT_TRUE(count == 77 && handles == nullptr);
  };
  expectNoneFor(newDriverHandle());  // empty database
  EFI_HANDLE device = newDriverHandle(), other = newDriverHandle();
  std::vector<EFI_HII_HANDLE> mine;
  for (int i = 1; i <= 6; ++i) {
    bool owned = i == 2 || i == 5 || i == 6;
    EFI_HII_HANDLE h = addStrings({{"en-US", {u"s"}}}, owned ? device : other);
    if (owned) mine.push_back(h);
  }
  expectNoneFor(newDriverHandle());
  for (auto [countOut, handlesOut] : {std::pair<UINTN*, EFI_HII_HANDLE**>{nullptr, &handles}, {&count, nullptr}})
    EXPECT_EQ(DRIVER_FN(HandleToHiiHandleBuffer)(device, countOut, handlesOut), EFI_INVALID_PARAMETER);
  ASSERT_EQ(DRIVER_FN(HandleToHiiHandleBuffer)(device, &count, &handles), EFI_SUCCESS);
  EXPECT_EQ(std::vector<EFI_HII_HANDLE>(handles, handles + count), mine);
  bs()->FreePool(handles);

  size_t attempts = sweepAllocationFailures(
      [&] {
        EFI_STATUS status = DRIVER_FN(HandleToHiiHandleBuffer)(device, &count, &handles);
        if (!EFI_ERROR(status)) bs()->FreePool(handles);
        return status;
      },
      [](EFI_STATUS status, size_t) { EXPECT_EQ(status, EFI_OUT_OF_RESOURCES); });
  EXPECT_EQ(attempts, 3u);  // one-byte listing, sized listing, result array
}

}  // namespace
