// The configuration request: one segment per accepted value, each a
// variable store's ConfigHdr, the question's block name, "&VALUE=" and the
// value's hexadecimal digits, placed one after another. Also the partition
// matching that tells apart items of one name on a partitioned device.
#include "driver/trace.h"
#include "import/collections.h"
#include "import/internal.h"
#include "import/save.h"
#include "util/text.h"
#include "xml/node.h"

using tvl::rt::Pool;

extern "C" {
UINT8 mOrderedListRequest = 1;
}

namespace tvl::imp {
namespace {

constexpr CHAR8 kFunction[] = "CreateConfigRequest";
constexpr CHAR16 kWidthField[] = u"&WIDTH=";
constexpr CHAR16 kValueField[] = u"&VALUE=";
// Widths beyond what a question's storage can have (16 bits) are refused
// rather than allocated.
constexpr UINTN kMaxWidth = 0xFFFF;

// The number after the first "&WIDTH=", read as hexadecimal: blanks and
// leading zeros skipped, an "x" right after a leading zero skipped, digits
// up to the first other character. No field: 0. Saturates past kMaxWidth.
UINTN widthOf(const CHAR16* blockName) {
  const CHAR16* p = findWide(blockName, kWidthField);
  if (!p) return 0;
  p += rt::length(kWidthField);
  while (*p == u' ' || *p == u'\t') ++p;
  bool zero = false;
  while (*p == u'0') {
    zero = true;
    ++p;
  }
  if (zero && (*p == u'x' || *p == u'X')) ++p;
  return UINTN(hexNumberUpTo(p, kMaxWidth));
}

void append(CHAR16* out, UINTN* at, const CHAR16* text, UINTN n) {
  rt::copyMem(out + *at, text, n * sizeof(CHAR16));
  *at += n;
}

}  // namespace

// The digits of a padded value take exactly twice the field's width. A
// value with more digits than the field holds is refused (no segment): the
// range checks bound values by the question's limits, not by its storage,
// and a cut value would write something the caller did not ask for.
EFI_STATUS appendRequestSegment(RequestText& request, const CHAR16* configHdr, const CHAR16* blockName,
                                const CHAR16* value, bool exact) {
  trace(TVL_LEVEL_FAILURE, kFunction, u"BlockName = %s Value = %s\n", blockName, value);
  // Without a header (a store that has none) no segment can be formed.
  if (!configHdr || !blockName || !value) return EFI_INVALID_PARAMETER;
  const bool asIs = mOrderedListRequest != 0;
  const UINTN valueLength = rt::length(value);
  UINTN digits = valueLength;
  if (!asIs) {
    UINTN width = widthOf(blockName);
    if (width > kMaxWidth) return EFI_INVALID_PARAMETER;
    digits = 2 * width;
    if (width != 0 && valueLength > digits) return EFI_INVALID_PARAMETER;
  }
  const UINTN headerLength = rt::length(configHdr);
  const UINTN blockLength = rt::length(blockName);
  const UINTN valueField = rt::length(kValueField);
  const UINTN total = request.length + headerLength + blockLength + valueField + digits;

  CHAR16* out = request.text;
  Pool<CHAR16> grown;
  UINTN capacity = request.capacity;
  if (total + 1 > capacity) {
    capacity = exact || total + 1 > 2 * capacity ? total + 1 : 2 * capacity;
    grown = Pool<CHAR16>::zeroed(capacity);
    if (!grown) return EFI_OUT_OF_RESOURCES;
    if (request.length) rt::copyMem(grown.get(), request.text, request.length * sizeof(CHAR16));
    out = grown.get();
  }
  UINTN at = request.length;
  append(out, &at, configHdr, headerLength);
  append(out, &at, blockName, blockLength);
  append(out, &at, kValueField, valueField);
  if (asIs) {
    append(out, &at, value, valueLength);
  } else if (digits) {
    for (UINTN i = valueLength; i < digits; ++i) out[at++] = u'0';
    append(out, &at, value, valueLength);
  }
  out[at] = 0;
  if (grown) {
    rt::release(request.text);
    request.capacity = capacity;
    request.text = grown.release();
  }
  request.length = total;
  trace(TVL_LEVEL_FAILURE, kFunction, u"ConfigRequest = %s\n", request.text);
  return EFI_SUCCESS;
}

void unescapeInPlace(CHAR8* text) {
  if (!text) return;
  for (const XML_ESCAPE_ROW* row = XmlEscapeTable; row->raw && row->escaped; ++row) {
    if (row->flag != 1) continue;
    const UINTN n = rt::length(row->escaped);
    UINTN read = 0, write = 0;
    while (text[read]) {
      if (rt::compareMem(text + read, row->escaped, n) == 0) {
        text[write++] = row->raw[0];
        read += n;
      } else {
        text[write++] = text[read++];
      }
    }
    text[write] = 0;
  }
}

}  // namespace tvl::imp

extern "C" {

EFI_STATUS CreateConfigRequest(const CHAR16* ConfigHdr, const CHAR16* BlockName, const CHAR16* Value,
                               CHAR16** Request) {
  if (!Request) return EFI_INVALID_PARAMETER;
  tvl::imp::RequestText request;
  request.text = *Request;
  request.length = tvl::rt::length(*Request);
  request.capacity = *Request ? request.length + 1 : 0;
  RETURN_IF_ERROR(tvl::imp::appendRequestSegment(request, ConfigHdr, BlockName, Value, true));
  *Request = request.text;
  return EFI_SUCCESS;
}

EFI_STATUS getPartitionIndex(XML_NODE* Node, CHAR8** PartitionIndex) {
  if (!PartitionIndex) return EFI_INVALID_PARAMETER;
  for (XML_NODE* node = Node; node; node = node->next) {
    for (const XML_ATTRIBUTE* attribute = node->attributes; attribute; attribute = attribute->next) {
      tvl::trace(TVL_LEVEL_PROGRESS, "getPartitionIndex", u"tempAttr->value = %a\n", attribute->value);
      if (attribute->value && node->contents && compareNoCase(attribute->value, "Partition") == 0) {
        *PartitionIndex = node->contents;
        return EFI_SUCCESS;
      }
    }
  }
  tvl::trace(TVL_LEVEL_PROGRESS, "getPartitionIndex", u"Exiting Without partition Index\n");
  return EFI_NOT_FOUND;
}

EFI_STATUS GetNodeByNameTagWithPartition(const CHAR8* Name, const CHAR8* PartitionIndex, const CHAR8* Tag,
                                         XML_NODE* Node, XML_NODE** Found) {
  if (!Node || !Name || !PartitionIndex || !Tag || !Found) return EFI_INVALID_PARAMETER;
  XML_NODE* match = nullptr;
  RETURN_IF_ERROR(tvl::imp::walkDocument(Node, [&](XML_NODE* node) {
    XML_NODE* first = node->children;
    if (!tvl::imp::named(node, Tag) || !first || !first->contents || !tvl::rt::equal(first->contents, Name))
      return tvl::imp::Step::Enter;
    CHAR8* partition = nullptr;
    if (EFI_ERROR(getPartitionIndex(first, &partition))) return tvl::imp::Step::Enter;
    tvl::trace(TVL_LEVEL_PROGRESS, "GetNodeByNameTagWithPartition", u"partitionIndex = %a currentPartIndex = %a\n",
               PartitionIndex, partition);
    if (compareNoCase(partition, PartitionIndex) != 0) return tvl::imp::Step::Enter;
    match = node;
    return tvl::imp::Step::Stop;
  }));
  if (!match) return EFI_NOT_FOUND;
  *Found = match;
  return EFI_SUCCESS;
}

}  // extern "C"
