// Validation and encoding of pending values, one rule per type: text
// (strings, and passwords of devices other than the BIOS), integer,
// checkbox, one-of and ordered list. A rule ends with a success record
// (its segment is in the request), a failure record with its code, a pass
// over (no record), or the end of the call when a working buffer cannot be
// allocated.
#include "driver/trace.h"
#include "export/export.h"
#include "import/call.h"
#include "uefi/ifr.h"
#include "util/hii_string.h"
#include "util/text.h"
#include "xml/node.h"

using tvl::rt::Pool;

namespace tvl::imp {
namespace {

constexpr CHAR8 kFunction[] = "tvlNodeToHii";
constexpr CHAR8 kKeywordLanguage[] = "x-UEFI";
constexpr const CHAR8* kPasswordHashes[] = {"SHA256SystemPassword", "SHA256SetupPassword", "SHA256SetupPasswordSalt",
                                            "SHA256SystemPasswordSalt"};
constexpr CHAR16 kHexDigits[] = u"0123456789abcdef";

XML_NODE* findFrom(const CHAR8* name, XML_NODE* start) {
  XML_NODE* node = nullptr;
  return start && !EFI_ERROR(findNodeByName(name, start, &node)) ? node : nullptr;
}

// The decimal value of a limit of the possible item. A missing limit reads
// as 0 (the value of no digits): an item without "Max" accepts nothing but
// an empty or zero value rather than anything at all.
UINT64 limit(XML_NODE* possible, const CHAR8* name) {
  CHAR8* text = nullptr;
  return EFI_ERROR(getAttributeValue(possible, name, &text)) ? 0 : parseDecimal(text);
}

struct HexText {
  CHAR16 text[24];
};
HexText hexText(UINT64 value) {
  HexText out;
  formatUnicodeN(out.text, 24, u"%lx", value);
  return out;
}

bool isNumberType(UINT8 type) { return type <= EFI_IFR_TYPE_NUM_SIZE_64; }

// ---------------------------------------------------------------- text

// The value's bytes as they stand in the document (escaped: "&" counts as
// the five bytes of "&amp;"), each one UCS-2 character of the stored
// string, last character first.
bool textRule(ImportCall& call, PendingItem& item, bool isPassword) {
  XML_NODE* first = item.pending->children;
  XML_NODE* nameNode = findFrom("Name", first);
  if (!nameNode || !nameNode->contents) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"Error in Getting Pending Value Node for Type TEXT or PASS\n");
    return true;
  }
  for (const CHAR8* hash : kPasswordHashes)
    if (rt::equal<CHAR8>(nameNode->contents, hash)) return true;
  XML_NODE* value = findFrom("Value", first);
  if (!value) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"Error in Getting Pending Value Node\n");
    return true;
  }
  if (!value->contents || !value->contents[0]) {
    trace(TVL_LEVEL_PROGRESS, kFunction, u"PendingValueNode content is passed as NULL\n");
    if (call.addSegment(mConfigHdr, item.blockName, u"00")) call.recordSuccess(item);
    return true;
  }
  const UINTN length = rt::length(value->contents);
  const UINT64 min = limit(item.possible, "Min");
  const UINT64 max = limit(item.possible, "Max");
  if (length < min || length > max)
    return isPassword ? call.recordFailure(item, 0x602, false) : call.recordFailure(item, 0x201);

  Pool<CHAR16> digits = Pool<CHAR16>::zeroed(4 * length + 1);
  if (!digits) return call.end(EFI_OUT_OF_RESOURCES, true);
  for (UINTN i = 0, at = 0; i < length; ++i) {
    UINT8 byte = UINT8(value->contents[length - 1 - i]);
    digits[at++] = u'0';
    digits[at++] = u'0';
    digits[at++] = kHexDigits[byte >> 4];
    digits[at++] = kHexDigits[byte & 0xF];
  }
  if (call.addSegment(mConfigHdr, item.blockName, digits.get())) call.recordSuccess(item);
  return true;
}

// ---------------------------------------------------------------- numbers and checkboxes

XML_NODE* valueWithText(PendingItem& item, const CHAR16* missing) {
  XML_NODE* value = findFrom("Value", item.pending->children);
  if (value && value->contents) return value;
  trace(TVL_LEVEL_FAILURE, kFunction, missing);
  return nullptr;
}

bool integerRule(ImportCall& call, PendingItem& item) {
  XML_NODE* value = valueWithText(item, u"Error in Getting Pending Value Node for CONFIGITEM_TYPE_NUM\n");
  if (!value) return true;
  if (!isAllDigits(value->contents)) return call.recordFailure(item, 0x303);
  const UINT64 number = parseDecimal(value->contents);
  const UINT64 min = limit(item.possible, "Min");
  const UINT64 max = limit(item.possible, "Max");
  if (number < min || number > max) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"RangeCheck Failed: %d min:%d max:%d\n", UINT32(number), UINT32(min),
          UINT32(max));
    return call.recordFailure(item, 0x301);
  }
  if (call.addSegment(mConfigHdr, item.blockName, hexText(number).text)) call.recordSuccess(item);
  return true;
}

bool checkboxRule(ImportCall& call, PendingItem& item) {
  XML_NODE* value = valueWithText(item, u"Error in Getting Pending Value Node for CONFIGITEM_TYPE_CHECK\n");
  if (!value) return true;
  const CHAR16* digit = rt::equal<CHAR8>(value->contents, "true")    ? u"1"
                        : rt::equal<CHAR8>(value->contents, "false") ? u"0"
                                                                     : nullptr;
  if (!digit) return call.recordFailure(item, 0x401);
  if (call.addSegment(mConfigHdr, item.blockName, digit)) call.recordSuccess(item);
  return true;
}

// ---------------------------------------------------------------- one-of

// Whether an option whose name matches may be chosen: not suppressed, or
// suppressed only under a condition its keyword text carries (the
// condition is the caller's business). An option whose keyword text
// cannot be fetched is taken.
bool mayTake(ImportCall& call, const HII_OPTION_RECORD& option) {
  Pool<CHAR8> keyword;
  if (EFI_ERROR(GetString(kKeywordLanguage, call.hiiHandle, option.OptionText, keyword.receive()))) return true;
  return option.OptionSuppressed != 1 || hasConditionToken(keyword.get());
}

// Options whose value is not a number (a type beyond 64 bits) cannot be
// written as one: such an option is never taken, and the walk goes on.
bool oneOfRule(ImportCall& call, PendingItem& item) {
  XML_NODE* value = valueWithText(item, u"Error in Getting Pending Value Node for CONFIGITEM_TYPE_ENUM\n");
  if (!value) return true;
  const HII_OPTION_RECORD* taken = nullptr;
  const HII_STATEMENT_RECORD* statement = item.statement;
  for (UINT64 i = 0; statement && !taken && i < statement->OptionCount; ++i) {
    const HII_OPTION_RECORD* option = statement->Options[i];
    if (!option) continue;
    Pool<CHAR8> name;
    if (EFI_ERROR(GetStringBeforeBracket(kKeywordLanguage, call.hiiHandle, option->OptionText, name.receive())))
      continue;
    if (!rt::equal<CHAR8>(name.get(), value->contents)) {
      trace(TVL_LEVEL_PROGRESS, kFunction, u"PendingValueNode->contents not matched with String\n");
      continue;
    }
    trace(TVL_LEVEL_PROGRESS, kFunction, u"PendingValueNode->contents matched with String\n");
    if (isNumberType(option->Value.Type) && mayTake(call, *option)) taken = option;
  }
  if (!taken) return call.recordFailure(item, 0x101);
  UINT64 number = hiiValueNumber(taken->Value, hiiNumberWidth(taken->Value.Type));
  if (!call.addSegment(mConfigHdr, item.blockName, hexText(number).text)) return true;
  if (call.overall == EFI_DEVICE_ERROR)
    trace(TVL_LEVEL_FAILURE, kFunction, u"Overall status %r becomes %r\n", EFI_DEVICE_ERROR, EFI_ABORTED);
  call.recordSuccess(item);
  return true;
}

// ---------------------------------------------------------------- ordered list

// The keyword names of a statement's options, each fetched once per item.
class OptionNames {
 public:
  OptionNames(ImportCall& call, const HII_STATEMENT_RECORD& statement) : call_(call), statement_(statement) {}
  ~OptionNames() {
    for (UINTN i = 0; i < fetched_.size(); ++i) rt::release(fetched_[i]);
  }
  // Null when the name cannot be fetched.
  const CHAR8* at(UINTN i) {
    if (fetched_.size() <= i && !fetched_.resize(statement_.OptionCount)) return nullptr;
    if (!fetched_[i] && statement_.Options[i])
      GetStringBeforeBracket(kKeywordLanguage, call_.hiiHandle, statement_.Options[i]->OptionText, &fetched_[i]);
    return fetched_[i];
  }

 private:
  ImportCall& call_;
  const HII_STATEMENT_RECORD& statement_;
  Vec<CHAR8*> fetched_;
};

// Without a statement record there is no list to build: the item is passed
// over (always so where the form set has no "x-UEFI" names to find the
// statement by). Entries whose position lies beyond the statement's
// storage are not written, and lists of 32- or 64-bit elements never count
// as changed.
bool orderedListRule(ImportCall& call, PendingItem& item) {
  mOrderedListRequest = 1;
  if (!findFrom("ValueStruct", item.pending->children)) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"Error in Getting Pending Value Node for CONFIGITEM_TYPE_LIST\n");
    return true;
  }
  const HII_STATEMENT_RECORD* statement = item.statement;
  if (!statement) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"OrderedList without a statement record\n");
    return true;
  }
  const UINTN width = statement->StorageWidth;
  Pool<UINT8> list = Pool<UINT8>::bytes(width ? width : 1);
  if (!list) return call.end(EFI_OUT_OF_RESOURCES, true);

  OptionNames names(call, *statement);
  for (UINT64 i = 0; i < statement->OptionCount; ++i) {
    XML_NODE* entry = nullptr;
    if (EFI_ERROR(findValueStructByIndex(item.pending, i, &entry))) {
      trace(TVL_LEVEL_FAILURE, kFunction, u"Unable to find the Index: %d\n", UINT32(i));
      return call.recordFailure(item, 0x503);
    }
    CHAR16* checkbox = nullptr;
    UINT8 on = 0;
    exp::findEnableCheckboxIn(item.name, entry, call.checkboxes, &checkbox, &on);
    if (checkbox && call.addSegment(mConfigHdr, checkbox, on ? u"1" : u"0")) call.recordSuccess(item);

    const CHAR8* wanted = entry->children ? entry->children->contents : nullptr;
    for (UINT64 o = 0; o < statement->OptionCount; ++o) {
      const CHAR8* name = names.at(UINTN(o));
      if (!name) continue;
      trace(TVL_LEVEL_PROGRESS, kFunction, u"strcmp: %a == %a\n", name, wanted);
      if (!rt::equal<CHAR8>(name, wanted)) continue;
      const HII_VALUE& value = statement->Options[o]->Value;
      UINTN size = hiiNumberWidth(value.Type);
      if (size && (i + 1) * size <= width) rt::copyMem(list.get() + i * size, value.Value, size);
      break;
    }
  }

  bool changed = false;
  if (statement->ValueType <= EFI_IFR_TYPE_NUM_SIZE_16)
    changed = !statement->HiiValue.Buffer || rt::compareMem(list.get(), statement->HiiValue.Buffer, width) != 0;
  if (!changed) {
    trace(TVL_LEVEL_PROGRESS, kFunction, u"OrderedList has not changed\n");
    return true;
  }
  Pool<CHAR16> digits = Pool<CHAR16>::zeroed(2 * width + 1);
  if (!digits) return call.end(EFI_OUT_OF_RESOURCES, true);
  for (UINTN i = 0, at = 0; i < width; ++i) {
    UINT8 byte = list[width - 1 - i];
    digits[at++] = kHexDigits[byte >> 4];
    digits[at++] = kHexDigits[byte & 0xF];
  }
  if (call.addSegment(mConfigHdr, item.blockName, digits.get())) call.recordSuccess(item);
  return true;
}

}  // namespace

bool applyRule(ImportCall& call, PendingItem& item) {
  const CHAR8* type = item.type;
  mOrderedListRequest = 0;
  if (rt::equal<CHAR8>(type, "String")) return textRule(call, item, false);
  if (rt::equal<CHAR8>(type, "Password")) {
    // BIOS passwords are set through SetBIOSPassword, never as a value.
    return call.isBios ? true : textRule(call, item, true);
  }
  if (rt::equal<CHAR8>(type, "Integer")) return integerRule(call, item);
  if (rt::equal<CHAR8>(type, "Checkbox")) return checkboxRule(call, item);
  if (rt::equal<CHAR8>(type, "Enumeration")) return oneOfRule(call, item);
  if (rt::equal<CHAR8>(type, "OrderedList")) return orderedListRule(call, item);
  return true;
}

}  // namespace tvl::imp
