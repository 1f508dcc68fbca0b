#include "services/xml/tree.h"

#include "uefi/runtime.h"

namespace tvl::xmlsvc {

using tvl::rt::Pool;

EFI_STATUS createNode(const CHAR8* name, UINTN length, XML_NODE** node) {
  Pool<XML_NODE> created = Pool<XML_NODE>::zeroed();
  if (!created) return EFI_OUT_OF_RESOURCES;
  Pool<CHAR8> copy = tvl::rt::duplicate(name, length);
  if (!copy) return EFI_OUT_OF_RESOURCES;
  created->name = copy.release();
  *node = created.release();
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
  tvl::rt::release(node->name);
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
      freeOne(node);
      node = next;
    }
  }
}

}  // namespace tvl::xmlsvc
