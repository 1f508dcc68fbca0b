// Byte-exact encodings of the IFR builder against the opcode layouts of the
// UEFI specification, written out by hand field by field.
#include <gtest/gtest.h>

#include <cctype>
#include <functional>
#include <string>

#include "host/ifr/ifr_builder.h"
#include "host/ifr/ifr_dump.h"

namespace ifr = tvl::host::ifr;
using ifr::Bytes;
using ifr::Width;

namespace {

// "0e a7 | 78 56" -> bytes; anything but hex digits separates.
Bytes hexBytes(const std::string& text) {
  Bytes out;
  int nibbles = 0;
  unsigned acc = 0;
  for (char ch : text) {
    if (!std::isxdigit(static_cast<unsigned char>(ch))) continue;
    acc = acc * 16 + unsigned(std::isdigit(static_cast<unsigned char>(ch)) ? ch - '0' : std::tolower(ch) - 'a' + 10);
    if (++nibbles == 2) {
      out.push_back(UINT8(acc));
      nibbles = 0;
      acc = 0;
    }
  }
  EXPECT_EQ(nibbles, 0) << "odd number of hex digits in " << text;
  return out;
}

std::string hexText(const Bytes& bytes) {
  std::string s;
  char buf[4];
  for (UINT8 b : bytes) {
    snprintf(buf, sizeof buf, "%02x ", b);
    s += buf;
  }
  return s;
}

// The statements of a form, without its FORM opcode and closing END.
Bytes inForm(const std::function<void(ifr::FormBuilder&)>& fill) {
  ifr::FormBuilder form(1, 1);
  fill(form);
  Bytes all = form.encode();
  Bytes head = hexBytes("01 86 01 00 01 00");
  EXPECT_TRUE(std::equal(head.begin(), head.end(), all.begin()));
  EXPECT_EQ(all[all.size() - 2], EFI_IFR_END_OP);
  return Bytes(all.begin() + 6, all.end() - 2);
}

template <typename Q>
Bytes encoded(const Q& q) {
  Bytes out;
  q.encode(out);
  return out;
}

// 12345678-9ABC-DEF0-0102-030405060708 in memory order.
const EFI_GUID kGuid = {0x12345678, 0x9abc, 0xdef0, {1, 2, 3, 4, 5, 6, 7, 8}};
const char* kGuidBytes = "78 56 34 12 bc 9a f0 de 01 02 03 04 05 06 07 08";
const char* kSetupClassBytes = "71 99 03 93 45 85 04 4b b4 5e 32 eb 83 26 04 0e";

struct EncodingCase {
  const char* name;
  std::function<Bytes()> build;
  std::string expected;
};

// Question header in order: Prompt, Help, QuestionId, VarStoreId,
// VarStoreInfo, Flags.
const EncodingCase kEncodings[] = {
    {"checkbox with flags and storage",
     [] { return encoded(ifr::Checkbox(0x1234, 0x11, 0x22).store(1, 0x10).resetRequired().defaultOn().mfgDefaultOn()); },
     "06 8e | 11 00 22 00 34 12 01 00 10 00 10 | 03 | 29 02"},
    {"numeric 8-bit: 17 bytes, unsigned decimal display",
     [] { return encoded(ifr::Numeric(0x100, 3, 4).store(1, 5).range(1, 200, 1)); },
     "07 91 | 03 00 04 00 00 01 01 00 05 00 00 | 10 | 01 c8 01 | 29 02"},
    {"numeric 64-bit signed display: 38 bytes",
     [] {
       return encoded(ifr::Numeric(8, 3, 4, Width::U64).display(EFI_IFR_DISPLAY_INT_DEC).range(UINT64(-5), 5, 1));
     },
     "07 a6 | 03 00 04 00 08 00 00 00 ff ff 00 | 03 | fb ff ff ff ff ff ff ff 05 00 00 00 00 00 00 00 "
     "01 00 00 00 00 00 00 00 | 29 02"},
    {"numeric with defaults sized to the question",
     [] { return encoded(ifr::Numeric(9, 1, 2, Width::U16).range(0, 500).defaultValue(300).defaultValue(400, 1)); },
     "07 94 | 01 00 02 00 09 00 00 00 ff ff 00 | 11 | 00 00 f4 01 00 00 | 5b 07 00 00 01 2c 01 | "
     "5b 07 01 00 01 90 01 | 29 02"},
    {"one-of 8-bit with default and manufacturing options",
     [] {
       return encoded(ifr::OneOf(0x1001, 0x20, 0x21)
                          .store(2, 3)
                          .option(0x30, 0, EFI_IFR_OPTION_DEFAULT)
                          .option(0x31, 1, EFI_IFR_OPTION_DEFAULT_MFG)
                          .option(0x32, 0xff));
     },
     "05 91 | 20 00 21 00 01 10 02 00 03 00 00 | 10 | 00 00 00 | 09 07 30 00 10 00 00 | 09 07 31 00 20 00 01 | "
     "09 07 32 00 00 00 ff | 29 02"},
    {"one-of 64-bit: options of 14 bytes, defaults of 13",
     [] { return encoded(ifr::OneOf(2, 1, 1, Width::U64).option(5, 1ull << 40).defaultValue(7)); },
     "05 a6 | 01 00 01 00 02 00 00 00 ff ff 00 | 13 | " + std::string(48, '0') +
         " | 09 0e 05 00 00 03 00 00 00 00 00 01 00 00 | 5b 0d 00 00 03 07 00 00 00 00 00 00 00 | 29 02"},
    {"one-of with a suppressed option",
     [] {
       return encoded(ifr::OneOf(3, 1, 2).option(6, 0).suppressIf(ifr::True(), [](ifr::OneOf& q) { q.option(7, 1); }));
     },
     "05 91 | 01 00 02 00 03 00 00 00 ff ff 00 | 10 | 00 00 00 | 09 07 06 00 00 00 00 | 0a 82 | 46 02 | "
     "09 07 07 00 00 00 01 | 29 02 | 29 02"},
    {"password: 17 bytes, sizes 16-bit",
     [] { return encoded(ifr::Password(0x20, 1, 2, 6, 0x120).store(1, 0x40).callback()); },
     "08 91 | 01 00 02 00 20 00 01 00 40 00 04 | 06 00 20 01 | 29 02"},
    {"string: 16 bytes, multi-line, string default",
     [] { return encoded(ifr::String(0x21, 1, 2, 0, 40).store(1, 0x50).multiLine().defaultValue(0x77)); },
     "1c 90 | 01 00 02 00 21 00 01 00 50 00 00 | 00 28 01 | 5b 07 00 00 07 77 00 | 29 02"},
    {"ordered list: 15 bytes, options and buffer default",
     [] {
       return encoded(ifr::OrderedList(0x22, 1, 2, Width::U8, 3)
                          .store(1, 0x60)
                          .option(10, 1)
                          .option(11, 2)
                          .option(12, 3)
                          .defaultValue({3, 1, 2}));
     },
     "23 8f | 01 00 02 00 22 00 01 00 60 00 00 | 03 00 | 09 07 0a 00 00 00 01 | 09 07 0b 00 00 00 02 | "
     "09 07 0c 00 00 00 03 | 5b 08 00 00 0b 03 01 02 | 29 02"},
    {"action: 15 bytes with its configuration string",
     [] { return encoded(ifr::Action(0x30, 1, 2, 0x99).callback()); },
     "0c 8f | 01 00 02 00 30 00 00 00 ff ff 04 | 99 00 | 29 02"},
    {"REF5: 13 bytes, no scope", [] { return encoded(ifr::Ref(0x40, 1, 2)); },
     "0f 0d | 01 00 02 00 40 00 00 00 ff ff 00"},
    {"REF to a form: 15 bytes", [] { return encoded(ifr::Ref(0x40, 1, 2).toForm(0x1002)); },
     "0f 0f | 01 00 02 00 40 00 00 00 ff ff 00 | 02 10"},
    {"REF2 to a question: 17 bytes", [] { return encoded(ifr::Ref(0x40, 1, 2).toQuestion(3, 0x41)); },
     "0f 11 | 01 00 02 00 40 00 00 00 ff ff 00 | 03 00 41 00"},
    {"REF3 to another form set: 33 bytes", [] { return encoded(ifr::Ref(0x40, 1, 2).toFormSet(kGuid, 3, 0x41)); },
     "0f 21 | 01 00 02 00 40 00 00 00 ff ff 00 | 03 00 41 00 | " + std::string(kGuidBytes)},
    {"REF4 through a device path: 35 bytes", [] { return encoded(ifr::Ref(0x40, 1, 2).toDevice(9, kGuid, 3, 0x41)); },
     "0f 23 | 01 00 02 00 40 00 00 00 ff ff 00 | 03 00 41 00 | " + std::string(kGuidBytes) + " | 09 00"},
    {"locked and image inside a question", [] { return encoded(ifr::Checkbox(5, 1, 2).locked().image(3)); },
     "06 8e | 01 00 02 00 05 00 00 00 ff ff 00 | 00 | 0b 02 | 04 04 03 00 | 29 02"},
    {"default by expression: DEFAULT(scope) VALUE(scope) expr END END",
     [] { return encoded(ifr::Numeric(9, 1, 2).range(0, 9).defaultExpression(ifr::number(4), 1)); },
     "07 91 | 01 00 02 00 09 00 00 00 ff ff 00 | 10 | 00 09 00 | 5b 85 01 00 08 | 5a 82 | "
     "45 0a 04 00 00 00 00 00 00 00 | 29 02 | 29 02 | 29 02"},
    {"gray-out and disable conditions inside a question",
     [] {
       return encoded(ifr::Checkbox(5, 1, 2)
                          .grayOutIf(ifr::False(), [](ifr::Checkbox& q) { q.locked(); })
                          .disableIf(ifr::True(), {}));
     },
     "06 8e | 01 00 02 00 05 00 00 00 ff ff 00 | 00 | 19 82 47 02 0b 02 29 02 | 1e 82 46 02 29 02 | 29 02"},
    {"horizontal subtitle holding a text",
     [] {
       return inForm([](ifr::FormBuilder& f) {
         f.subtitle(0x33, EFI_IFR_FLAGS_HORIZONTAL, [](ifr::FormBuilder& g) { g.text(1, 2); });
       });
     },
     "02 87 33 00 00 00 01 | 03 08 01 00 02 00 00 00 | 29 02"},
    {"text: 8 bytes, no scope", [] { return inForm([](ifr::FormBuilder& f) { f.text(0x10, 0x11, 0x12); }); },
     "03 08 10 00 11 00 12 00"},
    {"label: GUID opcode with the Tiano GUID", [] { return inForm([](ifr::FormBuilder& f) { f.label(0x1000); }); },
     "5f 15 35 17 0b 0f a0 87 93 41 b2 66 53 8c 38 af 48 ce | 00 | 00 10"},
    {"suppress-if around statements",
     [] {
       return inForm([](ifr::FormBuilder& f) {
         f.suppressIf(ifr::ideqval(0x1001, 1), [](ifr::FormBuilder& g) { g.text(1, 2).text(3, 4); });
       });
     },
     "0a 82 | 12 06 01 10 01 00 | 03 08 01 00 02 00 00 00 | 03 08 03 00 04 00 00 00 | 29 02"},
    {"gray-out-if and read-only-if write the same opcode",
     [] {
       return inForm([](ifr::FormBuilder& f) {
         f.grayOutIf(ifr::True(), [](ifr::FormBuilder& g) { g.text(1, 2); });
         f.readOnlyIf(ifr::True(), [](ifr::FormBuilder& g) { g.text(1, 2); });
       });
     },
     "19 82 46 02 03 08 01 00 02 00 00 00 29 02 | 19 82 46 02 03 08 01 00 02 00 00 00 29 02"},
};

void PrintTo(const EncodingCase& c, std::ostream* os) { *os << c.name; }

// Test names from the case names: letters and digits kept, the rest '_'.
struct CaseName {
  template <typename P>
  std::string operator()(const ::testing::TestParamInfo<P>& info) const {
    std::string n;
    for (const char* p = info.param.name; *p; ++p) n += std::isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
    return n + "_" + std::to_string(info.index);
  }
};
const CaseName caseName;

class EncodingTest : public ::testing::TestWithParam<EncodingCase> {};

TEST_P(EncodingTest, MatchesHandEncodedBytes) {
  const EncodingCase& c = GetParam();
  Bytes actual = c.build();
  Bytes expected = hexBytes(c.expected);
  EXPECT_EQ(hexText(actual), hexText(expected));
  // Whatever the builder writes must also split cleanly into opcodes.
  std::vector<ifr::OpInfo> ops;
  std::string error;
  EXPECT_TRUE(ifr::walkIfr(actual.data(), actual.size(), ops, &error)) << error;
}

INSTANTIATE_TEST_SUITE_P(Opcodes, EncodingTest, ::testing::ValuesIn(kEncodings),
                         caseName);

const EncodingCase kExpressions[] = {
    {"ideqval", [] { return ifr::ideqval(0x1234, 0x0102).code(); }, "12 06 34 12 02 01"},
    {"ideqvallist", [] { return ifr::ideqvallist(0x1234, {1, 0x203}).code(); }, "14 0a 34 12 02 00 01 00 03 02"},
    {"and of or: postfix order",
     [] { return ifr::And(ifr::Or(ifr::ideqval(1, 1), ifr::ideqval(2, 2)), ifr::Not(ifr::True())).code(); },
     "12 06 01 00 01 00 | 12 06 02 00 02 00 | 16 02 | 46 02 17 02 | 15 02"},
    {"question ref equal to a constant",
     [] { return ifr::equal(ifr::questionRef(0x10), ifr::uint16(0x1234)).code(); }, "40 04 10 00 | 43 04 34 12 | 2f 02"},
    {"integer constants", [] {
       Bytes b = ifr::uint8(0xab).code();
       for (const ifr::Expr& e : {ifr::uint32(0x01020304), ifr::uint64(0x0102030405060708ull), ifr::number(1)})
         b.insert(b.end(), e.code().begin(), e.code().end());
       return b;
     },
     "42 03 ab | 44 06 04 03 02 01 | 45 0a 08 07 06 05 04 03 02 01 | 45 0a 01 00 00 00 00 00 00 00"},
    {"not equal", [] { return ifr::notEqual(ifr::questionRef(1), ifr::uint8(0)).code(); }, "40 04 01 00 42 03 00 30 02"},
};

INSTANTIATE_TEST_SUITE_P(Expressions, EncodingTest, ::testing::ValuesIn(kExpressions),
                         caseName);

// ---------------------------------------------------------------- form sets

struct FormSetCase {
  const char* name;
  std::function<ifr::FormSetBuilder()> build;
  std::string expected;  // the IFR, from FORM_SET to its END
};

const FormSetCase kFormSets[] = {
    {"default class GUID and the two default stores",
     [] { return ifr::FormSetBuilder(kGuid, 2, 3); },
     "0e a7 " + std::string(kGuidBytes) + " 02 00 03 00 01 " + kSetupClassBytes +
         " | 5c 06 00 00 00 00 | 5c 06 00 00 01 00 | 29 02"},
    {"two class GUIDs, named stores, a third store",
     [] {
       ifr::FormSetBuilder fs(kGuid, 2, 3, {kGuid, EFI_GUID EFI_HII_PLATFORM_SETUP_FORMSET_GUID});
       fs.defaultStore(EFI_HII_DEFAULT_CLASS_MANUFACTURING, 0x21).defaultStore(0, 0x20).defaultStore(0x4000, 0x22);
       return fs;
     },
     "0e b7 " + std::string(kGuidBytes) + " 02 00 03 00 02 " + kGuidBytes + " " + kSetupClassBytes +
         " | 5c 06 20 00 00 00 | 5c 06 21 00 01 00 | 5c 06 22 00 00 40 | 29 02"},
    {"variable stores in declaration order before and after a form",
     [] {
       ifr::FormSetBuilder fs(kGuid, 2, 3);
       fs.varStore(1, kGuid, "Setup", 0x20);
       fs.form(1, 4);
       fs.efiVarStore(2, kGuid, "Ab", 8, 7).nameValueVarStore(3, kGuid);
       return fs;
     },
     "0e a7 " + std::string(kGuidBytes) + " 02 00 03 00 01 " + kSetupClassBytes +
         " | 5c 06 00 00 00 00 | 5c 06 00 00 01 00"
         " | 24 1c " + kGuidBytes + " 01 00 20 00 53 65 74 75 70 00"
         " | 01 86 01 00 04 00 29 02"
         " | 26 1d 02 00 " + kGuidBytes + " 07 00 00 00 08 00 41 62 00"
         " | 25 14 03 00 " + kGuidBytes +
         " | 29 02"},
};

void PrintTo(const FormSetCase& c, std::ostream* os) { *os << c.name; }

class FormSetTest : public ::testing::TestWithParam<FormSetCase> {};

TEST_P(FormSetTest, MatchesHandEncodedBytes) {
  const FormSetCase& c = GetParam();
  ifr::FormSetBuilder fs = c.build();
  EXPECT_EQ(hexText(fs.ifr()), hexText(hexBytes(c.expected)));
  // The package is the IFR behind a header with its 24-bit length.
  Bytes package = fs.package();
  EXPECT_EQ(hiiPackageLength(package.data()), package.size());
  EXPECT_TRUE(std::equal(package.begin() + 4, package.end(), fs.ifr().begin()));
}

INSTANTIATE_TEST_SUITE_P(FormSets, FormSetTest, ::testing::ValuesIn(kFormSets),
caseName);

// ---------------------------------------------------------------- misuse

struct MisuseCase {
  const char* name;
  std::function<void()> act;
};

const MisuseCase kMisuse[] = {
    {"question id 0", [] { ifr::Checkbox(0, 1, 2); }},
    {"variable store id 0", [] { ifr::FormSetBuilder(kGuid, 1, 1).varStore(0, kGuid, "A", 1); }},
    {"option too wide for an 8-bit one-of", [] { ifr::OneOf(1, 1, 1).option(1, 256); }},
    {"minimum below the signed range of 8 bits",
     [] {
       Bytes out;
       ifr::Numeric(1, 1, 1).range(UINT64(-129), 0).encode(out);
     }},
    {"value list longer than an opcode can hold", [] { ifr::ideqvallist(1, std::vector<UINT16>(61, 0)); }},
    {"variable name longer than an opcode can hold",
     [] { ifr::FormSetBuilder(kGuid, 1, 1).varStore(1, kGuid, std::string(105, 'x'), 1); }},
    {"empty condition", [] { ifr::FormBuilder(1, 1).suppressIf(ifr::Expr(), {}); }},
};

void PrintTo(const MisuseCase& c, std::ostream* os) { *os << c.name; }

class MisuseTest : public ::testing::TestWithParam<MisuseCase> {};

TEST_P(MisuseTest, Throws) { EXPECT_THROW(GetParam().act(), std::invalid_argument) << GetParam().name; }

INSTANTIATE_TEST_SUITE_P(Builder, MisuseTest, ::testing::ValuesIn(kMisuse),
caseName);

TEST(IfrBuilderLimits, LongestValueListAndNameStillFit) {
  // 6 + 2 * 60 = 126 bytes and 22 + 104 + 1 = 127 bytes are the largest
  // lengths the 7-bit field holds.
  EXPECT_EQ(ifr::ideqvallist(1, std::vector<UINT16>(60, 0)).code().size(), 126u);
  Bytes ifrBytes = ifr::FormSetBuilder(kGuid, 1, 1).varStore(1, kGuid, std::string(104, 'x'), 1).ifr();
  std::vector<ifr::OpInfo> ops;
  ASSERT_TRUE(ifr::walkIfr(ifrBytes.data(), ifrBytes.size(), ops));
  ASSERT_EQ(ops.size(), 5u);
  EXPECT_EQ(ops[3].opcode, EFI_IFR_VARSTORE_OP);
  EXPECT_EQ(ops[3].length, 127);
}

}  // namespace
