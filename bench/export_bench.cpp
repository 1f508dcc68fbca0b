// The export of a generated device: HiiToNode, the combined document and
// the release of both trees, at 2,000 and 20,000 questions. The ratio of
// the two shows whether any path grows faster than the questions.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>

#include "bench/bench_devices.h"
#include "host/sample/sample_platform.h"
#include "uefi/services.h"

namespace {

// On the lean pool, as firmware serves memory (the checked pool's own
// bookkeeping would be most of what is measured).
void BM_ExportAndSerialise(benchmark::State& state) {
  tvl::host::Platform platform(tvl::host::PoolMode::Lean);
  tvl::host::sample::SamplePlatform sample(platform, {tvl::bench::generatedDevice(size_t(state.range(0)))});
  EFI_HANDLE driver = nullptr;
  if (sample.loadDriver(&driver) != EFI_SUCCESS) {
    state.SkipWithError("driver");
    return;
  }
  // Failures only, as a production firmware's debug mask would pass them:
  // the cost measured is the export's, not that of formatting its traces.
  DEBUG_LOG_PROTOCOL* log = sample.log();
  log->SetLevelMask(log, TVL_LEVEL_FAILURE);
  auto* self = static_cast<TOLVANE_PROTOCOL*>(platform.locateProtocol(TOLVANE_PROTOCOL_GUID));
  XML_PROTOCOL* xml = sample.xml();
  EFI_HANDLE device = sample.devices().front().handle();
  size_t bytes = 0;
  const size_t allocationsBefore = platform.poolStats().allocations;
  // Each phase's share, in milliseconds per iteration: a size that grows
  // faster than the others shows which phase it is.
  using Clock = std::chrono::steady_clock;
  Clock::duration exportTime{}, serialiseTime{}, releaseTime{};
  for (auto _ : state) {
    XML_NODE* possible = nullptr;
    XML_NODE* current = nullptr;
    const auto start = Clock::now();
    if (self->HiiToNode(self, device, &possible, &current) != EFI_SUCCESS) {
      state.SkipWithError("HiiToNode");
      break;
    }
    const auto exported = Clock::now();
    CHAR8* text = nullptr;
    if (self->NodesToCombinedXMLChar(self, possible, current, &text) != EFI_SUCCESS) state.SkipWithError("combine");
    const auto serialised = Clock::now();
    // Measured once: a pass over the whole text is no part of the export.
    if (bytes == 0 && text) bytes = std::char_traits<char>::length(text);
    platform.bootServices()->FreePool(text);
    xml->XML_FreeNode(xml, possible);
    xml->XML_FreeNode(xml, current);
    releaseTime += Clock::now() - serialised;
    exportTime += exported - start;
    serialiseTime += serialised - exported;
  }
  const auto perIteration = [&](Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count() / double(std::max<benchmark::IterationCount>(state.iterations(), 1));
  };
  state.counters["export_ms"] = perIteration(exportTime);
  state.counters["serialise_ms"] = perIteration(serialiseTime);
  state.counters["free_ms"] = perIteration(releaseTime);
  state.counters["document_bytes"] = double(bytes);
  // Pool allocations per exported question: the figure that grows when a
  // path allocates per item more than it must.
  state.counters["allocations_per_question"] =
      double(platform.poolStats().allocations - allocationsBefore) / double(state.iterations()) / double(state.range(0));
  state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_ExportAndSerialise)->Arg(2000)->Arg(20000)->Unit(benchmark::kMillisecond);

}  // namespace
