// The import beside the export of the same device: a device of N checkbox
// questions in one form, exported with HiiToNode, and imported with
// NodeToHii from its own current document with every value changed, the
// indexes either 1..N in document order or all 18446744073709551615 (one
// pass over every item). The import runs its own export, so the ratio of
// the two is what the import adds. Traces are off: the log service's level
// mask is 0.
#include <benchmark/benchmark.h>

#include <string>

#include "host/hii/config_string.h"
#include "host/hii/device_path.h"
#include "host/sample/sample_platform.h"
#include "uefi/services.h"
#include "xml/node.h"

namespace {

using tvl::host::sample::DeviceDescription;
using tvl::host::sample::SamplePlatform;

DeviceDescription checkboxDevice(UINT16 count) {
  tvl::host::sample::FormDescription form{1, u"Big", u"Big", {}};
  for (UINT16 i = 0; i < count; ++i) {
    std::u16string name = u"Q" + tvl::host::hii::toUtf16(std::to_string(i));
    form.statements.push_back(tvl::host::sample::checkbox(UINT16(0x1000 + i), name, name).at(1, i).value(i % 2));
  }
  DeviceDescription d;
  d.fqdd = u"System.Bench.1";
  d.description = u"bench device";
  d.devicePath = tvl::host::hii::DevicePathBuilder().vendorHardware({0x5a1e0b3c, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}}).build();
  d.packageListGuid = {0x6b2f1c4d, 1, 2, {3, 4, 5, 6, 7, 8, 9, 11}};
  tvl::host::sample::FormSetDescription fs;
  fs.guid = {0x7c3a2d5e, 1, 2, {3, 4, 5, 6, 7, 8, 9, 12}};
  fs.title = fs.keyword = fs.helpText = u"Bench";
  fs.varStores = {{1, {0x8d4b3e6f, 1, 2, {3, 4, 5, 6, 7, 8, 9, 13}}, "BenchStore", count, false, 0}};
  fs.forms = {form};
  d.formSets = {fs};
  return d;
}

struct Bench {
  tvl::host::Platform platform;
  SamplePlatform sample;
  EFI_HANDLE driver = nullptr;
  TOLVANE_PROTOCOL* self = nullptr;
  EFI_HANDLE device = nullptr;
  XML_PROTOCOL* xml = nullptr;

  explicit Bench(UINT16 count) : sample(platform, {checkboxDevice(count)}) {
    sample.loadDriver(&driver);
    self = static_cast<TOLVANE_PROTOCOL*>(platform.locateProtocol(gTolvaneProtocolGuid));
    device = sample.devices()[0].handle();
    xml = sample.xml();
    DEBUG_LOG_PROTOCOL* log = sample.log();
    log->SetLevelMask(log, 0);
  }
  void free(XML_NODE* root) {
    if (root) xml->XML_FreeNode(xml, root);
  }
};

// A node's contents replaced by a pool copy of `text`.
void setText(EFI_BOOT_SERVICES* bs, XML_NODE* node, const std::string& text) {
  if (node->contents) bs->FreePool(node->contents);
  VOID* copy = nullptr;
  bs->AllocatePool(EfiBootServicesData, text.size() + 1, &copy);
  std::copy(text.c_str(), text.c_str() + text.size() + 1, static_cast<char*>(copy));
  node->contents = static_cast<CHAR8*>(copy);
}

XML_NODE* childNamed(XML_NODE* node, const char* name) {
  for (XML_NODE* c = node ? node->children : nullptr; c; c = c->next)
    if (std::string(c->name) == name) return c;
  return nullptr;
}

void BM_Export(benchmark::State& state) {
  Bench b(UINT16(state.range(0)));
  for (auto _ : state) {
    XML_NODE* possible = nullptr;
    XML_NODE* current = nullptr;
    if (b.self->HiiToNode(b.self, b.device, &possible, &current) != EFI_SUCCESS) state.SkipWithError("HiiToNode");
    state.PauseTiming();
    b.free(possible);
    b.free(current);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Export)->Arg(2000)->Arg(20000)->Unit(benchmark::kMillisecond);

// range(1): 0 for indexes 1..N, 1 for every index 18446744073709551615.
void BM_Import(benchmark::State& state) {
  Bench b(UINT16(state.range(0)));
  XML_NODE* possible = nullptr;
  XML_NODE* pending = nullptr;
  b.self->HiiToNode(b.self, b.device, &possible, &pending);
  b.free(possible);
  EFI_BOOT_SERVICES* bs = b.platform.bootServices();
  std::vector<XML_NODE*> indexes;
  UINT64 n = 0;
  for (XML_NODE* form = childNamed(childNamed(childNamed(pending, "ConfigDataEntry"), "FormSet"), "Form"); form;
       form = form->next) {
    for (XML_NODE* item = form->children; item; item = item->next) {
      XML_NODE* value = childNamed(childNamed(item, "ValueStruct"), "Value");
      if (!value) continue;
      setText(bs, value, std::string(value->contents) == "true" ? "false" : "true");
      indexes.push_back(childNamed(item, "CommitIndex"));
    }
  }
  const bool allMax = state.range(1) != 0;
  for (auto _ : state) {
    state.PauseTiming();
    n = 0;
    for (XML_NODE* index : indexes) setText(bs, index, allMax ? "18446744073709551615" : std::to_string(++n));
    CHAR16* request = nullptr;
    XML_NODE* results = nullptr;
    state.ResumeTiming();
    if (b.self->NodeToHii(b.self, b.device, pending, &request, &results) != EFI_SUCCESS) state.SkipWithError("NodeToHii");
    state.PauseTiming();
    if (request) bs->FreePool(request);
    b.free(results);
    state.ResumeTiming();
  }
  b.free(pending);
  state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Import)->ArgsProduct({{2000, 20000}, {0, 1}})->Unit(benchmark::kMillisecond);

}  // namespace
