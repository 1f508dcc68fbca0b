// The node toolbox in a loaded driver, on trees of the real XML service.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/driver.h"
#include "xml/node.h"

namespace {

using tvl::test::statusName;

// Nodes from `start` in document order: each node, its descendants, then its
// following siblings. Iterative, for long chains.
std::vector<const XML_NODE*> documentOrder(const XML_NODE* start) {
  std::vector<const XML_NODE*> order, pending;
  if (start) pending.push_back(start);
  while (!pending.empty()) {
    const XML_NODE* node = pending.back();
    pending.pop_back();
    order.push_back(node);
    if (node->next) pending.push_back(node->next);
    if (node->children) pending.push_back(node->children);
  }
  return order;
}

std::string text(const CHAR8* s) { return s ? std::string(s) : std::string("(null)"); }

using Pairs = std::vector<std::pair<std::string, std::string>>;
Pairs attributesOf(const XML_NODE* node) {
  Pairs out;
  for (const XML_ATTRIBUTE* a = node->attributes; a; a = a->next) out.emplace_back(text(a->name), text(a->value));
  return out;
}

// Same names, contents and attributes, linked the same way, no node shared;
// a copy has no parents. Reports the first difference.
::testing::AssertionResult sameTree(const XML_NODE* original, const XML_NODE* copy) {
  std::vector<const XML_NODE*> a = documentOrder(original), b = documentOrder(copy);
  if (a.size() != b.size()) return ::testing::AssertionFailure() << a.size() << " nodes against " << b.size();
  std::map<const XML_NODE*, const XML_NODE*> image = {{nullptr, nullptr}};
  for (size_t i = 0; i < a.size(); ++i) image[a[i]] = b[i];
  for (size_t i = 0; i < a.size(); ++i)
    if (a[i] == b[i] || text(a[i]->name) != text(b[i]->name) || text(a[i]->contents) != text(b[i]->contents) ||
        attributesOf(a[i]) != attributesOf(b[i]) || image.at(a[i]->children) != b[i]->children ||
        image.at(a[i]->next) != b[i]->next || b[i]->parent)
      return ::testing::AssertionFailure() << "node " << i << " (" << text(a[i]->name) << ") differs or is shared";
  return ::testing::AssertionSuccess();
}

class NodeTest : public tvl::test::DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_NE(xml_ = locate<XML_PROTOCOL>(XML_PROTOCOL_GUID), nullptr);
    log().clear();
  }
  // A tree of the XML service; the test frees it with release().
  XML_NODE* parse(const std::string& document) {
    XML_NODE* root = nullptr;
    XML_PARSE_ERROR error{};
    EXPECT_EQ(xml_->XML_ParseText(xml_, document.c_str(), document.size(), &root, &error), EFI_SUCCESS)
        << error.Message;
    if (!root) throw std::runtime_error("the document does not parse: " + document);
    return root;
  }
  void release(XML_NODE*& root) {
    EXPECT_EQ(root ? DRIVER_FN(freeNode)(root) : EFI_SUCCESS, EFI_SUCCESS);
    root = nullptr;
  }
  XML_NODE* byId(XML_NODE* root, const std::string& id) {
    for (const XML_NODE* node : documentOrder(root))
      for (const auto& [name, value] : attributesOf(node))
        if (name == "id" && value == id) return const_cast<XML_NODE*>(node);
    ADD_FAILURE() << "no node with id " << id;
    return nullptr;
  }

  XML_PROTOCOL* xml_ = nullptr;
};

TEST_F(NodeTest, CreateNodeClearsLinksAndTraces) {
  XML_NODE* node = nullptr;
  ASSERT_EQ(DRIVER_FN(createNode)("Item", &node), EFI_SUCCESS);
  EXPECT_STREQ(node->name, "Item");
  EXPECT_TRUE(!node->contents && !node->attributes && !node->parent && !node->children && !node->next);
  const tvl::test::LogRecord* line = log().find("createNode", "createNode, name: Item\n");
  EXPECT_TRUE(line && line->level == TVL_LEVEL_TOOLBOX) << log().dump();
  release(node);
  XML_NODE* const sentinel = reinterpret_cast<XML_NODE*>(uintptr_t(0x5a5a));
  node = sentinel;
  EXPECT_EQ(DRIVER_FN(createNode)(nullptr, &node), EFI_INVALID_PARAMETER);
  EXPECT_EQ(node, sentinel);
  EXPECT_EQ(log().from("createNode").size(), 2u) << "the entry is traced before the arguments are checked";
  EXPECT_EQ(DRIVER_FN(createNode)("Item", nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(DRIVER_FN(freeNode)(nullptr), EFI_INVALID_PARAMETER);
}

TEST_F(NodeTest, CreateNodeWithStringStoresEscapedCopy) {
  // Already escaped text is unchanged; a mixture comes out fully escaped.
  for (auto [contents, stored] : {std::pair<const char*, const char*>{"a<b&c", "a&lt;b&amp;c"}, {"&lt;", "&lt;"},
                                  {"", ""}, {"&amp;lt;", "&lt;"}, {"5 &amp; 6 & 7", "5 &amp; 6 &amp; 7"}}) {
    XML_NODE* node = nullptr;
    ASSERT_EQ(DRIVER_FN(createNodeWithString)("Value", contents, &node), EFI_SUCCESS) << contents;
    EXPECT_STREQ(node->contents, stored) << contents;
    EXPECT_TRUE(isAllocated(node->contents)) << "a copy, not the caller's text";
    release(node);
  }
  EXPECT_NE(log().find("createNodeWithString", "createNodeWithString, name: Value\n"), nullptr) << log().dump();
  XML_NODE* node = nullptr;
  EXPECT_EQ(DRIVER_FN(createNodeWithString)(nullptr, "x", &node), EFI_INVALID_PARAMETER);
  EXPECT_EQ(DRIVER_FN(createNodeWithString)("Value", nullptr, &node), EFI_INVALID_PARAMETER);
  EXPECT_EQ(node, nullptr);
  size_t attempts = sweepAllocationFailures(
      [&] { return DRIVER_FN(createNodeWithString)("Value", "a&b", &node); },
      [&](EFI_STATUS status, size_t k) {
        if (status != EFI_SUCCESS) {  // the node or its contents: nothing handed out
          EXPECT_TRUE(status == EFI_OUT_OF_RESOURCES && !node) << k;
          return;
        }
        ASSERT_NE(node, nullptr);
        EXPECT_STREQ(node->contents, "a&b") << k;  // escaping ignores its own failures
      },
      [&] { release(node); });
  EXPECT_GE(attempts, 3u);
}

TEST_F(NodeTest, AddAttributeKeepsOnlyDistinctPairs) {
  XML_NODE* node = nullptr;
  ASSERT_EQ(DRIVER_FN(createNode)("N", &node), EFI_SUCCESS);
  for (auto [name, value] : Pairs{{"a", "1"}, {"a", "1"}, {"a", "2"}, {"b", "1"}, {"a", "2"}, {"b", ""}})
    ASSERT_EQ(DRIVER_FN(addAttribute)(name.c_str(), value.c_str(), &node), EFI_SUCCESS);
  // Numbers: no duplicate test.
  for (auto [name, value] : {std::pair<const char*, UINT64>{"n", 0}, {"n", 0}, {"max", ~0ull}})
    ASSERT_EQ(DRIVER_FN(addNumericAttribute)(name, value, &node), EFI_SUCCESS);
  const Pairs expected = {{"a", "1"}, {"a", "2"}, {"b", "1"}, {"b", ""},
                          {"n", "0"}, {"n", "0"}, {"max", "18446744073709551615"}};
  EXPECT_EQ(attributesOf(node), expected);
  XML_NODE* null = nullptr;
  for (EFI_STATUS status : {
      DRIVER_FN(addAttribute)("a", "1", nullptr),       DRIVER_FN(addAttribute)("a", "1", &null),
      DRIVER_FN(addAttribute)(nullptr, "1", &node),     DRIVER_FN(addAttribute)("a", nullptr, &node),
      DRIVER_FN(addNumericAttribute)("n", 1, nullptr),  DRIVER_FN(addNumericAttribute)("n", 1, &null),
      DRIVER_FN(addNumericAttribute)(nullptr, 1, &node)})
    EXPECT_EQ(status, EFI_INVALID_PARAMETER);
  EXPECT_EQ(attributesOf(node), expected);
  release(node);
}

TEST_F(NodeTest, AttributeAllocationFailures) {
  XML_NODE* node = nullptr;
  ASSERT_EQ(DRIVER_FN(createNode)("N", &node), EFI_SUCCESS);
  ASSERT_EQ(DRIVER_FN(addAttribute)("first", "1", &node), EFI_SUCCESS);
  auto cleanup = [&] {  // back to the one attribute the node started with
    for (XML_ATTRIBUTE *a = node->attributes->next, *next; a; a = next) {
      next = a->next;
      for (void* p : {static_cast<void*>(a->name), static_cast<void*>(a->value), static_cast<void*>(a)})
        bs()->FreePool(p);
    }
    node->attributes->next = nullptr;
  };
  // addAttribute: record, name copy, value copy. addNumericAttribute: the
  // decimal text (its failure reported as a missing value), then the same.
  const std::function<EFI_STATUS()> ops[] = {[&] { return DRIVER_FN(addAttribute)("second", "2", &node); },
                                             [&] { return DRIVER_FN(addNumericAttribute)("n", 42, &node); }};
  for (size_t i = 0; i < 2; ++i) {
    auto check = [&](EFI_STATUS status, size_t k) {
      EXPECT_EQ(status, i == 1 && k == 1 ? EFI_INVALID_PARAMETER : EFI_OUT_OF_RESOURCES) << k;
      EXPECT_EQ(attributesOf(node).size(), 1u);
    };
    EXPECT_EQ(sweepAllocationFailures(ops[i], check, cleanup), 3u + i);
  }
  release(node);
}

// getAttributeValue and hasAttribute: the exported documents
// (tests/firmware/documents_test.cpp) and the command line's apply.

enum class Finder { ByName, ByChildContents, ByNameAndContents };

TEST_F(NodeTest, FindersVisitStartDescendantsAndFollowingSiblingsInDocumentOrder) {
  XML_NODE* root = parse(
      "<root id=\"root\"><A id=\"a1\"><B id=\"b1\">x</B><C id=\"c1\"><N id=\"n1\"/><N id=\"n2\">pw</N></C></A>"
      "<C id=\"c2\"><N id=\"n3\">pw</N></C><B id=\"b2\">y</B><D id=\"d1\"><E id=\"e1\"/></D></root>");
  struct Case { Finder finder; const char* name; const char* contents; const char* start; const char* found; };
  const Case cases[] = {  // found: an id, or null for EFI_NOT_FOUND
      {Finder::ByName, "B", nullptr, "root", "b1"},  // descendants before siblings
      {Finder::ByName, "root", nullptr, "root", "root"},
      {Finder::ByName, "C", nullptr, "b1", "c1"},     {Finder::ByName, "E", nullptr, "a1", "e1"},  // following siblings
      {Finder::ByName, "B", nullptr, "c1", nullptr},  // the parent's following siblings are out of range
      {Finder::ByName, "A", nullptr, "c2", nullptr},  {Finder::ByName, "Z", nullptr, "root", nullptr},
      {Finder::ByChildContents, "C", "pw", "root", "c2"},  // c1's first child has no contents
      {Finder::ByChildContents, "A", "x", "root", "a1"},   {Finder::ByChildContents, "N", "pw", "root", nullptr},
      {Finder::ByChildContents, "C", "PW", "root", nullptr}, {Finder::ByNameAndContents, "B", "y", "root", "b2"},
      {Finder::ByNameAndContents, "N", "pw", "root", "n2"}, {Finder::ByNameAndContents, "N", "pw", "c2", "n3"},
      {Finder::ByNameAndContents, "B", "x", "c1", nullptr},
  };
  for (const Case& c : cases) {
    XML_NODE *start = byId(root, c.start), *out = nullptr;
    EFI_STATUS status =
        c.finder == Finder::ByName            ? DRIVER_FN(findNodeByName)(c.name, start, &out)
        : c.finder == Finder::ByChildContents ? DRIVER_FN(findNodeByChildContents)(c.contents, c.name, start, &out)
                                              : DRIVER_FN(findNodeByNameAndContents)(c.name, c.contents, start, &out);
    EXPECT_EQ(status, c.found ? EFI_SUCCESS : EFI_NOT_FOUND) << c.name << " from " << c.start;
    EXPECT_EQ(out, c.found ? byId(root, c.found) : nullptr) << c.name << " from " << c.start;
  }
  XML_NODE* out = nullptr;
  for (EFI_STATUS status : {
      DRIVER_FN(findNodeByName)(nullptr, root, &out), DRIVER_FN(findNodeByName)("A", nullptr, &out),
      DRIVER_FN(findNodeByChildContents)(nullptr, "C", root, &out),
      DRIVER_FN(findNodeByChildContents)("pw", "C", nullptr, &out),
      DRIVER_FN(findNodeByNameAndContents)(nullptr, "x", root, &out),
      DRIVER_FN(findNodeByNameAndContents)("B", nullptr, root, &out),
      DRIVER_FN(findNodeByNameAndContents)("B", "x", nullptr, &out)})
    EXPECT_EQ(status, EFI_INVALID_PARAMETER);
  EXPECT_EQ(out, nullptr);
  release(root);
  // countValueStructs walks the sibling chain only, and matches the name exactly.
  root = parse("<r><ValueStruct/><X/><ValueStruct><ValueStruct/></ValueStruct><valuestruct/></r>");
  for (auto [start, count] : {std::pair<XML_NODE*, UINTN>{root->children, 2}, {root->children->next, 1},
                              {root, 0}, {nullptr, 0}})
    EXPECT_EQ(DRIVER_FN(countValueStructs)(start), count);
  release(root);
}

TEST_F(NodeTest, CopyCoversChildrenAndFollowingSiblings) {
  XML_NODE* root = parse("<r><P id=\"p\" k=\"v\">t&amp;u<C1>one &lt; two</C1><C2/></P><S id=\"s\"/></r>");
  XML_NODE *p = root->children, *copy = nullptr;
  ASSERT_EQ(DRIVER_FN(copyNodeTree)(p, &copy), EFI_SUCCESS);
  EXPECT_TRUE(sameTree(p, copy));  // P, its two children and the sibling S
  release(copy);
  XML_NODE* untouched = root;
  EXPECT_TRUE(DRIVER_FN(copyNodeTree)(nullptr, &untouched) == EFI_NOT_FOUND && untouched == root);
  // Attributes are copied through addAttribute: a repeated identical pair is copied once.
  for (int i = 0; i < 2; ++i) ASSERT_EQ(DRIVER_FN(addNumericAttribute)("k", 1, &p), EFI_SUCCESS);
  ASSERT_EQ(DRIVER_FN(copyNodeTree)(p, &copy), EFI_SUCCESS);
  EXPECT_EQ(attributesOf(copy), (Pairs{{"id", "p"}, {"k", "v"}, {"k", "1"}}));
  release(copy);
  release(root);
  // Every allocation failing in turn leaves a freeable prefix of the copy.
  root = parse("<r><P k=\"v\">text<C1 a=\"1\">one</C1><C2><G/></C2></P><S/></r>");
  std::vector<const XML_NODE*> source = documentOrder(root->children);
  size_t attempts = sweepAllocationFailures(
      [&] { return DRIVER_FN(copyNodeTree)(root->children, &copy); },
      [&](EFI_STATUS status, size_t k) {
        EXPECT_EQ(status, EFI_OUT_OF_RESOURCES) << k;
        std::vector<const XML_NODE*> partial = documentOrder(copy);  // empty when the first node failed
        ASSERT_LT(partial.size(), source.size()) << k;
        for (size_t i = 0; i < partial.size(); ++i) EXPECT_STREQ(partial[i]->name, source[i]->name) << k;
      },
      [&] { release(copy); });
  EXPECT_GT(attempts, source.size());
  release(root);
}

// A chain of 100,000 siblings, and a tree in which every level has a child
// and a following sibling, so that the walks hold one pending sibling per
// level beyond the levels kept without allocation.
TEST_F(NodeTest, LongChainsAndDeepTreesAreSearchedCopiedAndFreed) {
  ASSERT_EQ(log().setLevelMask(~TVL_LEVEL_TOOLBOX), EFI_SUCCESS);  // one line per node is not the point here
  constexpr size_t kSiblings = 100000;
  XML_NODE *root = nullptr, *found = nullptr, *copy = nullptr;
  ASSERT_EQ(DRIVER_FN(createNode)("Root", &root), EFI_SUCCESS);
  XML_NODE** slot = &root->children;
  for (size_t i = 0; i + 1 < kSiblings; slot = &(*slot)->next, ++i)
    ASSERT_EQ(DRIVER_FN(createNode)("ValueStruct", slot), EFI_SUCCESS);
  ASSERT_EQ(DRIVER_FN(createNodeWithString)("Last", "end", slot), EFI_SUCCESS);
  ASSERT_EQ(DRIVER_FN(findNodeByNameAndContents)("Last", "end", root, &found), EFI_SUCCESS);
  EXPECT_EQ(found->next, nullptr);
  EXPECT_EQ(DRIVER_FN(findNodeByName)("Missing", root->children, &found), EFI_NOT_FOUND);
  EXPECT_EQ(DRIVER_FN(countValueStructs)(root->children), kSiblings - 1);
  ASSERT_EQ(DRIVER_FN(copyNodeTree)(root, &copy), EFI_SUCCESS);
  EXPECT_TRUE(sameTree(root, copy));
  release(copy);
  release(root);

  ASSERT_EQ(DRIVER_FN(createNode)("Level", &root), EFI_SUCCESS);
  XML_NODE* level = root;
  for (size_t i = 0; i < 3 * tvl::xml::kNodeWalkInlineDepth; ++i, level = level->children) {
    ASSERT_EQ(DRIVER_FN(createNode)("Level", &level->children), EFI_SUCCESS);
    ASSERT_EQ(DRIVER_FN(createNode)(i == 0 ? "Tail" : "Side", &level->next), EFI_SUCCESS);
  }
  ASSERT_EQ(DRIVER_FN(findNodeByName)("Tail", root, &found), EFI_SUCCESS);
  EXPECT_EQ(found, root->next);
  ASSERT_EQ(DRIVER_FN(copyNodeTree)(root, &copy), EFI_SUCCESS);
  EXPECT_TRUE(sameTree(root, copy));
  release(copy);
  // The walk's own memory is refused: the search reports it.
  platform().failAllocationsFrom(1);
  EXPECT_EQ(statusName(DRIVER_FN(findNodeByName)("Tail", root, &found)), statusName(EFI_OUT_OF_RESOURCES));
  platform().clearAllocationFaults();
  release(root);
}

}  // namespace
