// The node toolbox: creation, release, text contents, attributes, copying
// and searching of XML_NODE trees. Nodes are created and freed by the XML
// service (XMLProtocol); everything a node carries besides its name
// (contents, attribute records and their texts) is a boot-services pool
// allocation that the node owns and that the XML service releases with it.
//
// Contents are kept XML-escaped ("&", "<", ">"); attribute values are kept
// as given. All name, contents and attribute comparisons are exact,
// case-sensitive comparisons of whole texts. Query results point into their
// trees and are never freed by the caller.
//
// The walks are iterative: a chain of any number of siblings costs no
// stack, and nesting up to kNodeWalkInlineDepth levels costs no pool memory.
#pragma once

#include "uefi/services.h"

// The characters that contents escape, in the order in which they are
// escaped and unescaped; the all-null row ends the table.
struct XML_ESCAPE_ROW {
  const CHAR8* raw;
  const CHAR8* escaped;
  UINTN flag;  // 1: the row takes part
};
inline constexpr XML_ESCAPE_ROW XmlEscapeTable[] = {
    {"&", "&amp;", 1},
    {"<", "&lt;", 1},
    {">", "&gt;", 1},
    {nullptr, nullptr, 0},
};

namespace tvl::xml {
constexpr UINTN kNodeWalkInlineDepth = 32;
}

extern "C" {

// A new node named `name` with no attributes, parent, children or next
// sibling. The XML service's status is passed through.
EFI_STATUS createNode(const CHAR8* name, XML_NODE** out);

// As createNode, with `contents` stored as an escaped private copy: raw
// characters are escaped, text that is already escaped stays as it is.
EFI_STATUS createNodeWithString(const CHAR8* name, const CHAR8* contents, XML_NODE** out);

// Releases the tree below and behind `node` through the XML service.
EFI_STATUS freeNode(XML_NODE* node);

// A new attribute record with pool copies of both texts, or null.
XML_ATTRIBUTE* newAttribute(const CHAR8* name, const CHAR8* value);

// Appends name="value" to the node's attributes unless that exact pair is
// already there. The same name with another value is appended again.
EFI_STATUS addAttribute(const CHAR8* name, const CHAR8* value, XML_NODE** node);

// Appends name="decimal text of number", with no duplicate test.
EFI_STATUS addNumericAttribute(const CHAR8* name, UINT64 number, XML_NODE** node);

// A deep copy of `source`, its descendants and its following siblings with
// their descendants. Parents stay null. A failure while copying children or
// siblings leaves the partial copy in `*out` (the caller frees it); a
// failure on the source node itself leaves `*out` untouched.
EFI_STATUS copyNodeTree(XML_NODE* source, XML_NODE** out);

// The finders return the first match in document order among `start`, its
// descendants and its following siblings with their descendants; ancestors
// and their later siblings are never visited.
// Match: the node's name equals `name`.
EFI_STATUS findNodeByName(const CHAR8* name, XML_NODE* start, XML_NODE** out);
// Match: the node's name equals `name` and its first child carries
// `contents`.
EFI_STATUS findNodeByChildContents(const CHAR8* contents, const CHAR8* name, XML_NODE* start, XML_NODE** out);
// Match: the node's name equals `name` and its own contents equal
// `contents`.
EFI_STATUS findNodeByNameAndContents(const CHAR8* name, const CHAR8* contents, XML_NODE* start, XML_NODE** out);

// The value of the node's first attribute named `name`, shared with the
// tree.
EFI_STATUS getAttributeValue(XML_NODE* node, const CHAR8* name, CHAR8** out);
BOOLEAN hasAttribute(XML_NODE* node, const CHAR8* name);

// Number of nodes named "ValueStruct" along the next chain from `node`
// itself; children are not visited.
UINTN countValueStructs(XML_NODE* node);

// Normalise a pool text in place (it may be replaced by a new allocation):
// unescapeXmlText turns escaped forms back into raw characters;
// escapeXmlText unescapes and then escapes, so escaped text stays, raw text
// is escaped and a mixture comes out fully escaped.
VOID escapeXmlText(CHAR8** text);
VOID unescapeXmlText(CHAR8** text);

}  // extern "C"
