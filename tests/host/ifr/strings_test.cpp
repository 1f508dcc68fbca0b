// String ids per language, their string packages, and the package list that
// carries a form set with its strings.
#include <gtest/gtest.h>

#include "host/hii/package_list.h"
#include "host/hii/string_package.h"
#include "host/ifr/ifr_dump.h"
#include "host/ifr/strings.h"

namespace ifr = tvl::host::ifr;
namespace hii = tvl::host::hii;
using ifr::Bytes;

namespace {

const EFI_GUID kListGuid = {0xa1b2c3d4, 0x1111, 0x2222, {3, 3, 4, 4, 5, 5, 6, 6}};

ifr::Strings sampleStrings() {
  ifr::Strings s({"en-US", "x-UEFI"});
  s.add(u"Setup");                                                             // 1: both
  s.add({{"en-US", u"Boot Mode"}, {"x-UEFI", u"BootMode[Dep:1]"}});           // 2: both, different
  s.add({{"x-UEFI", u"Hidden[ProgUnhide:true]"}});                            // 3: x-UEFI only
  s.add({{"en-US", u"Langue"}, {"fr-FR", u"Langue"}});                        // 4: adds fr-FR
  return s;
}

TEST(IfrStrings, IdsCountUpAndKeepTheirTextPerLanguage) {
  ifr::Strings s = sampleStrings();
  EXPECT_EQ(s.languages(), (std::vector<std::string>{"en-US", "x-UEFI", "fr-FR"}));
  struct {
    const char* language;
    UINT16 id;
    const char16_t* text;  // null: no text
  } cases[] = {
      {"en-US", 1, u"Setup"},           {"x-UEFI", 1, u"Setup"},    {"fr-FR", 1, nullptr},
      {"en-US", 2, u"Boot Mode"},       {"x-UEFI", 2, u"BootMode[Dep:1]"},
      {"en-US", 3, nullptr},            {"x-UEFI", 3, u"Hidden[ProgUnhide:true]"},
      {"fr-FR", 4, u"Langue"},          {"x-UEFI", 4, nullptr},     {"en-US", 0, nullptr},
      {"en-US", 5, nullptr},            {"de-DE", 1, nullptr},
  };
  for (const auto& c : cases) {
    const std::u16string* text = s.find(c.language, c.id);
    if (c.text == nullptr) {
      EXPECT_EQ(text, nullptr) << c.language << " " << c.id;
    } else {
      ASSERT_NE(text, nullptr) << c.language << " " << c.id;
      EXPECT_EQ(*text, c.text);
    }
  }
}

TEST(IfrStrings, PackagesLeaveMissingIdsUndefined) {
  ifr::Strings s = sampleStrings();
  std::vector<Bytes> packages = s.packages();
  ASSERT_EQ(packages.size(), 3u);
  for (size_t i = 0; i < packages.size(); ++i) {
    hii::StringPackage parsed;
    hii::FormatError error;
    ASSERT_EQ(hii::parseStringPackage(packages[i].data(), packages[i].size(), parsed, &error), EFI_SUCCESS)
        << error.message;
    const std::string& language = s.languages()[i];
    EXPECT_EQ(parsed.language, language);
    for (UINT16 id = 1; id <= s.lastId(); ++id) {
      const std::u16string* expected = s.find(language, id);
      const hii::StringEntry* entry = parsed.find(id);
      if (expected == nullptr) {
        EXPECT_TRUE(entry == nullptr || !entry->defined) << language << " " << id;
      } else {
        ASSERT_TRUE(entry != nullptr && entry->defined) << language << " " << id;
        EXPECT_EQ(entry->text, *expected);
      }
    }
  }
}

TEST(IfrStrings, RefusesMisuse) {
  ifr::Strings s({"en-US"});
  EXPECT_THROW(s.add({{"en-US", u"a"}, {"en-US", u"b"}}), std::invalid_argument);
  EXPECT_THROW(s.add({{"", u"a"}}), std::invalid_argument);
  EXPECT_THROW(ifr::Strings({"en-US", ""}), std::invalid_argument);
}

TEST(IfrPackageList, HoldsFormsThenOneStringPackagePerLanguageThenEnd) {
  ifr::Strings strings = sampleStrings();
  ifr::FormSetBuilder fs(kListGuid, 1, 1);
  fs.form(1, 2).text(3, 4);
  Bytes list = ifr::packageList(kListGuid, fs, strings);

  hii::PackageListView view;
  hii::FormatError error;
  ASSERT_EQ(hii::parsePackageList(list.data(), list.size(), view, &error), EFI_SUCCESS) << error.message;
  ASSERT_EQ(view.packages.size(), 4u);
  std::vector<Bytes> packages = strings.packages();
  packages.insert(packages.begin(), fs.package());
  for (size_t i = 0; i < packages.size(); ++i) {
    ASSERT_EQ(view.packages[i].size, packages[i].size());
    EXPECT_TRUE(std::equal(packages[i].begin(), packages[i].end(), view.packages[i].data)) << i;
  }

  ifr::Outline o = ifr::dumpPackageList(list);
  ASSERT_TRUE(o.ok()) << o.error;
  for (const char* line : {"PACKAGE_LIST guid=A1B2C3D4-1111-2222-0303-040405050606", "TEXT len=8 prompt=3 help=4",
                           "language=fr-FR", "END len=4"})
    EXPECT_NE(o.text.find(line), std::string::npos) << line << "\n" << o.text;
}

struct ListCase {
  const char* name;
  std::function<void(Bytes&)> spoil;
  const char* error;
};

TEST(IfrPackageList, DumpStopsWithAnErrorOnBrokenLists) {
  const ListCase cases[] = {
      {"length beyond the input", [](Bytes& b) { b[16] = UINT8(b.size() + 1); }, "does not fit"},
      {"end package missing",
       [](Bytes& b) {
         b.resize(b.size() - 4);
         b[16] = UINT8(b.size());
       },
       "without an END package"},
      {"end package not last",
       [](Bytes& b) {
         b.insert(b.end(), {4, 0, 0, EFI_HII_PACKAGE_END});
         b[16] = UINT8(b.size());
       },
       "is not the last"},
      {"broken IFR inside", [](Bytes& b) { b[24 + 1] = 0x02; /* FORM_SET length 2 */ }, "at offset"},
  };
  ifr::Strings strings({"en-US"});
  strings.add(u"x");
  for (const ListCase& c : cases) {
    Bytes list = ifr::packageList(kListGuid, ifr::FormSetBuilder(kListGuid, 1, 1), strings);
    ASSERT_LT(list.size(), 256u);  // the spoilers patch the low length byte only
    c.spoil(list);
    ifr::Outline o = ifr::dumpPackageList(list);
    EXPECT_FALSE(o.ok()) << c.name;
    EXPECT_NE(o.error.find(c.error), std::string::npos) << c.name << ": " << o.error;
  }
}

}  // namespace
