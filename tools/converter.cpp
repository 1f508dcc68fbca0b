#include "tools/converter.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace tvl::cli {
namespace {

using host::sample::SamplePlatform;
using host::sample::statusText;

struct LevelName {
  const char* name;
  UINTN mask;
};

constexpr LevelName kLevelNames[] = {
    {"failure", TVL_LEVEL_FAILURE}, {"progress", TVL_LEVEL_PROGRESS}, {"finding", TVL_LEVEL_FINDING},
    {"toolbox", TVL_LEVEL_TOOLBOX}, {"all", ~UINTN(0)},
};

std::string lowerAscii(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
  return text;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

bool parseHexMask(const std::string& text, UINTN* mask) {
  std::string digits = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0 ? text.substr(2) : text;
  if (digits.empty() || digits.size() > 16) return false;
  UINTN value = 0;
  for (char c : digits) {
    int d = hexDigit(c);
    if (d < 0) return false;
    value = (value << 4) | UINTN(d);
  }
  *mask = value;
  return true;
}

void appendUtf8(std::string& out, uint32_t c) {
  if (c < 0x80) {
    out += char(c);
  } else if (c < 0x800) {
    out += char(0xC0 | (c >> 6));
    out += char(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += char(0xE0 | (c >> 12));
    out += char(0x80 | ((c >> 6) & 0x3F));
    out += char(0x80 | (c & 0x3F));
  } else {
    out += char(0xF0 | (c >> 18));
    out += char(0x80 | ((c >> 12) & 0x3F));
    out += char(0x80 | ((c >> 6) & 0x3F));
    out += char(0x80 | (c & 0x3F));
  }
}

}  // namespace

UINTN parseTraceLevels(const std::string& text) {
  UINTN mask = 0;
  if (parseHexMask(text, &mask)) return mask;
  size_t start = 0;
  for (;;) {
    size_t comma = text.find(',', start);
    std::string word = lowerAscii(text.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
    const LevelName* found = nullptr;
    for (const LevelName& l : kLevelNames)
      if (word == l.name) found = &l;
    if (!found) {
      std::string names;
      for (const LevelName& l : kLevelNames) names += (names.empty() ? "" : ", ") + std::string(l.name);
      badInput("--trace: '" + (word.empty() ? text : word) + "' is neither a hexadecimal mask nor a level (" + names +
               ")");
    }
    mask |= found->mask;
    if (comma == std::string::npos) return mask;
    start = comma + 1;
  }
}

TraceRoute::TraceRoute(DEBUG_LOG_PROTOCOL* log, UINTN mask, std::ostream* to) : log_(log), to_(to) {
  if (!log_) failure("the sample platform has no log service");
  EFI_STATUS status = log_->SetLevelMask(log_, to_ ? mask : 0);
  if (status == EFI_SUCCESS) status = log_->RegisterSink(log_, &TraceRoute::sink, this);
  if (status != EFI_SUCCESS) failure("the log service refuses a trace sink: " + statusText(status));
}

TraceRoute::~TraceRoute() { log_->UnregisterSink(log_, &TraceRoute::sink, this); }

VOID EFIAPI TraceRoute::sink(VOID* context, UINTN, const CHAR8* function, const CHAR16* line) {
  auto* self = static_cast<TraceRoute*>(context);
  if (!self->to_) return;
  std::string text = utf8(line ? std::u16string(reinterpret_cast<const char16_t*>(line)) : std::u16string());
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  *self->to_ << (function ? function : "(unnamed)") << ": " << text << "\n";
}

TOLVANE_PROTOCOL* loadConverter(SamplePlatform& sample, EFI_HANDLE* image) {
  EFI_HANDLE driver = nullptr;
  EFI_STATUS entry = sample.loadDriver(&driver);
  if (image) *image = driver;
  if (entry != EFI_SUCCESS) failure("the driver's entry failed with " + statusText(entry));
  std::vector<EFI_HANDLE> carriers = sample.platform().handlesWith(gTolvaneProtocolGuid);
  if (carriers.empty()) failure("the driver's entry succeeded but no converter protocol is installed");
  return static_cast<TOLVANE_PROTOCOL*>(sample.platform().handleProtocol(carriers.front(), gTolvaneProtocolGuid));
}

void parseDocument(SamplePlatform& sample, const std::string& file, Tree& tree) {
  const std::vector<UINT8> bytes = readFile(file);
  XML_PROTOCOL* xml = sample.xml();
  XML_PARSE_ERROR error{};
  EFI_STATUS status =
      xml->XML_ParseText(xml, reinterpret_cast<const CHAR8*>(bytes.data()), bytes.size(), &tree.root, &error);
  if (status == EFI_OUT_OF_RESOURCES) failure(file + ": the XML service ran out of memory");
  if (status != EFI_SUCCESS || !tree.root)
    badInput(file + ": line " + std::to_string(error.Line) + ", column " + std::to_string(error.Column) + ": " +
             (error.Message[0] ? std::string(error.Message) : "not an XML document (" + statusText(status) + ")"));
}

std::string serialise(SamplePlatform& sample, XML_NODE* root) {
  PoolText text(sample.platform());
  XML_PROTOCOL* xml = sample.xml();
  EFI_STATUS status = xml->XML_NodeToXML(xml, root, &text.text);
  if (status != EFI_SUCCESS || !text.text) failure("XML_NodeToXML failed: " + statusText(status));
  return std::string(text.text) + "\n";
}

void writeDocument(const std::string& file, const std::string& document, std::ostream& out, bool quiet) {
  if (file.empty()) {
    out << document;
    return;
  }
  std::ofstream stream(file, std::ios::binary | std::ios::trunc);
  if (!stream) failure("cannot create " + file + ": " + std::strerror(errno));
  stream << document;
  stream.close();
  if (!stream) failure("cannot write " + file + ": " + std::strerror(errno));
  if (!quiet) out << "wrote " << document.size() << " bytes to " << file << "\n";
}

std::string contents(const XML_NODE* node) { return node && node->contents ? node->contents : ""; }

std::string attribute(const XML_NODE* node, const char* name) {
  for (const XML_ATTRIBUTE* a = node ? node->attributes : nullptr; a; a = a->next)
    if (a->name && std::strcmp(a->name, name) == 0) return a->value ? a->value : "";
  return {};
}

XML_NODE* child(const XML_NODE* node, const char* name) {
  for (XML_NODE* c = node ? node->children : nullptr; c; c = c->next)
    if (c->name && std::strcmp(c->name, name) == 0) return c;
  return nullptr;
}

XML_NODE* findElement(XML_NODE* node, const char* name) {
  // Depth first without recursion: documents may be deep or wide.
  XML_NODE* start = node;
  while (node) {
    if (node->name && std::strcmp(node->name, name) == 0) return node;
    if (node->children) {
      node = node->children;
      continue;
    }
    while (node && node != start && !node->next) node = node->parent;
    if (!node || node == start) return nullptr;
    node = node->next;
  }
  return nullptr;
}

void setContents(host::Platform& platform, XML_NODE* node, const std::string& text) {
  void* copy = nullptr;
  if (platform.bootServices()->AllocatePool(EfiBootServicesData, text.size() + 1, &copy) != EFI_SUCCESS)
    failure("the pool is out of memory");
  std::memcpy(copy, text.c_str(), text.size() + 1);
  if (node->contents) platform.bootServices()->FreePool(node->contents);
  node->contents = static_cast<CHAR8*>(copy);
}

std::string unescapeXml(const std::string& text) {
  static const struct {
    const char* name;
    char c;
  } kEntities[] = {{"amp;", '&'}, {"lt;", '<'}, {"gt;", '>'}, {"quot;", '"'}, {"apos;", '\''}};
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '&') {
      out += text[i];
      continue;
    }
    bool done = false;
    for (const auto& e : kEntities)
      if (text.compare(i + 1, std::strlen(e.name), e.name) == 0) {
        out += e.c;
        i += std::strlen(e.name);
        done = true;
        break;
      }
    size_t semicolon = text.find(';', i);
    if (!done && text.compare(i, 2, "&#") == 0 && semicolon != std::string::npos && semicolon - i <= 10) {
      const bool hexadecimal = i + 2 < text.size() && (text[i + 2] == 'x' || text[i + 2] == 'X');
      uint32_t value = 0;
      bool valid = semicolon > i + 2 + (hexadecimal ? 1 : 0);
      for (size_t k = i + 2 + (hexadecimal ? 1 : 0); valid && k < semicolon; ++k) {
        int d = hexadecimal ? hexDigit(text[k]) : text[k] >= '0' && text[k] <= '9' ? text[k] - '0' : -1;
        valid = d >= 0 && value <= 0x10FFFF;
        value = value * (hexadecimal ? 16 : 10) + uint32_t(d);
      }
      if (valid && value <= 0x10FFFF) {
        appendUtf8(out, value);
        i = semicolon;
        done = true;
      }
    }
    if (!done) out += '&';
  }
  return out;
}

std::string escapeXml(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '&')
      out += "&amp;";
    else if (c == '<')
      out += "&lt;";
    else if (c == '>')
      out += "&gt;";
    else
      out += c;
  }
  return out;
}

}  // namespace tvl::cli
