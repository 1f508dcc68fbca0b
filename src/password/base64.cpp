#include "password/base64.h"

#include "uefi/runtime.h"

namespace {

constexpr CHAR8 kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// One group of four characters. A group cut short by the end of the text
// has "=" in its missing places.
struct Quartet {
  CHAR8 c[4];
  UINTN consumed;  // characters taken from the text (1 to 4)

  // The bytes this group decodes to: the first always; the second unless
  // the third character is padding; the third unless the fourth is, too.
  UINTN byteCount() const {
    if (c[2] == '=') return 1;
    return c[3] == '=' ? 2 : 3;
  }
};

// The group that starts at `text`, which is not at its terminator.
Quartet takeQuartet(const CHAR8* text) {
  Quartet q{{'=', '=', '=', '='}, 0};
  while (q.consumed < 4 && text[q.consumed]) {
    q.c[q.consumed] = text[q.consumed];
    ++q.consumed;
  }
  return q;
}

}  // namespace

extern "C" {

const CHAR8* findChar(const CHAR8* Text, CHAR8 c) {
  if (!Text) return nullptr;
  for (;; ++Text) {
    if (*Text == c) return Text;
    if (*Text == 0) return nullptr;
  }
}

UINT8 base64CharValue(CHAR8 c) {
  // The alphabet's own terminator is not a character of the alphabet.
  if (c == 0) return 0;
  const CHAR8* at = findChar(kAlphabet, c);
  return at ? UINT8(at - kAlphabet) : 0;
}

UINTN base64DecodedLength(const CHAR8* Text) {
  UINTN count = 0;
  if (!Text) return 0;
  while (*Text) {
    Quartet q = takeQuartet(Text);
    count += q.byteCount();
    Text += q.consumed;
  }
  return count;
}

VOID base64Decode(const CHAR8* Text, UINT8* Output, UINTN* OutputLength) {
  if (!Text || !Output || !OutputLength) return;
  UINTN written = 0;
  while (*Text) {
    Quartet q = takeQuartet(Text);
    UINT8 s1 = base64CharValue(q.c[0]);
    UINT8 s2 = base64CharValue(q.c[1]);
    UINT8 s3 = base64CharValue(q.c[2]);
    UINT8 s4 = base64CharValue(q.c[3]);
    UINTN bytes = q.byteCount();
    Output[written++] = UINT8(s1 << 2 | s2 >> 4);
    if (bytes > 1) Output[written++] = UINT8(s2 << 4 | s3 >> 2);
    if (bytes > 2) Output[written++] = UINT8(s3 << 6 | s4);
    Text += q.consumed;
  }
  *OutputLength = written;
}

BOOLEAN hasBase64Encoding(XML_NODE* Node) {
  if (!Node) return FALSE;
  for (const XML_ATTRIBUTE* a = Node->attributes; a; a = a->next) {
    if (!a->name) continue;
    if (tvl::rt::equal<CHAR8>(a->name, "Encoding") && a->value && tvl::rt::equal<CHAR8>(a->value, "Base64"))
      return TRUE;
  }
  return FALSE;
}

}  // extern "C"
