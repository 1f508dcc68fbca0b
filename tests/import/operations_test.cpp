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
};

// Each segment follows the request directly; padded to twice the width
// unless an ordered list asks for its digits as they are.
TEST_F(OperationsTest, CreateConfigRequestAppendsOneSegment) {
  auto create = FN(CreateConfigRequest);
  UINT8& asIs = global<UINT8>("mOrderedListRequest");
  const struct {  // segment "": refused, the request unchanged
    UINT8 asIs; const char16_t *block, *value; const char* segment;
  } cases[] = {
      {0, u"&OFFSET=0&WIDTH=1", u"1", "&OFFSET=0&WIDTH=1&VALUE=01"},
      {0, u"&OFFSET=0&WIDTH= 0x2", u"abc", "&OFFSET=0&WIDTH= 0x2&VALUE=0abc"},
      {0, u"&OFFSET=0&WIDTH=F", u"1", "&OFFSET=0&WIDTH=F&VALUE=" "00000000000000000000000000000" "1"},  // upper-case digits
      {1, u"&OFFSET=0&WIDTH=0003", u"1", "&OFFSET=0&WIDTH=0003&VALUE=1"},
      {0, u"&OFFSET=4", u"5", "&OFFSET=4&VALUE="},
      {0, u"&OFFSET=0&WIDTH=1", u"123", ""},    // the field cannot hold the value
      {0, u"&OFFSET=0&WIDTH=10000", u"1", ""},  // no question is that wide
  };
  for (const auto& c : cases) {
    asIs = 0;
    CHAR16* request = nullptr;
    ASSERT_EQ(create(u"GUID=F", u"&OFFSET=9&WIDTH=1", u"1", &request), EFI_SUCCESS);
    CHAR16* before = request;
    asIs = c.asIs;
    EXPECT_EQ(create(u"GUID=H", c.block, c.value, &request), *c.segment ? EFI_SUCCESS : EFI_INVALID_PARAMETER);
    EXPECT_EQ(narrow(request), "GUID=F&OFFSET=9&WIDTH=1&VALUE=01" + std::string(*c.segment ? "GUID=H" : "") + c.segment);
    EXPECT_EQ(request != before, *c.segment != 0);  // a new text; the leak check sees the old one freed
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
  const struct {  // the items' children; pending null: no item
    const char *pending, *current; EFI_STATUS status; const char* trace;
  } cases[] = {
      {nullptr, "<Name>A</Name>", EFI_INVALID_PARAMETER, "SrcNode and DstNode are NULL"},
      {"<Id>A</Id>", "<Name>A</Name>", EFI_INVALID_PARAMETER, "SrcNode missing Name"},
      {"<Name>A</Name>", "<Id>A</Id>", EFI_INVALID_PARAMETER, "DstNode missing Name"},
      {"<Name>A</Name><Value>1</Value>", "<Name>B</Name><Value>1</Value>", EFI_NOT_FOUND, "Names don't match"},
      {"<Name>A</Name>", "<Name>A</Name><Value>1</Value>", EFI_INVALID_PARAMETER, "SrcNode missing Value"},
      {"<Name>A</Name><Value>1</Value>", "<Name>A</Name>", EFI_INVALID_PARAMETER, "DstNode missing Value"},
      {"<Name>A</Name><V><Value/></V>", "<Name/><Value/>", EFI_SUCCESS, "Both current and pending values are NULL"},
      {"<Name>A</Name><Value></Value>", "<Name>A</Name><Value></Value>", EFI_SUCCESS, "Values match"},
      {"<Name>A</Name><Value>1</Value>", "<Name>A</Name><Value>2</Value>", EFI_NOT_FOUND, "Values don't match"},
      {"<Name>A</Name><Value/>", "<Name>A</Name><Value></Value>", EFI_NOT_FOUND,
       "Pending or current value is NULL, Values don't match"},
  };
  for (const auto& c : cases) {
    auto pending = parse(std::string("<ConfigItem>") + (c.pending ? c.pending : "") + "</ConfigItem>");
    auto current = parse(std::string("<ConfigItem>") + c.current + "</ConfigItem>");
    log().clear();
    EXPECT_EQ(compare(c.pending ? pending->children : nullptr, current->children), c.status) << c.trace;
    const char* status = c.status == EFI_SUCCESS ? "Success" : c.status == EFI_NOT_FOUND ? "Not Found" : "Invalid Parameter";
    EXPECT_EQ(log().count("CompareNodes", std::string(c.trace) + ": " + status + "\n"), 1u) << log().dump();
  }
}

TEST_F(OperationsTest, TakeBlockNameHandsOutTheFragmentOrRefuses) {
  auto take = FN(takeBlockName);
  const std::string kTail = "<ValueStruct><Value>1</Value></ValueStruct></ConfigItem>";
  const struct {  // blockName "": refused, nothing taken
    std::string item; const char* blockName;
  } cases[] = {
      {"<ConfigItem><Name>A</Name><CommitIndex>0</CommitIndex><BlockName>&amp;OFFSET=1&amp;WIDTH=2</BlockName>" + kTail,
       "&OFFSET=1&WIDTH=2"},
      {"<ConfigItem><Name>A</Name><CommitIndex>0</CommitIndex><BlockName>b</BlockName></ConfigItem>", ""},  // last
      {"<ConfigItem><Name>A</Name><CommitIndex>0</CommitIndex><BlockName/>" + kTail, ""},
      {"<ConfigItem><Name>A</Name><BlockName>b</BlockName>" + kTail, ""},
      {"<ConfigItem><Name>A</Name><CommitIndex>0</CommitIndex><Other>b</Other>" + kTail, ""},
      {"<Item><Name>A</Name><CommitIndex>0</CommitIndex><BlockName>b</BlockName><V/></Item>", ""},
  };
  for (const auto& c : cases) {
    auto item = parse(c.item);
    std::string before = childNames(item.get());
    CHAR8* blockName = nullptr;
    EXPECT_EQ(take(item.get(), &blockName), *c.blockName ? EFI_SUCCESS : EFI_INVALID_PARAMETER) << c.item;
    EXPECT_EQ(blockName ? std::string(blockName) : "", c.blockName);
    EXPECT_EQ(childNames(item.get()), *c.blockName ? "Name,CommitIndex,ValueStruct" : before);
    if (blockName) bs()->FreePool(blockName);
  }
  auto item = parse(cases[0].item);
  CHAR8* blockName = nullptr;
  platform().failAllocation(1);
  EXPECT_EQ(take(item.get(), &blockName), EFI_OUT_OF_RESOURCES);
  EXPECT_EQ(childNames(item.get()), "Name,CommitIndex,BlockName,ValueStruct");
}

// The maximum (a raising index ends the visit of its children and its
// following siblings), the search that never finds password items, and
// the password entry's check.
TEST_F(OperationsTest, CommitIndexBookkeeping) {
  auto maxOf = FN(getMaxCommitIndex);
  const std::pair<const char*, UINT64> maxima[] = {
      {"<CommitIndex>3</CommitIndex><CommitIndex>1</CommitIndex><CommitIndex>0</CommitIndex>", 3},
      {"<CommitIndex> 7</CommitIndex><C><CommitIndex>7a</CommitIndex></C><CommitIndex>x</CommitIndex>", 7},
      {"<CommitIndex>18446744073709551616</CommitIndex>", ~0ull},
      {"<CommitIndex>2</CommitIndex><C><CommitIndex>9</CommitIndex></C>", 2},
      {"<C><CommitIndex>2</CommitIndex></C><C><CommitIndex>9</CommitIndex></C>", 9},
      {"<CommitIndex>2<CommitIndex>9</CommitIndex></CommitIndex>", 2},
      {"<CommitIndex>0<CommitIndex>9</CommitIndex></CommitIndex>", 9},
  };
  for (const auto& [document, expected] : maxima) {
    UINT64 max = 0;
    maxOf(parse(std::string("<F>") + document + "</F>").get(), &max);
    EXPECT_EQ(max, expected) << document;
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
  EXPECT_EQ(find(1, doc->children->children, &found), EFI_INVALID_PARAMETER);  // no Form from there
  EXPECT_EQ(check(doc.get(), "SysPassword"), EFI_SUCCESS);
  EXPECT_EQ(check(doc.get(), "SysPassword"), EFI_NOT_FOUND);
  EXPECT_EQ(check(doc.get(), "SetupPassword"), EFI_SUCCESS);  // no text: applied, nothing changed
  EXPECT_EQ(text(child(item(doc.get(), "SetupPassword"), "CommitIndex")), "");
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
}

// Records: old values in the current order, new ones by the positions the
// pending entries name; a success that changes nothing is left out only
// while the restore trigger is set (a variable that fits in four bytes).
TEST_F(OperationsTest, StatusRecordsAndTheRestoreTrigger) {
  auto add = FN(addStatusNode);
  auto current = parse(
      "<ConfigItem><Name>L</Name><ValueStruct><Value>a</Value></ValueStruct><valuestruct><Value>b</Value>"
      "</valuestruct><ValueStruct><VALUE>c</VALUE></ValueStruct></ConfigItem>");
  auto pending = parse(
      "<ConfigItem Type=\"OrderedList\"><Name>L</Name><ValueStruct Index=\"2\"><Value>a</Value></ValueStruct>"
      "<ValueStruct index=\"0\"><Value>b&amp;</Value></ValueStruct><ValueStruct Index=\"1\"><Value>c</Value>"
      "</ValueStruct></ConfigItem>");
  auto bare = parse("<ConfigItem><Name>L</Name></ConfigItem>");
  XML_NODE* root = nullptr;
  ASSERT_EQ(add("L", current.get(), pending.get(), "Success", 0, &root), EFI_SUCCESS);
  ASSERT_EQ(add("L", bare.get(), pending.get(), "Failure", 0x503, &root), EFI_SUCCESS);
  ASSERT_EQ(add("P", nullptr, nullptr, "Failure", EFI_DEVICE_ERROR, &root), EFI_SUCCESS);
  EXPECT_EQ(childNames(root, true), "Operation[name=CHANGE],Operation[name=CHANGE],Operation[name=CHANGE]");
  EXPECT_EQ(childNames(root->children), "DisplayValue,Name,Detail,Status,ErrorCode");
  EXPECT_EQ(operations(root), (std::vector<std::string>{"L:a|b|c>b&amp;|c|a:Success:0", "L:>:Failure:503", "P:>:Failure:7"}));
  sample().xml()->XML_FreeNode(sample().xml(), root);
  EXPECT_EQ(add("P", nullptr, nullptr, "Failure", EFI_DEVICE_ERROR, nullptr), EFI_INVALID_PARAMETER);

  auto one = parse("<ConfigItem><Name>N</Name><ValueStruct><Value>5</Value></ValueStruct></ConfigItem>");
  const struct {  // variableBytes 0: none
    size_t variableBytes; UINT64 code; bool recorded;
  } restores[] = {{0, 0, true}, {4, 0, false}, {2, 0, false}, {5, 0, true}, {4, 0x301, true}};
  for (const auto& r : restores) {
    platform().setVariable(u"VKR_RESTORE_OP_IN_PROGRESS", gTolvaneVariableGuid, EFI_VARIABLE_BOOTSERVICE_ACCESS,
                           std::vector<uint8_t>(r.variableBytes, 1));
    root = nullptr;
    ASSERT_EQ(add("N", one.get(), one.get(), r.code ? "Failure" : "Success", r.code, &root), EFI_SUCCESS);
    EXPECT_EQ(root != nullptr, r.recorded) << r.variableBytes;
    if (root) sample().xml()->XML_FreeNode(sample().xml(), root);
  }
}

TEST_F(OperationsTest, ErrorMarksAndTheirMessages) {
  auto mark = FN(addErrorNode);
  const std::string kRecord = "<Operation><Name>A</Name><Detail/><Status>Success</Status><ErrorCode>0</ErrorCode></Operation>";
  const struct { std::string document; UINT64 code; std::vector<std::string> records; } cases[] = {
      {kRecord, 0x902, {"A:>:Failure:902"}},
      {kRecord + kRecord, EFI_DEVICE_ERROR, {"A:>:Failure:7", "A:>:Success:0"}},
      {"<Operation><Name>A</Name><Status>Success</Status><ErrorCode>0</ErrorCode></Operation>", 0x901, {"A:>:Success:0"}},
      {"<Operation><Name>A</Name><Detail/><Status/><ErrorCode>0</ErrorCode></Operation>", 0x903, {"A:>::903"}},
  };
  for (const auto& c : cases) {
    auto root = parse("<ConfigResults>" + c.document + "</ConfigResults>");
    XML_NODE* slot = root.get();
    mark("A", c.code, &slot);
    EXPECT_EQ(operations(root.get()), c.records) << c.document;
  }
  const auto* table = static_cast<const ERROR_MESSAGE_ROW*>(symbol("ErrorMessageTable"));
  size_t rows = 0;
  for (; table[rows].Code; ++rows) EXPECT_TRUE(rows == 0 || table[rows].Code > table[rows - 1].Code);
  EXPECT_EQ(rows, 22u);
  EXPECT_EQ(table[rows].Message, nullptr);
  EXPECT_STREQ(FN(errorMessage)(0x503), "OrderedList: Unable to find index.");
  EXPECT_EQ(FN(errorMessage)(0x504), nullptr);
}

}  // namespace
