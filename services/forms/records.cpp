#include "services/forms/records.h"

namespace tvl::forms {
namespace {

template <typename T>
void drop(T* p) {
  rt::Pool<T> owner(p);
}

void destroyValue(HII_VALUE& value) {
  drop(value.Buffer);
  value.Buffer = nullptr;
}

void destroyExpression(HII_EXPRESSION_RECORD* expression) {
  if (!expression) return;
  destroyValue(expression->Result);
  drop(expression);
}

}  // namespace

void destroyStatement(HII_STATEMENT_RECORD* statement) {
  if (!statement) return;
  for (UINT64 i = 0; i < statement->DefaultCount; ++i) {
    HII_DEFAULT_RECORD* def = statement->Defaults[i];
    if (!def) continue;
    destroyValue(def->Value);
    destroyExpression(def->ValueExpression);
    drop(def);
  }
  drop(statement->Defaults);
  for (UINT64 i = 0; i < statement->OptionCount; ++i) {
    HII_OPTION_RECORD* option = statement->Options[i];
    if (!option) continue;
    destroyValue(option->Value);
    drop(option);
  }
  drop(statement->Options);
  destroyExpression(statement->ReadOnlyCondition);
  destroyValue(statement->HiiValue);
  drop(statement->BlockName);
  drop(statement);
}

void destroyFormSet(HII_FORMSET_RECORD* formSet) {
  if (!formSet) return;
  for (UINT64 i = 0; i < formSet->NumberOfLanguages; ++i) drop(formSet->Languages[i]);
  drop(formSet->Languages);
  for (UINT64 f = 0; f < formSet->FormCount; ++f) {
    HII_FORM_RECORD* form = formSet->Forms[f];
    if (!form) continue;
    for (UINT64 s = 0; s < form->StatementCount; ++s) destroyStatement(form->Statements[s]);
    drop(form->Statements);
    drop(form);
  }
  drop(formSet->Forms);
  for (UINT64 i = 0; i < formSet->VarStoreBufferCount; ++i) {
    HII_VARSTORE_RECORD* store = formSet->VarStoreBuffer[i];
    if (!store) continue;
    drop(store->Name);
    drop(store->ConfigHdr);
    drop(store);
  }
  drop(formSet->VarStoreBuffer);
  for (UINT64 i = 0; i < formSet->DefaultStoreCount; ++i) drop(formSet->DefaultStores[i]);
  drop(formSet->DefaultStores);
  drop(formSet);
}

void destroyFormSets(HII_FORMSET_RECORD** formSets, UINTN count) {
  if (!formSets) return;
  for (UINTN i = 0; i < count; ++i) destroyFormSet(formSets[i]);
  drop(formSets);
}

}  // namespace tvl::forms
