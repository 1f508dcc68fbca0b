#include "host/ifr/strings.h"

#include <stdexcept>

#include "host/hii/package_list.h"
#include "host/hii/string_package.h"

namespace tvl::host::ifr {

Strings::Strings(std::vector<std::string> languages) {
  for (const std::string& language : languages) languageIndex(language);
}

size_t Strings::languageIndex(const std::string& language) {
  if (language.empty()) throw std::invalid_argument("empty language tag");
  for (size_t i = 0; i < languages_.size(); ++i)
    if (languages_[i] == language) return i;
  languages_.push_back(language);
  texts_.emplace_back();
  return languages_.size() - 1;
}

UINT16 Strings::add(const Texts& texts) {
  if (lastId_ == 0xFFFF) throw std::invalid_argument("string ids exhausted");
  UINT16 id = UINT16(lastId_ + 1);
  std::vector<size_t> seen;
  for (const auto& [language, text] : texts) {
    size_t index = languageIndex(language);
    for (size_t s : seen)
      if (s == index) throw std::invalid_argument("language " + language + " named twice for one string");
    seen.push_back(index);
    std::vector<Entry>& column = texts_[index];
    column.resize(id);
    column[id - 1] = Entry{true, text};
  }
  lastId_ = id;
  return id;
}

UINT16 Strings::add(const std::u16string& text) {
  Texts texts;
  for (const std::string& language : languages_) texts.emplace_back(language, text);
  return add(texts);
}

const std::u16string* Strings::find(const std::string& language, UINT16 id) const {
  for (size_t i = 0; i < languages_.size(); ++i) {
    if (languages_[i] != language) continue;
    if (id == 0 || id > texts_[i].size() || !texts_[i][id - 1].defined) return nullptr;
    return &texts_[i][id - 1].text;
  }
  return nullptr;
}

std::vector<Bytes> Strings::packages() const {
  std::vector<Bytes> out;
  for (size_t i = 0; i < languages_.size(); ++i) {
    hii::StringPackage package;
    package.language = languages_[i];
    for (const Entry& e : texts_[i]) {
      hii::StringEntry entry;
      entry.defined = e.defined;
      entry.text = e.text;
      package.strings.push_back(std::move(entry));
    }
    out.push_back(hii::serializeStringPackage(package));
  }
  return out;
}

Bytes packageList(const EFI_GUID& guid, const std::vector<Bytes>& formsPackages, const Strings& strings) {
  std::vector<Bytes> packages = formsPackages;
  for (Bytes& p : strings.packages()) packages.push_back(std::move(p));
  return hii::buildPackageList(guid, packages);
}

}  // namespace tvl::host::ifr
