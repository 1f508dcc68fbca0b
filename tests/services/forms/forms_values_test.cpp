// Current values: read through the device's configuration access (not from
// the default configurations that follow them) and EFI variables, seen
// again after RouteConfig or SetVariable, left zero when the driver cannot
// give them. (DestroyFormSets gives everything back: every test's leak check.)
#include <gtest/gtest.h>

#include <cstring>

#include "forms_support.h"

namespace tvl::test::forms {
namespace {

using FormsValuesTest = FormsTest;
constexpr UINT16 kValueQuestions[] = {0x10, 0x12, 0x18};  // one-of, 32-bit numeric, 64-bit numeric in the variable

TEST_F(FormsValuesTest, RouteConfigThenProcessFormsShowsTheNewValue) {
  Sample sample;
  devices::Device* device = nullptr;
  EFI_HII_HANDLE handle = registerSample(sample, &device);
  auto expectValues = [&](const UINT64 (&values)[3], UINT8 imageSuppressed) {
    auto parse = process({handle});
    ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(number(findQuestion(parse->set(), kValueQuestions[i])->HiiValue), values[i]);
    EXPECT_EQ(parse->set()->Forms[0]->Statements[10]->SuppressedMark, imageSuppressed) << "the condition follows";
  };
  expectValues({2, 0x12345678, 0x12340000}, 0);
  // One ExtractConfig per buffer store, asking for the whole store. The answer carries the default
  // configurations after the current bytes (the device tests check them; here the manufacturing one would give
  // one-of 3 and numeric 200): none of them is a current value.
  ASSERT_EQ(device->extractConfigCalls().size(), 1u);
  EXPECT_EQ(device->extractConfigCalls()[0].text, device->configHdr(kStoreGuid, u"Setup"));

  const UINT8 oneOf[] = {3, 0}, numeric[] = {1, 0, 0xFE, 0xCA};
  std::u16string config =
      device->configHdr(kStoreGuid, u"Setup") + hii::blockConfig(2, oneOf, 2) + hii::blockConfig(8, numeric, 4);
  EFI_STRING progress = nullptr;
  ASSERT_EQ(device->configAccess()->RouteConfig(device->configAccess(), config.c_str(), &progress), EFI_SUCCESS);
  EFI_GUID variableGuid = kVariableGuid;
  ASSERT_EQ(platform().setVariable(u"Vars", variableGuid, EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS,
                                   {1, 2, 3, 4, 5, 6, 7, 0x88}),
            EFI_SUCCESS);
  expectValues({3, 0xCAFE0001, 0x8807060504030201}, 1);
}

// A device that declares neither store (ExtractConfig answers
// EFI_NOT_FOUND, the variable does not exist), and a driver handle with
// neither configuration access nor device path.
TEST_F(FormsValuesTest, ValuesStayZeroWhenTheDriverCannotGiveThem) {
  static UINT8 marker;
  const EFI_GUID markerGuid = {0x11111111, 0x2222, 0x3333, {4, 4, 4, 4, 4, 4, 4, 4}};
  EFI_HANDLE driver = nullptr;
  ASSERT_EQ(platform().installProtocol(&driver, markerGuid, &marker), EFI_SUCCESS);
  const Sample sample;
  EFI_HII_HANDLE bare = nullptr;
  ASSERT_EQ(database().addPackageList(sample.list(), driver, &bare), EFI_SUCCESS);
  auto parse = process({addDevice().addPackageList(sample.list()), bare});
  ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
  ASSERT_EQ(parse->count, 2u);
  for (size_t i = 0; i < 2; ++i)
    for (UINT16 q : kValueQuestions) EXPECT_EQ(number(findQuestion(parse->set(i), q)->HiiValue), 0u) << i << q;
  EXPECT_EQ(text16(parse->set(1)->VarStoreBuffer[0]->ConfigHdr), hii::configHdr(kStoreGuid, u"Setup", {}));
  parse.reset();
  EXPECT_EQ(database().removePackageList(bare), EFI_SUCCESS);
  EXPECT_EQ(platform().uninstallProtocol(driver, markerGuid, &marker), EFI_SUCCESS);

  // A GetVariable that fails after writing into the buffer: those bytes are no value.
  struct FailingVariables {
    static EFI_STATUS EFIAPI get(const CHAR16*, const EFI_GUID*, UINT32*, UINTN* size, VOID* data) {
      std::memset(data, 0xEE, *size);
      return EFI_DEVICE_ERROR;
    }
  };
  const auto getVariable = rt()->GetVariable;
  rt()->GetVariable = FailingVariables::get;
  auto failed = process({registerSample(sample)});
  rt()->GetVariable = getVariable;
  ASSERT_EQ(failed->status, EFI_SUCCESS) << lastError().Message;
  EXPECT_EQ(number(findQuestion(failed->set(), kValueQuestions[2])->HiiValue), 0u);
}

// Fields of an 8-byte store: one that ends at the store's end is read, one
// that runs past it or starts at its end is left zero (nothing beyond the
// store's bytes is read).
TEST_F(FormsValuesTest, FieldsPastTheEndOfTheirStoreStayZero) {
  struct Field {
    UINT16 question;
    UINT16 offset;
    ifr::Width width;
    UINT64 value;
  };
  const Field fields[] = {
      {0x30, 0, ifr::Width::U64, 0x0807060504030201},  // the whole store
      {0x31, 4, ifr::Width::U32, 0x08070605},          // ends at the end
      {0x32, 7, ifr::Width::U8, 0x08},                 // the last byte
      {0x33, 6, ifr::Width::U32, 0},                   // two bytes past the end
      {0x34, 5, ifr::Width::U64, 0},
      {0x35, 8, ifr::Width::U16, 0},                   // starts at the end
  };
  ifr::Strings strings({"en-US"});
  const UINT16 prompt = strings.add(u"Field");
  ifr::FormSetBuilder fs(kFormSetGuid, prompt, prompt);
  fs.varStore(1, kStoreGuid, "Setup", 8);
  ifr::FormBuilder& form = fs.form(1, prompt);
  for (const Field& f : fields)
    form.numeric(ifr::Numeric(f.question, prompt, prompt, f.width).store(1, f.offset).range(0, ~0ull));
  devices::Device& device = addDevice();
  device.addBufferStorage(kStoreGuid, u"Setup", {1, 2, 3, 4, 5, 6, 7, 8});
  auto parse = process({device.addPackageList(ifr::packageList(kListGuid, fs, strings))});
  ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
  for (const Field& f : fields) EXPECT_EQ(number(findQuestion(parse->set(), f.question)->HiiValue), f.value) << f.question;
}

}  // namespace
}  // namespace tvl::test::forms
