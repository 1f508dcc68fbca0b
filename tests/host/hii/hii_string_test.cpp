// EFI_HII_STRING_PROTOCOL's GetString through its function table: sizing and
// statuses in the call pattern the driver uses. The 255/256-character sizing
// and the call record are read by the string-fetch tests of the driver
// (tests/util).
#include <gtest/gtest.h>

#include <optional>

#include "tests/host/hii/hii_test_support.h"

namespace hii = tvl::host::hii;
using namespace tvl::test::hii;

namespace {


class HiiStringTest : public HiiTest {
 protected:
  void SetUp() override {
    HiiTest::SetUp();
    hii::StringPackage english;
    english.language = "en-US";
    for (const char16_t* s : {u"Boot Mode", u"two", u"three", u"four", u""})
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

}  // namespace
