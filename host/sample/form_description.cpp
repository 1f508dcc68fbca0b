#include "host/sample/form_description.h"

#include <functional>
#include <map>
#include <set>
#include <stdexcept>
#include <type_traits>

#include "host/hii/config_string.h"
#include "host/ifr/strings.h"

namespace tvl::host::sample {
namespace {

using ifr::Width;

Statement make(UINT8 opcode, UINT16 questionId, const std::u16string& prompt, const std::u16string& keyword) {
  Statement s;
  s.opcode = opcode;
  s.questionId = questionId;
  s.prompt = prompt;
  s.keyword = keyword;
  return s;
}

bool isQuestion(UINT8 opcode) {
  switch (opcode) {
    case EFI_IFR_ONE_OF_OP:
    case EFI_IFR_CHECKBOX_OP:
    case EFI_IFR_NUMERIC_OP:
    case EFI_IFR_PASSWORD_OP:
    case EFI_IFR_STRING_OP:
    case EFI_IFR_ORDERED_LIST_OP:
    case EFI_IFR_REF_OP:
      return true;
    default:
      return false;
  }
}

[[noreturn]] void refuse(const Statement& s, const std::string& why) {
  throw std::invalid_argument("statement \"" + hii::toAscii(s.keyword.empty() ? s.prompt : s.keyword) + "\": " + why);
}

const VarStoreDescription* findStore(const FormSetDescription& formSet, UINT16 id) {
  for (const auto& store : formSet.varStores)
    if (store.id == id) return &store;
  return nullptr;
}

UINT64 widthMax(Width width) {
  unsigned bytes = ifr::widthBytes(width);
  return bytes >= 8 ? ~UINT64(0) : (UINT64(1) << (8 * bytes)) - 1;
}

void checkCurrent(const Statement& s) {
  switch (s.opcode) {
    case EFI_IFR_ONE_OF_OP:
    case EFI_IFR_NUMERIC_OP:
    case EFI_IFR_CHECKBOX_OP: {
      if (s.current.size() > 1) refuse(s, "more than one current value");
      UINT64 limit = s.opcode == EFI_IFR_CHECKBOX_OP ? 1 : widthMax(s.width);
      if (!s.current.empty() && s.current[0] > limit) refuse(s, "current value does not fit the question");
      break;
    }
    case EFI_IFR_ORDERED_LIST_OP:
      if (s.current.size() > s.maxContainers) refuse(s, "more current elements than containers");
      for (UINT64 e : s.current)
        if (e > widthMax(s.width)) refuse(s, "current element does not fit the element width");
      break;
    case EFI_IFR_STRING_OP:
      if (s.currentText.size() > s.maximum) refuse(s, "current text longer than the maximum");
      break;
    default:
      if (!s.current.empty() || !s.currentText.empty()) refuse(s, "a statement of this kind holds no value");
  }
}

// ---------------------------------------------------------------- translation
class Translator {
 public:
  explicit Translator(const DeviceDescription& device) : device_(device), strings_(device.languages) {}

  ifr::Bytes packageList() {
    std::vector<ifr::Bytes> packages;
    for (const auto& fs : device_.formSets) packages.push_back(formsPackage(fs));
    return ifr::packageList(device_.packageListGuid, packages, strings_);
  }

 private:
  ifr::Bytes formsPackage(const FormSetDescription& fs) {
    ifr::FormSetBuilder builder(fs.guid, named(fs.title, fs.keyword), helpId(fs.helpText), fs.classGuids);
    builder.defaultStore(EFI_HII_DEFAULT_CLASS_STANDARD, named(fs.standardDefaultsName, fs.standardDefaultsName));
    builder.defaultStore(EFI_HII_DEFAULT_CLASS_MANUFACTURING,
                         named(fs.manufacturingDefaultsName, fs.manufacturingDefaultsName));
    for (const auto& store : fs.varStores) {
      if (store.efiVariable)
        builder.efiVarStore(store.id, store.guid, store.name, store.size, store.attributes);
      else
        builder.varStore(store.id, store.guid, store.name, store.size);
    }
    for (const auto& form : fs.forms) {
      ifr::FormBuilder& out = builder.form(form.id, named(form.title, form.keyword));
      for (const auto& s : form.statements) emit(out, s, 0);
    }
    return builder.package();
  }

  // One string id: the en-US text, the keyword text in x-UEFI, and the
  // device's translations of the en-US text in its other languages.
  UINT16 named(const std::u16string& en, const std::u16string& keyword) {
    ifr::Strings::Texts texts;
    for (const std::string& language : device_.languages) {
      if (language == "en-US")
        texts.emplace_back(language, en);
      else if (language == "x-UEFI")
        texts.emplace_back(language, keyword.empty() ? en : keyword);
      else if (const std::u16string* t = translated(language, en))
        texts.emplace_back(language, *t);
    }
    return strings_.add(texts);
  }
  UINT16 helpId(const std::u16string& help) {
    if (help.empty()) return 0;
    ifr::Strings::Texts texts;
    for (const std::string& language : device_.languages) {
      if (language == "en-US")
        texts.emplace_back(language, help);
      else if (const std::u16string* t = translated(language, help))
        texts.emplace_back(language, *t);
    }
    return strings_.add(texts);
  }
  const std::u16string* translated(const std::string& language, const std::u16string& en) const {
    auto table = device_.translations.find(language);
    if (table == device_.translations.end()) return nullptr;
    auto text = table->second.find(en);
    return text == table->second.end() ? nullptr : &text->second;
  }

  // Condition scopes around the statement, outermost first, then the
  // statement itself.
  void emit(ifr::FormBuilder& form, const Statement& s, size_t depth) {
    if (depth == s.conditions.size()) {
      emitBare(form, s);
      return;
    }
    const Condition& c = s.conditions[depth];
    auto body = [&](ifr::FormBuilder& inner) { emit(inner, s, depth + 1); };
    switch (c.opcode) {
      case EFI_IFR_SUPPRESS_IF_OP: form.suppressIf(c.expr, body); break;
      case EFI_IFR_GRAY_OUT_IF_OP: form.grayOutIf(c.expr, body); break;
      case EFI_IFR_DISABLE_IF_OP: form.disableIf(c.expr, body); break;
      default: refuse(s, "unknown condition opcode");
    }
  }

  void emitBare(ifr::FormBuilder& form, const Statement& s) {
    UINT16 prompt = named(s.prompt, s.keyword);
    UINT16 help = helpId(s.helpText);
    switch (s.opcode) {
      case EFI_IFR_SUBTITLE_OP:
        form.subtitle(prompt);
        return;
      case EFI_IFR_TEXT_OP:
        form.text(prompt, help, s.textTwo.empty() ? 0 : named(s.textTwo, s.textTwo));
        return;
      case EFI_IFR_ONE_OF_OP: {
        ifr::OneOf q(s.questionId, prompt, help, s.width);
        if (s.maximum) q.range(s.minimum, s.maximum, s.step);
        if (s.isSigned) q.display(EFI_IFR_DISPLAY_INT_DEC);
        form.oneOf(finish(q, s));
        return;
      }
      case EFI_IFR_CHECKBOX_OP: {
        ifr::Checkbox q(s.questionId, prompt, help);
        if (s.checkboxFlags & EFI_IFR_CHECKBOX_DEFAULT) q.defaultOn();
        if (s.checkboxFlags & EFI_IFR_CHECKBOX_DEFAULT_MFG) q.mfgDefaultOn();
        form.checkbox(finish(q, s));
        return;
      }
      case EFI_IFR_NUMERIC_OP: {
        ifr::Numeric q(s.questionId, prompt, help, s.width);
        q.range(s.minimum, s.maximum, s.step);
        if (s.isSigned) q.display(EFI_IFR_DISPLAY_INT_DEC);
        form.numeric(finish(q, s));
        return;
      }
      case EFI_IFR_PASSWORD_OP: {
        ifr::Password q(s.questionId, prompt, help, UINT16(s.minimum), UINT16(s.maximum));
        form.password(finish(q, s));
        return;
      }
      case EFI_IFR_STRING_OP: {
        ifr::String q(s.questionId, prompt, help, UINT8(s.minimum), UINT8(s.maximum));
        form.string(finish(q, s));
        return;
      }
      case EFI_IFR_ORDERED_LIST_OP: {
        ifr::OrderedList q(s.questionId, prompt, help, s.width, s.maxContainers);
        form.orderedList(finish(q, s));
        return;
      }
      case EFI_IFR_REF_OP: {
        ifr::Ref q(s.questionId, prompt, help);
        q.toForm(s.targetForm);
        form.ref(finish(q, s));
        return;
      }
      default:
        refuse(s, "opcode " + std::to_string(s.opcode) + " is not described");
    }
  }

  // Storage, flags, options, defaults and the locked tag of a question.
  template <typename Q>
  Q& finish(Q& q, const Statement& s) {
    if (s.varStore) q.store(s.varStore, s.offset);
    if (s.questionFlags) q.flags(s.questionFlags);
    for (const auto& o : s.options) addOption(q, s, o, named(o.text, o.keyword), 0);
    for (const auto& d : s.defaults) addDefault(q, s, d);
    if (s.isLocked) q.locked();
    return q;
  }

  template <typename Q>
  void addOption(Q& q, const Statement& s, const OptionDescription& o, UINT16 textId, size_t depth) {
    if constexpr (std::is_same_v<Q, ifr::OneOf> || std::is_same_v<Q, ifr::OrderedList>) {
      if (depth == o.conditions.size()) {
        q.option(textId, o.value, o.flags);
        return;
      }
      const Condition& c = o.conditions[depth];
      auto body = [&](Q& inner) { addOption(inner, s, o, textId, depth + 1); };
      switch (c.opcode) {
        case EFI_IFR_SUPPRESS_IF_OP: q.suppressIf(c.expr, body); break;
        case EFI_IFR_GRAY_OUT_IF_OP: q.grayOutIf(c.expr, body); break;
        case EFI_IFR_DISABLE_IF_OP: q.disableIf(c.expr, body); break;
        default: refuse(s, "unknown condition opcode around an option");
      }
    } else {
      (void)q, (void)o, (void)textId, (void)depth;
      refuse(s, "only one-of and ordered-list questions have options");
    }
  }

  template <typename Q>
  void addDefault(Q& q, const Statement& s, const DefaultDescription& d) {
    using K = DefaultDescription::Kind;
    if (d.kind == K::Expression) {
      q.defaultExpression(d.expr, d.store);
      return;
    }
    if constexpr (std::is_same_v<Q, ifr::OneOf> || std::is_same_v<Q, ifr::Numeric>) {
      if (d.kind == K::Number) {
        q.defaultValue(d.number, d.store);
        return;
      }
    } else if constexpr (std::is_same_v<Q, ifr::Checkbox>) {
      if (d.kind == K::Boolean) {
        q.defaultValue(d.number != 0, d.store);
        return;
      }
    } else if constexpr (std::is_same_v<Q, ifr::String>) {
      if (d.kind == K::Text) {
        q.defaultValue(named(d.text, d.text), d.store);
        return;
      }
    } else if constexpr (std::is_same_v<Q, ifr::OrderedList>) {
      if (d.kind == K::List) {
        q.defaultValue(d.list, d.store);
        return;
      }
    }
    refuse(s, "a default of this kind does not suit the question");
  }

  const DeviceDescription& device_;
  ifr::Strings strings_;
};

}  // namespace

// ---------------------------------------------------------------- conditions
Condition suppressIf(const ifr::Expr& expr) { return {EFI_IFR_SUPPRESS_IF_OP, expr}; }
Condition grayOutIf(const ifr::Expr& expr) { return {EFI_IFR_GRAY_OUT_IF_OP, expr}; }
Condition disableIf(const ifr::Expr& expr) { return {EFI_IFR_DISABLE_IF_OP, expr}; }

// ---------------------------------------------------------------- statements
Statement subtitle(const std::u16string& prompt, const std::u16string& keyword) {
  return make(EFI_IFR_SUBTITLE_OP, 0, prompt, keyword);
}
Statement text(const std::u16string& prompt, const std::u16string& keyword, const std::u16string& textTwo) {
  Statement s = make(EFI_IFR_TEXT_OP, 0, prompt, keyword);
  s.textTwo = textTwo;
  return s;
}
Statement oneOf(UINT16 questionId, const std::u16string& prompt, const std::u16string& keyword, Width width) {
  Statement s = make(EFI_IFR_ONE_OF_OP, questionId, prompt, keyword);
  s.width = width;
  return s;
}
Statement checkbox(UINT16 questionId, const std::u16string& prompt, const std::u16string& keyword) {
  return make(EFI_IFR_CHECKBOX_OP, questionId, prompt, keyword);
}
Statement numeric(UINT16 questionId, const std::u16string& prompt, const std::u16string& keyword, Width width) {
  Statement s = make(EFI_IFR_NUMERIC_OP, questionId, prompt, keyword);
  s.width = width;
  return s;
}
Statement string(UINT16 questionId, const std::u16string& prompt, const std::u16string& keyword, UINT8 minChars,
                 UINT8 maxChars) {
  Statement s = make(EFI_IFR_STRING_OP, questionId, prompt, keyword);
  s.minimum = minChars;
  s.maximum = maxChars;
  return s;
}
Statement password(UINT16 questionId, const std::u16string& prompt, const std::u16string& keyword, UINT16 minChars,
                   UINT16 maxChars) {
  Statement s = make(EFI_IFR_PASSWORD_OP, questionId, prompt, keyword);
  s.minimum = minChars;
  s.maximum = maxChars;
  return s;
}
Statement orderedList(UINT16 questionId, const std::u16string& prompt, const std::u16string& keyword,
                      Width elementWidth, UINT8 maxContainers) {
  Statement s = make(EFI_IFR_ORDERED_LIST_OP, questionId, prompt, keyword);
  s.width = elementWidth;
  s.maxContainers = maxContainers;
  return s;
}
Statement reference(UINT16 questionId, const std::u16string& prompt, const std::u16string& keyword, UINT16 formId) {
  Statement s = make(EFI_IFR_REF_OP, questionId, prompt, keyword);
  s.targetForm = formId;
  return s;
}

Statement& Statement::at(UINT16 store, UINT16 byteOffset) {
  varStore = store;
  offset = byteOffset;
  return *this;
}
Statement& Statement::help(const std::u16string& text) {
  helpText = text;
  return *this;
}
Statement& Statement::range(UINT64 min, UINT64 max, UINT64 stepBy) {
  minimum = min;
  maximum = max;
  step = stepBy;
  return *this;
}
Statement& Statement::signedRange(INT64 min, INT64 max, UINT64 stepBy) {
  isSigned = true;
  return range(UINT64(min) & widthMax(width), UINT64(max) & widthMax(width), stepBy);
}
Statement& Statement::option(const std::u16string& text, const std::u16string& kw, UINT64 v, UINT8 flags) {
  options.push_back({text, kw, v, flags, {}});
  return *this;
}
Statement& Statement::optionIf(const Condition& condition, const std::u16string& text, const std::u16string& kw,
                               UINT64 v, UINT8 flags) {
  options.push_back({text, kw, v, flags, {condition}});
  return *this;
}
Statement& Statement::defaultNumber(UINT64 v, UINT16 store) {
  DefaultDescription d;
  d.kind = DefaultDescription::Kind::Number;
  d.store = store;
  d.number = v;
  defaults.push_back(d);
  return *this;
}
Statement& Statement::defaultSigned(INT64 v, UINT16 store) {
  return defaultNumber(UINT64(v) & widthMax(width), store);
}
Statement& Statement::defaultBoolean(bool on, UINT16 store) {
  DefaultDescription d;
  d.kind = DefaultDescription::Kind::Boolean;
  d.store = store;
  d.number = on ? 1 : 0;
  defaults.push_back(d);
  return *this;
}
Statement& Statement::defaultText(const std::u16string& t, UINT16 store) {
  DefaultDescription d;
  d.kind = DefaultDescription::Kind::Text;
  d.store = store;
  d.text = t;
  defaults.push_back(d);
  return *this;
}
Statement& Statement::defaultList(const std::vector<UINT64>& elements, UINT16 store) {
  DefaultDescription d;
  d.kind = DefaultDescription::Kind::List;
  d.store = store;
  d.list = elements;
  defaults.push_back(d);
  return *this;
}
Statement& Statement::defaultExpression(const ifr::Expr& expr, UINT16 store) {
  DefaultDescription d;
  d.kind = DefaultDescription::Kind::Expression;
  d.store = store;
  d.expr = expr;
  defaults.push_back(d);
  return *this;
}
Statement& Statement::checkboxDefaults(bool standard, bool manufacturing) {
  checkboxFlags = UINT8((standard ? EFI_IFR_CHECKBOX_DEFAULT : 0) | (manufacturing ? EFI_IFR_CHECKBOX_DEFAULT_MFG : 0));
  return *this;
}
Statement& Statement::when(const Condition& condition) {
  conditions.push_back(condition);
  return *this;
}
Statement& Statement::readOnly() {
  questionFlags |= EFI_IFR_FLAG_READ_ONLY;
  return *this;
}
Statement& Statement::resetRequired() {
  questionFlags |= EFI_IFR_FLAG_RESET_REQUIRED;
  return *this;
}
Statement& Statement::locked() {
  isLocked = true;
  return *this;
}
Statement& Statement::value(UINT64 number) {
  current = {number};
  return *this;
}
Statement& Statement::signedValue(INT64 number) { return value(UINT64(number) & widthMax(width)); }
Statement& Statement::values(const std::vector<UINT64>& elements) {
  current = elements;
  return *this;
}
Statement& Statement::valueText(const std::u16string& t) {
  currentText = t;
  return *this;
}

size_t Statement::storageBytes() const {
  switch (opcode) {
    case EFI_IFR_ONE_OF_OP:
    case EFI_IFR_NUMERIC_OP:
      return ifr::widthBytes(width);
    case EFI_IFR_CHECKBOX_OP:
      return 1;
    case EFI_IFR_STRING_OP:
    case EFI_IFR_PASSWORD_OP:
      return size_t(maximum) * sizeof(char16_t);
    case EFI_IFR_ORDERED_LIST_OP:
      return size_t(maxContainers) * ifr::widthBytes(width);
    default:
      return 0;
  }
}

// ---------------------------------------------------------------- layout
namespace {

void validateFormSet(const FormSetDescription& fs) {
  std::set<UINT16> formIds, questionIds, storeIds;
  for (const auto& store : fs.varStores)
    if (store.id == 0 || !storeIds.insert(store.id).second)
      throw std::invalid_argument("variable store \"" + store.name + "\" has a zero or repeated id");
  for (const auto& form : fs.forms)
    if (!formIds.insert(form.id).second)
      throw std::invalid_argument("form " + std::to_string(form.id) + " is declared twice");
  // Which statement owns each byte of each store.
  std::map<UINT16, std::vector<const Statement*>> owners;
  for (const auto& store : fs.varStores) owners[store.id].assign(store.size, nullptr);
  for (const auto& form : fs.forms) {
    for (const auto& s : form.statements) {
      if (isQuestion(s.opcode) && (s.questionId == 0 || !questionIds.insert(s.questionId).second))
        refuse(s, "question id is zero or repeated");
      if (s.opcode == EFI_IFR_REF_OP && !formIds.count(s.targetForm)) refuse(s, "refers to a form that does not exist");
      checkCurrent(s);
      if (s.varStore == 0) {
        if (!s.current.empty() || !s.currentText.empty()) refuse(s, "has a current value but no storage");
        continue;
      }
      const VarStoreDescription* store = findStore(fs, s.varStore);
      if (!store) refuse(s, "names a variable store that does not exist");
      size_t bytes = s.storageBytes();
      if (bytes == 0) refuse(s, "a statement of this kind has no storage");
      if (size_t(s.offset) + bytes > store->size) refuse(s, "runs past the end of \"" + store->name + "\"");
      auto& map = owners[store->id];
      for (size_t i = s.offset; i < s.offset + bytes; ++i) {
        if (map[i]) refuse(s, "shares bytes of \"" + store->name + "\" with another question");
        map[i] = &s;
      }
    }
  }
}

}  // namespace

const FormSetDescription* DeviceDescription::findFormSet(const EFI_GUID& guid) const {
  for (const auto& fs : formSets)
    if (fs.guid == guid) return &fs;
  return nullptr;
}

void validate(const DeviceDescription& device) {
  if (device.languages.empty()) throw std::invalid_argument("the device names no language");
  std::set<std::string> languages;
  for (const auto& language : device.languages)
    if (language.empty() || !languages.insert(language).second)
      throw std::invalid_argument("language \"" + language + "\" is empty or named twice");
  for (const auto& [language, table] : device.translations)
    if (!languages.count(language) || language == "en-US" || language == "x-UEFI")
      throw std::invalid_argument("translation into \"" + language + "\", which is not a further language of the device");
  // Stores are the device's: one (GUID, name) belongs to one form set.
  std::vector<const VarStoreDescription*> stores;
  for (size_t i = 0; i < device.formSets.size(); ++i) {
    const FormSetDescription& fs = device.formSets[i];
    for (size_t j = 0; j < i; ++j)
      if (device.formSets[j].guid == fs.guid) throw std::invalid_argument("two form sets have the same GUID");
    for (const auto& store : fs.varStores) {
      for (const VarStoreDescription* other : stores)
        if (other->guid == store.guid && other->name == store.name)
          throw std::invalid_argument("variable store \"" + store.name + "\" is declared twice");
      stores.push_back(&store);
    }
    validateFormSet(fs);
  }
}

ifr::Bytes buildPackageList(const DeviceDescription& device) {
  validate(device);
  return Translator(device).packageList();
}

std::vector<UINT8> initialStorage(const FormSetDescription& formSet, const VarStoreDescription& store) {
  std::vector<UINT8> bytes(store.size, 0);
  auto put = [&](size_t at, UINT64 v, unsigned width) {
    for (unsigned i = 0; i < width && at + i < bytes.size(); ++i) bytes[at + i] = UINT8(v >> (8 * i));
  };
  for (const auto& form : formSet.forms) {
    for (const auto& s : form.statements) {
      if (s.varStore != store.id) continue;
      switch (s.opcode) {
        case EFI_IFR_ONE_OF_OP:
        case EFI_IFR_NUMERIC_OP:
        case EFI_IFR_CHECKBOX_OP:
          if (!s.current.empty()) put(s.offset, s.current[0], unsigned(s.storageBytes()));
          break;
        case EFI_IFR_ORDERED_LIST_OP: {
          unsigned w = ifr::widthBytes(s.width);
          for (size_t i = 0; i < s.current.size(); ++i) put(s.offset + i * w, s.current[i], w);
          break;
        }
        case EFI_IFR_STRING_OP:
          for (size_t i = 0; i < s.currentText.size(); ++i) put(s.offset + 2 * i, s.currentText[i], 2);
          break;
        default:
          break;  // passwords and statements keep zeros
      }
    }
  }
  return bytes;
}

}  // namespace tvl::host::sample
