// Value lists of one-of, checkbox, numeric, string and ordered-list
// statements: "ValueStruct" elements with the value a statement holds now
// (current tree) and the values it may take with the default stores in
// which each is the default (possible tree).
#include "driver/trace.h"
#include "export/config_item.h"
#include "export/keyword.h"
#include "export/walk.h"
#include "util/hii_string.h"
#include "util/text.h"

using tvl::rt::Pool;

namespace tvl::exp {
namespace {

bool isNumberType(UINT8 type) { return type <= EFI_IFR_TYPE_NUM_SIZE_64; }

// The number at the start of a value, read at the width of `type` (0..3).
UINT64 numberAt(const HII_VALUE& value, UINT8 type) { return hiiValueNumber(value, hiiNumberWidth(type)); }

bool startsWith(const CHAR8* text, const CHAR8* word) {
  for (; *word; ++text, ++word)
    if (*text != *word) return false;
  return true;
}

// Strings of one statement's options and values, fetched through the
// export's first HII handle in the form set's chosen language.
struct Fetch {
  EFI_HII_HANDLE hii;
  const CHAR8* language;
  EFI_STATUS name(EFI_STRING_ID id, Pool<CHAR8>& out) const {
    return GetStringBeforeBracket(language, hii, id, out.receive());
  }
  EFI_STATUS text(EFI_STRING_ID id, Pool<CHAR8>& out) const { return GetString(language, hii, id, out.receive()); }
};

EFI_STATUS appendMapping(ChildList& list, const CHAR8* text) {
  XML_NODE* node = nullptr;
  RETURN_IF_ERROR(appendText(list, "BiosMapping", text, &node));
  return addAttribute("Type", "Dynamic", &node);
}

EFI_STATUS appendMappingNumber(ChildList& list, UINT64 number) {
  Pool<CHAR8> text(numberToDecimalText(number));
  if (!text) return EFI_OUT_OF_RESOURCES;
  return appendMapping(list, text.get());
}

EFI_STATUS appendDefaultId(ChildList& list, UINT16 id) { return appendText(list, "DefaultId", defaultIdText(id).text); }

void appendModifiers(ChildList& list, const CHAR8* keyword) {
  XML_NODE* chain = nullptr;
  if (!EFI_ERROR(createModifierNodes(keyword, &chain))) list.append(chain);
}

// Removes every attribute of a node.
void dropAttributes(XML_NODE* node) {
  XML_ATTRIBUTE* attribute = node->attributes;
  node->attributes = nullptr;
  while (attribute) {
    XML_ATTRIBUTE* next = attribute->next;
    rt::release(attribute->name);
    rt::release(attribute->value);
    rt::release(attribute);
    attribute = next;
  }
}

// ---------------------------------------------------------------- one-of

// Whether a default record names the option's value: an expression default
// by its result's type and number, a constant default by its number read at
// its own width.
bool defaultMatches(const HII_DEFAULT_RECORD& record, const HII_OPTION_RECORD& option) {
  if (record.Value.Type == EFI_IFR_TYPE_OTHER) {
    const HII_EXPRESSION_RECORD* expression = record.ValueExpression;
    if (!expression || !isNumberType(expression->Result.Type) || expression->Result.Type != option.Value.Type)
      return false;
    return numberAt(expression->Result, expression->Result.Type) == numberAt(option.Value, expression->Result.Type);
  }
  if (!isNumberType(record.Value.Type)) return false;
  return numberAt(record.Value, record.Value.Type) == numberAt(option.Value, record.Value.Type);
}

class OneOf {
 public:
  OneOf(ValueLists& lists, const Fetch& fetch) : lists_(lists), fetch_(fetch), s_(*lists.statement) {}

  EFI_STATUS write() {
    for (UINT64 i = 0; i < s_.OptionCount; ++i) RETURN_IF_ERROR(writeOption(*s_.Options[i]));
    return EFI_SUCCESS;
  }

 private:
  bool isCurrent(const HII_OPTION_RECORD& option) const {
    UINT8 type = s_.HiiValue.Type;
    return isNumberType(type) && numberAt(option.Value, type) == numberAt(s_.HiiValue, type) &&
           option.OptionSuppressed == 0;
  }

  EFI_STATUS writeOption(const HII_OPTION_RECORD& option) {
    Pool<CHAR8> name;
    if (EFI_ERROR(fetch_.name(option.OptionText, name))) return EFI_SUCCESS;
    Pool<CHAR8> keyword;

    if (isCurrent(option)) {
      XML_NODE* valueStruct = nullptr;
      RETURN_IF_ERROR(appendEmpty(lists_.currentItem, "ValueStruct", &valueStruct));
      ChildList current(valueStruct);
      RETURN_IF_ERROR(appendText(current, "Value", name.get()));
      RETURN_IF_ERROR(appendMappingNumber(current, option.OptionText));
      // Without its keyword text the option is left out of the possible
      // list as well.
      if (EFI_ERROR(fetch_.text(option.OptionText, keyword))) return EFI_SUCCESS;
      appendModifiers(current, keyword.get());
    }

    XML_NODE* valueStruct = nullptr;
    RETURN_IF_ERROR(appendEmpty(lists_.possibleItem, "ValueStruct", &valueStruct));
    if (!first_) first_ = valueStruct;
    if (option.OptionSuppressed == 1) RETURN_IF_ERROR(addAttribute("Suppressed", "true", &valueStruct));
    ChildList possible(valueStruct);
    RETURN_IF_ERROR(appendText(possible, "Value", name.get()));
    XML_NODE* displayValues = nullptr;
    if (!EFI_ERROR(createLangStringNodes("DisplayValue", option.OptionText, lists_.form.formSet->record, fetch_.hii,
                                         &displayValues)))
      possible.append(displayValues);
    RETURN_IF_ERROR(appendMappingNumber(possible, option.OptionText));
    if (!keyword && EFI_ERROR(fetch_.text(option.OptionText, keyword))) return EFI_SUCCESS;
    appendModifiers(possible, keyword.get());
    XML_NODE* dependencies = nullptr;
    if (!EFI_ERROR(createDependenciesNode(keyword.get(), &dependencies))) possible.append(dependencies);

    if (option.OptionIsDefault != 0) RETURN_IF_ERROR(appendDefaultId(possible, EFI_HII_DEFAULT_CLASS_STANDARD));
    for (UINT64 d = 0; d < s_.DefaultCount; ++d) {
      if (!defaultMatches(*s_.Defaults[d], option)) continue;
      RETURN_IF_ERROR(appendDefaultId(possible, s_.Defaults[d]->DefaultId));
      break;
    }
    handOverSuppression(valueStruct);
    return EFI_SUCCESS;
  }

  // An option under a dynamic suppression condition clears the static marks
  // of every option written so far, its own included. Options already
  // cleared carry no mark any more, so each pass starts after the last one.
  void handOverSuppression(XML_NODE* valueStruct) {
    XML_NODE* condition = nullptr;
    if (EFI_ERROR(findNodeByName("SuppressIf", valueStruct->children, &condition)) &&
        EFI_ERROR(findNodeByName("SuppressIfNot", valueStruct->children, &condition)))
      return;
    for (XML_NODE* node = cleared_ ? cleared_->next : first_; node; node = node->next) {
      if (node->name && rt::equal(node->name, "ValueStruct") && isNodeSuppressed(node)) dropAttributes(node);
      cleared_ = node;
    }
  }

  ValueLists& lists_;
  const Fetch& fetch_;
  const HII_STATEMENT_RECORD& s_;
  XML_NODE* first_ = nullptr;    // the item's first possible ValueStruct
  XML_NODE* cleared_ = nullptr;  // the last ValueStruct a handover has seen
};

// ---------------------------------------------------------------- checkbox

// The boot-order switch: a checkbox whose keyword text carries an "FQDD"
// token marks the boot-sequence entry it governs as enabled or not.
void markBootEntry(ExportContext& context, const CHAR8* keyword, bool on) {
  CHAR8* key = nullptr;
  CHAR8* value = nullptr;
  const CHAR8* rest = keyword;
  bool hasFqdd = false;
  while (rest && !EFI_ERROR(getNextKeywordToken(rest, &key, &value, &rest))) {
    if (rt::equal(key, "FQDD")) {
      hasFqdd = true;
      break;
    }
  }
  rt::release(key);
  rt::release(value);
  if (!hasFqdd) return;
  const CHAR8* state = on ? "true" : "false";
  if (startsWith(keyword, "UefiBootSeqEnDis"))
    setEntryEnabled("UefiBootSeq", keyword, state, context.currentRoot);
  else if (startsWith(keyword, "BootSeqEnDis"))
    setEntryEnabled("BootSeq", keyword, state, context.currentRoot);
}

EFI_STATUS writeCheckbox(ValueLists& lists, const Fetch& fetch, bool* turnedAway) {
  const HII_STATEMENT_RECORD& s = *lists.statement;
  if (s.HiiValue.Type != EFI_IFR_TYPE_BOOLEAN) {
    *turnedAway = true;
    return EFI_SUCCESS;
  }
  UINT8 byte = s.HiiValue.Value[0];
  XML_NODE* valueStruct = nullptr;
  RETURN_IF_ERROR(appendEmpty(lists.currentItem, "ValueStruct", &valueStruct));
  ChildList current(valueStruct);
  RETURN_IF_ERROR(appendText(current, "Value", byte == 1 ? "true" : "false"));
  RETURN_IF_ERROR(appendMappingNumber(current, byte));
  lists.mappingParent = valueStruct;

  Pool<CHAR8> keyword;
  if (EFI_ERROR(fetch.text(s.Prompt, keyword))) {
    *turnedAway = true;
    return EFI_SUCCESS;
  }
  markBootEntry(*lists.form.formSet->export_, keyword.get(), byte == 1);

  // "true" first, then "false", each with the default stores that hold it.
  static constexpr UINT8 kStates[] = {1, 0};
  for (UINT8 state : kStates) {
    XML_NODE* node = nullptr;
    RETURN_IF_ERROR(appendEmpty(lists.possibleItem, "ValueStruct", &node));
    ChildList possible(node);
    RETURN_IF_ERROR(appendText(possible, "Value", state ? "true" : "false"));
    RETURN_IF_ERROR(appendMapping(possible, state ? "1" : "0"));
    for (UINT64 d = 0; d < s.DefaultCount; ++d) {
      const HII_DEFAULT_RECORD& record = *s.Defaults[d];
      if (record.Value.Type == EFI_IFR_TYPE_BOOLEAN && record.Value.Value[0] == state)
        RETURN_IF_ERROR(appendDefaultId(possible, record.DefaultId));
    }
    if (s.DefaultCount == 0) {
      // Without default records the checkbox's own flags name the stores.
      if (s.CheckboxDefault == state) RETURN_IF_ERROR(appendDefaultId(possible, EFI_HII_DEFAULT_CLASS_STANDARD));
      if (s.CheckboxDefaultMfg == state) RETURN_IF_ERROR(appendDefaultId(possible, EFI_HII_DEFAULT_CLASS_MANUFACTURING));
    }
  }
  return EFI_SUCCESS;
}

// ---------------------------------------------------------------- numeric

// Defaults print signed: 32 bits for the narrower types, 64 for 64-bit
// ones; current values print unsigned.
NumberText signedDefaultText(const HII_VALUE& value) {
  NumberText out;
  UINT64 number = numberAt(value, value.Type);
  if (value.Type == EFI_IFR_TYPE_NUM_SIZE_64)
    formatAsciiN(out.text, sizeof(out.text), "%ld", INT64(number));
  else
    formatAsciiN(out.text, sizeof(out.text), "%d", INT32(UINT32(number)));
  return out;
}

EFI_STATUS writeNumeric(ValueLists& lists, bool* turnedAway) {
  const HII_STATEMENT_RECORD& s = *lists.statement;
  if (!isNumberType(s.HiiValue.Type)) {
    *turnedAway = true;
    return EFI_SUCCESS;
  }
  XML_NODE* valueStruct = nullptr;
  RETURN_IF_ERROR(appendEmpty(lists.currentItem, "ValueStruct", &valueStruct));
  ChildList current(valueStruct);
  RETURN_IF_ERROR(appendDecimal(current, "Value", numberAt(s.HiiValue, s.HiiValue.Type)));
  lists.mappingParent = valueStruct;

  for (UINT64 d = 0; d < s.DefaultCount; ++d) {
    const HII_DEFAULT_RECORD& record = *s.Defaults[d];
    if (!isNumberType(record.Value.Type)) continue;
    NumberText text = signedDefaultText(record.Value);
    XML_NODE* node = nullptr;
    RETURN_IF_ERROR(appendEmpty(lists.possibleItem, "ValueStruct", &node));
    ChildList possible(node);
    RETURN_IF_ERROR(appendText(possible, "Value", text.text));
    RETURN_IF_ERROR(appendMapping(possible, text.text));
    RETURN_IF_ERROR(appendDefaultId(possible, record.DefaultId));
  }
  return EFI_SUCCESS;
}

// ---------------------------------------------------------------- string

// The printable text of a string question: at most `Maximum` characters and
// never past its buffer, bytes outside 0x20..0x7E as blanks; a "Version"
// loses its trailing blanks (never its first character).
Pool<CHAR8> stringValueText(const HII_STATEMENT_RECORD& s, bool isVersion) {
  const UINT8* buffer = s.HiiValue.Buffer;
  UINT64 limit = s.StorageWidth / sizeof(CHAR16);
  if (s.Maximum < limit) limit = s.Maximum;
  UINTN n = 0;
  while (buffer && n < limit && (buffer[2 * n] | buffer[2 * n + 1]) != 0) ++n;
  Pool<CHAR8> text = Pool<CHAR8>::zeroed(n + 1);
  if (!text) return text;
  for (UINTN i = 0; i < n; ++i) {
    UINT8 c = buffer[2 * i];  // the low byte of each character
    text[i] = (c >= 0x20 && c <= 0x7E) ? CHAR8(c) : ' ';
  }
  if (isVersion)
    while (n > 1 && text[n - 1] == ' ') text[--n] = 0;
  return text;
}

EFI_STATUS writeString(ValueLists& lists, const Fetch& fetch, bool* turnedAway) {
  const HII_STATEMENT_RECORD& s = *lists.statement;
  if (s.HiiValue.Type != EFI_IFR_TYPE_STRING) {
    *turnedAway = true;
    return EFI_SUCCESS;
  }
  Pool<CHAR8> text = stringValueText(s, lists.isVersion);
  if (!text) return EFI_OUT_OF_RESOURCES;
  XML_NODE* valueStruct = nullptr;
  RETURN_IF_ERROR(appendEmpty(lists.currentItem, "ValueStruct", &valueStruct));
  ChildList current(valueStruct);
  RETURN_IF_ERROR(appendText(current, "Value", text.get()));

  for (UINT64 d = 0; d < s.DefaultCount; ++d) {
    const HII_DEFAULT_RECORD& record = *s.Defaults[d];
    if (record.Value.Type != EFI_IFR_TYPE_STRING) continue;
    XML_NODE* node = nullptr;
    RETURN_IF_ERROR(appendEmpty(lists.possibleItem, "ValueStruct", &node));
    // A default whose text cannot be fetched keeps its empty ValueStruct:
    // the reader still sees that the store has a default for the question.
    Pool<CHAR8> defaultText;
    if (EFI_ERROR(fetch.text(UINT16(numberAt(record.Value, EFI_IFR_TYPE_NUM_SIZE_16)), defaultText))) continue;
    ChildList possible(node);
    RETURN_IF_ERROR(appendText(possible, "Value", defaultText.get()));
    RETURN_IF_ERROR(appendDefaultId(possible, record.DefaultId));
  }
  return EFI_SUCCESS;
}

// ---------------------------------------------------------------- ordered list

// Whether `option` stands at position `j` of the list's element buffer.
// Options of another type than the elements stand everywhere the buffer
// reaches; lists of 32- or 64-bit elements hold no option.
bool standsAt(const HII_STATEMENT_RECORD& s, const HII_OPTION_RECORD& option, UINT64 j) {
  const UINT8* buffer = s.HiiValue.Buffer;
  if (s.ValueType > EFI_IFR_TYPE_NUM_SIZE_16 || !buffer) return false;
  UINT64 width = hiiNumberWidth(s.ValueType);
  if ((j + 1) * width > s.StorageWidth) return false;
  if (option.Value.Type != s.ValueType) return true;
  UINT64 element = width == 1 ? buffer[j] : UINT64(buffer[2 * j] | (buffer[2 * j + 1] << 8));
  return element == numberAt(option.Value, s.ValueType);
}

EFI_STATUS writeOrderedListEntry(ValueLists& lists, const Fetch& fetch, const HII_OPTION_RECORD& option, UINT64 j) {
  Pool<CHAR8> name;
  if (EFI_ERROR(fetch.name(option.OptionText, name))) return EFI_SUCCESS;
  XML_NODE* valueStruct = nullptr;
  RETURN_IF_ERROR(appendEmpty(lists.currentItem, "ValueStruct", &valueStruct));
  RETURN_IF_ERROR(addNumericAttribute("Index", j, &valueStruct));
  ChildList entry(valueStruct);
  RETURN_IF_ERROR(appendText(entry, "Value", name.get()));
  XML_NODE* displayValues = nullptr;
  if (!EFI_ERROR(createLangStringNodes("DisplayValue", option.OptionText, lists.form.formSet->record, fetch.hii,
                                       &displayValues)))
    entry.append(displayValues);
  RETURN_IF_ERROR(appendMappingNumber(entry, option.OptionText));
  Pool<CHAR8> keyword;
  if (!EFI_ERROR(fetch.text(option.OptionText, keyword))) appendModifiers(entry, keyword.get());
  return EFI_SUCCESS;
}

EFI_STATUS writeOrderedList(ValueLists& lists, const Fetch& fetch) {
  const HII_STATEMENT_RECORD& s = *lists.statement;
  for (UINT64 j = 0; j < s.OptionCount; ++j)
    for (UINT64 i = 0; i < s.OptionCount; ++i)
      if (standsAt(s, *s.Options[i], j)) RETURN_IF_ERROR(writeOrderedListEntry(lists, fetch, *s.Options[i], j));
  return EFI_SUCCESS;
}

}  // namespace

EFI_STATUS writeValueLists(ValueLists& lists, bool* turnedAway) {
  *turnedAway = false;
  lists.mappingParent = lists.currentItem.parent();
  FormSetWalk& set = *lists.form.formSet;
  Fetch fetch{set.export_->hiiHandle, set.language};
  switch (lists.statement->Operand) {
    case EFI_IFR_ONE_OF_OP: {
      OneOf oneOf(lists, fetch);
      return oneOf.write();
    }
    case EFI_IFR_CHECKBOX_OP:
      return writeCheckbox(lists, fetch, turnedAway);
    case EFI_IFR_NUMERIC_OP:
      return writeNumeric(lists, turnedAway);
    case EFI_IFR_STRING_OP:
      return writeString(lists, fetch, turnedAway);
    case EFI_IFR_ORDERED_LIST_OP:
      return writeOrderedList(lists, fetch);
    default:
      *turnedAway = true;
      return EFI_SUCCESS;
  }
}

}  // namespace tvl::exp
