// The export of whole devices on purpose-built forms: item kinds and
// states, value lists, password copies, boot switch forms, NIC names, the
// form-set cache, refusals and allocation failures. (The
// sample BIOS export is compared whole with its reviewed document.)
#include <gtest/gtest.h>

#include "export/export_fixture.h"
#include "host/hii/config_string.h"
#include "host/hii/device_path.h"
#include "host/sample/sample_devices.h"
#include "xml/node.h"

namespace {

namespace sample = tvl::host::sample;
using sample::DeviceDescription;
using sample::FormDescription;
using sample::Statement;
using tvl::host::ifr::Width;
using namespace tvl::test;

constexpr UINT16 kStore = 1;
constexpr UINT16 kMfg = EFI_HII_DEFAULT_CLASS_MANUFACTURING;
const EFI_GUID kStoreGuid = {0x3d9a51c4, 0x7b20, 0x4e6f, {0x8a, 0x15, 0x62, 0x0c, 0xd4, 0x9e, 0x31, 0x7b}};

// A device with one buffer store of 0x400 bytes.
DeviceDescription testDevice(const std::u16string& fqdd, std::vector<FormDescription> forms, UINT8 n = 1,
                             const EFI_GUID& formSet = gInternalBIOSSetup) {
  sample::FormSetDescription set;
  set.guid = formSet;
  set.title = u"Test Settings";
  set.keyword = u"TestSettings";
  set.helpText = u"Settings of the test device.";
  set.varStores = {{kStore, kStoreGuid, "TestStore", 0x400, false, 0}};
  set.forms = std::move(forms);
  return deviceWith(fqdd, n, std::move(set));
}

// Every exported kind of statement, in one form.
FormDescription tourForm() {
  using namespace sample;
  using tvl::host::ifr::True;
  return {1, u"Tour", u"Tour[Area:core]", {
      subtitle(u"Tour Settings", u"TourSubtitle[Level:1]"),
      text(u"Firmware Version", u"FwVersion", u"2.1.0"),
      text(u"Asset", u"AssetText", u""),
      oneOf(0x101, u"Mode", u"Mode[ProgWrite:true]").at(kStore, 0x00).help(u"How it runs.")
          .option(u"Mode A", u"ModeA", 0, EFI_IFR_OPTION_DEFAULT).option(u"Mode B", u"ModeB", 1)
          .optionIf(suppressIf(True()), u"Mode C", u"ModeC", 2).defaultNumber(1, kMfg).value(1),
      numeric(0x102, u"Limit", u"Limit", Width::U32).at(kStore, 0x04).range(0, 0xFFFFFFFF, 1)
          .defaultNumber(0xFFFFFFFF).value(0xFFFFFFFF),
      numeric(0x103, u"Offset", u"Offset", Width::U64).at(kStore, 0x08).range(0, ~0ull, 2).resetRequired()
          .defaultNumber(0xFFFFFFFFFFFFFFFEull).defaultNumber(7, kMfg).value(12),
      checkbox(0x104, u"Flag", u"Flag").at(kStore, 0x10).checkboxDefaults(true, false).value(1),
      string(0x105, u"Version", u"Version", 0, 16).at(kStore, 0x20).valueText(u"1.0\t\u00e9  "),
      string(0x106, u"Label", u"Label", 0, 16).at(kStore, 0x40).valueText(u"1.0\t\u00e9  "),
      password(0x107, u"Setup Password", u"SetupPassword", 0, 32).at(kStore, 0x60),
      password(0x108, u"System Password", u"SysPassword", 0, 32).at(kStore, 0xA0),
      orderedList(0x109, u"Order", u"Order", Width::U8, 3).at(kStore, 0xE0).option(u"Item X", u"X", 0)
          .option(u"Item Y", u"Y", 1).option(u"Item Z", u"Z", 2).values({2, 0, 1}),
      reference(0x10A, u"More", u"MoreRef", 2),
      checkbox(0x10B, u"Gone", u"Gone").at(kStore, 0xF0).when(disableIf(True())).value(0),
      checkbox(0x10C, u"Hidden", u"Hidden").at(kStore, 0xF1).when(suppressIf(True())).value(0),
      checkbox(0x10D, u"Shown", u"Shown[ProgUnhide:true]").at(kStore, 0xF2).when(suppressIf(True())).value(0)}};
}

FormDescription moreForm() {
  return {2, u"More", u"More", {sample::checkbox(0x201, u"Extra", u"Extra").at(kStore, 0x100).value(0)}};
}

class HiiToNodeTest : public DeviceExportTest {
 protected:
  // Builds the one device and exports it.
  std::unique_ptr<Documents> exported(DeviceDescription device) {
    build({device});
    auto docs = exportDevice(device.fqdd);
    EXPECT_EQ(docs->status, EFI_SUCCESS);
    return docs;
  }
  // One device per case, made by `make(case, n)` with n counting from 1.
  template <class Case, size_t N, class Make>
  void buildEach(const Case (&cases)[N], Make make) {
    std::vector<DeviceDescription> devices;
    for (const Case& c : cases) devices.push_back(make(c, UINT8(devices.size() + 1)));
    build(devices);
  }
  // buildEach, then `check(case, documents)` on each successful export.
  template <class Case, size_t N, class Make, class Check>
  void exportEach(const Case (&cases)[N], Make make, Check check) {
    buildEach(cases, make);
    for (const Case& c : cases) {
      SCOPED_TRACE(narrow(c.fqdd.c_str()));
      auto docs = exportDevice(c.fqdd);
      ASSERT_EQ(docs->status, EFI_SUCCESS);
      check(c, *docs);
    }
  }
};

// The ConfigItem attributes and the values of each kind, both trees; an
// empty form is left out and does not count for the display positions.
TEST_F(HiiToNodeTest, TypesStatesAndValues) {
  auto docs = exported(testDevice(u"BIOS.InternalSetup.1-1", {tourForm(), {3, u"Empty", u"Empty", {}}, moreForm()}));
  const struct {
    const char* name; const char* possibleAttributes; const char* currentAttributes; const char* possibleValues;
    const char* currentValues;
  } cases[] = {
      {"FwVersion", "Type=String", "Type=String ReadOnly=true", "", "2.1.0"},
      {"AssetText", "Type=String", "Type=String ReadOnly=true", "", "AssetText"},
      {"Mode", "Type=Enumeration", "Type=Enumeration", "ModeA[0000]|ModeB[0001]|ModeC[Suppressed=true]", "ModeB"},
      {"Limit", "Type=Integer Min=0 Max=4294967295 Step=1 ValueType=2", "Type=Integer", "-1[0000]", "4294967295"},
      {"Offset", "Type=Integer Min=0 Max=18446744073709551615 Step=2 ValueType=3 RebootNeeded=true", "Type=Integer",
       "-2[0000]|7[0001]", "12"},
      {"Version", "Type=String Min=0 Max=16", "Type=String", "", "1.0"},
      {"Label", "Type=String Min=0 Max=16", "Type=String", "", "1.0    "},
      {"Hidden", "Type=Checkbox", "Type=Checkbox Suppressed=true", "true|false[0000,0001]", "false"},
      {"Shown", "Type=Checkbox", "Type=Checkbox", "true|false[0000,0001]", "false"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const XML_NODE* p = item(docs->possible, c.name);
    const XML_NODE* q = item(docs->current, c.name);
    ASSERT_TRUE(p && q);
    EXPECT_EQ(attributes(p), c.possibleAttributes);
    EXPECT_EQ(attributes(q), c.currentAttributes);
    EXPECT_EQ(valueList(p), c.possibleValues);
    EXPECT_EQ(valueList(q), c.currentValues);
  }
  EXPECT_EQ(item(docs->possible, "Gone"), nullptr);  // disabled
  EXPECT_EQ(item(docs->current, "Gone"), nullptr);
  EXPECT_EQ(text(child(item(docs->possible, "Extra"), "DisplayIndex")), "200");
  for (const XML_NODE* root : {docs->possible, docs->current}) {
    ASSERT_EQ(descendants(root, "Form").size(), 2u);
    // The form's keyword tokens become its Modifier.
    EXPECT_EQ(attribute(child(descendants(root, "Form")[0], "Modifier"), "Name"), "Area");
  }
}

// Where the copies appear, in both trees; what they hold shows in the
// reviewed document.
TEST_F(HiiToNodeTest, BiosPasswordsGetHiddenCopiesOnlyWhereTheFqddSaysBios) {
  const struct { std::u16string fqdd; bool copies; } cases[] = {
      {u"BIOS.InternalSetup.1-1", true}, {u"bios.internalsetup.1-2", false}, {u"Disk.BIOS.1", true}};
  auto make = [](const auto& c, UINT8 n) { return testDevice(c.fqdd, {tourForm(), moreForm()}, n); };
  exportEach(cases, make, [](const auto& c, const Documents& docs) {
    for (const XML_NODE* root : {docs.possible, docs.current}) {
      std::string order;
      for (const XML_NODE* n : descendants(root, "ConfigItem")) {
        std::string name = text(n->children);
        if (name.find("Password") != std::string::npos) order += (order.empty() ? "" : ",") + name;
      }
      EXPECT_EQ(order, c.copies ? "SetupPassword,OldSetupPassword,SysPassword,OldSysPassword"
                                : "SetupPassword,SysPassword");
    }
  });
}

// A boot sequence of three devices and the form of their enable
// checkboxes; `switchFirst` puts the switch form before the sequence.
std::vector<FormDescription> bootForms(const std::u16string& switchTitle, bool switchFirst) {
  using namespace sample;
  const char16_t* devices[] = {u"HardDisk.List.1-1", u"NIC.Slot.2-1", u"Optical.SATA.1"};
  Statement sequence = orderedList(0x301, u"Boot Sequence", u"BootSeq", Width::U8, 3).at(kStore, 0x00).values({1, 2, 3});
  FormDescription switches{5, u"Boot Switches", switchTitle, {}};
  for (UINT16 i = 0; i < 3; ++i) {
    sequence.option(devices[i], devices[i], i + 1);
    switches.statements.push_back(checkbox(UINT16(0x310 + i), devices[i],
                                           switchTitle + u"[FQDD:" + std::u16string(devices[i]) + u"]")
                                      .at(kStore, UINT16(0x10 + i))
                                      .value(i == 1 ? 0 : 1));
  }
  FormDescription boot{4, u"Boot", u"BootSettings", {sequence}};
  FormDescription after{6, u"After", u"After", {checkbox(0x320, u"Later", u"Later").at(kStore, 0x20).value(0)}};
  if (switchFirst) return {switches, boot, after};
  return {boot, switches, after};
}

TEST_F(HiiToNodeTest, SwitchFormsMarkBootEntriesAndLeaveTheDocuments) {
  const struct { std::u16string fqdd, switchTitle; bool switchFirst; const char* entries; bool removed; } cases[] = {
      {u"BIOS.InternalSetup.1-1", u"BootSeqEnDis", false,
       "HardDisk.List.1-1[Index=0,Enabled=true]|NIC.Slot.2-1[Index=1,Enabled=false]|"
       "Optical.SATA.1[Index=2,Enabled=true]",
       true},
      // The entries are searched in what the current tree holds so far.
      {u"BIOS.InternalSetup.1-2", u"BootSeqEnDis", true,
       "HardDisk.List.1-1[Index=0]|NIC.Slot.2-1[Index=1]|Optical.SATA.1[Index=2]", true},
      // The title prefix is compared with its case.
      {u"BIOS.InternalSetup.1-3", u"bootSeqEnDis", false,
       "HardDisk.List.1-1[Index=0]|NIC.Slot.2-1[Index=1]|Optical.SATA.1[Index=2]", false},
  };
  auto make = [](const auto& c, UINT8 n) { return testDevice(c.fqdd, bootForms(c.switchTitle, c.switchFirst), n); };
  exportEach(cases, make, [](const auto& c, const Documents& docs) {
    EXPECT_EQ(valueList(item(docs.current, "BootSeq")), c.entries);
    for (const XML_NODE* root : {docs.possible, docs.current}) {
      EXPECT_EQ(descendants(root, "Form").size(), c.removed ? 2u : 3u);
      std::string switchName(c.switchTitle.begin(), c.switchTitle.end());
      EXPECT_EQ(items(root, switchName).size(), c.removed ? 0u : 3u);
    }
    // The removed form used its hundred all the same.
    EXPECT_EQ(text(child(item(docs.possible, "Later"), "DisplayIndex")), "300");
  });
}

// Which FQDDs map vendor names (what mapped items hold: the firmware NIC document).
TEST_F(HiiToNodeTest, NicDevicesMapVendorNames) {
  using namespace sample;
  auto forms = [] {
    return std::vector<FormDescription>{
        {1,
         u"Port",
         u"Port",
         {numeric(0x401, u"Link Up Delay", u"LinkUpDelayTime", Width::U8).at(kStore, 0).range(0, 30, 1).value(5),
          numeric(0x402, u"Speed", u"LnkSpeed", Width::U8).at(kStore, 1).range(0, 3, 1).value(1)}}};
  };
  const struct { std::u16string fqdd; const char *possibleChildren, *currentChildren; } cases[] = {
      {u"NIC.Integrated.1-1-1", "Name,RefFormId,MappedName,DisplayName,BiosMapping,DisplayIndex",
       "Name,MappedName,BiosMapping,CommitIndex,ValueStruct"},
      {u"FC.NIC1.Port", "Name,RefFormId,DisplayName,BiosMapping,DisplayIndex", "Name,BiosMapping,CommitIndex,ValueStruct"},
      {u"nic.Integrated.1-1-1", "Name,RefFormId,DisplayName,BiosMapping,DisplayIndex",
       "Name,BiosMapping,CommitIndex,ValueStruct"},
  };
  auto make = [&](const auto& c, UINT8 n) { return testDevice(c.fqdd, forms(), n, kStoreGuid); };
  exportEach(cases, make, [](const auto& c, const Documents& docs) {
    bool mapped = std::string(c.possibleChildren).find("MappedName") != std::string::npos;
    const char* name = mapped ? "LnkUpDelayTime" : "LinkUpDelayTime";
    EXPECT_EQ(childNames(item(docs.possible, name)), c.possibleChildren);
    EXPECT_EQ(childNames(item(docs.current, name)), c.currentChildren);
  });
}

// What the FQDD selects: the BIOS form-set filter (any case), the storage
// path (which wins over it), and the flags the block-name lookup reads.
TEST_F(HiiToNodeTest, FqddChoosesTheFormSetFilter) {
  const EFI_GUID other = {0x0badf00d, 0x1111, 0x2222, {3, 4, 5, 6, 7, 8, 9, 10}};
  const struct {
    std::u16string fqdd; EFI_GUID formSet; EFI_STATUS status; UINT8 isBiosSetup;
  } cases[] = {
      {u"BIOS.InternalSetup.1-1", gInternalBIOSSetup, EFI_SUCCESS, 1},
      {u"bios.INTERNALsetup.1-2", other, EFI_NOT_FOUND, 1},
      {u"Disk.Bay.0:BIOS.InternalSetup.1-3", other, EFI_SUCCESS, 1},
      {u"System.Embedded.1-1", other, EFI_SUCCESS, 0},
  };
  buildEach(cases, [](const auto& c, UINT8 n) { return testDevice(c.fqdd, {moreForm()}, n, c.formSet); });
  UINT8& isBios = global<UINT8>("mIsBiosSetup");
  UINT8& isSsd = global<UINT8>("mIsSsdForms");
  for (const auto& c : cases) {
    SCOPED_TRACE(narrow(c.fqdd.c_str()));
    isBios = 7;
    isSsd = 7;
    auto docs = exportDevice(c.fqdd);
    EXPECT_EQ(docs->status, c.status);
    EXPECT_EQ(isBios, c.isBiosSetup);
    EXPECT_EQ(isSsd, 0);
    EXPECT_EQ(docs->possible != nullptr, c.status == EFI_SUCCESS);
  }
  const LogRecord* refused = log().find("tvlHiiToNode", "gHiiFormsProcessor2Protocol Returned: Not Found\n");
  EXPECT_TRUE(refused && refused->level == TVL_LEVEL_FAILURE) << log().dump();
}

TEST_F(HiiToNodeTest, RefusalsTouchNothing) {
  build({testDevice(u"BIOS.InternalSetup.1-1", {moreForm()})});
  TOLVANE_PROTOCOL* self = converter();
  EFI_HANDLE handle = sample().devices()[0].handle();
  XML_NODE* marker = reinterpret_cast<XML_NODE*>(0x1234);
  const struct { TOLVANE_PROTOCOL* self; EFI_HANDLE handle; bool possible, current; EFI_STATUS status; } cases[] = {
      {nullptr, handle, true, true, EFI_INVALID_PARAMETER},
      {self, nullptr, true, true, EFI_INVALID_PARAMETER},
      {self, handle, false, true, EFI_INVALID_PARAMETER},
      {self, handle, true, false, EFI_INVALID_PARAMETER},
      // The driver's own image handle owns no package list.
      {self, driver(), true, true, EFI_NOT_FOUND},
  };
  for (const auto& c : cases) {
    XML_NODE* possible = marker;
    XML_NODE* current = marker;
    EXPECT_EQ(self->HiiToNode(c.self, c.handle, c.possible ? &possible : nullptr, c.current ? &current : nullptr),
              c.status);
    EXPECT_EQ(possible, marker);
    EXPECT_EQ(current, marker);
  }
  EXPECT_NE(log().find("tvlHiiToNode", "HandleToHiiHandleBuffer Returned: Not Found\n"), nullptr);

  // Without the location service nothing else is looked at.
  auto& location = global<DEVICE_LOCATION_PROTOCOL*>("gDeviceLocationProtocol");
  DEVICE_LOCATION_PROTOCOL* saved = location;
  location = nullptr;
  EXPECT_EQ(self->HiiToNode(nullptr, nullptr, nullptr, nullptr), EFI_DEVICE_ERROR);
  location = saved;
}

// Each allocation of an export failed in turn: an error with no documents,
// or a success (a failure the walk tolerates) whose documents are whole.
// The cache changes only through a successful kept export.
TEST_F(HiiToNodeTest, EveryAllocationFailureEndsCleanly) {
  build({testDevice(u"BIOS.InternalSetup.1-1", {tourForm(), moreForm()})});
  auto& keep = global<UINT8>("mKeepFormSets");
  auto& buffer = global<HII_FORMSET_RECORD**>("mFormSetBuffer");
  auto destroy = reinterpret_cast<void (*)()>(symbol("DestroyGlobalForms"));
  TOLVANE_PROTOCOL* self = converter();
  EFI_HANDLE handle = sample().devices()[0].handle();
  XML_PROTOCOL* xml = sample().xml();
  log().setLevelMask(0);  // the traces of two thousand runs are not the point here
  for (UINT8 keepFormSets : {0, 1}) {
    SCOPED_TRACE(keepFormSets);
    XML_NODE* possible = nullptr;
    XML_NODE* current = nullptr;
    size_t successes = 0;
    size_t attempts = sweepAllocationFailures(
        [&] {
          keep = keepFormSets;
          EFI_STATUS status = self->HiiToNode(self, handle, &possible, &current);
          keep = 0;
          return status;
        },
        [&](EFI_STATUS status, size_t k) {
          if (EFI_ERROR(status)) {
            EXPECT_TRUE(possible == nullptr && current == nullptr) << k;
            EXPECT_EQ(buffer, nullptr) << k;
            return;
          }
          ++successes;
          EXPECT_EQ(buffer != nullptr, keepFormSets == 1) << k;
          // Whole documents: they serialise and parse back.
          for (XML_NODE* root : {possible, current}) {
            std::string text = serialise(root);
            XML_NODE* back = nullptr;
            EXPECT_EQ(xml->XML_ParseText(xml, text.c_str(), text.size(), &back, nullptr), EFI_SUCCESS) << k;
            if (back) xml->XML_FreeNode(xml, back);
          }
        },
        [&] {
          for (XML_NODE** root : {&possible, &current}) {
            if (*root) xml->XML_FreeNode(xml, *root);
            *root = nullptr;
          }
          destroy();
        });
    EXPECT_GT(attempts, 100u);
    EXPECT_GT(successes, 0u);
  }
}

// Keyword texts as the export meets them: tokens become Modifier and
// Dependencies elements; a malformed text costs the item those elements,
// never the item itself.
TEST_F(HiiToNodeTest, KeywordTokensAndMalformedKeywordTexts) {
  using namespace sample;
  using tvl::host::ifr::True;
  FormDescription form{1, u"Keywords", u"Keywords", {
      oneOf(0x501, u"Handover", u"Handover").at(kStore, 0x50).optionIf(suppressIf(True()), u"A", u"A", 0)
          .optionIf(suppressIf(True()), u"B", u"B", 1).option(u"C", u"C[SuppressIf:Other=1]", 2)
          .optionIf(suppressIf(True()), u"D", u"D", 3).value(2),
      checkbox(0x502, u"Broken", u"Broken[Key:1][NoColon").at(kStore, 0x51).value(0),
      checkbox(0x503, u"Ending", u"Ending[Key:1][ProgWrite=True]").at(kStore, 0x52).readOnly(),
      checkbox(0x504, u"Cond", u"Cond[SuppressIf:NoEquals][Tag:\\101b]").at(kStore, 0x53),
      checkbox(0x505, u"Deps", u"Deps[DisableIfNot:Tgt\\101=2][ReadOnlyIf:X=1]").at(kStore, 0x54)}};
  auto docs = exported(testDevice(u"BIOS.InternalSetup.1-1", {form}));
  // An option under a suppress-if clears the marks of the options before
  // it; a suppressed option after it keeps its mark.
  EXPECT_EQ(valueList(item(docs->possible, "Handover")), "A|B|C|D[Suppressed=true]");
  const struct {  // modifiers: Name=contents of each Modifier, current tree
    const char* name; const char* possibleChildren; const char* currentAttributes; const char* modifiers;
  } cases[] = {
      {"Broken", "Name,RefFormId,DisplayName,BiosMapping,DisplayIndex,ValueStruct,ValueStruct", "Type=Checkbox", ""},
      // The ProgWrite ending is accepted but does not lift ReadOnly.
      {"Ending", "Name,RefFormId,DisplayName,BiosMapping,Modifier,DisplayIndex,ValueStruct,ValueStruct",
       "Type=Checkbox ReadOnly=true", "Key=1"},
      // A condition without "=" costs the Dependencies, not the modifiers.
      {"Cond", "Name,RefFormId,DisplayName,BiosMapping,Modifier,DisplayIndex,ValueStruct,ValueStruct",
       "Type=Checkbox", "Tag=Ab"},
      {"Deps", "Name,RefFormId,DisplayName,BiosMapping,DisplayIndex,ValueStruct,ValueStruct,Dependencies",
       "Type=Checkbox", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(childNames(item(docs->possible, c.name)), c.possibleChildren);
    const XML_NODE* current = item(docs->current, c.name);
    EXPECT_EQ(attributes(current), c.currentAttributes);
    std::string modifiers;
    for (const XML_NODE* m : children(current, "Modifier"))
      modifiers += (modifiers.empty() ? "" : ",") + attribute(m, "Name") + "=" + text(m);
    EXPECT_EQ(modifiers, c.modifiers);
  }
}

}  // namespace
