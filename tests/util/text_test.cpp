// The text utilities, called in a loaded driver (they allocate from its
// boot-services pool).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/driver.h"
#include "util/text.h"

namespace {

class TextTest : public tvl::test::DriverTest {
 protected:
  void freeText(CHAR8*& text) {
    if (text) bs()->FreePool(text);
    text = nullptr;
  }
};

TEST_F(TextTest, ParseDecimal) {
  struct Case { const char* text; UINT64 value; } cases[] = {
      {nullptr, 0}, {"", 0}, {"  42abc", 42}, {"-5", 0}, {"\t5", 0} /* only blanks are skipped */, {"007", 7},
      {"12\x80" "3", 12},  // bytes of 0x80 and above end the number
      {"1844674407370955161", 1844674407370955161ull}, {"18446744073709551614", 18446744073709551614ull},
      {"18446744073709551615", ~0ull}, {"18446744073709551616", ~0ull}, {"99999999999999999999999", ~0ull},
  };
  for (const Case& c : cases) EXPECT_EQ(DRIVER_FN(parseDecimal)(c.text), c.value) << (c.text ? c.text : "(null)");
}

TEST_F(TextTest, CompareNoCase) {
  struct Case { const char* a; const char* b; INT64 result; } cases[] = {
      {"Abc", "aBC", 0}, {"", "", 0}, {"ab", "abc", -1}, {"abc", "ab", 1},
      {"zz", "abc", -1},  // length decides before any character
      {"abd", "abc", 1}, {"a", "B", 'A' - 'B'}, {"[", "{", '[' - '{'} /* only a-z are mapped */,
      {"\x80", "a", -128 - 'A'},  // characters compare as signed bytes
  };
  for (const Case& c : cases) EXPECT_EQ(DRIVER_FN(compareNoCase)(c.a, c.b), c.result) << c.a << " vs " << c.b;
}

TEST_F(TextTest, SmallHelpers) {
  for (auto [text, digits] : {std::pair<const char*, BOOLEAN>{nullptr, TRUE}, {"", TRUE}, {"0123456789", TRUE},
                              {"12a", FALSE}, {" 1", FALSE}, {"/:", FALSE}})
    EXPECT_EQ(DRIVER_FN(isAllDigits)(text), digits) << (text ? text : "(null)");
  CHAR16 wide[] = u"AZ\u00C0\u0141q";
  DRIVER_FN(toLowerUnicode)(wide);
  EXPECT_EQ(std::u16string(wide), u"az\u00C0\u0141q");
  // narrowToAscii: the GetString tests (every string fetched is narrowed).
}

// The conversions themselves: the log service's tests (the same formatter).
TEST_F(TextTest, BoundedFormatting) {
  // Fixed: 128 characters including the terminator.
  std::vector<CHAR16> fixed(200, u'#');
  DRIVER_FN(formatUnicodeFixed)(fixed.data(), u"%s-%d", std::u16string(150, u'x').c_str(), 5);
  EXPECT_EQ(std::u16string(fixed.data()) + fixed[128], std::u16string(127, u'x') + u'#');
  // Capacity-bounded, never writing past the capacity (as formatUnicodeN).
  for (auto [capacity, expected] : {std::pair<UINTN, std::string>{1, ""}, {5, "-3|f"},
                                    {64, "-3|ffffffff|Invalid Parameter|wide"}}) {
    std::vector<char> out(80, '#');
    DRIVER_FN(formatAsciiN)(out.data(), capacity, "%d|%x|%r|%s", -3, 0xFFFFFFFFu, EFI_INVALID_PARAMETER, u"wide");
    EXPECT_EQ(std::string(out.data()) + out[capacity], expected + '#') << capacity;
  }
}

TEST_F(TextTest, ReplaceAll) {
  struct Case { const char* text; const char* search; const char* replacement; EFI_STATUS status; const char* result; };
  const Case cases[] = {
      {"a&b&c&", "&", "&amp;", EFI_SUCCESS, "a&amp;b&amp;c&amp;"},
      {"abc", "x", "y", EFI_NOT_FOUND, "abc"}, {"", "x", "y", EFI_NOT_FOUND, ""}, {"aaaa", "aa", "a", EFI_SUCCESS, "aa"},
      {"aaa", "aa", "b", EFI_SUCCESS, "ba"},            // left to right, no overlap
      {"abab", "ab", "abab", EFI_SUCCESS, "abababab"},  // replacements are not searched again
      {"xx", "x", "", EFI_SUCCESS, ""}, {"&lt;", "&lt;", "<", EFI_SUCCESS, "<"},
  };
  auto replace = DRIVER_FN(replaceAll);
  for (const Case& c : cases) {
    CHAR8* text = poolText(c.text);
    EXPECT_EQ(replace(c.search, c.replacement, &text), c.status) << c.text;
    EXPECT_STREQ(text, c.result);
    freeText(text);
  }
  CHAR8 *text = poolText("abc"), *none = nullptr;
  for (EFI_STATUS status : {replace(nullptr, "x", &text), replace("a", nullptr, &text), replace("a", "x", nullptr),
                            replace("a", "x", &none), replace("", "x", &text)})
    EXPECT_EQ(status, EFI_INVALID_PARAMETER);
  EXPECT_STREQ(text, "abc");
  // A refused allocation leaves the text as it was.
  sweepAllocationFailures([&] { return replace("b", "<b>", &text); },
                          [&](EFI_STATUS status, size_t) {
                            EXPECT_EQ(status, EFI_OUT_OF_RESOURCES);
                            EXPECT_STREQ(text, "abc");
                          },
                          [&] {
                            freeText(text);
                            text = poolText("abc");
                          });
  freeText(text);
}

TEST_F(TextTest, DecodeOctalEscapes) {
  struct Case { const char* source; const char* decoded; } cases[] = {  // decoded null: out stays untouched
      {"no backslash", nullptr}, {"", nullptr}, {"\\101", "A"}, {"x\\040y", "x y"},
      {"\\000", "\\000"}, {"\\377", "\\377"},  // not printable
      {"\\501", "A"},  // 321 modulo 256
      {"\\18x", "\\18x"}, {"\\9", "\\9"}, {"a\\10", "a\\10"} /* fewer than three characters follow */,
      {"\\101-\\101-\\102", "A-A-B"}, {"\\134101", "\\101"} /* the decoded backslash starts no escape */,
      {"\\\\101", "\\A"},
  };
  auto decode = DRIVER_FN(decodeOctalEscapes);
  for (const Case& c : cases) {
    CHAR8 sentinel[] = "untouched";
    CHAR8* out = sentinel;
    decode(c.source, &out);
    EXPECT_STREQ(out, c.decoded ? c.decoded : "untouched") << c.source;
    EXPECT_EQ(out == sentinel, !c.decoded) << c.source;
    if (out != sentinel) freeText(out);
  }
  CHAR8* out = nullptr;
  decode(nullptr, &out);
  decode("\\101", nullptr);
  EXPECT_EQ(out, nullptr);
  // The copy refused: nothing written. A replacement refused: that escape
  // stays, the others are decoded.
  const char* expected[] = {nullptr, "\\101B", "A\\102"};
  sweepAllocationFailures(
      [&] {
        decode("\\101\\102", &out);
        return EFI_SUCCESS;
      },
      [&](EFI_STATUS, size_t k) {
        ASSERT_LE(k, 3u);
        EXPECT_EQ(out ? std::string(out) : "(null)", expected[k - 1] ? expected[k - 1] : "(null)");
      },
      [&] { freeText(out); });
}

}  // namespace
