// EFI_HII_DATABASE_PROTOCOL through its function table: listing and owner
// lookup as the driver uses them, type filters, refusals of malformed
// package lists, export sizing and round trip, updates and notifications.
#include <gtest/gtest.h>

#include <cstring>
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

class HiiDatabaseTest : public HiiTest {};

TEST_F(HiiDatabaseTest, DriverHandleOwningSecondFifthAndSixthOfSixLists) {
  EFI_HANDLE device = newHandle();
  EFI_HANDLE other = newHandle();
  const EFI_HANDLE owners[] = {other, device, other, other, device, device};
  std::vector<EFI_HII_HANDLE> registered;
  for (uint32_t i = 0; i < 6; ++i) registered.push_back(add(simpleList(i), owners[i]));

  UINTN size = 1;
  uint8_t one = 0;
  EXPECT_EQ(db()->ListPackageLists(db(), EFI_HII_PACKAGE_TYPE_ALL, nullptr, &size,
                                   reinterpret_cast<EFI_HII_HANDLE*>(&one)),
            EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ(size, 6 * sizeof(EFI_HII_HANDLE));

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
  EFI_HII_HANDLE h = add(simpleList(1), newHandle());
  EXPECT_EQ(listAll(listed), EFI_SUCCESS);
  ASSERT_EQ(db()->RemovePackageList(db(), h), EFI_SUCCESS);
  EXPECT_EQ(listAll(listed), EFI_NOT_FOUND);
  EXPECT_EQ(db()->RemovePackageList(db(), h), EFI_NOT_FOUND);
}

TEST_F(HiiDatabaseTest, ListPackageListsParameterRules) {
  add(simpleList(1), newHandle());
  const EFI_GUID g = guidNumber(9);
  EFI_HII_HANDLE buffer[4];
  struct Case {
    const char* name;
    UINT8 type;
    const EFI_GUID* guid;
    bool nullLength;
    UINTN length;
    bool nullBuffer;
    EFI_STATUS status;
  } cases[] = {
      {"null length", EFI_HII_PACKAGE_TYPE_ALL, nullptr, true, 0, false, EFI_INVALID_PARAMETER},
      {"length without buffer", EFI_HII_PACKAGE_TYPE_ALL, nullptr, false, 8, true, EFI_INVALID_PARAMETER},
      {"GUID type without GUID", EFI_HII_PACKAGE_TYPE_GUID, nullptr, false, 32, false, EFI_INVALID_PARAMETER},
      {"GUID given for another type", EFI_HII_PACKAGE_STRINGS, &g, false, 32, false, EFI_INVALID_PARAMETER},
      {"zero length without buffer", EFI_HII_PACKAGE_TYPE_ALL, nullptr, false, 0, true, EFI_BUFFER_TOO_SMALL},
      {"room for all", EFI_HII_PACKAGE_TYPE_ALL, nullptr, false, 32, false, EFI_SUCCESS},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    UINTN length = c.length;
    EXPECT_EQ(db()->ListPackageLists(db(), c.type, c.guid, c.nullLength ? nullptr : &length,
                                     c.nullBuffer ? nullptr : buffer),
              c.status);
    if (c.status == EFI_SUCCESS || c.status == EFI_BUFFER_TOO_SMALL) {
      EXPECT_EQ(length, sizeof(EFI_HII_HANDLE));
    }
  }
}

TEST_F(HiiDatabaseTest, ListingFiltersByPackageTypeAndGuid) {
  const EFI_GUID g1 = guidNumber(101), g2 = guidNumber(102);
  auto forms = hii::buildPackage(EFI_HII_PACKAGE_FORMS, {0x0e, 0x00});
  EFI_HII_HANDLE strings = add(simpleList(1), newHandle());
  EFI_HII_HANDLE both =
      add(hii::buildPackageList(guidNumber(2), {forms, hii::buildStringPackage("en-US", {u"x"})}), newHandle());
  EFI_HII_HANDLE guid1 = add(hii::buildPackageList(guidNumber(3), {guidPackage(g1, {1, 2})}), newHandle());
  EFI_HII_HANDLE guid2 = add(hii::buildPackageList(guidNumber(4), {guidPackage(g2), forms}), newHandle());
  hii::DevicePathBuilder path;
  auto pathBytes = path.pciRoot(0).pci(2, 0).build();
  EFI_HANDLE withPath = nullptr;
  ASSERT_EQ(platform().installProtocol(&withPath, EFI_GUID(EFI_DEVICE_PATH_PROTOCOL_GUID), pathBytes.data()),
            EFI_SUCCESS);
  EFI_HII_HANDLE located = add(simpleList(5), withPath);

  const EFI_GUID unused = guidNumber(103);
  struct Case {
    const char* name;
    UINT8 type;
    const EFI_GUID* guid;
    std::vector<EFI_HII_HANDLE> expected;  // empty: EFI_NOT_FOUND
  } cases[] = {
      {"strings", EFI_HII_PACKAGE_STRINGS, nullptr, {strings, both, located}},
      {"forms", EFI_HII_PACKAGE_FORMS, nullptr, {both, guid2}},
      {"GUID packages of g1", EFI_HII_PACKAGE_TYPE_GUID, &g1, {guid1}},
      {"GUID packages of g2", EFI_HII_PACKAGE_TYPE_GUID, &g2, {guid2}},
      {"GUID packages of an unused GUID", EFI_HII_PACKAGE_TYPE_GUID, &unused, {}},
      {"device path added for a handle with a device path", EFI_HII_PACKAGE_DEVICE_PATH, nullptr, {located}},
      {"a type no list holds", EFI_HII_PACKAGE_ANIMATIONS, nullptr, {}},
      {"the END package is not listed", EFI_HII_PACKAGE_END, nullptr, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<EFI_HII_HANDLE> listed;
    EFI_STATUS status = listAll(listed, c.type, c.guid);
    if (c.expected.empty()) {
      EXPECT_EQ(status, EFI_NOT_FOUND);
    } else {
      ASSERT_EQ(status, EFI_SUCCESS);
      EXPECT_EQ(listed, c.expected);
    }
  }
  hii().removePackageList(located);
  platform().uninstallProtocol(withPath, EFI_GUID(EFI_DEVICE_PATH_PROTOCOL_GUID), pathBytes.data());
}

TEST_F(HiiDatabaseTest, GetPackageListHandleStatuses) {
  EFI_HANDLE device = newHandle();
  EFI_HII_HANDLE live = add(simpleList(1), device);
  EFI_HII_HANDLE anonymous = add(simpleList(2), nullptr);
  EFI_HII_HANDLE removed = add(simpleList(3), device);
  ASSERT_EQ(hii().removePackageList(removed), EFI_SUCCESS);
  struct Case {
    const char* name;
    EFI_HII_HANDLE handle;
    bool nullOut;
    EFI_STATUS status;
    EFI_HANDLE owner;
  } cases[] = {
      {"registered under a driver handle", live, false, EFI_SUCCESS, device},
      {"registered without a driver handle", anonymous, false, EFI_SUCCESS, nullptr},
      {"removed list", removed, false, EFI_NOT_FOUND, nullptr},
      {"null handle", nullptr, false, EFI_INVALID_PARAMETER, nullptr},
      {"never handed out", reinterpret_cast<EFI_HII_HANDLE>(uintptr_t(0x1234)), false, EFI_INVALID_PARAMETER, nullptr},
      {"null out-pointer", live, true, EFI_INVALID_PARAMETER, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EFI_HANDLE owner = reinterpret_cast<EFI_HANDLE>(uintptr_t(1));
    EXPECT_EQ(db()->GetPackageListHandle(db(), c.handle, c.nullOut ? nullptr : &owner), c.status);
    if (c.status == EFI_SUCCESS) {
      EXPECT_EQ(owner, c.owner);
    }
  }
}

TEST_F(HiiDatabaseTest, MalformedPackageListsAreRefusedAndLeaveNothingBehind) {
  const Bytes good = simpleList(7);
  auto withLength = [](Bytes b) {
    for (int i = 0; i < 4; ++i) b[16 + i] = uint8_t(b.size() >> (8 * i));
    return b;
  };
  const size_t stringsAt = sizeof(EFI_HII_PACKAGE_LIST_HEADER);
  struct Case {
    const char* name;
    std::function<Bytes()> make;
  } cases[] = {
      {"length smaller than header and END", [&] { Bytes b = good; b[16] = 20; b[17] = b[18] = b[19] = 0; return b; }},
      {"package longer than the list",
       [&] { Bytes b = good; b[stringsAt] = uint8_t(b[stringsAt] + 8); return b; }},
      {"no END package", [&] { Bytes b = good; b.resize(b.size() - 4); return withLength(b); }},
      {"string package with its header cut short",
       [&] {
         return hii::buildPackageList(guidNumber(8), {hii::buildPackage(EFI_HII_PACKAGE_STRINGS, {0x2e, 0, 0, 0})});
       }},
      {"string block running past its package",
       [&] {
         Bytes sp = stringPackage("en-US", {EFI_HII_SIBT_STRING_UCS2, 'a', 0});
         return hii::buildPackageList(guidNumber(8), {sp});
       }},
      {"string blocks without END",
       [&] {
         return hii::buildPackageList(guidNumber(8), {stringPackage("en-US", cat({{EFI_HII_SIBT_STRING_UCS2}, ucs2(u"a")}))});
       }},
  };
  EFI_HII_HANDLE kept = add(simpleList(1), newHandle());
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ExactCopy copy(c.make());
    EFI_HII_HANDLE handle = nullptr;
    EXPECT_EQ(db()->NewPackageList(db(), reinterpret_cast<const EFI_HII_PACKAGE_LIST_HEADER*>(copy.data.get()),
                                   nullptr, &handle),
              EFI_INVALID_PARAMETER);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(hii().handles(), std::vector<EFI_HII_HANDLE>{kept});
  }
  EFI_HII_HANDLE handle = nullptr;
  EXPECT_EQ(db()->NewPackageList(db(), nullptr, nullptr, &handle), EFI_INVALID_PARAMETER);
  ExactCopy copy(good);
  EXPECT_EQ(db()->NewPackageList(db(), reinterpret_cast<const EFI_HII_PACKAGE_LIST_HEADER*>(copy.data.get()), nullptr,
                                 nullptr),
            EFI_INVALID_PARAMETER);
}

TEST_F(HiiDatabaseTest, SameGuidIsRefusedOnlyForTheSameDriverHandle) {
  EFI_HANDLE a = newHandle(), b = newHandle();
  add(simpleList(1), a);
  EFI_HII_HANDLE handle = nullptr;
  EXPECT_EQ(hii().addPackageList(simpleList(1), a, &handle), EFI_INVALID_PARAMETER);
  EXPECT_EQ(hii().addPackageList(simpleList(1), b, &handle), EFI_SUCCESS);
  EXPECT_EQ(hii().handles().size(), 2u);
}

EFI_STATUS exportInto(EFI_HII_DATABASE_PROTOCOL* db, EFI_HII_HANDLE handle, UINTN& size, Bytes& buffer) {
  buffer.assign(size, 0xCC);
  return db->ExportPackageLists(db, handle, &size,
                                size ? reinterpret_cast<EFI_HII_PACKAGE_LIST_HEADER*>(buffer.data()) : nullptr);
}

TEST_F(HiiDatabaseTest, ExportSizingAndContent) {
  const Bytes first = simpleList(1);
  const Bytes second = hii::buildPackageList(guidNumber(2), {hii::buildPackage(EFI_HII_PACKAGE_FORMS, {9, 9, 9})});
  EFI_HII_HANDLE h1 = add(first, nullptr);
  EFI_HII_HANDLE h2 = add(second, newHandle());
  const Bytes all = cat({first, second});
  struct Case {
    const char* name;
    EFI_HII_HANDLE handle;
    UINTN size;
    EFI_STATUS status;
    UINTN sizeAfter;
    Bytes content;
  } cases[] = {
      {"one list, asked with size 0", h2, 0, EFI_BUFFER_TOO_SMALL, second.size(), {}},
      {"one list, one byte short", h2, second.size() - 1, EFI_BUFFER_TOO_SMALL, second.size(), {}},
      {"one list, exact size", h2, second.size(), EFI_SUCCESS, second.size(), second},
      {"one list, larger buffer", h1, first.size() + 10, EFI_SUCCESS, first.size(), first},
      {"all lists, too small", nullptr, all.size() - 1, EFI_BUFFER_TOO_SMALL, all.size(), {}},
      {"all lists, back to back", nullptr, all.size(), EFI_SUCCESS, all.size(), all},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    UINTN size = c.size;
    Bytes buffer;
    ASSERT_EQ(exportInto(db(), c.handle, size, buffer), c.status);
    EXPECT_EQ(size, c.sizeAfter);
    if (c.status == EFI_SUCCESS) {
      EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + size), c.content);
      for (size_t i = size; i < buffer.size(); ++i) ASSERT_EQ(buffer[i], 0xCC) << "written past the export at " << i;
    }
  }
  UINTN size = 0;
  EXPECT_EQ(db()->ExportPackageLists(db(), h1, nullptr, nullptr), EFI_INVALID_PARAMETER);
  size = 8;
  EXPECT_EQ(db()->ExportPackageLists(db(), h1, &size, nullptr), EFI_INVALID_PARAMETER);
  ASSERT_EQ(hii().removePackageList(h1), EFI_SUCCESS);
  size = 0;
  EXPECT_EQ(db()->ExportPackageLists(db(), h1, &size, nullptr), EFI_NOT_FOUND);
}

TEST_F(HiiDatabaseTest, ExportOfAnEmptyDatabaseIsEmpty) {
  UINTN size = 0;
  EXPECT_EQ(db()->ExportPackageLists(db(), nullptr, &size, nullptr), EFI_SUCCESS);
  EXPECT_EQ(size, 0u);
}

TEST_F(HiiDatabaseTest, ExportAddsTheDriverHandlesDevicePathAndRoundTrips) {
  auto pathBytes = hii::DevicePathBuilder().pciRoot(0).pci(0x1c, 0).mac({0, 0x11, 0x22, 0x33, 0x44, 0x55}).build();
  EFI_HANDLE device = nullptr;
  ASSERT_EQ(platform().installProtocol(&device, EFI_GUID(EFI_DEVICE_PATH_PROTOCOL_GUID), pathBytes.data()),
            EFI_SUCCESS);
  const Bytes list = hii::buildPackageList(
      guidNumber(1), {hii::buildStringPackage("en-US", {u"Port", u"Speed"}), hii::buildStringPackage("x-UEFI", {u"P", u"S"}),
                      hii::buildPackage(EFI_HII_PACKAGE_FORMS, {0x0e, 0x02})});
  add(list, device);
  add(simpleList(2), nullptr);
  Bytes exported;
  ASSERT_EQ(hii().exportPackageLists(nullptr, exported), EFI_SUCCESS);

  std::vector<hii::PackageListView> views;
  ASSERT_EQ(hii::parsePackageLists(exported.data(), exported.size(), views), EFI_SUCCESS);
  ASSERT_EQ(views.size(), 2u);
  ASSERT_EQ(views[0].packages.size(), 4u);
  const hii::PackageView& dp = views[0].packages.back();
  EXPECT_EQ(dp.type, EFI_HII_PACKAGE_DEVICE_PATH);
  EXPECT_EQ(Bytes(dp.data + 4, dp.data + dp.size), pathBytes);
  EXPECT_EQ(views[1].packages.size(), 1u);

  // Registering the export again (the device path package comes along)
  // gives the same export and the same strings.
  hii::HiiDatabase second(platform());
  std::vector<EFI_HII_HANDLE> again;
  const EFI_HANDLE owners[] = {device, nullptr};
  size_t offset = 0;
  for (size_t i = 0; i < views.size(); ++i) {
    EFI_HII_HANDLE handle = nullptr;
    const Bytes one(exported.begin() + offset, exported.begin() + offset + views[i].size);
    ASSERT_EQ(second.addPackageList(one, owners[i], &handle), EFI_SUCCESS);
    again.push_back(handle);
    offset += views[i].size;
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

TEST_F(HiiDatabaseTest, UpdateReplacesPackagesOfTheSameTypeAndGuid) {
  const EFI_GUID g1 = guidNumber(201), g2 = guidNumber(202);
  auto forms = hii::buildPackage(EFI_HII_PACKAGE_FORMS, {7});
  EFI_HII_HANDLE h = add(hii::buildPackageList(guidNumber(1), {hii::buildStringPackage("en-US", {u"old"}), forms,
                                                               guidPackage(g1, {1}), guidPackage(g2, {2})}),
                         nullptr);
  const Bytes update = hii::buildPackageList(guidNumber(99), {hii::buildStringPackage("en-US", {u"new", u"two"}),
                                                              guidPackage(g1, {3})});
  ExactCopy copy(update);
  ASSERT_EQ(db()->UpdatePackageList(db(), h, reinterpret_cast<const EFI_HII_PACKAGE_LIST_HEADER*>(copy.data.get())),
            EFI_SUCCESS);
  Bytes exported;
  ASSERT_EQ(hii().exportPackageLists(h, exported), EFI_SUCCESS);
  const Bytes expected = hii::buildPackageList(
      guidNumber(1), {forms, guidPackage(g2, {2}), hii::buildStringPackage("en-US", {u"new", u"two"}), guidPackage(g1, {3})});
  EXPECT_EQ(exported, expected);
  CHAR16 text[8];
  UINTN size = sizeof text;
  ASSERT_EQ(str()->GetString(str(), "en-US", h, 2, text, &size, nullptr), EFI_SUCCESS);
  EXPECT_EQ(std::u16string(text), u"two");

  Bytes broken = update;
  broken.resize(broken.size() - 4);
  for (int i = 0; i < 4; ++i) broken[16 + i] = uint8_t(broken.size() >> (8 * i));
  ExactCopy bad(broken);
  EXPECT_EQ(db()->UpdatePackageList(db(), h, reinterpret_cast<const EFI_HII_PACKAGE_LIST_HEADER*>(bad.data.get())),
            EFI_INVALID_PARAMETER);
  Bytes unchanged;
  ASSERT_EQ(hii().exportPackageLists(h, unchanged), EFI_SUCCESS);
  EXPECT_EQ(unchanged, expected);
  EXPECT_EQ(db()->UpdatePackageList(db(), reinterpret_cast<EFI_HII_HANDLE>(uintptr_t(8)),
                                    reinterpret_cast<const EFI_HII_PACKAGE_LIST_HEADER*>(copy.data.get())),
            EFI_NOT_FOUND);
  EXPECT_EQ(db()->UpdatePackageList(db(), h, nullptr), EFI_INVALID_PARAMETER);
}

struct Event {
  UINT8 type;
  bool hasGuid;
  EFI_HII_HANDLE handle;
  UINTN notifyType;
};
std::vector<Event> gEvents;

EFI_STATUS EFIAPI recordEvent(UINT8 PackageType, const EFI_GUID* PackageGuid, const EFI_HII_PACKAGE_HEADER* Package,
                              EFI_HII_HANDLE Handle, EFI_HII_DATABASE_NOTIFY_TYPE NotifyType) {
  EXPECT_NE(Package, nullptr);
  gEvents.push_back({PackageType, PackageGuid != nullptr, Handle, NotifyType});
  return EFI_SUCCESS;
}

TEST_F(HiiDatabaseTest, NotificationsReachTheRegisteredTypes) {
  gEvents.clear();
  const EFI_GUID g1 = guidNumber(301), g2 = guidNumber(302);
  EFI_HANDLE onStrings = nullptr, onG1 = nullptr;
  ASSERT_EQ(db()->RegisterPackageNotify(db(), EFI_HII_PACKAGE_STRINGS, nullptr, recordEvent,
                                        hii::kNotifyNewPack | hii::kNotifyRemovePack | hii::kNotifyAddPack, &onStrings),
            EFI_SUCCESS);
  ASSERT_EQ(db()->RegisterPackageNotify(db(), EFI_HII_PACKAGE_TYPE_GUID, &g1, recordEvent, hii::kNotifyNewPack, &onG1),
            EFI_SUCCESS);
  EFI_HII_HANDLE h = add(hii::buildPackageList(guidNumber(1), {hii::buildStringPackage("en-US", {u"a"}),
                                                               hii::buildStringPackage("fr-FR", {u"b"}),
                                                               guidPackage(g1), guidPackage(g2)}),
                         nullptr);
  ASSERT_EQ(gEvents.size(), 3u);
  EXPECT_EQ(gEvents[0].type, EFI_HII_PACKAGE_STRINGS);
  EXPECT_EQ(gEvents[0].notifyType, hii::kNotifyNewPack);
  EXPECT_EQ(gEvents[0].handle, h);
  EXPECT_EQ(gEvents[2].type, EFI_HII_PACKAGE_TYPE_GUID);
  EXPECT_TRUE(gEvents[2].hasGuid);

  gEvents.clear();
  ExactCopy update(hii::buildPackageList(guidNumber(1), {hii::buildStringPackage("en-US", {u"c"})}));
  ASSERT_EQ(db()->UpdatePackageList(db(), h, reinterpret_cast<const EFI_HII_PACKAGE_LIST_HEADER*>(update.data.get())),
            EFI_SUCCESS);
  ASSERT_EQ(gEvents.size(), 3u);  // two string packages removed, one added
  EXPECT_EQ(gEvents[0].notifyType, hii::kNotifyRemovePack);
  EXPECT_EQ(gEvents[2].notifyType, hii::kNotifyAddPack);

  gEvents.clear();
  ASSERT_EQ(db()->UnregisterPackageNotify(db(), onStrings), EFI_SUCCESS);
  EXPECT_EQ(db()->UnregisterPackageNotify(db(), onStrings), EFI_NOT_FOUND);
  ASSERT_EQ(db()->RemovePackageList(db(), h), EFI_SUCCESS);
  EXPECT_TRUE(gEvents.empty());

  EFI_HANDLE token = nullptr;
  struct Case {
    UINT8 type;
    const EFI_GUID* guid;
    EFI_HII_DATABASE_NOTIFY fn;
    UINTN notifyType;
    bool nullToken;
  } refused[] = {
      {EFI_HII_PACKAGE_TYPE_GUID, nullptr, recordEvent, hii::kNotifyNewPack, false},
      {EFI_HII_PACKAGE_FORMS, &g1, recordEvent, hii::kNotifyNewPack, false},
      {EFI_HII_PACKAGE_FORMS, nullptr, nullptr, hii::kNotifyNewPack, false},
      {EFI_HII_PACKAGE_FORMS, nullptr, recordEvent, 0x10, false},
      {EFI_HII_PACKAGE_FORMS, nullptr, recordEvent, hii::kNotifyNewPack, true},
  };
  for (const Case& c : refused)
    EXPECT_EQ(db()->RegisterPackageNotify(db(), c.type, c.guid, c.fn, c.notifyType, c.nullToken ? nullptr : &token),
              EFI_INVALID_PARAMETER);
  EXPECT_EQ(db()->UnregisterPackageNotify(db(), onG1), EFI_SUCCESS);
}

}  // namespace
