// The sample device: ExtractConfig and RouteConfig over a buffer store and an EFI variable store, Progress
// positions, atomic routing, pool results, default configurations from the device's forms, and the device's HII
// registration.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "host/devices/device.h"
#include "host/hii/config_string.h"
#include "host/ifr/ifr_builder.h"
#include "tests/host/hii/hii_test_support.h"

namespace hii = tvl::host::hii;
using tvl::host::devices::Device;
using namespace tvl::test::hii;

namespace {

constexpr EFI_GUID kBufferGuid = {0x0b5e7a11, 0x2c3d, 0x4e5f, {0xa1, 0xb2, 0xc3, 0xd4, 0xe5, 0xf6, 0x07, 0x18}};
constexpr EFI_GUID kVariableGuid = {0x1d2c3b4a, 0x5e6f, 0x4a0b, {0x8c, 0x9d, 0xae, 0xbf, 0xc0, 0xd1, 0xe2, 0xf3}};
const std::u16string kBufferName = u"Setup";
const std::u16string kVariableName = u"NicCfg";

std::vector<uint8_t> counting() { return {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}; }

class DeviceTest : public HiiTest {
 protected:
  void SetUp() override {
    HiiTest::SetUp();
    device_ = std::make_unique<Device>(platform(), hii(), path_);
    device_->addBufferStorage(kBufferGuid, kBufferName, counting());
    device_->addVariableStorage(kVariableGuid, kVariableName, {0xAA, 0xBB, 0xCC, 0xDD});
    bufferHdr_ = device_->configHdr(kBufferGuid, kBufferName);
    variableHdr_ = device_->configHdr(kVariableGuid, kVariableName);
  }
  void TearDown() override { device_.reset(), HiiTest::TearDown(); }

  EFI_HII_CONFIG_ACCESS_PROTOCOL* access() { return device_->configAccess(); }

  // ExtractConfig; the result is copied and its pool buffer freed.
  EFI_STATUS extract(const std::u16string* request, std::u16string& results, size_t& progress) {
    EFI_STRING at = nullptr, out = nullptr;
    const CHAR16* text = request ? request->c_str() : nullptr;
    EFI_STATUS status = access()->ExtractConfig(access(), text, &at, &out);
    progress = at ? size_t(at - text) : SIZE_MAX;
    if (out) results = out, bs()->FreePool(out);
    return status;
  }
  EFI_STATUS route(const std::u16string& configuration, size_t& progress) {
    EFI_STRING at = nullptr;
    EFI_STATUS status = access()->RouteConfig(access(), configuration.c_str(), &at);
    progress = size_t(at - configuration.c_str());
    return status;
  }
  std::vector<uint8_t> buffer() { return device_->storage(kBufferGuid, kBufferName); }

  std::vector<uint8_t> path_ = hii::DevicePathBuilder().pciRoot(0).pci(0x1c, 0).mac({0, 0x11, 0x22, 0x33, 0x44, 0x55}).build();
  std::unique_ptr<Device> device_;
  std::u16string bufferHdr_, variableHdr_, results_;
  size_t progress_ = 0;
};

// Whole stores (no request, or a header alone) are answered with their defaults below.
TEST_F(DeviceTest, ExtractAnswersTheRequestedFields) {
  const std::pair<std::u16string, std::u16string> cases[] = {
      {bufferHdr_ + u"&OFFSET=2&WIDTH=2&OFFSET=000C&WIDTH=0004", u"&OFFSET=2&WIDTH=2&VALUE=0302&OFFSET=000C&WIDTH=0004&VALUE=0f0e0d0c"},
      {variableHdr_ + u"&OFFSET=3&WIDTH=1", u"&OFFSET=3&WIDTH=1&VALUE=dd"},
  };
  for (const auto& [request, blocks] : cases) {
    ASSERT_EQ(extract(&request, results_, progress_), EFI_SUCCESS);
    EXPECT_EQ(results_, request.substr(0, request.find(u"&OFFSET")) + blocks);
    EXPECT_EQ(progress_, request.size());
  }
}

// Two form sets on the device's stores, one of them also on a store of the same GUID and another name. Their
// defaults follow each whole store, one section per default store, fields by offset.
TEST_F(DeviceTest, WholeStoresComeWithTheirDefaultConfigurations) {
  namespace ifr = tvl::host::ifr;
  using ifr::Width;
  ifr::FormSetBuilder main(guidNumber(1), 1, 1), extra(guidNumber(2), 1, 1);
  main.varStore(1, kBufferGuid, "Setup", 16)
      .efiVarStore(2, kVariableGuid, "NicCfg", 4, EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS)
      .varStore(3, kBufferGuid, "Other", 4)
      .defaultStore(5, 1);
  main.form(1, 1)
      .oneOf(ifr::OneOf(1, 1, 1).store(1, 0).option(1, 1).option(1, 2, EFI_IFR_OPTION_DEFAULT)
                 .option(1, 3, EFI_IFR_OPTION_DEFAULT_MFG))
      .numeric(ifr::Numeric(2, 1, 1, Width::U16).store(1, 2).defaultValue(0x1234).defaultValue(0x5678, 5))
      .checkbox(ifr::Checkbox(3, 1, 1).store(1, 4).defaultOn())
      .oneOf(ifr::OneOf(4, 1, 1).store(1, 6).option(1, 7, EFI_IFR_OPTION_DEFAULT).defaultValue(8))  // record wins
      .numeric(ifr::Numeric(5, 1, 1, Width::U32).store(1, 8).defaultExpression(ifr::number(4)))     // left out
      .orderedList(ifr::OrderedList(6, 1, 1, Width::U8, 3).store(1, 12).option(1, 1).option(1, 2).option(1, 3)
                       .defaultValue({3, 1, 2}))
      .numeric(ifr::Numeric(7, 1, 1).store(3, 0).defaultValue(9))                // the other name
      .numeric(ifr::Numeric(8, 1, 1).store(2, 1).defaultValue(0x44, 1))          // the variable store
      .numeric(ifr::Numeric(9, 1, 1, Width::U16).store(1, 15).defaultValue(1));  // past the end of the store
  extra.varStore(4, kBufferGuid, "Setup", 16).defaultStore(6, 1);
  extra.form(1, 1).numeric(ifr::Numeric(1, 1, 1).store(4, 14).defaultValue(0x11).defaultValue(0xee, 6));
  device_->addPackageList(hii::buildPackageList(guidNumber(3), {main.package(), extra.package()}));

  auto alt = [](const std::u16string& hdr, const char16_t* id, const std::u16string& blocks) {
    return u"&" + hdr + u"&ALTCFG=" + id + blocks;
  };
  const std::u16string bufferDefaults =
      u"&OFFSET=0000&WIDTH=0010&VALUE=0f0e0d0c0b0a09080706050403020100" +
      alt(bufferHdr_, u"0000",
          u"&OFFSET=0000&WIDTH=0001&VALUE=02&OFFSET=0002&WIDTH=0002&VALUE=1234&OFFSET=0004&WIDTH=0001&VALUE=01"
          u"&OFFSET=0006&WIDTH=0001&VALUE=08&OFFSET=000c&WIDTH=0003&VALUE=020103&OFFSET=000e&WIDTH=0001&VALUE=11") +
      alt(bufferHdr_, u"0001", u"&OFFSET=0000&WIDTH=0001&VALUE=03&OFFSET=0004&WIDTH=0001&VALUE=00") +
      alt(bufferHdr_, u"0005", u"&OFFSET=0002&WIDTH=0002&VALUE=5678") +
      alt(bufferHdr_, u"0006", u"&OFFSET=000e&WIDTH=0001&VALUE=ee");
  ASSERT_EQ(extract(nullptr, results_, progress_), EFI_SUCCESS);
  EXPECT_EQ(hii::toAscii(results_),
            hii::toAscii(bufferHdr_ + bufferDefaults + u"&" + variableHdr_ + u"&OFFSET=0000&WIDTH=0004&VALUE=ddccbbaa" +
                         alt(variableHdr_, u"0000", u"") +
                         alt(variableHdr_, u"0001", u"&OFFSET=0001&WIDTH=0001&VALUE=44") +
                         alt(variableHdr_, u"0005", u"")));

  // A header alone: that store with its defaults, under the header as the request wrote it.
  std::u16string upper = bufferHdr_;
  for (char16_t& c : upper) c = c >= u'a' && c <= u'f' ? char16_t(c - u'a' + u'A') : c;
  ASSERT_EQ(extract(&upper, results_, progress_), EFI_SUCCESS);
  std::u16string expected = upper + bufferDefaults;
  for (size_t at = 0; (at = expected.find(bufferHdr_, at)) != std::u16string::npos;) expected.replace(at, bufferHdr_.size(), upper);
  EXPECT_EQ(hii::toAscii(results_), hii::toAscii(expected));
}

TEST_F(DeviceTest, RoutedValuesReachBothStores) {
  const std::u16string toBuffer = bufferHdr_ + u"&OFFSET=0004&WIDTH=0002&VALUE=beef&OFFSET=8&WIDTH=8&VALUE=0000000000420041";
  ASSERT_EQ(route(toBuffer, progress_), EFI_SUCCESS);
  EXPECT_EQ(progress_, toBuffer.size());
  EXPECT_EQ(buffer(), (std::vector<uint8_t>{0, 1, 2, 3, 0xef, 0xbe, 6, 7, 0x41, 0, 0x42, 0, 0, 0, 0, 0}));
  ASSERT_EQ(route(variableHdr_ + u"&OFFSET=1&WIDTH=2&VALUE=1", progress_), EFI_SUCCESS);
  std::vector<uint8_t> variable;
  ASSERT_EQ(platform().getVariable(kVariableName, kVariableGuid, &variable), EFI_SUCCESS);
  EXPECT_EQ(variable, (std::vector<uint8_t>{0xAA, 0x01, 0x00, 0xDD}));

  // What is set behind the device's back comes back from ExtractConfig.
  const UINT32 attributes = EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS;
  ASSERT_EQ(platform().setVariable(kVariableName, kVariableGuid, attributes, {1, 2, 3, 4, 5, 6}), EFI_SUCCESS);
  ASSERT_EQ(extract(&variableHdr_, results_, progress_), EFI_SUCCESS);
  EXPECT_EQ(results_, variableHdr_ + u"&OFFSET=0000&WIDTH=0006&VALUE=060504030201");
  ASSERT_EQ(platform().setVariable(kVariableName, kVariableGuid, 0, {}), EFI_SUCCESS);  // deleted
  EXPECT_EQ(extract(&variableHdr_, results_, progress_), EFI_NOT_FOUND);
}

// The configuration that routes to what `request` reads: each block with a zero value as wide as the block.
std::u16string withZeroValues(std::u16string text) {
  for (size_t at = 0; (at = text.find(u"&WIDTH=", at)) != std::u16string::npos; ++at) {
    const size_t end = std::min(text.find(u'&', at + 1), text.size());
    const size_t width = std::stoul(hii::toAscii(text.substr(at + 7, end - at - 7)), nullptr, 16);
    text.insert(end, u"&VALUE=" + std::u16string(2 * width, u'0'));
  }
  return text;
}

// Progress at the first occurrence of progressAt; empty: at the start. Syntax errors are the parser's (its own
// tests go through them); one shows that its Progress is passed on.
TEST_F(DeviceTest, RefusalsSetProgressAndChangeNothing) {
  Device other(platform(), hii(), hii::DevicePathBuilder().pciRoot(0).pci(0x1c, 1).build());
  other.addBufferStorage(kBufferGuid, kBufferName, counting());
  const struct { std::u16string request; EFI_STATUS status; std::u16string progressAt; } cases[] = {
      {bufferHdr_ + u"&OFFSET=1z&WIDTH=1", EFI_INVALID_PARAMETER, u"&OFFSET"},
      {bufferHdr_ + u"&OFFSET=000f&WIDTH=0002", EFI_INVALID_PARAMETER, u"&OFFSET"},  // past the end of the store
      {bufferHdr_ + u"&OFFSET=0&WIDTH=1&OFFSET=0010&WIDTH=1", EFI_INVALID_PARAMETER, u"&OFFSET=0010"},
      {bufferHdr_ + u"&OFFSET=ffffffffffffffff&WIDTH=2", EFI_INVALID_PARAMETER, u"&OFFSET"},  // wraps
      {hii::configHdr(kBufferGuid, u"Setuq", path_) + u"&OFFSET=0&WIDTH=1", EFI_NOT_FOUND, u""},
      {hii::configHdr(kVariableGuid, kBufferName, path_) + u"&OFFSET=0&WIDTH=1", EFI_NOT_FOUND, u""},
      {other.configHdr(kBufferGuid, kBufferName) + u"&OFFSET=0&WIDTH=1", EFI_NOT_FOUND, u""},  // another device
  };
  for (const auto& c : cases) {
    const std::u16string configuration = withZeroValues(c.request);
    for (const std::u16string* text : {&c.request, &configuration}) {
      const bool routing = text == &configuration;
      SCOPED_TRACE((routing ? "route " : "extract ") + hii::toAscii(*text));
      results_ = u"untouched";
      progress_ = 99;
      EXPECT_EQ(routing ? route(*text, progress_) : extract(text, results_, progress_), c.status);
      EXPECT_EQ(progress_, c.progressAt.empty() ? 0 : text->find(c.progressAt));
      EXPECT_EQ(results_, u"untouched");
      EXPECT_EQ(buffer(), counting());
    }
  }
}

TEST_F(DeviceTest, ExtractResultsComeFromThePool) {
  const std::u16string request = bufferHdr_ + u"&OFFSET=0&WIDTH=4";
  EFI_STRING results = nullptr, progress = nullptr;
  sweepAllocationFailures([&] { return access()->ExtractConfig(access(), request.c_str(), &progress, &results); },
                          [&](EFI_STATUS status, size_t) {
                            EXPECT_EQ(status, EFI_OUT_OF_RESOURCES);
                            EXPECT_EQ(results, nullptr);
                          },
                          [&] { results ? (void)bs()->FreePool(results) : void(), results = nullptr; });
}

TEST_F(DeviceTest, RouteFilterRefusesBeforeAnythingIsWritten) {
  // A driver that will not take an all-zero word but takes a zero byte.
  device_->setRouteConfigFilter([](const std::u16string& text) {
    return text.find(u"&WIDTH=0002&VALUE=0000") != std::u16string::npos ? EFI_INVALID_PARAMETER : EFI_SUCCESS;
  });
  progress_ = 9;
  EXPECT_EQ(route(bufferHdr_ + u"&OFFSET=0006&WIDTH=0002&VALUE=0000", progress_), EFI_INVALID_PARAMETER);
  EXPECT_EQ(progress_, 0u);
  EXPECT_EQ(buffer(), counting());
  EXPECT_EQ(route(bufferHdr_ + u"&OFFSET=0006&WIDTH=1&VALUE=00", progress_), EFI_SUCCESS);
  EXPECT_EQ(buffer()[6], 0);
}

TEST_F(DeviceTest, PackageListsBelongToTheDeviceHandle) {
  EFI_HII_HANDLE h = device_->addPackageList(hii::buildPackageList(guidNumber(1), {hii::buildStringPackage("en-US", {u"NIC"})}));
  EFI_HANDLE owner = nullptr;
  ASSERT_EQ(db()->GetPackageListHandle(db(), h, &owner), EFI_SUCCESS);
  EXPECT_EQ(owner, device_->handle());
  std::vector<EFI_HII_HANDLE> withPath;
  ASSERT_EQ(listAll(withPath, EFI_HII_PACKAGE_DEVICE_PATH), EFI_SUCCESS);
  EXPECT_EQ(withPath, std::vector<EFI_HII_HANDLE>{h});
  device_.reset();
  EXPECT_TRUE(hii().handles().empty());
  EXPECT_THROW(Device(platform(), hii(), {0x7f, 0xff, 0x02, 0x00}), std::invalid_argument);
}

}  // namespace
