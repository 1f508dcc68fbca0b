// The sample device's configuration access: ExtractConfig and RouteConfig
// over a buffer store and an EFI variable store, with the statuses and
// Progress positions of the UEFI specification, atomic routing, pool
// results, and the device's HII registration.
#include <gtest/gtest.h>

#include "host/devices/device.h"
#include "host/hii/config_string.h"
#include "tests/host/hii/hii_test_support.h"

namespace hii = tvl::host::hii;
using tvl::host::devices::Device;
using namespace tvl::test::hii;

namespace {

constexpr EFI_GUID kBufferGuid = {0x0b5e7a11, 0x2c3d, 0x4e5f, {0xa1, 0xb2, 0xc3, 0xd4, 0xe5, 0xf6, 0x07, 0x18}};
constexpr EFI_GUID kVariableGuid = {0x1d2c3b4a, 0x5e6f, 0x4a0b, {0x8c, 0x9d, 0xae, 0xbf, 0xc0, 0xd1, 0xe2, 0xf3}};
const std::u16string kBufferName = u"Setup";
const std::u16string kVariableName = u"NicCfg";

std::vector<uint8_t> counting(size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = uint8_t(i);
  return v;
}

class DeviceTest : public HiiTest {
 protected:
  void SetUp() override {
    HiiTest::SetUp();
    path_ = hii::DevicePathBuilder().pciRoot(0).pci(0x1c, 0).mac({0x00, 0x11, 0x22, 0x33, 0x44, 0x55}).build();
    device_ = std::make_unique<Device>(platform(), hii(), path_);
    device_->addBufferStorage(kBufferGuid, kBufferName, counting(16));
    device_->addVariableStorage(kVariableGuid, kVariableName, {0xAA, 0xBB, 0xCC, 0xDD});
    bufferHdr_ = device_->configHdr(kBufferGuid, kBufferName);
    variableHdr_ = device_->configHdr(kVariableGuid, kVariableName);
  }
  void TearDown() override {
    device_.reset();
    HiiTest::TearDown();
  }

  EFI_HII_CONFIG_ACCESS_PROTOCOL* access() { return device_->configAccess(); }

  // ExtractConfig; the result is copied and its pool buffer freed.
  EFI_STATUS extract(const std::u16string* request, std::u16string& results, size_t& progress) {
    EFI_STRING progressPtr = nullptr;
    EFI_STRING resultsPtr = nullptr;
    const CHAR16* text = request ? request->c_str() : nullptr;
    EFI_STATUS status = access()->ExtractConfig(access(), text, &progressPtr, &resultsPtr);
    progress = progressPtr ? size_t(progressPtr - text) : SIZE_MAX;
    if (resultsPtr) {
      results = resultsPtr;
      bs()->FreePool(resultsPtr);
    }
    return status;
  }
  EFI_STATUS route(const std::u16string& configuration, size_t& progress) {
    EFI_STRING progressPtr = nullptr;
    EFI_STATUS status = access()->RouteConfig(access(), configuration.c_str(), &progressPtr);
    progress = size_t(progressPtr - configuration.c_str());
    return status;
  }

  std::vector<uint8_t> path_;
  std::unique_ptr<Device> device_;
  std::u16string bufferHdr_, variableHdr_;
};

TEST_F(DeviceTest, ExtractAnswersWholeStoresOrTheRequestedFields) {
  const std::u16string wholeBuffer = u"&OFFSET=0000&WIDTH=0010&VALUE=0f0e0d0c0b0a09080706050403020100";
  const std::u16string wholeVariable = u"&OFFSET=0000&WIDTH=0004&VALUE=ddccbbaa";
  struct Case {
    const char* name;
    bool nullRequest;
    std::u16string request;
    std::u16string results;
  } cases[] = {
      {"no request: every store", true, u"", bufferHdr_ + wholeBuffer + u"&" + variableHdr_ + wholeVariable},
      {"fields of the buffer store", false, bufferHdr_ + u"&OFFSET=2&WIDTH=2&OFFSET=000C&WIDTH=0004",
       bufferHdr_ + u"&OFFSET=2&WIDTH=2&VALUE=0302&OFFSET=000C&WIDTH=0004&VALUE=0f0e0d0c"},
      {"last byte of the variable store", false, variableHdr_ + u"&OFFSET=3&WIDTH=1",
       variableHdr_ + u"&OFFSET=3&WIDTH=1&VALUE=dd"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::u16string results;
    size_t progress = 0;
    ASSERT_EQ(extract(c.nullRequest ? nullptr : &c.request, results, progress), EFI_SUCCESS);
    EXPECT_EQ(results, c.results);
    EXPECT_EQ(progress, c.nullRequest ? SIZE_MAX : c.request.size());
  }
}

TEST_F(DeviceTest, RoutedValuesReachBothStores) {
  size_t progress = 0;
  const std::u16string toBuffer = bufferHdr_ + u"&OFFSET=0004&WIDTH=0002&VALUE=beef&OFFSET=8&WIDTH=8&VALUE=0000000000420041";
  ASSERT_EQ(route(toBuffer, progress), EFI_SUCCESS);
  EXPECT_EQ(progress, toBuffer.size());
  std::vector<uint8_t> expected = counting(16);
  expected[4] = 0xef;
  expected[5] = 0xbe;
  const uint8_t ab[] = {0x41, 0, 0x42, 0, 0, 0, 0, 0};
  std::copy(ab, ab + 8, expected.begin() + 8);
  EXPECT_EQ(device_->storage(kBufferGuid, kBufferName), expected);

  ASSERT_EQ(route(variableHdr_ + u"&OFFSET=1&WIDTH=2&VALUE=1", progress), EFI_SUCCESS);
  std::vector<uint8_t> variable;
  ASSERT_EQ(platform().getVariable(kVariableName, kVariableGuid, &variable), EFI_SUCCESS);
  EXPECT_EQ(variable, (std::vector<uint8_t>{0xAA, 0x01, 0x00, 0xDD}));

  // What was routed, or set behind the device's back, comes back from ExtractConfig.
  std::u16string request = bufferHdr_ + u"&OFFSET=0004&WIDTH=0002", results;
  ASSERT_EQ(extract(&request, results, progress), EFI_SUCCESS);
  EXPECT_EQ(results, request + u"&VALUE=beef");
  ASSERT_EQ(platform().setVariable(kVariableName, kVariableGuid,
                                   EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS, {1, 2, 3, 4, 5, 6}),
            EFI_SUCCESS);
  ASSERT_EQ(extract(&variableHdr_, results, progress), EFI_SUCCESS);
  EXPECT_EQ(results, variableHdr_ + u"&OFFSET=0000&WIDTH=0006&VALUE=060504030201");
  ASSERT_EQ(platform().setVariable(kVariableName, kVariableGuid, 0, {}), EFI_SUCCESS);  // deleted
  EXPECT_EQ(extract(&variableHdr_, results, progress), EFI_NOT_FOUND);
}

struct Refusal {
  const char* name;
  std::u16string body;  // appended to the buffer store's header unless `whole`
  bool whole;
  EFI_STATUS status;
  std::u16string progressAt;  // first occurrence; empty: start of the string
};

std::vector<Refusal> refusals(bool routing) {
  const std::u16string v = routing ? u"&VALUE=00" : u"";
  const std::u16string v2 = routing ? u"&VALUE=0000" : u"";
  return {
      {"unknown GUID", u"GUID=00000000000000000000000000000000&NAME=0053&PATH=7fff0400", true, EFI_NOT_FOUND, u""},
      {"bad digit in OFFSET", u"&OFFSET=1z&WIDTH=1" + v, false, EFI_INVALID_PARAMETER, u"&OFFSET"},
      {"field past the end of the store", u"&OFFSET=000f&WIDTH=0002" + v2, false, EFI_INVALID_PARAMETER, u"&OFFSET"},
      {"second field past the end", u"&OFFSET=0&WIDTH=1" + v + u"&OFFSET=0010&WIDTH=1" + v, false,
       EFI_INVALID_PARAMETER, u"&OFFSET=0010"},
      {"offset that wraps around", u"&OFFSET=ffffffffffffffff&WIDTH=2" + v2, false, EFI_INVALID_PARAMETER,
       u"&OFFSET"},
      {"unknown field", u"&OFFSET=0&WIDTH=1" + v + u"&LABEL=1", false, EFI_INVALID_PARAMETER, u"&LABEL"},
  };
}

TEST_F(DeviceTest, RefusalsSetStatusAndProgressAndChangeNothing) {
  for (bool routing : {false, true}) {
    std::vector<Refusal> cases = refusals(routing);
    if (routing) {
      cases.push_back({"VALUE missing", u"&OFFSET=0&WIDTH=1", false, EFI_INVALID_PARAMETER, u"&WIDTH"});
      cases.push_back({"VALUE wider than WIDTH", u"&OFFSET=0&WIDTH=1&VALUE=123", false, EFI_INVALID_PARAMETER,
                       u"&VALUE"});
    } else {
      cases.push_back({"VALUE in a request", u"&OFFSET=0&WIDTH=1&VALUE=00", false, EFI_INVALID_PARAMETER, u"&VALUE"});
    }
    for (const Refusal& c : cases) {
      SCOPED_TRACE(std::string(routing ? "route: " : "extract: ") + c.name);
      const std::u16string text = c.whole ? c.body : bufferHdr_ + c.body;
      std::u16string results = u"untouched";
      size_t progress = 0;
      EXPECT_EQ(routing ? route(text, progress) : extract(&text, results, progress), c.status);
      EXPECT_EQ(progress, c.progressAt.empty() ? 0 : text.find(c.progressAt));
      EXPECT_EQ(results, u"untouched");
      EXPECT_EQ(device_->storage(kBufferGuid, kBufferName), counting(16));
    }
  }
}

TEST_F(DeviceTest, HeadersOfOtherStoresOrDevicesAreNotFound) {
  Device other(platform(), hii(), hii::DevicePathBuilder().pciRoot(0).pci(0x1c, 1).build());
  other.addBufferStorage(kBufferGuid, kBufferName, counting(16));
  const std::u16string cases[] = {
      hii::configHdr(kBufferGuid, u"Setuq", path_),            // NAME differs
      hii::configHdr(kVariableGuid, kBufferName, path_),        // GUID of the other store
      other.configHdr(kBufferGuid, kBufferName),               // same store on another device
  };
  for (const std::u16string& hdr : cases) {
    std::u16string request = hdr + u"&OFFSET=0&WIDTH=1", results;
    size_t progress = 99;
    EXPECT_EQ(extract(&request, results, progress), EFI_NOT_FOUND) << hii::toAscii(hdr);
    EXPECT_EQ(progress, 0u);
    EXPECT_EQ(route(request + u"&VALUE=ff", progress), EFI_NOT_FOUND);
    EXPECT_EQ(progress, 0u);
  }
}

TEST_F(DeviceTest, ExtractResultsComeFromThePool) {
  const std::u16string request = bufferHdr_ + u"&OFFSET=0&WIDTH=4";
  EFI_STRING results = nullptr;
  sweepAllocationFailures(
      [&] {
        EFI_STRING progress = nullptr;
        return access()->ExtractConfig(access(), request.c_str(), &progress, &results);
      },
      [&](EFI_STATUS status, size_t) {
        EXPECT_EQ(status, EFI_OUT_OF_RESOURCES);
        EXPECT_EQ(results, nullptr);
      },
      [&] {
        if (results) bs()->FreePool(results);
        results = nullptr;
      });
}

TEST_F(DeviceTest, RouteFilterRefusesBeforeAnythingIsWritten) {
  // A driver that will not take an all-zero word but takes a zero byte.
  device_->setRouteConfigFilter([](const std::u16string& text) {
    return text.find(u"&WIDTH=0002&VALUE=0000") != std::u16string::npos ? EFI_INVALID_PARAMETER : EFI_SUCCESS;
  });
  size_t progress = 9;
  EXPECT_EQ(route(bufferHdr_ + u"&OFFSET=0006&WIDTH=0002&VALUE=0000", progress), EFI_INVALID_PARAMETER);
  EXPECT_EQ(progress, 0u);
  EXPECT_EQ(device_->storage(kBufferGuid, kBufferName), counting(16));
  EXPECT_EQ(route(bufferHdr_ + u"&OFFSET=0006&WIDTH=1&VALUE=00", progress), EFI_SUCCESS);
  EXPECT_EQ(device_->storage(kBufferGuid, kBufferName)[6], 0);
}

TEST_F(DeviceTest, PackageListsBelongToTheDeviceHandle) {
  EFI_HII_HANDLE h = device_->addPackageList(
      hii::buildPackageList(guidNumber(1), {hii::buildStringPackage("en-US", {u"NIC"})}));
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
