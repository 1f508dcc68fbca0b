// Current values: read through the device's configuration access and EFI
// variables, seen again after RouteConfig or SetVariable, and left zero
// when the device cannot give them.
#include <gtest/gtest.h>

#include "forms_support.h"

namespace tvl::test::forms {
namespace {

using ifr::Width;

class FormsValuesTest : public FormsTest {
 protected:
  void SetUp() override {
    FormsTest::SetUp();
    s_ = strings_.add(u"x");
  }

  ifr::FormSetBuilder formSet() {
    ifr::FormSetBuilder fs(kFormSetGuid, s_, s_);
    fs.varStore(1, kStoreGuid, "Setup", 10);
    fs.efiVarStore(2, kVariableGuid, "Vars", 4, EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS);
    fs.form(1, s_)
        .oneOf(ifr::OneOf(1, s_, s_, Width::U16).store(1, 0).option(s_, 0x0102).option(s_, 0x0304))
        .numeric(ifr::Numeric(2, s_, s_, Width::U64).store(1, 2).range(0, ~0ull))
        .suppressIf(ifr::ideqval(1, 0x0304), [this](ifr::FormBuilder& f) { f.text(s_, s_); })
        .numeric(ifr::Numeric(3, s_, s_, Width::U32).store(2, 0));
    return fs;
  }

  ifr::Strings strings_{{"en-US"}};
  UINT16 s_ = 0;
};

TEST_F(FormsValuesTest, RouteConfigThenProcessFormsShowsTheNewValue) {
  devices::Device& device = addDevice();
  device.addBufferStorage(kStoreGuid, u"Setup", {0x02, 0x01, 0, 0, 0, 0, 0, 0, 0, 0});
  device.addVariableStorage(kVariableGuid, u"Vars", {0x44, 0x33, 0x22, 0x11});
  EFI_HII_HANDLE handle = device.addPackageList(ifr::packageList(kListGuid, formSet(), strings_));

  {
    auto before = process({handle});
    ASSERT_EQ(before->status, EFI_SUCCESS) << lastError().Message;
    EXPECT_EQ(number(findQuestion(before->set(), 1)->HiiValue), 0x0102u);
    EXPECT_EQ(number(findQuestion(before->set(), 3)->HiiValue), 0x11223344u);
    EXPECT_EQ(before->set()->Forms[0]->Statements[2]->SuppressedMark, 0);
    // One ExtractConfig per buffer store, asking for the whole store.
    ASSERT_EQ(device.extractConfigCalls().size(), 1u);
    EXPECT_EQ(device.extractConfigCalls()[0].text, device.configHdr(kStoreGuid, u"Setup"));
  }

  // Write the one-of and the 64-bit numeric through RouteConfig.
  const UINT8 oneOf[] = {0x04, 0x03};
  const UINT8 wide[] = {1, 2, 3, 4, 5, 6, 7, 0x88};
  std::u16string config = device.configHdr(kStoreGuid, u"Setup") + hii::blockConfig(0, oneOf, 2) +
                          hii::blockConfig(2, wide, 8);
  EFI_STRING progress = nullptr;
  ASSERT_EQ(device.configAccess()->RouteConfig(device.configAccess(), config.c_str(), &progress), EFI_SUCCESS);
  EFI_GUID variableGuid = kVariableGuid;
  ASSERT_EQ(platform().setVariable(u"Vars", variableGuid,
                                   EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS, {9, 0, 0, 0}),
            EFI_SUCCESS);

  auto after = process({handle});
  ASSERT_EQ(after->status, EFI_SUCCESS) << lastError().Message;
  EXPECT_EQ(number(findQuestion(after->set(), 1)->HiiValue), 0x0304u);
  EXPECT_EQ(number(findQuestion(after->set(), 2)->HiiValue), 0x8807060504030201u);
  EXPECT_EQ(number(findQuestion(after->set(), 3)->HiiValue), 9u);
  // The condition follows the new value.
  EXPECT_EQ(after->set()->Forms[0]->Statements[2]->SuppressedMark, 1);
}

TEST_F(FormsValuesTest, ValuesStayZeroWhenTheDeviceCannotGiveThem) {
  // The device declares neither storage: ExtractConfig answers
  // EFI_NOT_FOUND and the variable does not exist.
  devices::Device& device = addDevice();
  EFI_HII_HANDLE handle = device.addPackageList(ifr::packageList(kListGuid, formSet(), strings_));
  auto parse = process({handle});
  ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
  EXPECT_EQ(device.extractConfigCalls().size(), 1u);
  for (UINT16 q = 1; q <= 3; ++q) EXPECT_EQ(number(findQuestion(parse->set(), q)->HiiValue), 0u) << q;
  EXPECT_NE(findQuestion(parse->set(), 1)->BlockName, nullptr);
}

TEST_F(FormsValuesTest, DriverWithoutConfigAccessOrDevicePath) {
  // A driver handle that carries only some unrelated protocol.
  static UINT8 marker;
  EFI_HANDLE driver = nullptr;
  const EFI_GUID markerGuid = {0x11111111, 0x2222, 0x3333, {4, 4, 4, 4, 4, 4, 4, 4}};
  ASSERT_EQ(platform().installProtocol(&driver, markerGuid, &marker), EFI_SUCCESS);
  EFI_HII_HANDLE handle = nullptr;
  ASSERT_EQ(database().addPackageList(ifr::packageList(kListGuid, formSet(), strings_), driver, &handle),
            EFI_SUCCESS);
  auto parse = process({handle});
  ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
  EXPECT_EQ(number(findQuestion(parse->set(), 1)->HiiValue), 0u);
  EXPECT_EQ(text16(parse->set()->VarStoreBuffer[0]->ConfigHdr), hii::configHdr(kStoreGuid, u"Setup", {}));
  parse.reset();
  EXPECT_EQ(database().removePackageList(handle), EFI_SUCCESS);
  EXPECT_EQ(platform().uninstallProtocol(driver, markerGuid, &marker), EFI_SUCCESS);
}

TEST_F(FormsValuesTest, DestroyFormSetsLeavesNoPoolAllocationBehind) {
  devices::Device& device = addDevice();
  device.addBufferStorage(kStoreGuid, u"Setup", std::vector<UINT8>(10, 1));
  EFI_HII_HANDLE handle = device.addPackageList(ifr::packageList(kListGuid, formSet(), strings_));
  const size_t before = platform().poolStats().outstanding;
  UINTN count = 0;
  HII_FORMSET_RECORD** sets = nullptr;
  ASSERT_EQ(forms_->ProcessForms(forms_, &handle, 1, nullptr, &count, &sets), EFI_SUCCESS);
  EXPECT_GT(platform().poolStats().outstanding, before);
  EXPECT_EQ(forms_->DestroyFormSets(forms_, count, sets), EFI_SUCCESS);
  EXPECT_EQ(platform().poolStats().outstanding, before);
  EXPECT_EQ(forms_->DestroyFormSets(forms_, 0, nullptr), EFI_SUCCESS);
}

}  // namespace
}  // namespace tvl::test::forms
