// The block-name lookup of the save path: which statement of the device's
// freshly parsed forms a configuration string addresses (same variable
// store, same offset and width), its keyword name, and whether the string
// may be written: unchanged one-of values are skipped, read-only and
// suppressed statements and suppressed options are refused.
#include "driver/trace.h"
#include "export/config_item.h"
#include "export/export.h"
#include "export/keyword.h"
#include "export/walk.h"
#include "import/save.h"
#include "util/device_handles.h"
#include "util/hii_string.h"
#include "util/text.h"

using tvl::rt::Pool;

namespace tvl::imp {
namespace {

constexpr CHAR8 kFunction[] = "GetInfoByBlockName";
constexpr UINT8 kOneOfOpcode = 0x05;
constexpr UINTN kHexTextSize = 64;

// A value block as the statement's type prints it, without leading zeros:
// "%x" for 8, 16 and 32 bits, "%lx" for 64; empty for any other type.
struct HexText {
  CHAR16 text[kHexTextSize];
};
HexText valueText(const HII_VALUE& value) {
  HexText out{};
  const UINTN width = hiiNumberWidth(value.Type);
  if (width == 8)
    formatUnicodeN(out.text, kHexTextSize, u"%lx", hiiValueNumber(value, width));
  else if (width != 0)
    formatUnicodeN(out.text, kHexTextSize, u"%x", UINT32(hiiValueNumber(value, width)));
  return out;
}

// The variable-store GUID of a header: GetComponentData into 16 zeroed
// bytes (fewer digits leave the last bytes zero).
bool readStoreGuid(const CHAR16* configHdr, EFI_GUID* guid) {
  if (!configHdr) return false;
  CHAR16* position = const_cast<CHAR16*>(configHdr);
  UINTN size = sizeof(EFI_GUID);
  rt::setMem(guid, sizeof(EFI_GUID), 0);
  return !EFI_ERROR(GetComponentData(&position, u"GUID=", &size, reinterpret_cast<UINT8*>(guid)));
}

bool startsWith(const CHAR16* text, const CHAR16* prefix, UINTN length) {
  for (UINTN i = 0; i < length; ++i)
    if (text[i] != prefix[i]) return false;
  return true;
}

// What the walk of the form sets found.
struct Match {
  HII_STATEMENT_RECORD* statement = nullptr;
  Pool<CHAR8> name;
  Pool<CHAR8> keyword;  // null for the "Option ROM" statement, handed out unjudged
};

// The first statement in form-set, form and statement order whose store
// and block name match and whose keyword texts can be fetched.
EFI_STATUS findStatement(HII_FORMSET_RECORD** formSets, UINTN formSetCount, EFI_HII_HANDLE hiiHandle,
                         const EFI_GUID& storeGuid, const CHAR16* offsetAndWidth, UINTN partLength, Match& match) {
  for (UINTN f = 0; f < formSetCount; ++f) {
    const HII_FORMSET_RECORD* formSet = formSets[f];
    if (!formSet) continue;
    const CHAR8* language = nullptr;
    bool mapped = false;
    if (EFI_ERROR(exp::chooseLanguage(*formSet, &language, &mapped))) return EFI_NOT_FOUND;
    for (UINT64 g = 0; g < formSet->FormCount; ++g) {
      const HII_FORM_RECORD* form = formSet->Forms[g];
      for (UINT64 s = 0; form && s < form->StatementCount; ++s) {
        HII_STATEMENT_RECORD* statement = form->Statements[s];
        if (!statement || !statement->BlockName || !statement->VarStore) continue;
        if (rt::compareMem(&statement->VarStore->Guid, &storeGuid, sizeof(EFI_GUID)) != 0) continue;
        if (!startsWith(statement->BlockName, offsetAndWidth, partLength)) continue;
        Pool<CHAR8> name;
        if (EFI_ERROR(GetStringBeforeBracket(language, hiiHandle, statement->Prompt, name.receive()))) continue;
        if (rt::equal<CHAR8>(name.get(), "Option ROM")) {
          match.statement = statement;
          match.name = static_cast<Pool<CHAR8>&&>(name);
          return EFI_SUCCESS;
        }
        Pool<CHAR8> keyword;
        if (EFI_ERROR(GetString(language, hiiHandle, statement->Prompt, keyword.receive()))) continue;
        match.statement = statement;
        match.name = static_cast<Pool<CHAR8>&&>(name);
        match.keyword = static_cast<Pool<CHAR8>&&>(keyword);
        return EFI_SUCCESS;
      }
    }
  }
  return EFI_NOT_FOUND;
}

UINT64 judge(const HII_STATEMENT_RECORD* statement, const CHAR8* keyword, const CHAR16* value) {
  if (isStatementValueUnchanged(statement, value)) {
    trace(TVL_LEVEL_PROGRESS, kFunction, u"Statement is Unchanges\n");
    return kVerdictUnchanged;
  }
  UINT64 verdict = kVerdictWrite;
  if (!hasKeywordValue(keyword, "ProgWrite", "true") && isStatementReadOnly(statement)) {
    trace(TVL_LEVEL_PROGRESS, kFunction, u"Statement is ReadOnly\n");
    verdict = kVerdictReadOnly;
  }
  if (isStatementSuppressed(statement) && !hasKeywordValue(keyword, "ProgWriteSuppress", "true") &&
      !hasKeywordValue(keyword, "ProgUnhide", "true")) {
    trace(TVL_LEVEL_PROGRESS, kFunction, u"Statement is suppressed\n");
    verdict = kVerdictSuppressed;
  }
  if (statement->Operand == kOneOfOpcode && isOptionSuppressed(statement, value)) {
    trace(TVL_LEVEL_PROGRESS, kFunction, u"Option is Suppressed\n");
    verdict = kVerdictOptionSuppressed;
  }
  return verdict;
}

// The lookup once the forms are parsed; the caller gives them back.
EFI_STATUS lookUp(HII_FORMSET_RECORD** formSets, UINTN formSetCount, EFI_HII_HANDLE hiiHandle,
                  const CHAR16* configHdr, const CHAR16* blockName, CHAR8** name, UINT64* verdict) {
  const CHAR16* valueField = findWide(blockName, u"&VALUE=");
  if (!valueField) return EFI_INVALID_PARAMETER;
  const UINTN partLength = UINTN(valueField - blockName);
  Pool<CHAR16> offsetAndWidth = rt::duplicate(blockName, partLength);
  Pool<CHAR16> value = rt::duplicate(valueField + 7);
  if (!offsetAndWidth || !value) return EFI_OUT_OF_RESOURCES;

  EFI_GUID storeGuid;
  if (!readStoreGuid(configHdr, &storeGuid)) return EFI_INVALID_PARAMETER;

  Match match;
  RETURN_IF_ERROR(
      findStatement(formSets, formSetCount, hiiHandle, storeGuid, offsetAndWidth.get(), partLength, match));
  *verdict = match.keyword ? judge(match.statement, match.keyword.get(), value.get()) : kVerdictWrite;
  *name = match.name.release();
  return EFI_SUCCESS;
}

}  // namespace

const CHAR16* findWide(const CHAR16* text, const CHAR16* word) {
  for (; text && *text; ++text) {
    UINTN i = 0;
    while (word[i] && text[i] == word[i]) ++i;
    if (!word[i]) return text;
  }
  return nullptr;
}

}  // namespace tvl::imp

extern "C" {

EFI_STATUS GetComponentData(CHAR16** ConfigString, const CHAR16* FieldName, UINTN* BufferSize, UINT8* Buffer) {
  if (!ConfigString || !*ConfigString || !FieldName || !BufferSize) return EFI_INVALID_PARAMETER;
  const CHAR16* text = *ConfigString;
  const UINTN fieldLength = tvl::rt::length(FieldName);
  if (!tvl::imp::startsWith(text, FieldName, fieldLength)) return EFI_INVALID_PARAMETER;
  const CHAR16* digits = text + fieldLength;
  UINTN count = 0;
  while (digits[count] && digits[count] != u'&') ++count;
  if (count == 0) return EFI_INVALID_PARAMETER;
  const UINTN needed = (count + 1) / 2;
  if (needed > *BufferSize) {
    *BufferSize = needed;
    return EFI_BUFFER_TOO_SMALL;
  }
  if (!Buffer) return EFI_INVALID_PARAMETER;
  for (UINTN i = 0; i < count; i += 2) {
    INTN high = tvl::hexDigitValue(digits[i]);
    if (high < 0) return EFI_INVALID_PARAMETER;
    if (i + 1 == count) {  // an odd last digit makes a byte by itself
      Buffer[i / 2] = UINT8(high);
      break;
    }
    INTN low = tvl::hexDigitValue(digits[i + 1]);
    if (low < 0) return EFI_INVALID_PARAMETER;
    Buffer[i / 2] = UINT8(high << 4 | low);
  }
  *ConfigString = const_cast<CHAR16*>(digits + count);
  return EFI_SUCCESS;
}

CHAR16* padHexToWidth(const HII_STATEMENT_RECORD* Statement, const CHAR16* HexText) {
  if (!Statement || !HexText) return nullptr;
  const CHAR16* widthField = tvl::imp::findWide(Statement->BlockName, u"&WIDTH=");
  if (!widthField) return nullptr;
  const UINTN width = UINTN(tvl::hexNumberUpTo(widthField + 7, 0xFFFF));
  // A field is at most 0xffff bytes; a text wider than the field has no
  // place in it.
  const UINTN length = tvl::rt::length(HexText);
  if (width == 0 || width > 0xFFFF || length > 2 * width) return nullptr;
  Pool<CHAR16> padded = Pool<CHAR16>::zeroed(2 * width + 1);
  if (!padded) return nullptr;
  const UINTN zeros = 2 * width - length;
  for (UINTN i = 0; i < zeros; ++i) padded[i] = u'0';
  tvl::rt::copyMem(padded.get() + zeros, HexText, length * sizeof(CHAR16));
  return padded.release();
}

BOOLEAN isStatementValueUnchanged(const HII_STATEMENT_RECORD* Statement, const CHAR16* Value) {
  if (!Statement || !Value || Statement->Operand != tvl::imp::kOneOfOpcode) return FALSE;
  tvl::imp::HexText current = tvl::imp::valueText(Statement->HiiValue);
  Pool<CHAR16> padded(padHexToWidth(Statement, current.text));
  if (!padded) return FALSE;
  return tvl::imp::startsWith(Value, padded.get(), tvl::rt::length(padded.get())) ? TRUE : FALSE;
}

BOOLEAN isOptionSuppressed(const HII_STATEMENT_RECORD* Statement, const CHAR16* Value) {
  if (!Statement || !Value) return FALSE;
  for (UINT64 i = 0; i < Statement->OptionCount; ++i) {
    const HII_OPTION_RECORD* option = Statement->Options[i];
    if (!option) continue;
    if (tvl::rt::equal<CHAR16>(tvl::imp::valueText(option->Value).text, Value))
      return option->OptionSuppressed == 1 ? TRUE : FALSE;
  }
  return FALSE;
}

EFI_STATUS GetInfoByBlockName(EFI_HANDLE DriverHandle, const CHAR16* ConfigHdr, const CHAR16* BlockName,
                              CHAR8** Name, UINT64* Verdict) {
  using namespace tvl::imp;
  if (!DriverHandle || !BlockName || !Name || !Verdict) return EFI_INVALID_PARAMETER;
  UINTN handleCount = 0;
  Pool<EFI_HII_HANDLE> handles;
  RETURN_IF_ERROR(HandleToHiiHandleBuffer(DriverHandle, &handleCount, handles.receive()));

  HII_FORMS_PROCESSOR2_PROTOCOL* forms = gHiiFormsProcessor2Protocol;
  const EFI_GUID* filter = mIsBiosSetup ? &gInternalBIOSSetup : mIsSsdForms ? &gInternalSSDSetup : nullptr;
  UINTN formSetCount = 0;
  HII_FORMSET_RECORD** formSets = nullptr;
  EFI_STATUS status = forms->ProcessForms(forms, &handles[0], 1, filter, &formSetCount, &formSets);
  if (EFI_ERROR(status)) {
    tvl::trace(TVL_LEVEL_PROGRESS, kFunction, u"ProcessForms Failed\n");
    return status;
  }
  status = lookUp(formSets, formSetCount, handles[0], ConfigHdr, BlockName, Name, Verdict);
  // The form sets go back in any case; on a failure path a failure to give
  // them back is what the caller hears.
  EFI_STATUS destroyed = forms->DestroyFormSets(forms, formSetCount, formSets);
  if (EFI_ERROR(status) && EFI_ERROR(destroyed)) return destroyed;
  return status;
}

}  // extern "C"
