// Node records of the XML service: creation and release of whole trees.
#pragma once

#include "uefi/services.h"

namespace tvl::xmlsvc {

// A new zero-filled node whose name is a pool copy of the `length` bytes
// at `name`.
EFI_STATUS createNode(const CHAR8* name, UINTN length, XML_NODE** node);

// Releases `root` and its following siblings with everything below them:
// names, contents, attribute records with their texts, and the nodes. The
// walk needs no stack, however deep or long the tree.
void freeTree(XML_NODE* root);

}  // namespace tvl::xmlsvc
