// Base64 decoding of password values: the decoder's lenient rules, texts
// cut inside a quartet, and the output count that sizes the buffer. Texts
// and outputs live in heap blocks of exactly their size, so that the
// address sanitizer sees any read past a text or write past a buffer.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "password/base64.h"
#include "export/export_fixture.h"

namespace {

using tvl::test::DriverTest;
using Bytes = std::vector<UINT8>;

class Base64Test : public DriverTest {
 protected:
  // Decodes `text` from a block of exactly its length + 1 into a block of
  // exactly the counted size; checks that the decoder wrote what it counted.
  Bytes decode(const std::string& text) {
    auto input = std::make_unique<CHAR8[]>(text.size() + 1);
    std::copy(text.begin(), text.end(), input.get());
    input[text.size()] = 0;
    UINTN counted = DRIVER_FN(base64DecodedLength)(input.get());
    auto output = std::make_unique<UINT8[]>(counted);
    UINTN written = ~UINTN(0);
    DRIVER_FN(base64Decode)(input.get(), output.get(), &written);
    EXPECT_EQ(written, counted) << "\"" << text << "\"";
    return Bytes(output.get(), output.get() + std::min(written, counted));
  }
};

TEST_F(Base64Test, DecodesByTheLenientRules) {
  struct Case {
    const char* name; std::string text; Bytes bytes;
  } cases[] = {
      {"ends of each alphabet range", "AZaz09+/", {0x01, 0x96, 0xB3, 0xD3, 0xDF, 0xBF}},
      {"URL-safe characters decode as zero", "-_AA", {0x00, 0x00, 0x00}}, {"padding does not end the text", "QQ==QUI=", {0x41, 0x41, 0x42}},
      {"third position padding ignores the fourth", "QQ=D", {0x41}},
      {"blank decodes as zero", "Q UJ", {0x40, 0x05, 0x09}},
      {"padding in the first two positions decodes as zero", "==QQ", {0x00, 0x04, 0x10}},
      {"line break decodes as zero", "QUJD\nQQ==", {0x41, 0x42, 0x43, 0x01, 0x04, 0x00}},
      {"bytes above 0x7f decode as zero", "\x80\xffQQ", {0x00, 0x04, 0x10}}, {"empty text", "", {}},
      // A final group cut short counts its missing characters as padding.
      {"one character left", "QUJDQ", {0x41, 0x42, 0x43, 0x40}},
      {"two characters left", "QUJDQQ", {0x41, 0x42, 0x43, 0x41}},
      {"three characters left", "QUJDQUI", {0x41, 0x42, 0x43, 0x41, 0x42}}, {"lone character", "Q", {0x40}},
      {"padding cut short", "QQ=", {0x41}},
  };
  for (const Case& c : cases) EXPECT_EQ(decode(c.text), c.bytes) << c.name;
}

// Every text of up to six characters over letters, digits, padding, a blank
// and a high byte: the decoder writes exactly what was counted, never more
// than three bytes per started quartet, and reads nothing past the text.
TEST_F(Base64Test, WritesExactlyTheCountedBytesForAnyText) {
  const std::string symbols = "A/= \xff";
  std::vector<std::string> texts{""};
  for (size_t length = 1; length <= 6; ++length) {
    std::vector<std::string> longer;
    for (const std::string& t : texts)
      if (t.size() == length - 1)
        for (char s : symbols) longer.push_back(t + s);
    texts.insert(texts.end(), longer.begin(), longer.end());
  }
  ASSERT_EQ(texts.size(), 19531u);
  for (const std::string& text : texts) {
    Bytes bytes = decode(text);
    size_t quartets = (text.size() + 3) / 4;
    EXPECT_GE(bytes.size(), quartets) << "\"" << text << "\"";
    EXPECT_LE(bytes.size(), 3 * quartets) << "\"" << text << "\"";
    if (HasFailure()) break;
  }
}

// The mark as the XML service hands it over: name and value exact.
TEST_F(Base64Test, EncodingMarking) {
  const std::pair<const char*, BOOLEAN> cases[] = {
      {R"(<Value Encoding="Base64"/>)", TRUE},       {"<Value/>", FALSE},
      {R"(<Value Encoding="base64"/>)", FALSE},      {R"(<Value encoding="Base64"/>)", FALSE},
      {R"(<Value Encoding="Base64 "/>)", FALSE},     {R"(<Value Name="x" Encoding="Base64"/>)", TRUE},
  };
  for (const auto& [text, marked] : cases)
    EXPECT_EQ(DRIVER_FN(hasBase64Encoding)(tvl::test::parseXml(locate<XML_PROTOCOL>(XML_PROTOCOL_GUID), text).get()),
              marked) << text;
  EXPECT_EQ(DRIVER_FN(hasBase64Encoding)(nullptr), FALSE);
}

}  // namespace
