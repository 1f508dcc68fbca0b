// Records that ProcessForms makes from form packages of a sample device:
// statements with their fields, storage and current values; options and
// defaults; the form set's languages, stores and forms; the form-set filter.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "forms_support.h"

namespace tvl::test::forms {
namespace {

using ifr::Width;
using FormsRecordsTest = FormsTest;

// Form 1 of the sample, statement by statement. store: 0 none, else the
// index + 1 of the variable store; block: -1 for no block name.
struct StatementRow {  // value: little-endian from HiiValue.Value, for number, date, time, boolean and string ids
  UINT8 operand; UINT16 questionId, width; UINT8 type; UINT64 minimum, maximum, step; int store, block; UINT64 value;
  UINT8 readOnly, reset, locked;
};
constexpr UINT8 kBool = EFI_IFR_TYPE_BOOLEAN, kString = EFI_IFR_TYPE_STRING, kRef = EFI_IFR_TYPE_REF,
                  kNone = EFI_IFR_TYPE_UNDEFINED;
const StatementRow kForm1[] = {
    {EFI_IFR_SUBTITLE_OP, 0, 0, kNone, 0, 0, 0, 0, -1, 0, 0, 0, 0},
    {EFI_IFR_TEXT_OP, 0, 0, kNone, 0, 0, 0, 0, -1, 0, 0, 0, 0},
    {EFI_IFR_ONE_OF_OP, 0x10, 2, 1, 1, 3, 1, 1, 2, 2, 0, 1, 0},
    {EFI_IFR_CHECKBOX_OP, 0x11, 1, kBool, 0, 0, 0, 1, 4, 1, 0, 0, 0},
    {EFI_IFR_NUMERIC_OP, 0x12, 4, 2, 10, 5000, 5, 1, 8, 0x12345678, 1, 0, 0},
    {EFI_IFR_PASSWORD_OP, 0x13, 16, kString, 1, 8, 0, 1, 12, 0, 0, 0, 0},
    {EFI_IFR_STRING_OP, 0x14, 20, kString, 2, 10, 0, 1, 30, 0, 0, 0, 0},
    {EFI_IFR_ORDERED_LIST_OP, 0x15, 3, EFI_IFR_TYPE_BUFFER, 0, 0, 0, 1, 50, 0, 0, 0, 0},
    {EFI_IFR_REF_OP, 0x16, 0, kRef, 0, 0, 0, 0, -1, 0, 0, 0, 0},
    {EFI_IFR_ACTION_OP, 0x17, 0, EFI_IFR_TYPE_ACTION, 0, 0, 0, 0, -1, 6, 0, 0, 0},
    {EFI_IFR_IMAGE_OP, 0, 0, kNone, 0, 0, 0, 0, -1, 0, 0, 0, 0},
    {EFI_IFR_NUMERIC_OP, 0x18, 8, 3, 0, ~0ull, 0, 2, 0, 0x12340000, 0, 0, 0},
    {EFI_IFR_CHECKBOX_OP, 0x19, 1, kBool, 0, 0, 0, 0, -1, 0, 0, 0, 1},
    {EFI_IFR_DATE_OP, 0x1A, 4, EFI_IFR_TYPE_DATE, 0, 0, 0, 1, 56, 0x0B0607E8, 0, 0, 0},
    {EFI_IFR_TIME_OP, 0x1B, 3, EFI_IFR_TYPE_TIME, 0, 0, 0, 1, 60, 0x38220C, 0, 0, 0},
    {EFI_IFR_RESET_BUTTON_OP, 0, 0, kNone, 0, 0, 0, 0, -1, 0, 0, 0, 0},
    {EFI_IFR_NUMERIC_OP, 0x1C, 1, 0, 0, 0, 0, 3, -1, 0, 0, 0, 0},
    {EFI_IFR_REF_OP, 0x1D, 0, kRef, 0, 0, 0, 0, -1, 0, 0, 0, 0},
    {EFI_IFR_REF_OP, 0x1E, 0, kRef, 0, 0, 0, 0, -1, 0, 0, 0, 0},
    {EFI_IFR_REF_OP, 0x1F, 0, kRef, 0, 0, 0, 0, -1, 0, 0, 0, 0},
    {EFI_IFR_REF_OP, 0x20, 0, kRef, 0, 0, 0, 0, -1, 0, 0, 0, 0},
};

TEST_F(FormsRecordsTest, SampleFormSetFieldByField) {
  Sample sample;
  devices::Device* device = nullptr;
  auto parse = process({registerSample(sample, &device)});
  ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
  ASSERT_EQ(parse->count, 1u);
  const HII_FORMSET_RECORD* set = parse->set();
  ASSERT_EQ(set->VarStoreBufferCount, 3u);
  const HII_FORM_RECORD* form = set->Forms[0];
  ASSERT_EQ(form->StatementCount, std::size(kForm1)) << "the label and the locked tag are no statements";
  for (size_t i = 0; i < std::size(kForm1); ++i) {
    const StatementRow& r = kForm1[i];
    const HII_STATEMENT_RECORD* s = form->Statements[i];
    SCOPED_TRACE(testing::Message() << "statement " << i);
    EXPECT_TRUE(s->Operand == r.operand && s->QuestionId == r.questionId) << int(s->Operand) << " " << s->QuestionId;
    if (r.questionId || r.operand == EFI_IFR_RESET_BUTTON_OP) {
      EXPECT_TRUE(s->Prompt == sample.prompt && s->Help == sample.help);
    }
    EXPECT_EQ(s->StorageWidth, r.width);
    EXPECT_EQ(s->HiiValue.Type, r.type);
    EXPECT_EQ(s->ValueType, r.type <= EFI_IFR_TYPE_NUM_SIZE_64 ? r.type : 0);
    EXPECT_TRUE(s->Minimum == r.minimum && s->Maximum == r.maximum && s->Step == r.step)
        << s->Minimum << " " << s->Maximum << " " << s->Step;
    EXPECT_EQ(s->VarStore, r.store ? set->VarStoreBuffer[r.store - 1] : nullptr);
    EXPECT_EQ(text16(s->BlockName), r.block < 0 ? u"" : hii::blockName(UINT64(r.block), r.width));
    if (r.type != kRef && r.type != kString) { EXPECT_EQ(hiiValueNumber(s->HiiValue, 8), r.value); }
    EXPECT_TRUE(s->ReadOnlyFlag == r.readOnly && s->ResetRequired == r.reset && s->LockedFlag == r.locked);
    EXPECT_TRUE(!s->DisabledMark && !s->SuppressedMark && !s->ReadOnlyMark);
  }
  EXPECT_EQ(form->Statements[0]->Prompt, sample.subtitle);
  EXPECT_TRUE(form->Statements[1]->Prompt == sample.text && form->Statements[1]->TextTwo == sample.textTwo);

  // Buffer values come from storage, except a password's characters.
  auto buffer = [&](UINT16 id, size_t n) {
    const UINT8* b = findQuestion(set, id)->HiiValue.Buffer;
    return b ? std::vector<UINT8>(b, b + n) : std::vector<UINT8>{};
  };
  EXPECT_EQ(buffer(0x14, 6), (std::vector<UINT8>{'H', 0, 'i', 0, 0, 0}));
  EXPECT_EQ(buffer(0x15, 3), (std::vector<UINT8>{3, 1, 2}));
  EXPECT_EQ(buffer(0x13, 2), (std::vector<UINT8>{0, 0}));

  // References: EFI_HII_REF is QuestionId, FormId, FormSetGuid, DevicePath.
  const struct { UINT16 id, question, form, devicePath; EFI_GUID formSet; } refs[] = {
      {0x16, 0, 2, 0, {}}, {0x1D, 0x1A, 2, 0, {}}, {0x1E, 4, 3, 0, kOtherFormSetGuid},
      {0x1F, 6, 5, 9, kOtherFormSetGuid}, {0x20, 0, 0, 0, {}}};
  for (const auto& r : refs) {
    const UINT8* v = findQuestion(set, r.id)->HiiValue.Value;
    EXPECT_TRUE((v[0] | (v[1] << 8)) == r.question && (v[2] | (v[3] << 8)) == r.form &&
                std::memcmp(&v[4], &r.formSet, sizeof(EFI_GUID)) == 0 && (v[20] | (v[21] << 8)) == r.devicePath)
        << r.id;
  }

  // Options in order with their texts and values (default flags: see
  // OptionFlagsMarkOptionsOnly); the numeric's two DEFAULT opcodes.
  const HII_STATEMENT_RECORD* oneOf = findQuestion(set, 0x10);
  ASSERT_EQ(oneOf->OptionCount, 3u);
  const UINT16 optionTexts[] = {sample.option1, sample.option2, sample.option3};
  for (UINT8 i = 0; i < 3; ++i) {
    const HII_OPTION_RECORD* o = oneOf->Options[i];
    EXPECT_TRUE(o->OptionText == optionTexts[i] && o->Value.Type == EFI_IFR_TYPE_NUM_SIZE_16) << int(i);
    EXPECT_EQ(number(o->Value), i + 1u);
  }
  EXPECT_EQ(findQuestion(set, 0x15)->Options[2]->Value.Type, EFI_IFR_TYPE_NUM_SIZE_8);
  const HII_STATEMENT_RECORD* numeric = findQuestion(set, 0x12);
  ASSERT_EQ(numeric->DefaultCount, 2u);
  for (int k = 0; k < 2; ++k)
    EXPECT_TRUE(numeric->Defaults[k]->DefaultId == (k ? EFI_HII_DEFAULT_CLASS_MANUFACTURING : 0) &&
                numeric->Defaults[k]->Value.Type == EFI_IFR_TYPE_NUM_SIZE_32 &&
                number(numeric->Defaults[k]->Value) == (k ? 200u : 100u))
        << "default " << k;

  // The form set: forms (the form map last), languages, variable stores,
  // default stores (standard and manufacturing first, then the custom one).
  EXPECT_TRUE(set->Guid == kFormSetGuid && set->FormSetTitle == sample.title && set->FormSetHelp == sample.help);
  ASSERT_EQ(set->FormCount, 3u);
  const UINT16 forms[][3] = {{1, sample.formTitle, 21}, {2, sample.form2Title, 1}, {8, sample.form2Title, 1}};
  for (int f = 0; f < 3; ++f)
    EXPECT_TRUE(set->Forms[f]->FormId == forms[f][0] && set->Forms[f]->FormTitle == forms[f][1] &&
                set->Forms[f]->StatementCount == forms[f][2])
        << "form " << f;
  ASSERT_EQ(set->NumberOfLanguages, 3u);
  EXPECT_EQ(std::string(set->Languages[0]) + set->Languages[1] + set->Languages[2], "en-USfr-FRx-UEFI");
  const std::pair<EFI_GUID, std::u16string> stores[] = {
      {kStoreGuid, u"Setup"}, {kVariableGuid, u"Vars"}, {kOtherFormSetGuid, u""}};
  for (int v = 0; v < 3; ++v) {
    EXPECT_EQ(set->VarStoreBuffer[v]->Guid, stores[v].first);
    EXPECT_EQ(text16(set->VarStoreBuffer[v]->ConfigHdr),
              hii::configHdr(stores[v].first, stores[v].second, device->devicePath()));
  }
  ASSERT_EQ(set->DefaultStoreCount, 3u);
  const UINT16 defaultIds[] = {0, 1, 5};
  for (int d = 0; d < 3; ++d) EXPECT_EQ(set->DefaultStores[d]->DefaultId, defaultIds[d]);
  EXPECT_EQ(set->DefaultStores[2]->DefaultName, sample.custom);
}

// An option's default flags mark the option (the standard flag sets
// OptionIsDefault, the manufacturing flag only OptionFlags) and never make a
// default record: the question's records are its DEFAULT opcodes, in order,
// whether or not an option's flag names the same value.
TEST_F(FormsRecordsTest, OptionFlagsMarkOptionsOnly) {
  constexpr UINT8 kStd = EFI_IFR_OPTION_DEFAULT, kMfg = EFI_IFR_OPTION_DEFAULT_MFG;
  constexpr UINT16 kStandard = EFI_HII_DEFAULT_CLASS_STANDARD, kManufacturing = EFI_HII_DEFAULT_CLASS_MANUFACTURING;
  struct DefaultOp { UINT16 defaultId; UINT64 value; };
  const struct {  // flags: of the options with values 1, 2, 3
    const char* name; bool orderedList; UINT8 flags[3]; std::vector<DefaultOp> defaults; UINT8 isDefault[3];
  } rows[] = {
      {"standard flag", false, {0, kStd, 0}, {}, {0, 1, 0}},
      {"manufacturing flag", false, {0, 0, kMfg}, {}, {0, 0, 0}},
      {"both flags on one option", false, {kStd | kMfg, 0, 0}, {}, {1, 0, 0}},
      {"flags on two options", false, {kMfg, kStd, 0}, {}, {0, 1, 0}},
      {"flag and DEFAULT of the same value", false, {0, kStd, 0}, {{kStandard, 2}}, {0, 1, 0}},
      {"flags and DEFAULTs that disagree", false, {kStd, 0, kMfg}, {{kStandard, 3}, {kManufacturing, 2}}, {1, 0, 0}},
      {"DEFAULTs without flags", false, {0, 0, 0}, {{kManufacturing, 1}, {kStandard, 3}}, {0, 0, 0}},
      {"ordered list with flags", true, {kStd | kMfg, kStd, 0}, {}, {1, 1, 0}},
  };
  OneForm f(32);
  const UINT16 s = f.s;
  for (UINT16 i = 0; i < std::size(rows); ++i) {
    const UINT16 id = UINT16(0x50 + i), offset = UINT16(4 * i);
    if (rows[i].orderedList) {
      ifr::OrderedList list(id, s, s, Width::U8, 3);
      for (UINT8 k = 0; k < 3; ++k) list.option(s, k + 1u, rows[i].flags[k]);
      f.form.orderedList(list.store(1, offset));
      continue;
    }
    ifr::OneOf oneOf(id, s, s, Width::U16);
    for (UINT8 k = 0; k < 3; ++k) oneOf.option(s, k + 1u, rows[i].flags[k]);
    for (const DefaultOp& d : rows[i].defaults) oneOf.defaultValue(d.value, d.defaultId);
    f.form.oneOf(oneOf.store(1, offset));
  }
  auto parse = processForm(f, std::vector<UINT8>(32));
  ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;

  for (UINT16 i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(rows[i].name);
    const HII_STATEMENT_RECORD* q = findQuestion(parse->set(), UINT16(0x50 + i));
    ASSERT_EQ(q->OptionCount, 3u);
    for (int k = 0; k < 3; ++k)
      EXPECT_TRUE(q->Options[k]->OptionIsDefault == rows[i].isDefault[k] &&
                  (q->Options[k]->OptionFlags & (kStd | kMfg)) == rows[i].flags[k])
          << "option " << k;
    ASSERT_EQ(q->DefaultCount, rows[i].defaults.size());
    for (size_t k = 0; k < rows[i].defaults.size(); ++k)
      EXPECT_TRUE(q->Defaults[k]->DefaultId == rows[i].defaults[k].defaultId &&
                  q->Defaults[k]->Value.Type == EFI_IFR_TYPE_NUM_SIZE_16 &&
                  number(q->Defaults[k]->Value) == rows[i].defaults[k].value)
          << "default " << k;
  }
}

// Checkbox defaults from flags, then EFI_IFR_DEFAULT records, then
// expressions; expression defaults of other questions carry their result.
TEST_F(FormsRecordsTest, DefaultsFromFlagsRecordsAndExpressions) {
  const struct {
    const char* name; std::function<void(ifr::Checkbox&)> build; UINT8 standard, manufacturing; size_t records;
  } boxes[] = {
      {"no default", [](ifr::Checkbox&) {}, 0, 0, 0},
      {"flags", [](ifr::Checkbox& c) { c.defaultOn().mfgDefaultOn(); }, 1, 1, 0},
      {"record overrides the flag", [](ifr::Checkbox& c) { c.defaultOn().defaultValue(false); }, 0, 0, 1},
      {"manufacturing record", [](ifr::Checkbox& c) { c.defaultValue(true, EFI_HII_DEFAULT_CLASS_MANUFACTURING); },
       0, 1, 1},
      {"expression on another question", [](ifr::Checkbox& c) { c.defaultExpression(ifr::ideqval(0x40, 7)); }, 1,
       0, 1},
  };
  OneForm f(8);
  const UINT16 s = f.s;
  for (UINT16 i = 0; i < std::size(boxes); ++i) {
    ifr::Checkbox box(UINT16(0x30 + i), s, s);
    boxes[i].build(box.store(1, 0));
    f.form.checkbox(box);
  }
  f.form.numeric(ifr::Numeric(0x40, s, s).store(1, 1))
      .numeric(ifr::Numeric(0x20, s, s, Width::U16).store(1, 2).defaultExpression(ifr::uint16(0x1234)))
      .numeric(ifr::Numeric(0x21, s, s).store(1, 4).defaultExpression(ifr::questionRef(0x20), 1));
  auto parse = processForm(f, {0, 7, 0x22, 0x11, 9, 0, 0, 0});
  ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;

  for (UINT16 i = 0; i < std::size(boxes); ++i) {
    SCOPED_TRACE(boxes[i].name);
    const HII_STATEMENT_RECORD* q = findQuestion(parse->set(), UINT16(0x30 + i));
    EXPECT_TRUE(q->CheckboxDefault == boxes[i].standard && q->CheckboxDefaultMfg == boxes[i].manufacturing &&
                q->DefaultCount == boxes[i].records);
  }
  // A boolean, a constant and another question's current value.
  for (const auto& [id, defaultId, type, result] :
       {std::tuple{0x34, 0, EFI_IFR_TYPE_BOOLEAN, 1u}, {0x20, 0, EFI_IFR_TYPE_NUM_SIZE_16, 0x1234u},
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
  ifr::FormSetBuilder first(kFormSetGuid, s, s), second(kOtherFormSetGuid, s, s);
  first.form(1, s).text(s, s);
  second.form(7, s).text(s, s);
  EFI_HII_HANDLE ha = addDevice().addPackageList(ifr::packageList(kListGuid, first, strings));
  EFI_HII_HANDLE hb = addDevice().addPackageList(
      ifr::packageList(kListGuid, std::vector<ifr::Bytes>{first.package(), second.package()}, strings));

  auto all = process({ha, hb});
  ASSERT_EQ(all->status, EFI_SUCCESS) << lastError().Message;
  ASSERT_EQ(all->count, 3u);
  EXPECT_TRUE(all->set(0)->Guid == kFormSetGuid && all->set(1)->Guid == kFormSetGuid);
  EXPECT_TRUE(all->set(2)->Guid == kOtherFormSetGuid && all->set(2)->Forms[0]->FormId == 7);

  auto filtered = process({ha, hb}, &kOtherFormSetGuid);
  ASSERT_EQ(filtered->status, EFI_SUCCESS);
  ASSERT_EQ(filtered->count, 1u);
  EXPECT_EQ(filtered->set()->Guid, kOtherFormSetGuid);

  auto none = process({ha, hb}, &kStoreGuid);
  EXPECT_EQ(none->status, EFI_NOT_FOUND);
  EXPECT_EQ(none->sets, nullptr);
  EXPECT_EQ(lastError().Status, EFI_NOT_FOUND);
}

}  // namespace
}  // namespace tvl::test::forms
