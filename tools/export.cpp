// `tolvane export`: the configuration documents of one sample device, as the
// converter's HiiToNode makes them, written as XML.
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>

#include "host/sample/sample_platform.h"
#include "host/sample/sample_state.h"
#include "tools/cli.h"

namespace tvl::cli {
namespace {

using host::sample::SampleDevice;
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

bool parseHexMask(const std::string& text, UINTN* mask) {
  std::string digits = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0 ? text.substr(2) : text;
  if (digits.empty() || digits.size() > 16) return false;
  UINTN value = 0;
  for (char c : digits) {
    int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
    if (d < 0) return false;
    value = (value << 4) | UINTN(d);
  }
  *mask = value;
  return true;
}

// "--trace" takes a hexadecimal mask ("0x80800000", "80") or level names
// separated by commas ("failure,progress").
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

// Receives the log service's lines while the command runs; --trace sends
// them to standard error as "function: text". Without --trace the mask is 0
// so nothing reaches the platform console, whose echo would otherwise mix
// the driver's lines into a document written to standard output.
class TraceRoute {
 public:
  TraceRoute(DEBUG_LOG_PROTOCOL* log, UINTN mask, std::ostream* to) : log_(log), to_(to) {
    if (!log_) failure("the sample platform has no log service");
    EFI_STATUS status = log_->SetLevelMask(log_, to_ ? mask : 0);
    if (status == EFI_SUCCESS) status = log_->RegisterSink(log_, &TraceRoute::sink, this);
    if (status != EFI_SUCCESS) failure("the log service refuses a trace sink: " + statusText(status));
  }
  ~TraceRoute() { log_->UnregisterSink(log_, &TraceRoute::sink, this); }
  TraceRoute(const TraceRoute&) = delete;
  TraceRoute& operator=(const TraceRoute&) = delete;

 private:
  static VOID EFIAPI sink(VOID* context, UINTN, const CHAR8* function, const CHAR16* line) {
    auto* self = static_cast<TraceRoute*>(context);
    if (!self->to_) return;
    std::string text = utf8(line ? std::u16string(reinterpret_cast<const char16_t*>(line)) : std::u16string());
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    *self->to_ << (function ? function : "(unnamed)") << ": " << text << "\n";
  }

  DEBUG_LOG_PROTOCOL* log_;
  std::ostream* to_;
};

// A document tree handed out by the driver, freed through the XML service.
class Tree {
 public:
  explicit Tree(XML_PROTOCOL* xml) : xml_(xml) {}
  ~Tree() {
    if (root) xml_->XML_FreeNode(xml_, root);
  }
  Tree(const Tree&) = delete;
  Tree& operator=(const Tree&) = delete;

  XML_NODE* root = nullptr;

 private:
  XML_PROTOCOL* xml_;
};

// A pool text handed out by the XML service.
class PoolText {
 public:
  explicit PoolText(host::Platform& platform) : platform_(platform) {}
  ~PoolText() {
    if (text) platform_.bootServices()->FreePool(text);
  }
  PoolText(const PoolText&) = delete;
  PoolText& operator=(const PoolText&) = delete;

  CHAR8* text = nullptr;

 private:
  host::Platform& platform_;
};

SampleDevice& chooseDevice(SamplePlatform& sample, const std::string& fqdd) {
  if (!fqdd.empty()) return *selectDevices(sample, fqdd).front();
  if (sample.devices().size() == 1) return sample.devices().front();
  std::string known;
  for (auto& d : sample.devices()) known += (known.empty() ? "" : ", ") + utf8(d.fqdd());
  badInput("name the device with --device FQDD; known devices: " + known);
}

TOLVANE_PROTOCOL* loadConverter(SamplePlatform& sample) {
  EFI_HANDLE driver = nullptr;
  EFI_STATUS entry = sample.loadDriver(&driver);
  if (entry != EFI_SUCCESS) failure("the driver's entry failed with " + statusText(entry));
  std::vector<EFI_HANDLE> carriers = sample.platform().handlesWith(gTolvaneProtocolGuid);
  if (carriers.empty()) failure("the driver's entry succeeded but no converter protocol is installed");
  return static_cast<TOLVANE_PROTOCOL*>(sample.platform().handleProtocol(carriers.front(), gTolvaneProtocolGuid));
}

void writeDocument(const std::string& file, const std::string& document, std::ostream& out) {
  if (file.empty()) {
    out << document;
    return;
  }
  std::ofstream stream(file, std::ios::binary | std::ios::trunc);
  if (!stream) failure("cannot create " + file + ": " + std::strerror(errno));
  stream << document;
  stream.close();
  if (!stream) failure("cannot write " + file + ": " + std::strerror(errno));
  out << "wrote " << document.size() << " bytes to " << file << "\n";
}

}  // namespace

int runExport(const std::vector<std::string>& args, std::ostream& out) {
  Options options({{"--device", true},
                   {"--possible", false},
                   {"--current", false},
                   {"-o", true},
                   {"--output", true},
                   {"--trace", true}},
                  args);
  if (options.has("--possible") && options.has("--current"))
    badInput("give --possible or --current, not both (without either the combined document is written)");
  if (options.has("-o") && options.has("--output")) badInput("give the output file once, with -o or --output");
  const std::string file = options.has("-o") ? options.value("-o") : options.value("--output");
  const bool tracing = options.has("--trace");
  const UINTN mask = tracing ? parseTraceLevels(options.value("--trace")) : 0;

  SamplePlatform sample;
  loadState(sample);
  SampleDevice& device = chooseDevice(sample, options.value("--device"));
  TraceRoute traces(sample.log(), mask, tracing ? &std::cerr : nullptr);
  TOLVANE_PROTOCOL* converter = loadConverter(sample);

  Tree possible(sample.xml()), current(sample.xml());
  EFI_STATUS status = converter->HiiToNode(converter, device.handle(), &possible.root, &current.root);
  if (status != EFI_SUCCESS) failure("HiiToNode failed: " + statusText(status));
  // A device whose location text is empty is answered with success and no
  // documents.
  if (!possible.root || !current.root) failure("HiiToNode returned EFI_SUCCESS without documents");

  PoolText text(sample.platform());
  if (options.has("--possible") || options.has("--current")) {
    XML_PROTOCOL* xml = sample.xml();
    XML_NODE* tree = options.has("--possible") ? possible.root : current.root;
    status = xml->XML_NodeToXML(xml, tree, &text.text);
    if (status != EFI_SUCCESS) failure("XML_NodeToXML failed: " + statusText(status));
  } else {
    // The possible document's root, its entry, then the current entry.
    status = converter->NodesToCombinedXMLChar(converter, possible.root, current.root, &text.text);
    if (status != EFI_SUCCESS) failure("NodesToCombinedXMLChar failed: " + statusText(status));
  }
  if (!text.text) failure("the serialiser returned success without a text");
  writeDocument(file, std::string(text.text) + "\n", out);
  return kExitOk;
}

}  // namespace tvl::cli
