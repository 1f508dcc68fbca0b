#include "services/xml/writer.h"

#include "services/xml/buffer.h"
#include "services/xml/text.h"

namespace tvl::xmlsvc {
namespace {

const UINT8* bytesOf(const CHAR8* text) { return reinterpret_cast<const UINT8*>(text); }

bool validName(const CHAR8* name) {
  if (!name) return false;
  UINTN length = tvl::rt::length(name);
  return length != 0 && scanName(bytesOf(name), length) == length;
}

// Length of the well-formed reference that starts at the "&" at `s`, or 0.
UINTN referenceLength(const UINT8* s, UINTN avail) {
  if (avail >= 2 && s[1] == '#') {
    UINT32 cp;
    UINTN n = scanCharReference(s + 2, avail - 2, &cp);
    return n != 0 && isXmlChar(cp) ? n + 2 : 0;
  }
  UINTN name = scanName(s + 1, avail - 1);
  if (name == 0 || 1 + name >= avail || s[1 + name] != ';') return 0;
  return predefinedEntity(s + 1, name) ? name + 2 : 0;
}

// Replacement text of a character in element contents, or null when it is
// written as it is. Contents are escaped already, so "&" is handled apart.
const CHAR8* contentsEscape(UINT8 b) {
  switch (b) {
    case '<': return "&lt;";
    case '>': return "&gt;";
    case '\r': return "&#13;";  // a literal CR would be read back as LF
    default: return nullptr;
  }
}

// Replacement text of a character in an attribute value (plain text).
// Tab, LF and CR are written as references because a reader turns the
// literal characters into spaces.
const CHAR8* attributeEscape(UINT8 b) {
  switch (b) {
    case '&': return "&amp;";
    case '<': return "&lt;";
    case '>': return "&gt;";
    case '"': return "&quot;";
    case '\t': return "&#9;";
    case '\n': return "&#10;";
    case '\r': return "&#13;";
    default: return nullptr;
  }
}

class Writer {
 public:
  EFI_STATUS run(const XML_NODE* root, CHAR8** text);

 private:
  EFI_STATUS walk(const XML_NODE* root, ByteBuffer& sink);
  EFI_STATUS openElement(const XML_NODE* node, ByteBuffer& sink);
  EFI_STATUS closeElement(const XML_NODE* node, ByteBuffer& sink);
  EFI_STATUS attributes(const XML_NODE* node, ByteBuffer& sink);
  EFI_STATUS characters(const CHAR8* text, bool attribute, ByteBuffer& sink);
  static EFI_STATUS put(ByteBuffer& sink, const CHAR8* text) {
    return sink.append(text, tvl::rt::length(text)) ? EFI_SUCCESS : EFI_OUT_OF_RESOURCES;
  }
  static EFI_STATUS put(ByteBuffer& sink, const void* bytes, UINTN n) {
    return sink.append(bytes, n) ? EFI_SUCCESS : EFI_OUT_OF_RESOURCES;
  }

  NameSet names_;
  Stack<const XML_NODE*> open_;  // elements whose children are being written
};

EFI_STATUS Writer::characters(const CHAR8* text, bool attribute, ByteBuffer& sink) {
  const UINT8* s = bytesOf(text);
  UINTN length = tvl::rt::length(text);
  UINTN pos = 0;
  while (pos < length) {
    // Copy the longest run that needs nothing, then deal with one byte.
    UINTN run = pos;
    while (run < length && s[run] >= 0x20 && s[run] < 0x80 && s[run] != '&' && s[run] != '<' && s[run] != '>' &&
           !(attribute && s[run] == '"'))
      ++run;
    RETURN_IF_ERROR(put(sink, s + pos, run - pos));
    pos = run;
    if (pos == length) break;
    UINT8 b = s[pos];
    if (b == '&' && !attribute) {
      UINTN n = referenceLength(s + pos, length - pos);
      RETURN_IF_ERROR(n ? put(sink, s + pos, n) : put(sink, "&amp;"));
      pos += n ? n : 1;
      continue;
    }
    const CHAR8* escape = attribute ? attributeEscape(b) : contentsEscape(b);
    if (escape) {
      RETURN_IF_ERROR(put(sink, escape));
      ++pos;
      continue;
    }
    UINT32 cp;
    UINTN n = decodeUtf8(s + pos, length - pos, &cp);
    if (n == 0 || !isXmlChar(cp)) return EFI_INVALID_PARAMETER;
    RETURN_IF_ERROR(put(sink, s + pos, n));
    pos += n;
  }
  return EFI_SUCCESS;
}

EFI_STATUS Writer::attributes(const XML_NODE* node, ByteBuffer& sink) {
  names_.clear();
  for (const XML_ATTRIBUTE* a = node->attributes; a; a = a->next) {
    if (!validName(a->name) || !a->value) return EFI_INVALID_PARAMETER;
    switch (names_.add(bytesOf(a->name), tvl::rt::length(a->name))) {
      case NameSet::kAdded: break;
      case NameSet::kRepeated: return EFI_INVALID_PARAMETER;
      case NameSet::kNoMemory: return EFI_OUT_OF_RESOURCES;
    }
    RETURN_IF_ERROR(put(sink, " "));
    RETURN_IF_ERROR(put(sink, a->name));
    RETURN_IF_ERROR(put(sink, "=\""));
    RETURN_IF_ERROR(characters(a->value, true, sink));
    RETURN_IF_ERROR(put(sink, "\""));
  }
  return EFI_SUCCESS;
}

// Writes the start tag and the contents; an element with neither contents
// nor children is written as an empty-element tag and is complete.
EFI_STATUS Writer::openElement(const XML_NODE* node, ByteBuffer& sink) {
  if (!validName(node->name)) return EFI_INVALID_PARAMETER;
  RETURN_IF_ERROR(put(sink, "<"));
  RETURN_IF_ERROR(put(sink, node->name));
  RETURN_IF_ERROR(attributes(node, sink));
  if (!node->contents && !node->children) return put(sink, "/>");
  RETURN_IF_ERROR(put(sink, ">"));
  if (node->contents) RETURN_IF_ERROR(characters(node->contents, false, sink));
  return EFI_SUCCESS;
}

EFI_STATUS Writer::closeElement(const XML_NODE* node, ByteBuffer& sink) {
  if (!node->contents && !node->children) return EFI_SUCCESS;
  RETURN_IF_ERROR(put(sink, "</"));
  RETURN_IF_ERROR(put(sink, node->name));
  return put(sink, ">");
}

EFI_STATUS Writer::walk(const XML_NODE* root, ByteBuffer& sink) {
  const XML_NODE* node = root;
  for (;;) {
    RETURN_IF_ERROR(openElement(node, sink));
    if (node->children) {
      if (!open_.push(node)) return EFI_OUT_OF_RESOURCES;
      node = node->children;
      continue;
    }
    RETURN_IF_ERROR(closeElement(node, sink));
    // Climb until an element with a following sibling is found; the root's
    // own siblings are not part of the document.
    while (!open_.empty() && !node->next) {
      node = open_.top();
      open_.pop();
      RETURN_IF_ERROR(closeElement(node, sink));
    }
    if (open_.empty()) return EFI_SUCCESS;
    node = node->next;
  }
}

// The writer's bytes go to one buffer that doubles as it fills: a single
// walk of the tree. Walking a large tree is bound by the misses of reaching
// each node and its texts, so a walk that only counted the bytes first cost
// more than the few copies that doubling makes; the price is a buffer up to
// twice the document's size, which is handed out as it is.
EFI_STATUS Writer::run(const XML_NODE* root, CHAR8** text) {
  ByteBuffer sink;
  RETURN_IF_ERROR(walk(root, sink));
  tvl::rt::Pool<CHAR8> result = sink.take();
  if (!result) return EFI_OUT_OF_RESOURCES;
  *text = result.release();
  return EFI_SUCCESS;
}

}  // namespace

EFI_STATUS writeTree(const XML_NODE* root, CHAR8** text) {
  if (!root || !text) return EFI_INVALID_PARAMETER;
  Writer writer;
  return writer.run(root, text);
}

}  // namespace tvl::xmlsvc
