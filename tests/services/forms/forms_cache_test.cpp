// Parses kept between calls: a kept parse answers as a fresh one would; only
// a change of the handle's packages makes the next call parse again (seen
// through the database's export notifications, which every parse causes).
#include <gtest/gtest.h>

#include <functional>
#include <map>

#include "forms_support.h"

namespace tvl::test::forms {
namespace {

std::map<EFI_HII_HANDLE, int> gExports;

EFI_STATUS EFIAPI countExport(UINT8, const EFI_GUID*, const EFI_HII_PACKAGE_HEADER*, EFI_HII_HANDLE handle,
                              EFI_HII_DATABASE_NOTIFY_TYPE) {
  ++gExports[handle];
  return EFI_SUCCESS;
}

class FormsCacheTest : public FormsTest {
 protected:
  void SetUp() override {
    FormsTest::SetUp();
    gExports.clear();
    db_ = database().database();
    ASSERT_EQ(db_->RegisterPackageNotify(db_, EFI_HII_PACKAGE_FORMS, nullptr, countExport,
                                         EFI_HII_DATABASE_NOTIFY_EXPORT_PACK, &exportNotify_),
              EFI_SUCCESS);
    handle_ = registerSample(sample_, &device_);
    other_ = registerSample(sample_);
  }
  void TearDown() override {
    db_->UnregisterPackageNotify(db_, exportNotify_);
    FormsTest::TearDown();
  }

  // The records of the handle as a call gives them, and once nothing is kept.
  std::string kept() { return dump(*process({handle_})); }
  std::string fresh() {
    releaseServiceCaches(platform());
    return dump(*process({handle_}));
  }
  void update(EFI_HII_HANDLE handle, const ifr::Bytes& list) {
    ASSERT_EQ(db_->UpdatePackageList(db_, handle, reinterpret_cast<const EFI_HII_PACKAGE_LIST_HEADER*>(list.data())),
              EFI_SUCCESS);
  }

  EFI_HII_DATABASE_PROTOCOL* db_ = nullptr;
  EFI_HANDLE exportNotify_ = nullptr;
  Sample sample_;
  devices::Device* device_ = nullptr;
  EFI_HII_HANDLE handle_ = nullptr;
  EFI_HII_HANDLE other_ = nullptr;
};

// A form set over the sample's "Setup" store with languages of its own.
ifr::Bytes otherForms() {
  OneForm f(64);
  f.form.numeric(ifr::Numeric(0x77, f.s, f.s).store(1, 0));
  return ifr::packageList(kListGuid, f.fs, f.strings);
}

ifr::Bytes otherStrings() {
  ifr::Strings strings{{"de-DE", "x-UEFI"}};
  strings.add(u"Einrichtung");
  return ifr::packageList(kListGuid, std::vector<ifr::Bytes>{}, strings);
}

TEST_F(FormsCacheTest, KeptParseAnswersAsAFreshOneAndParsesAgainOnlyWhenTheHandlesPackagesChange) {
  const UINT8 oneOf3[] = {3, 0};
  const struct { const char* what; std::function<void()> change; bool parsesAgain, changesRecords; } rows[] = {
      {"RouteConfig writes a value the image's suppressif reads",
       [&] {
         std::u16string config = device_->configHdr(kStoreGuid, u"Setup") + hii::blockConfig(2, oneOf3, 2);
         EFI_STRING progress = nullptr;
         ASSERT_EQ(device_->configAccess()->RouteConfig(device_->configAccess(), config.c_str(), &progress),
                   EFI_SUCCESS);
       },
       false, true},
      {"SetVariable writes the variable store",
       [&] {
         const UINT32 attributes = EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS;
         ASSERT_EQ(platform().setVariable(u"Vars", kVariableGuid, attributes, {1, 2, 3, 4, 5, 6, 7, 8}), EFI_SUCCESS);
       },
       false, true},
      {"the other device's forms are updated", [&] { update(other_, otherForms()); }, false, false},
      {"the handle's forms are updated (remove and add)", [&] { update(handle_, otherForms()); }, true, true},
      {"the handle's strings alone are updated", [&] { update(handle_, otherStrings()); }, true, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    releaseServiceCaches(platform());
    const std::string before = kept();
    row.change();
    int exports = gExports[handle_];
    std::string after = kept();
    EXPECT_EQ(gExports[handle_] - exports, row.parsesAgain ? 1 : 0);
    EXPECT_EQ(after, fresh());
    exports = gExports[handle_];
    EXPECT_EQ(kept(), after);
    EXPECT_EQ(gExports[handle_], exports) << "the next call uses the parse again";
    EXPECT_EQ(after != before, row.changesRecords);
  }
}

TEST_F(FormsCacheTest, RemovedListIsNotAnsweredFromTheKeptParse) {
  ASSERT_EQ(process({handle_})->status, EFI_SUCCESS);
  ASSERT_EQ(db_->RemovePackageList(db_, handle_), EFI_SUCCESS);
  EXPECT_EQ(process({handle_})->status, EFI_NOT_FOUND);
}

// Form sets still held are neither given to a second call nor freed by a
// change of the list (the leak check sees that they are freed when given back).
TEST_F(FormsCacheTest, HeldFormSetsAreNeitherReusedNorFreedUnderTheCaller) {
  auto held = process({handle_});
  ASSERT_EQ(held->status, EFI_SUCCESS);
  const std::string text = dump(*held);
  int exports = gExports[handle_];
  auto second = process({handle_, handle_});
  ASSERT_EQ(second->status, EFI_SUCCESS);
  EXPECT_EQ(gExports[handle_] - exports, 2);
  update(handle_, otherForms());
  EXPECT_EQ(dump(*held), text);
  EXPECT_EQ(forms_->DestroyFormSets(forms_, held->count, held->sets), EFI_SUCCESS);
  held->sets = nullptr;
  exports = gExports[handle_];
  EXPECT_EQ(process({handle_})->status, EFI_SUCCESS);
  EXPECT_EQ(gExports[handle_] - exports, 1);
}

}  // namespace
}  // namespace tvl::test::forms
