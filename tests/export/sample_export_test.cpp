// The export of form sets in every arrangement of languages, and the
// reviewed document of the sample BIOS setup. (The other sample devices'
// documents are compared whole by the firmware documents test.)
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include <unistd.h>

#include "export/export_fixture.h"
#include "host/sample/sample_devices.h"

namespace {

namespace sample = tvl::host::sample;
using sample::DeviceDescription;
using sample::FormDescription;
using namespace tvl::test;

class SampleExportTest : public DeviceExportTest {};

// The sample disk's forms parse only with the controller's filter, which the
// save's block-name lookup must then use too. (Its document: the firmware
// documents test.)
TEST_F(SampleExportTest, TheDiskTakesTheControllerFilter) {
  build();
  EXPECT_EQ(exportDevice(sample::kDiskFqdd)->status, EFI_SUCCESS);
  EXPECT_EQ(global<UINT8>("mIsSsdForms"), 1);
  EXPECT_NE(log().find("tvlHiiToNode", "SSD Forms with Controller GUID\n"), nullptr) << log().dump();
}

// Every trace of an export above the toolbox's, with its level, in order.
TEST_F(SampleExportTest, BiosSetupExportTracesEachStepAtItsLevel) {
  build();
  log().setLevelMask(TVL_LEVEL_FAILURE | TVL_LEVEL_PROGRESS | TVL_LEVEL_FINDING);
  log().clear();
  ASSERT_EQ(exportDevice(sample::kBiosFqdd)->status, EFI_SUCCESS);
  EXPECT_EQ(log().dump(),
            "0x800000 tvlHiiToNode: Entering\n"
            "0x80 tvlHiiToNode: FQDD = BIOS.InternalSetup.1-1\n"
            "0x80000000 tvlHiiToNode: FormSetBufferCount = 1\n"
            "0x80000000 tvlHiiToNode: VarStoreBufferCount = 3 NumberOfLanguages = 2\n"
            "0x80 isStatementSuppressed: Statement is suppressed\n"
            "0x80 isStatementSuppressed: Statement is suppressed\n"
            "0x800000 isStatementDisabled: Statement is Disabled \n"
            "0x800000 tvlHiiToNode: Exiting: Success\n");
}

// ---------------------------------------------------------------- languages

// One small form set, its strings in the languages a case names.
DeviceDescription languageDevice(const std::vector<std::string>& languages, UINT8 n) {
  using namespace sample;
  FormSetDescription set;
  set.guid = {0x1e2d3c4b, 0x5a69, 0x4788, {0x96, 0xa5, 0xb4, 0xc3, 0xd2, 0xe1, 0xf0, n}};
  set.title = u"Lane Settings";
  set.keyword = u"LaneSettings";
  set.helpText = u"Lane help.";
  set.varStores = {{1, set.guid, "Lanes", 0x10, false, 0}};
  set.forms = {{1,
                u"Main",
                u"MainKw",
                {checkbox(0x701, u"Speed Limit", u"SpeedLimit[Unit:kmh]").at(1, 0).help(u"Limits speed.").value(1),
                 checkbox(0x702, u"", u"").at(1, 1).value(0)}}};
  DeviceDescription d = deviceWith(u"System.Lang." + std::u16string(1, char16_t('0' + n)), n, std::move(set));
  d.languages = languages;
  // Keyword texts under the tags that spell x-UEFI in another case or extend
  // it; no other language but en-US is read.
  for (const std::string& language : languages)
    if (language != "x-UEFI" && (language[0] == 'x' || language[0] == 'X'))
      d.translations[language] = {
          {u"Lane Settings", u"LaneSettings"}, {u"Main", u"MainKw"}, {u"Speed Limit", u"SpeedLimit[Unit:kmh]"}};
  return d;
}

TEST_F(SampleExportTest, TheChosenLanguageDecidesNamesAndMapping) {
  const struct {  // formSetTitle: the name in the chosen language
    std::vector<std::string> languages; EFI_STATUS status; const char* formSetTitle; const char* itemName; bool mapped;
  } cases[] = {
      {{"en-US", "x-UEFI"}, EFI_SUCCESS, "LaneSettings", "SpeedLimit", true},
      {{"en-US"}, EFI_SUCCESS, "Lane Settings", "Speed Limit", false},
      {{"x-UEFI"}, EFI_NOT_FOUND, nullptr, nullptr, false},
      {{"en-US", "X-uefi"}, EFI_SUCCESS, "LaneSettings", "SpeedLimit", true},
      {{"EN-US", "x-UEFI"}, EFI_NOT_FOUND, nullptr, nullptr, false},
      {{"en-US", "x-UEFI-ns"}, EFI_SUCCESS, "Lane Settings", "Speed Limit", false},
      {{"en-US", "fr-FR", "x-UEFI"}, EFI_SUCCESS, "LaneSettings", "SpeedLimit", true},
  };
  std::vector<DeviceDescription> devices;
  for (const auto& c : cases) devices.push_back(languageDevice(c.languages, UINT8(devices.size() + 1)));
  build(devices);
  for (size_t i = 0; i < std::size(cases); ++i) {
    const auto& c = cases[i];
    SCOPED_TRACE(::testing::PrintToString(c.languages));
    auto docs = exportDevice(devices[i].fqdd);
    ASSERT_EQ(docs->status, c.status);
    if (c.status != EFI_SUCCESS) {
      EXPECT_TRUE(docs->possible == nullptr && docs->current == nullptr);
      continue;
    }
    const XML_NODE* possibleSet = child(docs->possible->children, "FormSet");
    EXPECT_EQ(text(child(possibleSet, "Title")), c.formSetTitle);
    // Display texts come from en-US alone, whatever else the form set offers.
    EXPECT_EQ(childNames(possibleSet, true).substr(0, 47), "Title,DisplayTitle[Lang=en-US],Help[Lang=en-US]");
    const XML_NODE* possible = item(docs->possible, c.itemName);
    const XML_NODE* current = item(docs->current, c.itemName);
    ASSERT_TRUE(possible && current);
    EXPECT_EQ(text(child(possible, "DisplayName")), "Speed Limit");
    if (c.mapped) {
      EXPECT_EQ(childNames(possible),
                "Name,RefFormId,DisplayName,BiosMapping,Modifier,DisplayIndex,ValueStruct,ValueStruct,Help");
      EXPECT_EQ(childNames(current), "Name,BiosMapping,Modifier,CommitIndex,ValueStruct");
    } else {
      // Unmapped: no keyword tokens, and "MappingSource" beside the form set,
      // at the end of the possible item and inside a checkbox's value.
      EXPECT_EQ(childNames(docs->possible->children), "FormSet,MappingSource");
      EXPECT_EQ(childNames(possible),
                "Name,RefFormId,DisplayName,BiosMapping,DisplayIndex,ValueStruct,ValueStruct,Help,MappingSource");
      EXPECT_EQ(childNames(current), "Name,BiosMapping,CommitIndex,ValueStruct");
      EXPECT_EQ(childNames(child(current, "ValueStruct")), "Value,BiosMapping,MappingSource");
    }
  }
}

// A statement without an en-US prompt keeps what it had before its display
// names: Name and RefFormId in the possible tree, Name in the current one.
TEST_F(SampleExportTest, AnItemWithoutDisplayNameStopsAfterItsName) {
  DeviceDescription d = languageDevice({"en-US", "x-UEFI"}, 1);
  d.formSets[0].forms[0].statements[1].keyword = u"Nameless";
  build({d});
  auto docs = exportDevice(d.fqdd);
  ASSERT_EQ(docs->status, EFI_SUCCESS);
  EXPECT_EQ(childNames(item(docs->possible, "Nameless")), "Name,RefFormId");
  EXPECT_EQ(childNames(item(docs->current, "Nameless")), "Name");
}

// ---------------------------------------------------------------- golden

// The document laid out by xmllint, one element a line.
std::string formatted(const std::string& xml) {
  char path[] = "/tmp/tolvane-golden-XXXXXX";
  int fd = mkstemp(path);
  if (fd < 0) return "";
  std::ofstream(path, std::ios::binary) << xml;
  close(fd);
  std::string out;
  if (FILE* p = popen((std::string("xmllint --format ") + path + " 2>&1").c_str(), "r")) {
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, p)) > 0;) out.append(buffer, n);
    pclose(p);
  }
  remove(path);
  return out;
}

// The combined document of the sample BIOS setup, laid out by xmllint so
// that a reviewer reads it line by line (xmllint lists the namespace
// declaration first among the root's attributes; the firmware documents
// test compares the export's own text). TOLVANE_UPDATE_GOLDEN=1 rewrites
// the file (review the difference before committing it).
TEST_F(SampleExportTest, BiosSetupMatchesTheReviewedDocument) {
  if (system("xmllint --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "xmllint is not installed";
  build();
  auto docs = exportDevice(sample::kBiosFqdd);
  ASSERT_EQ(docs->status, EFI_SUCCESS);
  TOLVANE_PROTOCOL* self = converter();
  CHAR8* combined = nullptr;
  ASSERT_EQ(self->NodesToCombinedXMLChar(self, docs->possible, docs->current, &combined), EFI_SUCCESS);
  std::string actual = formatted(combined);
  bs()->FreePool(combined);

  const std::string path = std::string(TOLVANE_SOURCE_DIR) + "/tests/export/data/bios_setup.xml";
  if (const char* update = getenv("TOLVANE_UPDATE_GOLDEN"); update && *update == '1') {
    std::ofstream(path, std::ios::binary) << actual;
    GTEST_SKIP() << "rewrote " << path;
  }
  std::ifstream in(path, std::ios::binary);
  ASSERT_TRUE(in) << path;
  std::stringstream expected;
  expected << in.rdbuf();
  EXPECT_EQ(actual, expected.str());
}

}  // namespace
