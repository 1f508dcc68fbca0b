// The sample-device image on the host: it publishes the same devices as the
// host's sample platform (same documents), its configuration access answers
// every request exactly as the host's devices do, and it gives everything
// back on unload and on every failed allocation of its entry.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>

#include "host/hii/config_string.h"
#include "host/sample/sample_devices.h"
#include "host/sample/sample_platform.h"
#include "host/status.h"
#include "tests/firmware/firmware_support.h"
#include "tests/support/fixture.h"

namespace {

namespace hii = tvl::host::hii;
using tvl::host::Platform;
using tvl::host::sample::DeviceDescription;
using tvl::host::sample::SamplePlatform;
using tvl::host::sample::sampleDevices;
using tvl::test::firmware::combinedDocument;
using tvl::test::firmware::devicesWithPath;

constexpr char kImage[] = "sample_devices";

std::u16string hexNumber(uint64_t value) {
  char text[20];
  std::snprintf(text, sizeof text, "%llx", static_cast<unsigned long long>(value));
  return hii::toUtf16(text);
}

// ---------------------------------------------------------------- same devices

class SampleImageTest : public tvl::test::PlatformTest {
 protected:
  void TearDown() override {
    sample_.reset();
    PlatformTest::TearDown();
  }
  // The services and the HII database, with the host's sample devices or
  // none.
  void build(std::vector<DeviceDescription> devices) {
    sample_ = std::make_unique<SamplePlatform>(platform(), std::move(devices));
  }
  std::vector<EFI_HANDLE> published() { return platform().handlesWith(gEfiHiiConfigAccessProtocolGuid); }

  std::unique_ptr<SamplePlatform> sample_;
};

// Host devices and the image's devices side by side on one platform: each
// description has two handles with its path, and both export the same bytes.
TEST_F(SampleImageTest, PublishesTheDevicesOfTheHostsSamplePlatform) {
  build(sampleDevices());
  EFI_HANDLE driver = nullptr, image = nullptr;
  ASSERT_EQ(sample_->loadDriver(&driver), EFI_SUCCESS);
  ASSERT_EQ(platform().loadImage(kImage, &image), EFI_SUCCESS);
  for (const DeviceDescription& d : sampleDevices()) {
    SCOPED_TRACE(hii::toAscii(d.fqdd));
    const std::vector<EFI_HANDLE> handles = devicesWithPath(platform(), d.devicePath);
    ASSERT_EQ(handles.size(), 2u);
    const std::string host = combinedDocument(platform(), handles[0]);
    EXPECT_EQ(host.rfind("<ConfigData", 0), 0u) << host;
    EXPECT_EQ(combinedDocument(platform(), handles[1]), host);
  }
  skipLeakCheck();  // the driver's protocol record stays installed
}

// What an unload leaves: the sweep below (its run without faults unloads).
TEST_F(SampleImageTest, RegistersTheLocationOfEachDevice) {
  build({});
  load(kImage);
  DEVICE_LOCATION_PROTOCOL* location = sample_->location();
  for (const DeviceDescription& d : sampleDevices()) {
    EFI_DEVICE_PATH_PROTOCOL* path = nullptr;
    ASSERT_EQ(location->LocationTextToDevicePath(location, d.fqdd.c_str(), &path), EFI_SUCCESS);
    EXPECT_EQ(std::vector<uint8_t>(reinterpret_cast<uint8_t*>(path), reinterpret_cast<uint8_t*>(path) + d.devicePath.size()),
              d.devicePath);
    bs()->FreePool(path);
  }
  skipLeakCheck();  // the location entries stay with the service
}

TEST_F(SampleImageTest, AFailedEntryUndoesEveryDeviceItPublished) {
  build({});
  EFI_HANDLE image = load(kImage);
  ASSERT_EQ(platform().unloadImage(image), EFI_SUCCESS);
  // The sweep counts outstanding allocations after each failure, and after
  // a load that succeeds and its unload (a reload replaces the location
  // service's entries).
  skipLeakCheck();
  const size_t attempts = sweepAllocationFailures(
      [&] { return loadStatus(kImage, &image); },
      [&](EFI_STATUS status, size_t k) {
        EXPECT_EQ(status, EFI_OUT_OF_RESOURCES) << "attempt " << k;
        EXPECT_TRUE(published().empty()) << "attempt " << k;
        EXPECT_TRUE(sample_->hii().handles().empty()) << "attempt " << k;
      },
      [&] {
        if (!published().empty()) {
          EXPECT_EQ(platform().unloadImage(image), EFI_SUCCESS);
        }
      });
  EXPECT_GT(attempts, sampleDevices().size());
}

// ---------------------------------------------------------------- same answers

// One call of the configuration access and what came back.
struct Call {
  enum Kind { Extract, Route, ExtractWithoutProgress, ShrinkVariable };
  Call(Kind k, std::u16string t, bool null = false) : kind(k), text(std::move(t)), nullText(null) {}
  Kind kind;
  std::u16string text;
  bool nullText = false;
  // ShrinkVariable: the EFI variable store cut to its first byte behind the
  // device's back.
  std::u16string variable;
  EFI_GUID guid{};
  UINT32 attributes = 0;
};

struct Answer {
  std::string status;
  long progress = -2;  // -1: Progress null
  std::string results;
};

// Requests and configurations on one store of a device: whole and partial
// reads, every kind of syntax error and refusal, writes that apply and
// writes refused as a whole, each followed by a read of the store.
std::vector<Call> callsOnStore(const DeviceDescription& device, const tvl::host::sample::VarStoreDescription& store) {
  const std::string& name = store.name;
  const EFI_GUID& guid = store.guid;
  const uint64_t size = store.size;
  const std::u16string h = hii::configHdr(guid, hii::toUtf16(name), device.devicePath);
  const std::u16string wrongName = hii::configHdr(guid, hii::toUtf16(name + "x"), device.devicePath);
  const std::u16string guidAndName = h.substr(0, h.find(u"&PATH="));
  const std::u16string otherPath = guidAndName + u"&PATH=01041400" + h.substr(5, 32) + u"7fff0400";
  const std::u16string n = hexNumber(size), last = hexNumber(size - 1);
  std::vector<Call> calls = {{Call::Extract, u"", true}};
  std::u16string upper = h;
  for (char16_t& c : upper) c = c >= u'a' && c <= u'f' ? char16_t(c - u'a' + u'A') : c;
  for (const std::u16string& request :
       {h, upper, h + u"&OFFSET=0&WIDTH=1", h + u"&OFFSET=0&WIDTH=" + n + u"&OFFSET=" + last + u"&WIDTH=1",
        h + u"&OFFSET=" + last + u"&WIDTH=2", h + u"&OFFSET=" + n + u"&WIDTH=1",
        h + u"&OFFSET=0&WIDTH=1&OFFSET=ffffffffffffffff&WIDTH=2", h + u"&OFFSET=1z&WIDTH=1",
        h + u"&OFFSET=0&WIDTH=1&VALUE=00", h + u"&OFFSET=0&WIDTH=0", h + u"&OFFSET=0&WIDTH=1000001",
        h + u"&OFFSET=00000000000000000000001&WIDTH=1", h + u"&OFFSET=10000000000000000&WIDTH=1",
        h + u"&OFFSET=0&WIDTH=1&LABEL=1", h + u"&OFFSET=0&WIDTH=1&", h + u"&WIDTH=1",
        wrongName + u"&OFFSET=0&WIDTH=1", otherPath, guidAndName + u"&PATH=7fff04", guidAndName + u"&PATH=7fff0300",
        guidAndName + u"1&PATH=7fff0400", std::u16string(u"GUID=0123&NAME=0041&PATH=7fff0400"),
        std::u16string(u"NAME=0041")})
    calls.push_back({Call::Extract, request});
  calls.push_back({Call::ExtractWithoutProgress, h});
  calls.push_back({Call::Route, h + u"&OFFSET=0&WIDTH=1&VALUE=5a"});
  calls.push_back({Call::Extract, h});
  for (const std::u16string& configuration :
       {h + u"&OFFSET=" + last + u"&WIDTH=1&VALUE=7", h + u"&OFFSET=0&WIDTH=1&VALUE=123", h + u"&OFFSET=0&WIDTH=1",
        h + u"&OFFSET=0&WIDTH=1&VALUE=", h + u"&OFFSET=0&WIDTH=1&VALUE=01&OFFSET=" + n + u"&WIDTH=1&VALUE=02",
        otherPath + u"&OFFSET=0&WIDTH=1&VALUE=01"})
    calls.push_back({Call::Route, configuration});
  calls.push_back({Call::Route, u"", true});
  calls.push_back({Call::Extract, h});
  // Zero over a field wider than one byte, which the thermal store's driver
  // refuses (however few digits say it); one zero byte, or a wide non-zero
  // value, it takes.
  if (size >= 2) {
    for (const char16_t* blocks :
         {u"&OFFSET=0&WIDTH=2&VALUE=0000", u"&OFFSET=0&WIDTH=2&VALUE=0", u"&OFFSET=0&WIDTH=2&VALUE=10000",
          u"&OFFSET=0&WIDTH=1&VALUE=01&OFFSET=0&WIDTH=2&VALUE=00", u"&OFFSET=0&WIDTH=1&VALUE=00",
          u"&OFFSET=0&WIDTH=2&VALUE=0100"}) {
      calls.push_back({Call::Route, h + blocks});
      calls.push_back({Call::Extract, h});
    }
  }
  // Default fields that no longer fit a shorter variable are left out.
  if (store.efiVariable) {
    Call shrink{Call::ShrinkVariable, u""};
    shrink.variable = hii::toUtf16(name);
    shrink.guid = guid;
    shrink.attributes = store.attributes;
    calls.push_back(shrink);
    calls.push_back({Call::Extract, h});
    calls.push_back({Call::Extract, u"", true});
    calls.push_back({Call::Route, h + u"&OFFSET=1&WIDTH=1&VALUE=01"});
  }
  return calls;
}

struct Row { std::string fqdd; std::vector<uint8_t> devicePath; Call call; };
using Table = std::vector<Row>;

Table everyStoreOfEveryDevice() {
  Table table;
  for (const DeviceDescription& d : sampleDevices())
    for (const auto& formSet : d.formSets)
      for (const auto& store : formSet.varStores)
        for (Call& call : callsOnStore(d, store))
          table.push_back({hii::toAscii(d.fqdd), d.devicePath, std::move(call)});
  return table;
}

Answer callOnce(Platform& platform, EFI_HII_CONFIG_ACCESS_PROTOCOL* access, const Call& call) {
  const CHAR16* text = call.nullText ? nullptr : call.text.c_str();
  EFI_STRING progress = nullptr, results = nullptr;
  EFI_STATUS status;
  switch (call.kind) {
    case Call::ShrinkVariable: {
      std::vector<uint8_t> bytes;
      EXPECT_EQ(platform.getVariable(call.variable, call.guid, &bytes), EFI_SUCCESS);
      bytes.resize(1);
      status = platform.setVariable(call.variable, call.guid, call.attributes, bytes);
      break;
    }
    case Call::Route:
      status = access->RouteConfig(access, text, &progress);
      break;
    case Call::ExtractWithoutProgress:
      status = access->ExtractConfig(access, text, nullptr, &results);
      break;
    default:
      status = access->ExtractConfig(access, text, &progress, &results);
  }
  Answer answer{tvl::host::statusName(status), progress ? long(progress - text) : -1,
                results ? hii::toAscii(results) : "(no results)"};
  if (results) platform.bootServices()->FreePool(results);
  return answer;
}

// The answers of a fresh platform whose devices are the host's or the
// image's.
std::vector<Answer> answers(const Table& table, bool fromImage) {
  Platform platform;
  SamplePlatform sample(platform, fromImage ? std::vector<DeviceDescription>{} : sampleDevices());
  EFI_HANDLE image = nullptr;
  if (fromImage) {
    EXPECT_EQ(platform.loadImage(kImage, &image), EFI_SUCCESS);
  }
  std::vector<Answer> out;
  for (const Row& row : table) {
    const std::vector<EFI_HANDLE> handles = devicesWithPath(platform, row.devicePath);
    EXPECT_EQ(handles.size(), 1u);
    if (handles.size() != 1) return out;
    auto* access = static_cast<EFI_HII_CONFIG_ACCESS_PROTOCOL*>(
        platform.handleProtocol(handles[0], gEfiHiiConfigAccessProtocolGuid));
    out.push_back(callOnce(platform, access, row.call));
  }
  return out;
}

TEST(SampleImageConfigAccess, AnswersEveryRequestAsTheHostDevices) {
  const Table table = everyStoreOfEveryDevice();
  const std::vector<Answer> host = answers(table, false), image = answers(table, true);
  ASSERT_EQ(host.size(), table.size());
  ASSERT_EQ(image.size(), table.size());
  size_t succeeded = 0, refused = 0;
  for (size_t i = 0; i < table.size(); ++i) {
    const Call& call = table[i].call;
    SCOPED_TRACE(table[i].fqdd + (call.kind == Call::Route ? " route " : " extract/shrink ") +
                 (call.nullText ? "(null)" : hii::toAscii(call.text)));
    EXPECT_EQ(image[i].status, host[i].status);
    EXPECT_EQ(image[i].progress, host[i].progress);
    EXPECT_EQ(image[i].results, host[i].results);
    ++(host[i].status == "EFI_SUCCESS" ? succeeded : refused);
  }
  // The table reaches both kinds of answer on every store.
  EXPECT_GT(succeeded, table.size() / 4);
  EXPECT_GT(refused, table.size() / 2);
}

}  // namespace
