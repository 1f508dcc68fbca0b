// The offline platform: stores from the forms' standard defaults, configuration
// lines and their refusals, and lists the database refuses. (File framing is
// tested through the command line; routed configurations through `tolvane
// apply --hii`, and lists sharing a GUID through the offline export of a real
// firmware's dump: tests/tools.) Lists without a device path get one made.
#include "host/offline/offline_platform.h"

#include <gtest/gtest.h>

#include "host/hii/config_string.h"
#include "host/hii/package_list.h"
#include "host/ifr/ifr_dump.h"
#include "tests/host/offline/dump_shapes.h"

namespace offline = tvl::host::offline;
namespace shapes = tvl::test::shapes;
namespace hii = tvl::host::hii;
using offline::OfflinePlatform;
using shapes::Bytes;

namespace {

// The stores' standard defaults, field by field as platformConfigList gives them: 800; 800 + 224 computed; the
// option flag; the checkbox flag; a DEFAULT opcode over the flag; a manufacturing default only; 3 * 7; no default.
// In the variable: the checkbox flag and a DEFAULT.
const std::vector<uint8_t> kBufferDefaults = {0x20, 0x03, 0x00, 0x04, 1, 1, 0, 0, 21, 0, 0, 0, 0, 0, 0, 0};
const std::vector<uint8_t> kVariableDefaults = {1, 0, 0x34, 0x12};

std::vector<uint8_t> bufferStore(OfflinePlatform& p) {
  return p.lists()[0].device->storage(shapes::kPlatformStoreGuid, shapes::kPlatformStore);
}
std::vector<uint8_t> variableStore(OfflinePlatform& p) {
  std::vector<uint8_t> bytes;
  EXPECT_EQ(p.platform().getVariable(shapes::kPlatformVariable, shapes::kPlatformVariableGuid, &bytes), EFI_SUCCESS);
  return bytes;
}

std::string hdr(const EFI_GUID& guid, const std::u16string& name) {
  return hii::toAscii(hii::configHdr(guid, name, {0x7f, 0xff, 0x04, 0x00}));
}

TEST(OfflinePlatformTest, StoresStartFromTheStandardDefaultsOfTheForms) {
  OfflinePlatform p(shapes::platformConfigList());
  ASSERT_TRUE(p.lists().size() == 1 && p.lists()[0].device);
  EXPECT_EQ(p.lists()[0].stores.size(), 2u);
  EXPECT_TRUE(p.warnings().empty());
  EXPECT_EQ(bufferStore(p), kBufferDefaults);
  EXPECT_EQ(variableStore(p), kVariableDefaults);
  // A whole-store answer carries the computed default in its standard configuration.
  EFI_HII_CONFIG_ACCESS_PROTOCOL* access = p.lists()[0].device->configAccess();
  const std::u16string request = p.lists()[0].device->configHdr(shapes::kPlatformStoreGuid, shapes::kPlatformStore);
  EFI_STRING progress = nullptr, results = nullptr;
  ASSERT_EQ(access->ExtractConfig(access, request.c_str(), &progress, &results), EFI_SUCCESS);
  const std::string answer = hii::toAscii(reinterpret_cast<const char16_t*>(results));
  p.platform().bootServices()->FreePool(results);
  const size_t standard = answer.find("&ALTCFG=0000"), manufacturing = answer.find("&ALTCFG=0001");
  ASSERT_NE(manufacturing, std::string::npos) << answer;
  ASSERT_LT(standard, manufacturing) << answer;
  EXPECT_LT(answer.find("&OFFSET=0002&WIDTH=0002&VALUE=0400", standard), manufacturing) << answer;
}

TEST(OfflinePlatformTest, ConfigLinesOverwriteTheStoresTheyName) {
  const std::string buffer = hdr(shapes::kPlatformStoreGuid, shapes::kPlatformStore);
  const std::string variable = hdr(shapes::kPlatformVariableGuid, shapes::kPlatformVariable);
  using V = std::vector<uint8_t>;
  const struct { const char* what; std::string text; V buffer, variable; } cases[] = {  // the stores afterwards
      {"a whole store as ExtractConfig answers it, with its default configurations",
       buffer + "&OFFSET=0000&WIDTH=0010&VALUE=000000000000000800000002010300f0&" + buffer +
           "&ALTCFG=0000&OFFSET=0000&WIDTH=0002&VALUE=0320\n",
       {0xf0, 0, 0x03, 0x01, 2, 0, 0, 0, 8, 0, 0, 0, 0, 0, 0, 0}, kVariableDefaults},
      {"two stores on one line, comments, CRLF, indentation, upper-case digits",
       "# current values\r\n\r\n  " + buffer + "&OFFSET=4&WIDTH=1&VALUE=02&" + variable +
           "&OFFSET=2&WIDTH=2&VALUE=BEEF\r\n",
       {0x20, 0x03, 0x00, 0x04, 2, 1, 0, 0, 21, 0, 0, 0, 0, 0, 0, 0}, {1, 0, 0xef, 0xbe}},
      {"later lines write over earlier ones",
       buffer + "&OFFSET=c&WIDTH=4&VALUE=1\n" + buffer + "&OFFSET=d&WIDTH=1&VALUE=2",
       {0x20, 0x03, 0x00, 0x04, 1, 1, 0, 0, 21, 0, 0, 0, 1, 2, 0, 0}, kVariableDefaults},
      {"a header without blocks changes nothing", variable, kBufferDefaults, kVariableDefaults},
  };
  for (const auto& c : cases) {
    OfflinePlatform p(shapes::platformConfigList());
    p.applyConfig(0, offline::parseConfigLines(c.text));
    EXPECT_EQ(bufferStore(p), c.buffer) << c.what;
    EXPECT_EQ(variableStore(p), c.variable) << c.what;
  }
}

TEST(OfflinePlatformTest, BadConfigLinesAreRefusedWithTheirLineNumberAndChangeNothing) {
  const std::string good = hdr(shapes::kPlatformStoreGuid, shapes::kPlatformStore) + "&OFFSET=0&WIDTH=1&VALUE=ff\n";
  const std::string head = hdr(shapes::kPlatformStoreGuid, shapes::kPlatformStore);
  const struct { std::string text, says; } cases[] = {
      {good + "GUID=zz", "line 2, column 6: GUID needs 32 hex digits"},
      {good + "\n# note\n" + head + "&OFFSET=0&WIDTH=1", "line 4, column " + std::to_string(head.size() + 18) +
                                                           ": expected &VALUE="},
      {good + "  " + head + "&OFFSET=0&WIDTH=1&VALUE=123", "line 2, column " + std::to_string(head.size() + 29) +
                                                               ": VALUE wider than WIDTH"},
      {good + head + "&OFFSET=0&WIDTH=1&VALUE=1\xc3\xa9", "line 2, column " + std::to_string(head.size() + 26) +
                                                              ": a character outside printable ASCII"},
      {good + head + "&OFFSET=0&WIDTH=1&VALUE=1&" + hdr(shapes::kPlatformStoreGuid, u"Main") +
           "&OFFSET=0&WIDTH=1&VALUE=1",
       "line 2: no store of the forms of package list 1 (GUID 7235C51C-0C80-4CAB-87AC-3B084A6304B1) is \"Main\" "
       "(GUID D9BC7DE0-1F27-4D3C-9A21-5C3E70119B42); they declare \"MainFormState\" (GUID "
       "D9BC7DE0-1F27-4D3C-9A21-5C3E70119B42), \"PlatformFlags\""},
      {good + hdr(shapes::kPlatformVariableGuid, shapes::kPlatformStore) + "&OFFSET=0&WIDTH=1&VALUE=1",
       "line 2: no store of the forms"},
      {good + head + "&OFFSET=f&WIDTH=2&VALUE=1",
       "line 2: OFFSET 15 WIDTH 2 runs past the 16-byte store \"MainFormState\""},
  };
  for (const auto& c : cases) {
    OfflinePlatform p(shapes::platformConfigList());
    const std::vector<uint8_t> before = bufferStore(p);
    try {
      p.applyConfig(0, offline::parseConfigLines(c.text));
      ADD_FAILURE() << "accepted: " << c.text;
    } catch (const offline::InputError& e) {
      EXPECT_NE(std::string(e.what()).find(c.says), std::string::npos) << e.what() << "\nexpected: " << c.says;
    }
    EXPECT_EQ(bufferStore(p), before) << c.says;
  }
}

// A list whose string package does not parse is left out with a warning; the others still load.
TEST(OfflinePlatformTest, AListThatTheDatabaseRefusesIsLeftOutWithAWarning) {
  Bytes bytes = shapes::platformConfigList();
  Bytes broken = shapes::twoFormSetsList();
  hii::PackageListView view;
  ASSERT_EQ(hii::parsePackageList(broken.data(), broken.size(), view), EFI_SUCCESS);
  size_t strings = 0;
  for (const auto& package : view.packages)
    if (package.type == EFI_HII_PACKAGE_STRINGS) strings = package.offset;
  ASSERT_NE(strings, 0u);
  const std::vector<uint8_t> offset = {0xff, 0xff, 0, 0};  // StringInfoOffset past the package
  std::copy(offset.begin(), offset.end(), broken.begin() + long(strings + 8));
  const size_t at = bytes.size();
  bytes.insert(bytes.end(), broken.begin(), broken.end());
  OfflinePlatform p(bytes);
  ASSERT_EQ(p.lists().size(), 2u);
  EXPECT_TRUE(p.lists()[0].device);
  EXPECT_FALSE(p.lists()[1].device);
  EXPECT_NE(p.lists()[1].refusal.find("at byte offset " + std::to_string(at + strings + 8)), std::string::npos)
      << p.lists()[1].refusal;
  ASSERT_FALSE(p.warnings().empty());
  EXPECT_NE(p.warnings().front().find("package list 2"), std::string::npos) << p.warnings().front();
}

TEST(OfflinePlatformTest, ListsWithoutADevicePathEachGetOneOfTheirOwn) {
  Bytes bytes;
  for (int n = 1; n <= 3; ++n) {
    Bytes list = shapes::sharedGuidList(n);  // only the first has a device path
    bytes.insert(bytes.end(), list.begin(), list.end());
  }
  OfflinePlatform p(bytes);
  ASSERT_EQ(p.lists().size(), 3u);
  EXPECT_FALSE(p.lists()[0].madeDevicePath);
  for (size_t i = 1; i < 3; ++i)
    EXPECT_EQ(hii::toAscii(p.devicePathText(i)), "VenHw(" + tvl::host::ifr::guidText(offline::kOfflineVendorGuid) +
                                                     ",0" + std::to_string(i + 1) + "000000)");
}

}  // namespace
