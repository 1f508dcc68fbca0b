// The import beside the export of the same generated device (2,000 and
// 20,000 questions): NodeToHii applies the device's own current document
// with every value changed, its indexes either 1..N in document order or
// all 18446744073709551615 (one pass over every item). The import runs an
// export of its own and frees both trees, so the export is measured here
// the same way: HiiToNode and the release of its trees. Both run on the
// lean pool with failure traces on, as a production firmware's debug mask
// would pass them (the import traces its whole request at each item), into
// a sink that drops them. The save of such an import's request follows.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "bench/bench_devices.h"
#include "host/sample/sample_platform.h"
#include "uefi/services.h"

namespace {

VOID EFIAPI dropLine(VOID*, UINTN, const CHAR8*, const CHAR16*) {}

struct Bench {
  tvl::host::Platform platform{tvl::host::PoolMode::Lean};
  tvl::host::sample::SamplePlatform sample;
  TOLVANE_PROTOCOL* self = nullptr;
  EFI_HANDLE device = nullptr;
  XML_PROTOCOL* xml = nullptr;

  explicit Bench(size_t questions) : sample(platform, {tvl::bench::generatedDevice(questions)}) {
    EFI_HANDLE driver = nullptr;
    sample.loadDriver(&driver);
    self = static_cast<TOLVANE_PROTOCOL*>(platform.locateProtocol(gTolvaneProtocolGuid));
    device = sample.devices().front().handle();
    xml = sample.xml();
    DEBUG_LOG_PROTOCOL* log = sample.log();
    log->SetLevelMask(log, TVL_LEVEL_FAILURE);
    log->RegisterSink(log, dropLine, nullptr);
  }
  void free(XML_NODE* root) {
    if (root) xml->XML_FreeNode(xml, root);
  }
  void setText(XML_NODE* node, const std::string& text) {
    if (node->contents) platform.bootServices()->FreePool(node->contents);
    VOID* copy = nullptr;
    platform.bootServices()->AllocatePool(EfiBootServicesData, text.size() + 1, &copy);
    std::char_traits<char>::copy(static_cast<char*>(copy), text.c_str(), text.size() + 1);
    node->contents = static_cast<CHAR8*>(copy);
  }
};

XML_NODE* childNamed(XML_NODE* node, const std::string& name) {
  for (XML_NODE* c = node ? node->children : nullptr; c; c = c->next)
    if (name == c->name) return c;
  return nullptr;
}

void BM_ExportOfImportDevice(benchmark::State& state) {
  Bench b(size_t(state.range(0)));
  for (auto _ : state) {
    XML_NODE* possible = nullptr;
    XML_NODE* current = nullptr;
    if (b.self->HiiToNode(b.self, b.device, &possible, &current) != EFI_SUCCESS) state.SkipWithError("HiiToNode");
    b.free(possible);
    b.free(current);
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_ExportOfImportDevice)->Arg(2000)->Arg(20000)->Unit(benchmark::kMillisecond);

// range(1): 0 for indexes 1..N, 1 for every index 18446744073709551615.
void BM_Import(benchmark::State& state) {
  Bench b(size_t(state.range(0)));
  XML_NODE* possible = nullptr;
  XML_NODE* pending = nullptr;
  b.self->HiiToNode(b.self, b.device, &possible, &pending);
  b.free(possible);
  // Another value for every question of the generated device.
  const std::vector<std::pair<std::string, std::string>> kChanges = {
      {"Auto", "On"}, {"250", "500"}, {"true", "false"}, {"abc", "xyz"}};
  std::vector<XML_NODE*> indexes;
  XML_NODE* set = childNamed(childNamed(pending, "ConfigDataEntry"), "FormSet");
  for (XML_NODE* form = childNamed(set, "Form"); form; form = form->next) {
    for (XML_NODE* item = childNamed(form, "ConfigItem"); item; item = item->next) {
      XML_NODE* value = childNamed(childNamed(item, "ValueStruct"), "Value");
      for (const auto& [from, to] : kChanges)
        if (value && value->contents && from == value->contents) {
          b.setText(value, to);
          indexes.push_back(childNamed(item, "CommitIndex"));
          break;
        }
    }
  }
  if (indexes.size() != size_t(state.range(0))) state.SkipWithError("generated device changed");
  for (auto _ : state) {
    state.PauseTiming();
    for (size_t i = 0; i < indexes.size(); ++i)
      b.setText(indexes[i], state.range(1) ? "18446744073709551615" : std::to_string(i + 1));
    CHAR16* request = nullptr;
    XML_NODE* results = nullptr;
    state.ResumeTiming();
    if (b.self->NodeToHii(b.self, b.device, pending, &request, &results) != EFI_SUCCESS)
      state.SkipWithError("NodeToHii");
    state.PauseTiming();
    b.platform.bootServices()->FreePool(request);
    b.free(results);
    state.ResumeTiming();
  }
  b.free(pending);
  state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Import)->ArgsProduct({{2000, 20000}, {0, 1}})->Unit(benchmark::kMillisecond);

// NodeSaveToHii of the request that NodeToHii builds for the first
// range(1) changed questions of a 2,000-question device. Every segment
// has the device's forms parsed again and its values read back; the
// stores are put back before each run so that every run writes the same.
void BM_Save(benchmark::State& state) {
  Bench b(size_t(state.range(0)));
  const size_t changes = size_t(state.range(1));
  XML_NODE* possible = nullptr;
  XML_NODE* pending = nullptr;
  b.self->HiiToNode(b.self, b.device, &possible, &pending);
  b.free(possible);
  const std::vector<std::pair<std::string, std::string>> kChanges = {
      {"Auto", "On"}, {"250", "500"}, {"true", "false"}, {"abc", "xyz"}};
  size_t changed = 0;
  XML_NODE* set = childNamed(childNamed(pending, "ConfigDataEntry"), "FormSet");
  for (XML_NODE* form = childNamed(set, "Form"); form && changed < changes; form = form->next) {
    for (XML_NODE* item = childNamed(form, "ConfigItem"); item && changed < changes; item = item->next) {
      XML_NODE* value = childNamed(childNamed(item, "ValueStruct"), "Value");
      for (const auto& [from, to] : kChanges)
        if (value && value->contents && from == value->contents) {
          b.setText(value, to);
          b.setText(childNamed(item, "CommitIndex"), std::to_string(++changed));
          break;
        }
    }
  }
  CHAR16* request = nullptr;
  XML_NODE* results = nullptr;
  if (changed != changes || b.self->NodeToHii(b.self, b.device, pending, &request, &results) != EFI_SUCCESS)
    state.SkipWithError("NodeToHii");
  b.free(pending);
  auto& device = *b.sample.devices().front().device;
  std::vector<std::pair<EFI_GUID, std::u16string>> stores;
  std::vector<std::vector<uint8_t>> initial;
  for (const auto& formSet : b.sample.devices().front().definition.formSets)
    for (const auto& store : formSet.varStores) {
      stores.emplace_back(store.guid, std::u16string(store.name.begin(), store.name.end()));
      initial.push_back(device.storage(store.guid, stores.back().second));
    }
  for (auto _ : state) {
    state.PauseTiming();
    for (size_t i = 0; i < stores.size(); ++i) device.setStorage(stores[i].first, stores[i].second, initial[i]);
    state.ResumeTiming();
    if (b.self->NodeSaveToHii(b.self, b.device, request, &results) != EFI_SUCCESS)
      state.SkipWithError("NodeSaveToHii");
  }
  b.platform.bootServices()->FreePool(request);
  b.free(results);
  state.SetItemsProcessed(int64_t(state.iterations()) * state.range(1));
}
BENCHMARK(BM_Save)->ArgsProduct({{2000}, {200, 2000}})->Unit(benchmark::kMillisecond);

}  // namespace
