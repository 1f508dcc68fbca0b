// Throughput of the operations whose cost grows with the input: the XML
// service on wide documents, the driver's node toolbox on long sibling
// chains, and the forms processor on the sample BIOS setup.
#include <benchmark/benchmark.h>

#include <string>

#include "export/records/records.h"
#include "host/sample/sample_platform.h"
#include "uefi/services.h"
#include "xml/node.h"

namespace {

using tvl::host::sample::SamplePlatform;

// A document with `n` sibling ConfigItem elements under one root.
std::string wideDocument(size_t n) {
  std::string text = "<ConfigData>";
  for (size_t i = 0; i < n; ++i) text += "<ConfigItem Type=\"Integer\">" + std::to_string(i) + "</ConfigItem>";
  return text + "</ConfigData>";
}

struct Fixture {
  SamplePlatform sample;
  EFI_HANDLE driver = nullptr;
  Fixture() { sample.loadDriver(&driver); }
  template <typename F>
  F fn(const char* name) {
    return sample.platform().imageFunction<F>(driver, name);
  }
};

void BM_XmlParse(benchmark::State& state) {
  Fixture f;
  XML_PROTOCOL* xml = f.sample.xml();
  std::string text = wideDocument(size_t(state.range(0)));
  for (auto _ : state) {
    XML_NODE* root = nullptr;
    XML_PARSE_ERROR error{};
    if (xml->XML_ParseText(xml, text.data(), text.size(), &root, &error) != EFI_SUCCESS) state.SkipWithError("parse");
    xml->XML_FreeNode(xml, root);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(text.size()));
}
BENCHMARK(BM_XmlParse)->RangeMultiplier(10)->Range(1000, 100000)->Unit(benchmark::kMillisecond);

void BM_XmlSerialise(benchmark::State& state) {
  Fixture f;
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
BENCHMARK(BM_XmlSerialise)->RangeMultiplier(10)->Range(1000, 100000)->Unit(benchmark::kMillisecond);

// Copy and a search that misses (visits every node) over a sibling chain.
void BM_ToolboxCopyAndSearch(benchmark::State& state) {
  Fixture f;
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
  state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_ToolboxCopyAndSearch)->RangeMultiplier(10)->Range(1000, 100000)->Unit(benchmark::kMillisecond);

// ProcessForms and DestroyFormSets over the BIOS setup device: IFR walk,
// current values through configuration access, condition evaluation.
void BM_ProcessBiosForms(benchmark::State& state) {
  SamplePlatform sample;
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
BENCHMARK(BM_ProcessBiosForms)->Unit(benchmark::kMicrosecond);

}  // namespace
