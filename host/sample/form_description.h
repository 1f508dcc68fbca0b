// Declarative descriptions of the sample platform's setup forms. A device
// is described as data (its form sets, forms, statements, storage and
// current values), and one generic translation turns any description into
// the HII package list a firmware driver would register and into the
// initial bytes of its variable stores.
//
// A device's form sets share one package list: one forms package per form
// set, then one string package per language of the device, so that every
// string of every form set is found through the device's one HII handle.
//
// Every statement has two texts: the prompt shown to users ("en-US") and
// its keyword text ("x-UEFI"): the setting's name followed by bracketed
// key:value tokens, e.g. "BootMode[ProgWrite:true]" or
// "UsbManagedPort[SuppressIf:UsbPorts=0]". Which of them a device carries
// follows its language list: "en-US" gets the prompts, "x-UEFI" the
// keyword texts (the prompt where a keyword text is empty), and any other
// language the device's translation of the en-US text, or no string at
// all where the device has none (as a string-gathering tool leaves a
// string missing in one language). Help texts are never keyword texts:
// they exist in "en-US" and in the languages that translate them.
//
// A description that cannot be laid out (a question outside its store,
// two questions sharing bytes, a store or form that does not exist, a
// current value that does not fit, two form sets with one GUID or one
// store, a language named twice) throws std::invalid_argument: it is a
// mistake in the description, found the first time the device is built.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/ifr/ifr_builder.h"

namespace tvl::host::sample {

// A condition scope (suppressif, grayoutif, disableif) around a statement
// or an option.
struct Condition {
  UINT8 opcode = 0;  // EFI_IFR_SUPPRESS_IF_OP, EFI_IFR_GRAY_OUT_IF_OP or EFI_IFR_DISABLE_IF_OP
  ifr::Expr expr;
};
Condition suppressIf(const ifr::Expr& expr);
Condition grayOutIf(const ifr::Expr& expr);
Condition disableIf(const ifr::Expr& expr);

struct OptionDescription {
  std::u16string text;     // en-US
  std::u16string keyword;  // x-UEFI
  UINT64 value = 0;
  UINT8 flags = 0;  // EFI_IFR_OPTION_DEFAULT, EFI_IFR_OPTION_DEFAULT_MFG
  std::vector<Condition> conditions;  // inside the question's scope, around the option
};

// A default of one default store: a constant of the question's kind or an
// expression.
struct DefaultDescription {
  enum class Kind { Number, Boolean, Text, List, Expression };
  Kind kind = Kind::Number;
  UINT16 store = EFI_HII_DEFAULT_CLASS_STANDARD;
  UINT64 number = 0;           // Number, Boolean
  std::u16string text;         // Text (a string question's default)
  std::vector<UINT64> list;    // List (an ordered list's default)
  ifr::Expr expr;              // Expression
};

struct Statement {
  UINT8 opcode = 0;  // EFI_IFR_*_OP
  UINT16 questionId = 0;
  std::u16string prompt;   // en-US
  std::u16string keyword;  // x-UEFI
  std::u16string helpText; // en-US; empty: no help
  std::u16string textTwo;  // text statements: the second text
  UINT16 varStore = 0;     // 0: no storage
  UINT16 offset = 0;
  ifr::Width width = ifr::Width::U8;  // numbers; an ordered list's elements
  UINT64 minimum = 0, maximum = 0, step = 0;  // numeric range; string and password sizes in characters
  bool isSigned = false;                      // numbers shown as signed decimal; the range in two's complement
  UINT8 maxContainers = 0;                    // ordered list
  UINT8 questionFlags = 0;                    // EFI_IFR_FLAG_*
  UINT8 checkboxFlags = 0;                    // EFI_IFR_CHECKBOX_DEFAULT(_MFG)
  bool isLocked = false;
  UINT16 targetForm = 0;                      // reference
  std::vector<OptionDescription> options;
  std::vector<DefaultDescription> defaults;
  std::vector<Condition> conditions;  // around the statement, outermost first
  // What the device's storage holds at start: a number (checkbox 0 or 1),
  // the elements of an ordered list, or the text of a string question.
  std::vector<UINT64> current;
  std::u16string currentText;

  Statement& at(UINT16 store, UINT16 byteOffset);
  Statement& help(const std::u16string& text);
  Statement& range(UINT64 min, UINT64 max, UINT64 stepBy = 0);
  // A signed range: the bounds in two's complement of the question's
  // width, and the question displayed as signed decimal. The width must be
  // set first (numeric() and oneOf() take it).
  Statement& signedRange(INT64 min, INT64 max, UINT64 stepBy = 0);
  Statement& option(const std::u16string& text, const std::u16string& keyword, UINT64 value, UINT8 flags = 0);
  // An option inside a condition scope of its own.
  Statement& optionIf(const Condition& condition, const std::u16string& text, const std::u16string& keyword,
                      UINT64 value, UINT8 flags = 0);
  Statement& defaultNumber(UINT64 value, UINT16 store = EFI_HII_DEFAULT_CLASS_STANDARD);
  // A number in two's complement of the question's width.
  Statement& defaultSigned(INT64 value, UINT16 store = EFI_HII_DEFAULT_CLASS_STANDARD);
  Statement& defaultBoolean(bool on, UINT16 store = EFI_HII_DEFAULT_CLASS_STANDARD);
  Statement& defaultText(const std::u16string& text, UINT16 store = EFI_HII_DEFAULT_CLASS_STANDARD);
  Statement& defaultList(const std::vector<UINT64>& elements, UINT16 store = EFI_HII_DEFAULT_CLASS_STANDARD);
  Statement& defaultExpression(const ifr::Expr& expr, UINT16 store = EFI_HII_DEFAULT_CLASS_STANDARD);
  Statement& checkboxDefaults(bool standard, bool manufacturing);
  Statement& when(const Condition& condition);
  Statement& readOnly();
  Statement& resetRequired();
  Statement& locked();
  Statement& value(UINT64 number);
  Statement& signedValue(INT64 number);  // two's complement of the question's width
  Statement& values(const std::vector<UINT64>& elements);
  Statement& valueText(const std::u16string& text);

  // Bytes the question occupies in its store (0 for statements).
  size_t storageBytes() const;
};

Statement subtitle(const std::u16string& prompt, const std::u16string& keyword);
Statement text(const std::u16string& prompt, const std::u16string& keyword, const std::u16string& textTwo);
Statement oneOf(UINT16 questionId, const std::u16string& prompt, const std::u16string& keyword,
                ifr::Width width = ifr::Width::U8);
Statement checkbox(UINT16 questionId, const std::u16string& prompt, const std::u16string& keyword);
Statement numeric(UINT16 questionId, const std::u16string& prompt, const std::u16string& keyword,
                  ifr::Width width = ifr::Width::U8);
Statement string(UINT16 questionId, const std::u16string& prompt, const std::u16string& keyword, UINT8 minChars,
                 UINT8 maxChars);
Statement password(UINT16 questionId, const std::u16string& prompt, const std::u16string& keyword, UINT16 minChars,
                   UINT16 maxChars);
Statement orderedList(UINT16 questionId, const std::u16string& prompt, const std::u16string& keyword,
                      ifr::Width elementWidth, UINT8 maxContainers);
Statement reference(UINT16 questionId, const std::u16string& prompt, const std::u16string& keyword, UINT16 formId);

struct FormDescription {
  UINT16 id = 0;
  std::u16string title;    // en-US
  std::u16string keyword;  // x-UEFI
  std::vector<Statement> statements;
};

struct VarStoreDescription {
  UINT16 id = 0;
  EFI_GUID guid{};
  std::string name;
  UINT16 size = 0;
  bool efiVariable = false;  // an EFI variable rather than a buffer the device holds
  UINT32 attributes = 0;     // EFI variable attributes
  // Its driver refuses writes of zero over fields wider than one byte.
  bool refusesWideZero = false;
};

struct FormSetDescription {
  EFI_GUID guid{};
  // Class GUIDs of the form set (at most three); none: the platform-setup
  // class alone.
  std::vector<EFI_GUID> classGuids;
  std::u16string title;    // en-US
  std::u16string keyword;  // x-UEFI
  std::u16string helpText; // en-US
  std::u16string standardDefaultsName = u"Standard Defaults";
  std::u16string manufacturingDefaultsName = u"Manufacturing Defaults";
  std::vector<VarStoreDescription> varStores;
  std::vector<FormDescription> forms;
};

// Texts of one further language, by the en-US text they translate.
using Translation = std::map<std::u16string, std::u16string>;

struct DeviceDescription {
  std::u16string fqdd;
  std::u16string description;
  std::vector<UINT8> devicePath;  // end node included
  EFI_GUID packageListGuid{};
  std::vector<FormSetDescription> formSets;  // in the order of their forms packages
  // The string packages, in this order.
  std::vector<std::string> languages = {"en-US", "x-UEFI"};
  // By language: the texts of a language other than "en-US" and "x-UEFI".
  std::map<std::string, Translation> translations;

  // The form set with this GUID, or null.
  const FormSetDescription* findFormSet(const EFI_GUID& guid) const;
};

// The package list of a device: one forms package per form set and one
// string package per language, validated against the rules in the header
// comment.
ifr::Bytes buildPackageList(const DeviceDescription& device);

// The bytes a store holds at start: every question stored there written
// with its current value (little-endian numbers, UCS-2 text), zero elsewhere.
std::vector<UINT8> initialStorage(const FormSetDescription& formSet, const VarStoreDescription& store);

// Checks the layout rules; throws std::invalid_argument naming the first
// statement that breaks one.
void validate(const DeviceDescription& device);

}  // namespace tvl::host::sample
