// Base64 decoding of the password values of a pending document, and the
// test for the Encoding="Base64" marking of their Value elements.
//
// The decoder is lenient: it follows the standard alphabet (A-Z, a-z, 0-9,
// "+", "/", padding "=") but rejects nothing. Any character outside the
// alphabet decodes as 0, a "=" only ends the quartet it stands in (third
// position: one byte; fourth position: two bytes), and quartets after a
// padded one are decoded as well. A final quartet cut short by the end of
// the text counts its missing characters as "=": one or two characters give
// one byte, three give two bytes, so unpadded text decodes as with padding.
// Nothing past the terminator is ever read.
//
// Output size: the decoder takes no buffer size, and the length of a text
// does not bound its output tightly ("QQ==" gives one byte, "QUJD" three).
// A caller asks base64DecodedLength for the exact number of bytes that
// base64Decode will write and sizes (or refuses) before decoding:
//
//   UINTN size = base64DecodedLength(text);
//   if (size > capacity) refuse;
//   base64Decode(text, buffer, &written);   // written == size
#pragma once

#include "uefi/services.h"

extern "C" {

// Decodes `Text` into `Output` and stores the number of bytes written in
// `*OutputLength`. `Output` must hold base64DecodedLength(Text) bytes; it is
// not terminated. When any pointer is null nothing is done and
// `*OutputLength` is not written.
VOID base64Decode(const CHAR8* Text, UINT8* Output, UINTN* OutputLength);

// The exact number of bytes base64Decode writes for `Text`; 0 for a null or
// empty text.
UINTN base64DecodedLength(const CHAR8* Text);

// The 6-bit value of `c` in the alphabet; 0 for any other character,
// including the terminator and "=".
UINT8 base64CharValue(CHAR8 c);

// The first `c` in `Text`, or null (also for a null text). Looking for the
// terminator finds the terminator.
const CHAR8* findChar(const CHAR8* Text, CHAR8 c);

// TRUE when the node has an attribute named "Encoding" whose value is
// "Base64", both compared exactly. Attributes without a name are skipped.
BOOLEAN hasBase64Encoding(XML_NODE* Node);

}  // extern "C"
