#include "services/xml/tree.h"

#include "uefi/runtime.h"

namespace tvl::xmlsvc {

using tvl::rt::Pool;

// The name lives in the node's own block, right after the node: one
// allocation per element instead of two, and the name sits in the cache
// line that a walk of the tree has just loaded. Nothing but this function
// makes nodes, and nobody replaces a node's name; were one replaced, the
// release below still frees it as a block of its own.
EFI_STATUS createNode(const CHAR8* name, UINTN length, XML_NODE** node) {
  if (length > ~UINTN(0) - sizeof(XML_NODE) - 1) return EFI_OUT_OF_RESOURCES;
  Pool<UINT8> block = Pool<UINT8>::uncleared(sizeof(XML_NODE) + length + 1);
  if (!block) return EFI_OUT_OF_RESOURCES;
  auto* created = reinterpret_cast<XML_NODE*>(block.get());
  *created = XML_NODE{};
  created->name = reinterpret_cast<CHAR8*>(created + 1);
  tvl::rt::copyShort(created->name, name, length);
  created->name[length] = '\0';
  *node = reinterpret_cast<XML_NODE*>(block.release());
  return EFI_SUCCESS;
}

namespace {

void freeAttributes(XML_ATTRIBUTE* attribute) {
  while (attribute) {
    XML_ATTRIBUTE* next = attribute->next;
    tvl::rt::release(attribute->name);
    tvl::rt::release(attribute->value);
    tvl::rt::release(attribute);
    attribute = next;
  }
}

void freeOne(XML_NODE* node) {
  if (node->name != reinterpret_cast<CHAR8*>(node + 1)) tvl::rt::release(node->name);
  tvl::rt::release(node->contents);
  freeAttributes(node->attributes);
  tvl::rt::release(node);
}

}  // namespace

namespace {

// Seen as a binary tree (children on the left, next sibling on the right),
// a node with children is rotated so that its first child comes up in its
// place; a node without children is released and the walk goes on with its
// next sibling. Every node is rotated at most once per child, so the walk
// is linear and needs no stack; but it writes to every node it rotates.
void freeByRotation(XML_NODE* node) {
  while (node) {
    XML_NODE* child = node->children;
    if (child) {
      node->children = child->next;
      child->next = node;
      node = child;
    } else {
      XML_NODE* next = node->next;
      freeOne(node);
      node = next;
    }
  }
}

// Levels whose parents the walk below keeps on its own stack.
constexpr UINTN kKeptLevels = 64;

}  // namespace

void freeTree(XML_NODE* root) {
  // Children before their parent, each parent kept on a small stack until
  // its children are gone: the walk only reads the nodes, so a large tree
  // is not written back to memory just to be released. Children more than
  // kKeptLevels deep go through the rotation walk, which needs no stack.
  XML_NODE* parents[kKeptLevels];
  UINTN depth = 0;
  XML_NODE* node = root;
  while (node) {
    while (node->children) {
      if (depth == kKeptLevels) {
        freeByRotation(node->children);
        node->children = nullptr;
        break;
      }
      parents[depth++] = node;
      node = node->children;
    }
    // `node` has no children left: release it, then its next sibling's
    // subtree, or, after the last sibling, the parent.
    for (;;) {
      XML_NODE* next = node->next;
      if (next) __builtin_prefetch(next);  // reached while this node's blocks are released
      freeOne(node);
      if (next) {
        node = next;
        break;
      }
      if (depth == 0) return;
      node = parents[--depth];
    }
  }
}

}  // namespace tvl::xmlsvc
