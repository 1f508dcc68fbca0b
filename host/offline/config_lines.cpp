#include "host/offline/config_lines.h"

namespace tvl::host::offline {
namespace {

[[noreturn]] void refuse(size_t line, size_t column, const std::string& message) {
  throw InputError("line " + std::to_string(line) + ", column " + std::to_string(column) + ": " + message);
}

// Where each configuration string of a line starts: at 0 and at every
// "&GUID=" (the '&' joins two strings and belongs to neither).
std::vector<size_t> stringStarts(std::u16string_view text) {
  std::vector<size_t> starts = {0};
  for (size_t at = text.find(u"&GUID="); at != std::u16string_view::npos; at = text.find(u"&GUID=", at + 1))
    starts.push_back(at + 1);
  return starts;
}

// The strings of line `number`, whose text starts in column `indent` + 1.
void parseLine(size_t number, size_t indent, std::u16string_view text, std::vector<ConfigEntry>& out) {
  const std::vector<size_t> starts = stringStarts(text);
  for (size_t i = 0; i < starts.size(); ++i) {
    const size_t begin = starts[i];
    const size_t end = i + 1 < starts.size() ? starts[i + 1] - 1 : text.size();
    const std::u16string_view piece = text.substr(begin, end - begin);
    hii::ConfigHeader header;
    hii::ConfigError error;
    if (hii::parseConfigHeader(piece, 0, header, &error) != EFI_SUCCESS)
      refuse(number, indent + begin + error.position + 1, error.message);
    if (piece.substr(header.end).rfind(u"&ALTCFG=", 0) == 0) continue;  // a default configuration
    ConfigEntry entry;
    entry.line = number;
    if (hii::parseConfigString(piece, hii::ConfigKind::Response, entry.config, &error) != EFI_SUCCESS)
      refuse(number, indent + begin + error.position + 1, error.message);
    out.push_back(std::move(entry));
  }
}

}  // namespace

std::vector<ConfigEntry> parseConfigLines(const std::string& text) {
  std::vector<ConfigEntry> entries;
  size_t number = 0;
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    ++number;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#') continue;
    const size_t last = line.find_last_not_of(" \t");
    for (size_t i = first; i <= last; ++i)
      if (static_cast<unsigned char>(line[i]) >= 0x80 || line[i] < 0x20)
        refuse(number, i + 1, "a character outside printable ASCII");
    std::u16string wide = hii::toUtf16(std::string_view(line).substr(first, last + 1 - first));
    parseLine(number, first, wide, entries);
  }
  return entries;
}

}  // namespace tvl::host::offline
