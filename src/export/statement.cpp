// ConfigItem elements: one per exported statement in each tree, with the
// children every item carries, the value part of subtitles, texts,
// references and passwords, the hidden copies of the BIOS passwords, and
// the closing elements.
#include "driver/trace.h"
#include "export/config_item.h"
#include "export/export.h"
#include "export/keyword.h"
#include "export/mapping.h"
#include "export/walk.h"
#include "util/hii_string.h"

using tvl::trace;
using tvl::rt::Pool;

namespace tvl::exp {
namespace {

constexpr CHAR8 kFunction[] = "tvlHiiToNode";
constexpr CHAR8 kEnUs[] = "en-US";

// One statement's two items while they are built.
struct ItemWalk {
  FormWalk& form;
  HII_STATEMENT_RECORD* statement;
  ChildList possible;
  ChildList current;

  FormSetWalk& set() { return *form.formSet; }
  EFI_HII_HANDLE hii() { return form.formSet->export_->hiiHandle; }
  const CHAR8* language() { return form.formSet->language; }

  // The statement's keyword text: its prompt in the chosen language.
  EFI_STATUS keyword(Pool<CHAR8>& text) { return GetString(language(), hii(), statement->Prompt, text.receive()); }
};

// The 16-bit number two bytes into the value: a reference's target form.
UINT16 referenceFormId(const HII_VALUE& value) { return UINT16(value.Value[2] | (value.Value[3] << 8)); }

EFI_STATUS appendBiosMapping(ChildList& list, UINT64 number) {
  XML_NODE* node = nullptr;
  RETURN_IF_ERROR(appendDecimal(list, "BiosMapping", number, &node));
  return addAttribute("Type", "Dynamic", &node);
}

// A "ValueStruct" with one "Value" child holding `text`.
EFI_STATUS appendValueStruct(ChildList& item, const CHAR8* text) {
  XML_NODE* valueStruct = nullptr;
  RETURN_IF_ERROR(appendEmpty(item, "ValueStruct", &valueStruct));
  ChildList children(valueStruct);
  return appendText(children, "Value", text);
}

// The value part of subtitles, texts, references and passwords (current
// tree only). `skip` is set when the statement goes no further.
EFI_STATUS writeSimpleValue(ItemWalk& item, bool* skip) {
  HII_STATEMENT_RECORD* s = item.statement;
  Pool<CHAR8> text;
  switch (s->Operand) {
    case EFI_IFR_SUBTITLE_OP:
      // The whole prompt in the chosen language, tokens included.
      if (EFI_ERROR(item.keyword(text))) break;
      return appendValueStruct(item.current, text.get());
    case EFI_IFR_TEXT_OP:
      if (EFI_ERROR(GetString(kEnUs, item.hii(), s->TextTwo, text.receive())) &&
          EFI_ERROR(GetStringBeforeBracket(item.language(), item.hii(), s->Prompt, text.receive())))
        break;
      return appendValueStruct(item.current, text.get());
    case EFI_IFR_PASSWORD_OP: {
      XML_NODE* valueStruct = nullptr;
      RETURN_IF_ERROR(appendEmpty(item.current, "ValueStruct", &valueStruct));
      ChildList children(valueStruct);
      return appendEmpty(children, "Value");
    }
    case EFI_IFR_REF_OP: {
      // The title of the first form with the target id whose title can be
      // fetched; none: no value.
      HII_FORMSET_RECORD* formSet = item.set().record;
      UINT16 target = referenceFormId(s->HiiValue);
      for (UINT64 i = 0; i < formSet->FormCount; ++i) {
        HII_FORM_RECORD* form = formSet->Forms[i];
        if (form->FormId != target) continue;
        if (!EFI_ERROR(GetString(item.language(), item.hii(), form->FormTitle, text.receive())))
          return appendValueStruct(item.current, text.get());
      }
      return EFI_SUCCESS;
    }
    default:
      return EFI_SUCCESS;
  }
  *skip = true;
  return EFI_SUCCESS;
}

// Replaces the contents of `node` by a copy of `text` (the new text may be
// longer than the old one, so it is always a new allocation).
bool replaceContents(XML_NODE* node, const CHAR8* text) {
  Pool<CHAR8> copy = rt::duplicate(text);
  if (!copy) return false;
  rt::release(node->contents);
  node->contents = copy.release();
  return true;
}

// The hidden copy of a BIOS password item: everything the item holds so
// far, renamed, suppressed and with its own BIOS mapping, linked after it.
// A copy that cannot be made is left out; only a refused "Suppressed" ends
// the export.
EFI_STATUS appendPasswordCopy(ChildList& form, XML_NODE* item, const CHAR8* copyName, const CHAR8* mapping) {
  XML_NODE* copy = nullptr;
  if (EFI_ERROR(copyNodeTree(item, &copy))) {
    if (copy) freeNode(copy);
    return EFI_SUCCESS;
  }
  XML_NODE* nameNode = nullptr;
  XML_NODE* mappingNode = nullptr;
  if (EFI_ERROR(findNodeByName("Name", copy->children, &nameNode)) || !replaceContents(nameNode, copyName) ||
      EFI_ERROR(findNodeByName("BiosMapping", copy->children, &mappingNode)) ||
      !replaceContents(mappingNode, mapping)) {
    freeNode(copy);
    return EFI_SUCCESS;
  }
  form.append(copy);
  return addAttribute("Suppressed", "true", &copy);
}

// SetupPassword and SysPassword of a BIOS device get a hidden copy each
// (OldSetupPassword, OldSysPassword) that carries the old password.
EFI_STATUS appendPasswordCopies(ChildList& form) {
  struct Copy {
    const CHAR8* name;
    const CHAR8* copyName;
    const CHAR8* mapping;  // 65535 and 65534 in lower-case hexadecimal
  };
  static constexpr Copy kCopies[] = {
      {"SetupPassword", "OldSetupPassword", "ffff"},
      {"SysPassword", "OldSysPassword", "fffe"},
  };
  for (const Copy& c : kCopies) {
    XML_NODE* last = form.last();
    XML_NODE* name = last ? last->children : nullptr;
    if (!name || !name->contents || !rt::equal(name->contents, c.name)) continue;
    RETURN_IF_ERROR(appendPasswordCopy(form, last, c.copyName, c.mapping));
  }
  return EFI_SUCCESS;
}

// "Help" and "Dependencies" of the possible item, after its values.
EFI_STATUS appendClosingElements(ItemWalk& item) {
  XML_NODE* help = nullptr;
  if (!EFI_ERROR(createLangStringNodes("Help", item.statement->Help, item.set().record, item.hii(), &help)))
    item.possible.append(help);
  Pool<CHAR8> keyword;
  if (EFI_ERROR(item.keyword(keyword))) return EFI_SUCCESS;
  XML_NODE* dependencies = nullptr;
  if (!EFI_ERROR(createDependenciesNode(keyword.get(), &dependencies))) item.possible.append(dependencies);
  return EFI_SUCCESS;
}

bool isValueList(UINT8 operand) {
  return operand == EFI_IFR_ONE_OF_OP || operand == EFI_IFR_CHECKBOX_OP || operand == EFI_IFR_NUMERIC_OP ||
         operand == EFI_IFR_STRING_OP || operand == EFI_IFR_ORDERED_LIST_OP;
}

// The children of both items up to and including their value parts, then
// the closing elements. Returns success for statements that stop early.
EFI_STATUS fillItems(ItemWalk& item, const CHAR8* name, bool isVersion) {
  HII_STATEMENT_RECORD* s = item.statement;
  ExportContext& context = *item.set().export_;

  const CHAR8* mappedName = nullptr;
  if (context.nicDevice) getMappedName(name, &mappedName);

  RETURN_IF_ERROR(appendText(item.possible, "Name", mappedName ? mappedName : name));
  EFI_STATUS status = appendDecimal(item.possible, "RefFormId", referenceFormId(s->HiiValue));
  if (EFI_ERROR(status)) {
    trace(TVL_LEVEL_PROGRESS, kFunction, u"Error creating XML RefFormID Node\n");
    return status;
  }
  if (mappedName) RETURN_IF_ERROR(appendText(item.possible, "MappedName", name));
  RETURN_IF_ERROR(appendText(item.current, "Name", mappedName ? mappedName : name));
  if (mappedName) RETURN_IF_ERROR(appendText(item.current, "MappedName", name));

  XML_NODE* displayNames = nullptr;
  if (EFI_ERROR(createLangStringNodes("DisplayName", s->Prompt, item.set().record, item.hii(), &displayNames)))
    return EFI_SUCCESS;
  item.possible.append(displayNames);
  RETURN_IF_ERROR(appendBiosMapping(item.possible, s->Prompt));
  RETURN_IF_ERROR(appendBiosMapping(item.current, s->Prompt));

  Pool<CHAR8> keyword;
  if (EFI_ERROR(item.keyword(keyword))) return EFI_SUCCESS;
  XML_NODE* modifiers = nullptr;
  if (!EFI_ERROR(createModifierNodes(keyword.get(), &modifiers))) item.possible.append(modifiers);
  modifiers = nullptr;
  if (!EFI_ERROR(createModifierNodes(keyword.get(), &modifiers))) item.current.append(modifiers);
  keyword.reset();

  RETURN_IF_ERROR(appendText(item.current, "CommitIndex", "0"));
  if (mKeepFormSets == 1 && s->BlockName) {
    Pool<CHAR8> blockName = Pool<CHAR8>::zeroed(rt::length(s->BlockName) + 1);
    if (!blockName) return EFI_OUT_OF_RESOURCES;
    for (UINTN i = 0; s->BlockName[i]; ++i) blockName[i] = CHAR8(s->BlockName[i] & 0xFF);
    RETURN_IF_ERROR(appendText(item.current, "BlockName", blockName.get()));
  }
  RETURN_IF_ERROR(appendDecimal(item.possible, "DisplayIndex", context.displayBase + item.form.position));
  ++item.form.position;

  // Where the current tree's "MappingSource" goes in an unmapped form set.
  XML_NODE* mappingParent = item.current.parent();
  if (isValueList(s->Operand)) {
    ValueLists lists{item.form, s, isVersion, item.possible, item.current, nullptr};
    bool turnedAway = false;
    RETURN_IF_ERROR(writeValueLists(lists, &turnedAway));
    if (turnedAway) return EFI_SUCCESS;
    mappingParent = lists.mappingParent;
  } else {
    bool skip = false;
    RETURN_IF_ERROR(writeSimpleValue(item, &skip));
    if (skip) return EFI_SUCCESS;
    if (s->Operand == EFI_IFR_PASSWORD_OP && context.biosPasswords) {
      RETURN_IF_ERROR(appendPasswordCopies(item.form.current));
      RETURN_IF_ERROR(appendPasswordCopies(item.form.possible));
    }
  }

  RETURN_IF_ERROR(appendClosingElements(item));
  if (!item.set().mapped) {
    RETURN_IF_ERROR(appendText(item.possible, "MappingSource", "NotMapped"));
    ChildList tail(mappingParent);
    RETURN_IF_ERROR(appendText(tail, "MappingSource", "NotMapped"));
  }
  return EFI_SUCCESS;
}

}  // namespace

EFI_STATUS walkStatement(FormWalk& form, HII_STATEMENT_RECORD* statement) {
  FormSetWalk& set = *form.formSet;
  EFI_HII_HANDLE hii = set.export_->hiiHandle;
  Pool<CHAR8> name;
  if (EFI_ERROR(GetStringBeforeBracket(set.language, hii, statement->Prompt, name.receive()))) return EFI_SUCCESS;
  bool isVersion = rt::equal(name.get(), "Version");
  if (isStatementDisabled(statement)) return EFI_SUCCESS;

  XML_NODE* possibleItem = nullptr;
  if (EFI_ERROR(createPossibleConfigItem(statement, set.export_->fqdd, &possibleItem))) return EFI_SUCCESS;
  form.possible.append(possibleItem);

  Pool<CHAR8> keyword;
  if (EFI_ERROR(GetString(set.language, hii, statement->Prompt, keyword.receive()))) return EFI_SUCCESS;
  if (isStatementDisabled(statement)) return EFI_SUCCESS;
  XML_NODE* currentItem = nullptr;
  if (EFI_ERROR(createCurrentConfigItem(statement, set.export_->fqdd, keyword.get(), &currentItem)))
    return EFI_SUCCESS;
  form.current.append(currentItem);
  keyword.reset();

  ItemWalk item{form, statement, ChildList(possibleItem), ChildList(currentItem)};
  return fillItems(item, name.get(), isVersion);
}

}  // namespace tvl::exp
