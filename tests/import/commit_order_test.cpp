// The order in which pending items are applied, against the plain
// algorithm (one pass per commit index, each search from the root and
// then from the applied item's parent) run here over the same documents
// with the driver's own search primitives;
// huge indexes; a 20,000-item document on a small stack; and every
// allocation of an import on the sample BIOS device failing in turn.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <set>

#include "host/hii/config_string.h"
#include "host/sample/sample_devices.h"
#include "import/import.h"
#include "import/import_fixture.h"

namespace {

using namespace tvl::test;

constexpr char16_t kDevice[] = u"System.Order.1";

sample::DeviceDescription orderDevice() {
  sample::FormDescription form{1, u"Order", u"Order", {sample::subtitle(u"Order", u"S0")}};
  for (UINT16 k = 0; k < 16; ++k) {
    std::u16string name = (k < 12 ? u"N" : u"C") + tvl::host::hii::toUtf16(std::to_string(k % 12));
    form.statements.push_back(k < 12 ? sample::numeric(UINT16(0x100 + k), name, name).at(1, k).range(0, 99, 1).value(k)
                                     : sample::checkbox(UINT16(0x100 + k), name, name).at(1, k).value(0));
  }
  return ImportTest::device(kDevice, {form});
}

// ---------------------------------------------------------------- the plain algorithm

bool named(const XML_NODE* n, const char* name) { return n->name && !std::strcmp(n->name, name); }
std::string hex(uint64_t n) {
  char text[17];
  std::snprintf(text, sizeof text, "%llx", static_cast<unsigned long long>(n));
  return text;
}
uint64_t decimal(const char* text) {
  uint64_t v = 0;
  for (text = text ? text + std::strspn(text, " ") : ""; *text >= '0' && *text <= '9'; ++text)
    v = v > (~0ull - uint64_t(*text - '0')) / 10 ? ~0ull : v * 10 + uint64_t(*text - '0');
  return v;
}

// First match in document order: the node, its descendants, its following
// siblings with theirs.
XML_NODE* find(XML_NODE* start, const std::function<bool(const XML_NODE*)>& match) {
  for (XML_NODE* n = start; n; n = n->next) {
    if (match(n)) return n;
    if (XML_NODE* inside = find(n->children, match)) return inside;
  }
  return nullptr;
}
XML_NODE* find(const char* name, XML_NODE* start) {
  return find(start, [&](const XML_NODE* n) { return named(n, name); });
}
XML_NODE* itemNamed(XML_NODE* root, const char* name) {
  return find(root, [&](const XML_NODE* n) { return named(n, "ConfigItem") && text(n->children) == name; });
}

// One pass per index up to the maximum; each search from the root, then
// from the parent of the item just handled. Items are judged as the rules
// of integers and checkboxes say, on a device other than the BIOS.
struct Reference {
  ImportTest& test;
  decltype(&::getMaxCommitIndex) maxIndex;
  decltype(&::findPendingItemByCommitIndex) findItem;
  XML_NODE *current, *possible;
  std::vector<std::string> handled, records;  // "name@n"; as operations() writes them
  EFI_STATUS overall = EFI_SUCCESS;
  std::set<XML_NODE*> blockNamesTaken;

  // The search primitives are the driver's own: the plain algorithm is
  // built from them here, the import indexes the document instead.
  XML_NODE* pendingItem(uint64_t n, XML_NODE* start) {
    XML_NODE* item = nullptr;
    findItem(n, start, &item);
    return item;
  }
  static std::string value(XML_NODE* item) { return text(child(child(item, "ValueStruct"), "Value")); }
  void record(const std::string& name, XML_NODE* currentItem, XML_NODE* pending, uint64_t code) {
    records.push_back(name + ":" + value(currentItem) + ">" + value(pending) + ":" + (code ? "Failure:" : "Success:") + hex(code));
    bool requested = overall == EFI_ABORTED || std::any_of(records.begin(), records.end() - 1, [](const std::string& r) {
                       return r.find(":Success:") != std::string::npos;
                     });
    if (code && overall == EFI_SUCCESS) overall = requested ? EFI_ABORTED : EFI_DEVICE_ERROR;
    if (!code && overall == EFI_DEVICE_ERROR) overall = EFI_ABORTED;
  }
  void handle(XML_NODE* item, uint64_t n) {
    test.setText(find("CommitIndex", item), "0");  // first: the trace below may show the cleared text
    XML_NODE* first = item->children;
    handled.push_back((first && first->contents ? first->contents : "<null string>") + ("@" + hex(n)));
    std::string type = attribute(item, "Type"), name = text(first);
    if (!named(item, "ConfigItem") || (type != "Integer" && type != "Checkbox") || !first->contents) return;
    XML_NODE* currentItem = itemNamed(current, name.c_str());
    if (!currentItem || !blockNamesTaken.insert(currentItem).second) return;
    XML_NODE* pendingValue = find("Value", first);
    XML_NODE* currentValue = find("Value", currentItem->children);
    if (pendingValue && (pendingValue->contents == nullptr) == (currentValue->contents == nullptr) &&
        text(pendingValue) == text(currentValue))
      return;  // unchanged
    XML_NODE* possibleItem = itemNamed(possible, name.c_str());
    if (!possibleItem || !pendingValue || !pendingValue->contents) return;
    std::string v = pendingValue->contents;
    if (type == "Checkbox") return record(name, currentItem, item, v == "true" || v == "false" ? 0 : 0x401);
    if (v.find_first_not_of("0123456789") != std::string::npos) return record(name, currentItem, item, 0x303);
    uint64_t number = decimal(v.c_str());
    bool inRange = number >= decimal(attribute(possibleItem, "Min").c_str()) &&
                   number <= decimal(attribute(possibleItem, "Max").c_str());
    record(name, currentItem, item, inRange ? 0 : 0x301);
  }
  EFI_STATUS run(XML_NODE* root) {
    UINT64 max = 0;
    maxIndex(root, &max);
    for (uint64_t n = 1; n <= max; ++n) {
      for (XML_NODE* item = pendingItem(n, root); item && handled.size() < 10000;) {
        XML_NODE* parent = item->parent;
        handle(item, n);
        item = parent ? pendingItem(n, parent) : nullptr;
      }
    }
    return max ? overall : EFI_DEVICE_ERROR;
  }
};

// ---------------------------------------------------------------- generated documents

// Documents of one or two form sets whose forms hold items with small,
// repeated and missing indexes, and the shapes a search meets: indexes
// outside items, other elements among the items, items in groups and in
// forms nested in groups, items beside forms, password items, items of
// unknown names and of types that cannot be set.
struct Generator {
  std::mt19937 rng;
  bool chance(unsigned percent) { return rng() % 100 < percent; }
  std::string index() {
    const char* odd[] = {" 3", "2x", "", "x", "06"};
    return chance(8) ? odd[rng() % 5] : std::to_string(rng() % 7);
  }
  std::string item() {
    unsigned kind = rng() % 100, k = rng() % 12;
    const char* values[] = {"", "150", "4x", nullptr, "true", "false", "maybe", nullptr};
    std::string type = kind < 80 ? kind < 60 ? "Integer" : "Checkbox" : kind < 85 ? "Subtitle" : kind < 90 ? "Integer" : "Password";
    std::string name = type == "Integer" ? "N" + std::to_string(k) : type == "Checkbox" ? "C" + std::to_string(k % 4) : "S0";
    if (kind >= 85 && kind < 90) name = "Zz";
    if (kind >= 90 && kind < 94) name = chance(50) ? "SysPassword" : "SetupPassword";
    const char* value = type == "Checkbox" ? values[4 + rng() % 4] : chance(60) ? nullptr : values[rng() % 4];
    std::string number = chance(50) ? std::to_string(k) : std::to_string(rng() % 100);
    std::string valueElement = value || type != "Integer" ? value ? "<Value>" + std::string(value) + "</Value>" : "<Value/>"
                                                          : "<Value>" + number + "</Value>";
    return "<ConfigItem Type=\"" + type + "\">" + (kind >= 94 ? "<Note/>" : "") + "<Name>" + name + "</Name><CommitIndex>" +
           index() + "</CommitIndex><ValueStruct>" + valueElement +
           (chance(8) ? "<CommitIndex>" + index() + "</CommitIndex>" : "") + "</ValueStruct></ConfigItem>";
  }
  std::string form(bool nested = false) {
    std::string out = "<Form><Title>F</Title>";
    for (unsigned i = 0, n = rng() % 5; i < n; ++i) {
      if (chance(8)) out += "<CommitIndex>" + index() + "</CommitIndex>";
      if (chance(6)) out += "<Other><CommitIndex>" + index() + "</CommitIndex></Other>";
      if (chance(6)) out += "<Group>" + item() + item() + "</Group>";
      if (!nested && chance(4)) out += "<Group>" + form(true) + "</Group>";
      out += item();
    }
    return out + "</Form>";
  }
  std::string document() {
    std::string out = "<ConfigData><ConfigDataEntry>";
    for (unsigned s = 0, sets = chance(20) ? 2 : 1; s < sets; ++s) {
      out += "<FormSet><Title>T</Title>";
      for (unsigned f = 0, forms = 1 + rng() % 3; f < forms; ++f)
        out += form() + (chance(8) ? item() : "") + (chance(5) ? "<CommitIndex>" + index() + "</CommitIndex>" : "");
      out += "</FormSet>";
    }
    return out + "</ConfigDataEntry></ConfigData>";
  }
};

class CommitOrderTest : public ImportTest {};

TEST_F(CommitOrderTest, HandledSequenceAndResultsMatchThePlainSearch) {
  build({orderDevice()});
  auto docs = exportDevice(kDevice);
  log().setLevelMask(TVL_LEVEL_PROGRESS);
  const std::string kTrace = "PendingConfigItemNode trying to be set = ", kIndex = " with CommitIndex = ";
  Generator generate{std::mt19937(20260611)};
  size_t handledItems = 0;
  for (int d = 0; d < 1000; ++d) {
    std::string text = generate.document();
    SCOPED_TRACE(text);
    auto driverTree = parse(text), referenceTree = parse(text);
    log().clear();
    ImportOutcome out = import(kDevice, driverTree.get());
    std::vector<std::string> handled;
    for (const LogRecord& r : log().records()) {
      size_t at = r.text.find(kIndex), end = r.text.size() - 1;  // before the line's "\n"
      if (r.function == "tvlNodeToHii" && r.text.rfind(kTrace, 0) == 0)
        handled.push_back(r.text.substr(kTrace.size(), at - kTrace.size()) + "@" + r.text.substr(at + kIndex.size(), end - at - kIndex.size()));
    }
    Reference reference{*this, DRIVER_FN(getMaxCommitIndex), DRIVER_FN(findPendingItemByCommitIndex),
                        docs->current, docs->possible, {}, {}, EFI_SUCCESS, {}};
    EFI_STATUS expected = reference.run(referenceTree.get());
    ASSERT_EQ(handled, reference.handled);
    ASSERT_EQ(out.records, reference.records);
    ASSERT_EQ(statusName(out.status), statusName(expected));
    ASSERT_EQ(serialise(driverTree.get()), serialise(referenceTree.get()));  // the same indexes cleared
    handledItems += handled.size();
  }
  EXPECT_GT(handledItems, 3000u);  // the documents exercise the search, not just empty passes
}

// Indexes past 64 bits read as all ones: one pass applies them all, in
// document order.
TEST_F(CommitOrderTest, HugeIndexesApplyInDocumentOrder) {
  build({orderDevice()});
  auto docs = exportDevice(kDevice);
  pend(docs->current, "C2", "true", "99999999999999999999");
  pend(docs->current, "N5", "6", "18446744073709551615");
  pend(docs->current, "N1", "7", "18446744073709551615");
  ImportOutcome out = import(kDevice, docs->current);
  EXPECT_EQ(out.status, EFI_SUCCESS);
  EXPECT_EQ(out.records, (std::vector<std::string>{"N1:1>7:Success:0", "N5:5>6:Success:0", "C2:false>true:Success:0"}));
}

// 20,000 items in reverse index order on a small stack (the import's own
// export of them included); the caller then holds exactly one request text
// besides the results.
TEST_F(CommitOrderTest, TwentyThousandItemsFitASmallStack) {
  constexpr UINT16 kItems = 20000;
  sample::FormDescription big{1, u"Big", u"Big", {}};
  for (UINT16 i = 0; i < kItems; ++i) {
    std::u16string name = u"Q" + tvl::host::hii::toUtf16(std::to_string(i));
    big.statements.push_back(sample::checkbox(UINT16(0x1000 + i), name, name).at(1, i).value(i % 2));
  }
  sample::DeviceDescription d = device(u"System.Big.1", {big});
  d.formSets[0].varStores[0].size = kItems;
  build({d});
  log().setLevelMask(0);
  auto docs = exportDevice(u"System.Big.1");
  std::vector<const XML_NODE*> items = descendants(docs->current, "ConfigItem");
  ASSERT_EQ(items.size(), size_t(kItems));
  EXPECT_EQ(text(child(item(docs->possible, "Q19999"), "DisplayIndex")), "20099");
  for (size_t i = 0; i < items.size(); ++i) {
    setText(const_cast<XML_NODE*>(child(items[i], "CommitIndex")), std::to_string(kItems - i).c_str());
    setText(const_cast<XML_NODE*>(child(child(items[i], "ValueStruct"), "Value")), i % 2 ? "false" : "true");
  }
  TOLVANE_PROTOCOL* self = converter();
  EFI_HANDLE handle = sample().devices()[0].handle();
  CHAR16* request = nullptr;
  XML_NODE* results = nullptr;
  EFI_STATUS status = EFI_NOT_STARTED;
  tvl::test::releaseServiceCaches(platform());  // only what the import leaves counts
  const size_t before = platform().poolStats().outstanding;
  runOnSmallStack(platform(), [&] { status = self->NodeToHii(self, handle, docs->current, &request, &results); });
  ASSERT_EQ(status, EFI_SUCCESS);
  std::vector<std::string> records = operations(results);
  ASSERT_EQ(records.size(), size_t(kItems));
  EXPECT_EQ(records.front(), "Q19999:true>false:Success:0");
  EXPECT_EQ(records.back(), "Q0:false>true:Success:0");
  for (const XML_NODE* item : items) ASSERT_EQ(text(child(item, "CommitIndex")), "0");
  sample().xml()->XML_FreeNode(sample().xml(), results);
  tvl::test::releaseServiceCaches(platform());
  EXPECT_EQ(platform().poolStats().outstanding, before + 1);
  bs()->FreePool(request);
}

// Each allocation of an import of the sample BIOS device failing in turn:
// a status of the import, no leak, the kept form sets given back, and a
// pending document whose items read their index or "0".
class ImportSweepTest : public ImportTest {};

TEST_F(ImportSweepTest, EveryAllocationFailureEndsCleanly) {
  build();
  log().setLevelMask(0);
  const std::u16string bios = sample::kBiosFqdd;
  auto docs = exportDevice(bios);
  const std::vector<std::pair<const char*, const char*>> kItems = {
      {"ProcCores", "12"}, {"MemTest", "true"}, {"AssetTag", "TAG&amp;1"}, {"MemOpMode", "FaultResilientMode"},
      {"LogicalProc", "maybe"}, {"UefiBootSeq", nullptr}};
  std::vector<XML_NODE*> pended;
  for (size_t i = 0; i < kItems.size(); ++i) {
    std::string index = std::to_string(i + 1);
    pended.push_back(kItems[i].second ? pend(docs->current, kItems[i].first, kItems[i].second, index.c_str())
                                      : commit(docs->current, kItems[i].first, index.c_str()));
  }
  auto entries = children(pended.back(), "ValueStruct");  // an entry switched on and the order changed
  setAttribute(const_cast<XML_NODE*>(entries[1]), "Enabled", "true");
  setText(const_cast<XML_NODE*>(child(entries[0], "Value")), "Disk.USBFront.1-1");

  TOLVANE_PROTOCOL* self = converter();
  auto& kept = global<HII_FORMSET_RECORD**>("mFormSetBuffer");
  CHAR16* request = nullptr;
  XML_NODE* results = nullptr;
  auto run = [&] { return self->NodeToHii(self, sample().findDevice(bios)->handle(), docs->current, &request, &results); };
  auto cleanup = [&] {
    if (request) bs()->FreePool(request);
    if (results) sample().xml()->XML_FreeNode(sample().xml(), results);
    request = nullptr, results = nullptr;
    for (size_t i = 0; i < pended.size(); ++i)
      setText(const_cast<XML_NODE*>(child(pended[i], "CommitIndex")), std::to_string(i + 1).c_str());
  };
  ASSERT_EQ(run(), EFI_ABORTED);
  EXPECT_EQ(operations(results).size(), 7u);  // the UEFI order and one of its checkboxes
  cleanup();
  size_t outOfMemory = 0;
  auto check = [&](EFI_STATUS status, size_t k) {
    outOfMemory += status == EFI_OUT_OF_RESOURCES;
    // Any other status is the export's, passed on before the first item.
    bool exported = status == EFI_SUCCESS || status == EFI_ABORTED || status == EFI_DEVICE_ERROR ||
                    status == EFI_OUT_OF_RESOURCES;
    EXPECT_TRUE(exported || (!request && !results && text(child(pended[0], "CommitIndex")) == "1")) << k;
    EXPECT_EQ(kept, nullptr) << k;
    EXPECT_TRUE(!request || std::u16string(request).rfind(u"GUID=", 0) == 0) << k;
    EXPECT_TRUE(!results || serialise(results).rfind("<ConfigResults>", 0) == 0) << k;
    for (size_t i = 0; i < pended.size(); ++i) {
      std::string index = text(child(pended[i], "CommitIndex"));
      EXPECT_TRUE(index == "0" || index == std::to_string(i + 1)) << k << " " << index;
    }
    EXPECT_FALSE(serialise(docs->current).empty()) << k;
  };
  sweepAllocationFailures(run, check, cleanup);
  EXPECT_GT(outOfMemory, 0u);
}

}  // namespace
