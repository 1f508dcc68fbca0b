// Node creation, the serialiser, and round trips through the parser. (Every
// test's leak check proves that freeing a tree releases all of it.)
#include <string>

#include "tests/services/xml/xml_support.h"

namespace tvl::test::xml {
namespace {

using XmlTreeTest = XmlServiceTest;

TEST_F(XmlTreeTest, CreateNodeOwnsItsNameAndClearsEveryLink) {
  std::string name = "ConfigItem";
  XML_NODE* node = nullptr;
  sweepAllocationFailures(
      [&] { return xml_->XML_CreateNode(xml_, name.c_str(), &node); },
      [&](EFI_STATUS status, size_t k) { EXPECT_TRUE(status == EFI_OUT_OF_RESOURCES && !node) << "attempt " << k; },
      [&] {
        if (!node) return;
        name[0] = 'X';
        EXPECT_STREQ(node->name, "ConfigItem");
        EXPECT_TRUE(!node->contents && !node->attributes);
        EXPECT_TRUE(!node->parent && !node->children && !node->next && !node->previous);
        xml_->XML_FreeNode(xml_, node);
        node = nullptr, name[0] = 'C';
      });
  EXPECT_EQ(xml_->XML_CreateNode(xml_, nullptr, &node), EFI_INVALID_PARAMETER);
  EXPECT_EQ(xml_->XML_CreateNode(xml_, "a", nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(xml_->XML_FreeNode(xml_, nullptr), EFI_INVALID_PARAMETER);
}

// Compact text without declaration, accepted by xmllint; the root's
// siblings are not written. Contents are escaped text: what is not
// well-formed escaped text is repaired so that the output stays well-formed.
// Trees in the toolbox convention (escaped contents, plain attribute
// values) come back unchanged from parse(serialise(tree)).
TEST_F(XmlTreeTest, WritesWellFormedTextThatParsesBack) {
  const struct { Tree tree; const char* text; bool roundTrip; } cases[] = {  // text null: not compared
      {{"a", {}, {}, {}}, "<a/>", true},
      {{"a", "", {}, {}}, "<a></a>", true},
      {{"r", {}, {{"k", "v"}, {"n", ""}}, {{"c", "t", {}, {}}}}, "<r k=\"v\" n=\"\"><c>t</c></r>", true},
      {{"r", {}, {}, {{"a", {}, {}, {{"b", "1", {}, {}}}}, {"c", "2", {}, {}}}}, "<r><a><b>1</b></a><c>2</c></r>", true},
      {{"v", "a &amp; b &lt;c&gt;", {}, {}}, "<v>a &amp; b &lt;c&gt;</v>", true},
      {{"v", "a & b", {}, {}}, "<v>a &amp; b</v>", false},
      {{"v", "&bogus; &amp &;", {}, {}}, "<v>&amp;bogus; &amp;amp &amp;;</v>", false},
      {{"v", "&#65;&#x42;&quot;&apos;", {}, {}}, "<v>&#65;&#x42;&quot;&apos;</v>", false},
      {{"v", "&#0;&#xD800;&#x110000;&#;", {}, {}}, "<v>&amp;#0;&amp;#xD800;&amp;#x110000;&amp;#;</v>", false},
      {{"v", "x<y>z ]]>", {}, {}}, "<v>x&lt;y&gt;z ]]&gt;</v>", false},
      {{"v", "a\rb\n\tc \"'", {}, {}}, "<v>a&#13;b\n\tc \"'</v>", false},
      {{"a", "a &amp; b &lt;c&gt; \"q\" 'p'", {}, {}}, nullptr, true},
      {{"a", {}, {{"v", "say \"hi\" & <go> 'x'\n\ttab\r\nend"}, {"w", "  two  spaces "}, {"e", ""}}, {}},
       nullptr, true},
      {{"r", {}, {{"FQDD", "NIC.1"}}, {{"a", {}, {}, {{"c", "", {{"k", "&amp;"}}, {}}}}, {"d", {}, {}, {}}}},
       nullptr, true},
      {{"gr\xc3\xb6\xc3\x9f" "e", "\xe2\x82\xac \xf0\x9d\x84\x9e", {{"\xe5\x90\x8d", "\xe5\x80\xa4"}}, {}},
       nullptr, true},
      {{"mixed", "text", {}, {{"c", {}, {}, {}}, {"d", " x ", {}, {}}}}, nullptr, true},
      {{"a", "line1\r\nline2\rline3\n\tend", {}, {}}, nullptr, true},
      {{"a", "]]&gt; &lt;![CDATA[", {}, {}}, nullptr, true},
      {{"leaf", "   ", {}, {}}, nullptr, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    XML_NODE* root = build(c.tree);
    root->next = build(Tree{"notWritten", {}, {}, {}});
    std::string text;
    EXPECT_EQ(serialise(root, &text), EFI_SUCCESS);
    xml_->XML_FreeNode(xml_, root);
    if (c.text) {
      EXPECT_EQ(text, c.text);
    }
    EXPECT_TRUE(xmllintAccepts(text)) << text;
    XML_NODE* parsed = nullptr;
    XML_PARSE_ERROR error{};
    if (!c.roundTrip) continue;
    ASSERT_EQ(parse(text, &parsed, &error), EFI_SUCCESS) << text << "\n" << error.Message;
    EXPECT_EQ(read(parsed), c.tree) << text;
    xml_->XML_FreeNode(xml_, parsed);
  }
}

TEST_F(XmlTreeTest, TreesThatCannotBeWrittenAsXmlAreRefused) {
  const Tree cases[] = {
      {"1a", {}, {}, {}},
      {"", {}, {}, {}},
      {"r", {}, {}, {{"ok", {}, {}, {}}, {"-bad", {}, {}, {}}}},
      {"r", {}, {{"x y", "1"}}, {}},
      {"r", {}, {{"k", "1"}, {"j", "2"}, {"k", "3"}}, {}},
      {"r", "\x01", {}, {}},
      {"r", {}, {{"k", "a\x1f"}}, {}},
      {"r", "\xff", {}, {}},
      {"r", {}, {}, {{"c", "\xed\xa0\x80", {}, {}}}},
  };
  for (const Tree& tree : cases) {
    XML_NODE* root = build(tree);
    CHAR8* text = nullptr;
    EXPECT_EQ(xml_->XML_NodeToXML(xml_, root, &text), EFI_INVALID_PARAMETER) << &tree - cases;
    EXPECT_EQ(text, nullptr) << &tree - cases;
    EXPECT_EQ(xml_->XML_NodeToXML(xml_, root, nullptr), EFI_INVALID_PARAMETER);
    xml_->XML_FreeNode(xml_, root);
  }
  CHAR8* text = nullptr;
  EXPECT_EQ(xml_->XML_NodeToXML(xml_, nullptr, &text), EFI_INVALID_PARAMETER);
}

TEST_F(XmlTreeTest, NodeToXmlSurvivesEveryAllocationFailure) {
  Tree tree{"r", "t &amp; u", {{"a", "\"1\"\n"}, {"b", "2"}}, {}};
  for (int i = 0; i < 40; ++i)
    tree.children.push_back({"item", std::string(i * 3, 'x'), {{"n", std::to_string(i)}}, {{"leaf", {}, {}, {}}}});
  XML_NODE* root = build(tree);
  std::string expected;
  ASSERT_EQ(serialise(root, &expected), EFI_SUCCESS);
  CHAR8* text = nullptr;
  size_t attempts = sweepAllocationFailures(
      [&] {
        text = nullptr;
        return xml_->XML_NodeToXML(xml_, root, &text);
      },
      [&](EFI_STATUS status, size_t k) {
        EXPECT_TRUE(status == EFI_OUT_OF_RESOURCES && !text) << "attempt " << k;
      },
      [&] {
        if (text) {
          EXPECT_EQ(std::string(text), expected);
          bs()->FreePool(text);
        }
      });
  EXPECT_GE(attempts, 3u);  // the output, the open-element stack, the attribute names
  xml_->XML_FreeNode(xml_, root);
}

}  // namespace
}  // namespace tvl::test::xml
