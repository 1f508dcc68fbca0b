// String packages: every string-information block type, refusals of
// malformed packages (checked under AddressSanitizer on exact-size copies),
// and the builder/serialiser against the parser.
#include <gtest/gtest.h>

#include "host/hii/string_package.h"
#include "tests/host/hii/hii_bytes.h"

namespace hii = tvl::host::hii;
using namespace tvl::test::hii;

namespace {

EFI_STATUS parse(const Bytes& bytes, hii::StringPackage& out, hii::FormatError* error = nullptr) {
  ExactCopy copy(bytes);
  return hii::parseStringPackage(copy.data.get(), copy.size, out, error);
}

const Bytes kFontBlock = cat({{EFI_HII_SIBT_EXT2, EFI_HII_SIBT_FONT}, u16le(4 + 7 + 8), {1}, u16le(19),
                              {0, 0, 0, 0}, ucs2(u"Sys")});
const Bytes kEnd = {EFI_HII_SIBT_END};
Bytes str(const std::u16string& s) { return cat({{EFI_HII_SIBT_STRING_UCS2}, ucs2(s)}); }

TEST(StringPackageBlocks, EachBlockTypeYieldsItsIds) {
  const struct {  // texts: ids 1..n, null for an undefined id; n is the last id
    const char* name; Bytes blocks; std::vector<const char16_t*> texts;
  } cases[] = {
      {"single and counted UCS-2 strings", cat({str(u"One"), {EFI_HII_SIBT_STRINGS_UCS2}, u16le(2), ucs2(u""), ucs2(u"c"), kEnd}),
       {u"One", u"", u"c"}},
      {"SKIP1 and SKIP2 leave ids undefined",
       cat({str(u"A"), {EFI_HII_SIBT_SKIP1, 2}, str(u"D"), {EFI_HII_SIBT_SKIP2}, u16le(2), str(u"E"), kEnd}),
       {u"A", nullptr, nullptr, u"D", nullptr, nullptr, u"E"}},
      {"DUPLICATE repeats an earlier string", cat({str(u"X"), str(u"Y"), {EFI_HII_SIBT_DUPLICATE}, u16le(1), kEnd}),
       {u"X", u"Y", u"X"}},
      {"font definition and strings with a font",
       cat({kFontBlock, {EFI_HII_SIBT_STRING_UCS2_FONT, 1}, ucs2(u"F"), {EFI_HII_SIBT_STRINGS_UCS2_FONT, 1},
            u16le(2), ucs2(u"G"), ucs2(u"H"), kEnd}),
       {u"F", u"G", u"H"}},
      {"unknown extended blocks take no id",
       cat({{EFI_HII_SIBT_EXT1, 0x77, 5, 0xAA, 0xBB, EFI_HII_SIBT_EXT4, 0x78, 8, 0, 0, 0, 0xCC, 0xDD}, str(u"Z"), kEnd}),
       {u"Z"}},
      {"SCSU text in ASCII and the Latin-1 window, with and without a font",
       cat({{EFI_HII_SIBT_STRING_SCSU, 'H', 'i', 0, EFI_HII_SIBT_STRINGS_SCSU}, u16le(2), {'a', 0, 0xE9, 't', 0xE9, 0},
            {EFI_HII_SIBT_STRING_SCSU_FONT, 2, 'Q', 0, EFI_HII_SIBT_STRINGS_SCSU_FONT, 2}, u16le(1), {'R', 0}, kEnd}),
       {u"Hi", u"a", u"\u00e9t\u00e9", u"Q", u"R"}},
      {"strings start after a StringInfoOffset gap", cat({{9, 9, 9, 9}, str(u"gap"), kEnd}), {u"gap"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes bytes = stringPackage("en-US", c.blocks);
    if (c.blocks[0] == 9) bytes[8] = uint8_t(bytes[8] + 4);  // StringInfoOffset beyond HdrSize: skip the filler
    hii::StringPackage package;
    ASSERT_EQ(parse(bytes, package), EFI_SUCCESS);
    EXPECT_EQ(package.lastId(), c.texts.size());
    for (size_t i = 0; i < c.texts.size(); ++i) {
      const hii::StringEntry* entry = package.find(EFI_STRING_ID(i + 1));
      ASSERT_EQ(entry != nullptr, c.texts[i] != nullptr) << "id " << i + 1;
      if (entry) { EXPECT_EQ(entry->text, c.texts[i]) << "id " << i + 1; }
    }
  }
}

Bytes valid() { return stringPackage("en-US", cat({str(u"ok"), kEnd})); }
Bytes patched(size_t at, uint8_t value) {
  Bytes b = valid();
  b[at] = value;
  return b;
}
Bytes withBlocks(const Bytes& blocks) { return stringPackage("en-US", blocks); }

TEST(StringPackageRefusals, MalformedPackagesAreRefused) {
  const size_t length = valid().size(), hdrSize = valid()[4];
  const Bytes cases[] = {
      patched(0, uint8_t(length + 1)),  // header length differs from the package size
      patched(4, 0xF0),                 // HdrSize past the package
      [&] { Bytes b = patched(4, uint8_t(hdrSize - 1)); b[8] = b[4]; return b; }(),  // Language not terminated
      stringPackage("", kEnd),          // empty Language
      patched(8, 0xF0),                 // StringInfoOffset past the package
      patched(8, 10),                   // StringInfoOffset inside the header
      withBlocks(cat({{EFI_HII_SIBT_STRINGS_UCS2}, u16le(3), ucs2(u"a"), ucs2(u"b"), kEnd})),  // fewer than counted
      withBlocks(cat({{EFI_HII_SIBT_DUPLICATE}, u16le(2), kEnd})),                           // DUPLICATE of a later id
      withBlocks(cat({{EFI_HII_SIBT_SKIP1, 1, EFI_HII_SIBT_DUPLICATE}, u16le(1), kEnd})),     // of a skipped id
      withBlocks(cat({{EFI_HII_SIBT_SKIP2}, u16le(0xFFFF), str(u"x"), kEnd})),                // ids beyond 0xFFFF
      withBlocks(cat({{EFI_HII_SIBT_EXT2, 0x77}, u16le(3), kEnd})),  // EXT2 shorter than its header
      withBlocks(cat({{EFI_HII_SIBT_EXT2, EFI_HII_SIBT_FONT}, u16le(4 + 7 + 2), {1}, u16le(19), {0, 0, 0, 0, 'S', 0},
                      ucs2(u"ys"), kEnd})),                          // font name runs past its block
      withBlocks({0x50, EFI_HII_SIBT_END}),                          // unknown block type
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    hii::StringPackage package;
    hii::FormatError error;
    EXPECT_EQ(parse(cases[i], package, &error), EFI_INVALID_PARAMETER) << "case " << i;
    EXPECT_FALSE(error.message.empty());
  }
  hii::StringPackage package;
  EXPECT_EQ(parse(withBlocks({EFI_HII_SIBT_STRING_SCSU, 'a', 0x05, 'b', 0, 0}), package), EFI_UNSUPPORTED);  // SCSU tag
}

TEST(StringPackageRefusals, EveryTruncationIsRefused) {
  const Bytes full = stringPackage(
      "x-UEFI-ns", cat({kFontBlock, {EFI_HII_SIBT_STRING_UCS2_FONT, 1}, ucs2(u"F"), {EFI_HII_SIBT_SKIP1, 2},
                        {EFI_HII_SIBT_STRINGS_UCS2}, u16le(2), ucs2(u"ab"), ucs2(u"cd"), {EFI_HII_SIBT_DUPLICATE},
                        u16le(4), {EFI_HII_SIBT_STRING_SCSU, 's', 0}, kEnd}));
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

}  // namespace
