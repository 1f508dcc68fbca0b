// The parser: an 8-bit (UTF-8) XML text into a tree of XML_NODE records.
#pragma once

#include "uefi/services.h"

namespace tvl::xmlsvc {

constexpr UINTN kDefaultMaxDepth = 256;
constexpr UINTN kDefaultMaxInputBytes = 64u * 1024u * 1024u;

// Parses `length` bytes of `text` (no terminator needed) into a new tree.
// Element text becomes `contents` in escaped form ("&", "<" and ">" as
// references), attribute values are decoded plain text. No document type
// declaration and no entity beyond the five predefined ones and numeric
// references is accepted. On failure nothing stays allocated, `*root` is
// not written and `error` (when given) says where and why.
EFI_STATUS parseText(const CHAR8* text, UINTN length, const XML_LIMITS& limits, XML_NODE** root,
                     XML_PARSE_ERROR* error);

}  // namespace tvl::xmlsvc
