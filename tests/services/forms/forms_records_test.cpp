// Records that ProcessForms makes from real form packages registered by a
// sample device: every statement type with its fields, storage, block
// names and current values; options and defaults; default stores,
// languages, variable stores and the form-set filter.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "forms_support.h"

namespace tvl::test::forms {
namespace {

using ifr::Width;

using FormsRecordsTest = FormsTest;

struct StatementCase {
  UINT16 questionId;
  UINT8 operand;
  UINT16 storageWidth;
  UINT8 valueType, hiiType;
  UINT64 minimum, maximum, step;
  int blockOffset;  // -1: no block name
  UINT64 value;     // the number in HiiValue.Value
  UINT8 readOnlyFlag, resetRequired, lockedFlag;
};

const StatementCase kStatements[] = {
    {0x10, EFI_IFR_ONE_OF_OP, 2, 1, 1, 1, 3, 1, 2, 2, 0, 1, 0},
    {0x11, EFI_IFR_CHECKBOX_OP, 1, 0, EFI_IFR_TYPE_BOOLEAN, 0, 0, 0, 4, 1, 0, 0, 0},
    {0x12, EFI_IFR_NUMERIC_OP, 4, 2, 2, 10, 5000, 5, 8, 0x12345678, 1, 0, 0},
    {0x13, EFI_IFR_PASSWORD_OP, 16, 0, EFI_IFR_TYPE_STRING, 1, 8, 0, 12, 0, 0, 0, 0},
    {0x14, EFI_IFR_STRING_OP, 20, 0, EFI_IFR_TYPE_STRING, 2, 10, 0, 30, 0, 0, 0, 0},
    {0x15, EFI_IFR_ORDERED_LIST_OP, 3, 0, EFI_IFR_TYPE_BUFFER, 0, 0, 0, 50, 0, 0, 0, 0},
    {0x18, EFI_IFR_NUMERIC_OP, 2, 1, 1, 0, 0xFFFF, 0, 2, 0x1234, 0, 0, 0},  // in the EFI variable
    {0x19, EFI_IFR_CHECKBOX_OP, 1, 0, EFI_IFR_TYPE_BOOLEAN, 0, 0, 0, -1, 0, 0, 0, 1},  // no storage
    {0x17, EFI_IFR_ACTION_OP, 0, 0, EFI_IFR_TYPE_ACTION, 0, 0, 0, -1, 6, 0, 0, 0},
};

TEST_F(FormsRecordsTest, SampleFormSetFieldByField) {
  Sample sample;
  devices::Device* device = nullptr;
  auto parse = process({registerSample(sample, &device)});
  ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
  ASSERT_EQ(parse->count, 1u);
  const HII_FORMSET_RECORD* set = parse->set();
  for (const StatementCase& c : kStatements) {
    SCOPED_TRACE(c.questionId);
    HII_STATEMENT_RECORD* s = findQuestion(set, c.questionId);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->Operand, c.operand);
    EXPECT_EQ(s->Prompt, sample.prompt);
    EXPECT_EQ(s->Help, sample.help);
    EXPECT_EQ(s->StorageWidth, c.storageWidth);
    EXPECT_EQ(s->ValueType, c.valueType);
    EXPECT_EQ(s->HiiValue.Type, c.hiiType);
    EXPECT_EQ(s->Minimum, c.minimum);
    EXPECT_EQ(s->Maximum, c.maximum);
    EXPECT_EQ(s->Step, c.step);
    EXPECT_EQ(s->ReadOnlyFlag, c.readOnlyFlag);
    EXPECT_EQ(s->ResetRequired, c.resetRequired);
    EXPECT_EQ(s->LockedFlag, c.lockedFlag);
    if (c.blockOffset < 0) {
      EXPECT_EQ(s->BlockName, nullptr);
    } else {
      EXPECT_EQ(text16(s->BlockName), hii::blockName(UINT64(c.blockOffset), c.storageWidth));
      ASSERT_NE(s->VarStore, nullptr);
      EXPECT_EQ(s->VarStore->Guid, c.questionId == 0x18 ? kVariableGuid : kStoreGuid);
    }
    if (c.hiiType <= EFI_IFR_TYPE_BOOLEAN || c.hiiType == EFI_IFR_TYPE_ACTION) { EXPECT_EQ(number(s->HiiValue), c.value); }
    EXPECT_TRUE(!s->DisabledMark && !s->SuppressedMark && !s->ReadOnlyMark);
  }

  // Buffer values come from storage, except a password's characters.
  auto buffer = [&](UINT16 id, size_t n) {
    const UINT8* b = findQuestion(set, id)->HiiValue.Buffer;
    return b ? std::vector<UINT8>(b, b + n) : std::vector<UINT8>{};
  };
  EXPECT_EQ(buffer(0x14, 6), (std::vector<UINT8>{'H', 0, 'i', 0, 0, 0}));
  EXPECT_EQ(buffer(0x15, 3), (std::vector<UINT8>{3, 1, 2}));
  EXPECT_EQ(buffer(0x13, 2), (std::vector<UINT8>{0, 0}));

  // Statements in order, those without questions with their own fields.
  ASSERT_EQ(set->FormCount, 2u);
  const HII_FORM_RECORD* form = set->Forms[0];
  EXPECT_EQ(form->FormTitle, sample.formTitle);
  EXPECT_EQ(set->Forms[1]->FormId, 2);
  EXPECT_EQ(set->Forms[1]->FormTitle, sample.form2Title);
  const UINT8 order[] = {EFI_IFR_SUBTITLE_OP,     EFI_IFR_TEXT_OP,   EFI_IFR_ONE_OF_OP,  EFI_IFR_CHECKBOX_OP,
                         EFI_IFR_NUMERIC_OP,      EFI_IFR_PASSWORD_OP, EFI_IFR_STRING_OP, EFI_IFR_ORDERED_LIST_OP,
                         EFI_IFR_REF_OP,          EFI_IFR_ACTION_OP, EFI_IFR_IMAGE_OP,   EFI_IFR_NUMERIC_OP,
                         EFI_IFR_CHECKBOX_OP};
  ASSERT_EQ(form->StatementCount, sizeof(order));
  for (size_t i = 0; i < sizeof(order); ++i) EXPECT_EQ(form->Statements[i]->Operand, order[i]) << "statement " << i;
  EXPECT_EQ(form->Statements[0]->Prompt, sample.subtitle);
  const HII_STATEMENT_RECORD* text = form->Statements[1];
  EXPECT_EQ(text->Prompt, sample.text);
  EXPECT_EQ(text->TextTwo, sample.textTwo);
  EXPECT_TRUE(!text->BlockName && !text->VarStore);
  const HII_VALUE& ref = form->Statements[8]->HiiValue;
  EXPECT_EQ(ref.Type, EFI_IFR_TYPE_REF);
  EXPECT_EQ(ref.Value[2] | (ref.Value[3] << 8), 2) << "FormId two bytes into the value";

  // Options, and option default flags as defaults of the question.
  const HII_STATEMENT_RECORD* oneOf = findQuestion(set, 0x10);
  ASSERT_EQ(oneOf->OptionCount, 3u);
  const UINT16 optionTexts[] = {sample.option1, sample.option2, sample.option3};
  for (UINT8 i = 0; i < 3; ++i) {
    EXPECT_EQ(oneOf->Options[i]->OptionText, optionTexts[i]);
    EXPECT_EQ(oneOf->Options[i]->Value.Type, EFI_IFR_TYPE_NUM_SIZE_16);
    EXPECT_EQ(number(oneOf->Options[i]->Value), i + 1u);
    EXPECT_EQ(oneOf->Options[i]->OptionIsDefault, i == 1);
    EXPECT_EQ(oneOf->Options[i]->OptionSuppressed, 0);
  }
  EXPECT_EQ(findQuestion(set, 0x15)->Options[2]->Value.Type, EFI_IFR_TYPE_NUM_SIZE_8);
  for (const auto& [id, type, standard, manufacturing] :
       {std::tuple{0x10, EFI_IFR_TYPE_NUM_SIZE_16, 2, 3}, {0x12, EFI_IFR_TYPE_NUM_SIZE_32, 100, 200}}) {
    const HII_STATEMENT_RECORD* q = findQuestion(set, UINT16(id));
    ASSERT_EQ(q->DefaultCount, 2u);
    EXPECT_EQ(q->Defaults[0]->DefaultId, EFI_HII_DEFAULT_CLASS_STANDARD);
    EXPECT_EQ(q->Defaults[0]->Value.Type, type);
    EXPECT_EQ(number(q->Defaults[0]->Value), UINT64(standard));
    EXPECT_EQ(q->Defaults[1]->DefaultId, EFI_HII_DEFAULT_CLASS_MANUFACTURING);
    EXPECT_EQ(number(q->Defaults[1]->Value), UINT64(manufacturing));
    EXPECT_EQ(q->Defaults[1]->ValueExpression, nullptr);
  }

  // The form set: languages, variable stores, default stores (standard and
  // manufacturing first, then the custom one).
  EXPECT_EQ(set->Guid, kFormSetGuid);
  EXPECT_EQ(set->FormSetTitle, sample.title);
  EXPECT_EQ(set->FormSetHelp, sample.help);
  ASSERT_EQ(set->NumberOfLanguages, 3u);
  EXPECT_STREQ(set->Languages[0], "en-US");
  EXPECT_STREQ(set->Languages[1], "fr-FR");
  EXPECT_STREQ(set->Languages[2], "x-UEFI");
  ASSERT_EQ(set->VarStoreBufferCount, 2u);
  EXPECT_EQ(set->VarStoreBuffer[0]->Guid, kStoreGuid);
  EXPECT_EQ(text16(set->VarStoreBuffer[0]->ConfigHdr), hii::configHdr(kStoreGuid, u"Setup", device->devicePath()));
  EXPECT_EQ(set->VarStoreBuffer[1]->Guid, kVariableGuid);
  EXPECT_EQ(text16(set->VarStoreBuffer[1]->ConfigHdr), hii::configHdr(kVariableGuid, u"Vars", device->devicePath()));
  ASSERT_EQ(set->DefaultStoreCount, 3u);
  EXPECT_EQ(set->DefaultStores[0]->DefaultId, 0);
  EXPECT_EQ(set->DefaultStores[1]->DefaultId, 1);
  EXPECT_EQ(set->DefaultStores[2]->DefaultId, 5);
  EXPECT_EQ(set->DefaultStores[2]->DefaultName, sample.custom);
}

// Checkbox defaults: flags, then EFI_IFR_DEFAULT records, then defaults
// computed by an expression.
struct CheckboxCase {
  const char* name;
  std::function<void(ifr::Checkbox&)> build;
  UINT8 standard, manufacturing;
  size_t records;
};

const CheckboxCase kCheckboxes[] = {
    {"no default", [](ifr::Checkbox&) {}, 0, 0, 0},
    {"flags", [](ifr::Checkbox& c) { c.defaultOn().mfgDefaultOn(); }, 1, 1, 0},
    {"default record overrides the flag", [](ifr::Checkbox& c) { c.defaultOn().defaultValue(false); }, 0, 0, 1},
    {"manufacturing record", [](ifr::Checkbox& c) { c.defaultValue(true, EFI_HII_DEFAULT_CLASS_MANUFACTURING); }, 0,
     1, 1},
    {"expression default", [](ifr::Checkbox& c) { c.defaultExpression(ifr::True()); }, 1, 0, 1},
    {"expression on another question", [](ifr::Checkbox& c) { c.defaultExpression(ifr::ideqval(0x40, 7)); }, 1, 0,
     1},
};

TEST_F(FormsRecordsTest, CheckboxDefaults) {
  for (const CheckboxCase& c : kCheckboxes) {
    SCOPED_TRACE(c.name);
    ifr::Strings strings({"en-US"});
    UINT16 s = strings.add(u"x");
    ifr::FormSetBuilder fs(kFormSetGuid, s, s);
    fs.varStore(1, kStoreGuid, "Setup", 4);
    ifr::Checkbox box(0x30, s, s);
    box.store(1, 0);
    c.build(box);
    fs.form(1, s).checkbox(box).numeric(ifr::Numeric(0x40, s, s).store(1, 1));
    devices::Device& device = addDevice();
    device.addBufferStorage(kStoreGuid, u"Setup", {0, 7, 0, 0});
    auto parse = process({device.addPackageList(ifr::packageList(kListGuid, fs, strings))});
    ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
    const HII_STATEMENT_RECORD* q = findQuestion(parse->set(), 0x30);
    EXPECT_EQ(q->CheckboxDefault, c.standard);
    EXPECT_EQ(q->CheckboxDefaultMfg, c.manufacturing);
    ASSERT_EQ(q->DefaultCount, c.records);
    if (c.records && q->Defaults[0]->Value.Type == EFI_IFR_TYPE_OTHER) {
      ASSERT_NE(q->Defaults[0]->ValueExpression, nullptr);
      EXPECT_EQ(q->Defaults[0]->ValueExpression->Result.Type, EFI_IFR_TYPE_BOOLEAN);
      EXPECT_EQ(q->Defaults[0]->ValueExpression->Result.Value[0], 1);
    }
  }
}

TEST_F(FormsRecordsTest, ExpressionDefaultsCarryTheirResult) {
  ifr::Strings strings({"en-US"});
  UINT16 s = strings.add(u"x");
  ifr::FormSetBuilder fs(kFormSetGuid, s, s);
  fs.varStore(1, kStoreGuid, "Setup", 4);
  fs.form(1, s)
      .numeric(ifr::Numeric(0x20, s, s, Width::U16).store(1, 0).defaultExpression(ifr::uint16(0x1234)))
      .numeric(ifr::Numeric(0x21, s, s).store(1, 2).defaultExpression(ifr::questionRef(0x20), 1));
  devices::Device& device = addDevice();
  device.addBufferStorage(kStoreGuid, u"Setup", {0x22, 0x11, 9, 0});
  auto parse = process({device.addPackageList(ifr::packageList(kListGuid, fs, strings))});
  ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
  // A constant, and another question's current value.
  for (const auto& [id, defaultId, type, result] : {std::tuple{0x20, 0, EFI_IFR_TYPE_NUM_SIZE_16, 0x1234u},
                                                    {0x21, 1, EFI_IFR_TYPE_NUM_SIZE_16, 0x1122u}}) {
    const HII_DEFAULT_RECORD* d = findQuestion(parse->set(), UINT16(id))->Defaults[0];
    EXPECT_EQ(d->DefaultId, defaultId);
    EXPECT_EQ(d->Value.Type, EFI_IFR_TYPE_OTHER);
    ASSERT_NE(d->ValueExpression, nullptr);
    EXPECT_EQ(d->ValueExpression->Result.Type, type);
    EXPECT_EQ(number(d->ValueExpression->Result), result);
  }
}

TEST_F(FormsRecordsTest, FormSetFilterAndSeveralHandles) {
  ifr::Strings strings({"en-US"});
  UINT16 s = strings.add(u"x");
  ifr::FormSetBuilder first(kFormSetGuid, s, s);
  first.form(1, s).text(s, s);
  ifr::FormSetBuilder second(kOtherFormSetGuid, s, s);
  second.form(7, s).text(s, s);
  devices::Device& a = addDevice();
  devices::Device& b = addDevice();
  EFI_HII_HANDLE ha = a.addPackageList(ifr::packageList(kListGuid, first, strings));
  EFI_HII_HANDLE hb = b.addPackageList(
      ifr::packageList(kListGuid, std::vector<ifr::Bytes>{first.package(), second.package()}, strings));

  auto all = process({ha, hb});
  ASSERT_EQ(all->status, EFI_SUCCESS) << lastError().Message;
  ASSERT_EQ(all->count, 3u);
  EXPECT_EQ(all->set(0)->Guid, kFormSetGuid);
  EXPECT_EQ(all->set(1)->Guid, kFormSetGuid);
  EXPECT_EQ(all->set(2)->Guid, kOtherFormSetGuid);
  EXPECT_EQ(all->set(2)->Forms[0]->FormId, 7);

  auto filtered = process({ha, hb}, &kOtherFormSetGuid);
  ASSERT_EQ(filtered->status, EFI_SUCCESS);
  ASSERT_EQ(filtered->count, 1u);
  EXPECT_EQ(filtered->set()->Guid, kOtherFormSetGuid);

  const EFI_GUID missing = kStoreGuid;
  auto none = process({ha, hb}, &missing);
  EXPECT_EQ(none->status, EFI_NOT_FOUND);
  EXPECT_EQ(none->sets, nullptr);
  EXPECT_EQ(lastError().Status, EFI_NOT_FOUND);
}

TEST_F(FormsRecordsTest, DatesTimesResetButtonsFormMapsNamedStorageAndReferences) {
  ifr::Strings strings({"en-US"});
  UINT16 s = strings.add(u"x");
  UINT16 t = strings.add(u"y");
  auto question = [s](UINT8 opcode, UINT16 id, UINT16 offset) {
    return op(opcode, false, cat({le16(s), le16(s), le16(id), le16(1), le16(offset), {0, 0}}));
  };
  ifr::FormSetBuilder fs(kFormSetGuid, s, s);
  fs.varStore(1, kStoreGuid, "Setup", 8);
  fs.nameValueVarStore(3, kVariableGuid);
  fs.form(1, s)
      .raw(question(EFI_IFR_DATE_OP, 0x40, 0))
      .raw(question(EFI_IFR_TIME_OP, 0x41, 4))
      .raw(op(EFI_IFR_RESET_BUTTON_OP, false, cat({le16(t), le16(s), le16(1)})))
      .numeric(ifr::Numeric(0x42, s, s).storeNamed(3, t))
      .ref(ifr::Ref(0x43, s, s).toQuestion(2, 0x40))
      .ref(ifr::Ref(0x44, s, s).toFormSet(kOtherFormSetGuid, 3, 4))
      .ref(ifr::Ref(0x45, s, s).toDevice(9, kOtherFormSetGuid, 5, 6))
      .ref(ifr::Ref(0x46, s, s))
      .label(1)
      .locked();
  fs.raw(cat({op(EFI_IFR_FORM_MAP_OP, true, cat({le16(8), le16(t), guidBytes(kStoreGuid)})),
              op(EFI_IFR_TEXT_OP, false, cat({le16(t), le16(s), le16(0)})), {EFI_IFR_END_OP, 2}}));
  devices::Device& device = addDevice();
  device.addBufferStorage(kStoreGuid, u"Setup", {0xE8, 0x07, 6, 11, 12, 34, 56, 0});
  auto parse = process({device.addPackageList(ifr::packageList(kListGuid, fs, strings))});
  ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
  const HII_FORMSET_RECORD* set = parse->set();

  const HII_STATEMENT_RECORD* date = findQuestion(set, 0x40);
  EXPECT_EQ(date->Operand, EFI_IFR_DATE_OP);
  EXPECT_EQ(date->HiiValue.Type, EFI_IFR_TYPE_DATE);
  EXPECT_EQ(std::vector<UINT8>(date->HiiValue.Value, date->HiiValue.Value + 4), (std::vector<UINT8>{0xE8, 7, 6, 11}));
  EXPECT_EQ(text16(date->BlockName), hii::blockName(0, 4));
  const HII_STATEMENT_RECORD* time = findQuestion(set, 0x41);
  EXPECT_EQ(time->HiiValue.Type, EFI_IFR_TYPE_TIME);
  EXPECT_EQ(std::vector<UINT8>(time->HiiValue.Value, time->HiiValue.Value + 4), (std::vector<UINT8>{12, 34, 56, 0}));
  EXPECT_EQ(text16(time->BlockName), hii::blockName(4, 3));
  EXPECT_EQ(set->Forms[0]->Statements[2]->Operand, EFI_IFR_RESET_BUTTON_OP);
  EXPECT_EQ(set->Forms[0]->Statements[2]->Prompt, t);

  // Name/value storage: the store is known, a block name is not.
  const HII_STATEMENT_RECORD* named = findQuestion(set, 0x42);
  ASSERT_NE(named->VarStore, nullptr);
  EXPECT_EQ(named->VarStore->Guid, kVariableGuid);
  EXPECT_EQ(named->BlockName, nullptr);
  ASSERT_EQ(set->VarStoreBufferCount, 2u);
  EXPECT_EQ(text16(set->VarStoreBuffer[1]->ConfigHdr), hii::configHdr(kVariableGuid, u"", device.devicePath()));

  // References: EFI_HII_REF is QuestionId, FormId, FormSetGuid, DevicePath.
  const struct {
    UINT16 id, question, form, devicePath;
    EFI_GUID formSet;
  } refs[] = {{0x43, 0x40, 2, 0, {}}, {0x44, 4, 3, 0, kOtherFormSetGuid}, {0x45, 6, 5, 9, kOtherFormSetGuid},
              {0x46, 0, 0, 0, {}}};
  for (const auto& r : refs) {
    SCOPED_TRACE(r.id);
    const HII_VALUE& v = findQuestion(set, r.id)->HiiValue;
    EXPECT_EQ(v.Type, EFI_IFR_TYPE_REF);
    EXPECT_EQ(v.Value[0] | (v.Value[1] << 8), r.question);
    EXPECT_EQ(v.Value[2] | (v.Value[3] << 8), r.form);
    EXPECT_EQ(std::memcmp(&v.Value[4], &r.formSet, sizeof(EFI_GUID)), 0);
    EXPECT_EQ(v.Value[20] | (v.Value[21] << 8), r.devicePath);
  }

  ASSERT_EQ(set->FormCount, 2u);
  EXPECT_EQ(set->Forms[0]->StatementCount, 8u) << "the label and the locked tag are no statements";
  EXPECT_EQ(set->Forms[1]->FormId, 8);
  EXPECT_EQ(set->Forms[1]->FormTitle, t);
  EXPECT_EQ(set->Forms[1]->StatementCount, 1u);
}

}  // namespace
}  // namespace tvl::test::forms
