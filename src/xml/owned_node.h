// Move-only owner of a tree that is still being built: the tree (the node,
// everything below it and its following siblings) goes back to the XML
// service when the owner goes out of scope, unless release() hands it on.
// Builders keep their partial results in one so that every early return
// frees them.
#pragma once

#include "xml/node.h"

namespace tvl::xml {

class OwnedNode {
 public:
  OwnedNode() = default;
  explicit OwnedNode(XML_NODE* node) : node_(node) {}
  ~OwnedNode() { reset(); }
  OwnedNode(const OwnedNode&) = delete;
  OwnedNode& operator=(const OwnedNode&) = delete;

  XML_NODE* get() const { return node_; }
  XML_NODE* operator->() const { return node_; }
  explicit operator bool() const { return node_ != nullptr; }

  // The slot itself, for toolbox operations that take a node pointer's
  // address (addAttribute).
  XML_NODE** address() { return &node_; }
  // For out-parameters of operations that hand over a new tree.
  XML_NODE** receive() {
    reset();
    return &node_;
  }

  XML_NODE* release() {
    XML_NODE* node = node_;
    node_ = nullptr;
    return node;
  }
  void reset(XML_NODE* node = nullptr) {
    if (node_ && node_ != node) freeNode(node_);
    node_ = node;
  }

 private:
  XML_NODE* node_ = nullptr;
};

}  // namespace tvl::xml
