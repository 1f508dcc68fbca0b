// The sample device: default configurations from the device's forms in its whole-store answers, pool results, and
// the device's HII registration. (Every other request and configuration is answered exactly as the sample-device
// image's own implementation answers it: tests/firmware.)
#include <gtest/gtest.h>

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

  std::vector<uint8_t> path_ = hii::DevicePathBuilder().pciRoot(0).pci(0x1c, 0).mac({0, 0x11, 0x22, 0x33, 0x44, 0x55}).build();
  std::unique_ptr<Device> device_;
  std::u16string bufferHdr_, variableHdr_, results_;
  size_t progress_ = 0;
};

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
  ASSERT_EQ(platform().setVariable(kVariableName, kVariableGuid, 0, {}), EFI_SUCCESS);  // a deleted variable store
  EXPECT_EQ(extract(&variableHdr_, results_, progress_), EFI_NOT_FOUND);
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

// (The lists' owner handle is read by every export of a sample device.)
TEST_F(DeviceTest, PackageListsCarryTheDevicePathAndGoWithTheDevice) {
  EFI_HII_HANDLE h = device_->addPackageList(hii::buildPackageList(guidNumber(1), {hii::buildStringPackage("en-US", {u"NIC"})}));
  std::vector<EFI_HII_HANDLE> withPath;
  ASSERT_EQ(listAll(withPath, EFI_HII_PACKAGE_DEVICE_PATH), EFI_SUCCESS);
  EXPECT_EQ(withPath, std::vector<EFI_HII_HANDLE>{h});
  device_.reset();
  EXPECT_TRUE(hii().handles().empty());
  EXPECT_THROW(Device(platform(), hii(), {0x7f, 0xff, 0x02, 0x00}), std::invalid_argument);
}

}  // namespace
