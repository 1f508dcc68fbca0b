// Evaluation of IFR expressions (postfix, as the opcodes stand) against the
// current values of a form set's questions.
#pragma once

#include "services/forms/parsed.h"
#include "uefi/ifr.h"

namespace tvl::forms {

// A value on the expression stack: a number (types 0 to 3), a boolean
// (type 4, number 0 or 1) or undefined (type 9).
struct ExprValue {
  UINT8 type;
  UINT64 number;
};

// Questions of the parsed form sets by form set and question id; when an id
// occurs twice in a form set the first question counts.
class QuestionIndex {
 public:
  EFI_STATUS build(const ParsedForms& parsed);
  const HII_STATEMENT_RECORD* find(UINT32 formSet, UINT16 questionId) const;

 private:
  struct Entry {
    UINT32 formSet;
    UINT16 questionId;
    UINT32 position;  // among the statements: the first of equal ids sorts first
    const HII_STATEMENT_RECORD* record;
  };
  Vector<Entry> entries_;
};

// The value of a question as an expression sees it.
ExprValue questionValue(const HII_STATEMENT_RECORD* question);

// Evaluates the expression held in bytes [start, end) of the package list.
// Opcodes that are not evaluated here make the result undefined. An
// expression that takes more values than it has, leaves other than one
// value, or needs a deeper stack than the limit is malformed:
// EFI_VOLUME_CORRUPTED, reported.
EFI_STATUS evaluateExpression(const PackageList& list, UINT32 start, UINT32 end, const QuestionIndex& questions,
                              UINT32 formSet, ExprValue& result);

inline bool isTrue(const ExprValue& v) { return v.type == EFI_IFR_TYPE_BOOLEAN && v.number == 1; }

}  // namespace tvl::forms
