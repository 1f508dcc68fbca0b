// The IFR walk: one pass over the opcodes of a forms package with an
// explicit stack of open scopes. It checks the structure (lengths, scopes,
// which opcode may stand where), makes the records of form sets, forms,
// statements, options, defaults, variable stores and default stores, and
// notes every condition and default expression for the later evaluation.
#include "services/forms/config.h"
#include "services/forms/parsed.h"
#include "services/forms/records.h"
#include "uefi/ifr.h"

namespace tvl::forms {

ParsedForms::~ParsedForms() {
  for (UINTN i = 0; i < formSets.size(); ++i) destroyFormSet(formSets[i].record);
}

namespace {

constexpr EFI_STATUS kCorrupt = EFI_VOLUME_CORRUPTED;

// ---------------------------------------------------------------- opcode table
enum OpKind : UINT8 {
  kUnknownOp,     // not an IFR opcode
  kExpressionOp,  // part of an expression
  kStatementOp,   // subtitle, text, reset button
  kQuestionOp,    // a question
  kConditionOp,   // suppressif, grayoutif, disableif
  kHolderOp,      // an opcode whose scope holds an expression
  kAttributeOp,   // extra information that the records do not carry
  kStructureOp,   // handled one by one
};

struct OpInfo {
  UINT8 kind;
  UINT8 minLength;
};

struct OpTable {
  OpInfo op[256];
};

constexpr OpTable makeOpTable() {
  OpTable t{};
  auto set = [&t](UINT8 op, UINT8 kind, UINT8 minLength) { t.op[op] = OpInfo{kind, minLength}; };
  // Structure.
  set(EFI_IFR_FORM_SET_OP, kStructureOp, 22);
  set(EFI_IFR_FORM_OP, kStructureOp, 6);
  set(EFI_IFR_FORM_MAP_OP, kStructureOp, 4);
  set(EFI_IFR_VARSTORE_OP, kStructureOp, 23);
  set(EFI_IFR_VARSTORE_EFI_OP, kStructureOp, 24);
  set(EFI_IFR_VARSTORE_NAME_VALUE_OP, kStructureOp, 20);
  set(EFI_IFR_DEFAULTSTORE_OP, kStructureOp, 6);
  set(EFI_IFR_ONE_OF_OPTION_OP, kStructureOp, 6);
  set(EFI_IFR_DEFAULT_OP, kStructureOp, 5);
  set(EFI_IFR_LOCKED_OP, kStructureOp, 2);
  set(EFI_IFR_IMAGE_OP, kStructureOp, 4);
  set(EFI_IFR_END_OP, kStructureOp, 2);
  // Statements and questions.
  set(EFI_IFR_SUBTITLE_OP, kStatementOp, 7);
  set(EFI_IFR_TEXT_OP, kStatementOp, 8);
  set(EFI_IFR_RESET_BUTTON_OP, kStatementOp, 8);
  set(EFI_IFR_ONE_OF_OP, kQuestionOp, 17);
  set(EFI_IFR_CHECKBOX_OP, kQuestionOp, 14);
  set(EFI_IFR_NUMERIC_OP, kQuestionOp, 17);
  set(EFI_IFR_PASSWORD_OP, kQuestionOp, 17);
  set(EFI_IFR_ACTION_OP, kQuestionOp, 13);
  set(EFI_IFR_REF_OP, kQuestionOp, 13);
  set(EFI_IFR_DATE_OP, kQuestionOp, 14);
  set(EFI_IFR_TIME_OP, kQuestionOp, 14);
  set(EFI_IFR_STRING_OP, kQuestionOp, 16);
  set(EFI_IFR_ORDERED_LIST_OP, kQuestionOp, 15);
  // Conditions and expression holders.
  set(EFI_IFR_SUPPRESS_IF_OP, kConditionOp, 2);
  set(EFI_IFR_GRAY_OUT_IF_OP, kConditionOp, 2);
  set(EFI_IFR_DISABLE_IF_OP, kConditionOp, 2);
  set(EFI_IFR_VALUE_OP, kHolderOp, 2);
  set(EFI_IFR_READ_OP, kHolderOp, 2);
  set(EFI_IFR_WRITE_OP, kHolderOp, 2);
  set(EFI_IFR_RULE_OP, kHolderOp, 3);
  set(EFI_IFR_INCONSISTENT_IF_OP, kHolderOp, 4);
  set(EFI_IFR_NO_SUBMIT_IF_OP, kHolderOp, 4);
  set(EFI_IFR_WARNING_IF_OP, kHolderOp, 5);
  // Attributes.
  set(EFI_IFR_GUID_OP, kAttributeOp, 18);
  set(EFI_IFR_ANIMATION_OP, kAttributeOp, 4);
  set(EFI_IFR_REFRESH_OP, kAttributeOp, 3);
  set(EFI_IFR_REFRESH_ID_OP, kAttributeOp, 18);
  set(EFI_IFR_MODAL_TAG_OP, kAttributeOp, 2);
  set(EFI_IFR_VARSTORE_DEVICE_OP, kAttributeOp, 4);
  // Expressions.
  set(EFI_IFR_EQ_ID_VAL_OP, kExpressionOp, 6);
  set(EFI_IFR_EQ_ID_ID_OP, kExpressionOp, 6);
  set(EFI_IFR_EQ_ID_VAL_LIST_OP, kExpressionOp, 6);
  set(EFI_IFR_AND_OP, kExpressionOp, 2);
  set(EFI_IFR_OR_OP, kExpressionOp, 2);
  set(EFI_IFR_NOT_OP, kExpressionOp, 2);
  set(EFI_IFR_TO_LOWER_OP, kExpressionOp, 2);
  set(EFI_IFR_TO_UPPER_OP, kExpressionOp, 2);
  set(EFI_IFR_MAP_OP, kExpressionOp, 2);
  set(EFI_IFR_VERSION_OP, kExpressionOp, 2);
  set(EFI_IFR_MATCH_OP, kExpressionOp, 2);
  set(EFI_IFR_GET_OP, kExpressionOp, 7);
  set(EFI_IFR_SET_OP, kExpressionOp, 7);
  for (UINT8 op = EFI_IFR_EQUAL_OP; op <= EFI_IFR_MODULO_OP; ++op) set(op, kExpressionOp, 2);
  set(EFI_IFR_RULE_REF_OP, kExpressionOp, 3);
  for (UINT8 op = EFI_IFR_QUESTION_REF1_OP; op <= EFI_IFR_SPAN_OP; ++op) set(op, kExpressionOp, 2);
  set(EFI_IFR_QUESTION_REF1_OP, kExpressionOp, 4);
  set(EFI_IFR_UINT8_OP, kExpressionOp, 3);
  set(EFI_IFR_UINT16_OP, kExpressionOp, 4);
  set(EFI_IFR_UINT32_OP, kExpressionOp, 6);
  set(EFI_IFR_UINT64_OP, kExpressionOp, 10);
  set(EFI_IFR_TO_STRING_OP, kExpressionOp, 3);
  set(EFI_IFR_FIND_OP, kExpressionOp, 3);
  set(EFI_IFR_STRING_REF1_OP, kExpressionOp, 4);
  set(EFI_IFR_SPAN_OP, kExpressionOp, 3);
  set(EFI_IFR_CATENATE_OP, kExpressionOp, 2);
  set(EFI_IFR_SECURITY_OP, kExpressionOp, 18);
  set(EFI_IFR_MATCH2_OP, kExpressionOp, 18);
  return t;
}

constexpr OpTable kOps = makeOpTable();

// Bytes of an EFI_IFR_TYPE_VALUE of `type`; `rest` is what the opcode has
// left (a buffer value takes all of it). kNone for an unknown type.
UINT32 valueSize(UINT8 type, UINT32 rest) {
  switch (type) {
    case EFI_IFR_TYPE_NUM_SIZE_8:
    case EFI_IFR_TYPE_BOOLEAN:
      return 1;
    case EFI_IFR_TYPE_NUM_SIZE_16:
    case EFI_IFR_TYPE_STRING:
    case EFI_IFR_TYPE_ACTION:
      return 2;
    case EFI_IFR_TYPE_NUM_SIZE_32:
    case EFI_IFR_TYPE_DATE:
      return 4;
    case EFI_IFR_TYPE_NUM_SIZE_64:
      return 8;
    case EFI_IFR_TYPE_TIME:
      return 3;
    case EFI_IFR_TYPE_OTHER:
    case EFI_IFR_TYPE_UNDEFINED:
      return 0;
    case EFI_IFR_TYPE_BUFFER:
      return rest;
    case EFI_IFR_TYPE_REF:
      return 22;
    default:
      return kNone;
  }
}

bool takesOptions(UINT8 operand) {
  return operand == EFI_IFR_ONE_OF_OP || operand == EFI_IFR_ORDERED_LIST_OP;
}

// ---------------------------------------------------------------- parser
enum FrameKind : UINT8 {
  kFormSetFrame,
  kFormFrame,
  kGroupFrame,      // a subtitle's scope: more statements of the same form
  kQuestionFrame,   // the scope of a statement or question
  kConditionFrame,  // expression, then the content it governs
  kHolderFrame,     // expression only
  kDefaultFrame,    // a default whose value comes from a nested value opcode
  kNestedFrame,     // an expression opcode with a scope of its own
  kSkipFrame,       // content that the records do not describe
};

struct Frame {
  UINT8 kind;
  UINT8 opcode;
  bool exprDone;  // condition: its expression has ended
  bool fed;       // default: its value expression has been seen
  UINT32 offset;  // of the opcode that opened the scope
  UINT32 index;   // statement or condition entry, by kind
  UINT32 exprStart;
  HII_DEFAULT_RECORD* target;  // holder: the default its expression gives
};

class Parser {
 public:
  Parser(const PackageList& list, ParsedForms& out) : list_(list), out_(out) {}

  EFI_STATUS run(UINTN packageOffset, UINTN start, UINTN end) {
    UINTN pos = start;
    while (pos < end) {
      if (end - pos < IFR_OP_HEADER_SIZE)
        return reportFailure(kCorrupt, pos, "opcode header runs past the end of the forms package");
      UINT8 op = list_.data[pos];
      UINT32 len = ifrLength(list_.data[pos + 1]);
      bool scope = ifrScope(list_.data[pos + 1]);
      const OpInfo& info = kOps.op[op];
      if (info.kind == kUnknownOp) return reportFailure(kCorrupt, pos, "unknown opcode 0x%02x", UINT32(op));
      if (len < IFR_OP_HEADER_SIZE)
        return reportFailure(kCorrupt, pos, "opcode 0x%02x has length %d, shorter than its header", UINT32(op), len);
      if (len > end - pos)
        return reportFailure(kCorrupt, pos, "opcode 0x%02x of length %d runs past the end of the forms package",
                             UINT32(op), len);
      if (len < info.minLength)
        return reportFailure(kCorrupt, pos, "opcode 0x%02x has length %d, shorter than its %d-byte minimum",
                             UINT32(op), len, UINT32(info.minLength));
      RETURN_IF_ERROR(step(op, UINT32(pos), len, scope));
      pos += len;
    }
    if (depth_ > 0)
      return reportFailure(kCorrupt, stack_[depth_ - 1].offset, "scope of opcode 0x%02x is never closed",
                           UINT32(stack_[depth_ - 1].opcode));
    if (!sawFormSet_) return reportFailure(kCorrupt, packageOffset, "forms package holds no form set");
    return EFI_SUCCESS;
  }

 private:
  // ---- scopes
  EFI_STATUS push(UINT8 kind, UINT8 opcode, UINT32 offset, UINT32 index = kNone, UINT32 exprStart = 0,
                  HII_DEFAULT_RECORD* target = nullptr) {
    if (depth_ == kMaxScopeDepth)
      return reportFailure(kCorrupt, offset, "scopes nest deeper than %d levels", UINT32(kMaxScopeDepth));
    stack_[depth_++] = Frame{kind, opcode, false, false, offset, index, exprStart, target};
    return EFI_SUCCESS;
  }

  EFI_STATUS skipScope(UINT8 op, UINT32 pos, bool scope) { return scope ? push(kSkipFrame, op, pos) : EFI_SUCCESS; }

  static bool expectsExpression(const Frame& f) {
    return (f.kind == kConditionFrame && !f.exprDone) || f.kind == kHolderFrame || f.kind == kNestedFrame;
  }

  // The innermost frame that decides what may stand inside it (conditions
  // are transparent).
  Frame* contentFrame() {
    for (UINTN i = depth_; i-- > 0;)
      if (stack_[i].kind != kConditionFrame) return &stack_[i];
    return nullptr;
  }

  HII_STATEMENT_RECORD* owningQuestion() const {
    for (UINTN i = depth_; i-- > 0;)
      if (stack_[i].kind == kQuestionFrame) return out_.statements[stack_[i].index].record;
    return nullptr;
  }

  UINT32 innermostCondition() const {
    for (UINTN i = depth_; i-- > 0;)
      if (stack_[i].kind == kConditionFrame) return stack_[i].index;
    return kNone;
  }

  EFI_STATUS closeScope(UINT32 pos) {
    if (depth_ == 0) return reportFailure(kCorrupt, pos, "END without an open scope");
    Frame& f = stack_[--depth_];
    switch (f.kind) {
      case kConditionFrame:
        if (!f.exprDone) {
          if (pos == f.exprStart)
            return reportFailure(kCorrupt, f.offset, "condition opcode 0x%02x holds no expression", UINT32(f.opcode));
          out_.conditions[f.index].exprEnd = pos;
        }
        break;
      case kHolderFrame:
        if (pos == f.exprStart)
          return reportFailure(kCorrupt, f.offset, "opcode 0x%02x holds no expression", UINT32(f.opcode));
        if (f.target) RETURN_IF_ERROR(out_.defaultExpressions.push({f.target, owningQuestion(), formSet_, f.exprStart, pos, false, 0, 0}));
        break;
      case kFormFrame:
        form_ = nullptr;
        break;
      case kFormSetFrame:
        formSet_ = kNone;
        break;
      default:
        break;
    }
    return EFI_SUCCESS;
  }

  // ---- one opcode
  EFI_STATUS step(UINT8 op, UINT32 pos, UINT32 len, bool scope) {
    if (op == EFI_IFR_END_OP) return closeScope(pos);
    UINT8 kind = kOps.op[op].kind;
    Frame* top = depth_ ? &stack_[depth_ - 1] : nullptr;
    if (top && top->kind == kSkipFrame) return skipScope(op, pos, scope);
    if (top && expectsExpression(*top)) {
      if (kind == kExpressionOp) {
        RETURN_IF_ERROR(checkExpressionOpcode(op, pos, len));
        return scope ? push(kNestedFrame, op, pos) : EFI_SUCCESS;
      }
      if (top->kind != kConditionFrame)
        return reportFailure(kCorrupt, pos, "opcode 0x%02x inside the expression of opcode 0x%02x", UINT32(op),
                             UINT32(top->opcode));
      if (pos == top->exprStart)
        return reportFailure(kCorrupt, top->offset, "condition opcode 0x%02x holds no expression",
                             UINT32(top->opcode));
      top->exprDone = true;
      out_.conditions[top->index].exprEnd = pos;
    } else if (kind == kExpressionOp) {
      return reportFailure(kCorrupt, pos, "expression opcode 0x%02x outside an expression", UINT32(op));
    }

    Frame* context = contentFrame();
    if (!context) {
      if (op != EFI_IFR_FORM_SET_OP)
        return reportFailure(kCorrupt, pos, "opcode 0x%02x outside a form set", UINT32(op));
      return openFormSet(pos, len, scope);
    }
    switch (context->kind) {
      case kFormSetFrame:
        return inFormSet(op, kind, pos, len, scope);
      case kFormFrame:
      case kGroupFrame:
        return inForm(op, kind, pos, len, scope);
      case kQuestionFrame:
        return inQuestion(*context, op, kind, pos, len, scope);
      case kDefaultFrame:
        return inDefault(*context, op, kind, pos, scope);
      default:
        return reportFailure(kCorrupt, pos, "opcode 0x%02x in an unexpected place", UINT32(op));
    }
  }

  EFI_STATUS checkExpressionOpcode(UINT8 op, UINT32 pos, UINT32 len) {
    if (op == EFI_IFR_EQ_ID_VAL_LIST_OP) {
      ByteCursor c(list_.data + pos, len);
      UINT16 listLength = 0;
      c.skip(4);
      c.readU16(listLength);
      if (UINT32(listLength) * 2 > len - 6)
        return reportFailure(kCorrupt, pos, "list of %d values runs past its opcode", UINT32(listLength));
    }
    return EFI_SUCCESS;
  }

  EFI_STATUS openCondition(UINT8 op, UINT32 pos, UINT32 len, bool scope, UINT32 owner) {
    if (!scope) return reportFailure(kCorrupt, pos, "condition opcode 0x%02x has no scope", UINT32(op));
    ConditionEntry c{};
    c.opcode = op;
    c.parent = innermostCondition();
    c.owner = owner;
    c.formSet = formSet_;
    c.exprStart = pos + len;
    c.exprEnd = pos + len;
    c.offset = pos;
    RETURN_IF_ERROR(out_.conditions.push(c));
    return push(kConditionFrame, op, pos, UINT32(out_.conditions.size() - 1), pos + len);
  }

  EFI_STATUS openHolder(UINT8 op, UINT32 pos, UINT32 len, bool scope, HII_DEFAULT_RECORD* target) {
    if (!scope) return reportFailure(kCorrupt, pos, "opcode 0x%02x has no scope for its expression", UINT32(op));
    return push(kHolderFrame, op, pos, kNone, pos + len, target);
  }

  // ---- contexts
  EFI_STATUS inFormSet(UINT8 op, UINT8 kind, UINT32 pos, UINT32 len, bool scope) {
    switch (op) {
      case EFI_IFR_FORM_OP:
      case EFI_IFR_FORM_MAP_OP:
        return openForm(op, pos, len, scope);
      case EFI_IFR_VARSTORE_OP:
      case EFI_IFR_VARSTORE_EFI_OP:
      case EFI_IFR_VARSTORE_NAME_VALUE_OP:
        RETURN_IF_ERROR(addVarStore(op, pos, len));
        return skipScope(op, pos, scope);
      case EFI_IFR_DEFAULTSTORE_OP:
        RETURN_IF_ERROR(addDefaultStore(pos, len));
        return skipScope(op, pos, scope);
      case EFI_IFR_IMAGE_OP:
      case EFI_IFR_LOCKED_OP:
        return skipScope(op, pos, scope);
      case EFI_IFR_FORM_SET_OP:
        return reportFailure(kCorrupt, pos, "form set inside a form set");
      default:
        break;
    }
    if (kind == kConditionOp) return openCondition(op, pos, len, scope, kNone);
    if (kind == kHolderOp) return openHolder(op, pos, len, scope, nullptr);
    if (kind == kAttributeOp) return skipScope(op, pos, scope);
    return reportFailure(kCorrupt, pos, "opcode 0x%02x outside a form", UINT32(op));
  }

  EFI_STATUS inForm(UINT8 op, UINT8 kind, UINT32 pos, UINT32 len, bool scope) {
    if (kind == kStatementOp || kind == kQuestionOp || op == EFI_IFR_IMAGE_OP) return addStatement(op, pos, len, scope);
    if (kind == kConditionOp) return openCondition(op, pos, len, scope, kNone);
    if (kind == kHolderOp) return openHolder(op, pos, len, scope, nullptr);
    if (kind == kAttributeOp || op == EFI_IFR_LOCKED_OP) return skipScope(op, pos, scope);
    return reportFailure(kCorrupt, pos, "opcode 0x%02x inside a form", UINT32(op));
  }

  EFI_STATUS inQuestion(Frame& question, UINT8 op, UINT8 kind, UINT32 pos, UINT32 len, bool scope) {
    HII_STATEMENT_RECORD* statement = out_.statements[question.index].record;
    switch (op) {
      case EFI_IFR_ONE_OF_OPTION_OP:
        if (!takesOptions(statement->Operand))
          return reportFailure(kCorrupt, pos, "option inside opcode 0x%02x, which takes no options",
                               UINT32(statement->Operand));
        RETURN_IF_ERROR(addOption(question.index, pos, len));
        return skipScope(op, pos, scope);
      case EFI_IFR_DEFAULT_OP:
        if (kOps.op[statement->Operand].kind != kQuestionOp)
          return reportFailure(kCorrupt, pos, "default inside opcode 0x%02x, which is not a question",
                               UINT32(statement->Operand));
        return addDefault(statement, pos, len, scope);
      case EFI_IFR_LOCKED_OP:
        statement->LockedFlag = 1;
        return skipScope(op, pos, scope);
      case EFI_IFR_IMAGE_OP:
        return skipScope(op, pos, scope);
      default:
        break;
    }
    if (kind == kConditionOp) return openCondition(op, pos, len, scope, question.index);
    if (kind == kHolderOp) return openHolder(op, pos, len, scope, nullptr);
    if (kind == kAttributeOp) return skipScope(op, pos, scope);
    return reportFailure(kCorrupt, pos, "opcode 0x%02x inside the scope of opcode 0x%02x", UINT32(op),
                         UINT32(statement->Operand));
  }

  EFI_STATUS inDefault(Frame& def, UINT8 op, UINT8 kind, UINT32 pos, bool scope) {
    if (op == EFI_IFR_VALUE_OP) {
      UINT32 len = ifrLength(list_.data[pos + 1]);
      HII_DEFAULT_RECORD* target = def.fed ? nullptr : def.target;
      def.fed = true;
      return openHolder(op, pos, len, scope, target);
    }
    if (kind == kAttributeOp) return skipScope(op, pos, scope);
    return reportFailure(kCorrupt, pos, "opcode 0x%02x inside a default", UINT32(op));
  }

  // ---- records
  HII_FORMSET_RECORD* formSet() const { return out_.formSets[formSet_].record; }

  EFI_STATUS openFormSet(UINT32 pos, UINT32 len, bool scope) {
    ByteCursor c(list_.data + pos, len);
    rt::Pool<HII_FORMSET_RECORD> record = rt::Pool<HII_FORMSET_RECORD>::zeroed();
    if (!record) return EFI_OUT_OF_RESOURCES;
    c.skip(IFR_OP_HEADER_SIZE);
    c.readGuid(record->Guid);
    c.readU16(record->FormSetTitle);
    c.readU16(record->FormSetHelp);
    UINT8 flags = 0;
    if (c.readU8(flags)) {
      UINT8 count = flags & 0x3;
      if (UINTN(count) * sizeof(EFI_GUID) > c.remaining())
        return reportFailure(kCorrupt, pos, "form set names %d class GUIDs but has room for fewer", UINT32(count));
      for (UINT8 i = 0; i < count; ++i) c.readGuid(record->ClassGuid[i]);
      record->ClassGuidCount = count;
    }
    record->HiiHandle = list_.hiiHandle;
    record->DriverHandle = list_.driverHandle;
    record->PackageListIndex = list_.index;
    RETURN_IF_ERROR(out_.formSets.push({record.get(), false}));
    record.release();
    formSet_ = UINT32(out_.formSets.size() - 1);
    sawFormSet_ = true;
    return scope ? push(kFormSetFrame, EFI_IFR_FORM_SET_OP, pos) : EFI_SUCCESS;
  }

  EFI_STATUS openForm(UINT8 op, UINT32 pos, UINT32 len, bool scope) {
    ByteCursor c(list_.data + pos, len);
    rt::Pool<HII_FORM_RECORD> record = rt::Pool<HII_FORM_RECORD>::zeroed();
    if (!record) return EFI_OUT_OF_RESOURCES;
    c.skip(IFR_OP_HEADER_SIZE);
    c.readU16(record->FormId);
    if (op == EFI_IFR_FORM_OP) {
      c.readU16(record->FormTitle);
    } else {
      // Form map: methods of a title and a GUID each; the first gives the title.
      constexpr UINT32 kMethodSize = 2 + sizeof(EFI_GUID);
      if ((len - 4) % kMethodSize != 0)
        return reportFailure(kCorrupt, pos, "form map of length %d does not hold whole methods", len);
      c.readU16(record->FormTitle);
      record->IsFormMap = 1;
    }
    HII_FORMSET_RECORD* fs = formSet();
    RETURN_IF_ERROR(adoptRecord(fs->Forms, fs->FormCount, record, &form_));
    if (!scope) {
      form_ = nullptr;
      return EFI_SUCCESS;
    }
    return push(kFormFrame, op, pos);
  }

  EFI_STATUS addStatement(UINT8 op, UINT32 pos, UINT32 len, bool scope) {
    rt::Pool<HII_STATEMENT_RECORD> record = rt::Pool<HII_STATEMENT_RECORD>::zeroed();
    if (!record) return EFI_OUT_OF_RESOURCES;
    RETURN_IF_ERROR(decodeStatement(op, pos, len, *record));
    HII_STATEMENT_RECORD* added = nullptr;
    RETURN_IF_ERROR(adoptRecord(form_->Statements, form_->StatementCount, record, &added));
    RETURN_IF_ERROR(out_.statements.push({added, formSet_, innermostCondition()}));
    if (!scope) return EFI_SUCCESS;
    if (op == EFI_IFR_SUBTITLE_OP) return push(kGroupFrame, op, pos);
    return push(kQuestionFrame, op, pos, UINT32(out_.statements.size() - 1));
  }

  EFI_STATUS decodeStatement(UINT8 op, UINT32 pos, UINT32 len, HII_STATEMENT_RECORD& s) {
    ByteCursor c(list_.data + pos, len);
    c.skip(IFR_OP_HEADER_SIZE);
    s.Operand = op;
    s.Offset = pos;
    s.HiiValue.Type = EFI_IFR_TYPE_UNDEFINED;
    if (op == EFI_IFR_IMAGE_OP) return EFI_SUCCESS;
    c.readU16(s.Prompt);
    c.readU16(s.Help);
    switch (op) {
      case EFI_IFR_SUBTITLE_OP:
        c.readU8(s.OpcodeFlags);
        return EFI_SUCCESS;
      case EFI_IFR_TEXT_OP:
        c.readU16(s.TextTwo);
        return EFI_SUCCESS;
      case EFI_IFR_RESET_BUTTON_OP:
        return EFI_SUCCESS;
      default:
        break;
    }
    // Question header.
    c.readU16(s.QuestionId);
    c.readU16(s.VarStoreId);
    c.readU16(s.VarOffset);
    c.readU8(s.QuestionFlags);
    s.ReadOnlyFlag = (s.QuestionFlags & EFI_IFR_FLAG_READ_ONLY) ? 1 : 0;
    s.ResetRequired = (s.QuestionFlags & EFI_IFR_FLAG_RESET_REQUIRED) ? 1 : 0;
    switch (op) {
      case EFI_IFR_ONE_OF_OP:
      case EFI_IFR_NUMERIC_OP: {
        c.readU8(s.OpcodeFlags);
        UINT8 size = s.OpcodeFlags & EFI_IFR_NUMERIC_SIZE;
        UINTN width = UINTN(1) << size;
        if (3 * width > c.remaining())
          return reportFailure(kCorrupt, pos, "opcode 0x%02x of length %d is too short for %d-byte bounds",
                               UINT32(op), len, UINT32(width));
        c.readNumber(width, s.Minimum);
        c.readNumber(width, s.Maximum);
        c.readNumber(width, s.Step);
        s.ValueType = size;
        s.HiiValue.Type = size;
        s.StorageWidth = UINT16(width);
        return EFI_SUCCESS;
      }
      case EFI_IFR_CHECKBOX_OP:
        c.readU8(s.OpcodeFlags);
        s.CheckboxDefault = (s.OpcodeFlags & EFI_IFR_CHECKBOX_DEFAULT) ? 1 : 0;
        s.CheckboxDefaultMfg = (s.OpcodeFlags & EFI_IFR_CHECKBOX_DEFAULT_MFG) ? 1 : 0;
        s.HiiValue.Type = EFI_IFR_TYPE_BOOLEAN;
        s.StorageWidth = 1;
        return EFI_SUCCESS;
      case EFI_IFR_PASSWORD_OP:
      case EFI_IFR_STRING_OP: {
        UINT64 minSize = 0, maxSize = 0;
        UINTN width = op == EFI_IFR_PASSWORD_OP ? 2 : 1;
        c.readNumber(width, minSize);
        c.readNumber(width, maxSize);
        if (op == EFI_IFR_STRING_OP) c.readU8(s.OpcodeFlags);
        if (maxSize * 2 > 0xFFFF)
          return reportFailure(kCorrupt, pos, "maximum of %d characters overflows the storage width",
                               UINT32(maxSize));
        s.Minimum = minSize;
        s.Maximum = maxSize;
        s.StorageWidth = UINT16(maxSize * 2);
        s.HiiValue.Type = EFI_IFR_TYPE_STRING;
        return EFI_SUCCESS;
      }
      case EFI_IFR_ORDERED_LIST_OP:
        c.readU8(s.MaxContainers);
        c.readU8(s.OpcodeFlags);
        s.HiiValue.Type = EFI_IFR_TYPE_BUFFER;
        return EFI_SUCCESS;
      case EFI_IFR_DATE_OP:
      case EFI_IFR_TIME_OP:
        c.readU8(s.OpcodeFlags);
        s.HiiValue.Type = op == EFI_IFR_DATE_OP ? EFI_IFR_TYPE_DATE : EFI_IFR_TYPE_TIME;
        s.StorageWidth = op == EFI_IFR_DATE_OP ? 4 : 3;
        return EFI_SUCCESS;
      case EFI_IFR_REF_OP:
        return decodeReference(pos, len, c, s);
      case EFI_IFR_ACTION_OP: {
        UINT16 config = 0;
        c.readU16(config);
        s.HiiValue.Type = EFI_IFR_TYPE_ACTION;
        hiiValueSetNumber(s.HiiValue, config, 2);
        return EFI_SUCCESS;
      }
      default:
        return EFI_SUCCESS;
    }
  }

  // EFI_IFR_REF to EFI_IFR_REF5: the value is an EFI_HII_REF (question id,
  // form id, form-set GUID, device path string id), as far as the opcode
  // gives it.
  EFI_STATUS decodeReference(UINT32 pos, UINT32 len, ByteCursor& c, HII_STATEMENT_RECORD& s) {
    if (len != 13 && len != 15 && len != 17 && len != 33 && len != 35)
      return reportFailure(kCorrupt, pos, "reference opcode has length %d", len);
    s.HiiValue.Type = EFI_IFR_TYPE_REF;
    UINT16 formId = 0, questionId = 0, devicePath = 0;
    EFI_GUID formSetGuid{};
    c.readU16(formId);
    c.readU16(questionId);
    c.readGuid(formSetGuid);
    c.readU16(devicePath);
    hiiValueSetNumber(s.HiiValue, questionId, 2);
    s.HiiValue.Value[2] = UINT8(formId);
    s.HiiValue.Value[3] = UINT8(formId >> 8);
    rt::copyMem(&s.HiiValue.Value[4], &formSetGuid, sizeof(formSetGuid));
    s.HiiValue.Value[20] = UINT8(devicePath);
    s.HiiValue.Value[21] = UINT8(devicePath >> 8);
    return EFI_SUCCESS;
  }

  EFI_STATUS addOption(UINT32 statementIndex, UINT32 pos, UINT32 len) {
    HII_STATEMENT_RECORD* statement = out_.statements[statementIndex].record;
    ByteCursor c(list_.data + pos, len);
    c.skip(IFR_OP_HEADER_SIZE);
    rt::Pool<HII_OPTION_RECORD> record = rt::Pool<HII_OPTION_RECORD>::zeroed();
    if (!record) return EFI_OUT_OF_RESOURCES;
    UINT8 type = 0;
    c.readU16(record->OptionText);
    c.readU8(record->OptionFlags);
    c.readU8(type);
    RETURN_IF_ERROR(readTypedValue(pos, len, c, type, record->Value));
    // The default flags mark the option and make no default record: a
    // question's default records come from its EFI_IFR_DEFAULT opcodes
    // alone, so a flag and a DEFAULT naming the same value do not list that
    // default twice. The manufacturing flag stays in OptionFlags.
    record->OptionIsDefault = (record->OptionFlags & EFI_IFR_OPTION_DEFAULT) ? 1 : 0;
    HII_OPTION_RECORD* added = nullptr;
    RETURN_IF_ERROR(adoptRecord(statement->Options, statement->OptionCount, record, &added));
    UINT32 condition = innermostCondition();
    RETURN_IF_ERROR(out_.options.push({added, statementIndex, condition}));
    // Conditions inside the question's scope that hold an option govern
    // options, not the question.
    for (UINT32 c2 = condition; c2 != kNone && out_.conditions[c2].owner == statementIndex;
         c2 = out_.conditions[c2].parent)
      out_.conditions[c2].enclosesOption = true;
    return EFI_SUCCESS;
  }

  EFI_STATUS readTypedValue(UINT32 pos, UINT32 len, ByteCursor& c, UINT8 type, HII_VALUE& value) {
    UINT32 size = valueSize(type, UINT32(c.remaining()));
    if (size == kNone) return reportFailure(kCorrupt, pos, "value type %d is not an IFR value type", UINT32(type));
    if (size > c.remaining())
      return reportFailure(kCorrupt, pos, "value of type %d runs past the end of its %d-byte opcode", UINT32(type),
                           len);
    value.Type = type;
    UINTN keep = size < sizeof(value.Value) ? size : sizeof(value.Value);
    c.readBytes(value.Value, keep);
    return EFI_SUCCESS;
  }

  EFI_STATUS addDefault(HII_STATEMENT_RECORD* statement, UINT32 pos, UINT32 len, bool scope) {
    ByteCursor c(list_.data + pos, len);
    c.skip(IFR_OP_HEADER_SIZE);
    rt::Pool<HII_DEFAULT_RECORD> record = rt::Pool<HII_DEFAULT_RECORD>::zeroed();
    if (!record) return EFI_OUT_OF_RESOURCES;
    UINT8 type = 0;
    c.readU16(record->DefaultId);
    c.readU8(type);
    RETURN_IF_ERROR(readTypedValue(pos, len, c, type, record->Value));
    HII_DEFAULT_RECORD* added = nullptr;
    RETURN_IF_ERROR(adoptRecord(statement->Defaults, statement->DefaultCount, record, &added));
    if (statement->Operand == EFI_IFR_CHECKBOX_OP && type != EFI_IFR_TYPE_OTHER) {
      UINT8 on = added->Value.Value[0] ? 1 : 0;
      if (added->DefaultId == EFI_HII_DEFAULT_CLASS_STANDARD) statement->CheckboxDefault = on;
      if (added->DefaultId == EFI_HII_DEFAULT_CLASS_MANUFACTURING) statement->CheckboxDefaultMfg = on;
    }
    if (!scope) return EFI_SUCCESS;
    return push(kDefaultFrame, EFI_IFR_DEFAULT_OP, pos, kNone, 0, type == EFI_IFR_TYPE_OTHER ? added : nullptr);
  }

  EFI_STATUS addVarStore(UINT8 op, UINT32 pos, UINT32 len) {
    ByteCursor c(list_.data + pos, len);
    c.skip(IFR_OP_HEADER_SIZE);
    rt::Pool<HII_VARSTORE_RECORD> record = rt::Pool<HII_VARSTORE_RECORD>::zeroed();
    if (!record) return EFI_OUT_OF_RESOURCES;
    record->StoreType = op;
    bool named = true;
    switch (op) {
      case EFI_IFR_VARSTORE_OP:
        c.readGuid(record->Guid);
        c.readU16(record->VarStoreId);
        c.readU16(record->Size);
        break;
      case EFI_IFR_VARSTORE_EFI_OP:
        c.readU16(record->VarStoreId);
        c.readGuid(record->Guid);
        c.readU32(record->Attributes);
        // The short form of older firmware has neither size nor name.
        named = len != 24;
        if (named && !c.readU16(record->Size))
          return reportFailure(kCorrupt, pos, "EFI variable store of length %d is cut inside its size", len);
        break;
      default:
        c.readU16(record->VarStoreId);
        c.readGuid(record->Guid);
        named = false;
        break;
    }
    // The name: 8-bit characters up to a NUL inside the opcode.
    UINTN nameLength = 0;
    if (named) {
      const UINT8* name = c.here();
      UINTN room = c.remaining();
      while (nameLength < room && name[nameLength] != 0) ++nameLength;
      if (nameLength == room) return reportFailure(kCorrupt, pos, "variable store name is not terminated");
    }
    record->Name = rt::Pool<CHAR16>::zeroed(nameLength + 1).release();
    if (!record->Name) return EFI_OUT_OF_RESOURCES;
    for (UINTN i = 0; i < nameLength; ++i) record->Name[i] = CHAR16(c.here()[i]);
    HII_FORMSET_RECORD* fs = formSet();
    HII_VARSTORE_RECORD* added = nullptr;
    EFI_STATUS status = adoptRecord(fs->VarStoreBuffer, fs->VarStoreBufferCount, record, &added);
    if (EFI_ERROR(status)) {
      rt::Pool<CHAR16> name(record->Name);
      return status;
    }
    added->ConfigHdr = makeConfigHdr(added->Guid, added->Name, list_.devicePath, list_.devicePathSize).release();
    return added->ConfigHdr ? EFI_SUCCESS : EFI_OUT_OF_RESOURCES;
  }

  EFI_STATUS addDefaultStore(UINT32 pos, UINT32 len) {
    ByteCursor c(list_.data + pos, len);
    c.skip(IFR_OP_HEADER_SIZE);
    rt::Pool<HII_DEFAULTSTORE_RECORD> record = rt::Pool<HII_DEFAULTSTORE_RECORD>::zeroed();
    if (!record) return EFI_OUT_OF_RESOURCES;
    c.readU16(record->DefaultName);
    c.readU16(record->DefaultId);
    HII_FORMSET_RECORD* fs = formSet();
    return adoptRecord(fs->DefaultStores, fs->DefaultStoreCount, record);
  }

  const PackageList& list_;
  ParsedForms& out_;
  Frame stack_[kMaxScopeDepth];
  UINTN depth_ = 0;
  UINT32 formSet_ = kNone;
  HII_FORM_RECORD* form_ = nullptr;
  bool sawFormSet_ = false;
};

}  // namespace

EFI_STATUS parseFormsPackage(const PackageList& list, UINTN packageOffset, UINTN start, UINTN end,
                             ParsedForms& out) {
  Parser parser(list, out);
  return parser.run(packageOffset, start, end);
}

}  // namespace tvl::forms
