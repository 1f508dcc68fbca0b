#include "xml/node.h"

#include "driver/trace.h"
#include "uefi/runtime.h"
#include "util/text.h"

using tvl::rt::Pool;

namespace {

constexpr CHAR8 kValueStructName[] = "ValueStruct";

// The walks keep, for each level they descend into, the node whose next
// sibling is still to be visited. The first levels live in the object
// itself; deeper trees spill into a pool buffer that doubles as it grows.
template <typename Entry>
class WalkStack {
 public:
  bool push(const Entry& entry) {
    if (count_ == capacity_ && !grow()) return false;
    data()[count_++] = entry;
    return true;
  }
  bool pop(Entry* entry) {
    if (count_ == 0) return false;
    *entry = data()[--count_];
    return true;
  }

 private:
  Entry* data() { return spill_ ? spill_.get() : inline_; }
  bool grow() {
    Pool<Entry> bigger = Pool<Entry>::zeroed(capacity_ * 2);
    if (!bigger) return false;
    tvl::rt::copyMem(bigger.get(), data(), count_ * sizeof(Entry));
    spill_ = static_cast<Pool<Entry>&&>(bigger);
    capacity_ *= 2;
    return true;
  }

  Entry inline_[tvl::xml::kNodeWalkInlineDepth];
  Pool<Entry> spill_;
  UINTN capacity_ = tvl::xml::kNodeWalkInlineDepth;
  UINTN count_ = 0;
};

// The first node in document order, from `start` through its descendants
// and its following siblings with theirs, for which `match` holds.
template <typename Match>
EFI_STATUS findFirst(XML_NODE* start, XML_NODE** out, Match match) {
  WalkStack<XML_NODE*> resumeAfter;
  XML_NODE* node = start;
  while (node) {
    if (match(node)) {
      *out = node;
      return EFI_SUCCESS;
    }
    if (node->children) {
      if (node->next && !resumeAfter.push(node)) return EFI_OUT_OF_RESOURCES;
      node = node->children;
    } else if (node->next) {
      node = node->next;
    } else {
      XML_NODE* parentLevel = nullptr;
      node = resumeAfter.pop(&parentLevel) ? parentLevel->next : nullptr;
    }
  }
  return EFI_NOT_FOUND;
}

bool named(const XML_NODE* node, const CHAR8* name) { return node->name && tvl::rt::equal(node->name, name); }

// One node's copy: name, contents and attributes, nothing linked.
EFI_STATUS copyNode(const XML_NODE* source, XML_NODE** copy) {
  XML_NODE* node = nullptr;
  RETURN_IF_ERROR(source->contents ? createNodeWithString(source->name, source->contents, &node)
                                   : createNode(source->name, &node));
  for (const XML_ATTRIBUTE* attribute = source->attributes; attribute; attribute = attribute->next) {
    EFI_STATUS status = addAttribute(attribute->name, attribute->value, &node);
    if (EFI_ERROR(status)) {
      freeNode(node);
      return status;
    }
  }
  *copy = node;
  return EFI_SUCCESS;
}

// The bytes that start a row's search text, one bit each: raw texts when
// escaping, escaped ones when unescaping. The table is a constant, so the
// sets are made when compiling.
struct FirstBytes {
  UINT64 bits[4];
  constexpr bool has(UINT8 c) const { return (bits[c >> 6] >> (c & 63)) & 1; }
};
constexpr FirstBytes firstBytes(bool escape) {
  FirstBytes set{};
  for (const XML_ESCAPE_ROW* row = XmlEscapeTable; row->raw && row->escaped; ++row) {
    if (row->flag != 1) continue;
    const auto first = static_cast<UINT8>((escape ? row->raw : row->escaped)[0]);
    set.bits[first >> 6] |= UINT64(1) << (first & 63);
  }
  return set;
}
constexpr FirstBytes kEscapeFirsts = firstBytes(true);
constexpr FirstBytes kUnescapeFirsts = firstBytes(false);

// Whether `text` holds the first character of a text that replaceEach
// searches for. Most contents hold none, and then one pass over them saves
// a search per row.
bool mayMatchARow(const CHAR8* text, bool escape) {
  if (!text) return true;  // replaceAll refuses it, as before
  const FirstBytes& firsts = escape ? kEscapeFirsts : kUnescapeFirsts;
  for (; *text; ++text)
    if (firsts.has(static_cast<UINT8>(*text))) return true;
  return false;
}

bool mayMatchEither(const CHAR8* text) {
  for (; *text; ++text) {
    const auto c = static_cast<UINT8>(*text);
    if (kEscapeFirsts.has(c) || kUnescapeFirsts.has(c)) return true;
  }
  return false;
}

void replaceEach(CHAR8** text, bool escape) {
  if (text && !mayMatchARow(*text, escape)) return;
  for (const XML_ESCAPE_ROW* row = XmlEscapeTable; row->raw && row->escaped; ++row) {
    if (row->flag != 1) continue;
    if (escape)
      replaceAll(row->raw, row->escaped, text);
    else
      replaceAll(row->escaped, row->raw, text);
  }
}

}  // namespace

extern "C" {

EFI_STATUS createNode(const CHAR8* name, XML_NODE** out) {
  tvl::trace(TVL_LEVEL_TOOLBOX, "createNode", u"createNode, name: %a\n", name);
  if (!name || !out) return EFI_INVALID_PARAMETER;
  if (!XMLProtocol) return EFI_NOT_READY;
  XML_NODE* node = nullptr;
  RETURN_IF_ERROR(XMLProtocol->XML_CreateNode(XMLProtocol, name, &node));
  node->attributes = nullptr;
  node->parent = nullptr;
  node->children = nullptr;
  node->next = nullptr;
  *out = node;
  return EFI_SUCCESS;
}

EFI_STATUS createNodeWithString(const CHAR8* name, const CHAR8* contents, XML_NODE** out) {
  tvl::trace(TVL_LEVEL_TOOLBOX, "createNodeWithString", u"createNodeWithString, name: %a\n", name);
  if (!name || !contents || !out) return EFI_INVALID_PARAMETER;
  XML_NODE* node = nullptr;
  RETURN_IF_ERROR(createNode(name, &node));
  Pool<CHAR8> copy = tvl::rt::duplicate(contents);
  if (!copy) {
    freeNode(node);
    return EFI_OUT_OF_RESOURCES;
  }
  node->contents = copy.release();
  escapeXmlText(&node->contents);
  *out = node;
  return EFI_SUCCESS;
}

EFI_STATUS freeNode(XML_NODE* node) {
  if (!node) return EFI_INVALID_PARAMETER;
  if (!XMLProtocol) return EFI_NOT_READY;
  RETURN_IF_ERROR(XMLProtocol->XML_FreeNode(XMLProtocol, node));
  return EFI_SUCCESS;
}

XML_ATTRIBUTE* newAttribute(const CHAR8* name, const CHAR8* value) {
  if (!name || !value) return nullptr;
  Pool<XML_ATTRIBUTE> attribute = Pool<XML_ATTRIBUTE>::zeroed();
  if (!attribute) return nullptr;
  Pool<CHAR8> nameCopy = tvl::rt::duplicate(name);
  if (!nameCopy) return nullptr;
  Pool<CHAR8> valueCopy = tvl::rt::duplicate(value);
  if (!valueCopy) return nullptr;
  attribute->name = nameCopy.release();
  attribute->value = valueCopy.release();
  return attribute.release();
}

EFI_STATUS addAttribute(const CHAR8* name, const CHAR8* value, XML_NODE** node) {
  if (!node || !*node || !name || !value) return EFI_INVALID_PARAMETER;
  XML_ATTRIBUTE** tail = &(*node)->attributes;
  for (; *tail; tail = &(*tail)->next)
    if (tvl::rt::equal((*tail)->name, name) && tvl::rt::equal((*tail)->value, value)) return EFI_SUCCESS;
  *tail = newAttribute(name, value);
  return *tail ? EFI_SUCCESS : EFI_OUT_OF_RESOURCES;
}

EFI_STATUS addNumericAttribute(const CHAR8* name, UINT64 number, XML_NODE** node) {
  if (!node || !*node || !name) return EFI_INVALID_PARAMETER;
  Pool<CHAR8> text(numberToDecimalText(number));
  if (!text) return EFI_INVALID_PARAMETER;
  XML_ATTRIBUTE** tail = &(*node)->attributes;
  while (*tail) tail = &(*tail)->next;
  *tail = newAttribute(name, text.get());
  return *tail ? EFI_SUCCESS : EFI_OUT_OF_RESOURCES;
}

// Copies in document order: each node is linked into the copy as soon as
// it is made (as its parent copy's first child or its previous sibling
// copy's next), so a failure part way leaves a well-formed partial copy
// that the caller frees from `*out`.
EFI_STATUS copyNodeTree(XML_NODE* source, XML_NODE** out) {
  if (!source) return EFI_NOT_FOUND;
  if (!out) return EFI_INVALID_PARAMETER;
  struct Pending {
    const XML_NODE* source;  // its next sibling is still to be copied
    XML_NODE* copy;
  };
  WalkStack<Pending> resumeAfter;
  const XML_NODE* node = source;
  XML_NODE** slot = out;
  while (node) {
    XML_NODE* copy = nullptr;
    RETURN_IF_ERROR(copyNode(node, &copy));
    *slot = copy;
    if (node->children) {
      if (node->next && !resumeAfter.push({node, copy})) return EFI_OUT_OF_RESOURCES;
      node = node->children;
      slot = &copy->children;
    } else if (node->next) {
      node = node->next;
      slot = &copy->next;
    } else {
      Pending parentLevel{};
      if (!resumeAfter.pop(&parentLevel)) break;
      node = parentLevel.source->next;
      slot = &parentLevel.copy->next;
    }
  }
  return EFI_SUCCESS;
}

EFI_STATUS findNodeByName(const CHAR8* name, XML_NODE* start, XML_NODE** out) {
  if (!start || !name || !out) return EFI_INVALID_PARAMETER;
  return findFirst(start, out, [&](const XML_NODE* node) { return named(node, name); });
}

EFI_STATUS findNodeByChildContents(const CHAR8* contents, const CHAR8* name, XML_NODE* start, XML_NODE** out) {
  if (!start || !contents || !out) return EFI_INVALID_PARAMETER;
  return findFirst(start, out, [&](const XML_NODE* node) {
    const XML_NODE* first = node->children;
    return named(node, name) && first && first->contents && tvl::rt::equal(first->contents, contents);
  });
}

EFI_STATUS findNodeByNameAndContents(const CHAR8* name, const CHAR8* contents, XML_NODE* start, XML_NODE** out) {
  if (!start || !name || !contents || !out) return EFI_INVALID_PARAMETER;
  return findFirst(start, out, [&](const XML_NODE* node) {
    return named(node, name) && node->contents && tvl::rt::equal(node->contents, contents);
  });
}

EFI_STATUS getAttributeValue(XML_NODE* node, const CHAR8* name, CHAR8** out) {
  if (!node || !node->attributes) return EFI_NOT_FOUND;
  if (!out) return EFI_INVALID_PARAMETER;
  for (XML_ATTRIBUTE* attribute = node->attributes; attribute; attribute = attribute->next) {
    if (attribute->name && tvl::rt::equal(attribute->name, name)) {
      *out = attribute->value;
      return EFI_SUCCESS;
    }
  }
  return EFI_NOT_FOUND;
}

BOOLEAN hasAttribute(XML_NODE* node, const CHAR8* name) {
  if (!node) return FALSE;
  for (const XML_ATTRIBUTE* attribute = node->attributes; attribute; attribute = attribute->next)
    if (attribute->name && tvl::rt::equal(attribute->name, name)) return TRUE;
  return FALSE;
}

UINTN countValueStructs(XML_NODE* node) {
  UINTN count = 0;
  for (; node; node = node->next)
    if (named(node, kValueStructName)) ++count;
  return count;
}

VOID unescapeXmlText(CHAR8** text) { replaceEach(text, false); }

VOID escapeXmlText(CHAR8** text) {
  // A text that holds no first byte of either direction's rows (nearly
  // every text) stays as it is through both passes: one look settles it.
  if (text && *text && !mayMatchEither(*text)) return;
  replaceEach(text, false);
  replaceEach(text, true);
}

}  // extern "C"
