// The order in which pending items are applied, against the literal
// algorithm (one pass per commit index, each search from the root and
// then from the applied item's parent) run here over the same documents;
// huge indexes; a 20,000-item document on a small stack; and every
// allocation of an import on the sample BIOS device failing in turn.
#include <gtest/gtest.h>
#include <pthread.h>

#include <strings.h>

#include <cstring>
#include <random>
#include <set>
#include <sstream>

#include "host/hii/config_string.h"
#include "host/sample/sample_devices.h"
#include "import/import_fixture.h"

namespace {

namespace sample = tvl::host::sample;
using tvl::host::ifr::Width;
using namespace tvl::test;

constexpr char16_t kDevice[] = u"System.Order.1";

sample::DeviceDescription orderDevice() {
  sample::FormDescription form{1, u"Order", u"Order", {sample::subtitle(u"Order", u"S0")}};
  for (UINT16 k = 0; k < 12; ++k) {
    std::u16string name = u"N" + tvl::host::hii::toUtf16(std::to_string(k));
    form.statements.push_back(sample::numeric(UINT16(0x100 + k), name, name, Width::U8).at(1, k).range(0, 99, 1).value(k));
  }
  for (UINT16 k = 0; k < 4; ++k) {
    std::u16string name = u"C" + tvl::host::hii::toUtf16(std::to_string(k));
    form.statements.push_back(sample::checkbox(UINT16(0x200 + k), name, name).at(1, UINT16(0x10 + k)).value(0));
  }
  return ImportTest::device(kDevice, {form});
}

// ---------------------------------------------------------------- the literal algorithm

bool named(const XML_NODE* n, const char* name) { return n->name && std::strcmp(n->name, name) == 0; }
bool namedNoCase(const XML_NODE* n, const char* name) { return n->name && strcasecmp(n->name, name) == 0; }

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
  return find(root, [&](const XML_NODE* n) {
    return named(n, "ConfigItem") && n->children && n->children->contents && !std::strcmp(n->children->contents, name);
  });
}

std::string hex(uint64_t n) {
  std::ostringstream out;
  out << std::hex << n;
  return out.str();
}

uint64_t decimal(const char* text) {
  if (!text) return 0;
  while (*text == ' ') ++text;
  uint64_t v = 0;
  for (; *text >= '0' && *text <= '9'; ++text) {
    if (v > (~0ull - uint64_t(*text - '0')) / 10) return ~0ull;
    v = v * 10 + uint64_t(*text - '0');
  }
  return v;
}

struct Reference {
  ImportTest& test;
  XML_NODE* current;
  XML_NODE* possible;
  std::vector<std::string> handled;  // "name@n"
  std::vector<std::string> records;
  EFI_STATUS overall = EFI_SUCCESS;
  bool requested = false;
  std::set<XML_NODE*> blockNamesTaken;

  static void maxOf(XML_NODE* n, uint64_t& max) {
    if (!n) return;
    if (named(n, "CommitIndex") && decimal(n->contents) > max) {
      max = decimal(n->contents);
      return;
    }
    maxOf(n->children, max);
    maxOf(n->next, max);
  }

  static XML_NODE* pendingItem(uint64_t n, XML_NODE* start) {
    XML_NODE* first = start ? find("Form", start) : nullptr;
    for (XML_NODE* form = first; form; form = form->next) {
      for (XML_NODE* item = find("ConfigItem", form); item; item = item->next) {
        auto password = [](const XML_NODE* x) {
          return named(x, "Name") && x->contents &&
                 (!std::strcmp(x->contents, "SysPassword") || !std::strcmp(x->contents, "SetupPassword"));
        };
        if (find(item->children, password)) continue;
        XML_NODE* index = find("CommitIndex", item->children);
        if (index && decimal(index->contents) == n) return item;
      }
    }
    return nullptr;
  }

  static std::string values(XML_NODE* item) {
    std::string out;
    for (XML_NODE* vs = item->children; vs; vs = vs->next) {
      if (!namedNoCase(vs, "ValueStruct")) continue;
      for (XML_NODE* v = vs->children ? vs->children : vs; v; v = v->next)
        if (namedNoCase(v, "Value")) {
          out += (out.empty() ? "" : "|") + text(v);
          break;
        }
    }
    return out;
  }

  void record(const char* name, XML_NODE* currentItem, XML_NODE* pending, uint64_t code) {
    std::string old = values(currentItem);
    records.push_back(std::string(name) + ":" + old + ">" + (old.empty() ? "" : values(pending)) + ":" +
                      (code ? "Failure" : "Success") + ":" + hex(code));
    if (code && overall == EFI_SUCCESS) overall = requested ? EFI_ABORTED : EFI_DEVICE_ERROR;
    if (!code) {
      requested = true;
      if (overall == EFI_DEVICE_ERROR) overall = EFI_ABORTED;
    }
  }

  void handle(XML_NODE* item, uint64_t n) {
    test.setText(find("CommitIndex", item), "0");  // first: the trace below may show the cleared text
    XML_NODE* first = item->children;
    handled.push_back(std::string(first && first->contents ? first->contents : "<null string>") + "@" + hex(n));
    std::string type = attribute(item, "Type");
    if (!named(item, "ConfigItem") || (type != "Integer" && type != "Checkbox" && type != "String" &&
                                       type != "Password" && type != "Enumeration" && type != "OrderedList"))
      return;
    if (!first || !first->contents) return;
    XML_NODE* currentItem = itemNamed(current, first->contents);
    if (!currentItem || !blockNamesTaken.insert(currentItem).second) return;
    XML_NODE* pendingName = find("Name", first);
    XML_NODE* currentName = find("Name", currentItem->children);
    XML_NODE* pendingValue = find("Value", first);
    XML_NODE* currentValue = find("Value", currentItem->children);
    if (pendingName && currentName &&
        !(pendingName->contents && currentName->contents && std::strcmp(pendingName->contents, currentName->contents)) &&
        pendingValue && currentValue &&
        ((!pendingValue->contents && !currentValue->contents) ||
         (pendingValue->contents && currentValue->contents && !std::strcmp(pendingValue->contents, currentValue->contents))))
      return;  // unchanged
    XML_NODE* possibleItem = itemNamed(possible, first->contents);
    if (!possibleItem || !pendingValue || !pendingValue->contents) return;
    std::string v = pendingValue->contents;
    if (type == "Checkbox") return record(first->contents, currentItem, item, v == "true" || v == "false" ? 0 : 0x401);
    if (v.find_first_not_of("0123456789") != std::string::npos) return record(first->contents, currentItem, item, 0x303);
    uint64_t number = decimal(v.c_str());
    bool inRange = number >= decimal(attribute(possibleItem, "Min").c_str()) &&
                   number <= decimal(attribute(possibleItem, "Max").c_str());
    record(first->contents, currentItem, item, inRange ? 0 : 0x301);
  }

  EFI_STATUS run(XML_NODE* root) {
    uint64_t max = 0;
    maxOf(root, max);
    if (max == 0) return EFI_DEVICE_ERROR;
    for (uint64_t n = 1; n <= max; ++n) {
      size_t guard = 0;
      for (XML_NODE* item = pendingItem(n, root); item && ++guard < 10000;) {
        XML_NODE* parent = item->parent;
        handle(item, n);
        item = parent ? pendingItem(n, parent) : nullptr;
      }
    }
    return overall;
  }
};

// ---------------------------------------------------------------- generated documents

struct Generator {
  std::mt19937 rng;
  unsigned pick(unsigned n) { return rng() % n; }
  bool chance(unsigned percent) { return pick(100) < percent; }

  std::string index() {
    static const char* odd[] = {" 3", "2x", "", "x", "06"};
    return chance(8) ? odd[pick(5)] : std::to_string(pick(7));
  }
  std::string item() {
    unsigned r = pick(100), k = pick(12);
    std::string type = "Integer", name = "N" + std::to_string(k), value;
    const char* values[] = {"", "150", "4x", "\x01"};
    value = chance(40) ? std::to_string(k) : chance(60) ? std::to_string(pick(100)) : values[pick(4)];
    if (r >= 60 && r < 80) {
      type = "Checkbox", name = "C" + std::to_string(k % 4);
      const char* states[] = {"true", "false", "maybe", "\x01"};
      value = states[pick(4)];
    } else if (r >= 80 && r < 85) {
      type = "Subtitle", name = "S0";
    } else if (r >= 85 && r < 90) {
      name = "Zz";
    } else if (r >= 90 && r < 94) {
      type = "Password", name = chance(50) ? "SysPassword" : "SetupPassword";
    }
    std::string out = "<ConfigItem Type=\"" + type + "\">" + (r >= 94 ? "<Note/>" : "") + "<Name>" + name +
                      "</Name><CommitIndex>" + index() + "</CommitIndex><ValueStruct>" +
                      (value == "\x01" ? "<Value/>" : "<Value>" + value + "</Value>");
    if (chance(8)) out += "<CommitIndex>" + index() + "</CommitIndex>";
    return out + "</ValueStruct></ConfigItem>";
  }
  std::string form(int depth = 0) {
    std::string out = "<Form><Title>F</Title>";
    for (unsigned i = 0, n = pick(5); i < n; ++i) {
      if (chance(8)) out += "<CommitIndex>" + index() + "</CommitIndex>";
      if (chance(6)) out += "<Other><CommitIndex>" + index() + "</CommitIndex></Other>";
      if (chance(6)) out += "<Group>" + item() + item() + "</Group>";
      if (depth == 0 && chance(4)) out += "<Group>" + form(1) + "</Group>";
      out += item();
    }
    return out + "</Form>";
  }
  std::string document() {
    std::string out = "<ConfigData><ConfigDataEntry>";
    for (unsigned s = 0, sets = chance(20) ? 2 : 1; s < sets; ++s) {
      out += "<FormSet><Title>T</Title>";
      for (unsigned f = 0, forms = 1 + pick(3); f < forms; ++f) {
        out += form();
        if (chance(8)) out += item();
        if (chance(5)) out += "<CommitIndex>" + index() + "</CommitIndex>";
      }
      out += "</FormSet>";
    }
    return out + "</ConfigDataEntry></ConfigData>";
  }
};

class CommitOrderTest : public ImportTest {};

TEST_F(CommitOrderTest, HandledSequenceAndResultsMatchTheLiteralAlgorithm) {
  build({orderDevice()});
  auto docs = exportDevice(kDevice);
  ASSERT_EQ(docs->status, EFI_SUCCESS);
  log().setLevelMask(TVL_LEVEL_PROGRESS);
  const std::string kTrace = "PendingConfigItemNode trying to be set = ";
  Generator generate{std::mt19937(20260611)};
  size_t handledItems = 0;
  for (int d = 0; d < 1000; ++d) {
    std::string text = generate.document();
    SCOPED_TRACE(text);
    auto driverTree = parse(text);
    auto referenceTree = parse(text);
    log().clear();
    ImportOutcome out = import(kDevice, driverTree.get());
    std::vector<std::string> handled;
    for (const LogRecord& r : log().records()) {
      if (r.function != "tvlNodeToHii" || r.text.compare(0, kTrace.size(), kTrace) != 0) continue;
      std::string rest = r.text.substr(kTrace.size());
      size_t at = rest.find(" with CommitIndex = ");
      handled.push_back(rest.substr(0, at) + "@" + rest.substr(at + 20, rest.size() - at - 21));
    }
    Reference reference{*this, docs->current, docs->possible, {}, {}, EFI_SUCCESS, false, {}};
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

// 20,000 items in reverse index order on a thread with 64 KiB of stack; the
// caller then holds exactly one request text besides the results.
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
  for (size_t i = 0; i < items.size(); ++i) {
    setText(const_cast<XML_NODE*>(child(items[i], "CommitIndex")), std::to_string(kItems - i).c_str());
    setText(const_cast<XML_NODE*>(child(child(items[i], "ValueStruct"), "Value")), i % 2 ? "false" : "true");
  }
  struct Call {
    tvl::host::Platform* platform;
    TOLVANE_PROTOCOL* self;
    EFI_HANDLE handle;
    XML_NODE* pending;
    CHAR16* request = nullptr;
    XML_NODE* results = nullptr;
    EFI_STATUS status = EFI_NOT_STARTED;
  } call{&platform(), converter(), sample().devices()[0].handle(), docs->current};
  const size_t before = platform().poolStats().outstanding;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
#if defined(__SANITIZE_ADDRESS__)
  pthread_attr_setstacksize(&attributes, 256 * 1024);  // red zones and unoptimised frames
#else
  pthread_attr_setstacksize(&attributes, 64 * 1024);
#endif
  pthread_t thread;
  ASSERT_EQ(pthread_create(
                &thread, &attributes,
                [](void* p) -> void* {
                  auto* c = static_cast<Call*>(p);
                  c->platform->bindToThisThread();
                  c->status = c->self->NodeToHii(c->self, c->handle, c->pending, &c->request, &c->results);
                  return nullptr;
                },
                &call),
            0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
  ASSERT_EQ(call.status, EFI_SUCCESS);
  std::vector<std::string> records = operations(call.results);
  ASSERT_EQ(records.size(), size_t(kItems));
  EXPECT_EQ(records.front(), "Q19999:true>false:Success:0");
  EXPECT_EQ(records.back(), "Q0:false>true:Success:0");
  for (const XML_NODE* item : items) ASSERT_EQ(text(child(item, "CommitIndex")), "0");
  sample().xml()->XML_FreeNode(sample().xml(), call.results);
  EXPECT_EQ(platform().poolStats().outstanding, before + 1);
  bs()->FreePool(call.request);
}

}  // namespace

namespace {

// Each allocation of an import of the sample BIOS device failing in turn,
// in eight shards (each takes every eighth attempt): a status of the
// import, no leak, the kept form sets given back, and a pending document
// whose items read their index or "0".
class ImportSweepTest : public ImportTest, public ::testing::WithParamInterface<size_t> {};

TEST_P(ImportSweepTest, EveryAllocationFailureEndsCleanly) {
  constexpr size_t kShards = 8;
  build();
  log().setLevelMask(0);
  const std::u16string kBiosFqdd = sample::kBiosFqdd;
  auto docs = exportDevice(kBiosFqdd);
  const std::vector<std::pair<const char*, const char*>> kItems = {
      {"ProcCores", "12"}, {"MemTest", "true"}, {"AssetTag", "TAG&amp;1"}, {"MemOpMode", "FaultResilientMode"},
      {"LogicalProc", "maybe"}, {"UefiBootSeq", nullptr}};
  std::vector<XML_NODE*> pended;
  for (size_t i = 0; i < kItems.size(); ++i) {
    const auto& [name, value] = kItems[i];
    pended.push_back(value ? pend(docs->current, name, value, std::to_string(i + 1).c_str())
                           : commit(docs->current, name, std::to_string(i + 1).c_str()));
  }
  XML_NODE* uefiOrder = pended.back();
  setAttribute(const_cast<XML_NODE*>(children(uefiOrder, "ValueStruct")[1]), "Enabled", "true");
  setText(const_cast<XML_NODE*>(child(children(uefiOrder, "ValueStruct")[0], "Value")), "Disk.USBFront.1-1");

  TOLVANE_PROTOCOL* self = converter();
  EFI_HANDLE handle = sample().findDevice(kBiosFqdd)->handle();
  auto& kept = global<HII_FORMSET_RECORD**>("mFormSetBuffer");
  CHAR16* request = nullptr;
  XML_NODE* results = nullptr;
  auto run = [&] { return self->NodeToHii(self, handle, docs->current, &request, &results); };
  auto cleanup = [&] {
    if (request) bs()->FreePool(request);
    if (results) sample().xml()->XML_FreeNode(sample().xml(), results);
    request = nullptr;
    results = nullptr;
    for (size_t i = 0; i < pended.size(); ++i) setText(const_cast<XML_NODE*>(child(pended[i], "CommitIndex")), std::to_string(i + 1).c_str());
  };
  auto held = [&] { return platform().poolStats().outstanding + platform().poolStats().outstandingPages; };

  const size_t start = platform().allocationAttempts();
  ASSERT_EQ(run(), EFI_ABORTED);
  ASSERT_EQ(operations(results).size(), 7u);  // the UEFI order and one of its checkboxes
  const size_t attempts = platform().allocationAttempts() - start;
  cleanup();
  std::set<EFI_STATUS> seen;
  for (size_t k = 1 + GetParam(); k <= attempts; k += kShards) {
    const size_t before = held();
    platform().failAllocation(k);
    EFI_STATUS status = run();
    platform().clearAllocationFaults();
    seen.insert(status);
    // Any other status is the export's, passed on before the first item.
    if (status != EFI_SUCCESS && status != EFI_ABORTED && status != EFI_DEVICE_ERROR &&
        status != EFI_OUT_OF_RESOURCES) {
      EXPECT_TRUE(!request && !results && text(child(pended[0], "CommitIndex")) == "1") << k << statusName(status);
    }
    EXPECT_EQ(kept, nullptr) << k;
    if (request) {
      EXPECT_EQ(std::u16string(request).substr(0, 5), u"GUID=") << k;
    }
    if (results) {
      EXPECT_EQ(serialise(results).substr(0, 15), "<ConfigResults>") << k;
    }
    for (size_t i = 0; i < pended.size(); ++i) {
      std::string index = text(child(pended[i], "CommitIndex"));
      EXPECT_TRUE(index == "0" || index == std::to_string(i + 1)) << k << " " << index;
    }
    EXPECT_FALSE(serialise(docs->current).empty()) << k;
    cleanup();
    ASSERT_EQ(held(), before) << "attempt " << k << " of " << attempts << " leaks";
  }
  EXPECT_GT(seen.count(EFI_OUT_OF_RESOURCES), 0u);
}

INSTANTIATE_TEST_SUITE_P(Shards, ImportSweepTest, ::testing::Range(size_t(0), size_t(8)));

}  // namespace
