// The export of a generated device at 2,000 and 20,000 questions: the
// benchmark's time is HiiToNode and the combined document; the release of
// the text and both trees follows, timed apart (free_ms). The ratio of the
// two sizes shows whether any path grows faster than the questions; the
// times also hold what the caches add at the larger size, which the
// instruction counts of bench/export_work.sh leave out.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>

#include "bench/bench_devices.h"
#include "host/sample/sample_platform.h"
#include "uefi/services.h"

namespace {

// The time of each phase of one export, summed over the iterations.
using Clock = std::chrono::steady_clock;
struct Phases {
  Clock::duration exported{}, serialised{}, released{};
};

// One export: HiiToNode, the combined document, and the release of the
// text and both trees. The benchmark's own time (when `state` is given)
// covers the export and the serialisation, what a caller waits for before
// it has the document; the release is timed apart, in `phases`.
bool exportOnce(benchmark::State* state, TOLVANE_PROTOCOL* self, XML_PROTOCOL* xml, EFI_BOOT_SERVICES* bs,
                EFI_HANDLE device, Phases* phases, size_t* bytes) {
  XML_NODE* possible = nullptr;
  XML_NODE* current = nullptr;
  const auto start = Clock::now();
  if (self->HiiToNode(self, device, &possible, &current) != EFI_SUCCESS) return false;
  const auto exported = Clock::now();
  CHAR8* text = nullptr;
  const bool combined = self->NodesToCombinedXMLChar(self, possible, current, &text) == EFI_SUCCESS;
  const auto serialised = Clock::now();
  if (state) state->PauseTiming();
  // Measured once: a pass over the whole text is no part of the export.
  if (*bytes == 0 && text) *bytes = std::char_traits<char>::length(text);
  const auto releasing = Clock::now();
  if (text) bs->FreePool(text);
  xml->XML_FreeNode(xml, possible);
  xml->XML_FreeNode(xml, current);
  phases->released += Clock::now() - releasing;
  if (state) state->ResumeTiming();
  phases->exported += exported - start;
  phases->serialised += serialised - exported;
  return combined;
}

// A measured export: a function of its own, never inlined, so that
// bench/export_work.sh can count the instructions of exactly this.
__attribute__((noinline)) bool measuredExport(benchmark::State& state, TOLVANE_PROTOCOL* self, XML_PROTOCOL* xml,
                                              EFI_BOOT_SERVICES* bs, EFI_HANDLE device, Phases* phases,
                                              size_t* bytes) {
  return exportOnce(&state, self, xml, bs, device, phases, bytes);
}

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
  // One export before the measured ones: the first parses the device's
  // forms, which the forms service then keeps, as it does in firmware.
  Phases warmUp;
  if (!exportOnce(nullptr, self, xml, platform.bootServices(), device, &warmUp, &bytes)) {
    state.SkipWithError("export");
    return;
  }
  const size_t allocationsBefore = platform.poolStats().allocations;
  // Each phase's share, in milliseconds per iteration: a size that grows
  // faster than the others shows which phase it is.
  Phases phases;
  for (auto _ : state) {
    if (!measuredExport(state, self, xml, platform.bootServices(), device, &phases, &bytes)) {
      state.SkipWithError("export");
      break;
    }
  }
  const auto perIteration = [&](Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count() / double(std::max<benchmark::IterationCount>(state.iterations(), 1));
  };
  state.counters["export_ms"] = perIteration(phases.exported);
  state.counters["serialise_ms"] = perIteration(phases.serialised);
  state.counters["free_ms"] = perIteration(phases.released);
  state.counters["document_bytes"] = double(bytes);
  // Pool allocations per exported question: the figure that grows when a
  // path allocates per item more than it must.
  state.counters["allocations_per_question"] =
      double(platform.poolStats().allocations - allocationsBefore) / double(state.iterations()) / double(state.range(0));
  state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_ExportAndSerialise)->Arg(2000)->Arg(20000)->Unit(benchmark::kMillisecond);

}  // namespace
