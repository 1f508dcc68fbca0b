// Whole imports: each type's rule and error codes, items passed over, the
// overall status, ordered lists and their enable checkboxes. (Memory running
// out: the sweep of the commit-order tests.)
#include <gtest/gtest.h>

#include "host/sample/sample_devices.h"
#include "import/import.h"
#include "import/import_fixture.h"

namespace {

using namespace tvl::test;

constexpr char16_t kDevice[] = u"System.Import.1";
constexpr char16_t kBios[] = u"BIOS.InternalSetup.1-1";

sample::FormDescription valuesForm() {
  using namespace sample;
  Condition hidden = suppressIf(True());
  return {1, u"Values", u"Values", {
      subtitle(u"Values", u"ValuesSubtitle"),
      string(0x101, u"Label", u"Label", 1, 8).at(1, 0x00).valueText(u"abc"),
      password(0x102, u"Secret", u"Secret", 1, 8).at(1, 0x10),
      numeric(0x103, u"Count", u"Count").at(1, 0x20).range(0, 9, 1).value(3),
      checkbox(0x104, u"Flag", u"Flag").at(1, 0x21).value(0),
      oneOf(0x105, u"Mode", u"Mode").at(1, 0x22).optionIf(hidden, u"Dup A", u"Dup", 1).option(u"Dup B", u"Dup", 2)
          .optionIf(hidden, u"Cond", u"Cond[SuppressIf:Flag=1]", 5).optionIf(hidden, u"Gone", u"Gone", 6)
          .option(u"Other", u"Other", 3).value(3),
      numeric(0x106, u"Locked", u"Locked").at(1, 0x23).range(0, 9, 1).readOnly(),
      checkbox(0x107, u"Hidden", u"Hidden").at(1, 0x24).when(hidden),
      orderedList(0x108, u"Order", u"Order", Width::U8, 3).at(1, 0x30).option(u"One", u"One", 1)
          .option(u"Two", u"Two", 2).option(u"Three", u"Three", 3).values({3, 1, 2}),
      orderedList(0x109, u"Wide", u"Wide", Width::U32, 2).at(1, 0x40).option(u"P", u"P", 1).option(u"Q", u"Q", 2)
          .values({1, 2}),
      string(0x10A, u"Chap", u"iscsiinitiatorchappwd", 0, 8).at(1, 0x50).valueText(u"x"),
      numeric(0x10B, u"Speed", u"Speed[Partition:1]").at(1, 0x60).range(0, 9, 1).value(1),
      numeric(0x10C, u"Speed", u"Speed[Partition:2]").at(1, 0x61).range(0, 9, 1).value(2),
  }};
}

class NodeToHiiTest : public ImportTest {
 protected:
  void buildValues() { build({device(kDevice, {valuesForm()})}); }
  // Sets the Value of the entry at each position of an ordered list.
  void order(XML_NODE* list, const std::vector<const char*>& names) {
    for (const XML_NODE* entry : children(list, "ValueStruct"))
      setText(const_cast<XML_NODE*>(child(entry, "Value")), names.at(std::stoul(attribute(entry, "Index"))));
  }
};

std::string zeros(size_t n) { return std::string(n, '0'); }
// The request without its header: from the first "&OFFSET=".
std::string segment(const ImportOutcome& out) {
  return out.request.empty() ? "" : out.request.substr(out.request.find("&OFFSET="));
}

// Every rule's outcome for one pending value: the record (none when the
// item is passed over) and the request segment it adds.
TEST_F(NodeToHiiTest, EachTypeValidatesAndEncodesItsValue) {
  buildValues();
  const char* kNone = nullptr;
  using Edit = void (*)(ImportTest&, XML_NODE*);
  const struct {  // value null: <Value/>
    const char* item; const char* value; const char* record; std::string segment; Edit edit = nullptr;
  } cases[] = {
      // Text: the escaped bytes, last character first; empty means "00"
      // without the Min check.
      {"Label", "AB", "Label:abc>AB:Success:0", "&OFFSET=0000&WIDTH=0010&VALUE=" + zeros(24) + "00420041"},
      {"Label", "a&amp;b", "Label:abc>a&amp;b:Success:0",
       "&OFFSET=0000&WIDTH=0010&VALUE=0000" "0062003b0070006d006100260061"},
      {"Label", "", "Label:abc>:Success:0", "&OFFSET=0000&WIDTH=0010&VALUE=" + zeros(32)},
      {"Label", kNone, "Label:abc>:Success:0", "&OFFSET=0000&WIDTH=0010&VALUE=" + zeros(32)},
      {"Label", "123456789", "Label:abc>123456789:Failure:201", ""},
      {"Secret", "abc", "Secret:>abc:Success:0", "&OFFSET=0010&WIDTH=0010&VALUE=" + zeros(20) + "006300620061"},
      {"Secret", "123456789", "Secret:>:Failure:602", ""},  // no values in the report
      {"Count", "7", "Count:3>7:Success:0", "&OFFSET=0020&WIDTH=0001&VALUE=07"},
      {"Count", "", "Count:3>:Success:0", "&OFFSET=0020&WIDTH=0001&VALUE=00"},
      {"Flag", "true", "Flag:false>true:Success:0", "&OFFSET=0021&WIDTH=0001&VALUE=01"},
      {"Flag", "TRUE", "Flag:false>TRUE:Failure:401", ""},
      {"Flag", "", "Flag:false>:Failure:401", ""},
      // One-of: a suppressed option is taken only with a condition token.
      {"Mode", "Dup", "Mode:Other>Dup:Success:0", "&OFFSET=0022&WIDTH=0001&VALUE=02"},
      {"Mode", "Cond", "Mode:Other>Cond:Success:0", "&OFFSET=0022&WIDTH=0001&VALUE=05"},
      {"Mode", "Gone", "Mode:Other>Gone:Failure:101", ""},
      // The import leaves read-only and suppressed statements to the save
      // path; CHAP secrets in any letter case are never judged unchanged.
      {"Locked", "5", "Locked:0>5:Success:0", "&OFFSET=0023&WIDTH=0001&VALUE=05"},
      {"Hidden", "true", "Hidden:false>true:Success:0", "&OFFSET=0024&WIDTH=0001&VALUE=01"},
      {"iscsiinitiatorchappwd", "x", "iscsiinitiatorchappwd:x>x:Success:0",
       "&OFFSET=0050&WIDTH=0010&VALUE=" + zeros(28) + "0078"},
      // Items of one name are told apart by their partition.
      {"Speed", "5", "Speed:2>5:Success:0", "&OFFSET=0061&WIDTH=0001&VALUE=05", [](ImportTest& t, XML_NODE* i) {
         t.setText(const_cast<XML_NODE*>(child(i, "Modifier")), "2");
       }},
      // Items that cannot be matched: not writable, without a name, of a
      // partition the device does not have. (Unchanged, empty and unknown
      // items: the commit-order tests' plain search.)
      {"ValuesSubtitle", "5", "", ""},
      {"Count", "5", "", "", [](ImportTest& t, XML_NODE* i) { t.setText(i->children, nullptr); }},
      {"Count", "5", "", "", [](ImportTest& t, XML_NODE* i) {
         t.setAttribute(const_cast<XML_NODE*>(child(i, "BiosMapping")), "Type", "Partition");
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.item) + " = " + (c.value ? c.value : "<null>"));
    auto docs = exportDevice(kDevice);
    XML_NODE* pending = pend(docs->current, c.item, c.value);
    if (c.edit) c.edit(*this, pending);
    ImportOutcome out = import(kDevice, docs->current);
    EXPECT_EQ(out.records, std::vector<std::string>(*c.record ? 1 : 0, c.record));
    EXPECT_EQ(segment(out), c.segment);
    EXPECT_EQ(out.request.rfind("GUID=", 0), c.segment.empty() ? std::string::npos : 0);
    EXPECT_EQ(text(child(pending, "CommitIndex")), "0");
    bool failed = std::string(c.record).find("Failure") != std::string::npos;
    EXPECT_EQ(statusName(out.status), statusName(failed ? EFI_DEVICE_ERROR : EFI_SUCCESS));
  }
}

// An empty document succeeds only into a results document handed in.
// (Without one, and the status over outcomes: the commit-order tests.)
TEST_F(NodeToHiiTest, AnEmptyDocumentSucceedsIntoAResultsDocument) {
  buildValues();
  auto docs = exportDevice(kDevice);
  auto root = parse("<ConfigResults/>");
  EXPECT_EQ(statusName(import(kDevice, docs->current, root.get()).status), statusName(EFI_SUCCESS));
}

// With mFailureMode 1 the first failure ends the call: later items keep
// their indexes.
TEST_F(NodeToHiiTest, FailureModeOneStopsAtTheFirstFailure) {
  buildValues();
  auto docs = exportDevice(kDevice);
  pend(docs->current, "Count", "50", "1");
  XML_NODE* later = pend(docs->current, "Flag", "true", "2");
  global<UINT16>("mFailureMode") = 1;
  ImportOutcome out = import(kDevice, docs->current);
  global<UINT16>("mFailureMode") = 2;
  EXPECT_EQ(out.status, EFI_DEVICE_ERROR);
  EXPECT_EQ(out.records, std::vector<std::string>{"Count:3>50:Failure:301"});
  EXPECT_EQ(text(child(later, "CommitIndex")), "2");
  EXPECT_EQ(global<HII_FORMSET_RECORD**>("mFormSetBuffer"), nullptr);
}

// Ordered lists: the new order in storage order (last byte first, not
// padded); unchanged lists, lists of 32-bit entries and lists without a
// statement record give nothing; a missing position fails with 503.
TEST_F(NodeToHiiTest, OrderedListsWriteTheNewOrder) {
  buildValues();
  const struct {  // names empty: keep the order
    const char* item; std::vector<const char*> names; bool dropIndex; const char* record; const char* segment;
  } cases[] = {
      {"Order", {"One", "Two", "Three"}, false, "Order:Three|One|Two>One|Two|Three:Success:0",
       "&OFFSET=0030&WIDTH=0003&VALUE=030201"},
      {"Order", {}, false, "", ""},
      {"Order", {"Two", "Three", "One"}, true, "Order:Three|One|Two>Two|Three|:Failure:503", ""},
      {"Wide", {"Q", "P"}, false, "", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.item);
    auto docs = exportDevice(kDevice);
    XML_NODE* list = commit(docs->current, c.item);
    if (!c.names.empty()) order(list, c.names);
    if (c.dropIndex) {
      auto* last = const_cast<XML_NODE*>(children(list, "ValueStruct").back());
      const_cast<XML_ATTRIBUTE*>(last->attributes)->name[0] = 'X';
    }
    ImportOutcome out = import(kDevice, docs->current);
    EXPECT_EQ(out.records, std::vector<std::string>(*c.record ? 1 : 0, c.record));
    EXPECT_EQ(segment(out), c.segment);
  }

  // A form set in "en-US" alone names no statement: nothing is read.
  build({device(u"System.Plain.1", {valuesForm()}, {"en-US"})});
  auto docs = exportDevice(u"System.Plain.1");
  order(commit(docs->current, "Order"), {"One", "Two", "Three"});
  ImportOutcome out = import(u"System.Plain.1", docs->current);
  EXPECT_EQ(out.status, EFI_SUCCESS);
  EXPECT_TRUE(out.records.empty() && out.request.empty());
}

// The BIOS boot sequence: an entry whose "Enabled" changes asks for its
// checkbox ("1", not padded, reported under the list's name) before the
// order itself. SetupPassword belongs to the password entry and keeps its
// index; the device's other password items are passed over, their indexes
// consumed.
TEST_F(NodeToHiiTest, BootSequenceEntriesSwitchTheirCheckboxes) {
  build();
  auto docs = exportDevice(kBios);
  XML_NODE* setup = pend(docs->current, "SetupPassword", "secret", "1");
  XML_NODE* copy = pend(docs->current, "OldSetupPassword", "secret", "1");
  XML_NODE* list = commit(docs->current, "BootSeq");
  auto* optical = const_cast<XML_NODE*>(children(list, "ValueStruct")[2]);
  ASSERT_EQ(attribute(optical, "Enabled"), "false");
  setAttribute(optical, "Enabled", "true");
  order(list, {"HardDisk.List.1-1", "NIC.Integrated.1-1-1", "Optical.SATAEmbedded.J-1", "Disk.USBFront.1-1"});
  ImportOutcome out = import(kBios, docs->current);
  EXPECT_EQ(out.status, EFI_SUCCESS);
  const std::string record = "BootSeq:NIC.Integrated.1-1-1|HardDisk.List.1-1|Optical.SATAEmbedded.J-1|Disk.USBFront.1-1>"
                             "HardDisk.List.1-1|NIC.Integrated.1-1-1|Optical.SATAEmbedded.J-1|Disk.USBFront.1-1:Success:0";
  EXPECT_EQ(out.records, std::vector<std::string>(2, record));
  EXPECT_NE(out.request.find("&OFFSET=000a&WIDTH=0001&VALUE=1GUID="), std::string::npos) << out.request;
  EXPECT_EQ(out.request.substr(out.request.rfind("&OFFSET=")), "&OFFSET=0004&WIDTH=0004&VALUE=04030201");
  EXPECT_EQ(text(child(setup, "CommitIndex")), "1");
  EXPECT_EQ(text(child(copy, "CommitIndex")), "0");
}

}  // namespace
