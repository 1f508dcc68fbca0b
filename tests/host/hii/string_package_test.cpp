// String packages: every string-information block type, refusals of
// malformed packages (checked under AddressSanitizer on exact-size copies),
// and the builder/serialiser against the parser.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <optional>

#include "host/hii/string_package.h"
#include "tests/host/hii/hii_bytes.h"

namespace hii = tvl::host::hii;
using namespace tvl::test::hii;

namespace {

EFI_STATUS parse(const Bytes& bytes, hii::StringPackage& out, hii::FormatError* error = nullptr) {
  ExactCopy copy(bytes);
  return hii::parseStringPackage(copy.data.get(), copy.size, out, error);
}

// Expected content: id -> text, or nullopt for an id that must be undefined.
using Expected = std::map<EFI_STRING_ID, std::optional<std::u16string>>;

struct BlockCase {
  const char* name;
  Bytes blocks;
  Expected expected;
  EFI_STRING_ID lastId;
};

const Bytes kFontBlock = cat({{EFI_HII_SIBT_EXT2, EFI_HII_SIBT_FONT}, u16le(4 + 7 + 8), {1}, u16le(19),
                              {0, 0, 0, 0}, ucs2(u"Sys")});

TEST(StringPackageBlocks, EachBlockTypeYieldsItsIds) {
  const BlockCase cases[] = {
      {"single UCS-2 strings",
       cat({{EFI_HII_SIBT_STRING_UCS2}, ucs2(u"One"), {EFI_HII_SIBT_STRING_UCS2}, ucs2(u"Two"), {EFI_HII_SIBT_END}}),
       {{1, u"One"}, {2, u"Two"}, {3, std::nullopt}},
       2},
      {"counted UCS-2 strings",
       cat({{EFI_HII_SIBT_STRINGS_UCS2}, u16le(3), ucs2(u"a"), ucs2(u""), ucs2(u"c"), {EFI_HII_SIBT_END}}),
       {{1, u"a"}, {2, u""}, {3, u"c"}},
       3},
      {"SKIP1 and SKIP2 leave ids undefined",
       cat({{EFI_HII_SIBT_STRING_UCS2}, ucs2(u"A"), {EFI_HII_SIBT_SKIP1, 2}, {EFI_HII_SIBT_STRING_UCS2}, ucs2(u"D"),
            {EFI_HII_SIBT_SKIP2}, u16le(300), {EFI_HII_SIBT_STRING_UCS2}, ucs2(u"E"), {EFI_HII_SIBT_END}}),
       {{1, u"A"}, {2, std::nullopt}, {3, std::nullopt}, {4, u"D"}, {5, std::nullopt}, {304, std::nullopt},
        {305, u"E"}},
       305},
      {"DUPLICATE repeats an earlier string",
       cat({{EFI_HII_SIBT_STRING_UCS2}, ucs2(u"X"), {EFI_HII_SIBT_STRING_UCS2}, ucs2(u"Y"), {EFI_HII_SIBT_DUPLICATE},
            u16le(1), {EFI_HII_SIBT_END}}),
       {{1, u"X"}, {2, u"Y"}, {3, u"X"}},
       3},
      {"font definition and strings with a font",
       cat({kFontBlock, {EFI_HII_SIBT_STRING_UCS2_FONT, 1}, ucs2(u"F"), {EFI_HII_SIBT_STRINGS_UCS2_FONT, 1},
            u16le(2), ucs2(u"G"), ucs2(u"H"), {EFI_HII_SIBT_END}}),
       {{1, u"F"}, {2, u"G"}, {3, u"H"}},
       3},
      {"unknown extended blocks take no id",
       cat({{EFI_HII_SIBT_EXT1, 0x77, 5, 0xAA, 0xBB}, {EFI_HII_SIBT_EXT4, 0x78, 8, 0, 0, 0, 0xCC, 0xDD},
            {EFI_HII_SIBT_STRING_UCS2}, ucs2(u"Z"), {EFI_HII_SIBT_END}}),
       {{1, u"Z"}},
       1},
      {"SCSU text in ASCII and the Latin-1 window, with and without a font",
       cat({{EFI_HII_SIBT_STRING_SCSU, 'H', 'i', 0}, {EFI_HII_SIBT_STRINGS_SCSU}, u16le(2),
            {'a', 0, 0xE9, 't', 0xE9, 0}, {EFI_HII_SIBT_STRING_SCSU_FONT, 2, 'Q', 0},
            {EFI_HII_SIBT_STRINGS_SCSU_FONT, 2}, u16le(1), {'R', 0}, {EFI_HII_SIBT_END}}),
       {{1, u"Hi"}, {2, u"a"}, {3, u"\u00e9t\u00e9"}, {4, u"Q"}, {5, u"R"}},
       5},
      {"strings start after a StringInfoOffset gap", {}, {{1, u"gap"}}, 1},
  };
  for (const BlockCase& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes bytes = stringPackage("en-US", c.blocks);
    if (c.blocks.empty()) {
      // StringInfoOffset beyond HdrSize: four filler bytes, then the blocks.
      bytes = stringPackage("en-US", cat({{9, 9, 9, 9, EFI_HII_SIBT_STRING_UCS2}, ucs2(u"gap"), {EFI_HII_SIBT_END}}));
      bytes[8] = uint8_t(bytes[8] + 4);
    }
    hii::StringPackage package;
    ASSERT_EQ(parse(bytes, package), EFI_SUCCESS);
    EXPECT_EQ(package.lastId(), c.lastId);
    for (const auto& [id, text] : c.expected) {
      const hii::StringEntry* entry = package.find(id);
      if (!text) {
        EXPECT_EQ(entry, nullptr) << "id " << id;
      } else {
        ASSERT_NE(entry, nullptr) << "id " << id;
        EXPECT_EQ(entry->text, *text) << "id " << id;
      }
    }
  }
}

struct MalformedCase {
  const char* name;
  std::function<Bytes()> make;
  EFI_STATUS status;
};

Bytes valid() {
  return stringPackage("en-US", cat({{EFI_HII_SIBT_STRING_UCS2}, ucs2(u"ok"), {EFI_HII_SIBT_END}}));
}
Bytes withBlocks(const Bytes& blocks) { return stringPackage("en-US", blocks); }

TEST(StringPackageRefusals, MalformedPackagesAreRefused) {
  const MalformedCase cases[] = {
      {"shorter than the fixed header", [] { Bytes b = valid(); b.resize(40); b[0] = 40; return b; },
       EFI_INVALID_PARAMETER},
      {"header length differs from the package size", [] { Bytes b = valid(); b[0] = uint8_t(b[0] + 1); return b; },
       EFI_INVALID_PARAMETER},
      {"HdrSize past the package", [] { Bytes b = valid(); b[4] = 0xF0; return b; }, EFI_INVALID_PARAMETER},
      {"Language not terminated inside HdrSize", [] { Bytes b = valid(); b[4] = uint8_t(b[4] - 1); b[8] = b[4]; return b; },
       EFI_INVALID_PARAMETER},
      {"empty Language", [] { return stringPackage("", {EFI_HII_SIBT_END}); }, EFI_INVALID_PARAMETER},
      {"StringInfoOffset past the package", [] { Bytes b = valid(); b[8] = 0xF0; return b; }, EFI_INVALID_PARAMETER},
      {"StringInfoOffset inside the header", [] { Bytes b = valid(); b[8] = 10; return b; }, EFI_INVALID_PARAMETER},
      {"no END block", [] { return withBlocks(cat({{EFI_HII_SIBT_STRING_UCS2}, ucs2(u"x")})); },
       EFI_INVALID_PARAMETER},
      {"counted strings fewer than the count",
       [] { return withBlocks(cat({{EFI_HII_SIBT_STRINGS_UCS2}, u16le(3), ucs2(u"a"), ucs2(u"b"), {0}})); },
       EFI_INVALID_PARAMETER},
      {"DUPLICATE of a later id",
       [] { return withBlocks(cat({{EFI_HII_SIBT_DUPLICATE}, u16le(2), {EFI_HII_SIBT_END}})); },
       EFI_INVALID_PARAMETER},
      {"DUPLICATE of a skipped id",
       [] { return withBlocks(cat({{EFI_HII_SIBT_SKIP1, 1, EFI_HII_SIBT_DUPLICATE}, u16le(1), {0}})); },
       EFI_INVALID_PARAMETER},
      {"ids beyond 0xFFFF",
       [] { return withBlocks(cat({{EFI_HII_SIBT_SKIP2}, u16le(0xFFFF), {EFI_HII_SIBT_STRING_UCS2}, ucs2(u"x"), {0}})); },
       EFI_INVALID_PARAMETER},
      {"EXT2 shorter than its header", [] { return withBlocks(cat({{EFI_HII_SIBT_EXT2, 0x77}, u16le(3), {0}})); },
       EFI_INVALID_PARAMETER},
      {"EXT4 block runs past the package",
       [] { return withBlocks({EFI_HII_SIBT_EXT4, 0x77, 0x00, 0x01, 0, 0, 0}); }, EFI_INVALID_PARAMETER},
      {"font name runs past its block",
       [] {
         return withBlocks(cat({{EFI_HII_SIBT_EXT2, EFI_HII_SIBT_FONT}, u16le(4 + 7 + 2), {1}, u16le(19),
                                {0, 0, 0, 0}, {'S', 0}, ucs2(u"ys"), {0}}));
       },
       EFI_INVALID_PARAMETER},
      {"unknown block type", [] { return withBlocks({0x50, EFI_HII_SIBT_END}); }, EFI_INVALID_PARAMETER},
      {"SCSU control tag", [] { return withBlocks({EFI_HII_SIBT_STRING_SCSU, 'a', 0x05, 'b', 0, 0}); },
       EFI_UNSUPPORTED},
  };
  for (const MalformedCase& c : cases) {
    SCOPED_TRACE(c.name);
    hii::StringPackage package;
    hii::FormatError error;
    EXPECT_EQ(parse(c.make(), package, &error), c.status);
    EXPECT_FALSE(error.message.empty());
  }
}

TEST(StringPackageRefusals, EveryTruncationIsRefused) {
  const Bytes full = stringPackage(
      "x-UEFI-ns", cat({kFontBlock, {EFI_HII_SIBT_STRING_UCS2_FONT, 1}, ucs2(u"F"), {EFI_HII_SIBT_SKIP1, 2},
                        {EFI_HII_SIBT_STRINGS_UCS2}, u16le(2), ucs2(u"ab"), ucs2(u"cd"), {EFI_HII_SIBT_DUPLICATE},
                        u16le(4), {EFI_HII_SIBT_STRING_SCSU, 's', 0}, {EFI_HII_SIBT_END}}));
  hii::StringPackage package;
  ASSERT_EQ(parse(full, package), EFI_SUCCESS);
  for (size_t n = 0; n < full.size(); ++n) {
    Bytes cut(full.begin(), full.begin() + n);
    if (n >= 3) {
      cut[0] = uint8_t(n);
      cut[1] = uint8_t(n >> 8);
      cut[2] = 0;
    }
    EXPECT_NE(parse(cut, package), EFI_SUCCESS) << "prefix of " << n << " bytes";
  }
}

TEST(StringPackageBuilder, SerialisedModelParsesToTheSameModel) {
  hii::StringPackage model;
  model.language = "en-US;fr-CA";
  model.languageName = 3;
  model.languageWindow[0] = u'W';
  model.extendedBlocks.push_back(kFontBlock);
  model.strings.resize(600);  // ids 1..600, mostly skipped
  model.strings[0] = {true, u"first", false, 0};
  model.strings[2] = {true, u"English", true, 1};
  model.strings[599] = {true, u"last", false, 0};
  hii::StringPackage back;
  ASSERT_EQ(parse(hii::serializeStringPackage(model), back), EFI_SUCCESS);
  EXPECT_EQ(back.language, model.language);
  EXPECT_EQ(back.languageName, 3);
  EXPECT_EQ(back.languageWindow, model.languageWindow);
  EXPECT_EQ(back.extendedBlocks, model.extendedBlocks);
  ASSERT_EQ(back.strings.size(), model.strings.size());
  for (size_t i = 0; i < model.strings.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(back.strings[i].defined, model.strings[i].defined);
    EXPECT_EQ(back.strings[i].text, model.strings[i].text);
    EXPECT_EQ(back.strings[i].hasFont, model.strings[i].hasFont);
  }
  // The plain builder: one string per id, in order.
  const std::vector<std::u16string> strings = {u"", u"[x] caf\u00e9 \u2122", std::u16string(300, u'w')};
  ASSERT_EQ(parse(hii::buildStringPackage("x-UEFI", strings), back), EFI_SUCCESS);
  ASSERT_EQ(back.lastId(), strings.size());
  for (size_t i = 0; i < strings.size(); ++i) EXPECT_EQ(back.find(EFI_STRING_ID(i + 1))->text, strings[i]);
}

}  // namespace
