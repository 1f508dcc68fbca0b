// The XML service: the parser (what it accepts, what it refuses and where,
// its limits, large and deep documents, allocation failures) and the serialiser.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/fixture.h"
#include "uefi/services.h"

namespace tvl::test::xml {
namespace {

struct Tree {
  std::string name;
  std::optional<std::string> contents = {};
  std::vector<std::pair<std::string, std::string>> attributes = {};
  std::vector<Tree> children = {};
};
bool operator==(const Tree& a, const Tree& b) {
  return std::tie(a.name, a.contents, a.attributes, a.children) == std::tie(b.name, b.contents, b.attributes, b.children);
}

std::string repeat(const std::string& s, size_t n) {
  std::string out;
  while (n--) out += s;
  return out;
}

XML_NODE* const kUntouched = reinterpret_cast<XML_NODE*>(0x5a5a);

class XmlServiceTest : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    load("xml_service");
    xml_ = locate<XML_PROTOCOL>(XML_PROTOCOL_GUID);
    ASSERT_NE(xml_, nullptr);
    markBaseline();  // the service instance stays installed
  }

  // Nodes from the service; contents and attributes from the pool, as the driver builds them.
  XML_NODE* build(const Tree& tree) {
    XML_NODE* node = nullptr;
    EXPECT_EQ(xml_->XML_CreateNode(xml_, tree.name.c_str(), &node), EFI_SUCCESS);
    if (tree.contents) node->contents = poolText(*tree.contents);
    XML_ATTRIBUTE** tail = &node->attributes;
    for (const auto& [name, value] : tree.attributes) {
      void* buffer = nullptr;
      EXPECT_EQ(bs()->AllocatePool(EfiBootServicesData, sizeof(XML_ATTRIBUTE), &buffer), EFI_SUCCESS);
      *tail = static_cast<XML_ATTRIBUTE*>(buffer);
      **tail = XML_ATTRIBUTE{poolText(name), poolText(value), nullptr, 0};
      tail = &(*tail)->next;
    }
    XML_NODE* last = nullptr;
    for (const Tree& child : tree.children) {
      XML_NODE* built = build(child);
      built->parent = node;
      (last ? last->next : node->children) = built;
      last = built;
    }
    return node;
  }
  // Reads a tree back (recursive: small trees only), checking the links.
  Tree read(const XML_NODE* node) {
    Tree tree{node->name, std::nullopt};
    if (node->contents) tree.contents = node->contents;
    for (const XML_ATTRIBUTE* a = node->attributes; a; a = a->next) tree.attributes.emplace_back(a->name, a->value);
    for (const XML_NODE* child = node->children; child; child = child->next) {
      EXPECT_EQ(child->parent, node) << "parent link of <" << child->name << ">";
      EXPECT_EQ(child->previous, nullptr);
      tree.children.push_back(read(child));
    }
    return tree;
  }
  // NodeToXML, with the text copied out and released.
  EFI_STATUS serialise(XML_NODE* root, std::string* text) {
    CHAR8* out = nullptr;
    EFI_STATUS status = xml_->XML_NodeToXML(xml_, root, &out);
    if (status == EFI_SUCCESS) *text = out, bs()->FreePool(out);
    return status;
  }
  EFI_STATUS parse(const std::string& text, XML_NODE** root, XML_PARSE_ERROR* error = nullptr) {
    return xml_->XML_ParseText(xml_, text.data(), text.size(), root, error);
  }

  XML_PROTOCOL* xml_ = nullptr;
};

using XmlParseTest = XmlServiceTest;
using XmlTreeTest = XmlServiceTest;

TEST_F(XmlParseTest, AcceptedDocumentsBecomeTreesWithEscapedContents) {
  const struct { std::string text; Tree tree; } cases[] = {
      {"<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n<!-- c --><?pi data?>\n<r/>\n<!--x--><?p?>\n",
       {"r"}},
      {"\xEF\xBB\xBF<r>x</r>", {"r", "x"}},
      {"<a>x &amp; y &lt; &gt; &quot; &apos; &#65;&#x42;&#xe9;</a>", {"a", "x &amp; y &lt; &gt; \" ' AB\xc3\xa9"}},
      {"<a>1<![CDATA[<b>&amp;]]>2</a>", {"a", "1&lt;b&gt;&amp;amp;2"}},
      {"<r>\n  <a>1</a>\n  <b/>\n</r>", {"r", {}, {}, {{"a", "1"}, {"b"}}}},
      {"<r>one<a/>two <!--c--> three<b/>  </r>", {"r", "onetwo  three", {}, {{"a"}, {"b"}}}},
      {"<r><a/><![CDATA[ ]]></r>", {"r", " ", {}, {{"a"}}}},
      {"<r><a>  </a><b></b><c/></r>", {"r", {}, {}, {{"a", "  "}, {"b", ""}, {"c"}}}},
      {"<a x='1' y = \"a&amp;b&lt;&quot;'\" z=\"l1\nl2\tt\r\nu\" w=\"&#10;&#9;&#13;\"/>",
       {"a", {}, {{"x", "1"}, {"y", "a&b<\"'"}, {"z", "l1 l2 t u"}, {"w", "\n\t\r"}}}},
      {"<a>1\r\n2\r3</a>", {"a", "1\n2\n3"}},
      {"<ns:a b.c-d_e=\"1\"><\xc3\xa9/></ns:a >", {"ns:a", {}, {{"b.c-d_e", "1"}}, {{"\xc3\xa9"}}}},
      {"<a>]]]&gt;]></a>", {"a", "]]]&gt;]&gt;"}},
  };
  for (const auto& c : cases) {
    XML_NODE* root = nullptr;
    XML_PARSE_ERROR error{};
    ASSERT_EQ(parse(c.text, &root, &error), EFI_SUCCESS) << c.text << "\n" << error.Message;
    EXPECT_TRUE(!root->parent && !root->next);
    EXPECT_EQ(read(root), c.tree) << c.text;
    xml_->XML_FreeNode(xml_, root);
  }
}

TEST_F(XmlParseTest, MalformedAndHostileTextsAreRefusedWithTheirPosition) {
  // Enough attributes for the set of their names to grow three times.
  std::string many;
  for (int i = 0; i < 40; ++i) many += " a" + std::to_string(i) + "=\"\"";
  struct Case {  // size: the bytes given, when fewer; the rest must not be read
    std::string text; UINTN line, column; const char* message; size_t size = std::string::npos;
  } cases[] = {
      {"<r>\n  <a>\n  </b>\n</r>", 3, 3, "mismatched end tag: expected </a>, found </b>"},
      {"<a>", 1, 4, "end of text inside element <a>"},
      {"<a x=1/>", 1, 6, "not quoted"},
      {"<a x=\"1\" x=\"2\"/>", 1, 10, "duplicate attribute x"},
      {"<a" + many + " a0=\"\"/>", 1, many.size() + 4, "duplicate attribute a0"},
      {"<a x=\"<\"/>", 1, 7, "'<' is not allowed in an attribute value"},
      {"<a x=\"&bad;\"/>", 1, 7, "undefined entity &bad;"},
      {"<a>&amp;</a>", 1, 4, "does not start a reference", 7},
      {"<1a/>", 1, 2, "invalid element name"},
      {"<a></a>\ntext", 2, 1, "content after the root element"},
      {"", 1, 1, "no root element"},
      {"<!DOCTYPE a [<!ENTITY e \"x\">]><a>&e;</a>", 1, 1, "document type"},
      {"<a>&#0;</a>", 1, 4, "not an allowed XML character"},
      {"<a>x&#99999999999999999999;</a>", 1, 5, "not an allowed XML character"},
      {"<a>]]></a>", 1, 4, "']]>' is not allowed"},
      {"<a><!-- x</a>", 1, 4, "unclosed comment"},
      {"<a><!-- x -- y --></a>", 1, 11, "'--' is not allowed inside a comment"},
      {"<!-- x\n y --->\n<a/>", 2, 4, "'--' is not allowed inside a comment"},  // before the root, "--->"
      {"<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><a/>", 1, 31, "unsupported encoding"},
      {std::string("<a>\0</a>", 8), 1, 4, "NUL byte"},
      {"<a>\n\xc0\x80</a>", 2, 1, "invalid UTF-8"},
      {"<a>\xe2\x82</a>", 1, 4, "invalid UTF-8"},
      {"<a>x\x80</a>", 1, 5, "invalid UTF-8"},                  // a continuation byte on its own
      {"<a b=\"\xc3\xa9\xbf\"/>", 1, 9, "invalid UTF-8"},  // one too many after a complete sequence
      {"<a>\x01</a>", 1, 4, "U+0001 is not allowed"},
      {repeat("<a>", 257) + repeat("</a>", 257), 1, 769, "deeper than 256 levels"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const UINTN size = std::min(c.size, c.text.size());
    XML_NODE* root = kUntouched;
    XML_PARSE_ERROR error{};
    EXPECT_EQ(xml_->XML_ParseText(xml_, c.text.data(), size, &root, &error), EFI_INVALID_PARAMETER);
    EXPECT_TRUE(error.Line == c.line && error.Column == c.column) << error.Line << ":" << error.Column;
    const std::string message = error.Message;
    EXPECT_EQ(message.rfind("line " + std::to_string(c.line) + ", column " + std::to_string(c.column) + ": ", 0), 0u)
        << message;
    EXPECT_NE(message.find(c.message), std::string::npos) << message;
    EXPECT_EQ(xml_->XML_ParseText(xml_, c.text.data(), size, &root, nullptr), EFI_INVALID_PARAMETER)
        << "the error record is optional";
    EXPECT_EQ(root, kUntouched);
  }
  std::string text = "<a/>";
  XML_NODE* root = kUntouched;
  EXPECT_EQ(xml_->XML_ParseText(nullptr, text.data(), text.size(), &root, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(xml_->XML_ParseText(xml_, nullptr, 4, &root, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(root, kUntouched);
  EXPECT_EQ(xml_->XML_ParseText(xml_, text.data(), text.size(), nullptr, nullptr), EFI_INVALID_PARAMETER);
}

// Long runs are checked several bytes at a time: a forbidden byte is found
// wherever it sits, and the edges of the printable range pass.
TEST_F(XmlParseTest, EveryPositionInALongRunIsChecked) {
  const struct { std::string byte; const char* message; } cases[] = {  // message null: accepted
      {std::string(1, '\0'), "NUL byte"}, {"\x1f", "U+001f is not allowed"}, {"\x80", "invalid UTF-8"},
      {" ", nullptr}, {"\x7f", nullptr}, {"\t", nullptr}, {"\xc3\xa9", nullptr}};
  for (const auto& c : cases) {
    for (size_t offset = 0; offset < 20; ++offset) {
      std::string run(24, 'x');
      run.replace(offset, 1, c.byte);
      XML_NODE* root = nullptr;
      XML_PARSE_ERROR error{};
      EFI_STATUS status = parse("<a>" + run + "</a>", &root, &error);
      if (!c.message) {
        EXPECT_EQ(status, EFI_SUCCESS) << offset << ": " << error.Message;
        if (root) xml_->XML_FreeNode(xml_, root);
        continue;
      }
      EXPECT_EQ(status, EFI_INVALID_PARAMETER) << offset;
      EXPECT_EQ(error.Offset, 3 + offset) << c.message;
      EXPECT_NE(std::string(error.Message).find(c.message), std::string::npos) << error.Message;
    }
  }
}

// (The depth limit: the malformed texts.)
TEST_F(XmlParseTest, InputBeyondTheByteLimitIsRefused) {
  const XML_LIMITS limits{256, 10};
  ASSERT_EQ(xml_->XML_SetLimits(xml_, &limits), EFI_SUCCESS);
  XML_NODE* root = kUntouched;
  XML_PARSE_ERROR error{};
  EXPECT_EQ(parse("<a>1234</a>", &root, &error), EFI_BAD_BUFFER_SIZE);
  EXPECT_TRUE(root == kUntouched && error.Offset == 10) << error.Message;
  ASSERT_EQ(parse("<a>123</a>", &root), EFI_SUCCESS);
  xml_->XML_FreeNode(xml_, root);
}

// 100,000 siblings: parsed, written back unchanged and freed.
TEST_F(XmlParseTest, HundredThousandSiblings) {
  constexpr size_t kCount = 100000;
  XML_LIMITS limits{256, 64u * 1024 * 1024};
  ASSERT_EQ(xml_->XML_SetLimits(xml_, &limits), EFI_SUCCESS);
  const std::string wide = "<r>" + repeat("<i k=\"v\">t &amp; u</i>", kCount) + "</r>";
  XML_NODE* root = nullptr;
  ASSERT_EQ(parse(wide, &root), EFI_SUCCESS);
  size_t count = 0;  // up to the first sibling that differs
  for (XML_NODE* n = root->children; n && n->parent == root && std::string(n->contents) == "t &amp; u"; n = n->next)
    ++count;
  EXPECT_EQ(count, kCount);
  std::string written;
  EXPECT_EQ(serialise(root, &written), EFI_SUCCESS);
  EXPECT_EQ(written, wide);
  EXPECT_EQ(xml_->XML_FreeNode(xml_, root), EFI_SUCCESS);
}

TEST_F(XmlParseTest, ParseSurvivesEveryAllocationFailure) {
  std::string text =
      "<?xml version=\"1.0\"?>\n<ConfigData a=\"1\" b=\"x &amp; y\">\n"
      "  <Entry FQDD=\"NIC.1\"><![CDATA[<raw>]]>text &lt; more<Item/><Item k='v'>v</Item></Entry>\n";
  for (int i = 0; i < 50; ++i) text += "  <Item n=\"" + std::to_string(i) + "\">" + std::string(i * 2, 'z') + "</Item>\n";
  text += "</ConfigData>\n";
  XML_NODE* root = nullptr;
  XML_PARSE_ERROR error{};
  size_t attempts = sweepAllocationFailures(
      [&] { return root = kUntouched, parse(text, &root, &error); },
      [&](EFI_STATUS status, size_t k) {
        EXPECT_TRUE(status == EFI_OUT_OF_RESOURCES && root == kUntouched) << "attempt " << k;
        EXPECT_NE(std::string(error.Message).find("out of memory"), std::string::npos) << error.Message;
      },
      [&] {
        if (root != kUntouched) xml_->XML_FreeNode(xml_, root);
      });
  EXPECT_GT(attempts, 150u);  // every node, name, attribute and text
}

// Compact text without the root's siblings; contents are escaped text,
// repaired where they are not; round trips where marked.
TEST_F(XmlTreeTest, WritesWellFormedTextThatParsesBack) {
  const struct { Tree tree; const char* text; bool roundTrip; } cases[] = {  // text null: not compared
      {{"a"}, "<a/>", true},
      {{"a", ""}, "<a></a>", true},
      {{"r", {}, {{"k", "v"}, {"n", ""}}, {{"a", {}, {}, {{"b", "1"}}}, {"c", "t"}}},
       "<r k=\"v\" n=\"\"><a><b>1</b></a><c>t</c></r>", true},
      {{"v", "a &amp; b &lt;c&gt;"}, "<v>a &amp; b &lt;c&gt;</v>", true},
      {{"v", "a & b"}, "<v>a &amp; b</v>", false},
      {{"v", "&bogus; &amp &;"}, "<v>&amp;bogus; &amp;amp &amp;;</v>", false},
      {{"v", "&#65;&#x42;&quot;&apos;"}, "<v>&#65;&#x42;&quot;&apos;</v>", false},
      {{"v", "&#0;&#xD800;&#x110000;&#;"}, "<v>&amp;#0;&amp;#xD800;&amp;#x110000;&amp;#;</v>", false},
      {{"v", "x<y>z ]]>"}, "<v>x&lt;y&gt;z ]]&gt;</v>", false},
      {{"v", "a\rb\n\tc \"'"}, "<v>a&#13;b\n\tc \"'</v>", false},
      {{"a", {}, {{"v", "say \"hi\" & <go> 'x'\n\ttab\r\nend"}, {"w", "  two  spaces "}, {"e", ""}}},
       nullptr, true},
      {{"gr\xc3\xb6\xc3\x9f" "e", "\xe2\x82\xac \xf0\x9d\x84\x9e", {{"\xe5\x90\x8d", "\xe5\x80\xa4"}}}, nullptr, true},
      {{"mixed", "text", {}, {{"c"}, {"d", " x "}}}, nullptr, true},
      {{"many", {}, {{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d", "4"}, {"e", "5"}, {"f", "6"}, {"g", "7"}, {"h", "8"},
                     {"i", "9"}, {"aa", "10"}}}, nullptr, true},
      // Longer than the writer's first pieces of memory, one run longer than the piece after it.
      {{"long", std::string(3000, 'x'), {{"k", std::string(20000, 'y')}}, {{"c", std::string(5000, 'z')}}}, nullptr,
       true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    XML_NODE* root = build(c.tree);
    root->next = build(Tree{"notWritten"});
    std::string text;
    EXPECT_EQ(serialise(root, &text), EFI_SUCCESS);
    xml_->XML_FreeNode(xml_, root);
    if (c.text) { EXPECT_EQ(text, c.text); }
    if (!c.roundTrip) continue;
    XML_NODE* parsed = nullptr;
    XML_PARSE_ERROR error{};
    ASSERT_EQ(parse(text, &parsed, &error), EFI_SUCCESS) << text << "\n" << error.Message;
    EXPECT_EQ(read(parsed), c.tree) << text;
    xml_->XML_FreeNode(xml_, parsed);
  }
}

TEST_F(XmlTreeTest, SerialiseSurvivesEveryAllocationFailure) {
  Tree tree{"r", {}, {{"k", std::string(20000, 'y')}}};
  for (int i = 0; i < 300; ++i) tree.children.push_back({"c", std::string(size_t(i), 'x')});
  XML_NODE* root = build(tree);
  CHAR8* text = nullptr;
  const size_t attempts = sweepAllocationFailures(
      [&] { return text = nullptr, xml_->XML_NodeToXML(xml_, root, &text); },
      [&](EFI_STATUS status, size_t k) { EXPECT_TRUE(status == EFI_OUT_OF_RESOURCES && !text) << "attempt " << k; },
      [&] {
        if (text) bs()->FreePool(text);
      });
  EXPECT_GE(attempts, 5u);  // the pieces of a 65 KB text, the text itself, the writer's stack
  xml_->XML_FreeNode(xml_, root);
}

TEST_F(XmlTreeTest, TreesThatCannotBeWrittenAsXmlAndMissingArgumentsAreRefused) {
  const Tree cases[] = {
      {"1a"}, {""}, {"r", {}, {}, {{"ok"}, {"-bad"}}}, {"r", {}, {{"x y", "1"}}}, {"r", "\x01"}, {"r", "\xff"},
      {"r", {}, {{"k", "1"}, {"j", "2"}, {"k", "3"}}}, {"r", {}, {{"k", "a\x1f"}}},
      {"r", {}, {}, {{"c", "\xed\xa0\x80"}}},
      {"r", {}, {{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d", "4"}, {"e", "5"}, {"f", "6"}, {"g", "7"}, {"h", "8"},
                 {"i", "9"}, {"b", "10"}}},  // a repeat among more attributes than are compared pairwise
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
  XML_NODE* node = kUntouched;
  EXPECT_EQ(xml_->XML_CreateNode(xml_, nullptr, &node), EFI_INVALID_PARAMETER);
  EXPECT_EQ(xml_->XML_CreateNode(xml_, "a", nullptr), EFI_INVALID_PARAMETER);
  EXPECT_TRUE(node == kUntouched && xml_->XML_FreeNode(xml_, nullptr) == EFI_INVALID_PARAMETER);
}

}  // namespace
}  // namespace tvl::test::xml
