// What the IFR walk of one package list leaves behind: the records it made
// and the bookkeeping that the later steps (storage, conditions, default
// expressions) need. Expressions are kept as byte ranges of the exported
// package list, which stays alive until the package list is finished.
#pragma once

#include "services/forms/support.h"

namespace tvl::forms {

// Nesting limits: scopes of the IFR and values on an expression's stack.
constexpr UINTN kMaxScopeDepth = 64;
constexpr UINTN kMaxExpressionStack = 64;

// One exported package list and the driver behind it.
struct PackageList {
  const UINT8* data = nullptr;  // the package list, header included
  UINTN size = 0;               // its PackageLength
  UINTN index = 0;              // position of its handle among the handles given
  EFI_HII_HANDLE hiiHandle = nullptr;
  EFI_HANDLE driverHandle = nullptr;
  const UINT8* devicePath = nullptr;  // the driver handle's device path, or null
  UINTN devicePathSize = 0;           // bytes, end node included
  EFI_HII_CONFIG_ACCESS_PROTOCOL* configAccess = nullptr;
};

struct FormSetEntry {
  HII_FORMSET_RECORD* record;  // owned until handed on
  bool kept;                   // passes the form-set filter
};

struct StatementEntry {
  HII_STATEMENT_RECORD* record;
  UINT32 formSet;    // index into ParsedForms::formSets
  UINT32 condition;  // innermost condition around the statement, or kNone
};

struct OptionEntry {
  HII_OPTION_RECORD* record;
  UINT32 statement;  // index into ParsedForms::statements
  UINT32 condition;  // innermost condition around the option, or kNone
};

// A suppressif, grayoutif or disableif scope.
struct ConditionEntry {
  UINT8 opcode;
  UINT32 parent;     // the condition around this one, or kNone
  UINT32 owner;      // statement whose scope holds the condition, or kNone
  UINT32 formSet;
  UINT32 exprStart;  // expression bytes [exprStart, exprEnd) of the package list
  UINT32 exprEnd;
  UINT32 offset;     // of the condition opcode
  bool enclosesOption;
  bool value;        // evaluated result (true only for a boolean TRUE)
};

// A default whose value comes from an expression.
struct DefaultExpressionEntry {
  HII_DEFAULT_RECORD* record;
  HII_STATEMENT_RECORD* statement;  // the question the default belongs to
  UINT32 formSet;
  UINT32 exprStart;
  UINT32 exprEnd;
  bool evaluated;  // the first entry of its default record: it gives the record's ValueExpression
  UINT8 checkboxDefault;     // the question's checkbox defaults as the IFR gives them,
  UINT8 checkboxDefaultMfg;  // before any default expression has changed them
};

struct ParsedForms {
  ParsedForms() = default;
  ParsedForms(const ParsedForms&) = delete;
  ParsedForms& operator=(const ParsedForms&) = delete;
  ~ParsedForms();  // frees the form sets still owned

  Vector<FormSetEntry> formSets;
  Vector<StatementEntry> statements;
  Vector<OptionEntry> options;
  Vector<ConditionEntry> conditions;
  Vector<DefaultExpressionEntry> defaultExpressions;
};

// Walks the IFR of one forms package, [start, end) of the package list
// (after the package header), and adds what it finds to `out`.
// Malformed IFR gives EFI_VOLUME_CORRUPTED with the failure reported.
EFI_STATUS parseFormsPackage(const PackageList& list, UINTN packageOffset, UINTN start, UINTN end,
                             ParsedForms& out);

}  // namespace tvl::forms
