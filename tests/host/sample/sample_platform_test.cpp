// The sample platform: its devices as the forms processor and the location
// service see them, the layout rules of its form descriptions, and the
// initial bytes of a store.
#include <gtest/gtest.h>

#include <algorithm>
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
    markBaseline();  // the services' tables and the devices' registrations live as long as the platform
  }
  void TearDown() override {
    sample_.reset();
    PlatformTest::TearDown();
  }

  // The form sets ProcessForms gives for every package list of a device;
  // destroyed with this object.
  struct FormSets {
    HII_FORMS_PROCESSOR2_PROTOCOL* p;
    UINTN count = 0;
    HII_FORMSET_RECORD** sets = nullptr;
    EFI_STATUS status = EFI_SUCCESS;
    ~FormSets() { if (sets) p->DestroyFormSets(p, count, sets); }
  };
  std::unique_ptr<FormSets> process(const sample::SampleDevice& device, const EFI_GUID* filter = nullptr) {
    auto out = std::make_unique<FormSets>(FormSets{sample_->formsProcessor()});
    out->status = call(device, &out->count, &out->sets, filter);
    return out;
  }
  EFI_STATUS call(const sample::SampleDevice& device, UINTN* count, HII_FORMSET_RECORD*** sets,
                  const EFI_GUID* filter = nullptr) {
    HII_FORMS_PROCESSOR2_PROTOCOL* p = sample_->formsProcessor();
    std::vector<EFI_HII_HANDLE> handles = device.packageLists();
    return p->ProcessForms(p, handles.data(), handles.size(), filter, count, sets);
  }
  sample::SampleDevice& device(const char16_t* fqdd) {
    if (!sample_->findDevice(fqdd)) throw std::logic_error("no sample device");
    return *sample_->findDevice(fqdd);
  }

  std::unique_ptr<sample::SamplePlatform> sample_;
};

// The filters the export chooses by FQDD: the BIOS setup's own form set out of three, the storage controller's
// form set only when asked for by GUID (its diagnostics form set is built to be unreadable). Each form set comes
// with every form and statement of its description.
TEST_F(SamplePlatformTest, EachDeviceYieldsTheFormSetsItsFilterSelects) {
  ASSERT_EQ(sample_->devices().size(), 5u);
  const EFI_GUID bios = INTERNAL_BIOS_SETUP_FORMSET_GUID, ssd = INTERNAL_SSD_SETUP_FORMSET_GUID;
  const std::vector<std::string> mapped = {"en-US", "x-UEFI"};
  const struct {
    const char16_t* fqdd; const EFI_GUID* filter; EFI_STATUS status; std::vector<EFI_GUID> formSets;
    std::vector<std::string> languages;
  } cases[] = {
      {sample::kBiosFqdd, nullptr, EFI_SUCCESS, {sample::kSetupMenuFormSetGuid, bios, sample::kBootManagerFormSetGuid}, mapped},
      {sample::kBiosFqdd, &bios, EFI_SUCCESS, {bios}, mapped},
      {sample::kBiosFqdd, &ssd, EFI_NOT_FOUND, {}, {}},
      {sample::kNicFqdd, nullptr, EFI_SUCCESS, {sample::kNicFormSetGuid}, mapped},
      {sample::kNicFqdd, &bios, EFI_NOT_FOUND, {}, {}},
      {sample::kDiskFqdd, nullptr, EFI_VOLUME_CORRUPTED, {}, {}},
      {sample::kDiskFqdd, &ssd, EFI_SUCCESS, {ssd}, mapped},
      {sample::kFcFqdd, nullptr, EFI_SUCCESS, {sample::kFcFormSetGuid}, {"en-US"}},
      {sample::kRaidFqdd, nullptr, EFI_SUCCESS, {sample::kRaidFormSetGuid}, {"en-US", "fr-FR", "x-UEFI"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(tvl::host::hii::toAscii(c.fqdd) + (c.filter ? " filtered" : " unfiltered"));
    ASSERT_EQ(device(c.fqdd).packageLists().size(), 1u);
    auto r = process(device(c.fqdd), c.filter);
    ASSERT_EQ(r->status, c.status);
    ASSERT_EQ(r->count, c.formSets.size());
    EXPECT_EQ(r->sets == nullptr, c.status != EFI_SUCCESS);
    for (size_t i = 0; i < r->count; ++i) {
      SCOPED_TRACE("form set " + std::to_string(i));
      const HII_FORMSET_RECORD& fs = *r->sets[i];
      ASSERT_EQ(fs.Guid, c.formSets[i]);
      EXPECT_EQ(std::vector<std::string>(fs.Languages, fs.Languages + fs.NumberOfLanguages), c.languages);
      const auto& described = device(c.fqdd).definition.formSets;
      auto found = std::find_if(described.begin(), described.end(), [&](auto& d) { return d.guid == fs.Guid; });
      ASSERT_NE(found, described.end());
      const sample::FormSetDescription& description = *found;
      EXPECT_EQ(fs.VarStoreBufferCount, description.varStores.size());
      EXPECT_EQ(fs.DefaultStoreCount, 2u);
      ASSERT_EQ(fs.FormCount, description.forms.size());
      for (size_t f = 0; f < description.forms.size(); ++f) {
        const auto& form = description.forms[f];
        EXPECT_EQ(fs.Forms[f]->FormId, form.id);
        ASSERT_EQ(fs.Forms[f]->StatementCount, form.statements.size()) << "form " << form.id;
        for (size_t s = 0; s < form.statements.size(); ++s)
          EXPECT_EQ(fs.Forms[f]->Statements[s]->Operand, form.statements[s].opcode);
      }
    }
  }
}

// Prompts in en-US, keyword texts in x-UEFI where a device has it,
// translations in fr-FR where it has one.
TEST_F(SamplePlatformTest, StringsExistInTheLanguagesEachDeviceOffers) {
  EFI_HII_STRING_PROTOCOL* strings = sample_->hii().strings();
  const struct {  // help: the form set's help rather than its title
    const char16_t* fqdd; const char* language; bool help; EFI_STATUS status; const char16_t* text;
  } cases[] = {
      {sample::kRaidFqdd, "en-US", false, EFI_SUCCESS, u"RAID Controller in Slot 6 Configuration"},
      {sample::kRaidFqdd, "x-UEFI", false, EFI_SUCCESS, u"RaidController"},
      {sample::kRaidFqdd, "fr-FR", false, EFI_SUCCESS, u"Configuration du contr\u00f4leur RAID de l'emplacement 6"},
      {sample::kRaidFqdd, "fr-FR", true, EFI_SUCCESS, u"Param\u00e8tres du contr\u00f4leur."},
      {sample::kRaidFqdd, "x-UEFI", true, EFI_NOT_FOUND, u""},  // help texts are not keyword texts
      {sample::kFcFqdd, "en-US", false, EFI_SUCCESS, u"FC Port 1 Configuration"},
      {sample::kFcFqdd, "x-UEFI", false, EFI_INVALID_LANGUAGE, u""},
      {sample::kNicFqdd, "x-UEFI", false, EFI_SUCCESS, u"NICConfig"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(tvl::host::hii::toAscii(c.fqdd) + " " + c.language + (c.help ? " help" : " title"));
    auto r = process(device(c.fqdd));
    ASSERT_EQ(r->status, EFI_SUCCESS);
    CHAR16 buffer[256] = {};
    UINTN size = sizeof buffer;
    EXPECT_EQ(strings->GetString(strings, c.language, device(c.fqdd).packageLists()[0],
                                 c.help ? r->sets[0]->FormSetHelp : r->sets[0]->FormSetTitle, buffer, &size, nullptr),
              c.status);
    EXPECT_EQ(std::u16string(buffer), c.text);
  }
}

TEST_F(SamplePlatformTest, ProcessFormsOnTheNicLeaksNothingWhenAllocationsFail) {
  UINTN count = 0;
  HII_FORMSET_RECORD** sets = nullptr;
  HII_FORMS_PROCESSOR2_PROTOCOL* p = sample_->formsProcessor();
  size_t attempts = sweepAllocationFailures(
      [&] { return call(device(sample::kNicFqdd), &count, &sets); },
      [&](EFI_STATUS status, size_t k) {
        EXPECT_EQ(status, EFI_OUT_OF_RESOURCES) << "attempt " << k;
        EXPECT_EQ(sets, nullptr) << "attempt " << k;
      },
      [&] {
        if (sets) p->DestroyFormSets(p, count, sets);
        sets = nullptr;
      });
  EXPECT_GT(attempts, 10u);
}

TEST_F(SamplePlatformTest, LocationServiceKnowsEachDeviceByItsDevicePath) {
  DEVICE_LOCATION_PROTOCOL* location = sample_->location();
  for (const auto& device : sample_->devices()) {
    auto* path = static_cast<EFI_DEVICE_PATH_PROTOCOL*>(
        platform().handleProtocol(device.handle(), EFI_GUID(EFI_DEVICE_PATH_PROTOCOL_GUID)));
    ASSERT_NE(path, nullptr);
    CHAR16 *description = nullptr, *fqdd = nullptr, *text = nullptr;
    ASSERT_EQ(location->DevicePathToLocationText(location, path, "en-US", &description, &fqdd, &text), EFI_SUCCESS);
    EXPECT_EQ(std::u16string(fqdd), device.fqdd());
    EXPECT_EQ(std::u16string(description), device.definition.description);
    for (CHAR16* t : {description, fqdd, text}) bs()->FreePool(t);
  }
}

// The password services, switched in any order: the protocols installed,
// the one a driver loaded afterwards binds, and their disabled marks.
TEST_F(SamplePlatformTest, PasswordServicesFollowTheSetting) {
  using P = sample::PasswordServices;
  EXPECT_EQ(sample_->passwordServices(), P::Newer) << "the default";
  EXPECT_NE(sample_->password2(), nullptr);
  EXPECT_EQ(sample_->legacyPassword(), nullptr);
  const struct { P services; const char* name; bool newer, legacy; } cases[] = {
      {P::Legacy, "legacy", false, true}, {P::Both, "both", true, true},  {P::None, "none", false, false},
      {P::Newer, "new", true, false},     {P::Both, "both", true, true},  {P::Legacy, "legacy", false, true},
  };
  for (const auto& c : cases) {
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

  // Both services report the disabled marks.
  auto disabled = [&](PASSWORD_SERVICE_PROTOCOL* s, UINT16 which) {
    UINT16 status = 0;
    EXPECT_EQ(s->GetProperties(s, which, &status, nullptr, nullptr, nullptr, nullptr), EFI_SUCCESS);
    return (status & EFI_VORK_PASSWORD_DISABLED) != 0;
  };
  const struct { UINT16 which; bool disabled, system, setup; } steps[] = {  // system, setup: both marks afterwards
      {PASSWORD_WHICH_SETUP, true, false, true},   {PASSWORD_WHICH_SYSTEM, true, true, true},
      {PASSWORD_WHICH_SETUP, false, true, false},  {PASSWORD_WHICH_SETUP, false, true, false},
      {PASSWORD_WHICH_SYSTEM, false, false, false},
  };
  sample_->setPasswordServices(P::Both);
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
  sample_->setPasswordServices(P::None);  // their memory goes before the leak check
}

// A device with one form set, one 16-byte store and one form of `statements`.
sample::DeviceDescription tinyDevice(std::vector<Statement> statements) {
  sample::FormSetDescription fs;
  fs.guid = {0x11111111, 0x2222, 0x3333, {4, 4, 5, 5, 6, 6, 7, 7}};
  fs.title = u"Test";
  fs.varStores = {{1, {0x1, 0x2, 0x3, {4, 5, 6, 7, 8, 9, 10, 11}}, "Store", 16, false, 0}};
  fs.forms = {{1, u"Main", u"Main", std::move(statements)}};
  sample::DeviceDescription d;
  d.fqdd = u"Test.Device.1";
  d.formSets = {fs};
  return d;
}

TEST(SampleFormDescription, RefusesDescriptionsThatCannotBeLaidOut) {
  const struct { const char* name; std::vector<Statement> statements; } cases[] = {
      {"past the end of the store", {sample::numeric(1, u"N", u"N", Width::U32).at(1, 13)}},
      {"two questions share a byte",
       {sample::numeric(1, u"A", u"A", Width::U16).at(1, 0), sample::checkbox(2, u"B", u"B").at(1, 1)}},
      {"unknown store", {sample::checkbox(1, u"C", u"C").at(2, 0)}},
      {"repeated question id", {sample::checkbox(1, u"A", u"A").at(1, 0), sample::checkbox(1, u"B", u"B").at(1, 1)}},
      {"zero question id", {sample::checkbox(0, u"A", u"A").at(1, 0)}},
      {"reference to a missing form", {sample::reference(1, u"R", u"R", 9)}},
      {"current value wider than the question", {sample::numeric(1, u"N", u"N", Width::U8).at(1, 0).value(256)}},
      {"checkbox value above 1", {sample::checkbox(1, u"C", u"C").at(1, 0).value(2)}},
      {"more elements than containers", {sample::orderedList(1, u"L", u"L", Width::U8, 2).at(1, 0).values({1, 2, 3})}},
      {"text longer than the maximum", {sample::string(1, u"S", u"S", 0, 2).at(1, 0).valueText(u"abc")}},
      {"value without storage", {sample::checkbox(1, u"C", u"C").value(1)}},
      {"option on a checkbox", {sample::checkbox(1, u"C", u"C").at(1, 0).option(u"X", u"X", 1)}},
      {"default that does not suit", {sample::checkbox(1, u"C", u"C").at(1, 0).defaultNumber(1)}},
  };
  for (const auto& c : cases) EXPECT_THROW(sample::buildPackageList(tinyDevice(c.statements)), std::invalid_argument) << c.name;
  // The same shapes laid out correctly are accepted.
  EXPECT_NO_THROW(sample::buildPackageList(tinyDevice({sample::numeric(1, u"N", u"N", Width::U32).at(1, 12),
                                                       sample::reference(2, u"R", u"R", 1)})));
}

// Rules on the device as a whole: its form sets and languages.
TEST(SampleFormDescription, RefusesDevicesWhoseFormSetsOrLanguagesClash) {
  using D = sample::DeviceDescription;
  const struct { const char* name; std::function<void(D&)> change; } cases[] = {
      {"two form sets with one GUID", [](D& d) { d.formSets.push_back(d.formSets[0]); }},
      {"one store in two form sets", [](D& d) { d.formSets.push_back(d.formSets[0]), d.formSets[1].guid.Data1 = 0x99; }},
      {"no language", [](D& d) { d.languages.clear(); }},
      {"a language named twice", [](D& d) { d.languages = {"en-US", "fr-FR", "en-US"}; }},
      {"a translation into a language the device lacks", [](D& d) { d.translations["de-DE"] = {{u"Test", u"Pr\u00fcfung"}}; }},
      {"a translation into en-US",
       [](D& d) { d.languages = {"en-US", "fr-FR"}, d.translations["en-US"] = {{u"Test", u"Testing"}}; }},
  };
  for (const auto& c : cases) {
    D device = tinyDevice({sample::checkbox(1, u"C", u"C").at(1, 0)});
    EXPECT_NO_THROW(sample::validate(device)) << c.name;
    c.change(device);
    EXPECT_THROW(sample::buildPackageList(device), std::invalid_argument) << c.name;
  }
}

// Each current value at its offset; a negative number in two's complement
// of its question's width, within the checks of that width.
TEST(SampleFormDescription, InitialStorageWritesEachCurrentValueAtItsOffset) {
  const struct { const char* name; std::vector<Statement> statements; std::vector<UINT8> bytes; } cases[] = {
      {"every kind",
       {sample::numeric(1, u"N", u"N", Width::U32).at(1, 0).value(0x11223344), sample::checkbox(2, u"C", u"C").at(1, 4).value(1),
        sample::orderedList(3, u"L", u"L", Width::U16, 2).at(1, 6).values({0x0102, 0x0304}),
        sample::string(4, u"S", u"S", 0, 2).at(1, 10).valueText(u"hi"), sample::password(5, u"P", u"P", 0, 1).at(1, 14)},
       {0x44, 0x33, 0x22, 0x11, 1, 0, 0x02, 0x01, 0x04, 0x03, 'h', 0, 'i', 0, 0, 0}},
      {"signed",
       {sample::numeric(1, u"A", u"A", Width::U8).at(1, 0).signedRange(-15, 15, 1).signedValue(-5),
        sample::numeric(2, u"B", u"B", Width::U16).at(1, 2).signedRange(-50, 50, 5).signedValue(-10),
        sample::numeric(3, u"C", u"C", Width::U32).at(1, 4).signedRange(-1, 3600, 1).signedValue(-1),
        sample::numeric(4, u"D", u"D", Width::U64).at(1, 8).signedRange(-1000, 1000).signedValue(-2)},
       {0xFB, 0, 0xF6, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
  };
  for (const auto& c : cases) {
    sample::DeviceDescription d = tinyDevice(c.statements);
    EXPECT_NO_THROW(sample::buildPackageList(d)) << c.name;
    EXPECT_EQ(sample::initialStorage(d.formSets[0], d.formSets[0].varStores[0]), c.bytes) << c.name;
  }
}

}  // namespace
