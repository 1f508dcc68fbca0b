// The device-location service: registration, lookups with the UEFI text
// form of device paths, refusals, allocation failures and unload.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/hii/device_path.h"
#include "tests/support/fixture.h"
#include "uefi/services.h"

namespace hii = tvl::host::hii;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr EFI_GUID kVendor = {0x3f0a1b2c, 0x4d5e, 0x4f60, {0x81, 0x92, 0xa3, 0xb4, 0xc5, 0xd6, 0xe7, 0xf8}};

const EFI_DEVICE_PATH_PROTOCOL* dp(const Bytes& b) { return reinterpret_cast<const EFI_DEVICE_PATH_PROTOCOL*>(b.data()); }

struct Entry {  // text: the device path in UEFI text form
  const char* name; Bytes path; std::u16string fqdd, description, text;
};

std::vector<Entry> entries() {
  return {
      {"NIC port", hii::DevicePathBuilder().pciRoot(0).pci(0x1c, 0).mac({0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc}).build(),
       u"NIC.Integrated.1-1-1", u"Integrated NIC 1 Port 1 Partition 1",
       u"PciRoot(0x0)/Pci(0x1C,0x0)/MAC(001122AABBCC,0x1)"},
      {"BIOS setup", hii::DevicePathBuilder().vendorHardware(kVendor).build(), u"BIOS.Setup.1-1", u"BIOS Setup",
       u"VenHw(3F0A1B2C-4D5E-4F60-8192-A3B4C5D6E7F8)"},
      {"SATA disk", hii::DevicePathBuilder().pcieRoot(1).pci(2, 1).sata(0, 0xffff, 0).build(),
       u"Disk.Bay.0:Enclosure.Internal.0-1", u"Disk 0 in Bay 0", u"PcieRoot(0x1)/Pci(0x2,0x1)/Sata(0x0,0xFFFF,0x0)"},
      {"NVMe namespace", hii::DevicePathBuilder().pciRoot(0).pci(3, 0).nvme(1, 0x0011223344556677ull).build(),
       u"Disk.Direct.0-0:PCIeSSD.Slot.3", u"PCIe SSD in Slot 3", u"PciRoot(0x0)/Pci(0x3,0x0)/NVMe(0x1,00-11-22-33-44-55-66-77)"},
      {"other ACPI device and an unknown node",
       hii::DevicePathBuilder().acpi(hii::eisaPnpId(0x0501), 2).node(MEDIA_DEVICE_PATH, 9, {1, 2}).build(),
       u"Serial.1", u"COM 3", u"Acpi(PNP0501,0x2)/Path(4,9,0102)"},
      {"known node of the wrong length",
       hii::DevicePathBuilder().node(HARDWARE_DEVICE_PATH, HW_PCI_DP, {0x1c, 0, 0}).node(0x05, 0x01, {}).build(),
       u"Odd.1", u"odd", u"Path(1,1,1C0000)/Path(5,1)"},
  };
}

class LocationTest : public tvl::test::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    image_ = load("location_service");
    loc_ = locate<DEVICE_LOCATION_PROTOCOL>(gDeviceLocationProtocolGuid);
    ASSERT_NE(loc_, nullptr);
  }
  // Unloading frees the table: every test's leak check sees it.
  void TearDown() override {
    EXPECT_EQ(platform().unloadImage(image_), EFI_SUCCESS);
    PlatformTest::TearDown();
  }

  EFI_STATUS reg(const Entry& e) {
    return loc_->RegisterLocation(loc_, dp(e.path), e.fqdd.c_str(), e.description.c_str());
  }

  struct Texts { std::u16string description, fqdd, path; };
  // DevicePathToLocationText; the three texts are copied and freed.
  EFI_STATUS lookup(const Bytes& path, Texts& out, const CHAR8* language = "en-US") {
    CHAR16 *d = nullptr, *f = nullptr, *t = nullptr;
    EFI_STATUS status = loc_->DevicePathToLocationText(loc_, dp(path), language, &d, &f, &t);
    for (auto [text, target] : {std::pair{d, &out.description}, {f, &out.fqdd}, {t, &out.path}})
      if (text) *target = text, bs()->FreePool(text);
    return status;
  }

  EFI_HANDLE image_ = nullptr;
  DEVICE_LOCATION_PROTOCOL* loc_ = nullptr;
};

TEST_F(LocationTest, LookupsGiveTheRegisteredTexts) {
  for (const Entry& e : entries()) ASSERT_EQ(reg(e), EFI_SUCCESS) << e.name;
  for (const Entry& e : entries()) {
    SCOPED_TRACE(e.name);
    Texts texts;
    ASSERT_EQ(lookup(e.path, texts), EFI_SUCCESS);
    EXPECT_TRUE(texts.fqdd == e.fqdd && texts.description == e.description);
    EXPECT_EQ(texts.path, e.text);
  }
  // Texts are not localised: any language gets the same answer.
  Texts texts;
  ASSERT_EQ(lookup(entries()[0].path, texts, "x-UEFI"), EFI_SUCCESS);
  EXPECT_EQ(texts.fqdd, entries()[0].fqdd);
  // Only the exact path matches.
  auto nicPath = [] { return hii::DevicePathBuilder().pciRoot(0).pci(0x1c, 0); };
  const Bytes unknown[] = {nicPath().mac({0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcd}).build(), nicPath().build(),
                           nicPath().mac({0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc}).pci(0, 0).build()};
  for (const Bytes& path : unknown) {
    CHAR16* sentinel = reinterpret_cast<CHAR16*>(uintptr_t(8));
    CHAR16 *d = sentinel, *f = sentinel, *t = sentinel;
    EXPECT_EQ(loc_->DevicePathToLocationText(loc_, dp(path), "en-US", &d, &f, &t), EFI_NOT_FOUND);
    EXPECT_TRUE(d == sentinel && f == sentinel && t == sentinel);
  }
  Bytes trailing = entries()[0].path;
  trailing.insert(trailing.end(), {0xde, 0xad});  // bytes after the end node are not part of the path
  EXPECT_EQ(lookup(trailing, texts), EFI_SUCCESS);
}

TEST_F(LocationTest, MalformedOrMissingArgumentsAreRefused) {
  const Entry nic = entries()[0];
  ASSERT_EQ(reg(nic), EFI_SUCCESS);
  Bytes shortNode = {0x01, 0x01, 0x02, 0x00, 0x7f, 0xff, 0x04, 0x00};
  Bytes endless;
  while (endless.size() <= 0x10000) endless.insert(endless.end(), {0x01, 0x01, 0x06, 0x00, 0x00, 0x1c});
  CHAR16 *d = nullptr, *f = nullptr, *t = nullptr;
  struct {
    DEVICE_LOCATION_PROTOCOL protocol;
    UINT64 rest[8];
  } impostor = {*loc_, {}};
  const std::u16string tooLong(1025, u'x');
  const struct {  // fqdd: for RegisterLocation
    const char* name; DEVICE_LOCATION_PROTOCOL* self; const EFI_DEVICE_PATH_PROTOCOL* path; const CHAR8* language;
    CHAR16** out; const CHAR16* fqdd;
  } cases[] = {
      {"node shorter than its header", loc_, dp(shortNode), "en-US", &f, u"X.1"},
      {"no end node within the limit", loc_, dp(endless), "en-US", &f, u"X.1"},
      {"null path", loc_, nullptr, "en-US", &f, u"X.1"},
      {"null language, no FQDD", loc_, dp(nic.path), nullptr, &f, nullptr},
      {"null output, empty FQDD", loc_, dp(nic.path), "en-US", nullptr, u""},
      {"not the service's instance, FQDD too long", &impostor.protocol, dp(nic.path), "en-US", &f, tooLong.c_str()},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(loc_->DevicePathToLocationText(c.self, c.path, c.language, &d, c.out, &t), EFI_INVALID_PARAMETER);
    EXPECT_EQ(f, nullptr);
    EXPECT_EQ(loc_->RegisterLocation(loc_, c.path, c.fqdd, u""), EFI_INVALID_PARAMETER);
  }
  EFI_DEVICE_PATH_PROTOCOL* path = nullptr;
  EXPECT_EQ(loc_->LocationTextToDevicePath(loc_, nullptr, &path), EFI_INVALID_PARAMETER);
  EXPECT_EQ(loc_->LocationTextToDevicePath(loc_, nic.fqdd.c_str(), nullptr), EFI_INVALID_PARAMETER);
}

TEST_F(LocationTest, AllocationFailuresLeaveNothingBehind) {
  const Entry nic = entries()[0];
  const Entry disk = entries()[3];
  ASSERT_EQ(reg(nic), EFI_SUCCESS);
  // A failed registration changes nothing, for a new path or a known one.
  const size_t outstanding = platform().poolStats().outstanding;
  platform().failAllocation(1);
  EXPECT_EQ(reg(disk), EFI_OUT_OF_RESOURCES);
  platform().failAllocation(1);
  EXPECT_EQ(loc_->RegisterLocation(loc_, dp(nic.path), u"NIC.Renamed.1", u""), EFI_OUT_OF_RESOURCES);
  platform().clearAllocationFaults();
  EXPECT_EQ(platform().poolStats().outstanding, outstanding);
  Texts texts;
  EXPECT_EQ(lookup(disk.path, texts), EFI_NOT_FOUND);
  ASSERT_EQ(lookup(nic.path, texts), EFI_SUCCESS);
  EXPECT_EQ(texts.fqdd, nic.fqdd);

  // (DevicePathToLocationText's allocation failures: the export's sweep.)
  EFI_DEVICE_PATH_PROTOCOL* path = nullptr;
  sweepAllocationFailures(
      [&] { return loc_->LocationTextToDevicePath(loc_, nic.fqdd.c_str(), &path); },
      [&](EFI_STATUS status, size_t) {
        EXPECT_EQ(status, EFI_OUT_OF_RESOURCES);
        EXPECT_EQ(path, nullptr);
      },
      [&] {
        if (path) bs()->FreePool(path), path = nullptr;
      });
}

}  // namespace
