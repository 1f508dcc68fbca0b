// String ids for forms under construction, and the package list that
// carries a form set with its strings.
//
// `Strings` hands out string ids in order (1, 2, ...), each id naming one
// text per language: the prompt shown to users in "en-US" and its keyword
// text in "x-UEFI", for example. A language that has no text for an id
// leaves that id undefined in its string package (a SKIP block), as a
// string-gathering tool does for a string missing in one language.
#pragma once

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "host/ifr/ifr_builder.h"

namespace tvl::host::ifr {

class Strings {
 public:
  using Texts = std::vector<std::pair<std::string, std::u16string>>;

  // `languages` fixes the order of the string packages; a language first
  // named in `add` is appended.
  explicit Strings(std::vector<std::string> languages = {});

  // The next id, holding `texts` (language, text). Throws when a language
  // is named twice or the ids run out.
  UINT16 add(const Texts& texts);
  UINT16 add(std::initializer_list<std::pair<std::string, std::u16string>> texts) { return add(Texts(texts)); }
  // The next id, holding `text` in every language known so far.
  UINT16 add(const std::u16string& text);

  const std::vector<std::string>& languages() const { return languages_; }
  // The last id handed out (0 before the first).
  UINT16 lastId() const { return lastId_; }
  // The text of `id` in `language`, or null when it has none.
  const std::u16string* find(const std::string& language, UINT16 id) const;

  // One EFI_HII_PACKAGE_STRINGS per language, in language order.
  std::vector<Bytes> packages() const;

 private:
  size_t languageIndex(const std::string& language);

  std::vector<std::string> languages_;
  // texts_[language][id - 1]; `defined` false where the language has none.
  struct Entry {
    bool defined = false;
    std::u16string text;
  };
  std::vector<std::vector<Entry>> texts_;
  UINT16 lastId_ = 0;
};

// A package list: EFI_HII_PACKAGE_LIST_HEADER with `guid`, the forms
// packages in order, one string package per language, the END package.
Bytes packageList(const EFI_GUID& guid, const std::vector<Bytes>& formsPackages, const Strings& strings);
inline Bytes packageList(const EFI_GUID& guid, const FormSetBuilder& formSet, const Strings& strings) {
  return packageList(guid, std::vector<Bytes>{formSet.package()}, strings);
}

}  // namespace tvl::host::ifr
