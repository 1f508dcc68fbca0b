// Throughput of the operations whose cost grows with the input: the XML
// service on wide documents, the driver's node toolbox on long sibling
// chains, and the forms processor on the sample BIOS setup. Each runs on
// the lean pool (what the command line uses) and on the checked pool (what
// the tests use). The parse benchmark also runs xmllint --timing on the
// same text, when it is installed, and reports its times beside ours.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <unistd.h>

#include "export/records/records.h"
#include "host/sample/sample_platform.h"
#include "uefi/services.h"
#include "xml/node.h"

namespace {

using tvl::host::PoolMode;
using tvl::host::sample::SamplePlatform;

constexpr PoolMode Lean = PoolMode::Lean;
constexpr PoolMode Checked = PoolMode::Checked;

// A document with `n` sibling ConfigItem elements under one root.
std::string wideDocument(size_t n) {
  std::string text = "<ConfigData>";
  for (size_t i = 0; i < n; ++i) text += "<ConfigItem Type=\"Integer\">" + std::to_string(i) + "</ConfigItem>";
  return text + "</ConfigData>";
}

struct Fixture {
  SamplePlatform sample;
  EFI_HANDLE driver = nullptr;
  explicit Fixture(PoolMode mode) : sample(mode) { sample.loadDriver(&driver); }
  template <typename F>
  F fn(const char* name) {
    return sample.platform().imageFunction<F>(driver, name);
  }
};

// What xmllint reports for parsing `text` from a file: the one parse of
// --timing ("Parsing took N ms"), and the mean of 100 parses in one process
// (--timing --repeat). Negative when xmllint cannot be run. Measured once
// per size.
struct XmllintTimes {
  double parseMs = -1;
  double repeatedMs = -1;
};

double millisecondsAfter(const std::string& output, const std::string& marker) {
  size_t at = output.find(marker);
  return at == std::string::npos ? -1 : std::atof(output.c_str() + at + marker.size());
}

XmllintTimes xmllintTimes(const std::string& text) {
  static std::map<size_t, XmllintTimes> measured;
  auto known = measured.find(text.size());
  if (known != measured.end()) return known->second;
  XmllintTimes times;
  char path[] = "/tmp/tolvane-bench-XXXXXX";
  int fd = mkstemp(path);
  if (fd >= 0) {
    close(fd);
    std::ofstream(path, std::ios::binary) << text;
    auto run = [&](const char* options) {
      std::string command = std::string("xmllint --noout --timing ") + options + " '" + path + "' 2>&1";
      std::string output;
      if (FILE* pipe = popen(command.c_str(), "r")) {
        char chunk[256];
        while (size_t n = std::fread(chunk, 1, sizeof chunk, pipe)) output.append(chunk, n);
        if (pclose(pipe) != 0) output.clear();
      }
      return output;
    };
    times.parseMs = millisecondsAfter(run(""), "Parsing took ");
    double hundred = millisecondsAfter(run("--repeat"), "100 iterations took ");
    if (hundred >= 0) times.repeatedMs = hundred / 100;
    std::remove(path);
  }
  measured[text.size()] = times;
  return times;
}

template <PoolMode mode>
void BM_XmlParse(benchmark::State& state) {
  Fixture f(mode);
  XML_PROTOCOL* xml = f.sample.xml();
  std::string text = wideDocument(size_t(state.range(0)));
  for (auto _ : state) {
    XML_NODE* root = nullptr;
    XML_PARSE_ERROR error{};
    if (xml->XML_ParseText(xml, text.data(), text.size(), &root, &error) != EFI_SUCCESS) state.SkipWithError("parse");
    xml->XML_FreeNode(xml, root);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(text.size()));
  XmllintTimes xmllint = xmllintTimes(text);
  if (xmllint.parseMs >= 0) state.counters["xmllint_ms"] = xmllint.parseMs;
  if (xmllint.repeatedMs >= 0) state.counters["xmllint_repeat_ms"] = xmllint.repeatedMs;
}
BENCHMARK_TEMPLATE(BM_XmlParse, Lean)->RangeMultiplier(10)->Range(1000, 100000)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_XmlParse, Checked)->RangeMultiplier(10)->Range(1000, 100000)->Unit(benchmark::kMillisecond);

template <PoolMode mode>
void BM_XmlSerialise(benchmark::State& state) {
  Fixture f(mode);
  XML_PROTOCOL* xml = f.sample.xml();
  std::string text = wideDocument(size_t(state.range(0)));
  XML_NODE* root = nullptr;
  XML_PARSE_ERROR error{};
  xml->XML_ParseText(xml, text.data(), text.size(), &root, &error);
  for (auto _ : state) {
    CHAR8* out = nullptr;
    if (xml->XML_NodeToXML(xml, root, &out) != EFI_SUCCESS) state.SkipWithError("serialise");
    f.sample.platform().bootServices()->FreePool(out);
  }
  xml->XML_FreeNode(xml, root);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(text.size()));
}
BENCHMARK_TEMPLATE(BM_XmlSerialise, Lean)->RangeMultiplier(10)->Range(1000, 100000)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_XmlSerialise, Checked)->RangeMultiplier(10)->Range(1000, 100000)->Unit(benchmark::kMillisecond);

// Counts the log lines it receives and keeps none of them.
void EFIAPI countLine(VOID* context, UINTN, const CHAR8*, const CHAR16*) { ++*static_cast<uint64_t*>(context); }

// Copy and a search that misses (visits every node) over a sibling chain.
// The copy traces each node it creates; the lines go to a sink that counts
// them, as a log consumer would take them, rather than piling up in the
// emulated console, whose growth would be measured instead.
template <PoolMode mode>
void BM_ToolboxCopyAndSearch(benchmark::State& state) {
  Fixture f(mode);
  DEBUG_LOG_PROTOCOL* log = f.sample.log();
  uint64_t lines = 0;
  if (log->RegisterSink(log, countLine, &lines) != EFI_SUCCESS) state.SkipWithError("log sink");
  XML_PROTOCOL* xml = f.sample.xml();
  auto copy = f.fn<decltype(&copyNodeTree)>("copyNodeTree");
  auto find = f.fn<decltype(&findNodeByName)>("findNodeByName");
  std::string text = wideDocument(size_t(state.range(0)));
  XML_NODE* root = nullptr;
  XML_PARSE_ERROR error{};
  xml->XML_ParseText(xml, text.data(), text.size(), &root, &error);
  for (auto _ : state) {
    XML_NODE* duplicate = nullptr;
    if (copy(root, &duplicate) != EFI_SUCCESS) state.SkipWithError("copy");
    XML_NODE* hit = nullptr;
    if (find("Missing", duplicate, &hit) != EFI_NOT_FOUND) state.SkipWithError("search");
    xml->XML_FreeNode(xml, duplicate);
  }
  xml->XML_FreeNode(xml, root);
  log->UnregisterSink(log, countLine, &lines);
  state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
  state.counters["trace_lines"] = benchmark::Counter(double(lines), benchmark::Counter::kAvgIterations);
}
BENCHMARK_TEMPLATE(BM_ToolboxCopyAndSearch, Lean)
    ->RangeMultiplier(10)
    ->Range(1000, 100000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_ToolboxCopyAndSearch, Checked)
    ->RangeMultiplier(10)
    ->Range(1000, 100000)
    ->Unit(benchmark::kMillisecond);

// ProcessForms and DestroyFormSets over the BIOS setup device: IFR walk,
// current values through configuration access, condition evaluation.
template <PoolMode mode>
void BM_ProcessBiosForms(benchmark::State& state) {
  SamplePlatform sample(mode);
  HII_FORMS_PROCESSOR2_PROTOCOL* forms = sample.formsProcessor();
  auto& device = sample.devices().front();
  std::vector<EFI_HII_HANDLE> handles = device.packageLists();
  for (auto _ : state) {
    UINTN count = 0;
    HII_FORMSET_RECORD** buffer = nullptr;
    if (forms->ProcessForms(forms, handles.data(), handles.size(), nullptr, &count, &buffer) != EFI_SUCCESS)
      state.SkipWithError("ProcessForms");
    forms->DestroyFormSets(forms, count, buffer);
  }
}
BENCHMARK_TEMPLATE(BM_ProcessBiosForms, Lean)->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_ProcessBiosForms, Checked)->Unit(benchmark::kMicrosecond);

}  // namespace
