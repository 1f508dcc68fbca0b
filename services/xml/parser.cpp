#include "services/xml/parser.h"

#include "services/xml/buffer.h"
#include "services/xml/text.h"
#include "services/xml/tree.h"
#include "uefi/print.h"

namespace tvl::xmlsvc {
namespace {

using tvl::rt::Pool;

// Longest piece of a name quoted in an error message.
constexpr UINTN kQuoted = 40;

UINTN quoted(UINTN length) { return length < kQuoted ? length : kQuoted; }

UINTN EFIAPI formatText(CHAR8* out, UINTN capacity, const CHAR8* format, ...) {
  tvl::rt::VaList args;
  __builtin_ms_va_start(args, format);
  UINTN n = tvl::rt::formatV(out, capacity, format, &args);
  __builtin_ms_va_end(args);
  return n;
}

bool equalsIgnoringCase(const UINT8* s, UINTN length, const CHAR8* literal) {
  UINTN i = 0;
  for (; i < length && literal[i]; ++i) {
    UINT8 a = s[i], b = UINT8(literal[i]);
    if (a >= 'A' && a <= 'Z') a = UINT8(a - 'A' + 'a');
    if (b >= 'A' && b <= 'Z') b = UINT8(b - 'A' + 'a');
    if (a != b) return false;
  }
  return i == length && literal[i] == 0;
}

// One open element: its node, its last child so far, where its text starts
// in the scratch buffer, and where the text since its last child starts.
// That last piece is dropped when it turns out to be nothing but layout
// whitespace between or after child elements.
struct Frame {
  XML_NODE* node;
  XML_NODE* lastChild;
  UINTN textStart;
  UINTN segmentStart;
  bool segmentBlank;
};

class Parser {
 public:
  Parser(const CHAR8* text, UINTN length, const XML_LIMITS& limits, XML_PARSE_ERROR* error)
      : text_(reinterpret_cast<const UINT8*>(text)), length_(length), limits_(limits), error_(error) {}
  ~Parser() { freeTree(root_); }
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;

  EFI_STATUS run();
  XML_NODE* takeRoot() {
    XML_NODE* root = root_;
    root_ = nullptr;
    return root;
  }

 private:
  // ---- cursor over [0, length_); nothing past the end is ever read
  bool atEnd() const { return pos_ >= length_; }
  int peek(UINTN ahead = 0) const { return pos_ < length_ && ahead < length_ - pos_ ? text_[pos_ + ahead] : -1; }
  bool startsWith(const CHAR8* literal) const {
    UINTN n = tvl::rt::length(literal);
    return n <= length_ - pos_ && tvl::rt::compareMem(text_ + pos_, literal, n) == 0;
  }
  bool skipSpace() {
    UINTN start = pos_;
    while (pos_ < length_ && isSpace(text_[pos_])) ++pos_;
    return pos_ != start;
  }
  UINTN nameHere() const { return scanName(text_ + pos_, length_ - pos_); }
  const CHAR8* at(UINTN offset) const { return reinterpret_cast<const CHAR8*>(text_ + offset); }
  bool bytesEqual(UINTN offset, UINTN length, const CHAR8* literal) const {
    return length == tvl::rt::length(literal) && tvl::rt::compareMem(text_ + offset, literal, length) == 0;
  }

  EFI_STATUS EFIAPI fail(UINTN offset, EFI_STATUS status, const CHAR8* format, ...);
  EFI_STATUS outOfMemory(UINTN offset) { return fail(offset, EFI_OUT_OF_RESOURCES, "out of memory"); }
  EFI_STATUS malformed(UINTN offset, const CHAR8* message) { return fail(offset, EFI_INVALID_PARAMETER, "%a", message); }

  EFI_STATUS checkCharacters();
  EFI_STATUS prolog();
  EFI_STATUS epilog();
  EFI_STATUS content();
  EFI_STATUS xmlDeclaration();
  EFI_STATUS pseudoAttribute(const CHAR8* name, bool* present, UINTN* valueStart, UINTN* valueLength);
  EFI_STATUS comment();
  EFI_STATUS processingInstruction();
  EFI_STATUS startTag();
  EFI_STATUS attributes(XML_NODE* node);
  EFI_STATUS attributeValue(UINT8 quote);
  EFI_STATUS endTag();
  EFI_STATUS characterData();
  EFI_STATUS cdata();
  EFI_STATUS reference(UINT32* cp);
  bool appendEscaped(UINT32 cp);
  bool appendEscapedByte(UINT8 b);
  bool appendUtf8(UINT32 cp);
  void link(XML_NODE* node);
  void childClosed();

  const UINT8* text_;
  UINTN length_;
  UINTN pos_ = 0;
  XML_LIMITS limits_;
  XML_PARSE_ERROR* error_;
  XML_NODE* root_ = nullptr;
  Stack<Frame> frames_;
  ByteBuffer scratch_;  // texts of the open elements, innermost last
  NameSet names_;
};

EFI_STATUS EFIAPI Parser::fail(UINTN offset, EFI_STATUS status, const CHAR8* format, ...) {
  if (!error_) return status;
  if (offset > length_) offset = length_;
  UINTN line = 1, lineStart = 0;
  for (UINTN i = 0; i < offset; ++i) {
    UINT8 b = text_[i];
    if (b == '\n' || (b == '\r' && (i + 1 >= length_ || text_[i + 1] != '\n'))) {
      ++line;
      lineStart = i + 1;
    }
  }
  error_->Line = line;
  error_->Column = offset - lineStart + 1;
  error_->Offset = offset;
  const UINTN capacity = sizeof(error_->Message);
  UINTN n = formatText(error_->Message, capacity, "line %ld, column %ld: ", line, error_->Column);
  tvl::rt::VaList args;
  __builtin_ms_va_start(args, format);
  tvl::rt::formatV(error_->Message + n, capacity - n, format, &args);
  __builtin_ms_va_end(args);
  return status;
}

EFI_STATUS Parser::run() {
  if (error_) tvl::rt::setMem(error_, sizeof(*error_), 0);
  if (length_ > limits_.MaxInputBytes)
    return fail(limits_.MaxInputBytes, EFI_BAD_BUFFER_SIZE, "text of %ld bytes is over the limit of %ld bytes",
                length_, limits_.MaxInputBytes);
  RETURN_IF_ERROR(checkCharacters());
  if (startsWith("\xEF\xBB\xBF")) pos_ += 3;  // byte order mark
  RETURN_IF_ERROR(prolog());
  RETURN_IF_ERROR(content());
  return epilog();
}

// One pass over the whole text before any structure is read: NUL bytes,
// malformed UTF-8 and characters outside XML 1.0 are refused wherever they
// are, so the rest of the parser may treat any byte as a valid character.
EFI_STATUS Parser::checkCharacters() {
  // Eight bytes at a time while they are all printable ASCII (0x20-0x7F):
  // no high bit set, and no byte below 0x20.
  constexpr UINT64 kOnes = 0x0101010101010101ull, kHighBits = 0x8080808080808080ull;
  UINTN pos = 0;
  while (pos < length_) {
    while (length_ - pos >= 8) {
      UINT64 word;
      __builtin_memcpy(&word, text_ + pos, 8);
      if ((word & kHighBits) != 0 || ((word - 0x20 * kOnes) & ~word & kHighBits) != 0) break;
      pos += 8;
    }
    if (pos >= length_) break;
    UINT8 b = text_[pos];
    if (b >= 0x20 && b < 0x80) {
      ++pos;
      continue;
    }
    if (b == 0) return malformed(pos, "NUL byte in the text");
    UINT32 cp;
    UINTN n = decodeUtf8(text_ + pos, length_ - pos, &cp);
    if (n == 0) return malformed(pos, "invalid UTF-8 sequence");
    if (!isXmlChar(cp))
      return fail(pos, EFI_INVALID_PARAMETER, "character U+%04x is not allowed in XML", UINT32(cp));
    pos += n;
  }
  return EFI_SUCCESS;
}

EFI_STATUS Parser::prolog() {
  if (startsWith("<?xml") && peek(5) >= 0 && isSpace(UINT8(peek(5)))) RETURN_IF_ERROR(xmlDeclaration());
  for (;;) {
    skipSpace();
    if (atEnd()) return malformed(pos_, "no root element");
    if (startsWith("<!--")) {
      RETURN_IF_ERROR(comment());
    } else if (startsWith("<?")) {
      RETURN_IF_ERROR(processingInstruction());
    } else if (startsWith("<!DOCTYPE")) {
      return malformed(pos_, "document type declarations are not accepted");
    } else if (startsWith("<!")) {
      return malformed(pos_, "markup declarations are not accepted");
    } else if (peek() == '<') {
      return EFI_SUCCESS;
    } else {
      return malformed(pos_, "text before the root element");
    }
  }
}

EFI_STATUS Parser::epilog() {
  for (;;) {
    skipSpace();
    if (atEnd()) return EFI_SUCCESS;
    if (startsWith("<!--")) {
      RETURN_IF_ERROR(comment());
    } else if (startsWith("<?")) {
      RETURN_IF_ERROR(processingInstruction());
    } else if (startsWith("<!DOCTYPE")) {
      return malformed(pos_, "document type declarations are not accepted");
    } else if (peek() == '<' && scanName(text_ + pos_ + 1, length_ - pos_ - 1) != 0) {
      return malformed(pos_, "more than one root element");
    } else {
      return malformed(pos_, "content after the root element");
    }
  }
}

EFI_STATUS Parser::pseudoAttribute(const CHAR8* name, bool* present, UINTN* valueStart, UINTN* valueLength) {
  UINTN save = pos_;
  bool space = skipSpace();
  *present = startsWith(name);
  if (!*present) {
    pos_ = save;
    return EFI_SUCCESS;
  }
  if (!space) return fail(pos_, EFI_INVALID_PARAMETER, "missing whitespace before %a in the XML declaration", name);
  pos_ += tvl::rt::length(name);
  skipSpace();
  if (peek() != '=') return fail(pos_, EFI_INVALID_PARAMETER, "missing '=' after %a in the XML declaration", name);
  ++pos_;
  skipSpace();
  int quote = peek();
  if (quote != '"' && quote != '\'')
    return fail(pos_, EFI_INVALID_PARAMETER, "value of %a in the XML declaration is not quoted", name);
  UINTN open = pos_++;
  *valueStart = pos_;
  while (!atEnd() && peek() != quote) ++pos_;
  if (atEnd()) return malformed(open, "unclosed value in the XML declaration");
  *valueLength = pos_ - *valueStart;
  ++pos_;
  return EFI_SUCCESS;
}

EFI_STATUS Parser::xmlDeclaration() {
  UINTN start = pos_;
  pos_ += 5;
  bool present;
  UINTN value, length;
  RETURN_IF_ERROR(pseudoAttribute("version", &present, &value, &length));
  if (!present) return malformed(pos_, "XML declaration without version");
  bool versionOk = length >= 3 && text_[value] == '1' && text_[value + 1] == '.';
  for (UINTN i = 2; versionOk && i < length; ++i) versionOk = text_[value + i] >= '0' && text_[value + i] <= '9';
  if (!versionOk) return fail(value, EFI_INVALID_PARAMETER, "unsupported XML version %.*a", quoted(length), at(value));
  RETURN_IF_ERROR(pseudoAttribute("encoding", &present, &value, &length));
  if (present && !equalsIgnoringCase(text_ + value, length, "UTF-8") &&
      !equalsIgnoringCase(text_ + value, length, "US-ASCII") && !equalsIgnoringCase(text_ + value, length, "ASCII"))
    return fail(value, EFI_INVALID_PARAMETER, "unsupported encoding %.*a (only UTF-8 is read)", quoted(length),
                at(value));
  RETURN_IF_ERROR(pseudoAttribute("standalone", &present, &value, &length));
  if (present && !bytesEqual(value, length, "yes") && !bytesEqual(value, length, "no"))
    return malformed(value, "standalone must be \"yes\" or \"no\"");
  skipSpace();
  if (!startsWith("?>")) return fail(pos_, EFI_INVALID_PARAMETER, "malformed XML declaration (started at offset %ld)", start);
  pos_ += 2;
  return EFI_SUCCESS;
}

EFI_STATUS Parser::comment() {
  UINTN start = pos_;
  pos_ += 4;
  for (;;) {
    if (atEnd()) return malformed(start, "unclosed comment");
    if (peek() == '-' && peek(1) == '-') {
      if (peek(2) != '>') return malformed(pos_, "'--' is not allowed inside a comment");
      pos_ += 3;
      return EFI_SUCCESS;
    }
    ++pos_;
  }
}

EFI_STATUS Parser::processingInstruction() {
  UINTN start = pos_;
  pos_ += 2;
  UINTN n = nameHere();
  if (n == 0) return malformed(pos_, "invalid processing instruction target");
  if (equalsIgnoringCase(text_ + pos_, n, "xml"))
    return malformed(start, "an XML declaration is only allowed at the start of the text");
  pos_ += n;
  if (startsWith("?>")) {
    pos_ += 2;
    return EFI_SUCCESS;
  }
  if (!skipSpace()) return malformed(pos_, "missing whitespace after the processing instruction target");
  for (;;) {
    if (atEnd()) return malformed(start, "unclosed processing instruction");
    if (startsWith("?>")) {
      pos_ += 2;
      return EFI_SUCCESS;
    }
    ++pos_;
  }
}

EFI_STATUS Parser::content() {
  RETURN_IF_ERROR(startTag());
  while (!frames_.empty()) {
    if (atEnd())
      return fail(pos_, EFI_INVALID_PARAMETER, "end of text inside element <%.*a>",
                  quoted(tvl::rt::length(frames_.top().node->name)), frames_.top().node->name);
    // The byte after '<' tells the kinds of markup apart.
    const int next = peek(1);
    if (peek() != '<') {
      RETURN_IF_ERROR(characterData());
    } else if (next == '/') {
      RETURN_IF_ERROR(endTag());
    } else if (next == '?') {
      RETURN_IF_ERROR(processingInstruction());
    } else if (next != '!') {
      RETURN_IF_ERROR(startTag());
    } else if (startsWith("<!--")) {
      RETURN_IF_ERROR(comment());
    } else if (startsWith("<![CDATA[")) {
      RETURN_IF_ERROR(cdata());
    } else {
      return malformed(pos_, "declarations are not accepted inside an element");
    }
  }
  return EFI_SUCCESS;
}

// Hangs a new element below the innermost open one (or makes it the root).
// Layout whitespace that preceded it in the parent is dropped.
void Parser::link(XML_NODE* node) {
  if (frames_.empty()) {
    root_ = node;
    return;
  }
  Frame& parent = frames_.top();
  if (parent.segmentBlank) scratch_.truncate(parent.segmentStart);
  node->parent = parent.node;
  if (parent.lastChild)
    parent.lastChild->next = node;
  else
    parent.node->children = node;
  parent.lastChild = node;
}

// After a child element, the parent's text starts a new segment.
void Parser::childClosed() {
  if (frames_.empty()) return;
  Frame& parent = frames_.top();
  parent.segmentStart = scratch_.size();
  parent.segmentBlank = true;
}

EFI_STATUS Parser::startTag() {
  UINTN start = pos_++;
  UINTN n = nameHere();
  if (n == 0) return malformed(pos_, "invalid element name");
  if (frames_.size() >= limits_.MaxDepth)
    return fail(start, EFI_INVALID_PARAMETER, "elements nested deeper than %ld levels", limits_.MaxDepth);
  XML_NODE* node;
  if (EFI_ERROR(createNode(at(pos_), n, &node))) return outOfMemory(start);
  link(node);
  pos_ += n;
  RETURN_IF_ERROR(attributes(node));
  if (peek() == '/') {  // attributes() stops only at '>' or "/>"
    pos_ += 2;
    childClosed();
    return EFI_SUCCESS;
  }
  ++pos_;  // '>'
  UINTN here = scratch_.size();
  if (!frames_.push(Frame{node, nullptr, here, here, true})) return outOfMemory(start);
  return EFI_SUCCESS;
}

// Reads the attributes of a start tag up to (not including) its '>' or
// "/>", appending them to `node` in document order.
EFI_STATUS Parser::attributes(XML_NODE* node) {
  names_.clear();
  XML_ATTRIBUTE* tail = nullptr;
  for (;;) {
    bool space = skipSpace();
    if (atEnd())
      return fail(pos_, EFI_INVALID_PARAMETER, "end of text inside the start tag of <%.*a>",
                  quoted(tvl::rt::length(node->name)), node->name);
    if (peek() == '>' || (peek() == '/' && peek(1) == '>')) return EFI_SUCCESS;
    UINTN nameStart = pos_;
    UINTN n = nameHere();
    if (n == 0)
      return fail(pos_, EFI_INVALID_PARAMETER, "invalid attribute name in the start tag of <%.*a>",
                  quoted(tvl::rt::length(node->name)), node->name);
    if (!space)
      return fail(pos_, EFI_INVALID_PARAMETER, "missing whitespace before attribute %.*a", quoted(n), at(pos_));
    switch (names_.add(text_ + nameStart, n)) {
      case NameSet::kAdded: break;
      case NameSet::kRepeated:
        return fail(nameStart, EFI_INVALID_PARAMETER, "duplicate attribute %.*a", quoted(n), at(nameStart));
      case NameSet::kNoMemory: return outOfMemory(nameStart);
    }
    pos_ += n;
    skipSpace();
    if (peek() != '=')
      return fail(pos_, EFI_INVALID_PARAMETER, "missing '=' after attribute %.*a", quoted(n), at(nameStart));
    ++pos_;
    skipSpace();
    int quote = peek();
    if (quote != '"' && quote != '\'')
      return fail(pos_, EFI_INVALID_PARAMETER, "value of attribute %.*a is not quoted", quoted(n), at(nameStart));
    ++pos_;
    UINTN valueStart = scratch_.size();
    RETURN_IF_ERROR(attributeValue(UINT8(quote)));
    Pool<XML_ATTRIBUTE> attribute = Pool<XML_ATTRIBUTE>::zeroed();
    Pool<CHAR8> name = tvl::rt::duplicate(at(nameStart), n);
    Pool<CHAR8> value = scratch_.copyFrom(valueStart);
    scratch_.truncate(valueStart);
    if (!attribute || !name || !value) return outOfMemory(nameStart);
    attribute->name = name.release();
    attribute->value = value.release();
    if (tail)
      tail->next = attribute.get();
    else
      node->attributes = attribute.get();
    tail = attribute.release();
  }
}

// Decodes an attribute value into the scratch buffer: references are
// resolved and literal tab, LF and CR become spaces (CR LF one space).
EFI_STATUS Parser::attributeValue(UINT8 quote) {
  UINTN open = pos_ - 1;
  for (;;) {
    if (atEnd()) return malformed(open, "unclosed attribute value");
    UINT8 b = text_[pos_];
    if (b == quote) {
      ++pos_;
      return EFI_SUCCESS;
    }
    if (b == '<') return malformed(pos_, "'<' is not allowed in an attribute value");
    if (b == '&') {
      UINT32 cp;
      RETURN_IF_ERROR(reference(&cp));
      if (!appendUtf8(cp)) return outOfMemory(pos_);
      continue;
    }
    if (b == '\r' && peek(1) == '\n') ++pos_;
    if (!scratch_.push(isSpace(b) ? UINT8(' ') : b)) return outOfMemory(pos_);
    ++pos_;
  }
}

EFI_STATUS Parser::endTag() {
  UINTN start = pos_;
  pos_ += 2;
  Frame& frame = frames_.top();
  const CHAR8* expected = frame.node->name;
  UINTN expectedLength = tvl::rt::length(expected);
  UINTN n = nameHere();
  if (n == 0)
    return fail(pos_, EFI_INVALID_PARAMETER, "invalid name in end tag, expected </%.*a>", quoted(expectedLength),
                expected);
  if (n != expectedLength || tvl::rt::compareMem(text_ + pos_, expected, n) != 0)
    return fail(start, EFI_INVALID_PARAMETER, "mismatched end tag: expected </%.*a>, found </%.*a>",
                quoted(expectedLength), expected, quoted(n), at(pos_));
  pos_ += n;
  skipSpace();
  if (peek() != '>')
    return fail(pos_, EFI_INVALID_PARAMETER, "expected '>' to end </%.*a>", quoted(expectedLength), expected);
  ++pos_;

  // An element with children keeps text only where it is more than layout;
  // a leaf keeps all of it, so <a></a> gets empty contents and <a/> none.
  if (frame.lastChild && frame.segmentBlank) scratch_.truncate(frame.segmentStart);
  if (scratch_.size() > frame.textStart || !frame.lastChild) {
    Pool<CHAR8> contents = scratch_.copyFrom(frame.textStart);
    if (!contents) return outOfMemory(start);
    frame.node->contents = contents.release();
  }
  scratch_.truncate(frame.textStart);
  frames_.pop();
  childClosed();
  return EFI_SUCCESS;
}

// Text between markup, stored escaped: references are decoded and "&", "<"
// and ">" written back as references; CR LF and lone CR become LF.
EFI_STATUS Parser::characterData() {
  Frame& frame = frames_.top();
  while (!atEnd()) {
    UINT8 b = text_[pos_];
    if (b == '<') break;
    if (b == '&') {
      UINT32 cp;
      RETURN_IF_ERROR(reference(&cp));
      frame.segmentBlank = false;
      if (!appendEscaped(cp)) return outOfMemory(pos_);
      continue;
    }
    if (b == '>' && pos_ >= 2 && text_[pos_ - 1] == ']' && text_[pos_ - 2] == ']')
      return malformed(pos_ - 2, "']]>' is not allowed in text");
    if (b == '\r') {
      b = '\n';
      if (peek(1) == '\n') ++pos_;
    }
    if (!isSpace(b)) frame.segmentBlank = false;
    if (!appendEscapedByte(b)) return outOfMemory(pos_);
    ++pos_;
  }
  return EFI_SUCCESS;
}

EFI_STATUS Parser::cdata() {
  UINTN start = pos_;
  pos_ += 9;
  frames_.top().segmentBlank = false;
  for (;;) {
    if (atEnd()) return malformed(start, "unclosed CDATA section");
    if (startsWith("]]>")) {
      pos_ += 3;
      return EFI_SUCCESS;
    }
    UINT8 b = text_[pos_];
    if (b == '\r') {
      b = '\n';
      if (peek(1) == '\n') ++pos_;
    }
    if (!appendEscapedByte(b)) return outOfMemory(pos_);
    ++pos_;
  }
}

// Resolves the reference at the '&' under the cursor and moves past it.
EFI_STATUS Parser::reference(UINT32* cp) {
  UINTN start = pos_;
  if (peek(1) == '#') {
    UINTN n = scanCharReference(text_ + pos_ + 2, length_ - pos_ - 2, cp);
    if (n == 0) return malformed(start, "malformed character reference");
    if (!isXmlChar(*cp))
      return fail(start, EFI_INVALID_PARAMETER, "character reference %.*a is not an allowed XML character",
                  quoted(n + 2), at(start));
    pos_ += n + 2;
    return EFI_SUCCESS;
  }
  UINTN n = scanName(text_ + pos_ + 1, length_ - pos_ - 1);
  if (n == 0 || peek(n + 1) != ';') return malformed(start, "'&' does not start a reference (write &amp;)");
  UINT8 c = predefinedEntity(text_ + pos_ + 1, n);
  if (!c) return fail(start, EFI_INVALID_PARAMETER, "undefined entity &%.*a;", quoted(n), at(start + 1));
  *cp = c;
  pos_ += n + 2;
  return EFI_SUCCESS;
}

bool Parser::appendUtf8(UINT32 cp) {
  UINT8 bytes[4];
  UINTN n = encodeUtf8(cp, bytes);
  return n == 1 ? scratch_.push(bytes[0]) : scratch_.append(bytes, n);
}

// A decoded character, escaped when it is "&", "<" or ">".
bool Parser::appendEscaped(UINT32 cp) { return cp < 0x80 ? appendEscapedByte(UINT8(cp)) : appendUtf8(cp); }

// One byte of literal text (possibly part of a UTF-8 sequence).
bool Parser::appendEscapedByte(UINT8 b) {
  switch (b) {
    case '&': return scratch_.append("&amp;");
    case '<': return scratch_.append("&lt;");
    case '>': return scratch_.append("&gt;");
    default: return scratch_.push(b);
  }
}

}  // namespace

EFI_STATUS parseText(const CHAR8* text, UINTN length, const XML_LIMITS& limits, XML_NODE** root,
                     XML_PARSE_ERROR* error) {
  Parser parser(text, length, limits, error);
  RETURN_IF_ERROR(parser.run());
  *root = parser.takeRoot();
  return EFI_SUCCESS;
}

}  // namespace tvl::xmlsvc
