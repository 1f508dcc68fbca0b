// Building the export's documents: a child list that appends after its last
// element without walking the siblings again (a form of 20,000 statements
// costs one step per element), and elements made and linked in one step,
// so that a failure after the link leaves nothing outside the tree.
#pragma once

#include "uefi/runtime.h"
#include "util/text.h"
#include "xml/node.h"

namespace tvl::exp {

// The children of one element while it is being built.
class ChildList {
 public:
  ChildList() = default;
  // Continues after the element's present last child.
  explicit ChildList(XML_NODE* parent) : parent_(parent) {
    for (XML_NODE* child = parent ? parent->children : nullptr; child; child = child->next) last_ = child;
  }

  XML_NODE* parent() const { return parent_; }
  XML_NODE* last() const { return last_; }

  // Links a sibling chain after the last child, its elements under the
  // parent.
  void append(XML_NODE* chain) {
    if (!chain) return;
    if (last_) {
      last_->next = chain;
      chain->previous = last_;
    } else {
      parent_->children = chain;
    }
    for (XML_NODE* node = chain; node; node = node->next) {
      node->parent = parent_;
      last_ = node;
    }
  }

  // Unlinks and frees the last child with everything below it; the child
  // before it becomes the last (found through its `previous` link).
  void removeLast() {
    XML_NODE* gone = last_;
    if (!gone) return;
    XML_NODE* before = gone->previous;
    if (before)
      before->next = nullptr;
    else
      parent_->children = nullptr;
    last_ = before;
    gone->next = nullptr;
    freeNode(gone);
  }

 private:
  XML_NODE* parent_ = nullptr;
  XML_NODE* last_ = nullptr;
};

// An element with escaped text contents, appended to `list`.
inline EFI_STATUS appendText(ChildList& list, const CHAR8* name, const CHAR8* text, XML_NODE** out = nullptr) {
  XML_NODE* node = nullptr;
  RETURN_IF_ERROR(createNodeWithString(name, text, &node));
  list.append(node);
  if (out) *out = node;
  return EFI_SUCCESS;
}

// An element without contents, appended to `list`.
inline EFI_STATUS appendEmpty(ChildList& list, const CHAR8* name, XML_NODE** out = nullptr) {
  XML_NODE* node = nullptr;
  RETURN_IF_ERROR(createNode(name, &node));
  list.append(node);
  if (out) *out = node;
  return EFI_SUCCESS;
}

// An element holding the unsigned decimal text of `number`.
inline EFI_STATUS appendDecimal(ChildList& list, const CHAR8* name, UINT64 number, XML_NODE** out = nullptr) {
  rt::Pool<CHAR8> text(numberToDecimalText(number));
  if (!text) return EFI_OUT_OF_RESOURCES;
  return appendText(list, name, text.get(), out);
}

// A fixed-size text buffer for the formatted numbers of the documents
// ("%d", "%ld", "%04d").
struct NumberText {
  CHAR8 text[24];
};

// "%04d" of a default store id, as the documents write "DefaultId".
inline NumberText defaultIdText(UINT16 id) {
  NumberText out;
  formatAsciiN(out.text, sizeof(out.text), "%04d", UINT32(id));
  return out;
}

}  // namespace tvl::exp
