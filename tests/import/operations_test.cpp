// The import's operations that its whole runs do not reach: the bounds of
// a request segment and the restore trigger. (Node comparison, block names,
// commit indexes, partitions and error marks: through NodeToHii, the
// commit-order comparison, the save and the password entry.)
#include <gtest/gtest.h>

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

// A success that changes nothing is recorded only while the restore trigger
// (a variable that fits in four bytes) is unset. (The records themselves:
// the firmware applies' results and the import's tests.)
TEST_F(OperationsTest, TheRestoreTriggerDropsUnchangedSuccesses) {
  auto add = FN(addStatusNode);
  EXPECT_EQ(add("P", nullptr, nullptr, "Failure", EFI_DEVICE_ERROR, nullptr), EFI_INVALID_PARAMETER);
  auto one = parse("<ConfigItem><Name>N</Name><ValueStruct><Value>5</Value></ValueStruct></ConfigItem>");
  const struct {  // variableBytes 0: none
    size_t variableBytes; UINT64 code; bool recorded;
  } restores[] = {{0, 0, true}, {4, 0, false}, {2, 0, false}, {5, 0, true}, {4, 0x301, true}};
  for (const auto& r : restores) {
    platform().setVariable(u"VKR_RESTORE_OP_IN_PROGRESS", gTolvaneVariableGuid, EFI_VARIABLE_BOOTSERVICE_ACCESS,
                           std::vector<uint8_t>(r.variableBytes, 1));
    XML_NODE* root = nullptr;
    ASSERT_EQ(add("N", one.get(), one.get(), r.code ? "Failure" : "Success", r.code, &root), EFI_SUCCESS);
    EXPECT_EQ(root != nullptr, r.recorded) << r.variableBytes;
    if (root) sample().xml()->XML_FreeNode(sample().xml(), root);
  }
}

}  // namespace
