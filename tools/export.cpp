// `tolvane export`: the configuration documents of a device, as the
// converter's HiiToNode makes them, written as XML: one sample device, every
// sample device (one file each), or the device of a package list from a file
// of exported package lists (the offline platform).
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "host/offline/offline_platform.h"
#include "host/sample/sample_platform.h"
#include "host/sample/sample_state.h"
#include "tools/cli.h"
#include "tools/converter.h"

namespace tvl::cli {
namespace {

using host::sample::SampleDevice;
using host::sample::SamplePlatform;
using host::sample::statusText;

enum class Kind { Combined, Possible, Current };

// The document of the device on `handle`; on failure empty, with `error`
// naming the failed operation and its status (and, when the forms processor
// failed, its message).
std::string exportDocument(SamplePlatform& sample, TOLVANE_PROTOCOL* converter, EFI_HANDLE handle, Kind kind,
                           std::string& error, EFI_STATUS& status) {
  Tree possible(sample.xml()), current(sample.xml());
  status = converter->HiiToNode(converter, handle, &possible.root, &current.root);
  if (status != EFI_SUCCESS) {
    error = "HiiToNode failed: " + statusText(status);
    HII_FORMS_PROCESSOR2_PROTOCOL* processor = sample.formsProcessor();
    HII_FORMS_PROCESSOR_ERROR last{};
    if (processor->GetLastError(processor, &last) == EFI_SUCCESS && last.Status == status && last.Message[0])
      error += " (the forms processor: " + std::string(last.Message) + ")";
    return {};
  }
  // A device whose location text is empty is answered with success and no
  // documents.
  if (!possible.root || !current.root) {
    error = "HiiToNode returned EFI_SUCCESS without documents";
    return {};
  }
  PoolText text(sample.platform());
  if (kind != Kind::Combined) {
    XML_PROTOCOL* xml = sample.xml();
    status = xml->XML_NodeToXML(xml, kind == Kind::Possible ? possible.root : current.root, &text.text);
    if (status != EFI_SUCCESS) error = "XML_NodeToXML failed: " + statusText(status);
  } else {
    // The possible document's root, its entry, then the current entry.
    status = converter->NodesToCombinedXMLChar(converter, possible.root, current.root, &text.text);
    if (status != EFI_SUCCESS) error = "NodesToCombinedXMLChar failed: " + statusText(status);
  }
  if (status != EFI_SUCCESS) return {};
  if (!text.text) {
    error = "the serialiser returned success without a text";
    return {};
  }
  return std::string(text.text) + "\n";
}

// A file name for the document of a device: the FQDD with every character
// other than letters, digits, '.', '-' and '_' replaced by '_', then ".xml"
// ("Disk.Bay.0:Enclosure.Internal.0-1" becomes
// "Disk.Bay.0_Enclosure.Internal.0-1.xml").
std::string documentFileName(const std::string& fqdd) {
  std::string name = fqdd;
  for (char& c : name) {
    const bool kept = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
                      c == '-' || c == '_';
    if (!kept) c = '_';
  }
  if (name.find_first_not_of('.') == std::string::npos) name = "_" + name;  // never "." or ".."
  return name + ".xml";
}

struct ExportSettings {
  Kind kind = Kind::Combined;
  std::string output;  // -o: a file, or the directory of a whole-platform export
  bool tracing = false;
  UINTN mask = 0;
};

// Every sample device, one document each in the directory `dir` (made when
// missing). A device that fails is reported and the others still go.
int exportAll(SamplePlatform& sample, TOLVANE_PROTOCOL* converter, const ExportSettings& settings, std::ostream& out) {
  std::error_code code;
  std::filesystem::create_directories(settings.output, code);
  if (code || !std::filesystem::is_directory(settings.output))
    failure("cannot make the directory " + settings.output + (code ? ": " + code.message() : ""));
  std::vector<std::string> names, failed;
  for (SampleDevice& device : sample.devices()) {
    const std::string fqdd = utf8(device.fqdd());
    const std::string name = documentFileName(fqdd);
    if (std::find(names.begin(), names.end(), name) != names.end())
      failure("two devices' FQDDs give the same file name " + name);
    names.push_back(name);
    std::string error;
    EFI_STATUS status = EFI_SUCCESS;
    const std::string document = exportDocument(sample, converter, device.handle(), settings.kind, error, status);
    if (!error.empty()) {
      failed.push_back(fqdd + ": " + error);
      continue;
    }
    writeDocument((std::filesystem::path(settings.output) / name).string(), document, out);
  }
  if (!failed.empty()) {
    std::string text;
    for (const std::string& f : failed) text += "\n  " + f;
    failure(std::to_string(failed.size()) + " of " + std::to_string(sample.devices().size()) +
            " devices could not be exported:" + text);
  }
  return kExitOk;
}

int exportSample(const std::string& fqdd, const ExportSettings& settings, std::ostream& out) {
  SamplePlatform sample;
  loadState(sample);
  SampleDevice* device = fqdd.empty() ? nullptr : selectDevices(sample, fqdd).front();
  if (!device && sample.devices().size() == 1) device = &sample.devices().front();
  if (!device && settings.output.empty()) {
    std::string known;
    for (auto& d : sample.devices()) known += (known.empty() ? "" : ", ") + utf8(d.fqdd());
    badInput("name the device with --device FQDD, or give -o DIR to export every device into DIR; known devices: " +
             known);
  }
  TraceRoute traces(sample.log(), settings.mask, settings.tracing ? &std::cerr : nullptr);
  TOLVANE_PROTOCOL* converter = loadConverter(sample);
  if (!device) return exportAll(sample, converter, settings, out);
  std::string error;
  EFI_STATUS status = EFI_SUCCESS;
  const std::string document = exportDocument(sample, converter, device->handle(), settings.kind, error, status);
  if (!error.empty()) failure(error);
  writeDocument(settings.output, document, out);
  return kExitOk;
}

// Why an export of an offline list failed, beyond its status: real forms
// are often tagged in other languages than the exact "en-US" the export
// needs.
std::string languageNote(host::offline::OfflinePlatform& offline, size_t index) {
  std::vector<host::offline::FormSetSummary> sets = offline.formSets(index);
  std::string tags;
  for (const auto& set : sets) {
    if (std::find(set.languages.begin(), set.languages.end(), "en-US") != set.languages.end()) return {};
    for (const std::string& tag : set.languages)
      if (tags.find("\"" + tag + "\"") == std::string::npos) tags += (tags.empty() ? "" : ", ") + ("\"" + tag + "\"");
  }
  if (sets.empty()) return {};
  return ": its strings are in " + (tags.empty() ? std::string("no language") : tags) +
         ", not in the exact \"en-US\" that an export needs";
}

int exportFile(const Options& options, const ExportSettings& settings, std::ostream& out) {
  const std::string file = options.value("--hii");
  if (!options.has("--fqdd")) badInput("--hii FILE needs --fqdd TEXT: the FQDD the exported device takes");
  std::unique_ptr<host::offline::OfflinePlatform> offline = loadOffline(file);
  const size_t index = choosePackageList(*offline, file, options.value("--package-list"));
  host::offline::OfflineList& list = offline->lists()[index];
  if (!list.device) failure(list.name(index) + " is left out: the HII database refuses it: " + list.refusal);
  if (options.has("--config")) {
    const std::string config = options.value("--config");
    const std::vector<UINT8> bytes = readFile(config);
    try {
      offline->applyConfig(index, host::offline::parseConfigLines(std::string(bytes.begin(), bytes.end())));
    } catch (const host::offline::InputError& e) {
      badInput(config + ": " + e.what());
    }
  }
  std::u16string fqdd;
  for (unsigned char c : options.value("--fqdd")) fqdd += char16_t(c);
  try {
    offline->registerFqdd(index, fqdd);
  } catch (const std::runtime_error& e) {
    badInput(e.what());
  }
  SamplePlatform& services = offline->services();
  TraceRoute traces(services.log(), settings.mask, settings.tracing ? &std::cerr : nullptr);
  TOLVANE_PROTOCOL* converter = loadConverter(services);
  std::string error;
  EFI_STATUS status = EFI_SUCCESS;
  const std::string document = exportDocument(services, converter, list.device->handle(), settings.kind, error, status);
  if (!error.empty())
    failure(describeList(*offline, index) + ": " + error +
            (status == EFI_NOT_FOUND ? languageNote(*offline, index) : ""));
  writeDocument(settings.output, document, out);
  return kExitOk;
}

}  // namespace

int runExport(const std::vector<std::string>& args, std::ostream& out) {
  Options options({{"--device", true},
                   {"--hii", true},
                   {"--fqdd", true},
                   {"--package-list", true},
                   {"--config", true},
                   {"--possible", false},
                   {"--current", false},
                   {"-o", true},
                   {"--output", true},
                   {"--trace", true}},
                  args);
  if (options.has("--possible") && options.has("--current"))
    badInput("give --possible or --current, not both (without either the combined document is written)");
  if (options.has("-o") && options.has("--output")) badInput("give the output file once, with -o or --output");
  if (options.has("--hii") && options.has("--device"))
    badInput("--device names a sample device; it cannot be combined with --hii");
  for (const char* option : {"--fqdd", "--package-list", "--config"})
    if (options.has(option) && !options.has("--hii")) badInput(std::string(option) + " goes with --hii FILE");
  ExportSettings settings;
  settings.kind = options.has("--possible")  ? Kind::Possible
                  : options.has("--current") ? Kind::Current
                                             : Kind::Combined;
  settings.output = options.has("-o") ? options.value("-o") : options.value("--output");
  settings.tracing = options.has("--trace");
  settings.mask = settings.tracing ? parseTraceLevels(options.value("--trace")) : 0;
  if (options.has("--hii")) return exportFile(options, settings, out);
  return exportSample(options.value("--device"), settings, out);
}

}  // namespace tvl::cli
