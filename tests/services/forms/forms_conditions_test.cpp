// Conditions: suppressif, grayoutif and disableif scopes evaluated against
// the current values of the questions, nested and combined, around
// statements, inside a question's scope and around options.
#include <gtest/gtest.h>

#include <functional>

#include "forms_support.h"

namespace tvl::test::forms {
namespace {

using ifr::Expr;
using ifr::FormBuilder;

// Current values: checkbox 0x01 = 1, one-of 0x02 = 3, numeric 0x03 = 9,
// numeric 0x04 = 3, numeric 0x60 (declared after the target) = 5.
const std::vector<UINT8> kValues = {1, 3, 9, 3, 0, 0, 5, 0};
constexpr UINT16 kTarget = 0x50;

struct ConditionCase {
  const char* name;
  // Writes the target question (through `put`) with conditions around it.
  std::function<void(FormBuilder&, const std::function<void(FormBuilder&)>& put)> build;
  UINT8 suppressed, readOnly, disabled;
  int readOnlyCondition;  // -1: none; otherwise its boolean Result
};

using Put = std::function<void(FormBuilder&)>;

ConditionCase around(const char* name, UINT8 opcode, Expr expr, UINT8 s, UINT8 r, UINT8 d, int roc) {
  return {name,
          [opcode, expr](FormBuilder& f, const Put& put) {
            if (opcode == EFI_IFR_SUPPRESS_IF_OP) f.suppressIf(expr, put);
            if (opcode == EFI_IFR_GRAY_OUT_IF_OP) f.grayOutIf(expr, put);
            if (opcode == EFI_IFR_DISABLE_IF_OP) f.disableIf(expr, put);
          },
          s, r, d, roc};
}

const ConditionCase kConditions[] = {
    {"no condition", [](FormBuilder& f, const Put& put) { put(f); }, 0, 0, 0, -1},
    around("suppressif on a true value", EFI_IFR_SUPPRESS_IF_OP, ifr::ideqval(1, 1), 1, 0, 0, -1),
    around("suppressif on a false value", EFI_IFR_SUPPRESS_IF_OP, ifr::ideqval(1, 0), 0, 0, 0, -1),
    around("grayoutif true", EFI_IFR_GRAY_OUT_IF_OP, ifr::ideqval(2, 3), 0, 1, 0, 1),
    around("grayoutif false", EFI_IFR_GRAY_OUT_IF_OP, ifr::ideqval(2, 4), 0, 0, 0, 0),
    around("disableif true", EFI_IFR_DISABLE_IF_OP, ifr::True(), 0, 0, 1, -1),
    around("disableif false", EFI_IFR_DISABLE_IF_OP, ifr::False(), 0, 0, 0, -1),
    around("and with not", EFI_IFR_SUPPRESS_IF_OP, ifr::And(ifr::ideqval(1, 1), ifr::Not(ifr::ideqval(2, 4))), 1, 0,
           0, -1),
    around("or of two false", EFI_IFR_SUPPRESS_IF_OP, ifr::Or(ifr::ideqval(1, 0), ifr::False()), 0, 0, 0, -1),
    around("or with one true", EFI_IFR_SUPPRESS_IF_OP, ifr::Or(ifr::False(), ifr::ideqval(3, 9)), 1, 0, 0, -1),
    around("eqidid equal values", EFI_IFR_SUPPRESS_IF_OP, ifr::eqidid(2, 4), 1, 0, 0, -1),
    around("eqidid different values", EFI_IFR_SUPPRESS_IF_OP, ifr::eqidid(2, 3), 0, 0, 0, -1),
    around("value list holding the value", EFI_IFR_SUPPRESS_IF_OP, ifr::ideqvallist(3, {1, 9}), 1, 0, 0, -1),
    around("value list without it", EFI_IFR_SUPPRESS_IF_OP, ifr::ideqvallist(3, {1, 2}), 0, 0, 0, -1),
    around("question ref equal to a constant", EFI_IFR_SUPPRESS_IF_OP,
           ifr::equal(ifr::questionRef(3), ifr::uint8(9)), 1, 0, 0, -1),
    around("question ref not equal to a 64-bit constant", EFI_IFR_SUPPRESS_IF_OP,
           ifr::notEqual(ifr::questionRef(3), ifr::number(9)), 0, 0, 0, -1),
    around("question declared after the condition", EFI_IFR_SUPPRESS_IF_OP, ifr::ideqval(0x60, 5), 1, 0, 0, -1),
    around("unknown question", EFI_IFR_SUPPRESS_IF_OP, ifr::ideqval(0x99, 0), 0, 0, 0, -1),
    {"nested: outer false, inner true",
     [](FormBuilder& f, const Put& put) {
       f.suppressIf(ifr::False(), [&](FormBuilder& g) { g.suppressIf(ifr::ideqval(2, 3), put); });
     },
     1, 0, 0, -1},
    {"nested: outer true, inner false",
     [](FormBuilder& f, const Put& put) {
       f.disableIf(ifr::True(), [&](FormBuilder& g) { g.suppressIf(ifr::False(), put); });
     },
     0, 0, 1, -1},
    {"nested kinds combine",
     [](FormBuilder& f, const Put& put) {
       f.suppressIf(ifr::True(), [&](FormBuilder& g) { g.grayOutIf(ifr::True(), put); });
     },
     1, 1, 0, 1},
    {"read-only condition as the builder names it",
     [](FormBuilder& f, const Put& put) { f.readOnlyIf(ifr::ideqval(1, 1), put); }, 0, 1, 0, 1},
    {"condition closed before the question",
     [](FormBuilder& f, const Put& put) {
       f.suppressIf(ifr::True(), [](FormBuilder& g) { g.text(1, 1); });
       put(f);
     },
     0, 0, 0, -1},
    {"inside a subtitle's scope",
     [](FormBuilder& f, const Put& put) {
       f.suppressIf(ifr::True(), [&](FormBuilder& g) { g.subtitle(1, 0, put); });
     },
     1, 0, 0, -1},
};

class FormsConditionsTest : public FormsTest {
 protected:
  std::unique_ptr<Parse> parseWith(const std::function<void(FormBuilder&)>& fill) {
    ifr::Strings strings({"en-US"});
    UINT16 s = strings.add(u"x");
    ifr::FormSetBuilder fs(kFormSetGuid, s, s);
    fs.varStore(1, kStoreGuid, "Setup", UINT16(kValues.size()));
    FormBuilder& form = fs.form(1, s);
    form.checkbox(ifr::Checkbox(1, s, s).store(1, 0))
        .oneOf(ifr::OneOf(2, s, s).store(1, 1).option(s, 3).option(s, 4))
        .numeric(ifr::Numeric(3, s, s).store(1, 2))
        .numeric(ifr::Numeric(4, s, s).store(1, 3));
    fill(form);
    form.numeric(ifr::Numeric(0x60, s, s).store(1, 6));
    devices::Device& device = addDevice();
    device.addBufferStorage(kStoreGuid, u"Setup", kValues);
    return process({device.addPackageList(ifr::packageList(kListGuid, fs, strings))});
  }
};

TEST_F(FormsConditionsTest, ConditionsAroundStatementsSetTheMarks) {
  for (const ConditionCase& c : kConditions) {
    SCOPED_TRACE(c.name);
    auto parse = parseWith([&](FormBuilder& f) {
      c.build(f, [](FormBuilder& g) { g.numeric(ifr::Numeric(kTarget, 1, 1).store(1, 5)); });
    });
    ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
    const HII_STATEMENT_RECORD* s = findQuestion(parse->set(), kTarget);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->SuppressedMark, c.suppressed);
    EXPECT_EQ(s->ReadOnlyMark, c.readOnly);
    EXPECT_EQ(s->DisabledMark, c.disabled);
    if (c.readOnlyCondition < 0) {
      EXPECT_EQ(s->ReadOnlyCondition, nullptr);
    } else {
      ASSERT_NE(s->ReadOnlyCondition, nullptr);
      EXPECT_EQ(s->ReadOnlyCondition->Result.Type, EFI_IFR_TYPE_BOOLEAN);
      EXPECT_EQ(s->ReadOnlyCondition->Result.Value[0], c.readOnlyCondition);
    }
  }
}

// Conditions in the question's own scope govern the question; around an
// option they govern that option only.
TEST_F(FormsConditionsTest, ConditionsInsideAQuestionScope) {
  auto parse = parseWith([](FormBuilder& f) {
    f.numeric(ifr::Numeric(0x51, 1, 1).store(1, 5).suppressIf(ifr::ideqval(1, 1), [](ifr::Numeric&) {}));
    f.numeric(ifr::Numeric(0x52, 1, 1).store(1, 5).grayOutIf(ifr::ideqval(3, 9), [](ifr::Numeric&) {}));
    f.numeric(ifr::Numeric(0x53, 1, 1).store(1, 5).disableIf(ifr::False(), [](ifr::Numeric&) {}));
    f.oneOf(ifr::OneOf(0x54, 1, 1)
                .store(1, 5)
                .option(1, 0)
                .suppressIf(ifr::ideqval(1, 1), [](ifr::OneOf& q) { q.option(1, 1); })
                .suppressIf(ifr::ideqval(1, 0), [](ifr::OneOf& q) { q.option(1, 2); })
                .disableIf(ifr::True(), [](ifr::OneOf& q) { q.option(1, 3); })
                .grayOutIf(ifr::True(), [](ifr::OneOf& q) { q.option(1, 4); }));
    f.suppressIf(ifr::True(), [](FormBuilder& g) { g.oneOf(ifr::OneOf(0x55, 1, 1).store(1, 5).option(1, 0)); });
    f.checkbox(ifr::Checkbox(0x56, 1, 1).store(1, 5).locked().readOnly().resetRequired());
  });
  ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
  const HII_FORMSET_RECORD* set = parse->set();

  EXPECT_EQ(findQuestion(set, 0x51)->SuppressedMark, 1);
  const HII_STATEMENT_RECORD* gray = findQuestion(set, 0x52);
  EXPECT_EQ(gray->ReadOnlyMark, 1);
  ASSERT_NE(gray->ReadOnlyCondition, nullptr);
  EXPECT_EQ(gray->ReadOnlyCondition->Result.Value[0], 1);
  EXPECT_EQ(findQuestion(set, 0x53)->DisabledMark, 0);

  const HII_STATEMENT_RECORD* oneOf = findQuestion(set, 0x54);
  EXPECT_EQ(oneOf->SuppressedMark, 0);
  EXPECT_EQ(oneOf->ReadOnlyMark, 0);
  EXPECT_EQ(oneOf->ReadOnlyCondition, nullptr);
  ASSERT_EQ(oneOf->OptionCount, 5u);
  const UINT8 suppressed[] = {0, 1, 0, 1, 0};
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(number(oneOf->Options[i]->Value), UINT64(i));
    EXPECT_EQ(oneOf->Options[i]->OptionSuppressed, suppressed[i]) << "option " << i;
  }

  // A suppressed question does not mark its options.
  const HII_STATEMENT_RECORD* hidden = findQuestion(set, 0x55);
  EXPECT_EQ(hidden->SuppressedMark, 1);
  EXPECT_EQ(hidden->Options[0]->OptionSuppressed, 0);

  const HII_STATEMENT_RECORD* flags = findQuestion(set, 0x56);
  EXPECT_EQ(flags->LockedFlag, 1);
  EXPECT_EQ(flags->ReadOnlyFlag, 1);
  EXPECT_EQ(flags->ResetRequired, 1);
}

}  // namespace
}  // namespace tvl::test::forms
