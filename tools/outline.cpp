#include "tools/outline.h"

#include <vector>

#include "host/ifr/ifr_dump.h"
#include "tools/cli.h"

namespace tvl::cli {
namespace {

constexpr const char* kEnglish = "en-US";
constexpr const char* kKeywords = "x-UEFI";

UINT16 u16At(const UINT8* bytes) { return UINT16(bytes[0] | (bytes[1] << 8)); }

std::string numberText(const HII_VALUE& v) {
  return std::to_string(hiiValueNumber(v, hiiNumberWidth(v.Type)));
}

const char* widthName(UINT8 sizeCode) {
  static const char* const kNames[] = {"u8", "u16", "u32", "u64"};
  return sizeCode < 4 ? kNames[sizeCode] : "?";
}

// Elements of `width` bytes from `bytes`, as "[a, b, c]".
std::string elementList(const UINT8* bytes, size_t size, size_t width) {
  std::string text = "[";
  for (size_t at = 0; width && at + width <= size; at += width) {
    UINT64 n = 0;
    for (size_t i = width; i-- > 0;) n = (n << 8) | bytes[at + i];
    text += (at ? ", " : "") + std::to_string(n);
  }
  return text + "]";
}

// A scalar value of any type the forms processor produces.
std::string scalarText(const HII_VALUE& v) {
  switch (v.Type) {
    case EFI_IFR_TYPE_NUM_SIZE_8:
    case EFI_IFR_TYPE_NUM_SIZE_16:
    case EFI_IFR_TYPE_NUM_SIZE_32:
    case EFI_IFR_TYPE_NUM_SIZE_64:
      return numberText(v);
    case EFI_IFR_TYPE_BOOLEAN:
      return v.Value[0] ? "true" : "false";
    case EFI_IFR_TYPE_UNDEFINED:
      return "undefined";
    default:
      return "(value of type " + std::to_string(v.Type) + ")";
  }
}

std::string onOff(UINT8 flag) { return flag ? "on" : "off"; }

}  // namespace

std::ostream& FormsOutline::line(int indent) { return out_ << std::string(size_t(indent) * 2, ' '); }

bool FormsOutline::fetch(UINT16 id, const char* language, std::u16string& text) const {
  if (id == 0 || !strings_ || !handle_) return false;
  UINTN size = 0;
  EFI_STATUS status = strings_->GetString(strings_, language, handle_, id, nullptr, &size, nullptr);
  if (status != EFI_BUFFER_TOO_SMALL || size == 0) return false;
  std::vector<CHAR16> buffer(size / sizeof(CHAR16) + 1, 0);
  if (strings_->GetString(strings_, language, handle_, id, buffer.data(), &size, nullptr) != EFI_SUCCESS) return false;
  text.assign(buffer.data());
  return true;
}

std::string FormsOutline::english(UINT16 id) const {
  std::u16string text;
  if (fetch(id, kEnglish, text)) return quoted(text);
  return id ? "(string " + std::to_string(id) + " missing)" : "(none)";
}

std::string FormsOutline::names(UINT16 id) const {
  std::u16string prompt, keyword;
  std::string s = fetch(id, kEnglish, prompt) ? quoted(prompt) : "(no en-US text)";
  if (fetch(id, kKeywords, keyword)) s += " keyword " + quoted(keyword);
  return s;
}

std::string FormsOutline::storeName(const HII_FORMSET_RECORD& fs, UINT16 defaultId) const {
  for (UINT64 i = 0; i < fs.DefaultStoreCount; ++i) {
    const HII_DEFAULTSTORE_RECORD* store = fs.DefaultStores[i];
    if (store->DefaultId == defaultId) return hex(defaultId, 4) + " " + english(store->DefaultName);
  }
  return hex(defaultId, 4) + " (undeclared store)";
}

void FormsOutline::formSets(UINTN count, HII_FORMSET_RECORD* const* sets, int indent) {
  for (UINTN i = 0; i < count; ++i) formSet(*sets[i], indent);
}

void FormsOutline::formSet(const HII_FORMSET_RECORD& fs, int indent) {
  handle_ = fs.HiiHandle;
  line(indent) << "FormSet " << guidText(fs.Guid) << " " << names(fs.FormSetTitle) << "\n";
  ++indent;
  line(indent) << "help: " << english(fs.FormSetHelp) << "\n";
  std::string languages;
  for (UINT64 i = 0; i < fs.NumberOfLanguages; ++i) languages += (i ? ", " : "") + std::string(fs.Languages[i]);
  line(indent) << "languages: " << (languages.empty() ? "(none)" : languages) << "\n";
  for (UINT64 i = 0; i < fs.DefaultStoreCount; ++i) {
    const HII_DEFAULTSTORE_RECORD& d = *fs.DefaultStores[i];
    line(indent) << "default store " << hex(d.DefaultId, 4) << " " << english(d.DefaultName) << "\n";
  }
  for (UINT64 i = 0; i < fs.VarStoreBufferCount; ++i) {
    const HII_VARSTORE_RECORD& v = *fs.VarStoreBuffer[i];
    line(indent) << "varstore " << v.VarStoreId << " ";
    switch (v.StoreType) {
      case EFI_IFR_VARSTORE_OP: out_ << "buffer"; break;
      case EFI_IFR_VARSTORE_EFI_OP: out_ << "efi-variable"; break;
      case EFI_IFR_VARSTORE_NAME_VALUE_OP: out_ << "name/value"; break;
      default: out_ << "type " << hex(v.StoreType, 2);
    }
    out_ << " " << quoted(v.Name ? std::u16string(v.Name) : std::u16string()) << " size " << v.Size << " GUID "
         << guidText(v.Guid);
    if (v.StoreType == EFI_IFR_VARSTORE_EFI_OP) out_ << " attributes " << hex(v.Attributes);
    out_ << "\n";
    line(indent + 1) << "ConfigHdr " << (v.ConfigHdr ? utf8(v.ConfigHdr) : std::string("(none)")) << "\n";
  }
  for (UINT64 i = 0; i < fs.FormCount; ++i) form(fs, *fs.Forms[i], indent);
}

void FormsOutline::form(const HII_FORMSET_RECORD& fs, const HII_FORM_RECORD& f, int indent) {
  line(indent) << "Form " << f.FormId << " " << names(f.FormTitle) << " (" << f.StatementCount << " statements)\n";
  for (UINT64 i = 0; i < f.StatementCount; ++i) statement(fs, *f.Statements[i], indent + 1);
}

void FormsOutline::statement(const HII_FORMSET_RECORD& fs, const HII_STATEMENT_RECORD& s, int indent) {
  line(indent) << host::ifr::opcodeName(s.Operand) << " " << names(s.Prompt);
  if (s.QuestionId) out_ << " (question " << hex(s.QuestionId, 4) << ")";
  out_ << "\n";
  ++indent;
  if (s.Help) line(indent) << "help: " << english(s.Help) << "\n";
  if (s.Operand == EFI_IFR_TEXT_OP && s.TextTwo) line(indent) << "text two: " << english(s.TextTwo) << "\n";
  std::string value = currentValue(s);
  if (!value.empty()) line(indent) << "value: " << value << "\n";
  switch (s.Operand) {
    case EFI_IFR_NUMERIC_OP:
      line(indent) << "range: min " << s.Minimum << " max " << s.Maximum << " step " << s.Step << "\n";
      break;
    case EFI_IFR_STRING_OP:
    case EFI_IFR_PASSWORD_OP:
      line(indent) << "length: min " << s.Minimum << " max " << s.Maximum << " characters\n";
      break;
    case EFI_IFR_CHECKBOX_OP:
      line(indent) << "checkbox defaults: standard " << onOff(s.CheckboxDefault) << ", manufacturing "
                   << onOff(s.CheckboxDefaultMfg) << "\n";
      break;
    default:
      break;
  }
  options(s, indent);
  defaults(fs, s, indent);
  storage(s, indent);
  marks(s, indent);
}

std::string FormsOutline::currentValue(const HII_STATEMENT_RECORD& s) const {
  const HII_VALUE& v = s.HiiValue;
  switch (s.Operand) {
    case EFI_IFR_ONE_OF_OP: {
      std::string text = numberText(v);
      UINT64 n = hiiValueNumber(v, hiiNumberWidth(v.Type));
      for (UINT64 i = 0; i < s.OptionCount; ++i) {
        const HII_VALUE& o = s.Options[i]->Value;
        if (hiiValueNumber(o, hiiNumberWidth(o.Type)) == n) return text + " (" + english(s.Options[i]->OptionText) + ")";
      }
      return text + " (no option has this value)";
    }
    case EFI_IFR_NUMERIC_OP:
      return numberText(v);
    case EFI_IFR_CHECKBOX_OP:
      return v.Value[0] ? "1 (on)" : "0 (off)";
    case EFI_IFR_STRING_OP:
    case EFI_IFR_PASSWORD_OP: {
      std::u16string text;
      if (v.Buffer)
        for (size_t i = 0; i + 1 < s.StorageWidth && (v.Buffer[i] | v.Buffer[i + 1]); i += 2)
          text += char16_t(u16At(v.Buffer + i));
      return quoted(text);
    }
    case EFI_IFR_ORDERED_LIST_OP:
      return v.Buffer ? elementList(v.Buffer, s.StorageWidth, hiiNumberWidth(s.ValueType)) : "(no buffer)";
    case EFI_IFR_REF_OP:
      return "form " + std::to_string(u16At(v.Value + 2)) + ", question " + std::to_string(u16At(v.Value));
    default:
      return {};
  }
}

void FormsOutline::options(const HII_STATEMENT_RECORD& s, int indent) {
  for (UINT64 i = 0; i < s.OptionCount; ++i) {
    const HII_OPTION_RECORD& o = *s.Options[i];
    line(indent) << "option " << names(o.OptionText) << " value " << numberText(o.Value)
                 << (o.OptionIsDefault ? " default" : "") << (o.OptionSuppressed == 1 ? " suppressed" : "") << "\n";
  }
}

std::string FormsOutline::defaultValue(const HII_STATEMENT_RECORD& s, const HII_DEFAULT_RECORD& d) const {
  const HII_VALUE& v = d.Value;
  switch (v.Type) {
    case EFI_IFR_TYPE_OTHER:
      return d.ValueExpression ? "expression = " + scalarText(d.ValueExpression->Result) : "expression (not evaluated)";
    case EFI_IFR_TYPE_STRING:
      return english(u16At(v.Value));
    case EFI_IFR_TYPE_BUFFER: {
      // The record keeps the first bytes of a buffer default.
      size_t size = s.StorageWidth < sizeof(v.Value) ? s.StorageWidth : sizeof(v.Value);
      return elementList(v.Value, size, hiiNumberWidth(s.ValueType));
    }
    default:
      return scalarText(v);
  }
}

void FormsOutline::defaults(const HII_FORMSET_RECORD& fs, const HII_STATEMENT_RECORD& s, int indent) {
  for (UINT64 i = 0; i < s.DefaultCount; ++i) {
    const HII_DEFAULT_RECORD& d = *s.Defaults[i];
    line(indent) << "default " << storeName(fs, d.DefaultId) << ": " << defaultValue(s, d) << "\n";
  }
}

void FormsOutline::storage(const HII_STATEMENT_RECORD& s, int indent) {
  if (!s.VarStore && !s.BlockName) return;
  line(indent) << "storage:";
  if (s.VarStore)
    out_ << " varstore " << s.VarStore->VarStoreId << " "
         << quoted(s.VarStore->Name ? std::u16string(s.VarStore->Name) : std::u16string());
  out_ << " block " << (s.BlockName ? utf8(s.BlockName) : std::string("(none)")) << " width " << s.StorageWidth;
  switch (s.Operand) {
    case EFI_IFR_ONE_OF_OP:
    case EFI_IFR_NUMERIC_OP:
      out_ << " (" << widthName(s.ValueType) << ")";
      break;
    case EFI_IFR_ORDERED_LIST_OP:
      out_ << " (elements " << widthName(s.ValueType) << ")";
      break;
    default:
      break;
  }
  out_ << "\n";
}

void FormsOutline::marks(const HII_STATEMENT_RECORD& s, int indent) {
  std::string list;
  auto add = [&list](bool on, const char* name) {
    if (on) list += (list.empty() ? "" : ", ") + std::string(name);
  };
  add(s.DisabledMark == 1, "disabled");
  add(s.SuppressedMark == 1, "suppressed");
  add(s.ReadOnlyMark == 1, "read-only");
  add(s.ReadOnlyFlag != 0, "read-only flag");
  add(s.LockedFlag != 0, "locked");
  if (s.ReadOnlyCondition) {
    const HII_VALUE& r = s.ReadOnlyCondition->Result;
    bool holds = r.Type == EFI_IFR_TYPE_BOOLEAN && r.Value[0] == 1;
    add(true, holds ? "read-only condition (true)" : "read-only condition (false)");
  }
  add(s.ResetRequired != 0, "reset required");
  if (!list.empty()) line(indent) << "marks: " << list << "\n";
}

}  // namespace tvl::cli
