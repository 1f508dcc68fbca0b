// Test support: a fresh emulated platform per test, image loading that fails
// the test when the entry fails, an automatic pool-leak check, and the
// allocation-failure sweep.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "host/platform.h"

namespace tvl::test {

// Readable name of a status ("EFI_NOT_FOUND"), or its hexadecimal value.
std::string statusName(EFI_STATUS status);

// Has every image that keeps memory between calls on purpose (the forms
// processor's parsed package lists) free it, so that counting the pool sees
// only what an operation left behind.
void releaseServiceCaches(host::Platform& platform);

enum class FaultMode {
  Single,  // only the k-th attempt fails
  From,    // the k-th attempt and every later one fail
};

// Runs `op` without faults to count its allocation attempts N, then for
// k = 1..N runs it with attempt k failing and calls `check(status, k)`.
// After every run `cleanup` is called and the pool must hold what it held
// before: a leak, a free of memory not allocated or an overrun is reported
// with k. Stops at the first fatal failure. Returns N.
size_t sweepAllocationFailures(host::Platform& platform, const std::function<EFI_STATUS()>& op,
                               const std::function<void(EFI_STATUS, size_t)>& check,
                               const std::function<void()>& cleanup = {}, FaultMode mode = FaultMode::Single);

// The platform is created in SetUp and destroyed with the fixture object,
// so members of derived fixtures (destroyed first) may still use it.
// TearDown runs the leak check.
class PlatformTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  host::Platform& platform() { return *platform_; }
  EFI_SYSTEM_TABLE* st() { return platform_->systemTable(); }
  EFI_BOOT_SERVICES* bs() { return platform_->bootServices(); }
  EFI_RUNTIME_SERVICES* rt() { return platform_->runtimeServices(); }

  // Loads a fresh instance of `image` and runs its entry; the test stops
  // when loading or the entry fails.
  EFI_HANDLE load(const std::string& image);
  // The same, returning the status; *handle is set even when the entry fails.
  EFI_STATUS loadStatus(const std::string& image, EFI_HANDLE* handle);

  // From now on only allocations (and invalid frees) after this call count
  // against the test: call it after loading images whose memory outlives it.
  void markBaseline();
  // Fails the test when allocations made since the baseline are outstanding,
  // or memory was freed that was not allocated.
  void expectNoLeaks();
  // Skips the check at TearDown, for tests that hold memory on purpose.
  void skipLeakCheck() { leakCheck_ = false; }

  size_t sweepAllocationFailures(const std::function<EFI_STATUS()>& op,
                                 const std::function<void(EFI_STATUS, size_t)>& check,
                                 const std::function<void()>& cleanup = {}, FaultMode mode = FaultMode::Single) {
    return tvl::test::sweepAllocationFailures(*platform_, op, check, cleanup, mode);
  }

  // A pool copy of `text` with its terminator, as an image makes one.
  CHAR8* poolText(const std::string& text);

  template <typename T>
  T* locate(const EFI_GUID& guid) { return static_cast<T*>(platform_->locateProtocol(guid)); }

 private:
  std::unique_ptr<host::Platform> platform_;
  uint64_t baselineSequence_ = 0;
  size_t baselineInvalidFrees_ = 0;
  size_t baselineOverruns_ = 0;
  bool leakCheck_ = true;
};

}  // namespace tvl::test
