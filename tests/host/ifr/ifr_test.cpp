// Byte-exact encodings of the IFR builder against the opcode layouts of the
// UEFI specification, written out by hand field by field (expressions are
// checked by what the forms processor computes from them: tests/services/forms);
// the scope walk's refusals of malformed IFR.
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
  std::string digits;
  for (char ch : text)
    if (std::isxdigit(static_cast<unsigned char>(ch))) digits += ch;
  EXPECT_EQ(digits.size() % 2, 0u) << text;
  Bytes out;
  for (size_t i = 0; i + 1 < digits.size(); i += 2) out.push_back(UINT8(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return out;
}

template <typename Q>
Bytes encoded(const Q& q) { Bytes out; q.encode(out); return out; }

// 12345678-9ABC-DEF0-0102-030405060708 in memory order.
const EFI_GUID kGuid = {0x12345678, 0x9abc, 0xdef0, {1, 2, 3, 4, 5, 6, 7, 8}};
const std::string kGuidBytes = "78 56 34 12 bc 9a f0 de 01 02 03 04 05 06 07 08";
const std::string kSetupClassBytes = "71 99 03 93 45 85 04 4b b4 5e 32 eb 83 26 04 0e";
const std::string kText12 = "03 08 01 00 02 00 00 00 ";  // text(1, 2)

// Question header in order: Prompt, Help, QuestionId, VarStoreId, VarStoreInfo, Flags.
TEST(IfrBuilder, OpcodesMatchHandEncodedBytes) {
  const struct { const char* name; std::function<Bytes()> build; std::string expected; } cases[] = {
      {"checkbox", [] { return encoded(ifr::Checkbox(0x1234, 0x11, 0x22).store(1, 0x10).resetRequired().defaultOn().mfgDefaultOn()); },
       "06 8e | 11 00 22 00 34 12 01 00 10 00 10 | 03 | 29 02"},
      {"numeric 64-bit signed",
       [] { return encoded(ifr::Numeric(8, 3, 4, Width::U64).display(EFI_IFR_DISPLAY_INT_DEC).range(UINT64(-5), 5, 1)); },
       "07 a6 | 03 00 04 00 08 00 00 00 ff ff 00 | 03 | fb ff ff ff ff ff ff ff 05 00 00 00 00 00 00 00 "
       "01 00 00 00 00 00 00 00 | 29 02"},
      {"numeric defaults sized to the question",
       [] { return encoded(ifr::Numeric(9, 1, 2, Width::U16).range(0, 500).defaultValue(300).defaultValue(400, 1)); },
       "07 94 | 01 00 02 00 09 00 00 00 ff ff 00 | 11 | 00 00 f4 01 00 00 | 5b 07 00 00 01 2c 01 | "
       "5b 07 01 00 01 90 01 | 29 02"},
      {"one-of 8-bit", [] {
         return encoded(ifr::OneOf(0x1001, 0x20, 0x21).store(2, 3).option(0x30, 0, EFI_IFR_OPTION_DEFAULT)
                            .option(0x31, 1, EFI_IFR_OPTION_DEFAULT_MFG).option(0x32, 0xff));
       },
       "05 91 | 20 00 21 00 01 10 02 00 03 00 00 | 10 | 00 00 00 | 09 07 30 00 10 00 00 | 09 07 31 00 20 00 01 | "
       "09 07 32 00 00 00 ff | 29 02"},
      {"one-of 64-bit", [] { return encoded(ifr::OneOf(2, 1, 1, Width::U64).option(5, 1ull << 40).defaultValue(7)); },
       "05 a6 | 01 00 01 00 02 00 00 00 ff ff 00 | 13 | " + std::string(48, '0') +
           " | 09 0e 05 00 00 03 00 00 00 00 00 01 00 00 | 5b 0d 00 00 03 07 00 00 00 00 00 00 00 | 29 02"},
      {"password", [] { return encoded(ifr::Password(0x20, 1, 2, 6, 0x120).store(1, 0x40).callback()); },
       "08 91 | 01 00 02 00 20 00 01 00 40 00 04 | 06 00 20 01 | 29 02"},
      {"string", [] { return encoded(ifr::String(0x21, 1, 2, 0, 40).store(1, 0x50).multiLine().defaultValue(0x77)); },
       "1c 90 | 01 00 02 00 21 00 01 00 50 00 00 | 00 28 01 | 5b 07 00 00 07 77 00 | 29 02"},
      {"ordered list", [] {
         return encoded(ifr::OrderedList(0x22, 1, 2, Width::U8, 3).store(1, 0x60).option(10, 1).option(11, 2)
                            .option(12, 3).defaultValue({3, 1, 2}));
       },
       "23 8f | 01 00 02 00 22 00 01 00 60 00 00 | 03 00 | 09 07 0a 00 00 00 01 | 09 07 0b 00 00 00 02 | "
       "09 07 0c 00 00 00 03 | 5b 08 00 00 0b 03 01 02 | 29 02"},
      {"action", [] { return encoded(ifr::Action(0x30, 1, 2, 0x99).callback()); },
       "0c 8f | 01 00 02 00 30 00 00 00 ff ff 04 | 99 00 | 29 02"},
      {"REF5", [] { return encoded(ifr::Ref(0x40, 1, 2)); }, "0f 0d | 01 00 02 00 40 00 00 00 ff ff 00"},
      {"REF4", [] { return encoded(ifr::Ref(0x40, 1, 2).toDevice(9, kGuid, 3, 0x41)); },
       "0f 23 | 01 00 02 00 40 00 00 00 ff ff 00 | 03 00 41 00 | " + kGuidBytes + " | 09 00"},
      {"image and conditions inside a question", [] {
         return encoded(ifr::Checkbox(5, 1, 2).image(3).grayOutIf(ifr::False(), [](ifr::Checkbox& q) { q.locked(); })
                            .disableIf(ifr::True(), {}));
       },
       "06 8e | 01 00 02 00 05 00 00 00 ff ff 00 | 00 | 04 04 03 00 | 19 82 47 02 0b 02 29 02 | 1e 82 46 02 29 02 | "
       "29 02"},
      {"default by expression",
       [] { return encoded(ifr::Numeric(9, 1, 2).range(0, 9).defaultExpression(ifr::number(4), 1)); },
       "07 91 | 01 00 02 00 09 00 00 00 ff ff 00 | 10 | 00 09 00 | 5b 85 01 00 08 | 5a 82 | "
       "45 0a 04 00 00 00 00 00 00 00 | 29 02 | 29 02 | 29 02"},
      {"a form with statements and condition scopes", [] {
         auto text = [](ifr::FormBuilder& g) { g.text(1, 2); };
         ifr::FormBuilder f(0x1234, 7);
         f.subtitle(0x33, EFI_IFR_FLAGS_HORIZONTAL, text).text(0x10, 0x11, 0x12).label(0x1000);
         f.suppressIf(ifr::ideqval(0x1001, 1), text).grayOutIf(ifr::True(), text).readOnlyIf(ifr::True(), text);
         return f.encode();
       },
       "01 86 34 12 07 00 | 02 87 33 00 00 00 01 | " + kText12 + "29 02 | 03 08 10 00 11 00 12 00 | "
       "5f 15 35 17 0b 0f a0 87 93 41 b2 66 53 8c 38 af 48 ce 00 00 10 | 0a 82 12 06 01 10 01 00 " + kText12 +
           "29 02 | 19 82 46 02 " + kText12 + "29 02 | 19 82 46 02 " + kText12 + "29 02 | 29 02"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.build(), hexBytes(c.expected)) << c.name;
  }
}

TEST(IfrBuilder, FormSetsMatchHandEncodedBytes) {
  const std::string head = "0e a7 " + kGuidBytes + " 02 00 03 00 01 " + kSetupClassBytes;
  const struct { std::function<ifr::FormSetBuilder()> build; std::string expected; } cases[] = {  // FORM_SET to END
      {[] {
         ifr::FormSetBuilder fs(kGuid, 2, 3, {kGuid, EFI_GUID EFI_HII_PLATFORM_SETUP_FORMSET_GUID});
         fs.defaultStore(EFI_HII_DEFAULT_CLASS_MANUFACTURING, 0x21).defaultStore(0, 0x20).defaultStore(0x4000, 0x22);
         return fs;
       },
       "0e b7 " + kGuidBytes + " 02 00 03 00 02 " + kGuidBytes + " " + kSetupClassBytes +
           " | 5c 06 20 00 00 00 | 5c 06 21 00 01 00 | 5c 06 22 00 00 40 | 29 02"},
      {[] {  // variable stores in declaration order around a form
         ifr::FormSetBuilder fs(kGuid, 2, 3);
         fs.varStore(1, kGuid, "Setup", 0x20);
         fs.form(1, 4);
         fs.efiVarStore(2, kGuid, "Ab", 8, 7).nameValueVarStore(3, kGuid);
         return fs;
       },
       head + " | 5c 06 00 00 00 00 | 5c 06 00 00 01 00 | 24 1c " + kGuidBytes + " 01 00 20 00 53 65 74 75 70 00" +
           " | 01 86 01 00 04 00 29 02 | 26 1d 02 00 " + kGuidBytes + " 07 00 00 00 08 00 41 62 00 | 25 14 03 00 " +
           kGuidBytes + " | 29 02"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.build().ifr(), hexBytes(c.expected));
}

TEST(IfrBuilder, TheLargestOpcodesStillFitTheirLength) {
  // 6 + 2 * 60 = 126 and 22 + 104 + 1 = 127 bytes: the largest the 7-bit length holds; one more is refused.
  EXPECT_THROW(ifr::ideqvallist(1, std::vector<UINT16>(61, 0)), std::invalid_argument);
  EXPECT_THROW(ifr::FormSetBuilder(kGuid, 1, 1).varStore(1, kGuid, std::string(105, 'x'), 1), std::invalid_argument);
  EXPECT_EQ(ifr::ideqvallist(1, std::vector<UINT16>(60, 0)).code().size(), 126u);
  Bytes ifrBytes = ifr::FormSetBuilder(kGuid, 1, 1).varStore(1, kGuid, std::string(104, 'x'), 1).ifr();
  std::vector<ifr::OpInfo> ops;
  ASSERT_TRUE(ifr::walkIfr(ifrBytes.data(), ifrBytes.size(), ops));
  ASSERT_EQ(ops.size(), 5u);
  EXPECT_EQ(ops[3].opcode, EFI_IFR_VARSTORE_OP);
  EXPECT_EQ(ops[3].length, 127);
}

TEST(IfrWalk, MalformedIfrStopsWithAnError) {
  const struct { std::string hex; const char* error; } cases[] = {
      {"46 02 46", "truncated opcode header at offset 0002"},
      {"46 00", "opcode length 0 at offset 0000"},
      {"46 02 06 0e 00 00", "CHECKBOX runs past the end at offset 0002"},
      {"46 02 29 02", "END without an open scope at offset 0002"},
      {"0a 82 46 02", "1 scope(s) left open at offset 0004"},
  };
  for (const auto& c : cases) {
    const Bytes bytes = hexBytes(c.hex);
    std::vector<ifr::OpInfo> ops;
    std::string error;
    EXPECT_FALSE(ifr::walkIfr(bytes.data(), bytes.size(), ops, &error)) << c.hex;
    EXPECT_NE(error.find(c.error), std::string::npos) << error;
  }
}

}  // namespace
