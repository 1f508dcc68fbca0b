#include "export/keyword.h"

#include "uefi/ifr.h"
#include "uefi/runtime.h"
#include "util/hii_string.h"
#include "util/text.h"
#include "xml/node.h"
#include "xml/owned_node.h"

using tvl::rt::Pool;
using tvl::xml::OwnedNode;

namespace {

constexpr CHAR8 kFqddKey[] = "FQDD";
constexpr CHAR8 kProgWriteEnding[] = "ProgWrite=True";
constexpr CHAR8 kKeywordLanguage[] = "x-UEFI";
constexpr CHAR8 kDependenciesName[] = "Dependencies";
constexpr CHAR8 kModifierName[] = "Modifier";
constexpr CHAR8 kValueStructName[] = "ValueStruct";
constexpr CHAR8 kConfigItemName[] = "ConfigItem";
constexpr CHAR8 kNameAttribute[] = "Name";
constexpr CHAR8 kEnabledAttribute[] = "Enabled";
constexpr CHAR8 kTrue[] = "true";

// Keys whose value is "target=expected": the item depends on another
// setting. They are carried into the documents, never evaluated.
constexpr const CHAR8* kConditionKeys[] = {
    "ReadOnlyIf", "ReadOnlyIfNot", "SuppressIf", "SuppressIfNot", "DisableIf", "DisableIfNot", "ForceIf", "ForceIfNot",
};

// The first `c` at or after `p`, or null.
const CHAR8* findChar(const CHAR8* p, CHAR8 c) {
  while (*p && *p != c) ++p;
  return *p ? p : nullptr;
}

bool containsText(const CHAR8* text, const CHAR8* needle) {
  const UINTN n = tvl::rt::length(needle);
  for (; *text; ++text) {
    UINTN i = 0;
    while (i < n && text[i] == needle[i]) ++i;
    if (i == n) return true;
  }
  return false;
}

// The characters [begin, end) equal the whole of `text`. The span never
// holds a terminator, so a shorter `text` differs before it ends.
bool spanEquals(const CHAR8* begin, const CHAR8* end, const CHAR8* text) {
  const UINTN n = UINTN(end - begin);
  for (UINTN i = 0; i < n; ++i)
    if (text[i] != begin[i]) return false;
  return text[n] == 0;
}

// As spanEquals, with A to Z of the span taken as lower case.
bool loweredSpanEquals(const CHAR8* begin, const CHAR8* end, const CHAR8* text) {
  const UINTN n = UINTN(end - begin);
  for (UINTN i = 0; i < n; ++i) {
    CHAR8 c = begin[i];
    if (c >= 'A' && c <= 'Z') c = CHAR8(c + ('a' - 'A'));
    if (text[i] != c) return false;
  }
  return text[n] == 0;
}

bool isConditionKey(const CHAR8* begin, const CHAR8* end) {
  for (const CHAR8* key : kConditionKeys)
    if (spanEquals(begin, end, key)) return true;
  return false;
}

bool isConditionKey(const CHAR8* key) { return isConditionKey(key, key + tvl::rt::length(key)); }

bool named(const XML_NODE* node, const CHAR8* name) { return node->name && tvl::rt::equal(node->name, name); }

// Finds the next occurrence of one character for a scan whose start
// positions only move forward. A key may run across brackets to a colon far
// ahead; every "[" before that colon would otherwise scan to it again. The
// last answer stays valid for any start between the last start and the
// answer, so a whole text costs one pass per character kind.
class NextChar {
 public:
  explicit NextChar(CHAR8 c) : c_(c) {}
  const CHAR8* at(const CHAR8* p) {
    if (!from_ || p < from_ || (found_ && p > found_)) {
      from_ = p;
      found_ = findChar(p, c_);
    }
    return found_;
  }

 private:
  CHAR8 c_;
  const CHAR8* from_ = nullptr;
  const CHAR8* found_ = nullptr;  // null: none at or after from_
};

// Reads the tokens of a keyword text in order through getNextKeywordToken
// and owns the pair read last.
class TokenReader {
 public:
  explicit TokenReader(const CHAR8* text) : rest_(text) {}

  // EFI_SUCCESS with key() and value() set; EFI_NOT_FOUND when no complete
  // token is left; EFI_OUT_OF_RESOURCES when a copy cannot be made.
  EFI_STATUS next() {
    if (!rest_) return EFI_NOT_FOUND;
    const CHAR8* from = rest_;
    return getNextKeywordToken(from, key_.receive(), value_.receive(), &rest_);
  }
  const CHAR8* key() const { return key_.get(); }
  const CHAR8* value() const { return value_.get(); }
  Pool<CHAR8> takeValue() { return static_cast<Pool<CHAR8>&&>(value_); }

 private:
  const CHAR8* rest_;
  Pool<CHAR8> key_;
  Pool<CHAR8> value_;
};

// The value of the first "FQDD" token, or an empty result when there is
// none.
EFI_STATUS firstFqddValue(const CHAR8* text, Pool<CHAR8>* value) {
  TokenReader tokens(text);
  EFI_STATUS status;
  while ((status = tokens.next()) == EFI_SUCCESS) {
    if (tvl::rt::equal(tokens.key(), kFqddKey)) {
      *value = tokens.takeValue();
      return EFI_SUCCESS;
    }
  }
  return status == EFI_OUT_OF_RESOURCES ? status : EFI_SUCCESS;
}

// Whether some "FQDD" token of the text has the value `name`.
EFI_STATUS anyFqddEquals(const CHAR8* text, const CHAR8* name, bool* found) {
  *found = false;
  if (!name) return EFI_SUCCESS;
  TokenReader tokens(text);
  EFI_STATUS status;
  while ((status = tokens.next()) == EFI_SUCCESS) {
    if (tvl::rt::equal(tokens.key(), kFqddKey) && tvl::rt::equal(tokens.value(), name)) {
      *found = true;
      return EFI_SUCCESS;
    }
  }
  return status == EFI_OUT_OF_RESOURCES ? status : EFI_SUCCESS;
}

// Whether the entry carries a matching Modifier for every modifier token of
// the text (a key that is neither "FQDD" nor a condition key).
EFI_STATUS modifiersMatch(const CHAR8* text, XML_NODE* entry, bool* match) {
  *match = false;
  TokenReader tokens(text);
  EFI_STATUS status;
  while ((status = tokens.next()) == EFI_SUCCESS) {
    if (tvl::rt::equal(tokens.key(), kFqddKey) || isConditionKey(tokens.key())) continue;
    if (!hasModifier(entry, tokens.key(), tokens.value())) return EFI_SUCCESS;
  }
  if (status == EFI_OUT_OF_RESOURCES) return status;
  *match = true;
  return EFI_SUCCESS;
}

// `*decoded` receives the text with its octal escapes decoded, or stays
// empty when the text holds no backslash (the text is then used as it is).
// A text with a backslash whose copy cannot be made is a shortage, not a
// text without escapes.
EFI_STATUS decodeEscapes(const CHAR8* text, Pool<CHAR8>* decoded) {
  decodeOctalEscapes(text, decoded->receive());
  if (!*decoded && findChar(text, '\\')) return EFI_OUT_OF_RESOURCES;
  return EFI_SUCCESS;
}

// The scan that both element builders share. Each "[" opens a token whose
// key runs to the next ":" anywhere after it. A token of the wanted class
// (conditions, or everything else) goes to `take`, which reports where the
// token ends; the next token is looked for after that. Any other token is
// passed over from just after its "[", so a bracket inside its key can
// still open a token. A "[" without a ":" after it ends the text: accepted
// only when what follows holds the ProgWrite ending.
template <typename Take>
EFI_STATUS scanTokens(const CHAR8* text, bool takeConditions, Take&& take) {
  NextChar colons(':');
  const CHAR8* open = findChar(text, '[');
  while (open) {
    const CHAR8* keyBegin = open + 1;
    const CHAR8* colon = colons.at(keyBegin);
    if (!colon) return containsText(keyBegin, kProgWriteEnding) ? EFI_SUCCESS : EFI_INVALID_PARAMETER;
    if (isConditionKey(keyBegin, colon) != takeConditions) {
      open = findChar(keyBegin, '[');
      continue;
    }
    const CHAR8* tokenEnd = nullptr;
    RETURN_IF_ERROR(take(keyBegin, colon, &tokenEnd));
    open = findChar(tokenEnd, '[');
  }
  return EFI_SUCCESS;
}

}  // namespace

extern "C" {

EFI_STATUS getNextKeywordToken(const CHAR8* Text, CHAR8** Key, CHAR8** Value, const CHAR8** Rest) {
  if (Key) {
    freeIfSet(*Key);
    *Key = nullptr;
  }
  if (Value) {
    freeIfSet(*Value);
    *Value = nullptr;
  }
  if (Rest) *Rest = nullptr;
  if (!Text || !Key || !Value || !Rest) return EFI_INVALID_PARAMETER;

  const CHAR8* open = findChar(Text, '[');
  if (!open) return EFI_NOT_FOUND;
  const CHAR8* colon = findChar(open + 1, ':');
  if (!colon) return EFI_NOT_FOUND;
  Pool<CHAR8> key = tvl::rt::duplicate(open + 1, UINTN(colon - open - 1));
  if (!key) return EFI_OUT_OF_RESOURCES;
  const CHAR8* close = findChar(colon + 1, ']');
  if (!close) return EFI_NOT_FOUND;
  Pool<CHAR8> value = tvl::rt::duplicate(colon + 1, UINTN(close - colon - 1));
  if (!value) return EFI_OUT_OF_RESOURCES;

  *Key = key.release();
  *Value = value.release();
  *Rest = close;
  return EFI_SUCCESS;
}

BOOLEAN hasKeywordValue(const CHAR8* KeywordText, const CHAR8* Key, const CHAR8* Value) {
  if (!KeywordText || !Key || !Value) return FALSE;
  NextChar colons(':');
  NextChar closes(']');
  const CHAR8* open = findChar(KeywordText, '[');
  while (open) {
    const CHAR8* colon = colons.at(open + 1);
    if (!colon) return FALSE;
    if (!spanEquals(open + 1, colon, Key)) {
      open = findChar(open + 1, '[');
      continue;
    }
    const CHAR8* close = closes.at(colon + 1);
    if (!close) return FALSE;
    if (loweredSpanEquals(colon + 1, close, Value)) return TRUE;
    open = findChar(colon + 1, '[');
  }
  return FALSE;
}

BOOLEAN hasConditionToken(const CHAR8* KeywordText) {
  if (!KeywordText) return FALSE;
  TokenReader tokens(KeywordText);
  while (tokens.next() == EFI_SUCCESS)
    if (isConditionKey(tokens.key())) return TRUE;
  return FALSE;
}

EFI_STATUS createDependenciesNode(const CHAR8* KeywordText, XML_NODE** Out) {
  if (!KeywordText || !Out) return EFI_INVALID_PARAMETER;
  OwnedNode dependencies;
  XML_NODE* last = nullptr;
  NextChar equals('=');
  NextChar closes(']');
  auto take = [&](const CHAR8* keyBegin, const CHAR8* colon, const CHAR8** end) -> EFI_STATUS {
    const CHAR8* equal = equals.at(colon + 1);
    if (!equal) return EFI_INVALID_PARAMETER;
    Pool<CHAR8> key = tvl::rt::duplicate(keyBegin, UINTN(colon - keyBegin));
    if (!key) return EFI_OUT_OF_RESOURCES;
    OwnedNode condition;
    RETURN_IF_ERROR(createNode(key.get(), condition.receive()));

    Pool<CHAR8> target = tvl::rt::duplicate(colon + 1, UINTN(equal - colon - 1));
    if (!target) return EFI_OUT_OF_RESOURCES;
    Pool<CHAR8> decoded;
    RETURN_IF_ERROR(decodeEscapes(target.get(), &decoded));
    RETURN_IF_ERROR(addAttribute(kNameAttribute, decoded ? decoded.get() : target.get(), condition.address()));

    const CHAR8* close = closes.at(equal + 1);
    if (!close) return EFI_INVALID_PARAMETER;
    // The expected value is kept exactly as written: no decoding and no
    // escaping.
    Pool<CHAR8> expected = tvl::rt::duplicate(equal + 1, UINTN(close - equal - 1));
    if (!expected) return EFI_OUT_OF_RESOURCES;
    condition->contents = expected.release();

    if (!dependencies) RETURN_IF_ERROR(createNode(kDependenciesName, dependencies.receive()));
    condition->parent = dependencies.get();
    if (last)
      last->next = condition.get();
    else
      dependencies->children = condition.get();
    last = condition.release();
    *end = close;
    return EFI_SUCCESS;
  };
  RETURN_IF_ERROR(scanTokens(KeywordText, true, take));
  *Out = dependencies.release();
  return EFI_SUCCESS;
}

EFI_STATUS createModifierNodes(const CHAR8* KeywordText, XML_NODE** Out) {
  if (!KeywordText || !Out) return EFI_INVALID_PARAMETER;
  OwnedNode first;
  XML_NODE* last = nullptr;
  NextChar closes(']');
  auto take = [&](const CHAR8* keyBegin, const CHAR8* colon, const CHAR8** end) -> EFI_STATUS {
    const CHAR8* close = closes.at(colon + 1);
    if (!close) return EFI_INVALID_PARAMETER;
    Pool<CHAR8> key = tvl::rt::duplicate(keyBegin, UINTN(colon - keyBegin));
    if (!key) return EFI_OUT_OF_RESOURCES;
    Pool<CHAR8> value = tvl::rt::duplicate(colon + 1, UINTN(close - colon - 1));
    if (!value) return EFI_OUT_OF_RESOURCES;
    Pool<CHAR8> decoded;
    RETURN_IF_ERROR(decodeEscapes(value.get(), &decoded));

    OwnedNode modifier;
    RETURN_IF_ERROR(createNodeWithString(kModifierName, decoded ? decoded.get() : value.get(), modifier.receive()));
    RETURN_IF_ERROR(addAttribute(kNameAttribute, key.get(), modifier.address()));
    if (last)
      last->next = modifier.get();
    else
      first.reset(modifier.get());
    last = modifier.release();
    *end = close;
    return EFI_SUCCESS;
  };
  RETURN_IF_ERROR(scanTokens(KeywordText, false, take));
  *Out = first.release();
  return EFI_SUCCESS;
}

BOOLEAN hasModifier(XML_NODE* Entry, const CHAR8* Key, const CHAR8* Value) {
  if (!Key || !Value) return FALSE;
  XML_NODE* node = Entry;
  while (node && !named(node, kValueStructName)) node = node->next;
  if (!node) return FALSE;
  if (node->children) node = node->children;
  for (; node; node = node->next) {
    if (!named(node, kModifierName) || !node->contents || !tvl::rt::equal(node->contents, Value)) continue;
    for (const XML_ATTRIBUTE* attribute = node->attributes; attribute; attribute = attribute->next)
      if (tvl::rt::equal(attribute->name, kNameAttribute) && tvl::rt::equal(attribute->value, Key)) return TRUE;
  }
  return FALSE;
}

EFI_STATUS setEntryEnabled(const CHAR8* ListName, const CHAR8* KeywordText, const CHAR8* Value, XML_NODE* Root) {
  if (!ListName || !KeywordText || !Value || !Root) return EFI_INVALID_PARAMETER;
  XML_NODE* item = nullptr;
  RETURN_IF_ERROR(findNodeByChildContents(ListName, kConfigItemName, Root, &item));
  if (!item->children) return EFI_INVALID_PARAMETER;

  // The checkbox's device is read once, when the first entry asks for it.
  Pool<CHAR8> device;
  bool deviceRead = false;
  for (XML_NODE* entry = item->children; entry; entry = entry->next) {
    if (hasAttribute(entry, kEnabledAttribute) || !named(entry, kValueStructName)) continue;
    if (!deviceRead) {
      RETURN_IF_ERROR(firstFqddValue(KeywordText, &device));
      deviceRead = true;
    }
    if (!device) break;  // no "FQDD" token: no entry can be chosen
    const XML_NODE* value = entry->children;
    if (!value || !value->contents || !tvl::rt::equal(value->contents, device.get())) continue;
    bool match = false;
    RETURN_IF_ERROR(modifiersMatch(KeywordText, entry, &match));
    if (match) return addAttribute(kEnabledAttribute, Value, &entry);
  }
  return EFI_NOT_FOUND;
}

EFI_STATUS findEnableCheckbox(const CHAR8* ListName, XML_NODE* Entry, HII_FORMSET_RECORD* FormSet,
                              EFI_HII_HANDLE HiiHandle, CHAR16** BlockName, UINT8* NewValue) {
  tvl::exp::CheckboxKeywords keywords(FormSet, HiiHandle);
  return tvl::exp::findEnableCheckboxIn(ListName, Entry, keywords, BlockName, NewValue);
}

}  // extern "C"

namespace tvl::exp {

CheckboxKeywords::~CheckboxKeywords() {
  for (UINTN i = 0; i < count_; ++i) rt::release(entries_[i].text);
  rt::release(entries_);
}

EFI_STATUS CheckboxKeywords::prepare() {
  if (entries_ || !formSet_) return EFI_SUCCESS;
  UINTN count = 0;
  for (UINT64 f = 0; f < formSet_->FormCount; ++f) {
    const HII_FORM_RECORD* form = formSet_->Forms[f];
    for (UINT64 s = 0; form && s < form->StatementCount; ++s) {
      const HII_STATEMENT_RECORD* statement = form->Statements[s];
      if (statement && statement->HiiValue.Type == EFI_IFR_TYPE_BOOLEAN) ++count;
    }
  }
  Pool<Entry> entries = Pool<Entry>::zeroed(count ? count : 1);
  if (!entries) return EFI_OUT_OF_RESOURCES;
  UINTN i = 0;
  for (UINT64 f = 0; f < formSet_->FormCount; ++f) {
    const HII_FORM_RECORD* form = formSet_->Forms[f];
    for (UINT64 s = 0; form && s < form->StatementCount; ++s) {
      HII_STATEMENT_RECORD* statement = form->Statements[s];
      if (statement && statement->HiiValue.Type == EFI_IFR_TYPE_BOOLEAN) entries[i++].statement = statement;
    }
  }
  entries_ = entries.release();
  count_ = count;
  return EFI_SUCCESS;
}

EFI_STATUS CheckboxKeywords::text(UINTN i, const CHAR8** text) {
  Entry& entry = entries_[i];
  *text = nullptr;
  if (entry.state == kUnfetched) {
    EFI_STATUS status = GetString(kKeywordLanguage, hiiHandle_, entry.statement->Prompt, &entry.text);
    // A shortage is not a statement without a keyword text: it is asked
    // again next time.
    if (status == EFI_OUT_OF_RESOURCES) return status;
    entry.state = EFI_ERROR(status) || !entry.text ? kNone : kFetched;
  }
  if (entry.state == kFetched) *text = entry.text;
  return EFI_SUCCESS;
}

EFI_STATUS findEnableCheckboxIn(const CHAR8* ListName, XML_NODE* Entry, CheckboxKeywords& keywords,
                                CHAR16** BlockName, UINT8* NewValue) {
  if (!ListName || !Entry || !Entry->attributes || !keywords.formSet() || !BlockName || !NewValue)
    return EFI_INVALID_PARAMETER;
  CHAR8* enabled = nullptr;
  if (EFI_ERROR(getAttributeValue(Entry, kEnabledAttribute, &enabled))) return EFI_INVALID_PARAMETER;
  const bool wantOn = rt::equal(enabled, kTrue);
  const CHAR8* device = Entry->children ? Entry->children->contents : nullptr;
  const UINTN listLength = rt::length(ListName);

  RETURN_IF_ERROR(keywords.prepare());
  for (UINTN i = 0; i < keywords.count(); ++i) {
    const CHAR8* text = nullptr;
    RETURN_IF_ERROR(keywords.text(i, &text));
    if (!text) continue;
    UINTN n = 0;
    while (n < listLength && text[n] == ListName[n]) ++n;
    if (n != listLength) continue;

    bool candidate = false;
    RETURN_IF_ERROR(anyFqddEquals(text, device, &candidate));
    if (!candidate) continue;
    bool match = false;
    RETURN_IF_ERROR(modifiersMatch(text, Entry, &match));
    if (!match) continue;

    const HII_STATEMENT_RECORD* statement = keywords.statement(i);
    const bool on = statement->HiiValue.Value[0] == 1;
    *BlockName = nullptr;
    if (on && !wantOn) {
      *BlockName = statement->BlockName;
      *NewValue = 0;
    } else if (!on && wantOn) {
      *BlockName = statement->BlockName;
      *NewValue = 1;
    }
    return EFI_SUCCESS;
  }
  return EFI_NOT_FOUND;
}

}  // namespace tvl::exp
