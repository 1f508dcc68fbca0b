// IFR builder: writes UEFI form packages (EFI_HII_PACKAGE_FORMS) opcode for
// opcode the way a VFR compiler lays them out for the same forms, so that
// tests, the sample platform and the command line can describe setup forms
// in C++ and hand real packages to the HII database.
//
// Layout rules followed (UEFI specification, IFR chapter, and what the
// EDK2 VFR compiler emits):
// - The form set is one EFI_IFR_FORM_SET with scope, closed by EFI_IFR_END
//   after the last form. Flags bits 0:1 hold the number of class GUIDs that
//   follow Help; with none given the platform-setup class GUID is written.
// - Right after EFI_IFR_FORM_SET come two EFI_IFR_DEFAULTSTORE opcodes, the
//   standard (0x0000) and the manufacturing (0x0001) store, named by string
//   id 0 unless `defaultStore` names them. Other default stores, variable
//   stores and forms follow in the order they were declared.
// - EFI_IFR_FORM and EFI_IFR_SUBTITLE open a scope closed by EFI_IFR_END.
//   EFI_IFR_TEXT, EFI_IFR_IMAGE, EFI_IFR_LOCKED and the label opcode do not.
// - Every one-of, checkbox, numeric, password, string, ordered-list and
//   action question opens a scope holding its options, defaults, locked tag
//   and nested conditions, closed by EFI_IFR_END (also when it is empty). A
//   reference opens a scope only when something is nested in it.
// - One-of and numeric opcodes carry MinValue/MaxValue/Step in the width of
//   the question (17, 20, 26 or 38 bytes). One-of options and constant
//   defaults carry only the bytes of their value type. The display bits of
//   one-of and numeric flags default to unsigned decimal.
// - A constant default is EFI_IFR_DEFAULT with the value's type. A default
//   given by an expression is EFI_IFR_DEFAULT with Type EFI_IFR_TYPE_OTHER
//   and scope, holding EFI_IFR_VALUE (scope) + expression + END, then END.
// - Conditions (suppress-if, gray-out-if, disable-if) open a scope holding
//   the expression first, then the guarded statements or options, then END.
//   Expressions are postfix: operands first, operator last. A bare number
//   constant is written as EFI_IFR_UINT64, as the compiler does.
// - Question storage: VarStoreInfo is the byte offset into a buffer or EFI
//   variable store, or the string id of the name for name/value storage.
//   A question without storage has VarStoreId 0 and VarStoreInfo 0xFFFF.
//
// Read-only conditions: the IFR opcode set has no "read-only if" opcode;
// the only way forms make a question conditionally unchangeable is
// EFI_IFR_GRAY_OUT_IF (the compiler's `grayoutif`). `readOnlyIf` is
// therefore `grayOutIf` under a name that states the intent: the forms
// processor takes the gray-out expression that encloses a question as the
// question's read-only condition. EFI_IFR_READ is unrelated (it supplies a
// question's value from an external source).
//
// Misuse (a zero question id, a value that does not fit, an opcode longer
// than 127 bytes, more than three class GUIDs) throws std::invalid_argument:
// this is host-side test tooling, and a wrong form description is a bug in
// the test.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "uefi/ifr.h"

namespace tvl::host::ifr {

using Bytes = std::vector<UINT8>;

// Storage width of a numeric, one-of or ordered-list value; the numbers
// are the EFI_IFR_NUMERIC_SIZE_* / EFI_IFR_TYPE_NUM_SIZE_* codes.
enum class Width : UINT8 { U8 = 0, U16 = 1, U32 = 2, U64 = 3 };
unsigned widthBytes(Width width);

// Question id of "no question" and the VarStoreInfo of "no storage".
constexpr UINT16 kNoVarStore = 0;
constexpr UINT16 kNoVarOffset = 0xFFFF;

// ---------------------------------------------------------------- values

// A constant of EFI_IFR_TYPE_VALUE with its type, as it stands in an
// option or a default: exactly the bytes of the type.
struct Value {
  UINT8 type = EFI_IFR_TYPE_NUM_SIZE_8;
  Bytes bytes;

  static Value number(Width width, UINT64 value);  // throws when it does not fit
  static Value u8(UINT8 value);
  static Value u16(UINT16 value);
  static Value u32(UINT32 value);
  static Value u64(UINT64 value);
  static Value boolean(bool value);
  static Value string(UINT16 stringId);
  // Ordered-list default: the elements one after another in `width`.
  static Value buffer(Width width, const std::vector<UINT64>& elements);
};

// ---------------------------------------------------------------- expressions

// An IFR expression: a postfix sequence of expression opcodes.
class Expr {
 public:
  Expr() = default;
  explicit Expr(Bytes code) : code_(std::move(code)) {}
  const Bytes& code() const { return code_; }
  bool empty() const { return code_.empty(); }

 private:
  Bytes code_;
};

Expr ideqval(UINT16 questionId, UINT16 value);                          // EFI_IFR_EQ_ID_VAL
Expr ideqvallist(UINT16 questionId, const std::vector<UINT16>& values);  // EFI_IFR_EQ_ID_VAL_LIST
Expr eqidid(UINT16 questionId1, UINT16 questionId2);                     // EFI_IFR_EQ_ID_ID
Expr True();
Expr False();
Expr Not(const Expr& operand);
Expr And(const Expr& left, const Expr& right);
Expr Or(const Expr& left, const Expr& right);
Expr questionRef(UINT16 questionId);  // EFI_IFR_QUESTION_REF1
// A number constant as a compiled expression carries it: EFI_IFR_UINT64.
// (Not named `uint`: glibc declares a global type of that name.)
Expr number(UINT64 value);
Expr uint8(UINT8 value);
Expr uint16(UINT16 value);
Expr uint32(UINT32 value);
Expr uint64(UINT64 value);
Expr zero();       // EFI_IFR_ZERO: 0 as an 8-bit number
Expr one();        // EFI_IFR_ONE: 1 as an 8-bit number
Expr ones();       // EFI_IFR_ONES: all 64 bits set
Expr undefined();  // EFI_IFR_UNDEFINED
// Unary operators.
Expr bitwiseNot(const Expr& operand);
Expr toBoolean(const Expr& operand);
Expr toUint(const Expr& operand);
// EFI_IFR_DUP: the operand's value twice on the stack, for an operator
// with two operands to follow, e.g. postfix(EFI_IFR_ADD_OP, {dup(x)}).
Expr dup(const Expr& operand);
// Comparisons: left <op> right.
Expr equal(const Expr& left, const Expr& right);
Expr notEqual(const Expr& left, const Expr& right);
Expr greaterThan(const Expr& left, const Expr& right);
Expr greaterEqual(const Expr& left, const Expr& right);
Expr lessThan(const Expr& left, const Expr& right);
Expr lessEqual(const Expr& left, const Expr& right);
// Arithmetic and bit operators: left <op> right (right is the divisor or
// the shift count).
Expr bitwiseAnd(const Expr& left, const Expr& right);
Expr bitwiseOr(const Expr& left, const Expr& right);
Expr add(const Expr& left, const Expr& right);
Expr subtract(const Expr& left, const Expr& right);
Expr multiply(const Expr& left, const Expr& right);
Expr divide(const Expr& left, const Expr& right);
Expr modulo(const Expr& left, const Expr& right);
Expr shiftLeft(const Expr& left, const Expr& right);
Expr shiftRight(const Expr& left, const Expr& right);
// Any operator without fields after its operands (for sequences the named
// functions do not build).
Expr postfix(UINT8 opcode, std::initializer_list<Expr> operands);

// ---------------------------------------------------------------- questions

// What every question shares: the question header, the opcodes nested in
// its scope (options, defaults, locked, image, conditions) in the order
// they were added, and the fluent setters. `Derived` is the concrete question type.
template <typename Derived>
class Question {
 public:
  Derived& prompt(UINT16 stringId) { prompt_ = stringId; return self(); }
  Derived& help(UINT16 stringId) { help_ = stringId; return self(); }
  // Buffer or EFI variable store: VarStoreInfo is the byte offset.
  Derived& store(UINT16 varStoreId, UINT16 offset) {
    varStoreId_ = varStoreId;
    varStoreInfo_ = offset;
    return self();
  }
  // Name/value store: VarStoreInfo is the string id of the value's name.
  Derived& storeNamed(UINT16 varStoreId, UINT16 nameStringId) { return store(varStoreId, nameStringId); }
  Derived& flags(UINT8 questionFlags) { flags_ |= questionFlags; return self(); }
  Derived& readOnly() { return flags(EFI_IFR_FLAG_READ_ONLY); }
  Derived& resetRequired() { return flags(EFI_IFR_FLAG_RESET_REQUIRED); }
  Derived& callback() { return flags(EFI_IFR_FLAG_CALLBACK); }
  Derived& reconnectRequired() { return flags(EFI_IFR_FLAG_RECONNECT_REQUIRED); }

  // EFI_IFR_LOCKED and EFI_IFR_IMAGE inside the question's scope.
  Derived& locked();
  Derived& image(UINT16 imageId);
  // A constant default for a default store.
  Derived& defaultConstant(const Value& value, UINT16 defaultId = EFI_HII_DEFAULT_CLASS_STANDARD);
  // A default computed by an expression (EFI_IFR_DEFAULT + EFI_IFR_VALUE).
  Derived& defaultExpression(const Expr& expr, UINT16 defaultId = EFI_HII_DEFAULT_CLASS_STANDARD);
  // Conditions around options or defaults nested in the question.
  Derived& suppressIf(const Expr& expr, const std::function<void(Derived&)>& body);
  Derived& grayOutIf(const Expr& expr, const std::function<void(Derived&)>& body);
  Derived& disableIf(const Expr& expr, const std::function<void(Derived&)>& body);
  // Any opcodes, written as given (for malformed-input tests).
  Derived& raw(const Bytes& opcodes);

  UINT16 questionId() const { return questionId_; }
  const Bytes& nested() const { return nested_; }
  // The 11-byte EFI_IFR_QUESTION_HEADER.
  void writeQuestionHeader(Bytes& out) const;

 protected:
  Question(UINT16 questionId, UINT16 prompt, UINT16 help);
  Derived& self() { return static_cast<Derived&>(*this); }
  Derived& condition(UINT8 opcode, const Expr& expr, const std::function<void(Derived&)>& body);

  UINT16 questionId_;
  UINT16 prompt_;
  UINT16 help_;
  UINT16 varStoreId_ = kNoVarStore;
  UINT16 varStoreInfo_ = kNoVarOffset;
  UINT8 flags_ = 0;
  Bytes nested_;
};

// What one-of and numeric questions share: the value width, the display
// format and the minimum, maximum and step written in that width.
template <typename Derived, UINT8 Opcode>
class NumberQuestion : public Question<Derived> {
 public:
  Derived& range(UINT64 minimum, UINT64 maximum, UINT64 step = 0);
  // EFI_IFR_DISPLAY_* bits; unsigned decimal when not given.
  Derived& display(UINT8 displayFlags);
  Derived& defaultValue(UINT64 value, UINT16 defaultId = EFI_HII_DEFAULT_CLASS_STANDARD);
  Width width() const { return width_; }
  void encode(Bytes& out) const;

 protected:
  NumberQuestion(UINT16 questionId, UINT16 prompt, UINT16 help, Width width)
      : Question<Derived>(questionId, prompt, help), width_(width) {}

 private:
  Width width_;
  UINT8 display_ = EFI_IFR_DISPLAY_UINT_DEC;
  UINT64 min_ = 0, max_ = 0, step_ = 0;
};

// EFI_IFR_ONE_OF with its EFI_IFR_ONE_OF_OPTION list.
class OneOf : public NumberQuestion<OneOf, EFI_IFR_ONE_OF_OP> {
 public:
  OneOf(UINT16 questionId, UINT16 prompt, UINT16 help, Width width = Width::U8);
  // An option; `optionFlags` may hold EFI_IFR_OPTION_DEFAULT and
  // EFI_IFR_OPTION_DEFAULT_MFG.
  OneOf& option(UINT16 text, UINT64 value, UINT8 optionFlags = 0);
};

// EFI_IFR_CHECKBOX.
class Checkbox : public Question<Checkbox> {
 public:
  Checkbox(UINT16 questionId, UINT16 prompt, UINT16 help);
  // EFI_IFR_CHECKBOX_DEFAULT / EFI_IFR_CHECKBOX_DEFAULT_MFG in the flags.
  Checkbox& defaultOn() { checkboxFlags_ |= EFI_IFR_CHECKBOX_DEFAULT; return *this; }
  Checkbox& mfgDefaultOn() { checkboxFlags_ |= EFI_IFR_CHECKBOX_DEFAULT_MFG; return *this; }
  // A boolean EFI_IFR_DEFAULT.
  Checkbox& defaultValue(bool on, UINT16 defaultId = EFI_HII_DEFAULT_CLASS_STANDARD);
  void encode(Bytes& out) const;

 private:
  UINT8 checkboxFlags_ = 0;
};

// EFI_IFR_NUMERIC.
class Numeric : public NumberQuestion<Numeric, EFI_IFR_NUMERIC_OP> {
 public:
  Numeric(UINT16 questionId, UINT16 prompt, UINT16 help, Width width = Width::U8);
};

// EFI_IFR_PASSWORD: sizes in characters.
class Password : public Question<Password> {
 public:
  Password(UINT16 questionId, UINT16 prompt, UINT16 help, UINT16 minSize, UINT16 maxSize);
  void encode(Bytes& out) const;

 private:
  UINT16 minSize_, maxSize_;
};

// EFI_IFR_STRING: sizes in characters.
class String : public Question<String> {
 public:
  String(UINT16 questionId, UINT16 prompt, UINT16 help, UINT8 minSize, UINT8 maxSize);
  String& multiLine() { stringFlags_ |= EFI_IFR_STRING_MULTI_LINE; return *this; }
  // A string default names a string id.
  String& defaultValue(UINT16 stringId, UINT16 defaultId = EFI_HII_DEFAULT_CLASS_STANDARD);
  void encode(Bytes& out) const;

 private:
  UINT8 minSize_, maxSize_;
  UINT8 stringFlags_ = 0;
};

// EFI_IFR_ORDERED_LIST with its options; elements of one width.
class OrderedList : public Question<OrderedList> {
 public:
  OrderedList(UINT16 questionId, UINT16 prompt, UINT16 help, Width elementWidth, UINT8 maxContainers);
  OrderedList& option(UINT16 text, UINT64 value, UINT8 optionFlags = 0);
  // EFI_IFR_UNIQUE_SET / EFI_IFR_NO_EMPTY_SET.
  OrderedList& listFlags(UINT8 flags) { listFlags_ |= flags; return *this; }
  // A buffer default: the elements in order.
  OrderedList& defaultValue(const std::vector<UINT64>& elements, UINT16 defaultId = EFI_HII_DEFAULT_CLASS_STANDARD);
  void encode(Bytes& out) const;

 private:
  Width width_;
  UINT8 maxContainers_;
  UINT8 listFlags_ = 0;
};

// EFI_IFR_ACTION with its configuration string.
class Action : public Question<Action> {
 public:
  Action(UINT16 questionId, UINT16 prompt, UINT16 help, UINT16 questionConfig = 0);
  void encode(Bytes& out) const;

 private:
  UINT16 config_;
};

// EFI_IFR_REF..EFI_IFR_REF5: the target chosen decides the variant. With
// no target the reference is the 13-byte EFI_IFR_REF5 (target taken from
// the question's value).
class Ref : public Question<Ref> {
 public:
  Ref(UINT16 questionId, UINT16 prompt, UINT16 help);
  Ref& toForm(UINT16 formId);                                    // EFI_IFR_REF
  Ref& toQuestion(UINT16 formId, UINT16 questionId);             // EFI_IFR_REF2
  Ref& toFormSet(const EFI_GUID& formSet, UINT16 formId, UINT16 questionId);  // EFI_IFR_REF3
  Ref& toDevice(UINT16 devicePath, const EFI_GUID& formSet, UINT16 formId, UINT16 questionId);  // EFI_IFR_REF4
  void encode(Bytes& out) const;

 private:
  int variant_ = 5;
  UINT16 formId_ = 0, targetQuestion_ = 0, devicePath_ = 0;
  EFI_GUID formSet_{};
};

// ---------------------------------------------------------------- forms

class FormBuilder {
 public:
  FormBuilder(UINT16 formId, UINT16 title);

  // Statements.
  FormBuilder& subtitle(UINT16 prompt, UINT8 subtitleFlags = 0);
  // A subtitle whose scope holds further statements.
  FormBuilder& subtitle(UINT16 prompt, UINT8 subtitleFlags, const std::function<void(FormBuilder&)>& body);
  FormBuilder& text(UINT16 prompt, UINT16 help, UINT16 textTwo = 0);
  FormBuilder& image(UINT16 imageId);
  FormBuilder& label(UINT16 number);  // EDK2 label: EFI_IFR_GUID with the Tiano GUID
  FormBuilder& locked();

  // Questions.
  FormBuilder& oneOf(const OneOf& question);
  FormBuilder& checkbox(const Checkbox& question);
  FormBuilder& numeric(const Numeric& question);
  FormBuilder& password(const Password& question);
  FormBuilder& string(const String& question);
  FormBuilder& orderedList(const OrderedList& question);
  FormBuilder& action(const Action& question);
  FormBuilder& ref(const Ref& question);

  // Condition scopes around statements.
  FormBuilder& suppressIf(const Expr& expr, const std::function<void(FormBuilder&)>& body);
  FormBuilder& grayOutIf(const Expr& expr, const std::function<void(FormBuilder&)>& body);
  FormBuilder& disableIf(const Expr& expr, const std::function<void(FormBuilder&)>& body);
  // See the header comment: a read-only condition is a gray-out condition.
  FormBuilder& readOnlyIf(const Expr& expr, const std::function<void(FormBuilder&)>& body) {
    return grayOutIf(expr, body);
  }

  // Any opcodes, written as given (for malformed-input tests).
  FormBuilder& raw(const Bytes& opcodes);

  UINT16 formId() const { return formId_; }
  // The form's opcodes: EFI_IFR_FORM, its statements, EFI_IFR_END.
  Bytes encode() const;

 private:
  FormBuilder& condition(UINT8 opcode, const Expr& expr, const std::function<void(FormBuilder&)>& body);

  UINT16 formId_;
  UINT16 title_;
  Bytes body_;
};

class FormSetBuilder {
 public:
  FormSetBuilder(const EFI_GUID& guid, UINT16 title, UINT16 help, std::vector<EFI_GUID> classGuids = {});

  // EFI_IFR_VARSTORE (buffer storage); `name` is the ASCII variable name.
  FormSetBuilder& varStore(UINT16 varStoreId, const EFI_GUID& guid, const std::string& name, UINT16 size);
  // EFI_IFR_VARSTORE_EFI.
  FormSetBuilder& efiVarStore(UINT16 varStoreId, const EFI_GUID& guid, const std::string& name, UINT16 size,
                              UINT32 attributes);
  // EFI_IFR_VARSTORE_NAME_VALUE.
  FormSetBuilder& nameValueVarStore(UINT16 varStoreId, const EFI_GUID& guid);
  // Names the standard or manufacturing store, or declares another one.
  FormSetBuilder& defaultStore(UINT16 defaultId, UINT16 name);
  // A new form; the reference stays valid as long as the builder.
  FormBuilder& form(UINT16 formId, UINT16 title);
  // Any opcodes at form-set level, written as given.
  FormSetBuilder& raw(const Bytes& opcodes);

  // The IFR opcodes of the form set (EFI_IFR_FORM_SET ... EFI_IFR_END).
  Bytes ifr() const;
  // The complete forms package: EFI_HII_PACKAGE_HEADER + ifr().
  Bytes package() const;

 private:
  static constexpr size_t kNoForm = size_t(-1);
  struct Item {
    Bytes opcodes;          // form-set level opcodes, or
    size_t form = kNoForm;  // the index of a form, encoded at build time
  };

  EFI_GUID guid_;
  UINT16 title_;
  UINT16 help_;
  std::vector<EFI_GUID> classGuids_;
  UINT16 standardName_ = 0;
  UINT16 manufacturingName_ = 0;
  std::vector<Item> items_;
  std::deque<FormBuilder> forms_;
};

// Wraps IFR opcodes into a forms package (4-byte package header).
Bytes formsPackage(const Bytes& ifr);

}  // namespace tvl::host::ifr
