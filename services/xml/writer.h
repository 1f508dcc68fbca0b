// The serialiser: one element with everything below it as compact XML.
#pragma once

#include "uefi/services.h"

namespace tvl::xmlsvc {

// Writes `root` and its descendants (not the root's following siblings)
// into a new NUL-terminated pool text. No XML declaration and no
// indentation are written. EFI_INVALID_PARAMETER when the tree cannot be
// written as well-formed XML: an invalid element or attribute name, an
// element carrying the same attribute name twice, invalid UTF-8, or a
// character that XML 1.0 does not allow. `*text` is written only on
// success.
EFI_STATUS writeTree(const XML_NODE* root, CHAR8** text);

}  // namespace tvl::xmlsvc
