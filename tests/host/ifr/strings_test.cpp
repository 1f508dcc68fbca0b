// String ids per language and their string packages. (The package list that
// carries a form set with its strings is read whole by the sample exports.)
#include <gtest/gtest.h>

#include <map>

#include "host/hii/string_package.h"
#include "host/ifr/strings.h"

namespace ifr = tvl::host::ifr;
namespace hii = tvl::host::hii;
using ifr::Bytes;

namespace {

ifr::Strings sampleStrings() {
  ifr::Strings s({"en-US", "x-UEFI"});
  s.add(u"Setup");                                                             // 1: both
  s.add({{"en-US", u"Boot Mode"}, {"x-UEFI", u"BootMode[Dep:1]"}});           // 2: both, different
  s.add({{"x-UEFI", u"Hidden[ProgUnhide:true]"}});                            // 3: x-UEFI only
  s.add({{"en-US", u"Langue"}, {"fr-FR", u"Langue"}});                        // 4: adds fr-FR
  return s;
}

TEST(IfrStrings, IdsKeepTheirTextPerLanguageAndPackagesLeaveMissingIdsUndefined) {
  ifr::Strings s = sampleStrings();
  EXPECT_EQ(s.languages(), (std::vector<std::string>{"en-US", "x-UEFI", "fr-FR"}));
  std::vector<Bytes> bytes = s.packages();
  ASSERT_EQ(bytes.size(), 3u);
  std::map<std::string, hii::StringPackage> packages;
  for (const Bytes& b : bytes) {
    hii::StringPackage parsed;
    hii::FormatError error;
    ASSERT_EQ(hii::parseStringPackage(b.data(), b.size(), parsed, &error), EFI_SUCCESS) << error.message;
    packages[parsed.language] = parsed;
  }
  const struct { const char* language; UINT16 id; const char16_t* text; } cases[] = {  // text null: none
      {"en-US", 1, u"Setup"},     {"x-UEFI", 1, u"Setup"},           {"fr-FR", 1, nullptr},
      {"en-US", 2, u"Boot Mode"}, {"x-UEFI", 2, u"BootMode[Dep:1]"}, {"en-US", 3, nullptr},
      {"x-UEFI", 3, u"Hidden[ProgUnhide:true]"},                      {"fr-FR", 4, u"Langue"},
      {"x-UEFI", 4, nullptr},     {"en-US", 0, nullptr},             {"en-US", 5, nullptr}, {"de-DE", 1, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.language) + " " + std::to_string(c.id));
    const std::u16string* text = s.find(c.language, c.id);
    const hii::StringEntry* entry = packages.count(c.language) ? packages[c.language].find(c.id) : nullptr;
    ASSERT_EQ(text != nullptr, c.text != nullptr);
    ASSERT_EQ(entry != nullptr && entry->defined, c.text != nullptr);
    if (c.text) {
      EXPECT_EQ(*text, c.text);
      EXPECT_EQ(entry->text, c.text);
    }
  }
  EXPECT_THROW(s.add({{"en-US", u"a"}, {"en-US", u"b"}}), std::invalid_argument);  // a language twice
  EXPECT_THROW(s.add({{"", u"a"}}), std::invalid_argument);
  EXPECT_THROW(ifr::Strings({"en-US", ""}), std::invalid_argument);
}

}  // namespace
