#include "services/xml/writer.h"

#include "services/xml/buffer.h"
#include "services/xml/text.h"

namespace tvl::xmlsvc {
namespace {

const UINT8* bytesOf(const CHAR8* text) { return reinterpret_cast<const UINT8*>(text); }

// Length of `name` when the whole text is an XML Name, else 0: one pass
// that both measures and checks (the terminator ends any name).
UINTN nameLength(const CHAR8* name) {
  if (!name) return 0;
  const UINTN length = scanName(bytesOf(name), ~UINTN(0));
  return name[length] == '\0' ? length : 0;
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

// Bytes written as they are: printable ASCII other than the markup
// characters, in contents and (without the quote) in attribute values.
struct PlainBytes {
  UINT8 bits[0x100];
};
constexpr UINT8 kPlainInContents = 1;
constexpr UINT8 kPlainInAttribute = 2;
constexpr PlainBytes plainBytes() {
  PlainBytes plain{};
  for (UINT32 b = 0x20; b < 0x80; ++b) {
    if (b == '&' || b == '<' || b == '>') continue;
    plain.bits[b] = UINT8(kPlainInContents | (b == '"' ? 0 : kPlainInAttribute));
  }
  return plain;
}
inline constexpr PlainBytes kPlainBytes = plainBytes();

// Attribute names are checked for repeats pairwise up to this many; more
// go through a hash set, which stays linear.
constexpr UINTN kPairwiseAttributes = 8;

class Writer {
 public:
  EFI_STATUS run(const XML_NODE* root, CHAR8** text);

 private:
  // An element whose end tag is still to come, with its name's length.
  struct Open {
    const XML_NODE* node;
    UINTN nameLength;
  };
  EFI_STATUS walk(const XML_NODE* root, ChunkBuffer& sink);
  EFI_STATUS openElement(const XML_NODE* node, UINTN nameLength, ChunkBuffer& sink);
  EFI_STATUS closeElement(const XML_NODE* node, UINTN nameLength, ChunkBuffer& sink);
  EFI_STATUS attributes(const XML_NODE* node, ChunkBuffer& sink);
  EFI_STATUS repeatedNames(const XML_NODE* node, UINTN count);
  EFI_STATUS characters(const CHAR8* text, bool attribute, ChunkBuffer& sink);
  // Markup of the writer's own, measured when compiled.
  template <UINTN N>
  static EFI_STATUS put(ChunkBuffer& sink, const CHAR8 (&markup)[N]) {
    return sink.append(markup, N - 1) ? EFI_SUCCESS : EFI_OUT_OF_RESOURCES;
  }
  static EFI_STATUS putText(ChunkBuffer& sink, const CHAR8* text) {
    return sink.append(text, tvl::rt::length(text)) ? EFI_SUCCESS : EFI_OUT_OF_RESOURCES;
  }
  static EFI_STATUS put(ChunkBuffer& sink, const void* bytes, UINTN n) {
    return sink.append(bytes, n) ? EFI_SUCCESS : EFI_OUT_OF_RESOURCES;
  }

  NameSet names_;
  Stack<Open> open_;  // elements whose children are being written
};

EFI_STATUS Writer::characters(const CHAR8* text, bool attribute, ChunkBuffer& sink) {
  const UINT8* s = bytesOf(text);
  const UINT8 plain = attribute ? kPlainInAttribute : kPlainInContents;
  // Where the text ends, measured once when a reference or a multi-byte
  // character first needs to know how much follows.
  const UINT8* end = nullptr;
  const auto rest = [&] {
    if (!end) end = s + tvl::rt::length(reinterpret_cast<const CHAR8*>(s));
    return UINTN(end - s);
  };
  for (;;) {
    // Copy the longest run that needs nothing (the terminator ends it),
    // then deal with one byte.
    UINTN run = 0;
    while (kPlainBytes.bits[s[run]] & plain) ++run;
    RETURN_IF_ERROR(put(sink, s, run));
    s += run;
    const UINT8 b = *s;
    if (b == '\0') return EFI_SUCCESS;
    if (b == '&' && !attribute) {
      UINTN n = referenceLength(s, rest());
      RETURN_IF_ERROR(n ? put(sink, s, n) : put(sink, "&amp;"));
      s += n ? n : 1;
      continue;
    }
    const CHAR8* escape = attribute ? attributeEscape(b) : contentsEscape(b);
    if (escape) {
      RETURN_IF_ERROR(putText(sink, escape));
      ++s;
      continue;
    }
    UINT32 cp;
    UINTN n = decodeUtf8(s, rest(), &cp);
    if (n == 0 || !isXmlChar(cp)) return EFI_INVALID_PARAMETER;
    RETURN_IF_ERROR(put(sink, s, n));
    s += n;
  }
}

// EFI_INVALID_PARAMETER when two of the node's `count` attributes share
// a name (their names are known to be valid).
EFI_STATUS Writer::repeatedNames(const XML_NODE* node, UINTN count) {
  if (count <= kPairwiseAttributes) {
    for (const XML_ATTRIBUTE* a = node->attributes; a; a = a->next)
      for (const XML_ATTRIBUTE* b = a->next; b; b = b->next)
        if (tvl::rt::equal(a->name, b->name)) return EFI_INVALID_PARAMETER;
    return EFI_SUCCESS;
  }
  names_.clear();
  for (const XML_ATTRIBUTE* a = node->attributes; a; a = a->next) {
    switch (names_.add(bytesOf(a->name), tvl::rt::length(a->name))) {
      case NameSet::kAdded: break;
      case NameSet::kRepeated: return EFI_INVALID_PARAMETER;
      case NameSet::kNoMemory: return EFI_OUT_OF_RESOURCES;
    }
  }
  return EFI_SUCCESS;
}

EFI_STATUS Writer::attributes(const XML_NODE* node, ChunkBuffer& sink) {
  UINTN count = 0;
  for (const XML_ATTRIBUTE* a = node->attributes; a; a = a->next, ++count) {
    const UINTN length = nameLength(a->name);
    if (length == 0 || !a->value) return EFI_INVALID_PARAMETER;
    RETURN_IF_ERROR(put(sink, " "));
    RETURN_IF_ERROR(put(sink, a->name, length));
    RETURN_IF_ERROR(put(sink, "=\""));
    RETURN_IF_ERROR(characters(a->value, true, sink));
    RETURN_IF_ERROR(put(sink, "\""));
  }
  return count < 2 ? EFI_SUCCESS : repeatedNames(node, count);
}

// Writes the start tag and the contents; an element with neither contents
// nor children is written as an empty-element tag and is complete.
EFI_STATUS Writer::openElement(const XML_NODE* node, UINTN nameLength, ChunkBuffer& sink) {
  if (nameLength == 0) return EFI_INVALID_PARAMETER;
  RETURN_IF_ERROR(put(sink, "<"));
  RETURN_IF_ERROR(put(sink, node->name, nameLength));
  RETURN_IF_ERROR(attributes(node, sink));
  if (!node->contents && !node->children) return put(sink, "/>");
  RETURN_IF_ERROR(put(sink, ">"));
  if (node->contents) RETURN_IF_ERROR(characters(node->contents, false, sink));
  return EFI_SUCCESS;
}

EFI_STATUS Writer::closeElement(const XML_NODE* node, UINTN nameLength, ChunkBuffer& sink) {
  if (!node->contents && !node->children) return EFI_SUCCESS;
  RETURN_IF_ERROR(put(sink, "</"));
  RETURN_IF_ERROR(put(sink, node->name, nameLength));
  return put(sink, ">");
}

EFI_STATUS Writer::walk(const XML_NODE* root, ChunkBuffer& sink) {
  const XML_NODE* node = root;
  for (;;) {
    const UINTN length = nameLength(node->name);
    RETURN_IF_ERROR(openElement(node, length, sink));
    if (node->children) {
      if (!open_.push(Open{node, length})) return EFI_OUT_OF_RESOURCES;
      node = node->children;
      continue;
    }
    RETURN_IF_ERROR(closeElement(node, length, sink));
    // Climb until an element with a following sibling is found; the root's
    // own siblings are not part of the document.
    while (!open_.empty() && !node->next) {
      const Open parent = open_.top();
      open_.pop();
      node = parent.node;
      RETURN_IF_ERROR(closeElement(node, parent.nameLength, sink));
    }
    if (open_.empty()) return EFI_SUCCESS;
    node = node->next;
  }
}

// One walk of the tree, its bytes appended to chunks that never move, then
// joined into a text of exactly the document's size. Walking a large tree
// is bound by the misses of reaching each node and its texts, so a walk
// that only counted the bytes first cost more than one copy of the text.
// A single buffer that doubled as it filled would copy the text about
// twice over on the way, and hand out up to twice the document's size.
EFI_STATUS Writer::run(const XML_NODE* root, CHAR8** text) {
  ChunkBuffer sink;
  RETURN_IF_ERROR(walk(root, sink));
  tvl::rt::Pool<CHAR8> result = sink.join();
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
