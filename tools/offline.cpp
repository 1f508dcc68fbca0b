// Files of exported package lists on the command line: reading them into
// the offline platform and choosing one of their package lists.
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>

#include "host/offline/offline_platform.h"
#include "tools/cli.h"

namespace tvl::cli {

using host::offline::OfflinePlatform;

std::vector<UINT8> readFile(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) badInput("cannot read " + file + ": " + std::strerror(errno));
  std::vector<UINT8> bytes((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
  if (stream.bad()) badInput("cannot read " + file + ": " + std::strerror(errno));
  return bytes;
}

std::unique_ptr<OfflinePlatform> loadOffline(const std::string& file) {
  std::vector<UINT8> bytes = readFile(file);
  std::unique_ptr<OfflinePlatform> offline;
  try {
    offline = std::make_unique<OfflinePlatform>(bytes, poolMode());
  } catch (const host::offline::InputError& e) {
    badInput(file + ": " + e.what());
  } catch (const std::runtime_error& e) {
    failure(e.what());
  }
  for (const std::string& warning : offline->warnings())
    std::cerr << "tolvane: warning: " << file << ": " << warning << "\n";
  bool anyForms = false;
  for (const auto& list : offline->lists()) anyForms = anyForms || list.file.hasForms;
  if (!anyForms) badInput(file + ": no package list holds a FORMS package");
  return offline;
}

std::string describeList(OfflinePlatform& offline, size_t index) {
  std::string text = offline.lists().at(index).name(index);
  std::string why;
  std::vector<host::offline::FormSetSummary> sets = offline.formSets(index, &why);
  for (size_t i = 0; i < sets.size(); ++i)
    text += std::string(i ? ", " : sets.size() == 1 ? " with form set " : " with form sets ") + quoted(sets[i].title) +
            " {" + guidText(sets[i].guid) + "}";
  return text;
}

size_t choosePackageList(OfflinePlatform& offline, const std::string& file, const std::string& number) {
  auto& lists = offline.lists();
  std::vector<size_t> withForms;
  for (size_t i = 0; i < lists.size(); ++i)
    if (lists[i].file.hasForms) withForms.push_back(i);
  if (!number.empty()) {
    size_t n = 0;
    if (number.find_first_not_of("0123456789") != std::string::npos || number.size() > 6 ||
        (n = std::stoul(number)) < 1 || n > lists.size())
      badInput("--package-list " + number + ": " + file + " holds package lists 1 to " + std::to_string(lists.size()));
    if (!lists[n - 1].file.hasForms)
      badInput("--package-list " + number + ": " + lists[n - 1].name(n - 1) + " holds no forms");
    return n - 1;
  }
  if (withForms.size() == 1) return withForms.front();
  std::string listing;
  for (size_t i : withForms) {
    listing += "\n  " + std::to_string(i + 1) + ": GUID " + guidText(lists[i].file.guid) + ", device path " +
               utf8(offline.devicePathText(i)) + (lists[i].madeDevicePath ? " (made for it)" : "");
    std::string why;
    std::vector<host::offline::FormSetSummary> sets = offline.formSets(i, &why);
    for (const auto& set : sets) listing += "\n       form set " + quoted(set.title) + " {" + guidText(set.guid) + "}";
    if (sets.empty()) listing += "\n       its forms cannot be read: " + why;
  }
  badInput(file + ": " + std::to_string(withForms.size()) +
           " package lists hold forms; choose one with --package-list N:" + listing);
}

}  // namespace tvl::cli
