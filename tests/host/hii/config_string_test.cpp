// Configuration strings: the encodings of ConfigHdr and VALUE written out
// by hand, round trips, and the Progress position of every kind of syntax
// error.
#include <gtest/gtest.h>

#include <tuple>

#include "host/hii/config_string.h"
#include "host/hii/device_path.h"

namespace hii = tvl::host::hii;

namespace {

constexpr EFI_GUID kGuid = {0x12345678, 0x9abc, 0xdef0, {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef}};

std::vector<uint8_t> path() { return hii::DevicePathBuilder().pciRoot(0).pci(0x1c, 0).build(); }

const std::u16string kHdr =
    u"GUID=78563412bc9af0de0123456789abcdef&NAME=00530065007400750070"
    u"&PATH=02010c00d041030a0000000001010600001c7fff0400";

TEST(ConfigString, EncodingsAreWrittenAsTheUefiSpecificationGives) {
  EXPECT_EQ(hii::configHdr(kGuid, u"Setup", path()), kHdr);
  const uint8_t ab[] = {0x41, 0x00, 0x42, 0x00, 0x00, 0x00, 0x00, 0x00};
  EXPECT_EQ(hii::valueDigits(ab, sizeof ab), u"0000000000420041");  // bytes in reverse order
  const uint8_t word[] = {0x34, 0x12};
  EXPECT_EQ(hii::blockConfig(0x10, word, 2), u"&OFFSET=0010&WIDTH=0002&VALUE=1234");
  EXPECT_EQ(hii::blockName(0x12345, 1), u"&OFFSET=12345&WIDTH=0001");
}

TEST(ConfigString, ParsedHeaderAndBlocksRoundTrip) {
  const uint8_t word[] = {0x34, 0x12};
  const uint8_t text[] = {0x41, 0x00, 0x42, 0x00};
  const std::u16string resp = kHdr + hii::blockConfig(2, word, 2) + hii::blockConfig(0x20, text, 4);
  hii::ConfigString parsed;
  ASSERT_EQ(hii::parseConfigString(resp, hii::ConfigKind::Response, parsed), EFI_SUCCESS);
  EXPECT_EQ(hii::configHdr(parsed.header.guid, parsed.header.name, parsed.header.path), kHdr);
  std::vector<std::tuple<size_t, uint64_t, std::vector<uint8_t>>> blocks;  // begin, offset, value
  for (const hii::ConfigBlock& b : parsed.blocks) blocks.emplace_back(b.begin, b.offset, b.value);
  EXPECT_EQ(blocks, (decltype(blocks){{kHdr.size(), 2, {0x34, 0x12}}, {resp.find(u"&OFFSET=0020"), 0x20, {0x41, 0, 0x42, 0}}}));

  // Short values are zero-extended; digits and the header take either case.
  ASSERT_EQ(hii::parseConfigString(kHdr + u"&OFFSET=0&WIDTH=4&VALUE=AbC", hii::ConfigKind::Response, parsed), EFI_SUCCESS);
  EXPECT_EQ(parsed.blocks.at(0).value, (std::vector<uint8_t>{0xbc, 0x0a, 0x00, 0x00}));
  std::u16string hdr = kHdr;
  for (size_t i = 5; i < hdr.size(); ++i) hdr[i] = hdr[i] >= u'a' && hdr[i] <= u'f' ? char16_t(hdr[i] - 32) : hdr[i];
  hii::ConfigHeader upper;
  EXPECT_EQ(hii::parseConfigHeader(hdr, 0, upper), EFI_SUCCESS);
  EXPECT_EQ(upper.guid, kGuid);
}

TEST(ConfigString, SyntaxErrorsSetProgressAtTheFailingPair) {
  using K = hii::ConfigKind;
  const std::u16string guidOnly = u"GUID=78563412bc9af0de0123456789abcdef";
  const std::u16string name = u"&NAME=00530065007400750070";
  const std::u16string goodPath = u"&PATH=02010c00d041030a0000000001010600001c7fff0400";
  const struct {  // progressAt: Progress is its first occurrence in the text; empty: the string's start
    const char* name; std::u16string text; hii::ConfigKind kind; std::u16string progressAt;
  } cases[] = {
      {"wrong first field", u"GUIX=" + kHdr.substr(5), K::Request, u""},
      {"GUID of 31 digits", guidOnly.substr(0, 36) + name + goodPath, K::Request, u""},
      {"GUID of 33 digits", guidOnly + u"0" + name + goodPath, K::Request, u""},
      {"NAME not in groups of four", guidOnly + u"&NAME=005" + goodPath, K::Request, u"&NAME"},
      {"NAME missing", guidOnly + goodPath, K::Request, u"&PATH"},
      {"PATH with an odd digit count", guidOnly + name + u"&PATH=7fff040", K::Request, u"&PATH"},
      {"PATH not a device path", guidOnly + name + u"&PATH=7fff0300", K::Request, u"&PATH"},
      {"PATH missing", guidOnly + name, K::Request, u"&NAME"},
      {"OFFSET without digits", kHdr + u"&OFFSET=&WIDTH=1", K::Request, u"&OFFSET"},
      {"bad digit in OFFSET", kHdr + u"&OFFSET=1z&WIDTH=1", K::Request, u"&OFFSET"},
      {"OFFSET beyond 64 bits", kHdr + u"&OFFSET=10000000000000000&WIDTH=1", K::Request, u"&OFFSET"},
      {"WIDTH missing at the end", kHdr + u"&OFFSET=1", K::Request, u"&OFFSET"},
      {"WIDTH of zero", kHdr + u"&OFFSET=1&WIDTH=0", K::Request, u"&WIDTH"},
      {"WIDTH too large", kHdr + u"&OFFSET=1&WIDTH=1000001", K::Request, u"&WIDTH"},
      {"VALUE in a request", kHdr + u"&OFFSET=1&WIDTH=1&VALUE=00", K::Request, u"&VALUE"},
      {"VALUE missing in a response", kHdr + u"&OFFSET=1&WIDTH=1&OFFSET=2&WIDTH=1&VALUE=00", K::Response,
       u"&OFFSET=2"},
      {"VALUE without digits", kHdr + u"&OFFSET=1&WIDTH=1&VALUE=", K::Response, u"&VALUE"},
      {"VALUE wider than WIDTH", kHdr + u"&OFFSET=1&WIDTH=1&VALUE=001", K::Response, u"&VALUE"},
      {"unknown field after a block", kHdr + u"&OFFSET=1&WIDTH=1&ALTCFG=0000", K::Request, u"&ALTCFG"},
      {"second block broken", kHdr + u"&OFFSET=1&WIDTH=1&OFFSET=2&WIDTH=x", K::Request, u"&WIDTH=x"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    hii::ConfigString parsed;
    hii::ConfigError error;
    EXPECT_EQ(hii::parseConfigString(c.text, c.kind, parsed, &error), EFI_INVALID_PARAMETER);
    const size_t expected = c.progressAt.empty() ? 0 : c.text.find(c.progressAt);
    ASSERT_NE(expected, std::u16string::npos);
    EXPECT_EQ(error.progress, expected) << error.message;
    EXPECT_GE(error.position, error.progress);
  }
}

}  // namespace
