// Configuration strings: the encodings of ConfigHdr and VALUE written out
// by hand, and the Progress position of syntax errors. (The host's devices
// answer every other kind of syntax error exactly as the sample-device
// image's own parser does: tests/firmware.)
#include <gtest/gtest.h>

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

TEST(ConfigString, SyntaxErrorsSetProgressAtTheFailingPair) {
  using K = hii::ConfigKind;
  const std::u16string guidOnly = u"GUID=78563412bc9af0de0123456789abcdef";
  const std::u16string name = u"&NAME=00530065007400750070";
  const std::u16string goodPath = u"&PATH=02010c00d041030a0000000001010600001c7fff0400";
  const struct {  // progressAt: Progress is its first occurrence in the text; empty: the string's start
    const char* name; std::u16string text; hii::ConfigKind kind; std::u16string progressAt;
  } cases[] = {
      {"GUID of 33 digits", guidOnly + u"0" + name + goodPath, K::Request, u""},
      {"NAME missing", guidOnly + goodPath, K::Request, u"&PATH"},
      {"PATH missing", guidOnly + name, K::Request, u"&NAME"},
      {"OFFSET without digits", kHdr + u"&OFFSET=&WIDTH=1", K::Request, u"&OFFSET"},
      {"WIDTH missing at the end", kHdr + u"&OFFSET=1", K::Request, u"&OFFSET"},
      {"VALUE missing in a response", kHdr + u"&OFFSET=1&WIDTH=1&OFFSET=2&WIDTH=1&VALUE=00", K::Response,
       u"&OFFSET=2"},
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
