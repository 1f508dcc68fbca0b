// Expressions evaluated by ProcessForms with the current values: operators
// as question defaults; suppressif, grayoutif and disableif around
// statements, nested, inside a question's scope and around options.
#include <gtest/gtest.h>

#include <functional>
#include <tuple>
#include <vector>

#include "forms_support.h"

namespace tvl::test::forms {
namespace {

using ifr::Expr;
using ifr::FormBuilder;
using ifr::Numeric;
using FormsExpressionsTest = FormsTest;
using FormsConditionsTest = FormsTest;

constexpr UINT8 kBool = EFI_IFR_TYPE_BOOLEAN, kU8 = EFI_IFR_TYPE_NUM_SIZE_8, kU64 = EFI_IFR_TYPE_NUM_SIZE_64,
                kUndefined = EFI_IFR_TYPE_UNDEFINED;

// Current values: numeric 1 (8-bit) = 9, numeric 2 (16-bit) = 0x1234,
// checkbox 3 = on.
TEST_F(FormsExpressionsTest, OperatorsComputeFromCurrentValues) {
  const Expr q1 = ifr::questionRef(1), q2 = ifr::questionRef(2), q3 = ifr::questionRef(3);
  const struct { const char* name; Expr expr; UINT8 type; UINT64 result; } rows[] = {  // result: unless undefined
      {"zero", ifr::zero(), kU8, 0}, {"one", ifr::one(), kU8, 1}, {"ones", ifr::ones(), kU64, ~0ull},
      {"undefined", ifr::undefined(), kUndefined, 0}, {"9 > 9", ifr::greaterThan(q1, ifr::uint8(9)), kBool, 0},
      {"9 > 8", ifr::greaterThan(q1, ifr::uint8(8)), kBool, 1},
      {"8 > 9", ifr::greaterThan(ifr::uint8(8), q1), kBool, 0},
      {"9 >= 9", ifr::greaterEqual(q1, ifr::uint8(9)), kBool, 1},
      {"9 >= 10", ifr::greaterEqual(q1, ifr::uint8(10)), kBool, 0},
      {"9 < 9", ifr::lessThan(q1, ifr::uint8(9)), kBool, 0}, {"9 < 10", ifr::lessThan(q1, ifr::uint8(10)), kBool, 1},
      {"9 <= 9", ifr::lessEqual(q1, ifr::uint8(9)), kBool, 1}, {"9 <= 8", ifr::lessEqual(q1, ifr::uint8(8)), kBool, 0},
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
      {"to boolean, 9", ifr::toBoolean(q1), kBool, 1}, {"to boolean, 0", ifr::toBoolean(ifr::zero()), kBool, 0},
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
    EXPECT_EQ(std::make_pair(result.Type, result.Type == kUndefined ? 0 : number(result)),
              std::make_pair(rows[i].type, rows[i].result));
  }
}

// Writes a target question into the form, with conditions around it.
using Place = std::function<void(FormBuilder&, Numeric)>;
const Place put = [](FormBuilder& f, Numeric q) { f.numeric(q); };

// `inner` inside a condition of `opcode` (or inside a subtitle's scope).
Place in(UINT8 opcode, const Expr& e, const Place& inner = put) {
  return [=](FormBuilder& f, Numeric q) {
    auto body = [&](FormBuilder& g) { inner(g, q); };
    if (opcode == EFI_IFR_SUPPRESS_IF_OP) f.suppressIf(e, body);
    if (opcode == EFI_IFR_GRAY_OUT_IF_OP) f.grayOutIf(e, body);
    if (opcode == EFI_IFR_DISABLE_IF_OP) f.disableIf(e, body);
    if (opcode == EFI_IFR_SUBTITLE_OP) f.subtitle(1, 0, body);
  };
}
// A condition in the question's own scope.
Place inScope(UINT8 opcode, const Expr& e) {
  return [=](FormBuilder& f, Numeric q) {
    auto none = [](Numeric&) {};
    f.numeric(opcode == EFI_IFR_SUPPRESS_IF_OP ? q.suppressIf(e, none) : q.grayOutIf(e, none));
  };
}

constexpr UINT8 kSuppress = EFI_IFR_SUPPRESS_IF_OP, kGray = EFI_IFR_GRAY_OUT_IF_OP, kDisable = EFI_IFR_DISABLE_IF_OP;

// Current values: checkbox 1 = 1, one-of 2 = 3, numeric 3 = 9, numeric 4 =
// 3, and numeric 0x60, declared after every condition, = 5.
TEST_F(FormsConditionsTest, ConditionsSetTheMarksOfStatementsAndOptions) {
  const struct {  // readOnlyCondition -1: none; otherwise its boolean result
    const char* name; Place place; UINT8 suppressed, readOnly, disabled; int readOnlyCondition;
  } rows[] = {
      {"and, not", in(kSuppress, ifr::And(ifr::ideqval(1, 1), ifr::Not(ifr::ideqval(2, 3)))), 0, 0, 0, -1},
      {"or", in(kSuppress, ifr::Or(ifr::ideqval(1, 0), ifr::ideqval(3, 9))), 1, 0, 0, -1},
      {"eqidid", in(kSuppress, ifr::eqidid(2, 4)), 1, 0, 0, -1},
      {"value list", in(kSuppress, ifr::ideqvallist(3, {1, 9})), 1, 0, 0, -1},
      {"value list without the value", in(kSuppress, ifr::ideqvallist(3, {1, 2})), 0, 0, 0, -1},
      {"question ref equal", in(kSuppress, ifr::equal(ifr::questionRef(3), ifr::uint8(9))), 1, 0, 0, -1},
      {"not equal, 64-bit", in(kSuppress, ifr::notEqual(ifr::questionRef(3), ifr::number(9))), 0, 0, 0, -1},
      {"question declared later", in(kSuppress, ifr::ideqval(0x60, 5)), 1, 0, 0, -1},
      {"unknown question", in(kSuppress, ifr::ideqval(0x99, 0)), 0, 0, 0, -1},
      {"nested kinds",
       in(kDisable, ifr::True(), in(kSuppress, ifr::False(), in(kGray, ifr::ideqval(2, 3)))), 0, 1, 1, 1},
      {"inside a subtitle", in(kSuppress, ifr::True(), in(EFI_IFR_SUBTITLE_OP, ifr::True())), 1, 0, 0, -1},
      {"suppressif in the question's scope", inScope(kSuppress, ifr::ideqval(1, 1)), 1, 0, 0, -1},
      {"grayoutif in the question's scope", inScope(kGray, ifr::ideqval(3, 9)), 0, 1, 0, 1},
  };
  OneForm f(8);
  const UINT16 s = f.s;
  FormBuilder& form = f.form;
  form.checkbox(ifr::Checkbox(1, s, s).store(1, 0))
      .oneOf(ifr::OneOf(2, s, s).store(1, 1).option(s, 3).option(s, 4))
      .numeric(Numeric(3, s, s).store(1, 2))
      .numeric(Numeric(4, s, s).store(1, 3));
  for (UINT16 i = 0; i < std::size(rows); ++i) rows[i].place(form, Numeric(UINT16(0x40 + i), s, s).store(1, 5));
  // Options under conditions; a suppressed question does not mark its own.
  form.oneOf(ifr::OneOf(0x54, s, s)
                 .store(1, 5)
                 .option(s, 0)
                 .suppressIf(ifr::ideqval(1, 1), [s](ifr::OneOf& q) { q.option(s, 1); })
                 .suppressIf(ifr::ideqval(1, 0), [s](ifr::OneOf& q) { q.option(s, 2); })
                 .disableIf(ifr::True(), [s](ifr::OneOf& q) { q.option(s, 3); })
                 .grayOutIf(ifr::True(), [s](ifr::OneOf& q) { q.option(s, 4); }));
  form.suppressIf(ifr::True(), [s](FormBuilder& g) { g.oneOf(ifr::OneOf(0x55, s, s).store(1, 5).option(s, 0)); });
  form.numeric(Numeric(0x60, s, s).store(1, 6));
  auto parse = processForm(f, {1, 3, 9, 3, 0, 0, 5, 0});
  ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;

  for (UINT16 i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(rows[i].name);
    const HII_STATEMENT_RECORD* q = findQuestion(parse->set(), UINT16(0x40 + i));
    ASSERT_NE(q, nullptr);
    const HII_VALUE* c = q->ReadOnlyCondition ? &q->ReadOnlyCondition->Result : nullptr;
    const int condition = !c ? -1 : c->Type == kBool ? c->Value[0] : 99;  // 99: not a boolean
    EXPECT_EQ(std::make_tuple(q->SuppressedMark, q->ReadOnlyMark, q->DisabledMark, condition),
              std::make_tuple(rows[i].suppressed, rows[i].readOnly, rows[i].disabled, rows[i].readOnlyCondition));
  }
  const HII_STATEMENT_RECORD* oneOf = findQuestion(parse->set(), 0x54);
  EXPECT_TRUE(!oneOf->SuppressedMark && !oneOf->ReadOnlyMark && !oneOf->ReadOnlyCondition);
  std::vector<std::pair<UINT64, UINT8>> options;  // value, suppressed
  for (UINT64 i = 0; i < oneOf->OptionCount; ++i)
    options.emplace_back(number(oneOf->Options[i]->Value), oneOf->Options[i]->OptionSuppressed);
  EXPECT_EQ(options, (std::vector<std::pair<UINT64, UINT8>>{{0, 0}, {1, 1}, {2, 0}, {3, 1}, {4, 0}}));
  const HII_STATEMENT_RECORD* hidden = findQuestion(parse->set(), 0x55);
  EXPECT_EQ(hidden->SuppressedMark, 1);
  EXPECT_EQ(hidden->Options[0]->OptionSuppressed, 0);
}

}  // namespace
}  // namespace tvl::test::forms
