// EFI_HII_STRING_PROTOCOL through its function table: GetString sizing and
// statuses in the call pattern the driver uses, NewString, SetString,
// GetLanguages and GetSecondaryLanguages. The call record is read by the
// string-fetch tests of the driver (tests/util).
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

class HiiStringTest : public HiiTest {
 protected:
  void SetUp() override {
    HiiTest::SetUp();
    hii::StringPackage english;
    english.language = "en-US";
    for (const std::u16string& s : {std::u16string(u"Boot Mode"), k255, k256, kHighChars, std::u16string()})
      english.strings.push_back({true, s, false, 0});
    english.strings.insert(english.strings.end(), {{}, {true, u"after the gap", false, 0}});  // id 6 skipped
    list_ = add(hii::buildPackageList(guidNumber(1),
                                      {hii::serializeStringPackage(english),
                                       hii::buildStringPackage("x-UEFI", {u"BootMode[Key:Value]"}),
                                       hii::buildStringPackage("x-UEFI-ns", {u"ns text", u"ns two"})}),
                newHandle());
  }

  // GetString with a buffer of `size` bytes, as the driver's fetch makes it;
  // nothing may be written past the terminator, nor anything on failure.
  EFI_STATUS get(const char* language, EFI_STRING_ID id, UINTN& size, std::u16string* text = nullptr) {
    std::vector<CHAR16> buffer(size / 2 + 4, 0xCCCC);
    EFI_STATUS status = str()->GetString(str(), language, list_, id, size ? buffer.data() : nullptr, &size, nullptr);
    const size_t used = status == EFI_SUCCESS ? size / 2 : 0;
    for (size_t i = used; i < buffer.size(); ++i) EXPECT_EQ(buffer[i], 0xCCCC) << "written at " << i;
    if (text && status == EFI_SUCCESS) *text = std::u16string(buffer.data());
    return status;
  }

  EFI_HII_HANDLE list_ = nullptr;
};

TEST_F(HiiStringTest, GetStringAnswersAsTheUefiSpecificationGives) {
  struct Case {
    const char* name; const char* language; EFI_STRING_ID id; UINTN size; EFI_STATUS status; UINTN sizeAfter;
    std::optional<std::u16string> text;
  } cases[] = {
      {"short string", "en-US", 1, 512, EFI_SUCCESS, 20, u"Boot Mode"},
      {"one character short", "en-US", 1, 18, EFI_BUFFER_TOO_SMALL, 20, std::nullopt},
      {"255 characters fill 512 bytes exactly", "en-US", 2, 512, EFI_SUCCESS, 512, k255},
      {"256 characters need 514 bytes", "en-US", 3, 512, EFI_BUFFER_TOO_SMALL, 514, std::nullopt},
      {"the retry with the reported size", "en-US", 3, 514, EFI_SUCCESS, 514, k256},
      {"characters above 126 come unchanged", "en-US", 4, 512, EFI_SUCCESS, (kHighChars.size() + 1) * 2, kHighChars},
      {"empty string", "en-US", 5, 512, EFI_SUCCESS, 2, u""},
      {"skipped id", "en-US", 6, 512, EFI_NOT_FOUND, 512, std::nullopt},
      {"id after a skip", "en-US", 7, 512, EFI_SUCCESS, 28, u"after the gap"},
      {"id 0", "en-US", 0, 512, EFI_NOT_FOUND, 512, std::nullopt},
      {"id past the last string", "en-US", 8, 512, EFI_NOT_FOUND, 512, std::nullopt},
      {"language not in the list", "fr-FR", 1, 512, EFI_INVALID_LANGUAGE, 512, std::nullopt},
      {"a prefix is another language", "en", 1, 512, EFI_INVALID_LANGUAGE, 512, std::nullopt},
      {"language tags ignore case", "EN-us", 1, 512, EFI_SUCCESS, 20, u"Boot Mode"},
      {"x-UEFI-ns is its own language", "x-UEFI-ns", 2, 512, EFI_SUCCESS, 14, u"ns two"},
      {"id that only another language has", "x-UEFI", 2, 512, EFI_NOT_FOUND, 512, std::nullopt},
      {"size query with no buffer", "en-US", 1, 0, EFI_BUFFER_TOO_SMALL, 20, std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    UINTN size = c.size;
    std::u16string text;
    EXPECT_EQ(get(c.language, c.id, size, &text), c.status);
    EXPECT_EQ(size, c.sizeAfter);
    EXPECT_EQ(text, c.text.value_or(u""));
  }
  CHAR16 buffer[8];
  UINTN size = sizeof buffer;
  EXPECT_EQ(str()->GetString(str(), nullptr, list_, 1, buffer, &size, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(str()->GetString(str(), "en-US", list_, 1, nullptr, &size, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(str()->GetString(str(), "en-US", nullptr, 1, buffer, &size, nullptr), EFI_NOT_FOUND);
}

TEST_F(HiiStringTest, NewAndSetStringAndLanguages) {
  EFI_STRING_ID id = 0;
  ASSERT_EQ(str()->NewString(str(), list_, &id, "x-UEFI", nullptr, u"Added", nullptr), EFI_SUCCESS);
  EXPECT_EQ(id, 8);  // one past the highest id of any language, reserved in every language
  ASSERT_EQ(str()->SetString(str(), list_, 1, "x-UEFI", u"Renamed[A:B]", nullptr), EFI_SUCCESS);
  // A new language gets its own package with the printable name as a string.
  ASSERT_EQ(str()->NewString(str(), list_, &id, "de-DE", u"Deutsch", u"Neu", nullptr), EFI_SUCCESS);
  EXPECT_EQ(id, 10);
  const struct { const char* language; EFI_STRING_ID id; const char16_t* text; } cases[] = {{"en-US", 8, u"Added"},        {"x-UEFI", 8, u"Added"}, {"x-UEFI-ns", 8, u"Added"},
               {"x-UEFI", 1, u"Renamed[A:B]"}, {"en-US", 1, u"Boot Mode"}, {"de-DE", 9, u"Deutsch"}, {"de-DE", 10, u"Neu"}};
  for (const auto& c : cases) {
    UINTN size = 512;
    std::u16string text;
    EXPECT_EQ(get(c.language, c.id, size, &text), EFI_SUCCESS) << c.language << " " << c.id;
    EXPECT_EQ(text, c.text) << c.language << " " << c.id;
  }
  EXPECT_EQ(str()->NewString(str(), list_, &id, "en-US", nullptr, nullptr, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(str()->SetString(str(), list_, 40, "en-US", u"x", nullptr), EFI_NOT_FOUND);
  EXPECT_EQ(str()->SetString(str(), list_, 6, "en-US", u"x", nullptr), EFI_NOT_FOUND);
  EXPECT_EQ(str()->SetString(str(), list_, 1, "fr-FR", u"x", nullptr), EFI_NOT_FOUND);

  const std::string all = "en-US;x-UEFI;x-UEFI-ns;de-DE";
  std::vector<char> buffer(64, 'Z');
  UINTN size = 4;
  EXPECT_EQ(str()->GetLanguages(str(), list_, buffer.data(), &size), EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ(size, all.size() + 1);
  EXPECT_EQ(buffer[0], 'Z');
  ASSERT_EQ(str()->GetLanguages(str(), list_, buffer.data(), &size), EFI_SUCCESS);
  EXPECT_EQ(std::string(buffer.data()), all);
  EXPECT_EQ(buffer[size], 'Z');
  EFI_HII_HANDLE formsOnly = add(hii::buildPackageList(guidNumber(2), {hii::buildPackage(EFI_HII_PACKAGE_FORMS, {1})}), nullptr);
  EXPECT_EQ(str()->GetLanguages(str(), formsOnly, buffer.data(), &size), EFI_NOT_FOUND);
}

TEST_F(HiiStringTest, SecondaryLanguagesFollowThePrimaryTag) {
  EFI_HII_HANDLE h = add(hii::buildPackageList(guidNumber(3), {hii::buildStringPackage("en-US;fr-CA;de", {u"a"}),
                                                               hii::buildStringPackage("ja-JP", {u"b"})}), nullptr);
  char buffer[32];
  UINTN size = sizeof buffer;
  ASSERT_EQ(str()->GetSecondaryLanguages(str(), h, "en-US", buffer, &size), EFI_SUCCESS);
  EXPECT_EQ(std::string(buffer), "fr-CA;de");
  size = 3;
  EXPECT_EQ(str()->GetSecondaryLanguages(str(), h, "en-US", buffer, &size), EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ(size, 9u);
  EXPECT_EQ(str()->GetSecondaryLanguages(str(), h, "fr-CA", buffer, &size), EFI_INVALID_LANGUAGE);
  size = sizeof buffer;  // the primary tag is what GetLanguages goes by
  ASSERT_EQ(str()->GetLanguages(str(), h, buffer, &size), EFI_SUCCESS);
  EXPECT_EQ(std::string(buffer), "en-US;ja-JP");
}

}  // namespace
