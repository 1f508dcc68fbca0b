// Keyword texts: a question's prompt in the form set's chosen language
// ("x-UEFI" where the form set has it), made of the setting's name and
// bracketed "[key:value]" tokens.
//
//   - The name is everything before the first "[".
//   - A token's key runs from after "[" to the first ":" that follows,
//     wherever it lies (a "]" or "[" in between does not end it); its value
//     from after that ":" to the first "]" that follows.
//   - Condition keys (ReadOnlyIf, ReadOnlyIfNot, SuppressIf, SuppressIfNot,
//     DisableIf, DisableIfNot, ForceIf, ForceIfNot) carry "target=expected";
//     "FQDD" names the device an item concerns; every other key is a
//     modifier.
//   - A "[" with no ":" anywhere after it ends the token list; the element
//     builders accept that ending only when the rest holds "ProgWrite=True".
//
// Condition tokens are carried into the documents as they stand and never
// evaluated. The readers here also find the boot-sequence entries and the
// enable checkboxes that govern them.
#pragma once

#include "export/records/records.h"
#include "uefi/services.h"

extern "C" {

// The "Dependencies" element of a keyword text (one child per condition
// token, named by its key, "Name" = the octal-decoded target, contents =
// the expected value verbatim), or nothing when the text has no condition
// token. EFI_INVALID_PARAMETER for a malformed condition token or a
// colon-less bracket that is not the ProgWrite ending; on any failure
// nothing is handed out.
EFI_STATUS createDependenciesNode(const CHAR8* KeywordText, XML_NODE** Out);

// The sibling chain of "Modifier" elements of every non-condition token
// ("Name" = the key, contents = the octal-decoded value, escaped), or
// nothing. Same refusals as createDependenciesNode, except that malformed
// condition tokens are passed over.
EFI_STATUS createModifierNodes(const CHAR8* KeywordText, XML_NODE** Out);

// Takes the first token of `Text`. The key and value slots own new
// allocations: each call first releases what they hold and clears `*Rest`,
// so a loop passes the same slots every time and releases the last pair
// itself. `*Rest` receives the position of the token's "]", where the next
// call starts. EFI_NOT_FOUND when no complete token is left.
EFI_STATUS getNextKeywordToken(const CHAR8* Text, CHAR8** Key, CHAR8** Value, const CHAR8** Rest);

// TRUE when a token with exactly `Key` has a value that, lower-cased,
// equals `Value`.
BOOLEAN hasKeywordValue(const CHAR8* KeywordText, const CHAR8* Key, const CHAR8* Value);

// TRUE when the text has a token with one of the eight condition keys.
BOOLEAN hasConditionToken(const CHAR8* KeywordText);

// TRUE when the first "ValueStruct" at or after `Entry` (its children) holds
// a "Modifier" with "Name" = `Key` and contents = `Value`.
BOOLEAN hasModifier(XML_NODE* Entry, const CHAR8* Key, const CHAR8* Value);

// Marks the boot-sequence entry that the enable checkbox with keyword text
// `KeywordText` governs: "Enabled" = `Value` on the first ValueStruct of the
// ConfigItem named `ListName` under `Root` whose first child holds the
// checkbox's FQDD token value and whose modifiers match the checkbox's.
EFI_STATUS setEntryEnabled(const CHAR8* ListName, const CHAR8* KeywordText, const CHAR8* Value, XML_NODE* Root);

// The enable checkbox of a boot-sequence entry (a ValueStruct with
// "Enabled"): when the checkbox must change, `*BlockName` receives its
// statement's own block name (not a copy) and `*NewValue` the value to
// write; otherwise `*BlockName` is null.
EFI_STATUS findEnableCheckbox(const CHAR8* ListName, XML_NODE* Entry, HII_FORMSET_RECORD* FormSet,
                              EFI_HII_HANDLE HiiHandle, CHAR16** BlockName, UINT8* NewValue);

}  // extern "C"

namespace tvl::exp {

// The keyword texts of a form set's boolean statements, in form and
// statement order, each fetched from HII the first time it is asked for
// and kept while the object lives: an import asks for the enable checkbox
// of every boot-sequence entry and fetches each text once.
class CheckboxKeywords {
 public:
  CheckboxKeywords(HII_FORMSET_RECORD* formSet, EFI_HII_HANDLE hiiHandle) : formSet_(formSet), hiiHandle_(hiiHandle) {}
  ~CheckboxKeywords();
  CheckboxKeywords(const CheckboxKeywords&) = delete;
  CheckboxKeywords& operator=(const CheckboxKeywords&) = delete;

  HII_FORMSET_RECORD* formSet() const { return formSet_; }
  // Lists the boolean statements (once).
  EFI_STATUS prepare();
  UINTN count() const { return count_; }
  HII_STATEMENT_RECORD* statement(UINTN i) const { return entries_[i].statement; }
  // The i-th statement's keyword text ("x-UEFI"), null when it has none.
  EFI_STATUS text(UINTN i, const CHAR8** text);

 private:
  enum : UINT8 { kUnfetched = 0, kFetched, kNone };
  struct Entry {
    HII_STATEMENT_RECORD* statement;
    CHAR8* text;
    UINT8 state;
  };
  HII_FORMSET_RECORD* formSet_;
  EFI_HII_HANDLE hiiHandle_;
  Entry* entries_ = nullptr;  // owned; released with the texts
  UINTN count_ = 0;
};

// findEnableCheckbox over texts that `keywords` keeps.
EFI_STATUS findEnableCheckboxIn(const CHAR8* ListName, XML_NODE* Entry, CheckboxKeywords& keywords,
                                CHAR16** BlockName, UINT8* NewValue);

}  // namespace tvl::exp
