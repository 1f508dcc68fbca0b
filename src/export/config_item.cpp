#include "export/config_item.h"

#include "driver/trace.h"
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

constexpr CHAR8 kConfigItemName[] = "ConfigItem";
constexpr CHAR8 kTrue[] = "true";
constexpr CHAR8 kSuppressedAttribute[] = "Suppressed";
constexpr CHAR8 kKeywordLanguage[] = "x-UEFI";
constexpr CHAR8 kDisplayLanguage[] = "en-US";

// The "Type" of the exported opcodes. The password word gives way to
// "String" on a NIC device.
struct ConfigItemType {
  UINT8 opcode;
  const CHAR8* word;
};
constexpr ConfigItemType kConfigItemTypes[] = {
    {EFI_IFR_SUBTITLE_OP, "Subtitle"},    {EFI_IFR_TEXT_OP, "String"},      {EFI_IFR_ONE_OF_OP, "Enumeration"},
    {EFI_IFR_CHECKBOX_OP, "Checkbox"},    {EFI_IFR_NUMERIC_OP, "Integer"},  {EFI_IFR_PASSWORD_OP, "Password"},
    {EFI_IFR_REF_OP, "FormReference"},    {EFI_IFR_STRING_OP, "String"},    {EFI_IFR_ORDERED_LIST_OP, "OrderedList"},
};

// NIC adapters take their passwords (iSCSI CHAP secrets and the like) as
// plain strings. The test is on the letters "NIC" anywhere, as written.
bool isNicDevice(const CHAR16* fqdd) {
  if (!fqdd) return false;
  for (; fqdd[0]; ++fqdd)
    if (fqdd[0] == u'N' && fqdd[1] == u'I' && fqdd[2] == u'C') return true;
  return false;
}

const CHAR8* typeWord(UINT8 opcode, const CHAR16* fqdd) {
  if (opcode == EFI_IFR_PASSWORD_OP && isNicDevice(fqdd)) return "String";
  for (const ConfigItemType& type : kConfigItemTypes)
    if (type.opcode == opcode) return type.word;
  return nullptr;
}

// A new "ConfigItem" with its "Type"; EFI_NOT_FOUND for an opcode that is
// not exported.
EFI_STATUS createTypedItem(const HII_STATEMENT_RECORD* statement, const CHAR16* fqdd, OwnedNode* item) {
  RETURN_IF_ERROR(createNode(kConfigItemName, item->receive()));
  const CHAR8* word = typeWord(statement->Operand, fqdd);
  if (!word) return EFI_NOT_FOUND;
  return addAttribute("Type", word, item->address());
}

}  // namespace

extern "C" {

EFI_STATUS createPossibleConfigItem(HII_STATEMENT_RECORD* Statement, const CHAR16* Fqdd, XML_NODE** Out) {
  if (!Statement || !Out) return EFI_INVALID_PARAMETER;
  OwnedNode item;
  RETURN_IF_ERROR(createTypedItem(Statement, Fqdd, &item));
  const UINT8 opcode = Statement->Operand;
  if (opcode == EFI_IFR_NUMERIC_OP || opcode == EFI_IFR_PASSWORD_OP || opcode == EFI_IFR_STRING_OP) {
    RETURN_IF_ERROR(addNumericAttribute("Min", Statement->Minimum, item.address()));
    RETURN_IF_ERROR(addNumericAttribute("Max", Statement->Maximum, item.address()));
  }
  if (opcode == EFI_IFR_NUMERIC_OP) {
    RETURN_IF_ERROR(addNumericAttribute("Step", Statement->Step, item.address()));
    RETURN_IF_ERROR(addNumericAttribute("ValueType", Statement->ValueType, item.address()));
  }
  if (Statement->ResetRequired) RETURN_IF_ERROR(addAttribute("RebootNeeded", kTrue, item.address()));
  *Out = item.release();
  return EFI_SUCCESS;
}

EFI_STATUS createCurrentConfigItem(HII_STATEMENT_RECORD* Statement, const CHAR16* Fqdd, const CHAR8* KeywordText,
                                   XML_NODE** Out) {
  if (!Statement || !Out) return EFI_INVALID_PARAMETER;
  OwnedNode item;
  RETURN_IF_ERROR(createTypedItem(Statement, Fqdd, &item));
  // A reference only leads to another form; it is never marked read-only.
  if (!hasKeywordValue(KeywordText, "ProgWrite", kTrue) && Statement->Operand != EFI_IFR_REF_OP &&
      isStatementReadOnly(Statement))
    RETURN_IF_ERROR(addAttribute("ReadOnly", kTrue, item.address()));
  if (!hasKeywordValue(KeywordText, "ProgUnhide", kTrue) && isStatementSuppressed(Statement))
    RETURN_IF_ERROR(addAttribute(kSuppressedAttribute, kTrue, item.address()));
  *Out = item.release();
  return EFI_SUCCESS;
}

BOOLEAN isStatementReadOnly(const HII_STATEMENT_RECORD* Statement) {
  if (!Statement) return FALSE;
  if (Statement->ReadOnlyMark == 1) return TRUE;
  const HII_EXPRESSION_RECORD* condition = Statement->ReadOnlyCondition;
  if (condition && condition->Result.Type == EFI_IFR_TYPE_BOOLEAN && condition->Result.Value[0] == 1) return TRUE;
  if (Statement->ReadOnlyFlag || Statement->LockedFlag) return TRUE;
  return Statement->Operand == EFI_IFR_TEXT_OP;
}

BOOLEAN isStatementSuppressed(const HII_STATEMENT_RECORD* Statement) {
  if (!Statement || Statement->SuppressedMark != 1) return FALSE;
  tvl::trace(TVL_LEVEL_FINDING, "isStatementSuppressed", u"Statement is suppressed\n");
  return TRUE;
}

BOOLEAN isStatementDisabled(const HII_STATEMENT_RECORD* Statement) {
  if (!Statement || Statement->DisabledMark != 1) return FALSE;
  tvl::trace(TVL_LEVEL_PROGRESS, "isStatementDisabled", u"Statement is Disabled \n");
  return TRUE;
}

EFI_STATUS createLangStringNodes(const CHAR8* ElementName, EFI_STRING_ID StringId, HII_FORMSET_RECORD* FormSet,
                                 EFI_HII_HANDLE HiiHandle, XML_NODE** Out) {
  if (!ElementName || StringId == 0 || !FormSet || !HiiHandle || !Out) return EFI_INVALID_PARAMETER;
  OwnedNode first;
  XML_NODE* last = nullptr;
  for (UINT64 i = 0; i < FormSet->NumberOfLanguages; ++i) {
    const CHAR8* language = FormSet->Languages[i];
    if (!language || compareNoCase(language, kKeywordLanguage) == 0) continue;
    if (!tvl::rt::equal(language, kDisplayLanguage)) continue;
    Pool<CHAR8> text;
    if (EFI_ERROR(GetString(language, HiiHandle, StringId, text.receive())) || !text) continue;

    OwnedNode element;
    RETURN_IF_ERROR(createNodeWithString(ElementName, text.get(), element.receive()));
    text.reset();
    // Linked before "Lang" is added, so the chain owns it from here on.
    XML_NODE* made = element.get();
    if (last)
      last->next = element.release();
    else
      first.reset(element.release());
    last = made;
    RETURN_IF_ERROR(addAttribute("Lang", language, &made));
  }
  if (!first) return EFI_NOT_FOUND;
  *Out = first.release();
  return EFI_SUCCESS;
}

BOOLEAN isNodeSuppressed(XML_NODE* Node) {
  if (!Node) return FALSE;
  for (const XML_ATTRIBUTE* attribute = Node->attributes; attribute; attribute = attribute->next)
    if (attribute->name && attribute->value && tvl::rt::equal(attribute->name, kSuppressedAttribute) &&
        compareNoCase(attribute->value, kTrue) == 0)
      return TRUE;
  return FALSE;
}

}  // extern "C"
