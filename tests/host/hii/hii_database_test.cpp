// EFI_HII_DATABASE_PROTOCOL through its function table: refusals of malformed package lists, export sizing,
// updates and notifications. Listing and owner lookup are tested through the driver (tests/util), export round
// trips through `tolvane export-hii` and `forms --hii` (tests/tools).
#include <gtest/gtest.h>

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

TEST_F(HiiDatabaseTest, EmptyDatabaseAndUnknownHandlesAnswerNotFound) {
  std::vector<EFI_HII_HANDLE> listed;
  UINTN size = 1;
  uint8_t one = 0;
  EXPECT_EQ(db()->ListPackageLists(db(), EFI_HII_PACKAGE_TYPE_ALL, nullptr, &size, reinterpret_cast<EFI_HII_HANDLE*>(&one)),
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
  EFI_HANDLE owner = newHandle();
  EXPECT_EQ(db()->GetPackageListHandle(db(), h, &owner), EFI_NOT_FOUND);
  ASSERT_EQ(db()->GetPackageListHandle(db(), add(simpleList(2), nullptr), &owner), EFI_SUCCESS);
  EXPECT_EQ(owner, nullptr);  // registered without a driver handle
  EXPECT_EQ(db()->GetPackageListHandle(db(), nullptr, &owner), EFI_INVALID_PARAMETER);
  EXPECT_EQ(db()->GetPackageListHandle(db(), reinterpret_cast<EFI_HII_HANDLE>(uintptr_t(0x1234)), &owner),
            EFI_INVALID_PARAMETER);
}

TEST_F(HiiDatabaseTest, MalformedPackageListsAreRefusedAndLeaveNothingBehind) {
  // One broken list and one broken package; the parsers' own tests go through every case.
  const Bytes list = simpleList(7);
  const Bytes cases[] = {
      withLength(Bytes(list.begin(), list.end() - 4)),  // no END package
      hii::buildPackageList(guidNumber(8), {stringPackage("en-US", {EFI_HII_SIBT_STRING_UCS2, 'a', 0})}),  // no END block
  };
  EFI_HII_HANDLE kept = add(simpleList(1), newHandle());
  for (size_t i = 0; i < std::size(cases); ++i) {
    ExactCopy copy(cases[i]);
    EFI_HII_HANDLE handle = nullptr;
    EXPECT_EQ(db()->NewPackageList(db(), header(copy), nullptr, &handle), EFI_INVALID_PARAMETER) << i;
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(hii().handles(), std::vector<EFI_HII_HANDLE>{kept});
  }
  // The same GUID is refused for the same driver handle only.
  EFI_HANDLE a = newHandle();
  EFI_HII_HANDLE handle = add(simpleList(1), a);
  EXPECT_EQ(hii().addPackageList(simpleList(1), a, &handle), EFI_INVALID_PARAMETER);
}

TEST_F(HiiDatabaseTest, ExportSizingAndContent) {
  const Bytes first = simpleList(1);
  const Bytes second = hii::buildPackageList(guidNumber(2), {hii::buildPackage(EFI_HII_PACKAGE_FORMS, {9, 9, 9})});
  EFI_HII_HANDLE h1 = add(first, nullptr), h2 = add(second, newHandle());
  const Bytes all = cat({first, second});
  const struct { EFI_HII_HANDLE handle; UINTN size; const Bytes& content; } cases[] = {  // fits: size >= content
      {h2, 0, second}, {h2, second.size() - 1, second}, {h2, second.size(), second}, {h1, first.size() + 10, first},
      {nullptr, all.size() - 1, all}, {nullptr, all.size(), all}};
  for (const auto& c : cases) {
    UINTN size = c.size;
    Bytes buffer(size, 0xCC);
    auto* out = size ? reinterpret_cast<EFI_HII_PACKAGE_LIST_HEADER*>(buffer.data()) : nullptr;
    const bool fits = c.size >= c.content.size();
    ASSERT_EQ(db()->ExportPackageLists(db(), c.handle, &size, out), fits ? EFI_SUCCESS : EFI_BUFFER_TOO_SMALL) << c.size;
    EXPECT_EQ(size, c.content.size());
    if (fits) { EXPECT_EQ(buffer, cat({c.content, Bytes(c.size - size, 0xCC)})) << "content, or written past it"; }
  }
  UINTN size = 8;
  EXPECT_EQ(db()->ExportPackageLists(db(), h1, &size, nullptr), EFI_INVALID_PARAMETER);
  ASSERT_EQ(hii().removePackageList(h1), EFI_SUCCESS);
  size = 0;
  EXPECT_EQ(db()->ExportPackageLists(db(), h1, &size, nullptr), EFI_NOT_FOUND);
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
  const Bytes forms = hii::buildPackage(EFI_HII_PACKAGE_FORMS, {7}), strings = hii::buildStringPackage("en-US", {u"new"});
  EFI_HII_HANDLE h = add(hii::buildPackageList(guidNumber(1), {hii::buildStringPackage("en-US", {u"old"}), forms,
                                                               guidPackage(g1, {1}), guidPackage(g2, {2})}), nullptr);
  const Bytes update = hii::buildPackageList(guidNumber(99), {strings, guidPackage(g1, {3})});
  ExactCopy copy(update), bad(withLength(Bytes(update.begin(), update.end() - 4)));  // without its END package
  ASSERT_EQ(db()->UpdatePackageList(db(), h, header(copy)), EFI_SUCCESS);
  EXPECT_EQ(gEvents, (std::vector<UINTN>{hii::kNotifyNewPack, hii::kNotifyRemovePack, hii::kNotifyAddPack}));
  const Bytes expected = hii::buildPackageList(guidNumber(1), {forms, guidPackage(g2, {2}), strings, guidPackage(g1, {3})});
  // A broken update changes nothing; after unregistering nothing is reported.
  EXPECT_EQ(db()->UpdatePackageList(db(), h, header(bad)), EFI_INVALID_PARAMETER);
  Bytes exported;
  ASSERT_EQ(hii().exportPackageLists(h, exported), EFI_SUCCESS);
  EXPECT_EQ(exported, expected);
  ASSERT_EQ(db()->UnregisterPackageNotify(db(), token), EFI_SUCCESS);
  gEvents.clear();
  ASSERT_EQ(db()->RemovePackageList(db(), h), EFI_SUCCESS);
  EXPECT_TRUE(gEvents.empty());
}

}  // namespace
