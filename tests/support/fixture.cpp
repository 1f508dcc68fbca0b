#include "tests/support/fixture.h"

#include <cstring>
#include <stdexcept>

#include "host/status.h"
#include "uefi/protocols.h"

namespace tvl::test {

namespace {

// Pool allocations and page runs together.
size_t held(const host::Platform& platform) { return platform.outstandingAllocations().size(); }

std::string leakedSince(const host::Platform& platform, uint64_t sequence) {
  std::string report = platform.leakReport(sequence);
  return report.empty() ? std::string("  (none listed)\n") : report;
}

}  // namespace

std::string statusName(EFI_STATUS status) { return host::statusName(status); }

void releaseServiceCaches(host::Platform& platform) {
  using Release = EFI_STATUS(EFIAPI*)();
  for (EFI_HANDLE image : platform.handlesWith(gEfiLoadedImageProtocolGuid))
    if (auto release = platform.imageFunction<Release>(image, "FormsProcessorReleaseCache")) release();
}

size_t sweepAllocationFailures(host::Platform& platform, const std::function<EFI_STATUS()>& op,
                               const std::function<void(EFI_STATUS, size_t)>& check,
                               const std::function<void()>& cleanup, FaultMode mode) {
  auto settle = [&] {
    if (cleanup) cleanup();
    releaseServiceCaches(platform);
  };
  platform.clearAllocationFaults();
  releaseServiceCaches(platform);
  size_t before = held(platform);
  uint64_t sequence = platform.nextAllocationSequence();
  size_t start = platform.allocationAttempts();
  op();
  size_t attempts = platform.allocationAttempts() - start;
  settle();
  if (held(platform) != before) {
    ADD_FAILURE() << "the run without faults leaves " << held(platform) - before
                  << " allocation(s) outstanding after cleanup:\n"
                  << leakedSince(platform, sequence);
    return attempts;
  }
  for (size_t k = 1; k <= attempts; ++k) {
    before = held(platform);
    sequence = platform.nextAllocationSequence();
    const host::PoolStats statsBefore = platform.poolStats();
    if (mode == FaultMode::Single) {
      platform.failAllocation(k);
    } else {
      platform.failAllocationsFrom(k);
    }
    EFI_STATUS status = op();
    platform.clearAllocationFaults();
    check(status, k);
    settle();
    if (::testing::Test::HasFatalFailure()) return attempts;
    const std::string run = "allocation attempt " + std::to_string(k) + " of " + std::to_string(attempts) +
                            " failing (" + statusName(status) + ")";
    size_t after = held(platform);
    if (after != before) {
      ADD_FAILURE() << run << " leaks " << (after > before ? after - before : 0) << " allocation(s) (outstanding "
                    << before << " -> " << after << "):\n"
                    << leakedSince(platform, sequence);
    }
    const host::PoolStats statsAfter = platform.poolStats();
    if (statsAfter.invalidFrees != statsBefore.invalidFrees || statsAfter.overruns != statsBefore.overruns) {
      ADD_FAILURE() << run << " frees memory that was not allocated or writes past an allocation:\n"
                    << platform.poolErrorReport();
    }
  }
  return attempts;
}

void PlatformTest::SetUp() {
  platform_ = std::make_unique<host::Platform>();
  markBaseline();
}

void PlatformTest::TearDown() {
  if (leakCheck_ && !HasFatalFailure()) expectNoLeaks();
}

EFI_STATUS PlatformTest::loadStatus(const std::string& image, EFI_HANDLE* handle) {
  return platform_->loadImage(image, handle);
}

EFI_HANDLE PlatformTest::load(const std::string& image) {
  EFI_HANDLE handle = nullptr;
  EFI_STATUS status = loadStatus(image, &handle);
  // A fatal stop from a function that returns a value: gtest reports the text.
  if (status != EFI_SUCCESS)
    throw std::runtime_error("loading image '" + image + "' from " + host::Platform::imageDirectory() +
                             " failed: " + statusName(status));
  return handle;
}

CHAR8* PlatformTest::poolText(const std::string& text) {
  VOID* buffer = nullptr;
  EXPECT_EQ(bs()->AllocatePool(EfiBootServicesData, text.size() + 1, &buffer), EFI_SUCCESS);
  if (buffer) std::memcpy(buffer, text.c_str(), text.size() + 1);
  return static_cast<CHAR8*>(buffer);
}

void PlatformTest::markBaseline() {
  baselineSequence_ = platform_->nextAllocationSequence();
  host::PoolStats stats = platform_->poolStats();
  baselineInvalidFrees_ = stats.invalidFrees;
  baselineOverruns_ = stats.overruns;
}

void PlatformTest::expectNoLeaks() {
  releaseServiceCaches(*platform_);
  size_t leaked = 0;
  for (const host::AllocationInfo& a : platform_->outstandingAllocations())
    if (a.sequence >= baselineSequence_) ++leaked;
  EXPECT_EQ(leaked, 0u) << "allocations made during the test are still outstanding:\n"
                        << platform_->leakReport(baselineSequence_);
  host::PoolStats stats = platform_->poolStats();
  EXPECT_EQ(stats.invalidFrees, baselineInvalidFrees_)
      << "memory was freed that was not allocated:\n"
      << platform_->poolErrorReport();
  EXPECT_EQ(stats.overruns, baselineOverruns_) << "allocations were written past their end:\n"
                                               << platform_->poolErrorReport();
}

}  // namespace tvl::test
