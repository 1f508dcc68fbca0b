// The import's operations one at a time: request segments, node
// comparison, block names, commit indexes, partitions, result records with
// the restore trigger, and error marks with their message table.
#include <gtest/gtest.h>

#include <cstring>

#include "import/import.h"
#include "import/import_fixture.h"

namespace {

using namespace tvl::test;

#define FN(name) reinterpret_cast<decltype(&::name)>(symbol(#name))

class OperationsTest : public ImportTest {
 protected:
  void SetUp() override {
    ImportTest::SetUp();
    build();
  }
  std::string narrow(const CHAR16* text) {
    std::string out;
    for (; text && *text; ++text) out += char(*text);
    return out;
  }
};

TEST_F(OperationsTest, CreateConfigRequestAppendsOnePaddedSegment) {
  auto create = FN(CreateConfigRequest);
  UINT8& asIs = global<UINT8>("mOrderedListRequest");
  const struct {
    UINT8 asIs;
    const char16_t* block;
    const char16_t* value;
    EFI_STATUS status;
    const char* segment;
  } cases[] = {
      {0, u"&OFFSET=0000&WIDTH=1", u"1", EFI_SUCCESS, "GUID=H&OFFSET=0000&WIDTH=1&VALUE=01"},
      {0, u"&OFFSET=0&WIDTH= 0x2", u"abc", EFI_SUCCESS, "GUID=H&OFFSET=0&WIDTH= 0x2&VALUE=0abc"},
      {1, u"&OFFSET=0000&WIDTH=0003", u"020103", EFI_SUCCESS, "GUID=H&OFFSET=0000&WIDTH=0003&VALUE=020103"},
      {1, u"&OFFSET=0000&WIDTH=0003", u"1", EFI_SUCCESS, "GUID=H&OFFSET=0000&WIDTH=0003&VALUE=1"},
      {0, u"&OFFSET=0004", u"5", EFI_SUCCESS, "GUID=H&OFFSET=0004&VALUE="},
      {0, u"&OFFSET=0004&WIDTH=0", u"5", EFI_SUCCESS, "GUID=H&OFFSET=0004&WIDTH=0&VALUE="},
      // The field cannot hold the value, or no field can be that wide.
      {0, u"&OFFSET=0&WIDTH=1", u"123", EFI_INVALID_PARAMETER, ""},
      {0, u"&OFFSET=0&WIDTH=10000", u"1", EFI_INVALID_PARAMETER, ""},
  };
  for (const auto& c : cases) {
    asIs = 0;
    CHAR16* request = nullptr;
    ASSERT_EQ(create(u"GUID=F", u"&OFFSET=9&WIDTH=1", u"1", &request), EFI_SUCCESS);
    CHAR16* before = request;
    asIs = c.asIs;
    EXPECT_EQ(create(u"GUID=H", c.block, c.value, &request), c.status) << c.segment;
    if (c.status == EFI_SUCCESS) {
      EXPECT_NE(request, before);  // a new text; the old one is freed (the leak check sees both)
      EXPECT_EQ(narrow(request), std::string("GUID=F&OFFSET=9&WIDTH=1&VALUE=01") + c.segment);
    } else {
      EXPECT_EQ(request, before);
    }
    bs()->FreePool(request);
  }
  asIs = 0;
  CHAR16* request = nullptr;
  EXPECT_EQ(create(nullptr, u"&OFFSET=0&WIDTH=1", u"1", &request), EFI_INVALID_PARAMETER);
  platform().failAllocation(1);
  EXPECT_EQ(create(u"GUID=H", u"&OFFSET=0&WIDTH=1", u"1", &request), EFI_OUT_OF_RESOURCES);
  EXPECT_EQ(request, nullptr);
}

TEST_F(OperationsTest, CompareNodesOutcomes) {
  auto compare = FN(CompareNodes);
  const struct {
    const char* pending;  // children of the pending item; null: no item
    const char* current;
    EFI_STATUS status;
    const char* trace;
  } cases[] = {
      {nullptr, "<Name>A</Name>", EFI_INVALID_PARAMETER, "SrcNode and DstNode are NULL: Invalid Parameter\n"},
      {"<Id>A</Id>", "<Name>A</Name>", EFI_INVALID_PARAMETER, "SrcNode missing Name: Invalid Parameter\n"},
      {"<Name>A</Name>", "<Id>A</Id>", EFI_INVALID_PARAMETER, "DstNode missing Name: Invalid Parameter\n"},
      {"<Name>A</Name><Value>1</Value>", "<Name>B</Name><Value>1</Value>", EFI_NOT_FOUND, "Names don't match: Not Found\n"},
      {"<Name>A</Name>", "<Name>A</Name><Value>1</Value>", EFI_INVALID_PARAMETER, "SrcNode missing Value: Invalid Parameter\n"},
      {"<Name>A</Name><Value>1</Value>", "<Name>A</Name>", EFI_INVALID_PARAMETER, "DstNode missing Value: Invalid Parameter\n"},
      {"<Name>A</Name><V><Value/></V>", "<Name/><Value/>", EFI_SUCCESS, "Both current and pending values are NULL: Success\n"},
      {"<Name>A</Name><Value></Value>", "<Name>A</Name><Value></Value>", EFI_SUCCESS, "Values match: Success\n"},
      {"<Name>A</Name><Value>1</Value>", "<Name>A</Name><Value>2</Value>", EFI_NOT_FOUND, "Values don't match: Not Found\n"},
      {"<Name>A</Name><Value/>", "<Name>A</Name><Value></Value>", EFI_NOT_FOUND,
       "Pending or current value is NULL, Values don't match: Not Found\n"},
  };
  for (const auto& c : cases) {
    auto pending = parse(std::string("<ConfigItem>") + (c.pending ? c.pending : "") + "</ConfigItem>");
    auto current = parse(std::string("<ConfigItem>") + c.current + "</ConfigItem>");
    log().clear();
    EXPECT_EQ(compare(c.pending ? pending->children : nullptr, current->children), c.status) << c.trace;
    EXPECT_EQ(log().count("CompareNodes", c.trace), 1u) << log().dump();
  }
}

TEST_F(OperationsTest, TakeBlockNameHandsOutTheFragmentOrRefuses) {
  auto take = FN(takeBlockName);
  const char* kTail = "<ValueStruct><Value>1</Value></ValueStruct>";
  const struct {
    std::string item;
    EFI_STATUS status;
    const char* blockName;
    const char* left;  // the item's children afterwards
  } cases[] = {
      {std::string("<ConfigItem><Name>A</Name><CommitIndex>0</CommitIndex><BlockName>&amp;OFFSET=0001&amp;WIDTH=0002"
                   "</BlockName>") + kTail + "</ConfigItem>",
       EFI_SUCCESS, "&OFFSET=0001&WIDTH=0002", "Name,CommitIndex,ValueStruct"},
      {"<ConfigItem><Name>A</Name><CommitIndex>0</CommitIndex><BlockName>&amp;OFFSET=1</BlockName></ConfigItem>",
       EFI_INVALID_PARAMETER, "", "Name,CommitIndex,BlockName"},  // the last child
      {std::string("<ConfigItem><Name>A</Name><CommitIndex>0</CommitIndex><BlockName/>") + kTail + "</ConfigItem>",
       EFI_INVALID_PARAMETER, "", "Name,CommitIndex,BlockName,ValueStruct"},
      {std::string("<ConfigItem><Name>A</Name><BlockName>b</BlockName>") + kTail + "</ConfigItem>",
       EFI_INVALID_PARAMETER, "", "Name,BlockName,ValueStruct"},
      {std::string("<ConfigItem><Name>A</Name><CommitIndex>0</CommitIndex>") + kTail + "</ConfigItem>",
       EFI_INVALID_PARAMETER, "", "Name,CommitIndex,ValueStruct"},
      {"<ConfigItem/>", EFI_INVALID_PARAMETER, "", ""},
      {std::string("<Item><Name>A</Name><CommitIndex>0</CommitIndex><BlockName>b</BlockName>") + kTail + "</Item>",
       EFI_INVALID_PARAMETER, "", "Name,CommitIndex,BlockName,ValueStruct"},
  };
  for (const auto& c : cases) {
    auto item = parse(c.item);
    CHAR8* blockName = nullptr;
    EXPECT_EQ(take(item.get(), &blockName), c.status) << c.item;
    EXPECT_EQ(blockName ? std::string(blockName) : "", c.blockName);
    EXPECT_EQ(childNames(item.get()), c.left);
    if (blockName) bs()->FreePool(blockName);
  }
  // Without memory for the copy, nothing is taken.
  auto item = parse(cases[0].item);
  CHAR8* blockName = nullptr;
  platform().failAllocation(1);
  EXPECT_EQ(take(item.get(), &blockName), EFI_OUT_OF_RESOURCES);
  EXPECT_EQ(childNames(item.get()), "Name,CommitIndex,BlockName,ValueStruct");
}

// The maximum index, with the visit that a raising index ends; the search
// that never finds password items; the password entry's check.
TEST_F(OperationsTest, CommitIndexBookkeeping) {
  auto maxOf = FN(getMaxCommitIndex);
  const struct {
    const char* document;
    UINT64 max;
  } maxima[] = {
      {"<F><CommitIndex>3</CommitIndex><CommitIndex>1</CommitIndex><CommitIndex>0</CommitIndex>"
       "<CommitIndex>2</CommitIndex></F>", 3},
      {"<F><CommitIndex> 7</CommitIndex><CommitIndex>x</CommitIndex></F>", 7},
      {"<F><CommitIndex>7a</CommitIndex></F>", 7},
      {"<F><CommitIndex>x</CommitIndex></F>", 0},
      {"<F><CommitIndex>18446744073709551616</CommitIndex></F>", ~0ull},
      // A raising index ends the visit of its following siblings and its
      // children; one that does not raise is walked into.
      {"<F><CommitIndex>2</CommitIndex><C><CommitIndex>9</CommitIndex></C></F>", 2},
      {"<F><C><CommitIndex>2</CommitIndex></C><C><CommitIndex>9</CommitIndex></C></F>", 9},
      {"<F><CommitIndex>2<CommitIndex>9</CommitIndex></CommitIndex></F>", 2},
      {"<F><CommitIndex>0<CommitIndex>9</CommitIndex></CommitIndex></F>", 9},
  };
  for (const auto& m : maxima) {
    UINT64 max = 0;
    maxOf(parse(m.document).get(), &max);
    EXPECT_EQ(max, m.max) << m.document;
  }

  auto find = FN(findPendingItemByCommitIndex);
  auto check = FN(CheckAndClearCommitIndex);
  auto doc = parse(
      "<D><Form><ConfigItem><Name>SysPassword</Name><CommitIndex>1</CommitIndex></ConfigItem>"
      "<ConfigItem><Name>Other</Name><CommitIndex>1</CommitIndex></ConfigItem>"
      "<ConfigItem><Name>SetupPassword</Name><CommitIndex/></ConfigItem></Form></D>");
  XML_NODE* found = nullptr;
  EXPECT_EQ(find(1, doc.get(), &found), EFI_SUCCESS);
  EXPECT_EQ(text(found ? found->children : nullptr), "Other");
  EXPECT_EQ(find(0, doc.get(), &found), EFI_INVALID_PARAMETER);
  EXPECT_EQ(find(1, parse("<D><ConfigItem><CommitIndex>1</CommitIndex></ConfigItem></D>").get(), &found),
            EFI_INVALID_PARAMETER);  // no Form
  EXPECT_EQ(check(doc.get(), "SysPassword"), EFI_SUCCESS);
  EXPECT_EQ(check(doc.get(), "SysPassword"), EFI_NOT_FOUND);
  EXPECT_EQ(check(doc.get(), "SetupPassword"), EFI_SUCCESS);  // no text: applied, nothing changed
  EXPECT_EQ(text(child(item(doc.get(), "SetupPassword"), "CommitIndex")), "");
  EXPECT_EQ(check(doc.get(), "Missing"), EFI_NOT_FOUND);

  auto writable = FN(isConfigItemWritable);
  for (const char* type : {"Enumeration", "String", "Integer", "Password", "OrderedList", "Checkbox"}) {
    CHAR8* out = nullptr;
    auto node = parse(std::string("<ConfigItem Type=\"") + type + "\"/>");
    EXPECT_TRUE(writable(node.get(), &out)) << type;
    EXPECT_STREQ(out, type);
  }
  for (const char* node : {"<ConfigItem Type=\"Subtitle\"/>", "<ConfigItem/>", "<Item Type=\"String\"/>",
                           "<ConfigItem Kind=\"x\" Type=\"FormReference\"/>"}) {
    CHAR8* out = nullptr;
    EXPECT_FALSE(writable(parse(node).get(), &out)) << node;
  }
}

TEST_F(OperationsTest, PartitionsTellItemsOfOneNameApart) {
  auto partitionOf = FN(getPartitionIndex);
  auto byPartition = FN(GetNodeByNameTagWithPartition);
  auto current = parse(
      "<F><ConfigItem><Name>Speed</Name><P Kind=\"Partition\">1</P></ConfigItem>"
      "<ConfigItem><Name>Speed</Name><P Kind=\"x\" Role=\"PARTITION\">2</P></ConfigItem></F>");
  auto pending = parse("<ConfigItem><Name>Speed</Name><Q A=\"partition\"/><Q A=\"Partition\">2</Q></ConfigItem>");
  CHAR8* partition = nullptr;
  ASSERT_EQ(partitionOf(pending->children, &partition), EFI_SUCCESS);
  EXPECT_STREQ(partition, "2");  // the first such attribute on a node with a text
  XML_NODE* found = nullptr;
  ASSERT_EQ(byPartition("Speed", partition, "ConfigItem", current.get(), &found), EFI_SUCCESS);
  EXPECT_EQ(found, current->children->next);
  EXPECT_EQ(byPartition("Speed", "3", "ConfigItem", current.get(), &found), EFI_NOT_FOUND);
  EXPECT_EQ(partitionOf(current->children->children->children, &partition), EFI_NOT_FOUND);  // "Speed" alone
}

// Records: the first makes the root; old values in the current order, new
// ones by the positions the pending entries name; a success that changes
// nothing is left out only while the restore trigger is set (four bytes).
TEST_F(OperationsTest, StatusRecordsAndTheRestoreTrigger) {
  auto add = FN(addStatusNode);
  auto current = parse(
      "<ConfigItem><Name>L</Name><ValueStruct Index=\"0\"><Value>a</Value></ValueStruct>"
      "<valuestruct Index=\"1\"><Value>b</Value></valuestruct><ValueStruct Index=\"2\"><VALUE>c</VALUE></ValueStruct>"
      "</ConfigItem>");
  auto pending = parse(
      "<ConfigItem Type=\"OrderedList\"><Name>L</Name><ValueStruct Index=\"2\"><Value>a</Value></ValueStruct>"
      "<ValueStruct index=\"0\"><Value>b&amp;</Value></ValueStruct><ValueStruct Index=\"1\"><Value>c</Value>"
      "</ValueStruct></ConfigItem>");
  auto bare = parse("<ConfigItem><Name>L</Name></ConfigItem>");
  auto one = parse("<ConfigItem><Name>N</Name><ValueStruct><Value>5</Value></ValueStruct></ConfigItem>");
  XML_NODE* root = nullptr;
  ASSERT_EQ(add("L", current.get(), pending.get(), "Success", 0, &root), EFI_SUCCESS);
  ASSERT_EQ(add("L", bare.get(), pending.get(), "Failure", 0x503, &root), EFI_SUCCESS);
  ASSERT_EQ(add("P", nullptr, nullptr, "Failure", EFI_DEVICE_ERROR, &root), EFI_SUCCESS);
  EXPECT_STREQ(root->name, "ConfigResults");
  EXPECT_EQ(childNames(root, true), "Operation[name=CHANGE],Operation[name=CHANGE],Operation[name=CHANGE]");
  EXPECT_EQ(childNames(root->children), "DisplayValue,Name,Detail,Status,ErrorCode");
  EXPECT_EQ(operations(root), (std::vector<std::string>{"L:a|b|c>b&amp;|c|a:Success:0", "L:>:Failure:503", "P:>:Failure:7"}));
  sample().xml()->XML_FreeNode(sample().xml(), root);

  const struct {
    size_t variableBytes;  // 0: no variable
    UINT64 code;
    bool recorded;
  } restores[] = {{0, 0, true}, {4, 0, false}, {2, 0, false}, {5, 0, true}, {4, 0x301, true}};
  for (const auto& r : restores) {
    if (r.variableBytes)
      platform().setVariable(u"VKR_RESTORE_OP_IN_PROGRESS", gTolvaneVariableGuid, EFI_VARIABLE_BOOTSERVICE_ACCESS,
                             std::vector<uint8_t>(r.variableBytes, 1));
    root = nullptr;
    ASSERT_EQ(add("N", one.get(), one.get(), r.code ? "Failure" : "Success", r.code, &root), EFI_SUCCESS);
    EXPECT_EQ(root != nullptr, r.recorded) << r.variableBytes;
    if (root) sample().xml()->XML_FreeNode(sample().xml(), root);
    platform().setVariable(u"VKR_RESTORE_OP_IN_PROGRESS", gTolvaneVariableGuid, 0, {});
  }
}

TEST_F(OperationsTest, ErrorMarksAndTheirMessages) {
  auto mark = FN(addErrorNode);
  const char* kRecord = "<Operation><Name>A</Name><Detail/><Status>Success</Status><ErrorCode>0</ErrorCode></Operation>";
  const struct {
    std::string document;
    UINT64 code;
    std::vector<std::string> records;
  } cases[] = {
      {kRecord, 0x902, {"A:>:Failure:902"}},
      {kRecord, EFI_DEVICE_ERROR, {"A:>:Failure:7"}},
      {std::string(kRecord) + kRecord, 0x901, {"A:>:Failure:901", "A:>:Success:0"}},
      {"<Operation><Name>A</Name><Status>Success</Status><ErrorCode>0</ErrorCode></Operation>", 0x901, {"A:>:Success:0"}},
      {"<Operation><Name>A</Name><Detail/><Status/><ErrorCode>0</ErrorCode></Operation>", 0x903, {"A:>::903"}},
      {"<Operation><Name>B</Name><Detail/><Status>Success</Status><ErrorCode>0</ErrorCode></Operation>", 0x901,
       {"B:>:Success:0"}},
  };
  for (const auto& c : cases) {
    auto root = parse("<ConfigResults>" + c.document + "</ConfigResults>");
    XML_NODE* slot = root.get();
    mark("A", c.code, &slot);
    EXPECT_EQ(operations(root.get()), c.records) << c.document;
  }
  XML_NODE* none = nullptr;
  mark("A", 0x901, &none);
  EXPECT_EQ(none, nullptr);

  const auto* table = static_cast<const ERROR_MESSAGE_ROW*>(symbol("ErrorMessageTable"));
  size_t rows = 0;
  for (; table[rows].Code; ++rows) {
    EXPECT_TRUE(rows == 0 || table[rows].Code > table[rows - 1].Code);
    EXPECT_GT(std::strlen(table[rows].Message), 10u);
  }
  EXPECT_EQ(rows, 22u);
  EXPECT_EQ(table[rows].Message, nullptr);
  auto message = FN(errorMessage);
  EXPECT_STREQ(message(0x503), "OrderedList: Unable to find index.");
  EXPECT_STREQ(message(0x901), "Unable to set; ConfigItem is ReadOnly");
  EXPECT_EQ(message(0x504), nullptr);
}

}  // namespace
