#include "services/forms/complete.h"

#include "services/forms/config.h"
#include "services/forms/evaluate.h"
#include "uefi/ifr.h"

namespace tvl::forms {
namespace {

bool isBufferStore(const HII_VARSTORE_RECORD* store) {
  return store && (store->StoreType == EFI_IFR_VARSTORE_OP || store->StoreType == EFI_IFR_VARSTORE_EFI_OP);
}

HII_VARSTORE_RECORD* findStore(const HII_FORMSET_RECORD* formSet, UINT16 id) {
  for (UINT64 i = 0; i < formSet->VarStoreBufferCount; ++i)
    if (formSet->VarStoreBuffer[i]->VarStoreId == id) return formSet->VarStoreBuffer[i];
  return nullptr;
}

EFI_STATUS copyLanguages(HII_FORMSET_RECORD* formSet, const Vector<const CHAR8*>& languages) {
  for (UINTN i = 0; i < languages.size(); ++i) {
    rt::Pool<CHAR8> tag = rt::duplicate(languages[i]);
    if (!tag) return EFI_OUT_OF_RESOURCES;
    RETURN_IF_ERROR(adoptRecord(formSet->Languages, formSet->NumberOfLanguages, tag));
  }
  return EFI_SUCCESS;
}

// The value bytes a question needs beyond HII_VALUE.Value: the UCS-2 text
// of a string or password (with room for a terminator) and the elements of
// an ordered list.
EFI_STATUS allocateValueBuffer(HII_STATEMENT_RECORD* s) {
  switch (s->Operand) {
    case EFI_IFR_STRING_OP:
    case EFI_IFR_PASSWORD_OP:
    case EFI_IFR_ORDERED_LIST_OP:
      break;
    default:
      return EFI_SUCCESS;
  }
  UINTN size = UINTN(s->StorageWidth) + sizeof(CHAR16);
  s->HiiValue.Buffer = rt::Pool<UINT8>::bytes(size).release();
  if (!s->HiiValue.Buffer) return EFI_OUT_OF_RESOURCES;
  s->HiiValue.BufferLen = s->StorageWidth;
  return EFI_SUCCESS;
}

// An ordered list holds MaxContainers elements of its options' type.
void sizeOrderedList(HII_STATEMENT_RECORD* s) {
  UINT8 type = s->OptionCount ? s->Options[0]->Value.Type : EFI_IFR_TYPE_NUM_SIZE_8;
  UINTN width = type <= EFI_IFR_TYPE_NUM_SIZE_64 ? hiiNumberWidth(type) : 1;
  s->ValueType = type;
  s->StorageWidth = UINT16(s->MaxContainers * width);
}

EFI_STATUS prepareStatement(const HII_FORMSET_RECORD* formSet, HII_STATEMENT_RECORD* s) {
  if (s->Operand == EFI_IFR_ORDERED_LIST_OP) sizeOrderedList(s);
  RETURN_IF_ERROR(allocateValueBuffer(s));
  if (s->VarStoreId == 0) return EFI_SUCCESS;
  s->VarStore = findStore(formSet, s->VarStoreId);
  // A reference keeps the target its opcode names; an action has no value.
  if (s->Operand == EFI_IFR_REF_OP || s->Operand == EFI_IFR_ACTION_OP) return EFI_SUCCESS;
  if (!isBufferStore(s->VarStore) || s->StorageWidth == 0) return EFI_SUCCESS;
  s->BlockName = makeBlockName(s->VarOffset, s->StorageWidth).release();
  return s->BlockName ? EFI_SUCCESS : EFI_OUT_OF_RESOURCES;
}

// ---------------------------------------------------------------- storage
// The current bytes of a buffer store through the device's ExtractConfig.
// A device without configuration access, or one whose ExtractConfig fails
// for another reason than a lack of memory, leaves the bytes zero.
EFI_STATUS readBufferStore(const PackageList& list, const HII_VARSTORE_RECORD* store, UINT8* bytes) {
  EFI_HII_CONFIG_ACCESS_PROTOCOL* access = list.configAccess;
  if (!access || !access->ExtractConfig) return EFI_SUCCESS;
  EFI_STRING progress = nullptr;
  EFI_STRING results = nullptr;
  EFI_STATUS status = access->ExtractConfig(access, store->ConfigHdr, &progress, &results);
  if (status == EFI_OUT_OF_RESOURCES) return status;
  if (EFI_ERROR(status)) return EFI_SUCCESS;
  rt::Pool<CHAR16> owner(results);
  applyConfigResp(results, bytes, store->Size);
  return EFI_SUCCESS;
}

// The current bytes of an EFI variable store through GetVariable; a missing
// variable leaves them zero, a longer one gives its first Size bytes.
EFI_STATUS readVariableStore(const HII_VARSTORE_RECORD* store, UINT8* bytes) {
  rt::Pool<UINT8> data;
  UINTN size = 0;
  EFI_STATUS status = rt::callWithSizedBuffer(store->Size, data, size, [store](UINT8* buffer, UINTN* bufferSize) {
    UINT32 attributes = 0;
    return rt::rts()->GetVariable(store->Name, &store->Guid, &attributes, bufferSize, buffer);
  });
  if (status == EFI_OUT_OF_RESOURCES) return status;
  if (EFI_ERROR(status)) return EFI_SUCCESS;
  rt::copyMem(bytes, data.get(), size < store->Size ? size : store->Size);
  return EFI_SUCCESS;
}

void fillValue(HII_STATEMENT_RECORD* s, const UINT8* bytes, UINTN size) {
  UINTN offset = s->VarOffset, width = s->StorageWidth;
  if (width == 0 || offset > size || width > size - offset) return;
  const UINT8* field = bytes + offset;
  switch (s->Operand) {
    case EFI_IFR_ONE_OF_OP:
    case EFI_IFR_NUMERIC_OP:
    case EFI_IFR_CHECKBOX_OP:
    case EFI_IFR_DATE_OP:
    case EFI_IFR_TIME_OP:
      rt::copyMem(s->HiiValue.Value, field, width);
      break;
    case EFI_IFR_STRING_OP:
    case EFI_IFR_ORDERED_LIST_OP:
      rt::copyMem(s->HiiValue.Buffer, field, width);
      break;
    default:
      // Passwords are not read back: their storage is no place to copy from.
      break;
  }
}

// A buffer store of a kept form set and where its bytes start in the
// buffer that holds every such store's bytes.
struct LoadedStore {
  const HII_VARSTORE_RECORD* store;
  UINTN offset;
};

// Reads each buffer store of the kept form sets once, in form-set and
// store order, then fills every statement from its own store: one pass
// over the statements, not one per store.
EFI_STATUS loadStores(const PackageList& list, const ParsedForms& parsed) {
  Vector<LoadedStore> stores;
  UINTN total = 0;
  for (UINTN i = 0; i < parsed.formSets.size(); ++i) {
    const FormSetEntry& f = parsed.formSets[i];
    if (!f.kept) continue;
    for (UINT64 v = 0; v < f.record->VarStoreBufferCount; ++v) {
      const HII_VARSTORE_RECORD* store = f.record->VarStoreBuffer[v];
      if (!isBufferStore(store) || store->Size == 0) continue;
      RETURN_IF_ERROR(stores.push(LoadedStore{store, total}));
      total += store->Size;  // each at most 0xFFFF bytes
    }
  }
  if (stores.size() == 0) return EFI_SUCCESS;
  rt::Pool<UINT8> bytes = rt::Pool<UINT8>::bytes(total);
  if (!bytes) return EFI_OUT_OF_RESOURCES;
  for (UINTN i = 0; i < stores.size(); ++i) {
    const HII_VARSTORE_RECORD* store = stores[i].store;
    UINT8* into = bytes.get() + stores[i].offset;
    RETURN_IF_ERROR(store->StoreType == EFI_IFR_VARSTORE_OP ? readBufferStore(list, store, into)
                                                            : readVariableStore(store, into));
  }
  // By address, as numbers: the records are separate allocations.
  const auto address = [](const HII_VARSTORE_RECORD* store) { return reinterpret_cast<UINTN>(store); };
  heapSort(stores.data(), stores.size(),
           [&](const LoadedStore& a, const LoadedStore& b) { return address(a.store) < address(b.store); });
  for (UINTN i = 0; i < parsed.statements.size(); ++i) {
    const StatementEntry& e = parsed.statements[i];
    const HII_VARSTORE_RECORD* store = e.record->VarStore;
    if (!store || !parsed.formSets[e.formSet].kept) continue;
    UINTN low = 0, high = stores.size();
    while (low < high) {
      const UINTN middle = low + (high - low) / 2;
      if (address(stores[middle].store) < address(store))
        low = middle + 1;
      else
        high = middle;
    }
    if (low < stores.size() && stores[low].store == store)
      fillValue(e.record, bytes.get() + stores[low].offset, store->Size);
  }
  return EFI_SUCCESS;
}

// ---------------------------------------------------------------- conditions
bool isNumber(const ExprValue& v) { return v.type <= EFI_IFR_TYPE_NUM_SIZE_64; }

void setResult(HII_VALUE& out, const ExprValue& v) {
  out.Type = v.type;
  if (v.type == EFI_IFR_TYPE_BOOLEAN)
    out.Value[0] = UINT8(v.number);
  else if (v.type <= EFI_IFR_TYPE_NUM_SIZE_64)
    hiiValueSetNumber(out, v.number, hiiNumberWidth(v.type));
}

// Every grayoutif that governs a statement, around it or inside its own
// scope, is its read-only condition: one expression record whose Result is
// the boolean OR of those conditions. A true one also sets ReadOnlyMark.
EFI_STATUS addReadOnlyCondition(HII_STATEMENT_RECORD* s, bool value) {
  if (!s->ReadOnlyCondition) {
    rt::Pool<HII_EXPRESSION_RECORD> record = rt::Pool<HII_EXPRESSION_RECORD>::zeroed();
    if (!record) return EFI_OUT_OF_RESOURCES;
    record->Kind = EFI_IFR_GRAY_OUT_IF_OP;
    record->Result.Type = EFI_IFR_TYPE_BOOLEAN;
    s->ReadOnlyCondition = record.release();
  }
  if (value) s->ReadOnlyCondition->Result.Value[0] = 1;
  return EFI_SUCCESS;
}

EFI_STATUS applyCondition(HII_STATEMENT_RECORD* s, const ConditionEntry& c) {
  if (c.opcode == EFI_IFR_GRAY_OUT_IF_OP) RETURN_IF_ERROR(addReadOnlyCondition(s, c.value));
  if (!c.value) return EFI_SUCCESS;
  if (c.opcode == EFI_IFR_SUPPRESS_IF_OP) s->SuppressedMark = 1;
  if (c.opcode == EFI_IFR_DISABLE_IF_OP) s->DisabledMark = 1;
  if (c.opcode == EFI_IFR_GRAY_OUT_IF_OP) s->ReadOnlyMark = 1;
  return EFI_SUCCESS;
}

EFI_STATUS applyConditions(ParsedForms& parsed) {
  // Conditions around statements: any true one marks the statement.
  for (UINTN i = 0; i < parsed.statements.size(); ++i) {
    const StatementEntry& e = parsed.statements[i];
    if (!parsed.formSets[e.formSet].kept) continue;
    for (UINT32 c = e.condition; c != kNone; c = parsed.conditions[c].parent)
      RETURN_IF_ERROR(applyCondition(e.record, parsed.conditions[c]));
  }
  // Conditions inside a question's scope that hold no option govern the
  // question itself.
  for (UINTN i = 0; i < parsed.conditions.size(); ++i) {
    const ConditionEntry& c = parsed.conditions[i];
    if (c.owner == kNone || c.enclosesOption || !parsed.formSets[c.formSet].kept) continue;
    RETURN_IF_ERROR(applyCondition(parsed.statements[c.owner].record, c));
  }
  // Suppressif and disableif around an option inside its question's scope.
  for (UINTN i = 0; i < parsed.options.size(); ++i) {
    const OptionEntry& o = parsed.options[i];
    for (UINT32 c = o.condition; c != kNone && parsed.conditions[c].owner == o.statement;
         c = parsed.conditions[c].parent) {
      const ConditionEntry& cond = parsed.conditions[c];
      if (cond.value && cond.opcode != EFI_IFR_GRAY_OUT_IF_OP) o.record->OptionSuppressed = 1;
    }
  }
  return EFI_SUCCESS;
}

// A default given by an expression gets its expression record once, from
// the first entry that names it; the checkbox defaults the IFR gives are
// kept so that every evaluation starts from them.
EFI_STATUS prepareDefaults(ParsedForms& parsed) {
  for (UINTN i = 0; i < parsed.defaultExpressions.size(); ++i) {
    DefaultExpressionEntry& d = parsed.defaultExpressions[i];
    if (d.statement) {
      d.checkboxDefault = d.statement->CheckboxDefault;
      d.checkboxDefaultMfg = d.statement->CheckboxDefaultMfg;
    }
    if (d.record->ValueExpression) continue;
    rt::Pool<HII_EXPRESSION_RECORD> record = rt::Pool<HII_EXPRESSION_RECORD>::zeroed();
    if (!record) return EFI_OUT_OF_RESOURCES;
    record->Kind = EFI_IFR_VALUE_OP;
    d.record->ValueExpression = record.release();
    d.evaluated = true;
  }
  return EFI_SUCCESS;
}

EFI_STATUS evaluateDefaults(const PackageList& list, ParsedForms& parsed, const QuestionIndex& questions) {
  for (UINTN i = 0; i < parsed.defaultExpressions.size(); ++i) {
    const DefaultExpressionEntry& d = parsed.defaultExpressions[i];
    if (parsed.formSets[d.formSet].kept && d.statement) {
      d.statement->CheckboxDefault = d.checkboxDefault;
      d.statement->CheckboxDefaultMfg = d.checkboxDefaultMfg;
    }
  }
  for (UINTN i = 0; i < parsed.defaultExpressions.size(); ++i) {
    const DefaultExpressionEntry& d = parsed.defaultExpressions[i];
    if (!parsed.formSets[d.formSet].kept || !d.evaluated) continue;
    ExprValue v{};
    RETURN_IF_ERROR(evaluateExpression(list, d.exprStart, d.exprEnd, questions, d.formSet, v));
    HII_EXPRESSION_RECORD* record = d.record->ValueExpression;
    rt::setMem(&record->Result, sizeof(record->Result), 0);
    setResult(record->Result, v);
    // A checkbox default given by an expression counts like a constant one.
    HII_STATEMENT_RECORD* s = d.statement;
    if (s && s->Operand == EFI_IFR_CHECKBOX_OP && (isNumber(v) || v.type == EFI_IFR_TYPE_BOOLEAN)) {
      UINT8 on = v.number ? 1 : 0;
      if (d.record->DefaultId == EFI_HII_DEFAULT_CLASS_STANDARD) s->CheckboxDefault = on;
      if (d.record->DefaultId == EFI_HII_DEFAULT_CLASS_MANUFACTURING) s->CheckboxDefaultMfg = on;
    }
  }
  return EFI_SUCCESS;
}

// Clears what the last evaluation left in a statement and its options:
// the value read from storage, the marks, the read-only condition's result.
void resetStatement(HII_STATEMENT_RECORD* s) {
  switch (s->Operand) {
    case EFI_IFR_ONE_OF_OP:
    case EFI_IFR_NUMERIC_OP:
    case EFI_IFR_CHECKBOX_OP:
    case EFI_IFR_DATE_OP:
    case EFI_IFR_TIME_OP:
      rt::setMem(s->HiiValue.Value, sizeof(s->HiiValue.Value), 0);
      break;
    default:
      break;
  }
  if (s->HiiValue.Buffer) rt::setMem(s->HiiValue.Buffer, UINTN(s->HiiValue.BufferLen) + sizeof(CHAR16), 0);
  s->SuppressedMark = 0;
  s->DisabledMark = 0;
  s->ReadOnlyMark = 0;
  if (s->ReadOnlyCondition) s->ReadOnlyCondition->Result.Value[0] = 0;
  for (UINT64 i = 0; i < s->OptionCount; ++i) s->Options[i]->OptionSuppressed = 0;
}

}  // namespace

EFI_STATUS prepareFormSets(const PackageList&, ParsedForms& parsed, const Vector<const CHAR8*>& languages) {
  for (UINTN i = 0; i < parsed.formSets.size(); ++i) {
    FormSetEntry& f = parsed.formSets[i];
    f.kept = true;
    RETURN_IF_ERROR(copyLanguages(f.record, languages));
  }
  for (UINTN i = 0; i < parsed.statements.size(); ++i) {
    const StatementEntry& e = parsed.statements[i];
    RETURN_IF_ERROR(prepareStatement(parsed.formSets[e.formSet].record, e.record));
  }
  // With every condition still false this only makes the read-only
  // condition records, which depend on the IFR alone.
  for (UINTN i = 0; i < parsed.conditions.size(); ++i) parsed.conditions[i].value = false;
  RETURN_IF_ERROR(applyConditions(parsed));
  return prepareDefaults(parsed);
}

EFI_STATUS refreshFormSets(const PackageList& list, ParsedForms& parsed, const QuestionIndex& questions,
                           const EFI_GUID* filter) {
  for (UINTN i = 0; i < parsed.formSets.size(); ++i) {
    FormSetEntry& f = parsed.formSets[i];
    f.kept = !filter || f.record->Guid == *filter;
  }
  for (UINTN i = 0; i < parsed.statements.size(); ++i) {
    const StatementEntry& e = parsed.statements[i];
    if (parsed.formSets[e.formSet].kept) resetStatement(e.record);
  }
  RETURN_IF_ERROR(loadStores(list, parsed));
  for (UINTN i = 0; i < parsed.conditions.size(); ++i) {
    ConditionEntry& c = parsed.conditions[i];
    if (!parsed.formSets[c.formSet].kept) continue;
    ExprValue v{};
    RETURN_IF_ERROR(evaluateExpression(list, c.exprStart, c.exprEnd, questions, c.formSet, v));
    c.value = isTrue(v);
  }
  RETURN_IF_ERROR(applyConditions(parsed));
  return evaluateDefaults(list, parsed, questions);
}

}  // namespace tvl::forms
