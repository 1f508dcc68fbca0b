// The combined document: two configuration documents serialised as one,
// through the converter protocol's slot.
#include <gtest/gtest.h>

#include <string>

#include "support/driver.h"
#include "xml/node.h"

namespace {

using tvl::test::DriverTest;
using tvl::test::statusName;

constexpr char kFunction[] = "tvlNodesToCombinedXMLChar";
constexpr char kEntering[] = "Tolvane-tvlNodesToCombinedXmlChar: Entering...\n";

constexpr char kPossible[] =
    "<ConfigData a=\"1\"><Header/><ConfigDataEntry Type=\"PossibleValues\"><X>1</X></ConfigDataEntry>"
    "<Tail/></ConfigData>";
constexpr char kCurrent[] =
    "<ConfigData b=\"2\"><ConfigDataEntry Type=\"CurrentValues\"><X>2</X></ConfigDataEntry><More/></ConfigData>";

class CombinedTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    if (HasFatalFailure()) return;
    xml_ = locate<XML_PROTOCOL>(XML_PROTOCOL_GUID);
    ASSERT_NE(xml_, nullptr);
    first_ = parse(kPossible);
    second_ = parse(kCurrent);
    ASSERT_TRUE(first_ && second_);
    firstText_ = serialise(first_);
    secondText_ = serialise(second_);
    log().clear();
  }
  void TearDown() override {
    if (first_) DRIVER_FN(freeNode)(first_);
    if (second_) DRIVER_FN(freeNode)(second_);
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
  // Both trees exactly as they were parsed.
  void expectUnchanged() {
    EXPECT_EQ(serialise(first_), firstText_);
    EXPECT_EQ(serialise(second_), secondText_);
  }
  // Every trace of the call, in order, all at the failure level.
  std::vector<std::string> traces() {
    std::vector<std::string> texts;
    for (const tvl::test::LogRecord& r : log().from(kFunction)) {
      EXPECT_EQ(r.level, TVL_LEVEL_FAILURE) << r.text;
      texts.push_back(r.text);
    }
    return texts;
  }

  XML_PROTOCOL* xml_ = nullptr;
  XML_NODE* first_ = nullptr;
  XML_NODE* second_ = nullptr;
  std::string firstText_;
  std::string secondText_;
};

TEST_F(CombinedTest, OneRootWithBothEntriesFirstTreeFirst) {
  CHAR8* text = nullptr;
  ASSERT_EQ(combine(converter(), first_, second_, &text), EFI_SUCCESS);
  ASSERT_NE(text, nullptr);
  EXPECT_STREQ(text,
               "<ConfigData a=\"1\"><Header/><ConfigDataEntry Type=\"PossibleValues\"><X>1</X></ConfigDataEntry>"
               "<ConfigDataEntry Type=\"CurrentValues\"><X>2</X></ConfigDataEntry><More/></ConfigData>");
  bs()->FreePool(text);
  expectUnchanged();
  EXPECT_EQ(traces(), std::vector<std::string>{kEntering});
}

TEST_F(CombinedTest, Refusals) {
  XML_NODE* entryRoot = second_->children;  // a ConfigDataEntry, not a ConfigData
  XML_NODE* noEntry = parse("<ConfigData><Other/></ConfigData>");
  CHAR8* text = nullptr;
  const std::string invalid = "Tolvane-tvlNodesToCombinedXmlChar: Invalid starting parameter: Invalid Parameter\n";
  const std::string notConfigData =
      "Tolvane-tvlNodesToCombinedXmlChar: possible or current do not point to <ConfigData>\n";
  TOLVANE_PROTOCOL* self = converter();
  struct Case {
    TOLVANE_PROTOCOL* self;
    XML_NODE* first;
    XML_NODE* second;
    CHAR8** text;
    EFI_STATUS status;
    std::string trace;  // after the entry trace, if any
  } cases[] = {
      {nullptr, first_, second_, &text, EFI_INVALID_PARAMETER, invalid},
      {self, nullptr, second_, &text, EFI_INVALID_PARAMETER, invalid},
      {self, first_, nullptr, &text, EFI_INVALID_PARAMETER, invalid},
      {self, first_, second_, nullptr, EFI_INVALID_PARAMETER, invalid},
      {self, first_, entryRoot, &text, EFI_INVALID_PARAMETER, notConfigData},
      {self, entryRoot, second_, &text, EFI_INVALID_PARAMETER, notConfigData},
      {self, first_, noEntry, &text, EFI_NOT_FOUND, ""},
      {self, noEntry, second_, &text, EFI_NOT_FOUND, ""},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    const Case& c = cases[i];
    log().clear();
    EXPECT_EQ(statusName(combine(c.self, c.first, c.second, c.text)), statusName(c.status)) << "case " << i;
    EXPECT_EQ(text, nullptr) << "case " << i;
    std::vector<std::string> expected = {kEntering};
    if (!c.trace.empty()) expected.push_back(c.trace);
    EXPECT_EQ(traces(), expected) << "case " << i;
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
  EXPECT_EQ(combine(converter(), first_, second_, &text), EFI_INVALID_PARAMETER);
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(entry->next, tail);
  EXPECT_EQ(traces(), (std::vector<std::string>{kEntering,
                                                "Tolvane-tvlNodesToCombinedXmlChar: ERROR XMLProtocol->XML_NodeToXML "
                                                "conversion of Node to XML failed. Status:2\n"}));
}

TEST_F(CombinedTest, AllocationFailuresLeaveBothTreesUnchanged) {
  CHAR8* text = nullptr;
  size_t attempts = sweepAllocationFailures(
      [&] { return combine(converter(), first_, second_, &text); },
      [&](EFI_STATUS status, size_t k) {
        EXPECT_EQ(status, EFI_OUT_OF_RESOURCES) << k;
        EXPECT_EQ(text, nullptr) << k;
      },
      [&] {
        if (text) bs()->FreePool(text);
        text = nullptr;
      });
  EXPECT_GT(attempts, 0u);
  expectUnchanged();
}

}  // namespace
