// The sample platform: its devices as the forms processor and the location
// service see them, the layout rules of the form descriptions, and the
// initial bytes of a store.
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "export/records/records.h"
#include "host/hii/config_string.h"
#include "host/sample/sample_devices.h"
#include "host/sample/sample_platform.h"
#include "tests/support/fixture.h"

namespace sample = tvl::host::sample;
using sample::Statement;
using tvl::host::ifr::Width;

namespace {

class SamplePlatformTest : public tvl::test::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    sample_ = std::make_unique<sample::SamplePlatform>(platform());
    // The services' own tables and the devices' registrations live as long
    // as the platform.
    markBaseline();
  }
  void TearDown() override {
    // The devices and the HII database hold no pool memory; they must go
    // before the platform.
    sample_.reset();
    PlatformTest::TearDown();
  }

  // ProcessForms over every package list of a device.
  EFI_STATUS process(const sample::SampleDevice& device, UINTN* count, HII_FORMSET_RECORD*** sets,
                     const EFI_GUID* filter = nullptr) {
    HII_FORMS_PROCESSOR2_PROTOCOL* p = sample_->formsProcessor();
    std::vector<EFI_HII_HANDLE> handles = device.packageLists();
    return p->ProcessForms(p, handles.data(), handles.size(), filter, count, sets);
  }

  std::unique_ptr<sample::SamplePlatform> sample_;
};

TEST_F(SamplePlatformTest, FormsProcessorSeesEveryFormAndStatementOfEachFormSet) {
  ASSERT_EQ(sample_->devices().size(), 5u);
  HII_FORMS_PROCESSOR2_PROTOCOL* p = sample_->formsProcessor();
  size_t checked = 0;
  for (const auto& device : sample_->devices()) {
    for (const sample::FormSetDescription& description : device.definition.formSets) {
      SCOPED_TRACE(tvl::host::hii::toAscii(device.fqdd() + u" " + description.title));
      UINTN count = 0;
      HII_FORMSET_RECORD** sets = nullptr;
      EFI_STATUS status = process(device, &count, &sets, &description.guid);
      // The one form set built to be unreadable.
      if (description.guid == sample::kDiskDiagnosticsFormSetGuid) {
        EXPECT_EQ(status, EFI_VOLUME_CORRUPTED);
        continue;
      }
      ASSERT_EQ(status, EFI_SUCCESS);
      ASSERT_EQ(count, 1u);
      const HII_FORMSET_RECORD& fs = *sets[0];
      EXPECT_EQ(fs.NumberOfLanguages, device.definition.languages.size());
      EXPECT_EQ(fs.VarStoreBufferCount, description.varStores.size());
      EXPECT_EQ(fs.DefaultStoreCount, 2u);
      ASSERT_EQ(fs.FormCount, description.forms.size());
      for (size_t f = 0; f < description.forms.size(); ++f) {
        EXPECT_EQ(fs.Forms[f]->FormId, description.forms[f].id);
        ASSERT_EQ(fs.Forms[f]->StatementCount, description.forms[f].statements.size())
            << "form " << description.forms[f].id;
        for (size_t s = 0; s < description.forms[f].statements.size(); ++s)
          EXPECT_EQ(fs.Forms[f]->Statements[s]->Operand, description.forms[f].statements[s].opcode);
      }
      EXPECT_EQ(p->DestroyFormSets(p, count, sets), EFI_SUCCESS);
      ++checked;
    }
  }
  EXPECT_EQ(checked, 7u);  // every form set but the diagnostics one
  // The leak check at TearDown covers every record DestroyFormSets freed.
}

// What ProcessForms gives for each device with and without the filters the
// export chooses by FQDD: the BIOS setup's own form set out of three, the
// storage controller's form set only when asked for by its GUID.
TEST_F(SamplePlatformTest, EachDeviceYieldsTheFormSetsItsFilterSelects) {
  const EFI_GUID bios = INTERNAL_BIOS_SETUP_FORMSET_GUID;
  const EFI_GUID ssd = INTERNAL_SSD_SETUP_FORMSET_GUID;
  struct Case {
    const char16_t* fqdd;
    const EFI_GUID* filter;
    EFI_STATUS status;
    std::vector<EFI_GUID> formSets;
    std::vector<std::string> languages;
  };
  const std::vector<std::string> mapped = {"en-US", "x-UEFI"};
  const Case cases[] = {
      {sample::kBiosFqdd, nullptr, EFI_SUCCESS,
       {sample::kSetupMenuFormSetGuid, bios, sample::kBootManagerFormSetGuid}, mapped},
      {sample::kBiosFqdd, &bios, EFI_SUCCESS, {bios}, mapped},
      {sample::kBiosFqdd, &ssd, EFI_NOT_FOUND, {}, {}},
      {sample::kNicFqdd, nullptr, EFI_SUCCESS, {sample::kNicFormSetGuid}, mapped},
      {sample::kNicFqdd, &bios, EFI_NOT_FOUND, {}, {}},
      {sample::kDiskFqdd, nullptr, EFI_VOLUME_CORRUPTED, {}, {}},
      {sample::kDiskFqdd, &ssd, EFI_SUCCESS, {ssd}, mapped},
      {sample::kFcFqdd, nullptr, EFI_SUCCESS, {sample::kFcFormSetGuid}, {"en-US"}},
      {sample::kRaidFqdd, nullptr, EFI_SUCCESS, {sample::kRaidFormSetGuid}, {"en-US", "fr-FR", "x-UEFI"}},
  };
  HII_FORMS_PROCESSOR2_PROTOCOL* p = sample_->formsProcessor();
  for (const auto& c : cases) {
    SCOPED_TRACE(tvl::host::hii::toAscii(c.fqdd) + (c.filter ? " filtered" : " unfiltered"));
    sample::SampleDevice* device = sample_->findDevice(c.fqdd);
    ASSERT_NE(device, nullptr);
    ASSERT_EQ(device->packageLists().size(), 1u);
    UINTN count = 0;
    HII_FORMSET_RECORD** sets = nullptr;
    ASSERT_EQ(process(*device, &count, &sets, c.filter), c.status);
    if (c.status != EFI_SUCCESS) {
      EXPECT_EQ(sets, nullptr);
      continue;
    }
    ASSERT_EQ(count, c.formSets.size());
    for (size_t i = 0; i < count; ++i) {
      EXPECT_EQ(sets[i]->Guid, c.formSets[i]) << "form set " << i;
      std::vector<std::string> languages;
      for (UINT64 l = 0; l < sets[i]->NumberOfLanguages; ++l) languages.push_back(sets[i]->Languages[l]);
      EXPECT_EQ(languages, c.languages) << "form set " << i;
    }
    p->DestroyFormSets(p, count, sets);
  }
}

// Strings as the driver fetches them: prompts in en-US, keyword texts in
// x-UEFI where a device has it, translations in fr-FR where it has one.
TEST_F(SamplePlatformTest, StringsExistInTheLanguagesEachDeviceOffers) {
  EFI_HII_STRING_PROTOCOL* strings = sample_->hii().strings();
  auto fetch = [&](EFI_HII_HANDLE handle, const char* language, UINT16 id, std::u16string* text) {
    CHAR16 buffer[256] = {};
    UINTN size = sizeof buffer;
    EFI_STATUS status = strings->GetString(strings, language, handle, id, buffer, &size, nullptr);
    if (status == EFI_SUCCESS) *text = buffer;
    return status;
  };
  HII_FORMS_PROCESSOR2_PROTOCOL* p = sample_->formsProcessor();
  struct Case {
    const char16_t* fqdd;
    const char* language;
    bool help;  // the form set's help rather than its title
    EFI_STATUS status;
    const char16_t* text;
  } cases[] = {
      {sample::kRaidFqdd, "en-US", false, EFI_SUCCESS, u"RAID Controller in Slot 6 Configuration"},
      {sample::kRaidFqdd, "x-UEFI", false, EFI_SUCCESS, u"RaidController"},
      {sample::kRaidFqdd, "fr-FR", false, EFI_SUCCESS, u"Configuration du contr\u00f4leur RAID de l'emplacement 6"},
      {sample::kRaidFqdd, "fr-FR", true, EFI_SUCCESS, u"Param\u00e8tres du contr\u00f4leur."},
      {sample::kRaidFqdd, "x-UEFI", true, EFI_NOT_FOUND, nullptr},  // help texts are not keyword texts
      {sample::kFcFqdd, "en-US", false, EFI_SUCCESS, u"FC Port 1 Configuration"},
      {sample::kFcFqdd, "x-UEFI", false, EFI_INVALID_LANGUAGE, nullptr},
      {sample::kNicFqdd, "x-UEFI", false, EFI_SUCCESS, u"NICConfig"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(tvl::host::hii::toAscii(c.fqdd) + " " + c.language + (c.help ? " help" : " title"));
    sample::SampleDevice* device = sample_->findDevice(c.fqdd);
    ASSERT_NE(device, nullptr);
    UINTN count = 0;
    HII_FORMSET_RECORD** sets = nullptr;
    ASSERT_EQ(process(*device, &count, &sets), EFI_SUCCESS);
    std::u16string text;
    EXPECT_EQ(fetch(device->packageLists()[0], c.language, c.help ? sets[0]->FormSetHelp : sets[0]->FormSetTitle, &text), c.status);
    if (c.text) {
      EXPECT_EQ(text, c.text);
    }
    p->DestroyFormSets(p, count, sets);
  }
}

TEST_F(SamplePlatformTest, ProcessFormsOnTheNicLeaksNothingWhenAllocationsFail) {
  sample::SampleDevice* nic = sample_->findDevice(u"NIC.Integrated.1-1-1");
  ASSERT_NE(nic, nullptr);
  UINTN count = 0;
  HII_FORMSET_RECORD** sets = nullptr;
  HII_FORMS_PROCESSOR2_PROTOCOL* p = sample_->formsProcessor();
  size_t attempts = sweepAllocationFailures(
      [&] { return process(*nic, &count, &sets); },
      [&](EFI_STATUS status, size_t k) {
        EXPECT_EQ(status, EFI_OUT_OF_RESOURCES) << "attempt " << k;
        EXPECT_EQ(sets, nullptr) << "attempt " << k;
      },
      [&] {
        if (sets) p->DestroyFormSets(p, count, sets);
        sets = nullptr;
        count = 0;
      });
  EXPECT_GT(attempts, 10u);
}

TEST_F(SamplePlatformTest, LocationServiceKnowsEachDeviceByItsDevicePath) {
  DEVICE_LOCATION_PROTOCOL* location = sample_->location();
  const EFI_GUID devicePathGuid = EFI_DEVICE_PATH_PROTOCOL_GUID;
  for (const auto& device : sample_->devices()) {
    auto* path = static_cast<EFI_DEVICE_PATH_PROTOCOL*>(platform().handleProtocol(device.handle(), devicePathGuid));
    ASSERT_NE(path, nullptr);
    CHAR16 *description = nullptr, *fqdd = nullptr, *text = nullptr;
    ASSERT_EQ(location->DevicePathToLocationText(location, path, "en-US", &description, &fqdd, &text), EFI_SUCCESS);
    EXPECT_EQ(std::u16string(fqdd), device.fqdd());
    EXPECT_EQ(std::u16string(description), device.definition.description);
    for (CHAR16* t : {description, fqdd, text}) bs()->FreePool(t);
  }
}

// The password services the platform loads, switched in any order: the
// protocols installed, the one a driver loaded afterwards binds, and no
// memory left behind by an unloaded service.
TEST_F(SamplePlatformTest, PasswordServicesFollowTheSetting) {
  using P = sample::PasswordServices;
  EXPECT_EQ(sample_->passwordServices(), P::Newer) << "the default";
  EXPECT_NE(sample_->password2(), nullptr);
  EXPECT_EQ(sample_->legacyPassword(), nullptr);
  struct Case {
    P services;
    const char* name;
    bool newer, legacy;
  } cases[] = {
      {P::Legacy, "legacy", false, true}, {P::Both, "both", true, true},  {P::None, "none", false, false},
      {P::Newer, "new", true, false},     {P::Both, "both", true, true},  {P::Legacy, "legacy", false, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    sample_->setPasswordServices(c.services);
    EXPECT_EQ(sample_->passwordServices(), c.services);
    EXPECT_STREQ(sample::passwordServicesName(c.services), c.name);
    EXPECT_EQ(sample::parsePasswordServices(c.name), c.services);
    EXPECT_EQ(platform().handlesWith(gPassword2ProtocolGuid).size(), c.newer ? 1u : 0u);
    EXPECT_EQ(platform().handlesWith(gLegacyPasswordProtocolGuid).size(), c.legacy ? 1u : 0u);
    EFI_HANDLE driver = nullptr;
    ASSERT_EQ(sample_->loadDriver(&driver), EFI_SUCCESS);
    auto global = [&](const char* name) { return *static_cast<void**>(platform().imageSymbol(driver, name)); };
    EXPECT_EQ(global("gPassword2Protocol"), static_cast<void*>(sample_->password2()));
    EXPECT_EQ(global("gLegacyPasswordProtocol"), c.newer ? nullptr : static_cast<void*>(sample_->legacyPassword()));
    ASSERT_EQ(platform().unloadImage(driver), EFI_SUCCESS);
  }
  EXPECT_FALSE(sample::parsePasswordServices("older"));
  // Every service loaded here is unloaded again; the check at TearDown
  // finds none of their memory.
  sample_->setPasswordServices(P::None);
}

// The disabled marks, as the loaded services report them.
TEST_F(SamplePlatformTest, PasswordsCanBeMarkedDisabled) {
  sample_->setPasswordServices(sample::PasswordServices::Both);
  auto disabled = [&](PASSWORD_SERVICE_PROTOCOL* s, UINT16 which) {
    UINT16 status = 0;
    EXPECT_EQ(s->GetProperties(s, which, &status, nullptr, nullptr, nullptr, nullptr), EFI_SUCCESS);
    return (status & EFI_VORK_PASSWORD_DISABLED) != 0;
  };
  const struct {
    UINT16 which;
    bool disabled;
    bool system, setup;  // both marks afterwards
  } steps[] = {
      {PASSWORD_WHICH_SETUP, true, false, true},   {PASSWORD_WHICH_SYSTEM, true, true, true},
      {PASSWORD_WHICH_SETUP, false, true, false},  {PASSWORD_WHICH_SETUP, false, true, false},
      {PASSWORD_WHICH_SYSTEM, false, false, false},
  };
  for (const auto& step : steps) {
    sample_->setPasswordDisabled(step.which, step.disabled);
    for (PASSWORD_SERVICE_PROTOCOL* s : {sample_->password2(), sample_->legacyPassword()}) {
      EXPECT_EQ(disabled(s, PASSWORD_WHICH_SYSTEM), step.system);
      EXPECT_EQ(disabled(s, PASSWORD_WHICH_SETUP), step.setup);
    }
    EXPECT_EQ(sample_->passwordDisabled(PASSWORD_WHICH_SYSTEM), step.system);
    EXPECT_EQ(sample_->passwordDisabled(PASSWORD_WHICH_SETUP), step.setup);
  }
  std::vector<uint8_t> marks;
  EXPECT_EQ(platform().getVariable(PASSWORD_DISABLED_VARIABLE, gPasswordStoreGuid, &marks), EFI_NOT_FOUND)
      << "no marks leave no variable";
  EXPECT_THROW(sample_->setPasswordDisabled(3, true), std::invalid_argument);
  sample_->setPasswordServices(sample::PasswordServices::Newer);
}

// ---------------------------------------------------------------- descriptions
sample::FormSetDescription tinyFormSet(std::vector<Statement> statements) {
  sample::FormSetDescription fs;
  fs.guid = {0x11111111, 0x2222, 0x3333, {4, 4, 5, 5, 6, 6, 7, 7}};
  fs.title = u"Test";
  fs.varStores = {{1, {0x1, 0x2, 0x3, {4, 5, 6, 7, 8, 9, 10, 11}}, "Store", 16, false, 0}};
  fs.forms = {{1, u"Main", u"Main", std::move(statements)}};
  return fs;
}

sample::DeviceDescription tinyDevice(std::vector<Statement> statements) {
  sample::DeviceDescription d;
  d.fqdd = u"Test.Device.1";
  d.formSets = {tinyFormSet(std::move(statements))};
  return d;
}

TEST(SampleFormDescription, RefusesDescriptionsThatCannotBeLaidOut) {
  struct Case {
    const char* name;
    std::vector<Statement> statements;
  };
  const Case cases[] = {
      {"past the end of the store", {sample::numeric(1, u"N", u"N", Width::U32).at(1, 13)}},
      {"two questions share a byte",
       {sample::numeric(1, u"A", u"A", Width::U16).at(1, 0), sample::checkbox(2, u"B", u"B").at(1, 1)}},
      {"unknown store", {sample::checkbox(1, u"C", u"C").at(2, 0)}},
      {"repeated question id", {sample::checkbox(1, u"A", u"A").at(1, 0), sample::checkbox(1, u"B", u"B").at(1, 1)}},
      {"zero question id", {sample::checkbox(0, u"A", u"A").at(1, 0)}},
      {"reference to a missing form", {sample::reference(1, u"R", u"R", 9)}},
      {"current value wider than the question", {sample::numeric(1, u"N", u"N", Width::U8).at(1, 0).value(256)}},
      {"checkbox value above 1", {sample::checkbox(1, u"C", u"C").at(1, 0).value(2)}},
      {"more elements than containers",
       {sample::orderedList(1, u"L", u"L", Width::U8, 2).at(1, 0).values({1, 2, 3})}},
      {"text longer than the maximum", {sample::string(1, u"S", u"S", 0, 2).at(1, 0).valueText(u"abc")}},
      {"value without storage", {sample::checkbox(1, u"C", u"C").value(1)}},
      {"option on a checkbox", {sample::checkbox(1, u"C", u"C").at(1, 0).option(u"X", u"X", 1)}},
      {"default that does not suit", {sample::checkbox(1, u"C", u"C").at(1, 0).defaultNumber(1)}},
  };
  for (const auto& c : cases) {
    sample::DeviceDescription device = tinyDevice(c.statements);
    EXPECT_THROW(sample::buildPackageList(device), std::invalid_argument) << c.name;
  }
  // The same shapes laid out correctly are accepted.
  EXPECT_NO_THROW(sample::buildPackageList(tinyDevice({sample::numeric(1, u"N", u"N", Width::U32).at(1, 12),
                                                       sample::reference(2, u"R", u"R", 1)})));
}

// Rules that concern the device as a whole: its form sets and languages.
TEST(SampleFormDescription, RefusesDevicesWhoseFormSetsOrLanguagesClash) {
  struct Case {
    const char* name;
    std::function<void(sample::DeviceDescription&)> change;
  };
  const Case cases[] = {
      {"two form sets with one GUID", [](sample::DeviceDescription& d) { d.formSets.push_back(d.formSets[0]); }},
      {"one store in two form sets",
       [](sample::DeviceDescription& d) {
         sample::FormSetDescription other = d.formSets[0];
         other.guid.Data1 = 0x99;
         d.formSets.push_back(other);
       }},
      {"no language", [](sample::DeviceDescription& d) { d.languages.clear(); }},
      {"a language named twice", [](sample::DeviceDescription& d) { d.languages = {"en-US", "fr-FR", "en-US"}; }},
      {"a translation into a language the device lacks",
       [](sample::DeviceDescription& d) { d.translations["de-DE"] = {{u"Test", u"Pr\u00fcfung"}}; }},
      {"a translation into en-US",
       [](sample::DeviceDescription& d) {
         d.languages = {"en-US", "fr-FR"};
         d.translations["en-US"] = {{u"Test", u"Testing"}};
       }},
  };
  for (const auto& c : cases) {
    sample::DeviceDescription device = tinyDevice({sample::checkbox(1, u"C", u"C").at(1, 0)});
    EXPECT_NO_THROW(sample::validate(device)) << c.name;
    c.change(device);
    EXPECT_THROW(sample::buildPackageList(device), std::invalid_argument) << c.name;
  }
}

TEST(SampleFormDescription, InitialStorageWritesEachCurrentValueAtItsOffset) {
  sample::DeviceDescription d = tinyDevice({
      sample::numeric(1, u"N", u"N", Width::U32).at(1, 0).value(0x11223344),
      sample::checkbox(2, u"C", u"C").at(1, 4).value(1),
      sample::orderedList(3, u"L", u"L", Width::U16, 2).at(1, 6).values({0x0102, 0x0304}),
      sample::string(4, u"S", u"S", 0, 2).at(1, 10).valueText(u"hi"),
      sample::password(5, u"P", u"P", 0, 1).at(1, 14),
  });
  std::vector<UINT8> expected = {0x44, 0x33, 0x22, 0x11, 1, 0, 0x02, 0x01, 0x04, 0x03, 'h', 0, 'i', 0, 0, 0};
  const sample::FormSetDescription& fs = d.formSets[0];
  EXPECT_EQ(sample::initialStorage(fs, fs.varStores[0]), expected);
}

// A negative number is stored in two's complement of the question's width,
// and fits the checks of that width.
TEST(SampleFormDescription, SignedValuesTakeTheWidthOfTheirQuestion) {
  sample::DeviceDescription d = tinyDevice({
      sample::numeric(1, u"A", u"A", Width::U8).at(1, 0).signedRange(-15, 15, 1).signedValue(-5),
      sample::numeric(2, u"B", u"B", Width::U16).at(1, 2).signedRange(-50, 50, 5).signedValue(-10),
      sample::numeric(3, u"C", u"C", Width::U32).at(1, 4).signedRange(-1, 3600, 1).signedValue(-1),
      sample::numeric(4, u"D", u"D", Width::U64).at(1, 8).signedRange(-1000, 1000).signedValue(-2),
  });
  EXPECT_NO_THROW(sample::buildPackageList(d));
  std::vector<UINT8> expected = {0xFB, 0,    0xF6, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  const sample::FormSetDescription& fs = d.formSets[0];
  EXPECT_EQ(sample::initialStorage(fs, fs.varStores[0]), expected);
}

}  // namespace
