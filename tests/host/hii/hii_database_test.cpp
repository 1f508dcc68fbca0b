// EFI_HII_DATABASE_PROTOCOL through its function table: listing and owner
// lookup as the driver uses them, type filters, refusals of malformed
// package lists, export sizing and round trip, updates and notifications.
#include <gtest/gtest.h>

#include <functional>

#include "host/hii/config_string.h"
#include "tests/host/hii/hii_bytes.h"
#include "tests/host/hii/hii_test_support.h"

namespace hii = tvl::host::hii;
using namespace tvl::test::hii;

namespace {

Bytes simpleList(uint32_t n) {
  return hii::buildPackageList(guidNumber(n), {hii::buildStringPackage("en-US", {u"list " + hii::toUtf16(std::to_string(n))})});
}

Bytes guidPackage(const EFI_GUID& guid, std::vector<uint8_t> data = {}) {
  hii::ByteWriter w;
  w.guid(guid);
  w.raw(data);
  return hii::buildPackage(EFI_HII_PACKAGE_TYPE_GUID, w.bytes());
}

const EFI_HII_PACKAGE_LIST_HEADER* header(const ExactCopy& c) {
  return reinterpret_cast<const EFI_HII_PACKAGE_LIST_HEADER*>(c.data.get());
}

Bytes withLength(Bytes b) {
  for (int i = 0; i < 4; ++i) b[16 + i] = uint8_t(b.size() >> (8 * i));
  return b;
}

class HiiDatabaseTest : public HiiTest {};

TEST_F(HiiDatabaseTest, DriverHandleOwningSecondFifthAndSixthOfSixLists) {
  EFI_HANDLE device = newHandle();
  EFI_HANDLE other = newHandle();
  const EFI_HANDLE owners[] = {other, device, other, other, device, device};
  std::vector<EFI_HII_HANDLE> registered;
  for (uint32_t i = 0; i < 6; ++i) registered.push_back(add(simpleList(i), owners[i]));

  std::vector<EFI_HII_HANDLE> listed;
  ASSERT_EQ(listAll(listed), EFI_SUCCESS);
  ASSERT_EQ(listed, registered);
  std::vector<EFI_HII_HANDLE> ofDevice;
  for (EFI_HII_HANDLE h : listed) {
    EFI_HANDLE owner = nullptr;
    ASSERT_EQ(db()->GetPackageListHandle(db(), h, &owner), EFI_SUCCESS);
    if (owner == device) ofDevice.push_back(h);
  }
  EXPECT_EQ(ofDevice, (std::vector<EFI_HII_HANDLE>{registered[1], registered[4], registered[5]}));
}

TEST_F(HiiDatabaseTest, DatabaseWithoutListsAnswersNotFound) {
  std::vector<EFI_HII_HANDLE> listed;
  UINTN size = 1;
  uint8_t one = 0;
  EXPECT_EQ(db()->ListPackageLists(db(), EFI_HII_PACKAGE_TYPE_ALL, nullptr, &size,
                                   reinterpret_cast<EFI_HII_HANDLE*>(&one)),
            EFI_NOT_FOUND);
  EXPECT_EQ(size, 1u);
  size = 0;
  EXPECT_EQ(db()->ExportPackageLists(db(), nullptr, &size, nullptr), EFI_SUCCESS);
  EXPECT_EQ(size, 0u);
  EFI_HII_HANDLE h = add(simpleList(1), newHandle());
  EXPECT_EQ(listAll(listed), EFI_SUCCESS);
  ASSERT_EQ(db()->RemovePackageList(db(), h), EFI_SUCCESS);
  EXPECT_EQ(listAll(listed), EFI_NOT_FOUND);
  EXPECT_EQ(db()->RemovePackageList(db(), h), EFI_NOT_FOUND);
}

TEST_F(HiiDatabaseTest, ListingFiltersByPackageTypeAndGuid) {
  const EFI_GUID g1 = guidNumber(101), g2 = guidNumber(102), unused = guidNumber(103);
  auto forms = hii::buildPackage(EFI_HII_PACKAGE_FORMS, {0x0e, 0x00});
  EFI_HII_HANDLE strings = add(simpleList(1), newHandle());
  EFI_HII_HANDLE guid1 = add(hii::buildPackageList(guidNumber(3), {guidPackage(g1, {1, 2})}), newHandle());
  EFI_HII_HANDLE guid2 = add(hii::buildPackageList(guidNumber(4), {guidPackage(g2), forms}), newHandle());
  auto pathBytes = hii::DevicePathBuilder().pciRoot(0).pci(2, 0).build();
  EFI_HANDLE withPath = nullptr;
  ASSERT_EQ(platform().installProtocol(&withPath, EFI_GUID(EFI_DEVICE_PATH_PROTOCOL_GUID), pathBytes.data()),
            EFI_SUCCESS);
  EFI_HII_HANDLE located = add(simpleList(5), withPath);
  EFI_HII_HANDLE buffer[4];
  UINTN length = 0;
  EXPECT_EQ(db()->ListPackageLists(db(), EFI_HII_PACKAGE_TYPE_GUID, nullptr, &length, buffer), EFI_INVALID_PARAMETER);
  EXPECT_EQ(db()->ListPackageLists(db(), EFI_HII_PACKAGE_STRINGS, &g1, &length, buffer), EFI_INVALID_PARAMETER);
  EXPECT_EQ(db()->ListPackageLists(db(), EFI_HII_PACKAGE_TYPE_ALL, nullptr, nullptr, buffer), EFI_INVALID_PARAMETER);

  struct Case {
    UINT8 type;
    const EFI_GUID* guid;
    std::vector<EFI_HII_HANDLE> expected;  // empty: EFI_NOT_FOUND
  } cases[] = {
      {EFI_HII_PACKAGE_STRINGS, nullptr, {strings, located}},
      {EFI_HII_PACKAGE_FORMS, nullptr, {guid2}},
      {EFI_HII_PACKAGE_TYPE_GUID, &g1, {guid1}},
      {EFI_HII_PACKAGE_TYPE_GUID, &unused, {}},
      {EFI_HII_PACKAGE_DEVICE_PATH, nullptr, {located}},  // added for a handle with a device path
      {EFI_HII_PACKAGE_END, nullptr, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(int(c.type));
    std::vector<EFI_HII_HANDLE> listed;
    EXPECT_EQ(listAll(listed, c.type, c.guid), c.expected.empty() ? EFI_NOT_FOUND : EFI_SUCCESS);
    if (!c.expected.empty()) {
      EXPECT_EQ(listed, c.expected);
    }
  }
  hii().removePackageList(located);
  platform().uninstallProtocol(withPath, EFI_GUID(EFI_DEVICE_PATH_PROTOCOL_GUID), pathBytes.data());
}

TEST_F(HiiDatabaseTest, GetPackageListHandleStatuses) {
  EFI_HII_HANDLE anonymous = add(simpleList(2), nullptr);
  EFI_HII_HANDLE removed = add(simpleList(3), newHandle());
  ASSERT_EQ(hii().removePackageList(removed), EFI_SUCCESS);
  EFI_HANDLE owner = reinterpret_cast<EFI_HANDLE>(uintptr_t(1));
  EXPECT_EQ(db()->GetPackageListHandle(db(), anonymous, &owner), EFI_SUCCESS);
  EXPECT_EQ(owner, nullptr);
  EXPECT_EQ(db()->GetPackageListHandle(db(), removed, &owner), EFI_NOT_FOUND);
  EXPECT_EQ(db()->GetPackageListHandle(db(), nullptr, &owner), EFI_INVALID_PARAMETER);
  EXPECT_EQ(db()->GetPackageListHandle(db(), reinterpret_cast<EFI_HII_HANDLE>(uintptr_t(0x1234)), &owner),
            EFI_INVALID_PARAMETER);
}

TEST_F(HiiDatabaseTest, MalformedPackageListsAreRefusedAndLeaveNothingBehind) {
  const Bytes good = simpleList(7);
  const size_t stringsAt = sizeof(EFI_HII_PACKAGE_LIST_HEADER);
  const std::function<Bytes()> cases[] = {
      [&] { Bytes b = good; b[16] = 20; b[17] = b[18] = b[19] = 0; return b; },  // shorter than header + END
      [&] { Bytes b = good; b[stringsAt] = uint8_t(b[stringsAt] + 8); return b; },  // package past the list
      [&] { Bytes b = good; b.resize(b.size() - 4); return withLength(b); },  // no END package
      [&] { return hii::buildPackageList(guidNumber(8), {hii::buildPackage(EFI_HII_PACKAGE_STRINGS, {0x2e, 0, 0, 0})}); },
      [&] { return hii::buildPackageList(guidNumber(8), {stringPackage("en-US", {EFI_HII_SIBT_STRING_UCS2, 'a', 0})}); },
  };
  EFI_HII_HANDLE kept = add(simpleList(1), newHandle());
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(i);
    ExactCopy copy(cases[i]());
    EFI_HII_HANDLE handle = nullptr;
    EXPECT_EQ(db()->NewPackageList(db(), header(copy), nullptr, &handle), EFI_INVALID_PARAMETER);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(hii().handles(), std::vector<EFI_HII_HANDLE>{kept});
  }
  // The same GUID is refused for the same driver handle only.
  EFI_HANDLE a = newHandle();
  EFI_HII_HANDLE handle = nullptr;
  ASSERT_EQ(hii().addPackageList(simpleList(1), a, &handle), EFI_SUCCESS);
  EXPECT_EQ(hii().addPackageList(simpleList(1), a, &handle), EFI_INVALID_PARAMETER);
}

TEST_F(HiiDatabaseTest, ExportSizingAndContent) {
  const Bytes first = simpleList(1);
  const Bytes second = hii::buildPackageList(guidNumber(2), {hii::buildPackage(EFI_HII_PACKAGE_FORMS, {9, 9, 9})});
  EFI_HII_HANDLE h1 = add(first, nullptr);
  EFI_HII_HANDLE h2 = add(second, newHandle());
  const Bytes all = cat({first, second});
  struct Case {
    EFI_HII_HANDLE handle;
    UINTN size;
    EFI_STATUS status;
    const Bytes& content;
  } cases[] = {
      {h2, 0, EFI_BUFFER_TOO_SMALL, second},
      {h2, second.size() - 1, EFI_BUFFER_TOO_SMALL, second},
      {h2, second.size(), EFI_SUCCESS, second},
      {h1, first.size() + 10, EFI_SUCCESS, first},
      {nullptr, all.size() - 1, EFI_BUFFER_TOO_SMALL, all},
      {nullptr, all.size(), EFI_SUCCESS, all},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.size);
    UINTN size = c.size;
    Bytes buffer(size, 0xCC);
    ASSERT_EQ(db()->ExportPackageLists(db(), c.handle, &size,
                                       size ? reinterpret_cast<EFI_HII_PACKAGE_LIST_HEADER*>(buffer.data()) : nullptr),
              c.status);
    EXPECT_EQ(size, c.content.size());
    if (c.status == EFI_SUCCESS) {
      EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + size), c.content);
      for (size_t i = size; i < buffer.size(); ++i) ASSERT_EQ(buffer[i], 0xCC) << "written past the export at " << i;
    }
  }
  UINTN size = 8;
  EXPECT_EQ(db()->ExportPackageLists(db(), h1, &size, nullptr), EFI_INVALID_PARAMETER);
  ASSERT_EQ(hii().removePackageList(h1), EFI_SUCCESS);
  size = 0;
  EXPECT_EQ(db()->ExportPackageLists(db(), h1, &size, nullptr), EFI_NOT_FOUND);
}

TEST_F(HiiDatabaseTest, ExportAddsTheDriverHandlesDevicePathAndRoundTrips) {
  auto pathBytes = hii::DevicePathBuilder().pciRoot(0).pci(0x1c, 0).mac({0, 0x11, 0x22, 0x33, 0x44, 0x55}).build();
  EFI_HANDLE device = nullptr;
  ASSERT_EQ(platform().installProtocol(&device, EFI_GUID(EFI_DEVICE_PATH_PROTOCOL_GUID), pathBytes.data()),
            EFI_SUCCESS);
  add(hii::buildPackageList(guidNumber(1), {hii::buildStringPackage("en-US", {u"Port", u"Speed"}),
                                            hii::buildStringPackage("x-UEFI", {u"P", u"S"})}),
      device);
  add(simpleList(2), nullptr);
  Bytes exported;
  ASSERT_EQ(hii().exportPackageLists(nullptr, exported), EFI_SUCCESS);
  std::vector<hii::PackageListView> views;
  ASSERT_EQ(hii::parsePackageLists(exported.data(), exported.size(), views), EFI_SUCCESS);
  ASSERT_EQ(views.size(), 2u);
  ASSERT_EQ(views[0].packages.size(), 3u);
  const hii::PackageView& dp = views[0].packages.back();
  EXPECT_EQ(dp.type, EFI_HII_PACKAGE_DEVICE_PATH);
  EXPECT_EQ(Bytes(dp.data + 4, dp.data + dp.size), pathBytes);

  // Registering the export again gives the same export and the same strings.
  hii::HiiDatabase second(platform());
  std::vector<EFI_HII_HANDLE> again;
  const EFI_HANDLE owners[] = {device, nullptr};
  for (size_t i = 0, offset = 0; i < views.size(); offset += views[i++].size) {
    EFI_HII_HANDLE handle = nullptr;
    ASSERT_EQ(second.addPackageList(Bytes(exported.begin() + offset, exported.begin() + offset + views[i].size),
                                    owners[i], &handle),
              EFI_SUCCESS);
    again.push_back(handle);
  }
  Bytes reexported;
  ASSERT_EQ(second.exportPackageLists(nullptr, reexported), EFI_SUCCESS);
  EXPECT_EQ(reexported, exported);
  CHAR16 text[16];
  UINTN size = sizeof text;
  ASSERT_EQ(second.strings()->GetString(second.strings(), "x-UEFI", again[0], 2, text, &size, nullptr), EFI_SUCCESS);
  EXPECT_EQ(std::u16string(text), u"S");
  platform().uninstallProtocol(device, EFI_GUID(EFI_DEVICE_PATH_PROTOCOL_GUID), pathBytes.data());
}

std::vector<UINTN> gEvents;  // notify types, in order

EFI_STATUS EFIAPI recordEvent(UINT8, const EFI_GUID*, const EFI_HII_PACKAGE_HEADER*, EFI_HII_HANDLE,
                              EFI_HII_DATABASE_NOTIFY_TYPE NotifyType) {
  gEvents.push_back(NotifyType);
  return EFI_SUCCESS;
}

TEST_F(HiiDatabaseTest, UpdateReplacesPackagesOfTheSameTypeAndGuidAndNotifies) {
  gEvents.clear();
  const EFI_GUID g1 = guidNumber(201), g2 = guidNumber(202);
  EFI_HANDLE token = nullptr;
  ASSERT_EQ(db()->RegisterPackageNotify(db(), EFI_HII_PACKAGE_STRINGS, nullptr, recordEvent,
                                        hii::kNotifyNewPack | hii::kNotifyRemovePack | hii::kNotifyAddPack, &token),
            EFI_SUCCESS);
  auto forms = hii::buildPackage(EFI_HII_PACKAGE_FORMS, {7});
  EFI_HII_HANDLE h = add(hii::buildPackageList(guidNumber(1), {hii::buildStringPackage("en-US", {u"old"}), forms,
                                                               guidPackage(g1, {1}), guidPackage(g2, {2})}),
                         nullptr);
  const Bytes update = hii::buildPackageList(guidNumber(99), {hii::buildStringPackage("en-US", {u"new", u"two"}),
                                                              guidPackage(g1, {3})});
  ExactCopy copy(update);
  ASSERT_EQ(db()->UpdatePackageList(db(), h, header(copy)), EFI_SUCCESS);
  EXPECT_EQ(gEvents, (std::vector<UINTN>{hii::kNotifyNewPack, hii::kNotifyRemovePack, hii::kNotifyAddPack}));
  Bytes exported;
  ASSERT_EQ(hii().exportPackageLists(h, exported), EFI_SUCCESS);
  const Bytes expected = hii::buildPackageList(
      guidNumber(1), {forms, guidPackage(g2, {2}), hii::buildStringPackage("en-US", {u"new", u"two"}), guidPackage(g1, {3})});
  EXPECT_EQ(exported, expected);

  // A broken update changes nothing; after unregistering nothing is reported.
  Bytes broken = update;
  broken.resize(broken.size() - 4);
  ExactCopy bad(withLength(broken));
  EXPECT_EQ(db()->UpdatePackageList(db(), h, header(bad)), EFI_INVALID_PARAMETER);
  ASSERT_EQ(hii().exportPackageLists(h, exported), EFI_SUCCESS);
  EXPECT_EQ(exported, expected);
  ASSERT_EQ(db()->UnregisterPackageNotify(db(), token), EFI_SUCCESS);
  EXPECT_EQ(db()->UnregisterPackageNotify(db(), token), EFI_NOT_FOUND);
  gEvents.clear();
  ASSERT_EQ(db()->RemovePackageList(db(), h), EFI_SUCCESS);
  EXPECT_TRUE(gEvents.empty());
  EXPECT_EQ(db()->RegisterPackageNotify(db(), EFI_HII_PACKAGE_TYPE_GUID, nullptr, recordEvent, hii::kNotifyNewPack,
                                        &token),
            EFI_INVALID_PARAMETER);
}

}  // namespace
