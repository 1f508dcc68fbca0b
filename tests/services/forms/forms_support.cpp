#include "forms_support.h"

#include <cstring>
#include <sstream>

#include "support/log_capture.h"

namespace tvl::test::forms {

namespace {
using ifr::Width;
constexpr UINT16 kSetupSize = 64;
}  // namespace

// ---------------------------------------------------------------- dump
namespace {

std::string guidName(const EFI_GUID& g) {
  const std::pair<const EFI_GUID*, const char*> known[] = {
      {&kFormSetGuid, "formset"}, {&kOtherFormSetGuid, "other"}, {&kStoreGuid, "store"}, {&kVariableGuid, "variable"}};
  for (const auto& [guid, name] : known)
    if (g == *guid) return name;
  std::ostringstream out;
  out << std::hex << g.Data1;
  return out.str();
}

void value(std::ostream& out, const HII_VALUE& v) {
  out << int(v.Type) << ":";
  if (v.Type == EFI_IFR_TYPE_REF) {
    EFI_GUID formSet;
    std::memcpy(&formSet, &v.Value[4], sizeof formSet);
    out << "ref(q" << hiiValueNumber(v, 2) << " f" << (v.Value[2] | v.Value[3] << 8) << " " << guidName(formSet)
        << " d" << (v.Value[20] | v.Value[21] << 8) << ")";
  } else {
    out << (v.Type == EFI_IFR_TYPE_STRING || v.Type == EFI_IFR_TYPE_ACTION ? number(v) : hiiValueNumber(v, 8));
  }
  if (!v.Buffer) return;
  out << " [";
  for (UINT16 b = 0; b < v.BufferLen; ++b) out << (b ? " " : "") << int(v.Buffer[b]);
  out << "]";
}

void statement(std::ostream& out, const HII_FORMSET_RECORD& set, const HII_STATEMENT_RECORD& st) {
  out << "\n  " << int(st.Operand) << " q" << st.QuestionId << " p" << st.Prompt << " h" << st.Help;
  if (st.TextTwo) out << " two" << st.TextTwo;
  if (st.StorageWidth) out << " w" << st.StorageWidth;
  if (st.Minimum || st.Maximum || st.Step) out << " range " << st.Minimum << ".." << st.Maximum << "/" << st.Step;
  if (st.VarStore) {
    UINT64 v = 0;
    while (v < set.VarStoreBufferCount && set.VarStoreBuffer[v] != st.VarStore) ++v;
    out << " store" << v;
  }
  if (st.BlockName) out << " " << narrow(st.BlockName);
  out << " = ";
  value(out, st.HiiValue);
  if (st.ValueType) out << " size" << int(st.ValueType);
  const std::pair<UINT8, const char*> marks[] = {
      {st.ReadOnlyFlag, "read-only"}, {st.ResetRequired, "reset"}, {st.LockedFlag, "locked"},
      {st.SuppressedMark, "suppressed"}, {st.DisabledMark, "disabled"}, {st.ReadOnlyMark, "grayed"}};
  for (const auto& [on, name] : marks)
    if (on) out << " " << name << (on == 1 ? "" : "?");
  if (st.ReadOnlyCondition) out << " grayed-if " << int(st.ReadOnlyCondition->Result.Value[0]);
  if (st.CheckboxDefault || st.CheckboxDefaultMfg)
    out << " checkbox " << int(st.CheckboxDefault) << int(st.CheckboxDefaultMfg);
  for (UINT64 o = 0; o < st.OptionCount; ++o) {
    const HII_OPTION_RECORD& option = *st.Options[o];
    out << "\n    option t" << option.OptionText << " = ";
    value(out, option.Value);
    if (option.OptionFlags) out << " flags " << int(option.OptionFlags);
    if (option.OptionIsDefault) out << " default" << (option.OptionIsDefault == 1 ? "" : "?");
    if (option.OptionSuppressed) out << " suppressed" << (option.OptionSuppressed == 1 ? "" : "?");
  }
  for (UINT64 d = 0; d < st.DefaultCount; ++d) {
    const HII_DEFAULT_RECORD& def = *st.Defaults[d];
    out << "\n    default " << def.DefaultId << " = ";
    value(out, def.ValueExpression ? def.ValueExpression->Result : def.Value);
    if (def.ValueExpression) out << " from an expression, type " << int(def.Value.Type);
  }
}

}  // namespace

std::string dump(const Parse& parse) {
  std::ostringstream out;
  out << "status " << parse.status << " count " << parse.count << "\n";
  for (UINTN i = 0; parse.status == EFI_SUCCESS && i < parse.count; ++i) {
    const HII_FORMSET_RECORD& set = *parse.set(i);
    out << "set " << guidName(set.Guid) << " title " << set.FormSetTitle << " help " << set.FormSetHelp
        << " languages";
    for (UINT64 l = 0; l < set.NumberOfLanguages; ++l) out << " " << set.Languages[l];
    for (UINT64 v = 0; v < set.VarStoreBufferCount; ++v)
      out << "\n store " << guidName(set.VarStoreBuffer[v]->Guid) << " "
          << narrow(set.VarStoreBuffer[v]->ConfigHdr).size();
    out << "\n default stores";
    for (UINT64 d = 0; d < set.DefaultStoreCount; ++d)
      out << " " << set.DefaultStores[d]->DefaultId << ":" << set.DefaultStores[d]->DefaultName;
    for (UINT64 f = 0; f < set.FormCount; ++f) {
      out << "\n form " << set.Forms[f]->FormId << " title " << set.Forms[f]->FormTitle;
      for (UINT64 s = 0; s < set.Forms[f]->StatementCount; ++s)
        statement(out << std::hex, set, *set.Forms[f]->Statements[s]);
      out << std::dec;
    }
    out << "\n";
  }
  return out.str();
}

// ---------------------------------------------------------------- sample
std::vector<UINT8> Sample::setupBytes() const {
  std::vector<UINT8> b(kSetupSize, 0);
  b[2] = 0x02, b[4] = 0x01;                              // one-of 0x10, checkbox 0x11
  b[8] = 0x78, b[9] = 0x56, b[10] = 0x34, b[11] = 0x12;  // numeric 0x12
  b[12] = 'p', b[14] = 'w', b[30] = 'H', b[32] = 'i';    // password 0x13, string 0x14
  b[50] = 3, b[51] = 1, b[52] = 2;                       // ordered list 0x15
  b[56] = 0xE8, b[57] = 0x07, b[58] = 6, b[59] = 11;     // date 0x1A
  b[60] = 12, b[61] = 34, b[62] = 56;                    // time 0x1B
  return b;
}

ifr::Bytes Sample::list() const {
  ifr::FormSetBuilder fs(kFormSetGuid, title, help);
  fs.varStore(1, kStoreGuid, "Setup", kSetupSize);
  fs.efiVarStore(2, kVariableGuid, "Vars", 8, EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS);
  fs.defaultStore(0x0005, custom);
  fs.nameValueVarStore(3, kOtherFormSetGuid);
  auto dateTime = [this](UINT8 opcode, UINT16 id, UINT16 offset) {
    return op(opcode, false, cat({u16le(prompt), u16le(help), u16le(id), u16le(1), u16le(offset), {0, 0}}));
  };
  ifr::FormBuilder& form = fs.form(1, formTitle);
  form.subtitle(subtitle)
      .text(text, help, textTwo)
      .oneOf(ifr::OneOf(0x10, prompt, help, Width::U16).store(1, 2).resetRequired().range(1, 3, 1)
                 .option(option1, 1).option(option2, 2, EFI_IFR_OPTION_DEFAULT)
                 .option(option3, 3, EFI_IFR_OPTION_DEFAULT_MFG))
      .checkbox(ifr::Checkbox(0x11, prompt, help).store(1, 4).defaultOn())
      .numeric(ifr::Numeric(0x12, prompt, help, Width::U32).store(1, 8).readOnly().range(10, 5000, 5)
                   .defaultValue(100).defaultValue(200, EFI_HII_DEFAULT_CLASS_MANUFACTURING))
      .password(ifr::Password(0x13, prompt, help, 1, 8).store(1, 12))
      .string(ifr::String(0x14, prompt, help, 2, 10).store(1, 30))
      .orderedList(ifr::OrderedList(0x15, prompt, help, Width::U8, 3).store(1, 50)
                       .option(option1, 1).option(option2, 2).option(option3, 3))
      .ref(ifr::Ref(0x16, prompt, help).toForm(2))
      .action(ifr::Action(0x17, prompt, help, textTwo))
      .suppressIf(ifr::And(ifr::ideqval(0x10, 3), ifr::Not(ifr::False())), [](ifr::FormBuilder& f) { f.image(7); })
      .numeric(ifr::Numeric(0x18, prompt, help, Width::U64).store(2, 0).range(0, ~0ull))
      .checkbox(ifr::Checkbox(0x19, prompt, help).locked().defaultExpression(ifr::ideqvallist(0x10, {1, 2})))
      .raw(dateTime(EFI_IFR_DATE_OP, 0x1A, 56))
      .raw(dateTime(EFI_IFR_TIME_OP, 0x1B, 60))
      .raw(op(EFI_IFR_RESET_BUTTON_OP, false, cat({u16le(prompt), u16le(help), u16le(1)})))
      .numeric(ifr::Numeric(0x1C, prompt, help).storeNamed(3, text))
      .ref(ifr::Ref(0x1D, prompt, help).toQuestion(2, 0x1A))
      .ref(ifr::Ref(0x1E, prompt, help).toFormSet(kOtherFormSetGuid, 3, 4))
      .ref(ifr::Ref(0x1F, prompt, help).toDevice(9, kOtherFormSetGuid, 5, 6))
      .ref(ifr::Ref(0x20, prompt, help))
      .label(1)
      .locked();
  fs.form(2, form2Title).text(text, help);
  fs.raw(cat({op(EFI_IFR_FORM_MAP_OP, true, cat({u16le(8), u16le(form2Title), guidBytes(kStoreGuid)})),
              op(EFI_IFR_TEXT_OP, false, cat({u16le(text), u16le(help), u16le(0)})), {EFI_IFR_END_OP, 2}}));
  return ifr::packageList(kListGuid, fs, strings);
}

// ---------------------------------------------------------------- fixture
void FormsTest::SetUp() {
  PlatformTest::SetUp();
  installDatabase();
  load("forms_service");
  EFI_GUID guid = HII_FORMS_PROCESSOR2_PROTOCOL_GUID;
  forms_ = locate<HII_FORMS_PROCESSOR2_PROTOCOL>(guid);
  ASSERT_NE(forms_, nullptr);
  markBaseline();
}

void FormsTest::installDatabase() { database_ = std::make_unique<hii::HiiDatabase>(platform()); }

void FormsTest::TearDown() {
  devices_.clear();
  database_.reset();
  PlatformTest::TearDown();
}

devices::Device& FormsTest::addDevice() {
  std::vector<uint8_t> path = hii::DevicePathBuilder().pciRoot(0).pci(UINT8(devices_.size() + 1), 0).build();
  devices_.push_back(std::make_unique<devices::Device>(platform(), *database_, path));
  return *devices_.back();
}

EFI_HII_HANDLE FormsTest::registerSample(const Sample& sample, devices::Device** device) {
  devices::Device& d = addDevice();
  d.addBufferStorage(kStoreGuid, u"Setup", sample.setupBytes());
  d.addVariableStorage(kVariableGuid, u"Vars", {0, 0, 0x34, 0x12, 0, 0, 0, 0});
  if (device) *device = &d;
  return d.addPackageList(sample.list());
}

std::unique_ptr<Parse> FormsTest::process(const std::vector<EFI_HII_HANDLE>& handles, const EFI_GUID* filter) {
  auto parse = std::make_unique<Parse>();
  parse->forms = forms_;
  std::vector<EFI_HII_HANDLE> copy = handles;
  parse->status = forms_->ProcessForms(forms_, copy.data(), copy.size(), filter, &parse->count, &parse->sets);
  return parse;
}

std::unique_ptr<Parse> FormsTest::processForm(const OneForm& f, const std::vector<UINT8>& setup) {
  devices::Device& device = addDevice();
  device.addBufferStorage(kStoreGuid, u"Setup", setup);
  return process({device.addPackageList(ifr::packageList(kListGuid, f.fs, f.strings))});
}

HII_FORMS_PROCESSOR_ERROR FormsTest::lastError() {
  HII_FORMS_PROCESSOR_ERROR error{};
  EXPECT_EQ(forms_->GetLastError(forms_, &error), EFI_SUCCESS);
  return error;
}

}  // namespace tvl::test::forms
