// Fetching HII strings as the 8-bit texts that documents carry.
#pragma once

#include "uefi/protocols.h"

extern "C" {

// Fetches string `StringId` of package list `HiiHandle` in `Language` and
// hands it back narrowed to 8 bits (characters outside 32..126 become
// blanks) as a new pool text in `*Text`. An empty string is never handed
// out (EFI_NOT_FOUND). On failure `*Text` is not written.
EFI_STATUS GetString(const CHAR8* Language, EFI_HII_HANDLE HiiHandle, EFI_STRING_ID StringId, CHAR8** Text);

// As GetString, but only the characters before the first "[" (the name of
// a keyword text); a text without "[" is handed out whole.
EFI_STATUS GetStringBeforeBracket(const CHAR8* Language, EFI_HII_HANDLE HiiHandle, EFI_STRING_ID StringId,
                                  CHAR8** Text);

}  // extern "C"
