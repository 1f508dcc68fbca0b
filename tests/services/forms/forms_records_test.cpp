// Records that ProcessForms makes from form packages of a sample device:
// statements with their fields, storage and current values; options and
// defaults; the form set's languages, stores and forms; the form-set filter.
#include <gtest/gtest.h>

#include <functional>

#include "forms_support.h"

namespace tvl::test::forms {
namespace {

using ifr::Width;
using FormsRecordsTest = FormsTest;

// The sample's records as dump() shows them: statement lines in hex, texts
// by string id (prompt c, help 2), values as type:number, stores by their
// index in VarStoreBuffer.
const char* const kSampleRecords = R"(status 0 count 1
set formset title 1 help 2 languages en-US fr-FR x-UEFI
 store store 113
 store variable 109
 store other 93
 default stores 0:0 1:0 5:8
 form 1 title 3
  2 q0 p7 h0 = 9:0
  3 q0 p5 h2 two6 = 9:0
  5 q10 pc h2 w2 range 1..3/1 store0 &OFFSET=0002&WIDTH=0002 = 1:2 size1 reset
    option t9 = 1:1
    option ta = 1:2 flags 10 default
    option tb = 1:3 flags 20
  6 q11 pc h2 w1 store0 &OFFSET=0004&WIDTH=0001 = 4:1 checkbox 10
  7 q12 pc h2 w4 range a..1388/5 store0 &OFFSET=0008&WIDTH=0004 = 2:12345678 size2 read-only
    default 0 = 2:64
    default 1 = 2:c8
  8 q13 pc h2 w10 range 1..8/0 store0 &OFFSET=000c&WIDTH=0010 = 7:0 [0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0]
  1c q14 pc h2 w14 range 2..a/0 store0 &OFFSET=001e&WIDTH=0014 = 7:0 [48 0 69 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0]
  23 q15 pc h2 w3 store0 &OFFSET=0032&WIDTH=0003 = b:0 [3 1 2]
    option t9 = 0:1
    option ta = 0:2
    option tb = 0:3
  f q16 pc h2 = c:ref(q0 f2 0 d0)
  c q17 pc h2 = a:6
  4 q0 p0 h0 = 9:0
  7 q18 pc h2 w8 range 0..ffffffffffffffff/0 store1 &OFFSET=0000&WIDTH=0008 = 3:12340000 size3
  6 q19 pc h2 w1 = 4:0 locked checkbox 10
    default 0 = 4:1 from an expression, type 8
  1a q1a pc h2 w4 store0 &OFFSET=0038&WIDTH=0004 = 6:b0607e8
  1b q1b pc h2 w3 store0 &OFFSET=003c&WIDTH=0003 = 5:38220c
  d q0 pc h2 = 9:0
  7 q1c pc h2 w1 store2 = 0:0
  f q1d pc h2 = c:ref(q1a f2 0 d0)
  f q1e pc h2 = c:ref(q4 f3 other d0)
  f q1f pc h2 = c:ref(q6 f5 other d9)
  f q20 pc h2 = c:ref(q0 f0 0 d0)
 form 2 title 4
  3 q0 p5 h2 = 9:0
 form 8 title 4
  3 q0 p5 h2 = 9:0
)";

TEST_F(FormsRecordsTest, SampleFormSetFieldByField) {
  Sample sample;
  devices::Device* device = nullptr;
  auto parse = process({registerSample(sample, &device)});
  ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
  EXPECT_EQ(dump(*parse), kSampleRecords);
  const std::pair<EFI_GUID, std::u16string> stores[] = {
      {kStoreGuid, u"Setup"}, {kVariableGuid, u"Vars"}, {kOtherFormSetGuid, u""}};
  for (int v = 0; v < 3; ++v)
    EXPECT_EQ(text16(parse->set()->VarStoreBuffer[v]->ConfigHdr),
              hii::configHdr(stores[v].first, stores[v].second, device->devicePath()));
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
