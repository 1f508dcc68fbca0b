// The XML service's parser on arbitrary texts; whatever it accepts must
// serialise, parse again to the same tree and serialise to the same text.
#include <cstring>
#include <utility>
#include <vector>

#include "fuzz/support.h"

namespace {

using tvl::fuzz::fail;

bool sameText(const CHAR8* a, const CHAR8* b) {
  if (!a || !b) return a == b;
  return std::strcmp(reinterpret_cast<const char*>(a), reinterpret_cast<const char*>(b)) == 0;
}

bool sameAttributes(const XML_ATTRIBUTE* a, const XML_ATTRIBUTE* b) {
  for (; a && b; a = a->next, b = b->next)
    if (!sameText(a->name, b->name) || !sameText(a->value, b->value)) return false;
  return !a && !b;
}

// Walks both trees together without recursion (a deep tree must not
// exhaust the stack); also checks the parent links (the service leaves
// `previous` to its callers).
bool sameTree(const XML_NODE* a, const XML_NODE* b) {
  std::vector<std::pair<const XML_NODE*, const XML_NODE*>> pending{{a, b}};
  while (!pending.empty()) {
    auto [x, y] = pending.back();
    pending.pop_back();
    for (; x && y; x = x->next, y = y->next) {
      if (!sameText(x->name, y->name) || !sameText(x->contents, y->contents) ||
          !sameAttributes(x->attributes, y->attributes))
        return false;
      for (const XML_NODE* c = x->children; c; c = c->next)
        if (c->parent != x) fail("a parsed node's parent link is wrong");
      pending.push_back({x->children, y->children});
    }
    if (x || y) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tvl::fuzz::Session& s = tvl::fuzz::session();
  tvl::fuzz::PoolWatch watch(*s.platform);
  XML_NODE* first = nullptr;
  XML_PARSE_ERROR error{};
  EFI_STATUS status = s.xml->XML_ParseText(s.xml, reinterpret_cast<const CHAR8*>(data), size, &first, &error);
  if (status != EFI_SUCCESS) {
    if (first) fail("a refused text still hands out a tree");
    if (error.Offset > size) fail("the parse error lies past the end of the text");
    if (!std::memchr(error.Message, 0, sizeof error.Message)) fail("the parse error's message is not terminated");
  } else {
    if (!first) fail("an accepted text gives no tree");
    CHAR8* text = nullptr;
    if (s.xml->XML_NodeToXML(s.xml, first, &text) != EFI_SUCCESS || !text)
      fail("a parsed tree does not serialise");
    XML_NODE* second = nullptr;
    status = s.xml->XML_ParseText(s.xml, text, std::strlen(reinterpret_cast<const char*>(text)), &second, &error);
    if (status != EFI_SUCCESS) fail(std::string("the serialised tree does not parse: ") + error.Message);
    if (!sameTree(first, second)) fail("the serialised tree parses to another tree");
    CHAR8* again = nullptr;
    if (s.xml->XML_NodeToXML(s.xml, second, &again) != EFI_SUCCESS || !sameText(text, again))
      fail("the tree serialises to another text the second time");
    tvl::fuzz::freePool(text);
    tvl::fuzz::freePool(again);
    tvl::fuzz::freeTree(s, second);
  }
  tvl::fuzz::freeTree(s, first);
  watch.check("the XML round trip");
  return 0;
}
