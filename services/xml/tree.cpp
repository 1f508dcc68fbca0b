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
  Pool<UINT8> block = Pool<UINT8>::bytes(sizeof(XML_NODE) + length + 1);
  if (!block) return EFI_OUT_OF_RESOURCES;
  auto* created = reinterpret_cast<XML_NODE*>(block.get());
  created->name = reinterpret_cast<CHAR8*>(created + 1);
  tvl::rt::copyMem(created->name, name, length);  // the terminator comes from the zero fill
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

void freeTree(XML_NODE* root) {
  // Seen as a binary tree (children on the left, next sibling on the
  // right), a node with children is rotated so that its first child comes
  // up in its place; a node without children is released and the walk
  // goes on with its next sibling. Every node is rotated at most once per
  // child, so the walk is linear and needs no stack.
  XML_NODE* node = root;
  while (node) {
    XML_NODE* child = node->children;
    if (child) {
      node->children = child->next;
      child->next = node;
      node = child;
    } else {
      XML_NODE* next = node->next;
      // The next node and its first child are what the walk reaches next:
      // asked for now, they arrive while this node's blocks are released.
      if (next) {
        __builtin_prefetch(next, 1);
        __builtin_prefetch(next->children, 1);
      }
      freeOne(node);
      node = next;
    }
  }
}

}  // namespace tvl::xmlsvc
