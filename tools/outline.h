// The readable outline of the form-set records that the forms processor
// returns: form sets, forms and statements with their texts (read through
// the HII string protocol: prompts in "en-US", keyword texts in "x-UEFI"),
// values, options, defaults, limits, storage and state marks.
#pragma once

#include <ostream>
#include <string>

#include "export/records/records.h"

namespace tvl::cli {

class FormsOutline {
 public:
  FormsOutline(std::ostream& out, EFI_HII_STRING_PROTOCOL* strings) : out_(out), strings_(strings) {}

  // Every form set of a FormSetBuffer, indented by `indent` levels.
  void formSets(UINTN count, HII_FORMSET_RECORD* const* sets, int indent);

 private:
  void formSet(const HII_FORMSET_RECORD& fs, int indent);
  void form(const HII_FORMSET_RECORD& fs, const HII_FORM_RECORD& f, int indent);
  void statement(const HII_FORMSET_RECORD& fs, const HII_STATEMENT_RECORD& s, int indent);
  void options(const HII_STATEMENT_RECORD& s, int indent);
  void defaults(const HII_FORMSET_RECORD& fs, const HII_STATEMENT_RECORD& s, int indent);
  void storage(const HII_STATEMENT_RECORD& s, int indent);
  void marks(const HII_STATEMENT_RECORD& s, int indent);

  std::ostream& line(int indent);
  // The string of `id` in `language` from the current form set's package
  // list; false when it has none.
  bool fetch(UINT16 id, const char* language, std::u16string& text) const;
  // `"prompt" keyword "keyword text"`, each part only when it exists.
  std::string names(UINT16 id) const;
  std::string english(UINT16 id) const;  // quoted en-US text, or (string N missing)
  std::string currentValue(const HII_STATEMENT_RECORD& s) const;
  std::string defaultValue(const HII_STATEMENT_RECORD& s, const HII_DEFAULT_RECORD& d) const;
  std::string storeName(const HII_FORMSET_RECORD& fs, UINT16 defaultId) const;

  std::ostream& out_;
  EFI_HII_STRING_PROTOCOL* strings_;
  EFI_HII_HANDLE handle_ = nullptr;  // package list of the form set being printed
};

}  // namespace tvl::cli
