// Node creation and release, the serialiser, and round trips through the
// parser.
#include <string>

#include "tests/services/xml/xml_support.h"

namespace tvl::test::xml {
namespace {

using XmlTreeTest = XmlServiceTest;

TEST_F(XmlTreeTest, CreateNodeOwnsItsNameAndClearsEveryLink) {
  std::string name = "ConfigItem";
  XML_NODE* node = nullptr;
  ASSERT_EQ(xml_->XML_CreateNode(xml_, name.c_str(), &node), EFI_SUCCESS);
  name[0] = 'X';
  EXPECT_STREQ(node->name, "ConfigItem");
  EXPECT_EQ(node->contents, nullptr);
  EXPECT_EQ(node->attributes, nullptr);
  EXPECT_EQ(node->parent, nullptr);
  EXPECT_EQ(node->children, nullptr);
  EXPECT_EQ(node->next, nullptr);
  EXPECT_EQ(node->previous, nullptr);
  EXPECT_EQ(xml_->XML_FreeNode(xml_, node), EFI_SUCCESS);

  EXPECT_EQ(xml_->XML_CreateNode(xml_, nullptr, &node), EFI_INVALID_PARAMETER);
  EXPECT_EQ(xml_->XML_CreateNode(xml_, "a", nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(xml_->XML_FreeNode(xml_, nullptr), EFI_INVALID_PARAMETER);
}

TEST_F(XmlTreeTest, CreateNodeSurvivesEveryAllocationFailure) {
  XML_NODE* node = nullptr;
  size_t attempts = sweepAllocationFailures(
      [&] {
        node = reinterpret_cast<XML_NODE*>(1);
        return xml_->XML_CreateNode(xml_, "Setting", &node);
      },
      [&](EFI_STATUS status, size_t k) {
        EXPECT_EQ(status, EFI_OUT_OF_RESOURCES) << "attempt " << k;
        EXPECT_EQ(node, reinterpret_cast<XML_NODE*>(1)) << "out written on failure, attempt " << k;
      },
      [&] {
        if (node != reinterpret_cast<XML_NODE*>(1)) xml_->XML_FreeNode(xml_, node);
      });
  EXPECT_EQ(attempts, 2u);
}

// The driver hangs its own pool texts and attribute records on service
// nodes; freeing the root releases all of them, the root's following
// siblings included (the leak check at the end of the test proves it).
TEST_F(XmlTreeTest, FreeNodeReleasesDriverAllocationsAndFollowingSiblings) {
  Tree tree{"r", "t", {{"a", "1"}, {"b", "2"}}, {{"c", "&amp;", {{"x", "y"}}, {{"d", "", {}, {}}}}, {"e", {}, {}, {}}}};
  XML_NODE* root = build(tree);
  root->next = build(Tree{"sibling", "s", {{"k", "v"}}, {{"child", {}, {}, {}}}});
  EXPECT_EQ(xml_->XML_FreeNode(xml_, root), EFI_SUCCESS);
}

TEST_F(XmlTreeTest, WritesCompactTextWithoutDeclaration) {
  struct Case {
    Tree tree;
    const char* text;
  } cases[] = {
      {{"a", {}, {}, {}}, "<a/>"},
      {{"a", "", {}, {}}, "<a></a>"},
      {{"r", {}, {{"k", "v"}, {"n", ""}}, {{"c", "t", {}, {}}}}, "<r k=\"v\" n=\"\"><c>t</c></r>"},
      {{"r", "x", {}, {{"c", {}, {}, {}}, {"d", {}, {}, {}}}}, "<r>x<c/><d/></r>"},
      {{"r", {}, {}, {{"a", {}, {}, {{"b", "1", {}, {}}}}, {"c", "2", {}, {}}}}, "<r><a><b>1</b></a><c>2</c></r>"},
  };
  for (const Case& c : cases) {
    XML_NODE* root = build(c.tree);
    root->next = build(Tree{"notWritten", {}, {}, {}});
    std::string text;
    EXPECT_EQ(serialise(root, &text), EFI_SUCCESS);
    EXPECT_EQ(text, c.text);
    xml_->XML_FreeNode(xml_, root);
  }
}

// Contents are escaped text; what is not well-formed escaped text is
// repaired so that the output stays well-formed.
TEST_F(XmlTreeTest, ContentsAreWrittenAsWellFormedEscapedText) {
  struct Case {
    const char* contents;
    const char* written;
  } cases[] = {
      {"a &amp; b &lt;c&gt;", "a &amp; b &lt;c&gt;"},
      {"a & b", "a &amp; b"},
      {"&bogus; &amp &;", "&amp;bogus; &amp;amp &amp;;"},
      {"&#65;&#x42;&quot;&apos;", "&#65;&#x42;&quot;&apos;"},
      {"&#0;&#xD800;&#x110000;&#;", "&amp;#0;&amp;#xD800;&amp;#x110000;&amp;#;"},
      {"x<y>z", "x&lt;y&gt;z"},
      {"]]>", "]]&gt;"},
      {"a\rb\n\tc \"'", "a&#13;b\n\tc \"'"},
      {"\xc3\xa9\xe2\x82\xac\xf0\x9d\x84\x9e", "\xc3\xa9\xe2\x82\xac\xf0\x9d\x84\x9e"},
  };
  for (const Case& c : cases) {
    XML_NODE* root = build(Tree{"v", c.contents, {}, {}});
    std::string text;
    ASSERT_EQ(serialise(root, &text), EFI_SUCCESS) << c.contents;
    EXPECT_EQ(text, std::string("<v>") + c.written + "</v>");
    LintResult lint = xmllint(text);
    EXPECT_EQ(lint.status, 0) << text << "\n" << lint.output;
    xml_->XML_FreeNode(xml_, root);
  }
}

TEST_F(XmlTreeTest, TreesThatCannotBeWrittenAsXmlAreRefused) {
  const Tree cases[] = {
      {"1a", {}, {}, {}},
      {"", {}, {}, {}},
      {"a b", {}, {}, {}},
      {"a<b", {}, {}, {}},
      {"r", {}, {}, {{"ok", {}, {}, {}}, {"-bad", {}, {}, {}}}},
      {"r", {}, {{"x y", "1"}}, {}},
      {"r", {}, {{"k", "1"}, {"j", "2"}, {"k", "3"}}, {}},
      {"r", "\x01", {}, {}},
      {"r", {}, {{"k", "a\x1f"}}, {}},
      {"r", "\xff", {}, {}},
      {"r", "\xc0\x80", {}, {}},
      {"r", "\xef\xbf\xbe", {}, {}},
      {"r", {}, {}, {{"c", "\xed\xa0\x80", {}, {}}}},
  };
  for (const Tree& tree : cases) {
    XML_NODE* root = build(tree);
    CHAR8* text = reinterpret_cast<CHAR8*>(1);
    EXPECT_EQ(xml_->XML_NodeToXML(xml_, root, &text), EFI_INVALID_PARAMETER) << tree;
    EXPECT_EQ(text, reinterpret_cast<CHAR8*>(1)) << tree;
    xml_->XML_FreeNode(xml_, root);
  }
  XML_NODE* root = build(Tree{"a", {}, {}, {}});
  CHAR8* text = nullptr;
  EXPECT_EQ(xml_->XML_NodeToXML(xml_, nullptr, &text), EFI_INVALID_PARAMETER);
  EXPECT_EQ(xml_->XML_NodeToXML(xml_, root, nullptr), EFI_INVALID_PARAMETER);
  xml_->XML_FreeNode(xml_, root);
}

// Trees in the toolbox convention (escaped contents, plain attribute
// values) come back unchanged from parse(serialise(tree)), and xmllint
// accepts every text.
TEST_F(XmlTreeTest, RoundTripsThroughTheParser) {
  const Tree cases[] = {
      {"a", "x", {}, {}},
      {"a", "a &amp; b &lt;c&gt; \"q\" 'p'", {}, {}},
      {"a", {}, {{"v", "say \"hi\" & <go> 'x'\n\ttab\r\nend"}, {"w", "  two  spaces "}, {"e", ""}}, {}},
      {"r",
       {},
       {{"FQDD", "NIC.Slot.1-1"}},
       {{"a", {}, {}, {{"b", "1", {}, {}}, {"c", "", {{"k", "&amp;"}}, {}}}}, {"d", {}, {}, {}}, {"e", "2", {}, {}}}},
      {"gr\xc3\xb6\xc3\x9f" "e", "\xe2\x82\xac \xf0\x9d\x84\x9e", {{"\xe5\x90\x8d", "\xe5\x80\xa4"}}, {}},
      {"mixed", "text", {}, {{"c", {}, {}, {}}, {"d", " x ", {}, {}}}},
      {"a", "line1\r\nline2\rline3\n\tend", {}, {}},
      {"a", "]]&gt; &lt;![CDATA[", {}, {}},
      {"leaf", "   ", {}, {}},
  };
  for (const Tree& tree : cases) {
    XML_NODE* root = build(tree);
    std::string text;
    ASSERT_EQ(serialise(root, &text), EFI_SUCCESS) << tree;
    LintResult lint = xmllint(text);
    EXPECT_EQ(lint.status, 0) << text << "\n" << lint.output;
    EXPECT_EQ(lint.output, "");
    XML_NODE* parsed = nullptr;
    XML_PARSE_ERROR error{};
    ASSERT_EQ(parse(text, &parsed, &error), EFI_SUCCESS) << text << "\n" << error.Message;
    EXPECT_EQ(read(parsed), tree) << text;
    xml_->XML_FreeNode(xml_, parsed);
    xml_->XML_FreeNode(xml_, root);
  }
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
        EXPECT_EQ(status, EFI_OUT_OF_RESOURCES) << "attempt " << k;
        EXPECT_EQ(text, nullptr) << "attempt " << k;
      },
      [&] {
        if (text) {
          EXPECT_EQ(std::string(text), expected);
          bs()->FreePool(text);
        }
      });
  EXPECT_GT(attempts, 3u);  // output growth, open-element stack, attribute names
  xml_->XML_FreeNode(xml_, root);
}

}  // namespace
}  // namespace tvl::test::xml
