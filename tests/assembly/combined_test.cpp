// Two configuration documents serialised as one, through the converter protocol.
#include <gtest/gtest.h>

#include "support/driver.h"
#include "xml/node.h"

namespace {

using namespace tvl::test;  // DriverTest, statusName

#define TRACE_PREFIX "Tolvane-tvlNodesToCombinedXmlChar: "
constexpr char kEntering[] = TRACE_PREFIX "Entering...\n";

class CombinedTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_NE(xml_ = locate<XML_PROTOCOL>(XML_PROTOCOL_GUID), nullptr);
    first_ = parse("<ConfigData a=\"1\"><Header/><ConfigDataEntry Type=\"PossibleValues\"><X>1</X></ConfigDataEntry>"
                   "<Tail/></ConfigData>");
    second_ = parse("<ConfigData b=\"2\"><ConfigDataEntry Type=\"CurrentValues\"><X>2</X></ConfigDataEntry><More/>"
                    "</ConfigData>");
    ASSERT_TRUE(first_ && second_);
    texts_ = {serialise(first_), serialise(second_)};
    log().clear();
  }
  void TearDown() override {
    for (XML_NODE* tree : {first_, second_})
      if (tree) DRIVER_FN(freeNode)(tree);
    DriverTest::TearDown();
  }

  XML_NODE* parse(const std::string& text) {
    XML_NODE* root = nullptr;
    EXPECT_EQ(xml_->XML_ParseText(xml_, text.c_str(), text.size(), &root, nullptr), EFI_SUCCESS);
    return root;
  }
  std::string serialise(XML_NODE* root) {
    CHAR8* out = nullptr;
    EXPECT_EQ(xml_->XML_NodeToXML(xml_, root, &out), EFI_SUCCESS);
    std::string text = out ? out : "";
    if (out) bs()->FreePool(out);
    return text;
  }
  EFI_STATUS combine(TOLVANE_PROTOCOL* self, XML_NODE* first, XML_NODE* second, CHAR8** text) {
    return converter()->NodesToCombinedXMLChar(self, first, second, text);
  }
  EFI_STATUS combine(CHAR8** text) { return combine(converter(), first_, second_, text); }
  void expectUnchanged() { EXPECT_EQ((std::vector<std::string>{serialise(first_), serialise(second_)}), texts_); }
  // Every trace of the call, in order, all at the failure level.
  std::vector<std::string> traces() {
    std::vector<std::string> texts;
    for (const tvl::test::LogRecord& r : log().from("tvlNodesToCombinedXMLChar")) {
      EXPECT_EQ(r.level, TVL_LEVEL_FAILURE) << r.text;
      texts.push_back(r.text);
    }
    return texts;
  }

  XML_PROTOCOL* xml_ = nullptr;
  XML_NODE* first_ = nullptr;
  XML_NODE* second_ = nullptr;
  std::vector<std::string> texts_;
};

TEST_F(CombinedTest, Refusals) {
  XML_NODE* entryRoot = second_->children;  // a ConfigDataEntry, not a ConfigData
  XML_NODE* noEntry = parse("<ConfigData><Other/></ConfigData>");
  CHAR8* text = nullptr;
  const std::string invalid = TRACE_PREFIX "Invalid starting parameter: Invalid Parameter\n";
  const std::string notConfig = TRACE_PREFIX "possible or current do not point to <ConfigData>\n";
  TOLVANE_PROTOCOL* self = converter();
  const EFI_STATUS bad = EFI_INVALID_PARAMETER;
  struct Case {  // trace: after the entry trace, if any
    TOLVANE_PROTOCOL* self; XML_NODE* first; XML_NODE* second; CHAR8** text; EFI_STATUS status; std::string trace;
  } cases[] = {
      {nullptr, first_, second_, &text, bad, invalid},    {self, nullptr, second_, &text, bad, invalid},
      {self, first_, nullptr, &text, bad, invalid},       {self, first_, second_, nullptr, bad, invalid},
      {self, first_, entryRoot, &text, bad, notConfig},   {self, entryRoot, second_, &text, bad, notConfig},
      {self, first_, noEntry, &text, EFI_NOT_FOUND, ""},  {self, noEntry, second_, &text, EFI_NOT_FOUND, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    log().clear();
    EXPECT_EQ(statusName(combine(c.self, c.first, c.second, c.text)), statusName(c.status));
    EXPECT_EQ(text, nullptr);
    std::vector<std::string> expected = {kEntering, c.trace};
    if (c.trace.empty()) expected.pop_back();
    EXPECT_EQ(traces(), expected);
  }
  expectUnchanged();
  DRIVER_FN(freeNode)(noEntry);
}

TEST_F(CombinedTest, SerialisationFailureRestoresTheLink) {
  // The serialiser refuses an element that carries one attribute name twice.
  XML_NODE* entry = first_->children->next;
  ASSERT_EQ(DRIVER_FN(addAttribute)("Type", "again", &entry), EFI_SUCCESS);
  XML_NODE* tail = entry->next;
  CHAR8* text = nullptr;
  EXPECT_EQ(combine(&text), EFI_INVALID_PARAMETER);
  EXPECT_TRUE(text == nullptr && entry->next == tail);
  EXPECT_EQ(traces(), (std::vector<std::string>{kEntering, TRACE_PREFIX "ERROR XMLProtocol->XML_NodeToXML conversion of "
                                                                        "Node to XML failed. Status:2\n"}));
}

TEST_F(CombinedTest, AllocationFailuresLeaveBothTreesUnchanged) {
  CHAR8* text = nullptr;
  size_t attempts = sweepAllocationFailures(
      [&] { return combine(&text); },
      [&](EFI_STATUS status, size_t k) { EXPECT_TRUE(status == EFI_OUT_OF_RESOURCES && !text) << k; },
      [&] { text = text && bs()->FreePool(text) == EFI_SUCCESS ? nullptr : text; });
  EXPECT_GT(attempts, 0u);
  expectUnchanged();
}

}  // namespace
