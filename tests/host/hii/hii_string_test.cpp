// EFI_HII_STRING_PROTOCOL through its function table: GetString sizing and
// statuses in the call pattern the driver uses, the call record, and
// NewString, SetString, GetLanguages and GetSecondaryLanguages.
#include <gtest/gtest.h>

#include <optional>

#include "tests/host/hii/hii_bytes.h"
#include "tests/host/hii/hii_test_support.h"

namespace hii = tvl::host::hii;
using namespace tvl::test::hii;

namespace {

const std::u16string k255(255, u'a');
const std::u16string k256(256, u'b');
const std::u16string kHighChars = u"Caf\u00e9 \u2122 ~\u007f\u0100";
const std::u16string kBracketFirst = u"[ProgWrite:true] Boot Mode";

class HiiStringTest : public HiiTest {
 protected:
  void SetUp() override {
    HiiTest::SetUp();
    hii::StringPackage english;
    english.language = "en-US";
    for (const std::u16string& s : {std::u16string(u"Boot Mode"), k255, k256, kHighChars, kBracketFirst,
                                     std::u16string()})
      english.strings.push_back({true, s, false, 0});
    english.strings.push_back({});  // id 7 skipped
    english.strings.push_back({true, u"after the gap", false, 0});
    list_ = add(hii::buildPackageList(guidNumber(1),
                                      {hii::serializeStringPackage(english),
                                       hii::buildStringPackage("x-UEFI", {u"BootMode[Key:Value]"}),
                                       hii::buildStringPackage("x-UEFI-ns", {u"ns text", u"ns two"})}),
                newHandle());
  }

  // GetString with a buffer of `bytes` bytes, as the driver's fetch makes it.
  EFI_STATUS get(const char* language, EFI_STRING_ID id, UINTN& size, std::u16string* text = nullptr) {
    std::vector<CHAR16> buffer(size / 2 + 4, 0xCCCC);
    EFI_STATUS status = str()->GetString(str(), language, list_, id, size ? buffer.data() : nullptr, &size, nullptr);
    if (text && status == EFI_SUCCESS) *text = std::u16string(buffer.data());
    return status;
  }

  EFI_HII_HANDLE list_ = nullptr;
};

TEST_F(HiiStringTest, GetStringAnswersAsTheUefiSpecificationGives) {
  struct Case {
    const char* name;
    const char* language;
    EFI_STRING_ID id;
    UINTN size;
    EFI_STATUS status;
    UINTN sizeAfter;
    std::optional<std::u16string> text;
  } cases[] = {
      {"short string", "en-US", 1, 512, EFI_SUCCESS, 20, u"Boot Mode"},
      {"255 characters fill 512 bytes exactly", "en-US", 2, 512, EFI_SUCCESS, 512, k255},
      {"256 characters need 514 bytes", "en-US", 3, 512, EFI_BUFFER_TOO_SMALL, 514, std::nullopt},
      {"the retry with the reported size", "en-US", 3, 514, EFI_SUCCESS, 514, k256},
      {"characters above 126 come unchanged", "en-US", 4, 512, EFI_SUCCESS, (kHighChars.size() + 1) * 2, kHighChars},
      {"text starting with a bracket", "en-US", 5, 512, EFI_SUCCESS, (kBracketFirst.size() + 1) * 2, kBracketFirst},
      {"empty string", "en-US", 6, 512, EFI_SUCCESS, 2, u""},
      {"skipped id", "en-US", 7, 512, EFI_NOT_FOUND, 512, std::nullopt},
      {"id after a skip", "en-US", 8, 512, EFI_SUCCESS, 28, u"after the gap"},
      {"id 0", "en-US", 0, 512, EFI_NOT_FOUND, 512, std::nullopt},
      {"id past the last string", "en-US", 9, 512, EFI_NOT_FOUND, 512, std::nullopt},
      {"language not in the list", "fr-FR", 1, 512, EFI_INVALID_LANGUAGE, 512, std::nullopt},
      {"a prefix is another language", "en", 1, 512, EFI_INVALID_LANGUAGE, 512, std::nullopt},
      {"language tags ignore case", "EN-us", 1, 512, EFI_SUCCESS, 20, u"Boot Mode"},
      {"x-UEFI is an ordinary language", "x-UEFI", 1, 512, EFI_SUCCESS, 40, u"BootMode[Key:Value]"},
      {"x-UEFI-ns is another one", "x-UEFI-ns", 2, 512, EFI_SUCCESS, 14, u"ns two"},
      {"id that only another language has", "x-UEFI", 2, 512, EFI_NOT_FOUND, 512, std::nullopt},
      {"size query with no buffer", "en-US", 1, 0, EFI_BUFFER_TOO_SMALL, 20, std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    UINTN size = c.size;
    std::u16string text;
    EXPECT_EQ(get(c.language, c.id, size, &text), c.status);
    EXPECT_EQ(size, c.sizeAfter);
    if (c.text) {
      EXPECT_EQ(text, *c.text);
    }
  }
}

TEST_F(HiiStringTest, GetStringWritesNothingPastTheTerminator) {
  std::vector<CHAR16> buffer(300, 0xCCCC);
  UINTN size = 600;
  ASSERT_EQ(str()->GetString(str(), "en-US", list_, 1, buffer.data(), &size, nullptr), EFI_SUCCESS);
  for (size_t i = 10; i < buffer.size(); ++i) ASSERT_EQ(buffer[i], 0xCCCC) << i;
  size = 18;  // one character short
  buffer.assign(300, 0xCCCC);
  ASSERT_EQ(str()->GetString(str(), "en-US", list_, 1, buffer.data(), &size, nullptr), EFI_BUFFER_TOO_SMALL);
  for (CHAR16 c : buffer) ASSERT_EQ(c, 0xCCCC);
}

TEST_F(HiiStringTest, GetStringParameterRules) {
  CHAR16 buffer[8];
  UINTN size = sizeof buffer;
  EFI_FONT_INFO* font = reinterpret_cast<EFI_FONT_INFO*>(uintptr_t(1));
  EXPECT_EQ(str()->GetString(str(), nullptr, list_, 1, buffer, &size, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(str()->GetString(str(), "en-US", list_, 1, buffer, nullptr, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(str()->GetString(str(), "en-US", list_, 1, nullptr, &size, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(str()->GetString(nullptr, "en-US", list_, 1, buffer, &size, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(str()->GetString(str(), "en-US", nullptr, 1, buffer, &size, nullptr), EFI_NOT_FOUND);
  EXPECT_EQ(str()->GetString(str(), "en-US", reinterpret_cast<EFI_HII_HANDLE>(uintptr_t(64)), 1, buffer, &size, nullptr),
            EFI_NOT_FOUND);
  size = sizeof buffer;
  ASSERT_EQ(str()->GetString(str(), "x-UEFI-ns", list_, 1, buffer, &size, &font), EFI_SUCCESS);
  EXPECT_EQ(font, nullptr);  // no font information is kept
}

TEST_F(HiiStringTest, EveryGetStringCallIsRecorded) {
  hii().clearGetStringCalls();
  UINTN size = 512;
  get("en-US", 3, size);  // too small
  get("en-US", 3, size);  // retry with 514
  size = 512;
  get("x-UEFI", 0, size);
  str()->GetString(str(), nullptr, list_, 1, nullptr, nullptr, nullptr);
  const auto& calls = hii().getStringCalls();
  ASSERT_EQ(calls.size(), 4u);
  EXPECT_EQ(calls[0].language, "en-US");
  EXPECT_EQ(calls[0].stringId, 3);
  EXPECT_EQ(calls[0].bufferSize, 512u);
  EXPECT_EQ(calls[0].status, EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ(calls[1].bufferSize, 514u);
  EXPECT_EQ(calls[1].status, EFI_SUCCESS);
  EXPECT_EQ(calls[1].packageList, list_);
  EXPECT_EQ(calls[2].language, "x-UEFI");
  EXPECT_EQ(calls[2].stringId, 0);
  EXPECT_EQ(calls[2].status, EFI_NOT_FOUND);
  EXPECT_TRUE(calls[3].languageNull);
  EXPECT_EQ(calls[3].status, EFI_INVALID_PARAMETER);
}

TEST_F(HiiStringTest, NewStringReservesTheIdInEveryLanguage) {
  EFI_STRING_ID id = 0;
  ASSERT_EQ(str()->NewString(str(), list_, &id, "x-UEFI", nullptr, u"Added", nullptr), EFI_SUCCESS);
  EXPECT_EQ(id, 9);  // one past the highest id of any language
  for (const char* language : {"en-US", "x-UEFI", "x-UEFI-ns"}) {
    UINTN size = 512;
    std::u16string text;
    EXPECT_EQ(get(language, id, size, &text), EFI_SUCCESS) << language;
    EXPECT_EQ(text, u"Added") << language;
  }
  // A new language gets its own package with the printable name as a string.
  ASSERT_EQ(str()->NewString(str(), list_, &id, "de-DE", u"Deutsch", u"Neu", nullptr), EFI_SUCCESS);
  EXPECT_EQ(id, 11);
  UINTN size = 512;
  std::u16string text;
  EXPECT_EQ(get("de-DE", 10, size, &text), EFI_SUCCESS);
  EXPECT_EQ(text, u"Deutsch");
  size = 512;
  EXPECT_EQ(get("de-DE", 1, size), EFI_NOT_FOUND);
  // The export carries the new strings.
  Bytes exported;
  ASSERT_EQ(hii().exportPackageLists(list_, exported), EFI_SUCCESS);
  hii::PackageListView view;
  ASSERT_EQ(hii::parsePackageList(exported.data(), exported.size(), view), EFI_SUCCESS);
  hii::StringPackage german;
  ASSERT_EQ(hii::parseStringPackage(view.packages.back().data, view.packages.back().size, german), EFI_SUCCESS);
  EXPECT_EQ(german.language, "de-DE");
  EXPECT_EQ(german.languageName, 10);
  EXPECT_EQ(german.find(11)->text, u"Neu");

  EXPECT_EQ(str()->NewString(str(), list_, nullptr, "en-US", nullptr, u"x", nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(str()->NewString(str(), list_, &id, nullptr, nullptr, u"x", nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(str()->NewString(str(), list_, &id, "en-US", nullptr, nullptr, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(str()->NewString(str(), nullptr, &id, "en-US", nullptr, u"x", nullptr), EFI_NOT_FOUND);
}

TEST_F(HiiStringTest, SetStringChangesOneLanguage) {
  ASSERT_EQ(str()->SetString(str(), list_, 1, "x-UEFI", u"Renamed[A:B]", nullptr), EFI_SUCCESS);
  UINTN size = 512;
  std::u16string text;
  ASSERT_EQ(get("x-UEFI", 1, size, &text), EFI_SUCCESS);
  EXPECT_EQ(text, u"Renamed[A:B]");
  size = 512;
  ASSERT_EQ(get("en-US", 1, size, &text), EFI_SUCCESS);
  EXPECT_EQ(text, u"Boot Mode");
  struct Case {
    const char* name;
    EFI_STRING_ID id;
    const char* language;
    const CHAR16* text;
    EFI_STATUS status;
  } cases[] = {
      {"unknown id", 40, "en-US", u"x", EFI_NOT_FOUND},
      {"skipped id", 7, "en-US", u"x", EFI_NOT_FOUND},
      {"language not in the list", 1, "fr-FR", u"x", EFI_NOT_FOUND},
      {"null language", 1, nullptr, u"x", EFI_INVALID_PARAMETER},
      {"null text", 1, "en-US", nullptr, EFI_INVALID_PARAMETER},
  };
  for (const Case& c : cases)
    EXPECT_EQ(str()->SetString(str(), list_, c.id, c.language, c.text, nullptr), c.status) << c.name;
}

TEST_F(HiiStringTest, LanguagesAreListedWithTheBufferSizeProtocol) {
  const std::string all = "en-US;x-UEFI;x-UEFI-ns";
  std::vector<char> buffer(64, 'Z');
  UINTN size = 4;
  EXPECT_EQ(str()->GetLanguages(str(), list_, buffer.data(), &size), EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ(size, all.size() + 1);
  EXPECT_EQ(buffer[0], 'Z');
  ASSERT_EQ(str()->GetLanguages(str(), list_, buffer.data(), &size), EFI_SUCCESS);
  EXPECT_EQ(std::string(buffer.data()), all);
  EXPECT_EQ(buffer[size], 'Z');

  size = 8;
  EXPECT_EQ(str()->GetLanguages(str(), list_, nullptr, &size), EFI_INVALID_PARAMETER);
  EXPECT_EQ(str()->GetLanguages(str(), list_, buffer.data(), nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(str()->GetLanguages(str(), nullptr, buffer.data(), &size), EFI_NOT_FOUND);
  EFI_HII_HANDLE formsOnly = add(hii::buildPackageList(guidNumber(2), {hii::buildPackage(EFI_HII_PACKAGE_FORMS, {1})}),
                                 nullptr);
  EXPECT_EQ(str()->GetLanguages(str(), formsOnly, buffer.data(), &size), EFI_NOT_FOUND);
}

TEST_F(HiiStringTest, SecondaryLanguagesFollowThePrimaryTag) {
  EFI_HII_HANDLE h = add(hii::buildPackageList(guidNumber(3), {hii::buildStringPackage("en-US;fr-CA;de", {u"a"}),
                                                               hii::buildStringPackage("ja-JP", {u"b"})}),
                         nullptr);
  char buffer[32];
  UINTN size = sizeof buffer;
  ASSERT_EQ(str()->GetSecondaryLanguages(str(), h, "en-US", buffer, &size), EFI_SUCCESS);
  EXPECT_EQ(std::string(buffer), "fr-CA;de");
  EXPECT_EQ(size, 9u);
  size = sizeof buffer;
  ASSERT_EQ(str()->GetSecondaryLanguages(str(), h, "ja-JP", buffer, &size), EFI_SUCCESS);
  EXPECT_EQ(std::string(buffer), "");
  size = 3;
  EXPECT_EQ(str()->GetSecondaryLanguages(str(), h, "en-US", buffer, &size), EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ(size, 9u);
  EXPECT_EQ(str()->GetSecondaryLanguages(str(), h, "fr-CA", buffer, &size), EFI_INVALID_LANGUAGE);
  EXPECT_EQ(str()->GetSecondaryLanguages(str(), h, nullptr, buffer, &size), EFI_INVALID_PARAMETER);
  // The primary tag is what GetString and GetLanguages go by.
  UINTN langSize = sizeof buffer;
  ASSERT_EQ(str()->GetLanguages(str(), h, buffer, &langSize), EFI_SUCCESS);
  EXPECT_EQ(std::string(buffer), "en-US;ja-JP");
  CHAR16 text[4];
  UINTN textSize = sizeof text;
  EXPECT_EQ(str()->GetString(str(), "en-US", h, 1, text, &textSize, nullptr), EFI_SUCCESS);
}

}  // namespace
