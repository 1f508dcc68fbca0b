#include "tests/services/xml/xml_support.h"

#include <cstdio>
#include <cstdlib>
#include <tuple>

namespace tvl::test::xml {

bool operator==(const Tree& a, const Tree& b) {
  return std::tie(a.name, a.contents, a.attributes, a.children) ==
         std::tie(b.name, b.contents, b.attributes, b.children);
}

bool xmllintAccepts(const std::string& text) {
  FILE* pipe = popen("out=$(xmllint --noout - 2>&1) && [ -z \"$out\" ] || { echo \"$out\"; exit 1; }", "w");
  if (!pipe) return false;
  fwrite(text.data(), 1, text.size(), pipe);
  return pclose(pipe) == 0;
}

void XmlServiceTest::SetUp() {
  PlatformTest::SetUp();
  load("xml_service");
  xml_ = locate<XML_PROTOCOL>(XML_PROTOCOL_GUID);
  ASSERT_NE(xml_, nullptr);
  markBaseline();  // the service instance stays installed
}

XML_NODE* XmlServiceTest::build(const Tree& tree) {
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

Tree XmlServiceTest::read(const XML_NODE* node) {
  Tree tree{node->name, std::nullopt, {}, {}};
  if (node->contents) tree.contents = node->contents;
  for (const XML_ATTRIBUTE* a = node->attributes; a; a = a->next) tree.attributes.emplace_back(a->name, a->value);
  for (const XML_NODE* child = node->children; child; child = child->next) {
    EXPECT_EQ(child->parent, node) << "parent link of <" << child->name << ">";
    EXPECT_EQ(child->previous, nullptr);
    tree.children.push_back(read(child));
  }
  return tree;
}

EFI_STATUS XmlServiceTest::serialise(XML_NODE* root, std::string* text) {
  CHAR8* out = nullptr;
  EFI_STATUS status = xml_->XML_NodeToXML(xml_, root, &out);
  if (status == EFI_SUCCESS) {
    *text = out;
    bs()->FreePool(out);
  }
  return status;
}

EFI_STATUS XmlServiceTest::parse(const std::string& text, XML_NODE** root, XML_PARSE_ERROR* error) {
  return xml_->XML_ParseText(xml_, text.data(), text.size(), root, error);
}

}  // namespace tvl::test::xml
