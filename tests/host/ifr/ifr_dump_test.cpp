// The IFR decoder: the outline of what the builder writes, scope nesting
// and lengths, and refusals of malformed opcodes and packages.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "host/ifr/ifr_builder.h"
#include "host/ifr/ifr_dump.h"

namespace ifr = tvl::host::ifr;
using ifr::Bytes;
using ifr::Width;

namespace {

const EFI_GUID kGuid = {0x12345678, 0x9abc, 0xdef0, {1, 2, 3, 4, 5, 6, 7, 8}};

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

// A form set using every statement kind, conditions and defaults.
ifr::FormSetBuilder sampleFormSet() {
  ifr::FormSetBuilder fs(kGuid, 1, 2);
  fs.varStore(1, kGuid, "Setup", 0x40).defaultStore(0, 3);
  ifr::FormBuilder& main = fs.form(1, 4);
  main.subtitle(5)
      .oneOf(ifr::OneOf(0x100, 6, 7).store(1, 0).option(8, 0, EFI_IFR_OPTION_DEFAULT).option(9, 1).resetRequired())
      .suppressIf(ifr::ideqval(0x100, 0),
                  [](ifr::FormBuilder& f) { f.checkbox(ifr::Checkbox(0x101, 10, 11).store(1, 1).defaultValue(true)); })
      .grayOutIf(ifr::Not(ifr::eqidid(0x100, 0x101)),
                 [](ifr::FormBuilder& f) {
                   f.numeric(ifr::Numeric(0x102, 12, 13, Width::U16).store(1, 2).range(1, 100, 1).defaultExpression(
                       ifr::number(50)));
                 })
      .password(ifr::Password(0x103, 14, 15, 0, 20).store(1, 4))
      .string(ifr::String(0x104, 16, 17, 1, 10).store(1, 0x20).locked())
      .orderedList(ifr::OrderedList(0x105, 18, 19, Width::U8, 2).store(1, 0x30).option(20, 1).option(21, 2))
      .action(ifr::Action(0x106, 22, 23, 24))
      .ref(ifr::Ref(0x107, 25, 26).toForm(2))
      .label(0x2000);
  fs.form(2, 27).text(28, 29, 30).image(1);
  return fs;
}

TEST(IfrDump, OutlinesEveryOpcodeAtItsScopeDepth) {
  Bytes package = sampleFormSet().package();
  ifr::Outline o = ifr::dumpFormsPackage(package);
  ASSERT_TRUE(o.ok()) << o.error << "\n" << o.text;

  std::vector<ifr::OpInfo> ops;
  ASSERT_TRUE(ifr::walkIfr(package.data() + 4, package.size() - 4, ops));
  std::vector<std::string> text = lines(o.text);
  ASSERT_EQ(text.size(), ops.size() + 1);  // the package line, then one line per opcode
  EXPECT_EQ(text[0], "FORMS_PACKAGE len=" + std::to_string(package.size()));

  // Each line names its opcode at two spaces per open scope (behind the
  // package's own two), with the offset counted from the package start.
  for (size_t i = 0; i < ops.size(); ++i) {
    char offset[8];
    snprintf(offset, sizeof offset, "%04zx", ops[i].offset + 4);
    std::string prefix = std::string(offset) + " " + std::string(2 + 2 * ops[i].depth, ' ') +
                         ifr::opcodeName(ops[i].opcode) + " len=" + std::to_string(ops[i].length);
    EXPECT_EQ(text[i + 1].substr(0, prefix.size()), prefix) << "line " << i + 1;
  }
}

TEST(IfrDump, ScopesBalanceAndLengthsCoverTheIfr) {
  Bytes ifrBytes = sampleFormSet().ifr();
  std::vector<ifr::OpInfo> ops;
  std::string error;
  ASSERT_TRUE(ifr::walkIfr(ifrBytes.data(), ifrBytes.size(), ops, &error)) << error;
  size_t total = 0, scopes = 0, ends = 0;
  for (const ifr::OpInfo& op : ops) {
    EXPECT_EQ(op.offset, total);
    total += op.length;
    scopes += op.scope;
    ends += op.opcode == EFI_IFR_END_OP;
  }
  EXPECT_EQ(total, ifrBytes.size());
  EXPECT_EQ(scopes, ends);
  EXPECT_EQ(ops.back().depth, 0u);

  // Options and defaults sit one below their question, expressions one
  // below their condition or value.
  auto depthOf = [&](UINT8 opcode) {
    for (const ifr::OpInfo& op : ops)
      if (op.opcode == opcode) return int(op.depth);
    return -1;
  };
  const std::pair<UINT8, int> depths[] = {{EFI_IFR_ONE_OF_OP, 2},  {EFI_IFR_ONE_OF_OPTION_OP, 3},
                                          {EFI_IFR_EQ_ID_VAL_OP, 3}, {EFI_IFR_CHECKBOX_OP, 3},
                                          {EFI_IFR_VALUE_OP, 5},     {EFI_IFR_UINT64_OP, 6}};
  for (auto [opcode, depth] : depths) EXPECT_EQ(depthOf(opcode), depth) << int(opcode);
}

TEST(IfrDump, KeyFieldsOfTheSample) {
  ifr::Outline o = ifr::dumpIfr(sampleFormSet().ifr());
  ASSERT_TRUE(o.ok()) << o.error;
  // Fields the forms processor depends on, as the outline spells them.
  const char* expected[] = {
      "FORM_SET len=39 scope guid=12345678-9ABC-DEF0-0102-030405060708 title=1 help=2 flags=0x1 "
      "class=93039971-8545-4B04-B45E-32EB8326040E",
      "VARSTORE len=28 guid=12345678-9ABC-DEF0-0102-030405060708 id=1 size=64 name=Setup",
      "ONE_OF len=17 scope prompt=6 help=7 qid=256 varstore=1 info=0x0 qflags=0x10 flags=0x10 min=0 max=0 step=0",
      "DEFAULT len=6 id=0 type=4 value=true",
      "NUMERIC len=20 scope prompt=12 help=13 qid=258 varstore=1 info=0x2 qflags=0x0 flags=0x11 min=1 max=100 step=1",
      "UINT64 len=10 value=50",
      "PASSWORD len=17 scope prompt=14 help=15 qid=259 varstore=1 info=0x4 qflags=0x0 minsize=0 maxsize=20",
      "STRING len=16 scope prompt=16 help=17 qid=260 varstore=1 info=0x20 qflags=0x0 minsize=1 maxsize=10 flags=0x0",
      "ORDERED_LIST len=15 scope prompt=18 help=19 qid=261 varstore=1 info=0x30 qflags=0x0 maxcontainers=2 flags=0x0",
      "ACTION len=15 scope prompt=22 help=23 qid=262 varstore=0 info=0xffff qflags=0x0 config=24",
      "REF len=15 prompt=25 help=26 qid=263 varstore=0 info=0xffff qflags=0x0 form=2",
      "GUID len=21 label=8192",
  };
  for (const char* e : expected) EXPECT_NE(o.text.find(e), std::string::npos) << "missing: " << e << "\n" << o.text;
}

TEST(IfrDump, ReferenceVariantsByLength) {
  struct {
    ifr::Ref ref;
    const char* tail;
  } cases[] = {
      {ifr::Ref(1, 2, 3), "qflags=0x0\n"},
      {ifr::Ref(1, 2, 3).toForm(4), "qflags=0x0 form=4\n"},
      {ifr::Ref(1, 2, 3).toQuestion(4, 5), "form=4 question=5\n"},
      {ifr::Ref(1, 2, 3).toFormSet(kGuid, 4, 5), "question=5 formset=12345678-9ABC-DEF0-0102-030405060708\n"},
      {ifr::Ref(1, 2, 3).toDevice(6, kGuid, 4, 5), "formset=12345678-9ABC-DEF0-0102-030405060708 devicepath=6\n"},
  };
  for (auto& c : cases) {
    Bytes b;
    c.ref.encode(b);
    ifr::Outline o = ifr::dumpIfr(b);
    ASSERT_TRUE(o.ok()) << o.error;
    ASSERT_GE(o.text.size(), strlen(c.tail));
    EXPECT_EQ(o.text.substr(o.text.size() - strlen(c.tail)), c.tail) << o.text;
  }
}

// ---------------------------------------------------------------- malformed

struct MalformedCase {
  const char* name;
  const char* hex;  // bare IFR
  const char* error;
};

Bytes fromHex(const char* text) {
  Bytes out;
  unsigned v;
  std::istringstream in(text);
  while (in >> std::hex >> v) out.push_back(UINT8(v));
  return out;
}

const MalformedCase kMalformed[] = {
    {"one byte left", "46 02 46", "truncated opcode header at offset 0002"},
    {"length zero", "46 00", "opcode length 0 at offset 0000"},
    {"runs past the end", "46 02 06 0e 00 00", "CHECKBOX runs past the end at offset 0002"},
    {"end without scope", "46 02 29 02", "END without an open scope at offset 0002"},
    {"scope left open", "0a 82 46 02", "1 scope(s) left open at offset 0004"},
    {"fields shorter than the layout", "06 85 01 00 02 29 02", "CHECKBOX at offset 0000: length 5 is shorter than its fields"},
    {"varstore name without NUL", "24 18 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 01 00 41 42",
     "VARSTORE at offset 0000: length 24 is shorter than its fields"},
    {"eq-id-list count beyond its length", "14 08 01 00 03 00 01 00", "EQ_ID_VAL_LIST at offset 0000"},
};

void PrintTo(const MalformedCase& c, std::ostream* os) { *os << c.name; }

class MalformedIfrTest : public ::testing::TestWithParam<MalformedCase> {};

TEST_P(MalformedIfrTest, StopsWithAnError) {
  Bytes b = fromHex(GetParam().hex);
  ifr::Outline o = ifr::dumpIfr(b);
  EXPECT_FALSE(o.ok());
  EXPECT_NE(o.error.find(GetParam().error), std::string::npos) << o.error;
}

INSTANTIATE_TEST_SUITE_P(Ifr, MalformedIfrTest, ::testing::ValuesIn(kMalformed),
                         [](const auto& info) { return "case" + std::to_string(info.index); });

TEST(IfrDump, OutlineKeepsWhatCameBeforeAnError) {
  ifr::Outline o = ifr::dumpIfr(fromHex("46 02 47 02 29 02"));
  EXPECT_FALSE(o.ok());
  EXPECT_EQ(o.text, "0000 TRUE len=2\n0002 FALSE len=2\n");
}

TEST(IfrDump, FormsPackageHeaderIsChecked) {
  Bytes good = ifr::formsPackage(ifr::True().code());
  EXPECT_TRUE(ifr::dumpFormsPackage(good).ok());

  Bytes wrongType = good;
  wrongType[3] = EFI_HII_PACKAGE_STRINGS;
  EXPECT_NE(ifr::dumpFormsPackage(wrongType).error.find("not a forms package"), std::string::npos);

  Bytes tooLong = good;
  tooLong[0] = UINT8(good.size() + 1);
  EXPECT_NE(ifr::dumpFormsPackage(tooLong).error.find("does not fit"), std::string::npos);

  // Bytes beyond the package's own length are not part of it.
  Bytes trailing = good;
  trailing.push_back(0xff);
  EXPECT_TRUE(ifr::dumpFormsPackage(trailing).ok());
}

}  // namespace
