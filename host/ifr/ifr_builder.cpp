#include "host/ifr/ifr_builder.h"

#include <stdexcept>

#include "host/ifr/bytes.h"

namespace tvl::host::ifr {

using namespace detail;

unsigned widthBytes(Width width) { return 1u << unsigned(width); }

namespace {

// A value fits a width when it is representable unsigned, or when it is a
// sign-extended negative number of that width (signed numeric questions).
bool fits(Width width, UINT64 value) {
  unsigned bits = 8 * widthBytes(width);
  if (bits == 64) return true;
  if ((value >> bits) == 0) return true;
  INT64 s = INT64(value);
  return s < 0 && s >= -(INT64(1) << (bits - 1));
}

void putWidth(Bytes& out, Width width, UINT64 value) {
  if (!fits(width, value))
    throw std::invalid_argument("value " + std::to_string(value) + " does not fit " +
                                std::to_string(widthBytes(width)) + " bytes");
  putN(out, value, widthBytes(width));
}

Bytes minMaxStep(Width width, UINT64 min, UINT64 max, UINT64 step) {
  Bytes b;
  putWidth(b, width, min);
  putWidth(b, width, max);
  putWidth(b, width, step);
  return b;
}

Bytes optionOp(Width width, UINT16 text, UINT64 value, UINT8 optionFlags) {
  Bytes fields;
  put16(fields, text);
  put8(fields, optionFlags);
  put8(fields, UINT8(width));
  putWidth(fields, width, value);
  Bytes op;
  putOp(op, EFI_IFR_ONE_OF_OPTION_OP, false, fields);
  return op;
}

Expr single(UINT8 opcode, const Bytes& fields = {}) {
  Bytes code;
  putOp(code, opcode, false, fields);
  return Expr(std::move(code));
}

}  // namespace

// ---------------------------------------------------------------- values

Value Value::number(Width width, UINT64 value) {
  Value v;
  v.type = UINT8(width);
  putWidth(v.bytes, width, value);
  return v;
}
Value Value::u8(UINT8 value) { return number(Width::U8, value); }
Value Value::u16(UINT16 value) { return number(Width::U16, value); }
Value Value::u32(UINT32 value) { return number(Width::U32, value); }
Value Value::u64(UINT64 value) { return number(Width::U64, value); }
Value Value::boolean(bool value) { return Value{EFI_IFR_TYPE_BOOLEAN, {UINT8(value ? 1 : 0)}}; }
Value Value::string(UINT16 stringId) {
  Value v{EFI_IFR_TYPE_STRING, {}};
  put16(v.bytes, stringId);
  return v;
}
Value Value::buffer(Width width, const std::vector<UINT64>& elements) {
  Value v{EFI_IFR_TYPE_BUFFER, {}};
  for (UINT64 e : elements) putWidth(v.bytes, width, e);
  return v;
}

// ---------------------------------------------------------------- expressions

Expr ideqval(UINT16 questionId, UINT16 value) {
  Bytes f;
  put16(f, questionId);
  put16(f, value);
  return single(EFI_IFR_EQ_ID_VAL_OP, f);
}

Expr ideqvallist(UINT16 questionId, const std::vector<UINT16>& values) {
  Bytes f;
  put16(f, questionId);
  put16(f, UINT16(values.size()));
  for (UINT16 v : values) put16(f, v);
  return single(EFI_IFR_EQ_ID_VAL_LIST_OP, f);
}

Expr eqidid(UINT16 questionId1, UINT16 questionId2) {
  Bytes f;
  put16(f, questionId1);
  put16(f, questionId2);
  return single(EFI_IFR_EQ_ID_ID_OP, f);
}

Expr postfix(UINT8 opcode, std::initializer_list<Expr> operands) {
  Bytes code;
  for (const Expr& e : operands) {
    if (e.empty()) throw std::invalid_argument("empty operand in an IFR expression");
    putBytes(code, e.code());
  }
  putOp(code, opcode, false, {});
  return Expr(std::move(code));
}

Expr True() { return single(EFI_IFR_TRUE_OP); }
Expr False() { return single(EFI_IFR_FALSE_OP); }
Expr zero() { return single(EFI_IFR_ZERO_OP); }
Expr one() { return single(EFI_IFR_ONE_OP); }
Expr ones() { return single(EFI_IFR_ONES_OP); }
Expr undefined() { return single(EFI_IFR_UNDEFINED_OP); }

Expr Not(const Expr& operand) { return postfix(EFI_IFR_NOT_OP, {operand}); }
Expr bitwiseNot(const Expr& operand) { return postfix(EFI_IFR_BITWISE_NOT_OP, {operand}); }
Expr toBoolean(const Expr& operand) { return postfix(EFI_IFR_TO_BOOLEAN_OP, {operand}); }
Expr toUint(const Expr& operand) { return postfix(EFI_IFR_TO_UINT_OP, {operand}); }
Expr dup(const Expr& operand) { return postfix(EFI_IFR_DUP_OP, {operand}); }

Expr And(const Expr& left, const Expr& right) { return postfix(EFI_IFR_AND_OP, {left, right}); }
Expr Or(const Expr& left, const Expr& right) { return postfix(EFI_IFR_OR_OP, {left, right}); }
Expr equal(const Expr& left, const Expr& right) { return postfix(EFI_IFR_EQUAL_OP, {left, right}); }
Expr notEqual(const Expr& left, const Expr& right) { return postfix(EFI_IFR_NOT_EQUAL_OP, {left, right}); }
Expr greaterThan(const Expr& left, const Expr& right) { return postfix(EFI_IFR_GREATER_THAN_OP, {left, right}); }
Expr greaterEqual(const Expr& left, const Expr& right) { return postfix(EFI_IFR_GREATER_EQUAL_OP, {left, right}); }
Expr lessThan(const Expr& left, const Expr& right) { return postfix(EFI_IFR_LESS_THAN_OP, {left, right}); }
Expr lessEqual(const Expr& left, const Expr& right) { return postfix(EFI_IFR_LESS_EQUAL_OP, {left, right}); }
Expr bitwiseAnd(const Expr& left, const Expr& right) { return postfix(EFI_IFR_BITWISE_AND_OP, {left, right}); }
Expr bitwiseOr(const Expr& left, const Expr& right) { return postfix(EFI_IFR_BITWISE_OR_OP, {left, right}); }
Expr add(const Expr& left, const Expr& right) { return postfix(EFI_IFR_ADD_OP, {left, right}); }
Expr subtract(const Expr& left, const Expr& right) { return postfix(EFI_IFR_SUBTRACT_OP, {left, right}); }
Expr multiply(const Expr& left, const Expr& right) { return postfix(EFI_IFR_MULTIPLY_OP, {left, right}); }
Expr divide(const Expr& left, const Expr& right) { return postfix(EFI_IFR_DIVIDE_OP, {left, right}); }
Expr modulo(const Expr& left, const Expr& right) { return postfix(EFI_IFR_MODULO_OP, {left, right}); }
Expr shiftLeft(const Expr& left, const Expr& right) { return postfix(EFI_IFR_SHIFT_LEFT_OP, {left, right}); }
Expr shiftRight(const Expr& left, const Expr& right) { return postfix(EFI_IFR_SHIFT_RIGHT_OP, {left, right}); }

Expr questionRef(UINT16 questionId) {
  Bytes f;
  put16(f, questionId);
  return single(EFI_IFR_QUESTION_REF1_OP, f);
}

Expr uint8(UINT8 value) { return single(EFI_IFR_UINT8_OP, {value}); }
Expr uint16(UINT16 value) {
  Bytes f;
  put16(f, value);
  return single(EFI_IFR_UINT16_OP, f);
}
Expr uint32(UINT32 value) {
  Bytes f;
  put32(f, value);
  return single(EFI_IFR_UINT32_OP, f);
}
Expr uint64(UINT64 value) {
  Bytes f;
  put64(f, value);
  return single(EFI_IFR_UINT64_OP, f);
}
Expr number(UINT64 value) { return uint64(value); }

// ---------------------------------------------------------------- questions

template <typename D>
Question<D>::Question(UINT16 questionId, UINT16 prompt, UINT16 help)
    : questionId_(questionId), prompt_(prompt), help_(help) {
  if (questionId == 0) throw std::invalid_argument("question id 0 is reserved");
}

template <typename D>
void Question<D>::writeQuestionHeader(Bytes& out) const {
  put16(out, prompt_);
  put16(out, help_);
  put16(out, questionId_);
  put16(out, varStoreId_);
  put16(out, varStoreInfo_);
  put8(out, flags_);
}

template <typename D>
D& Question<D>::locked() {
  putOp(nested_, EFI_IFR_LOCKED_OP, false, {});
  return self();
}

template <typename D>
D& Question<D>::image(UINT16 imageId) {
  Bytes f;
  put16(f, imageId);
  putOp(nested_, EFI_IFR_IMAGE_OP, false, f);
  return self();
}

template <typename D>
D& Question<D>::defaultConstant(const Value& value, UINT16 defaultId) {
  Bytes f;
  put16(f, defaultId);
  put8(f, value.type);
  putBytes(f, value.bytes);
  putOp(nested_, EFI_IFR_DEFAULT_OP, false, f);
  return self();
}

template <typename D>
D& Question<D>::defaultExpression(const Expr& expr, UINT16 defaultId) {
  if (expr.empty()) throw std::invalid_argument("empty default expression");
  Bytes f;
  put16(f, defaultId);
  put8(f, EFI_IFR_TYPE_OTHER);
  putOp(nested_, EFI_IFR_DEFAULT_OP, true, f);
  putOp(nested_, EFI_IFR_VALUE_OP, true, {});
  putBytes(nested_, expr.code());
  putEnd(nested_);
  putEnd(nested_);
  return self();
}

template <typename D>
D& Question<D>::condition(UINT8 opcode, const Expr& expr, const std::function<void(D&)>& body) {
  if (expr.empty()) throw std::invalid_argument("empty condition expression");
  putOp(nested_, opcode, true, {});
  putBytes(nested_, expr.code());
  if (body) body(self());
  putEnd(nested_);
  return self();
}

template <typename D>
D& Question<D>::suppressIf(const Expr& expr, const std::function<void(D&)>& body) {
  return condition(EFI_IFR_SUPPRESS_IF_OP, expr, body);
}
template <typename D>
D& Question<D>::grayOutIf(const Expr& expr, const std::function<void(D&)>& body) {
  return condition(EFI_IFR_GRAY_OUT_IF_OP, expr, body);
}
template <typename D>
D& Question<D>::disableIf(const Expr& expr, const std::function<void(D&)>& body) {
  return condition(EFI_IFR_DISABLE_IF_OP, expr, body);
}

template <typename D>
D& Question<D>::raw(const Bytes& opcodes) {
  putBytes(nested_, opcodes);
  return self();
}

template class Question<OneOf>;
template class Question<Checkbox>;
template class Question<Numeric>;
template class Question<Password>;
template class Question<String>;
template class Question<OrderedList>;
template class Question<Action>;
template class Question<Ref>;

namespace {

// A question opcode with scope: fields, nested opcodes, END.
template <typename Q>
void putScopedQuestion(Bytes& out, UINT8 opcode, const Q& q, const Bytes& tail) {
  Bytes f;
  q.writeQuestionHeader(f);
  putBytes(f, tail);
  putOp(out, opcode, true, f);
  putBytes(out, q.nested());
  putEnd(out);
}

}  // namespace

template <typename Derived, UINT8 Opcode>
Derived& NumberQuestion<Derived, Opcode>::range(UINT64 minimum, UINT64 maximum, UINT64 step) {
  min_ = minimum, max_ = maximum, step_ = step;
  return this->self();
}
template <typename Derived, UINT8 Opcode>
Derived& NumberQuestion<Derived, Opcode>::display(UINT8 displayFlags) {
  display_ = displayFlags & EFI_IFR_DISPLAY;
  return this->self();
}
template <typename Derived, UINT8 Opcode>
Derived& NumberQuestion<Derived, Opcode>::defaultValue(UINT64 value, UINT16 defaultId) {
  return this->defaultConstant(Value::number(width_, value), defaultId);
}
template <typename Derived, UINT8 Opcode>
void NumberQuestion<Derived, Opcode>::encode(Bytes& out) const {
  Bytes tail{UINT8(UINT8(width_) | display_)};
  putBytes(tail, minMaxStep(width_, min_, max_, step_));
  putScopedQuestion(out, Opcode, static_cast<const Derived&>(*this), tail);
}
template class NumberQuestion<OneOf, EFI_IFR_ONE_OF_OP>;
template class NumberQuestion<Numeric, EFI_IFR_NUMERIC_OP>;

OneOf::OneOf(UINT16 questionId, UINT16 prompt, UINT16 help, Width width)
    : NumberQuestion(questionId, prompt, help, width) {}

OneOf& OneOf::option(UINT16 text, UINT64 value, UINT8 optionFlags) {
  putBytes(nested_, optionOp(width(), text, value, optionFlags));
  return *this;
}

Checkbox::Checkbox(UINT16 questionId, UINT16 prompt, UINT16 help) : Question(questionId, prompt, help) {}
Checkbox& Checkbox::defaultValue(bool on, UINT16 defaultId) {
  return defaultConstant(Value::boolean(on), defaultId);
}
void Checkbox::encode(Bytes& out) const { putScopedQuestion(out, EFI_IFR_CHECKBOX_OP, *this, {checkboxFlags_}); }

Numeric::Numeric(UINT16 questionId, UINT16 prompt, UINT16 help, Width width)
    : NumberQuestion(questionId, prompt, help, width) {}

Password::Password(UINT16 questionId, UINT16 prompt, UINT16 help, UINT16 minSize, UINT16 maxSize)
    : Question(questionId, prompt, help), minSize_(minSize), maxSize_(maxSize) {}
void Password::encode(Bytes& out) const {
  Bytes tail;
  put16(tail, minSize_);
  put16(tail, maxSize_);
  putScopedQuestion(out, EFI_IFR_PASSWORD_OP, *this, tail);
}

String::String(UINT16 questionId, UINT16 prompt, UINT16 help, UINT8 minSize, UINT8 maxSize)
    : Question(questionId, prompt, help), minSize_(minSize), maxSize_(maxSize) {}
String& String::defaultValue(UINT16 stringId, UINT16 defaultId) {
  return defaultConstant(Value::string(stringId), defaultId);
}
void String::encode(Bytes& out) const {
  putScopedQuestion(out, EFI_IFR_STRING_OP, *this, {minSize_, maxSize_, stringFlags_});
}

OrderedList::OrderedList(UINT16 questionId, UINT16 prompt, UINT16 help, Width elementWidth, UINT8 maxContainers)
    : Question(questionId, prompt, help), width_(elementWidth), maxContainers_(maxContainers) {}
OrderedList& OrderedList::option(UINT16 text, UINT64 value, UINT8 optionFlags) {
  putBytes(nested_, optionOp(width_, text, value, optionFlags));
  return *this;
}
OrderedList& OrderedList::defaultValue(const std::vector<UINT64>& elements, UINT16 defaultId) {
  return defaultConstant(Value::buffer(width_, elements), defaultId);
}
void OrderedList::encode(Bytes& out) const {
  putScopedQuestion(out, EFI_IFR_ORDERED_LIST_OP, *this, {maxContainers_, listFlags_});
}

Action::Action(UINT16 questionId, UINT16 prompt, UINT16 help, UINT16 questionConfig)
    : Question(questionId, prompt, help), config_(questionConfig) {}
void Action::encode(Bytes& out) const {
  Bytes tail;
  put16(tail, config_);
  putScopedQuestion(out, EFI_IFR_ACTION_OP, *this, tail);
}

Ref::Ref(UINT16 questionId, UINT16 prompt, UINT16 help) : Question(questionId, prompt, help) {}
Ref& Ref::toForm(UINT16 formId) {
  variant_ = 1, formId_ = formId;
  return *this;
}
Ref& Ref::toQuestion(UINT16 formId, UINT16 questionId) {
  variant_ = 2, formId_ = formId, targetQuestion_ = questionId;
  return *this;
}
Ref& Ref::toFormSet(const EFI_GUID& formSet, UINT16 formId, UINT16 questionId) {
  variant_ = 3, formId_ = formId, targetQuestion_ = questionId, formSet_ = formSet;
  return *this;
}
Ref& Ref::toDevice(UINT16 devicePath, const EFI_GUID& formSet, UINT16 formId, UINT16 questionId) {
  variant_ = 4, formId_ = formId, targetQuestion_ = questionId, formSet_ = formSet, devicePath_ = devicePath;
  return *this;
}
void Ref::encode(Bytes& out) const {
  Bytes f;
  writeQuestionHeader(f);
  if (variant_ <= 4) put16(f, formId_);
  if (variant_ >= 2 && variant_ <= 4) put16(f, targetQuestion_);
  if (variant_ >= 3 && variant_ <= 4) putGuid(f, formSet_);
  if (variant_ == 4) put16(f, devicePath_);
  bool scope = !nested_.empty();
  putOp(out, EFI_IFR_REF_OP, scope, f);
  if (scope) {
    putBytes(out, nested_);
    putEnd(out);
  }
}

// ---------------------------------------------------------------- forms

FormBuilder::FormBuilder(UINT16 formId, UINT16 title) : formId_(formId), title_(title) {
  if (formId == 0) throw std::invalid_argument("form id 0 is reserved");
}

FormBuilder& FormBuilder::subtitle(UINT16 prompt, UINT8 subtitleFlags) { return subtitle(prompt, subtitleFlags, {}); }

FormBuilder& FormBuilder::subtitle(UINT16 prompt, UINT8 subtitleFlags, const std::function<void(FormBuilder&)>& body) {
  Bytes f;
  put16(f, prompt);
  put16(f, 0);  // a subtitle has no help text
  put8(f, subtitleFlags);
  putOp(body_, EFI_IFR_SUBTITLE_OP, true, f);
  if (body) body(*this);
  putEnd(body_);
  return *this;
}

FormBuilder& FormBuilder::text(UINT16 prompt, UINT16 help, UINT16 textTwo) {
  Bytes f;
  put16(f, prompt);
  put16(f, help);
  put16(f, textTwo);
  putOp(body_, EFI_IFR_TEXT_OP, false, f);
  return *this;
}

FormBuilder& FormBuilder::image(UINT16 imageId) {
  Bytes f;
  put16(f, imageId);
  putOp(body_, EFI_IFR_IMAGE_OP, false, f);
  return *this;
}

FormBuilder& FormBuilder::label(UINT16 number) {
  static const EFI_GUID tiano = EFI_IFR_TIANO_GUID;
  Bytes f;
  putGuid(f, tiano);
  put8(f, EFI_IFR_EXTEND_OP_LABEL);
  put16(f, number);
  putOp(body_, EFI_IFR_GUID_OP, false, f);
  return *this;
}

FormBuilder& FormBuilder::locked() {
  putOp(body_, EFI_IFR_LOCKED_OP, false, {});
  return *this;
}

FormBuilder& FormBuilder::oneOf(const OneOf& q) { return q.encode(body_), *this; }
FormBuilder& FormBuilder::checkbox(const Checkbox& q) { return q.encode(body_), *this; }
FormBuilder& FormBuilder::numeric(const Numeric& q) { return q.encode(body_), *this; }
FormBuilder& FormBuilder::password(const Password& q) { return q.encode(body_), *this; }
FormBuilder& FormBuilder::string(const String& q) { return q.encode(body_), *this; }
FormBuilder& FormBuilder::orderedList(const OrderedList& q) { return q.encode(body_), *this; }
FormBuilder& FormBuilder::action(const Action& q) { return q.encode(body_), *this; }
FormBuilder& FormBuilder::ref(const Ref& q) { return q.encode(body_), *this; }

FormBuilder& FormBuilder::condition(UINT8 opcode, const Expr& expr, const std::function<void(FormBuilder&)>& body) {
  if (expr.empty()) throw std::invalid_argument("empty condition expression");
  putOp(body_, opcode, true, {});
  putBytes(body_, expr.code());
  if (body) body(*this);
  putEnd(body_);
  return *this;
}

FormBuilder& FormBuilder::suppressIf(const Expr& expr, const std::function<void(FormBuilder&)>& body) {
  return condition(EFI_IFR_SUPPRESS_IF_OP, expr, body);
}
FormBuilder& FormBuilder::grayOutIf(const Expr& expr, const std::function<void(FormBuilder&)>& body) {
  return condition(EFI_IFR_GRAY_OUT_IF_OP, expr, body);
}
FormBuilder& FormBuilder::disableIf(const Expr& expr, const std::function<void(FormBuilder&)>& body) {
  return condition(EFI_IFR_DISABLE_IF_OP, expr, body);
}

FormBuilder& FormBuilder::raw(const Bytes& opcodes) {
  putBytes(body_, opcodes);
  return *this;
}

Bytes FormBuilder::encode() const {
  Bytes f;
  put16(f, formId_);
  put16(f, title_);
  Bytes out;
  putOp(out, EFI_IFR_FORM_OP, true, f);
  putBytes(out, body_);
  putEnd(out);
  return out;
}

// ---------------------------------------------------------------- form sets

FormSetBuilder::FormSetBuilder(const EFI_GUID& guid, UINT16 title, UINT16 help, std::vector<EFI_GUID> classGuids)
    : guid_(guid), title_(title), help_(help), classGuids_(std::move(classGuids)) {
  if (classGuids_.size() > 3) throw std::invalid_argument("a form set carries at most three class GUIDs");
  if (classGuids_.empty()) classGuids_.push_back(EFI_GUID EFI_HII_PLATFORM_SETUP_FORMSET_GUID);
}

FormSetBuilder& FormSetBuilder::varStore(UINT16 varStoreId, const EFI_GUID& guid, const std::string& name,
                                         UINT16 size) {
  if (varStoreId == 0) throw std::invalid_argument("variable store id 0 is reserved");
  Bytes f;
  putGuid(f, guid);
  put16(f, varStoreId);
  put16(f, size);
  f.insert(f.end(), name.begin(), name.end());
  put8(f, 0);
  Item item;
  putOp(item.opcodes, EFI_IFR_VARSTORE_OP, false, f);
  items_.push_back(std::move(item));
  return *this;
}

FormSetBuilder& FormSetBuilder::efiVarStore(UINT16 varStoreId, const EFI_GUID& guid, const std::string& name,
                                            UINT16 size, UINT32 attributes) {
  if (varStoreId == 0) throw std::invalid_argument("variable store id 0 is reserved");
  Bytes f;
  put16(f, varStoreId);
  putGuid(f, guid);
  put32(f, attributes);
  put16(f, size);
  f.insert(f.end(), name.begin(), name.end());
  put8(f, 0);
  Item item;
  putOp(item.opcodes, EFI_IFR_VARSTORE_EFI_OP, false, f);
  items_.push_back(std::move(item));
  return *this;
}

FormSetBuilder& FormSetBuilder::nameValueVarStore(UINT16 varStoreId, const EFI_GUID& guid) {
  if (varStoreId == 0) throw std::invalid_argument("variable store id 0 is reserved");
  Bytes f;
  put16(f, varStoreId);
  putGuid(f, guid);
  Item item;
  putOp(item.opcodes, EFI_IFR_VARSTORE_NAME_VALUE_OP, false, f);
  items_.push_back(std::move(item));
  return *this;
}

FormSetBuilder& FormSetBuilder::defaultStore(UINT16 defaultId, UINT16 name) {
  if (defaultId == EFI_HII_DEFAULT_CLASS_STANDARD) {
    standardName_ = name;
  } else if (defaultId == EFI_HII_DEFAULT_CLASS_MANUFACTURING) {
    manufacturingName_ = name;
  } else {
    Bytes f;
    put16(f, name);
    put16(f, defaultId);
    Item item;
    putOp(item.opcodes, EFI_IFR_DEFAULTSTORE_OP, false, f);
    items_.push_back(std::move(item));
  }
  return *this;
}

FormBuilder& FormSetBuilder::form(UINT16 formId, UINT16 title) {
  forms_.emplace_back(formId, title);
  Item item;
  item.form = forms_.size() - 1;
  items_.push_back(std::move(item));
  return forms_.back();
}

FormSetBuilder& FormSetBuilder::raw(const Bytes& opcodes) {
  Item item;
  item.opcodes = opcodes;
  items_.push_back(std::move(item));
  return *this;
}

Bytes FormSetBuilder::ifr() const {
  Bytes f;
  putGuid(f, guid_);
  put16(f, title_);
  put16(f, help_);
  put8(f, UINT8(classGuids_.size()));
  for (const EFI_GUID& g : classGuids_) putGuid(f, g);
  Bytes out;
  putOp(out, EFI_IFR_FORM_SET_OP, true, f);
  for (auto [name, id] : {std::pair<UINT16, UINT16>{standardName_, EFI_HII_DEFAULT_CLASS_STANDARD},
                          std::pair<UINT16, UINT16>{manufacturingName_, EFI_HII_DEFAULT_CLASS_MANUFACTURING}}) {
    Bytes d;
    put16(d, name);
    put16(d, id);
    putOp(out, EFI_IFR_DEFAULTSTORE_OP, false, d);
  }
  for (const Item& item : items_) putBytes(out, item.form == kNoForm ? item.opcodes : forms_[item.form].encode());
  putEnd(out);
  return out;
}

Bytes FormSetBuilder::package() const { return formsPackage(ifr()); }

Bytes formsPackage(const Bytes& ifr) {
  size_t length = HII_PACKAGE_HEADER_SIZE + ifr.size();
  if (length > 0xFFFFFF) throw std::invalid_argument("forms package longer than 24 bits");
  Bytes out;
  put8(out, UINT8(length));
  put8(out, UINT8(length >> 8));
  put8(out, UINT8(length >> 16));
  put8(out, EFI_HII_PACKAGE_FORMS);
  putBytes(out, ifr);
  return out;
}

}  // namespace tvl::host::ifr
