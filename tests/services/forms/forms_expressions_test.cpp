// Expression opcodes evaluated by ProcessForms: each expression is the
// default value of a question of its own, and its record carries the
// result computed with the current values.
#include <gtest/gtest.h>

#include "forms_support.h"

namespace tvl::test::forms {
namespace {

using ifr::Expr;
using FormsExpressionsTest = FormsTest;

constexpr UINT8 kBool = EFI_IFR_TYPE_BOOLEAN, kU8 = EFI_IFR_TYPE_NUM_SIZE_8, kU64 = EFI_IFR_TYPE_NUM_SIZE_64,
                kUndefined = EFI_IFR_TYPE_UNDEFINED;

// Current values: numeric 1 (8-bit) = 9, numeric 2 (16-bit) = 0x1234,
// checkbox 3 = on.
TEST_F(FormsExpressionsTest, OperatorsComputeFromCurrentValues) {
  const Expr q1 = ifr::questionRef(1), q2 = ifr::questionRef(2), q3 = ifr::questionRef(3);
  const struct { const char* name; Expr expr; UINT8 type; UINT64 result; } rows[] = {  // result: unless undefined
      {"zero", ifr::zero(), kU8, 0},
      {"one", ifr::one(), kU8, 1},
      {"ones", ifr::ones(), kU64, ~0ull},
      {"undefined", ifr::undefined(), kUndefined, 0},
      {"9 > 9", ifr::greaterThan(q1, ifr::uint8(9)), kBool, 0},
      {"9 > 8", ifr::greaterThan(q1, ifr::uint8(8)), kBool, 1},
      {"8 > 9", ifr::greaterThan(ifr::uint8(8), q1), kBool, 0},
      {"9 >= 9", ifr::greaterEqual(q1, ifr::uint8(9)), kBool, 1},
      {"9 >= 10", ifr::greaterEqual(q1, ifr::uint8(10)), kBool, 0},
      {"9 < 9", ifr::lessThan(q1, ifr::uint8(9)), kBool, 0},
      {"9 < 10", ifr::lessThan(q1, ifr::uint8(10)), kBool, 1},
      {"9 <= 9", ifr::lessEqual(q1, ifr::uint8(9)), kBool, 1},
      {"9 <= 8", ifr::lessEqual(q1, ifr::uint8(8)), kBool, 0},
      {"0x1234 >= 9, other widths", ifr::greaterEqual(q2, q1), kBool, 1},
      {"compared with undefined", ifr::lessEqual(q1, ifr::undefined()), kUndefined, 0},
      {"add, carrying", ifr::add(q2, ifr::uint8(0xCC)), kU64, 0x1300},
      {"subtract", ifr::subtract(q2, q1), kU64, 0x122B},
      {"subtract wraps", ifr::subtract(ifr::zero(), ifr::one()), kU64, ~0ull},
      {"multiply", ifr::multiply(q1, ifr::uint8(7)), kU64, 63},
      {"divide", ifr::divide(q2, ifr::uint8(0x10)), kU64, 0x123},
      {"divide by zero", ifr::divide(q1, ifr::zero()), kUndefined, 0},
      {"modulo", ifr::modulo(q2, ifr::uint16(0x100)), kU64, 0x34},
      {"modulo by zero", ifr::modulo(q1, ifr::zero()), kUndefined, 0},
      {"shift left", ifr::shiftLeft(q1, ifr::uint8(4)), kU64, 0x90},
      {"shift right", ifr::shiftRight(q2, ifr::uint8(4)), kU64, 0x123},
      {"shift by 64", ifr::shiftLeft(ifr::one(), ifr::uint8(64)), kU64, 0},
      {"bitwise and", ifr::bitwiseAnd(q2, ifr::uint16(0xFF0)), kU64, 0x230},
      {"bitwise or", ifr::bitwiseOr(q1, ifr::uint16(0x1231)), kU64, 0x1239},
      {"bitwise not", ifr::bitwiseNot(ifr::one()), kU64, ~1ull},
      {"a boolean is no number", ifr::add(ifr::True(), ifr::one()), kUndefined, 0},
      {"to boolean, 9", ifr::toBoolean(q1), kBool, 1},
      {"to boolean, 0", ifr::toBoolean(ifr::zero()), kBool, 0},
      {"to uint of a checkbox", ifr::toUint(q3), kU64, 1},
      {"to uint of undefined", ifr::toUint(ifr::undefined()), kUndefined, 0},
      {"not of a number", ifr::Not(q1), kUndefined, 0},
      {"dup, multiply", ifr::postfix(EFI_IFR_MULTIPLY_OP, {ifr::dup(q1)}), kU64, 81},
      {"nested", ifr::equal(ifr::subtract(q2, ifr::multiply(q1, ifr::uint16(0x205))), ifr::uint8(7)), kBool, 1},
  };
  OneForm f(8);
  const UINT16 s = f.s;
  f.form.numeric(ifr::Numeric(1, s, s).store(1, 0))
      .numeric(ifr::Numeric(2, s, s, ifr::Width::U16).store(1, 1))
      .checkbox(ifr::Checkbox(3, s, s).store(1, 3));
  for (UINT16 i = 0; i < std::size(rows); ++i)
    f.form.numeric(ifr::Numeric(UINT16(0x40 + i), s, s).store(1, 4).defaultExpression(rows[i].expr));
  auto parse = processForm(f, {9, 0x34, 0x12, 1, 0, 0, 0, 0});
  ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;

  for (UINT16 i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(rows[i].name);
    const HII_STATEMENT_RECORD* q = findQuestion(parse->set(), UINT16(0x40 + i));
    ASSERT_TRUE(q && q->DefaultCount == 1 && q->Defaults[0]->ValueExpression);
    const HII_VALUE& result = q->Defaults[0]->ValueExpression->Result;
    EXPECT_EQ(result.Type, rows[i].type);
    if (rows[i].type != kUndefined) {
      EXPECT_EQ(number(result), rows[i].result);
    }
  }
}

}  // namespace
}  // namespace tvl::test::forms
