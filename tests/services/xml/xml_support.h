// Helpers of the XML service tests: the service loaded, trees built into
// XML_NODE records as the driver builds them and read back, xmllint.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/fixture.h"
#include "uefi/services.h"

namespace tvl::test::xml {

struct Tree {
  std::string name;
  std::optional<std::string> contents;
  std::vector<std::pair<std::string, std::string>> attributes;
  std::vector<Tree> children;
};
bool operator==(const Tree& a, const Tree& b);

// True when xmllint accepts `text` without a word; otherwise what it said
// goes to the test's output.
bool xmllintAccepts(const std::string& text);

class XmlServiceTest : public PlatformTest {
 protected:
  void SetUp() override;

  // Builds `tree`: nodes from the service, contents and attributes
  // allocated from the pool by the caller.
  XML_NODE* build(const Tree& tree);
  // Reads a tree back (recursive: for small trees only). Fails the test
  // when a child's parent link does not point at its parent.
  Tree read(const XML_NODE* node);

  // NodeToXML, with the text copied out and released.
  EFI_STATUS serialise(XML_NODE* root, std::string* text);
  EFI_STATUS parse(const std::string& text, XML_NODE** root, XML_PARSE_ERROR* error = nullptr);

  XML_PROTOCOL* xml_ = nullptr;
};

}  // namespace tvl::test::xml
