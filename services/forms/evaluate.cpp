#include "services/forms/evaluate.h"

namespace tvl::forms {
namespace {

constexpr ExprValue kUndefined{EFI_IFR_TYPE_UNDEFINED, 0};

ExprValue boolean(bool b) { return ExprValue{EFI_IFR_TYPE_BOOLEAN, b ? 1u : 0u}; }
ExprValue number(UINT8 type, UINT64 n) { return ExprValue{type, n}; }

bool isNumber(const ExprValue& v) { return v.type <= EFI_IFR_TYPE_NUM_SIZE_64; }
bool isComparable(const ExprValue& v) { return isNumber(v) || v.type == EFI_IFR_TYPE_BOOLEAN; }

ExprValue binaryNumeric(UINT8 op, const ExprValue& a, const ExprValue& b) {
  if (!isNumber(a) || !isNumber(b)) return kUndefined;
  UINT64 x = a.number, y = b.number;
  switch (op) {
    case EFI_IFR_BITWISE_AND_OP:
      return number(EFI_IFR_TYPE_NUM_SIZE_64, x & y);
    case EFI_IFR_BITWISE_OR_OP:
      return number(EFI_IFR_TYPE_NUM_SIZE_64, x | y);
    case EFI_IFR_ADD_OP:
      return number(EFI_IFR_TYPE_NUM_SIZE_64, x + y);
    case EFI_IFR_SUBTRACT_OP:
      return number(EFI_IFR_TYPE_NUM_SIZE_64, x - y);
    case EFI_IFR_MULTIPLY_OP:
      return number(EFI_IFR_TYPE_NUM_SIZE_64, x * y);
    case EFI_IFR_DIVIDE_OP:
      return y ? number(EFI_IFR_TYPE_NUM_SIZE_64, x / y) : kUndefined;
    case EFI_IFR_MODULO_OP:
      return y ? number(EFI_IFR_TYPE_NUM_SIZE_64, x % y) : kUndefined;
    case EFI_IFR_SHIFT_LEFT_OP:
      return number(EFI_IFR_TYPE_NUM_SIZE_64, y < 64 ? x << y : 0);
    case EFI_IFR_SHIFT_RIGHT_OP:
      return number(EFI_IFR_TYPE_NUM_SIZE_64, y < 64 ? x >> y : 0);
    default:
      return kUndefined;
  }
}

ExprValue compare(UINT8 op, const ExprValue& a, const ExprValue& b) {
  if (!isComparable(a) || !isComparable(b)) return kUndefined;
  UINT64 x = a.number, y = b.number;
  switch (op) {
    case EFI_IFR_EQUAL_OP:
      return boolean(x == y);
    case EFI_IFR_NOT_EQUAL_OP:
      return boolean(x != y);
    case EFI_IFR_GREATER_THAN_OP:
      return boolean(x > y);
    case EFI_IFR_GREATER_EQUAL_OP:
      return boolean(x >= y);
    case EFI_IFR_LESS_THAN_OP:
      return boolean(x < y);
    case EFI_IFR_LESS_EQUAL_OP:
      return boolean(x <= y);
    default:
      return kUndefined;
  }
}

ExprValue logical(UINT8 op, const ExprValue& a, const ExprValue& b) {
  if (a.type != EFI_IFR_TYPE_BOOLEAN || b.type != EFI_IFR_TYPE_BOOLEAN) return kUndefined;
  return boolean(op == EFI_IFR_AND_OP ? (a.number && b.number) : (a.number || b.number));
}

class Evaluator {
 public:
  Evaluator(const PackageList& list, const QuestionIndex& questions, UINT32 formSet)
      : list_(list), questions_(questions), formSet_(formSet) {}

  EFI_STATUS run(UINT32 start, UINT32 end, ExprValue& result) {
    for (UINT32 pos = start; pos < end;) {
      UINT8 op = list_.data[pos];
      UINT32 len = ifrLength(list_.data[pos + 1]);
      if (ifrScope(list_.data[pos + 1])) return undefined(result);  // nested scopes are not evaluated
      ByteCursor c(list_.data + pos, len);
      c.skip(IFR_OP_HEADER_SIZE);
      bool supported = true;
      RETURN_IF_ERROR(apply(op, pos, c, supported));
      if (!supported) return undefined(result);
      pos += len;
    }
    if (depth_ != 1)
      return reportFailure(EFI_VOLUME_CORRUPTED, start, "expression leaves %d values instead of one", UINT32(depth_));
    result = stack_[0];
    return EFI_SUCCESS;
  }

 private:
  static EFI_STATUS undefined(ExprValue& result) {
    result = kUndefined;
    return EFI_SUCCESS;
  }

  EFI_STATUS push(UINT32 pos, const ExprValue& v) {
    if (depth_ == kMaxExpressionStack)
      return reportFailure(EFI_VOLUME_CORRUPTED, pos, "expression needs more than %d stack entries",
                           UINT32(kMaxExpressionStack));
    stack_[depth_++] = v;
    return EFI_SUCCESS;
  }

  EFI_STATUS pop(UINT32 pos, UINT8 op, ExprValue& v) {
    if (depth_ == 0)
      return reportFailure(EFI_VOLUME_CORRUPTED, pos, "expression opcode 0x%02x has too few operands", UINT32(op));
    v = stack_[--depth_];
    return EFI_SUCCESS;
  }

  ExprValue question(UINT16 id) const { return questionValue(questions_.find(formSet_, id)); }

  EFI_STATUS apply(UINT8 op, UINT32 pos, ByteCursor& c, bool& supported) {
    ExprValue a{}, b{};
    UINT64 n = 0;
    UINT16 id = 0, id2 = 0, value = 0, count = 0;
    switch (op) {
      case EFI_IFR_TRUE_OP:
      case EFI_IFR_FALSE_OP:
        return push(pos, boolean(op == EFI_IFR_TRUE_OP));
      case EFI_IFR_ZERO_OP:
      case EFI_IFR_ONE_OP:
        return push(pos, number(EFI_IFR_TYPE_NUM_SIZE_8, op == EFI_IFR_ONE_OP ? 1 : 0));
      case EFI_IFR_ONES_OP:
        return push(pos, number(EFI_IFR_TYPE_NUM_SIZE_64, ~UINT64(0)));
      case EFI_IFR_UNDEFINED_OP:
        return push(pos, kUndefined);
      case EFI_IFR_UINT8_OP:
      case EFI_IFR_UINT16_OP:
      case EFI_IFR_UINT32_OP:
      case EFI_IFR_UINT64_OP: {
        UINT8 type = UINT8(op - EFI_IFR_UINT8_OP);
        c.readNumber(hiiNumberWidth(type), n);
        return push(pos, number(type, n));
      }
      case EFI_IFR_QUESTION_REF1_OP:
        c.readU16(id);
        return push(pos, question(id));
      case EFI_IFR_EQ_ID_VAL_OP:
        c.readU16(id);
        c.readU16(value);
        a = question(id);
        return push(pos, isComparable(a) ? boolean(a.number == value) : kUndefined);
      case EFI_IFR_EQ_ID_ID_OP:
        c.readU16(id);
        c.readU16(id2);
        return push(pos, compare(EFI_IFR_EQUAL_OP, question(id), question(id2)));
      case EFI_IFR_EQ_ID_VAL_LIST_OP: {
        c.readU16(id);
        c.readU16(count);
        a = question(id);
        if (!isComparable(a)) return push(pos, kUndefined);
        bool found = false;
        for (UINT16 i = 0; i < count && c.readU16(value); ++i) found = found || a.number == value;
        return push(pos, boolean(found));
      }
      case EFI_IFR_NOT_OP:
        RETURN_IF_ERROR(pop(pos, op, a));
        return push(pos, a.type == EFI_IFR_TYPE_BOOLEAN ? boolean(!a.number) : kUndefined);
      case EFI_IFR_BITWISE_NOT_OP:
        RETURN_IF_ERROR(pop(pos, op, a));
        return push(pos, isNumber(a) ? number(EFI_IFR_TYPE_NUM_SIZE_64, ~a.number) : kUndefined);
      case EFI_IFR_TO_BOOLEAN_OP:
        RETURN_IF_ERROR(pop(pos, op, a));
        return push(pos, isComparable(a) ? boolean(a.number != 0) : kUndefined);
      case EFI_IFR_TO_UINT_OP:
        RETURN_IF_ERROR(pop(pos, op, a));
        return push(pos, isComparable(a) ? number(EFI_IFR_TYPE_NUM_SIZE_64, a.number) : kUndefined);
      case EFI_IFR_DUP_OP:
        RETURN_IF_ERROR(pop(pos, op, a));
        RETURN_IF_ERROR(push(pos, a));
        return push(pos, a);
      case EFI_IFR_AND_OP:
      case EFI_IFR_OR_OP:
        RETURN_IF_ERROR(pop(pos, op, b));
        RETURN_IF_ERROR(pop(pos, op, a));
        return push(pos, logical(op, a, b));
      case EFI_IFR_EQUAL_OP:
      case EFI_IFR_NOT_EQUAL_OP:
      case EFI_IFR_GREATER_THAN_OP:
      case EFI_IFR_GREATER_EQUAL_OP:
      case EFI_IFR_LESS_THAN_OP:
      case EFI_IFR_LESS_EQUAL_OP:
        RETURN_IF_ERROR(pop(pos, op, b));
        RETURN_IF_ERROR(pop(pos, op, a));
        return push(pos, compare(op, a, b));
      case EFI_IFR_BITWISE_AND_OP:
      case EFI_IFR_BITWISE_OR_OP:
      case EFI_IFR_ADD_OP:
      case EFI_IFR_SUBTRACT_OP:
      case EFI_IFR_MULTIPLY_OP:
      case EFI_IFR_DIVIDE_OP:
      case EFI_IFR_MODULO_OP:
      case EFI_IFR_SHIFT_LEFT_OP:
      case EFI_IFR_SHIFT_RIGHT_OP:
        RETURN_IF_ERROR(pop(pos, op, b));
        RETURN_IF_ERROR(pop(pos, op, a));
        return push(pos, binaryNumeric(op, a, b));
      default:
        supported = false;
        return EFI_SUCCESS;
    }
  }

  const PackageList& list_;
  const QuestionIndex& questions_;
  UINT32 formSet_;
  ExprValue stack_[kMaxExpressionStack];
  UINTN depth_ = 0;
};

}  // namespace

EFI_STATUS QuestionIndex::build(const ParsedForms& parsed) {
  for (UINTN i = 0; i < parsed.statements.size(); ++i) {
    const StatementEntry& s = parsed.statements[i];
    if (s.record->QuestionId == 0) continue;
    RETURN_IF_ERROR(entries_.push({s.formSet, s.record->QuestionId, UINT32(i), s.record}));
  }
  heapSort(entries_.data(), entries_.size(), [](const Entry& a, const Entry& b) {
    if (a.formSet != b.formSet) return a.formSet < b.formSet;
    if (a.questionId != b.questionId) return a.questionId < b.questionId;
    return a.position < b.position;
  });
  return EFI_SUCCESS;
}

const HII_STATEMENT_RECORD* QuestionIndex::find(UINT32 formSet, UINT16 questionId) const {
  UINTN lo = 0, hi = entries_.size();
  while (lo < hi) {
    UINTN mid = lo + (hi - lo) / 2;
    const Entry& e = entries_[mid];
    if (e.formSet < formSet || (e.formSet == formSet && e.questionId < questionId))
      lo = mid + 1;
    else
      hi = mid;
  }
  if (lo < entries_.size() && entries_[lo].formSet == formSet && entries_[lo].questionId == questionId)
    return entries_[lo].record;
  return nullptr;
}

ExprValue questionValue(const HII_STATEMENT_RECORD* question) {
  if (!question) return kUndefined;
  const HII_VALUE& v = question->HiiValue;
  if (v.Type <= EFI_IFR_TYPE_NUM_SIZE_64) return number(v.Type, hiiValueNumber(v, hiiNumberWidth(v.Type)));
  if (v.Type == EFI_IFR_TYPE_BOOLEAN) return boolean(v.Value[0] != 0);
  return kUndefined;
}

EFI_STATUS evaluateExpression(const PackageList& list, UINT32 start, UINT32 end, const QuestionIndex& questions,
                              UINT32 formSet, ExprValue& result) {
  Evaluator evaluator(list, questions, formSet);
  return evaluator.run(start, end, result);
}

}  // namespace tvl::forms
