// FormSet and Form elements: the chosen language, titles and help in each
// tree, the forms with their modifiers and statements, the default stores,
// and the removal of the boot-order switch forms once their checkboxes have
// marked the boot-sequence entries.
#include "driver/trace.h"
#include "export/config_item.h"
#include "export/export.h"
#include "export/keyword.h"
#include "export/walk.h"
#include "util/hii_string.h"
#include "util/text.h"

using tvl::trace;
using tvl::rt::Pool;

namespace tvl::exp {
namespace {

constexpr CHAR8 kFunction[] = "tvlHiiToNode";
constexpr CHAR8 kEnUs[] = "en-US";

bool startsWith(const CHAR8* text, const CHAR8* word) {
  for (; *word; ++text, ++word)
    if (*text != *word) return false;
  return true;
}

// The element `name` with `stringId` fetched in "en-US" and "Lang"="en-US",
// appended to `list`; nothing when the string cannot be fetched.
EFI_STATUS appendEnUsText(ChildList& list, const CHAR8* name, EFI_STRING_ID stringId, EFI_HII_HANDLE hiiHandle) {
  Pool<CHAR8> text;
  if (EFI_ERROR(GetString(kEnUs, hiiHandle, stringId, text.receive()))) return EFI_SUCCESS;
  XML_NODE* node = nullptr;
  RETURN_IF_ERROR(appendText(list, name, text.get(), &node));
  return addAttribute("Lang", kEnUs, &node);
}

// The display element of a title or help text in both trees: every usable
// language in the possible tree (nothing when none works), "en-US" in the
// current tree.
EFI_STATUS appendDisplayTexts(FormSetWalk& set, const CHAR8* name, EFI_STRING_ID stringId, ChildList& possible,
                              ChildList& current) {
  XML_NODE* chain = nullptr;
  if (!EFI_ERROR(createLangStringNodes(name, stringId, set.record, set.export_->hiiHandle, &chain)))
    possible.append(chain);
  return appendEnUsText(current, name, stringId, set.export_->hiiHandle);
}

// The "Modifier" elements of a form's keyword text, one chain per tree.
void appendFormModifiers(FormSetWalk& set, const HII_FORM_RECORD& form, ChildList& possible, ChildList& current) {
  Pool<CHAR8> keyword;
  if (EFI_ERROR(GetString(set.language, set.export_->hiiHandle, form.FormTitle, keyword.receive()))) return;
  XML_NODE* chain = nullptr;
  if (!EFI_ERROR(createModifierNodes(keyword.get(), &chain))) possible.append(chain);
  chain = nullptr;
  if (!EFI_ERROR(createModifierNodes(keyword.get(), &chain))) current.append(chain);
}

EFI_STATUS walkForm(FormSetWalk& set, HII_FORM_RECORD* form, ChildList& possibleSet, ChildList& currentSet) {
  if (form->StatementCount == 0) return EFI_SUCCESS;
  Pool<CHAR8> name;
  if (EFI_ERROR(GetStringBeforeBracket(set.language, set.export_->hiiHandle, form->FormTitle, name.receive())))
    return EFI_SUCCESS;

  XML_NODE* possibleForm = nullptr;
  XML_NODE* currentForm = nullptr;
  RETURN_IF_ERROR(appendEmpty(possibleSet, "Form", &possibleForm));
  RETURN_IF_ERROR(appendEmpty(currentSet, "Form", &currentForm));
  FormWalk walk;
  walk.formSet = &set;
  walk.possible = ChildList(possibleForm);
  walk.current = ChildList(currentForm);

  RETURN_IF_ERROR(appendText(walk.possible, "Title", name.get()));
  RETURN_IF_ERROR(appendText(walk.current, "Title", name.get()));
  RETURN_IF_ERROR(appendDisplayTexts(set, "DisplayTitle", form->FormTitle, walk.possible, walk.current));
  EFI_STATUS status = appendDecimal(walk.possible, "FormId", form->FormId);
  if (EFI_ERROR(status)) {
    trace(TVL_LEVEL_PROGRESS, kFunction, u"Error Creating TempNode for XML FormID \n");
    return status;
  }
  appendFormModifiers(set, *form, walk.possible, walk.current);

  set.export_->displayBase += 100;
  for (UINT64 i = 0; i < form->StatementCount; ++i) RETURN_IF_ERROR(walkStatement(walk, form->Statements[i]));

  // A boot-order switch form has already put its checkboxes' states on the
  // boot-sequence entries; the form itself is not part of the documents.
  if (startsWith(name.get(), "BootSeqEnDis") || startsWith(name.get(), "UefiBootSeqEnDis")) {
    currentSet.removeLast();
    possibleSet.removeLast();
  }
  return EFI_SUCCESS;
}

// One "DefaultName" per default store, until a name cannot be fetched.
EFI_STATUS appendDefaultNames(FormSetWalk& set, ChildList& possibleSet) {
  for (UINT64 i = 0; i < set.record->DefaultStoreCount; ++i) {
    Pool<CHAR8> text;
    if (EFI_ERROR(GetString(kEnUs, set.export_->hiiHandle, set.record->DefaultStores[i]->DefaultName,
                            text.receive())))
      return EFI_SUCCESS;
    XML_NODE* node = nullptr;
    RETURN_IF_ERROR(appendText(possibleSet, "DefaultName", text.get(), &node));
    RETURN_IF_ERROR(addAttribute("Lang", kEnUs, &node));
    RETURN_IF_ERROR(addAttribute("DefaultId", defaultIdText(UINT16(i)).text, &node));
  }
  return EFI_SUCCESS;
}

// "FormSet" appended to an entry, followed by "MappingSource" when the form
// set is unmapped.
EFI_STATUS appendFormSet(ChildList& entry, bool mapped, XML_NODE** formSet) {
  RETURN_IF_ERROR(appendEmpty(entry, "FormSet", formSet));
  if (!mapped) RETURN_IF_ERROR(appendText(entry, "MappingSource", "NotMapped"));
  return EFI_SUCCESS;
}

}  // namespace

EFI_STATUS chooseLanguage(const HII_FORMSET_RECORD& formSet, const CHAR8** language, bool* mapped) {
  // Positions are kept as 8-bit signed numbers: an entry at position 128 or
  // later never counts.
  INT8 uefiIndex = -1;
  INT8 enUsIndex = -1;
  for (UINT64 i = 0; i < formSet.NumberOfLanguages && i < 128; ++i) {
    const CHAR8* tag = formSet.Languages[i];
    if (!tag) continue;
    if (compareNoCase(tag, "x-UEFI") == 0) uefiIndex = INT8(i);
    if (rt::equal(tag, kEnUs)) enUsIndex = INT8(i);
  }
  if (enUsIndex < 0) return EFI_NOT_FOUND;
  *mapped = uefiIndex >= 0;
  *language = formSet.Languages[*mapped ? uefiIndex : enUsIndex];
  return EFI_SUCCESS;
}

EFI_STATUS walkFormSet(ExportContext& context, HII_FORMSET_RECORD* formSet, ChildList& possibleEntry,
                       ChildList& currentEntry) {
  trace(TVL_LEVEL_FAILURE, kFunction, u"VarStoreBufferCount = %d NumberOfLanguages = %d\n",
        UINT32(formSet->VarStoreBufferCount), UINT32(formSet->NumberOfLanguages));
  FormSetWalk set;
  set.export_ = &context;
  set.record = formSet;
  RETURN_IF_ERROR(chooseLanguage(*formSet, &set.language, &set.mapped));

  if (mKeepFormSets == 1 && formSet->VarStoreBufferCount > 0 && formSet->VarStoreBuffer[0]->ConfigHdr)
    RETURN_IF_ERROR(keepConfigHdr(formSet->VarStoreBuffer[0]->ConfigHdr));

  XML_NODE* possibleSet = nullptr;
  XML_NODE* currentSet = nullptr;
  RETURN_IF_ERROR(appendFormSet(possibleEntry, set.mapped, &possibleSet));
  RETURN_IF_ERROR(appendFormSet(currentEntry, set.mapped, &currentSet));
  ChildList possible(possibleSet);
  ChildList current(currentSet);

  Pool<CHAR8> title;
  EFI_STATUS status = GetString(set.language, context.hiiHandle, formSet->FormSetTitle, title.receive());
  if (EFI_ERROR(status)) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"HII DATA ERROR: FormSet does not have Title: %r\n", status);
    return status;
  }
  status = appendText(possible, "Title", title.get());
  if (!EFI_ERROR(status)) status = appendText(current, "Title", title.get());
  if (EFI_ERROR(status)) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"createNodeWithString: FormSet does not have Title: %r\n", status);
    return status;
  }
  RETURN_IF_ERROR(appendDisplayTexts(set, "DisplayTitle", formSet->FormSetTitle, possible, current));
  RETURN_IF_ERROR(appendDisplayTexts(set, "Help", formSet->FormSetHelp, possible, current));

  for (UINT64 i = 0; i < formSet->FormCount; ++i) RETURN_IF_ERROR(walkForm(set, formSet->Forms[i], possible, current));
  return appendDefaultNames(set, possible);
}

}  // namespace tvl::exp
