// Pool accounting, fault injection, invalid frees, and the fixture's own
// leak check and sweep.
#include <gtest/gtest-spi.h>

#include <algorithm>
#include <cstring>

#include "tests/host/platform_test_util.h"

namespace tvl::test {
namespace {

const EFI_GUID kSomeGuid = testGuid(9);

class PoolTest : public PlatformTest {
 protected:
  void* allocate(size_t size) {
    void* p = nullptr;
    EXPECT_EQ(bs()->AllocatePool(EfiBootServicesData, size, &p), EFI_SUCCESS);
    return p;
  }
};

TEST_F(PoolTest, PoolTypesAndArguments) {
  const std::pair<uint32_t, bool> types[] = {  // type, accepted
      {EfiBootServicesData, true},    {EfiLoaderData, true},        {EfiRuntimeServicesData, true},
      {0x70000000u, true},            {0x80000001u, true},          {EfiConventionalMemory, false},
      {EfiPersistentMemory, false},   {EfiMaxMemoryType, false},    {0x6FFFFFFFu, false}};
  for (auto [type, accepted] : types) {
    void* p = nullptr;
    EFI_STATUS s = bs()->AllocatePool(static_cast<EFI_MEMORY_TYPE>(type), 8, &p);
    EXPECT_EQ(statusName(s), statusName(accepted ? EFI_SUCCESS : EFI_INVALID_PARAMETER)) << std::hex << type;
    if (s == EFI_SUCCESS) bs()->FreePool(p);
  }
  EXPECT_EQ(bs()->AllocatePool(EfiBootServicesData, 8, nullptr), EFI_INVALID_PARAMETER);
  void* empty = allocate(0);  // a zero-size allocation is still a distinct buffer
  EXPECT_NE(empty, nullptr);
  EXPECT_EQ(bs()->FreePool(empty), EFI_SUCCESS);
}

TEST_F(PoolTest, Accounting) {
  void* a = allocate(24);
  void* b = allocate(100);
  host::PoolStats stats = platform().poolStats();
  EXPECT_TRUE(stats.outstanding == 2 && stats.outstandingBytes == 124 && stats.allocations == 2);
  auto list = platform().outstandingAllocations();
  ASSERT_EQ(list.size(), 2u);
  std::string report = platform().leakReport(), since = platform().leakReport(list[1].sequence);
  EXPECT_NE(report.find("24 bytes allocated by host"), std::string::npos) << report;
  EXPECT_TRUE(since.find("100 bytes") != std::string::npos && since.find("24 bytes") == std::string::npos) << since;
  EXPECT_EQ(bs()->FreePool(a), EFI_SUCCESS);
  EXPECT_EQ(bs()->FreePool(b), EFI_SUCCESS);
  stats = platform().poolStats();
  EXPECT_TRUE(stats.outstanding == 0 && stats.outstandingBytes == 0 && platform().leakReport().empty());
}

TEST_F(PoolTest, InvalidFreesAndOverrunsAreCountedNotFatal) {
  auto* p = static_cast<uint8_t*>(allocate(16));
  int local = 0;
  EXPECT_EQ(bs()->FreePool(&local), EFI_INVALID_PARAMETER);
  EXPECT_EQ(bs()->FreePool(p + 1), EFI_INVALID_PARAMETER);  // interior pointer
  EXPECT_EQ(bs()->FreePool(nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(bs()->FreePool(p), EFI_SUCCESS);
  EXPECT_EQ(bs()->FreePool(p), EFI_INVALID_PARAMETER);  // twice
  EXPECT_EQ(platform().poolStats().invalidFrees, 4u);
  // The fixture's check reports them ...
  EXPECT_NONFATAL_FAILURE(expectNoLeaks(), "memory was freed that was not allocated");
  // ... unless they happened before the baseline.
  markBaseline();
  p = static_cast<uint8_t*>(allocate(10));
  p[10] = 0;
  EXPECT_EQ(bs()->FreePool(p), EFI_SUCCESS);
  EXPECT_EQ(platform().poolStats().overruns, 1u);
  EXPECT_NONFATAL_FAILURE(expectNoLeaks(), "written past their end");
  markBaseline();
}

TEST_F(PoolTest, FaultInjectionModes) {
  struct Case { bool from; size_t k; const char* outcomes; };  // one letter per attempt: s succeeded, f refused
  const Case cases[] = {{false, 2, "sfsss"}, {false, 1, "fssss"}, {true, 3, "ssfff"}, {true, 1, "fffff"},
                        {false, 9, "sssss"}};
  for (const Case& t : cases) {
    t.from ? platform().failAllocationsFrom(t.k) : platform().failAllocation(t.k);
    std::string outcomes;
    std::vector<void*> held;
    for (int i = 0; i < 5; ++i) {
      void* p = nullptr;
      EFI_STATUS s = bs()->AllocatePool(EfiBootServicesData, 8, &p);
      EXPECT_TRUE(s == EFI_SUCCESS || (s == EFI_OUT_OF_RESOURCES && p == nullptr));
      outcomes += s == EFI_SUCCESS ? 's' : 'f';
      if (p) held.push_back(p);
    }
    platform().clearAllocationFaults();
    EXPECT_EQ(outcomes, t.outcomes) << (t.from ? "from " : "single ") << t.k;
    for (void* p : held) bs()->FreePool(p);
  }
  // Firmware services that allocate take part too.
  EFI_PHYSICAL_ADDRESS pages = 0;
  platform().failAllocationsFrom(1);
  EXPECT_EQ(bs()->AllocatePages(AllocateAnyPages, EfiBootServicesData, 1, &pages), EFI_OUT_OF_RESOURCES);
  int iface = 0;
  EFI_HANDLE h = nullptr;
  EXPECT_EQ(bs()->InstallProtocolInterface(&h, &kSomeGuid, EFI_NATIVE_INTERFACE, &iface), EFI_OUT_OF_RESOURCES);
  EXPECT_EQ(h, nullptr);
  platform().clearAllocationFaults();
}

TEST_F(PoolTest, Pages) {
  EFI_PHYSICAL_ADDRESS address = 0;
  ASSERT_EQ(bs()->AllocatePages(AllocateAnyPages, EfiBootServicesData, 3, &address), EFI_SUCCESS);
  EXPECT_EQ(address % 4096, 0u);
  std::memset(reinterpret_cast<void*>(address), 0, 3 * 4096);  // all of it is usable
  EXPECT_EQ(bs()->FreePages(address, 2), EFI_NOT_FOUND);
  EXPECT_EQ(bs()->FreePages(address + 1, 3), EFI_INVALID_PARAMETER);
  EXPECT_EQ(bs()->FreePages(address, 3), EFI_SUCCESS);
  EXPECT_EQ(bs()->FreePages(address, 3), EFI_NOT_FOUND);
  EXPECT_EQ(bs()->AllocatePages(AllocateAnyPages, EfiBootServicesData, 0, &address), EFI_INVALID_PARAMETER);
  EXPECT_EQ(bs()->AllocatePages(AllocateAnyPages, EfiConventionalMemory, 1, &address), EFI_INVALID_PARAMETER);
  markBaseline();  // the refused FreePages calls were deliberate
}

// The free observer sees each block with its contents before the pool's
// fill, pool blocks and page runs alike, and nothing once removed.
TEST_F(PoolTest, FreeObserverSeesBlocksBeforeTheyAreFilled) {
  std::vector<std::pair<size_t, std::string>> seen;
  platform().setFreeObserver([&](const void* block, size_t size) {
    seen.emplace_back(size, std::string(static_cast<const char*>(block), std::min<size_t>(size, 6)));
  });
  char* text = static_cast<char*>(allocate(7));
  std::memcpy(text, "secret", 7);
  EXPECT_EQ(bs()->FreePool(text), EFI_SUCCESS);
  EFI_PHYSICAL_ADDRESS pages = 0;
  ASSERT_EQ(bs()->AllocatePages(AllocateAnyPages, EfiBootServicesData, 2, &pages), EFI_SUCCESS);
  std::memcpy(reinterpret_cast<void*>(pages), "paged!", 6);
  EXPECT_EQ(bs()->FreePages(pages, 2), EFI_SUCCESS);
  platform().setFreeObserver({});
  EXPECT_EQ(bs()->FreePool(allocate(3)), EFI_SUCCESS);
  const std::vector<std::pair<size_t, std::string>> expected = {{7, "secret"}, {8192, "paged!"}};
  EXPECT_EQ(seen, expected);
}

TEST_F(PoolTest, LeakCheckSeesAllocationsSinceTheBaseline) {
  void* kept = allocate(40);
  markBaseline();  // held on purpose, like an image's state
  void* leaked = allocate(8);
  EXPECT_NONFATAL_FAILURE(expectNoLeaks(), "8 bytes allocated by host");
  bs()->FreePool(leaked);
  expectNoLeaks();
  bs()->FreePool(kept);
}

TEST_F(PoolTest, SweepRunsEveryFailurePointAndFindsLeaks) {
  // An operation with three allocations that cleans up after itself.
  auto tidy = [&]() -> EFI_STATUS {
    void* p[3] = {};
    EFI_STATUS s = EFI_SUCCESS;
    for (int i = 0; i < 3 && s == EFI_SUCCESS; ++i) s = bs()->AllocatePool(EfiBootServicesData, 16, &p[i]);
    for (void* q : p)
      if (q) bs()->FreePool(q);
    return s;
  };
  for (FaultMode mode : {FaultMode::Single, FaultMode::From}) {
    std::vector<size_t> seen;
    auto check = [&](EFI_STATUS s, size_t k) { seen.push_back(s == EFI_OUT_OF_RESOURCES ? k : 0); };
    EXPECT_EQ(sweepAllocationFailures(tidy, check, {}, mode), 3u);
    EXPECT_EQ(seen, (std::vector<size_t>{1, 2, 3}));
  }

  // One that forgets its first buffer when the second allocation fails.
  void* first = nullptr;
  void* second = nullptr;
  auto leaky = [&]() -> EFI_STATUS {
    RETURN_IF_ERROR(bs()->AllocatePool(EfiBootServicesData, 16, &first));
    EFI_STATUS s = bs()->AllocatePool(EfiBootServicesData, 16, &second);
    if (EFI_ERROR(s)) first = nullptr;
    return s;
  };
  auto cleanup = [&] {
    if (first) bs()->FreePool(first);
    if (second) bs()->FreePool(second);
    first = second = nullptr;
  };
  EXPECT_NONFATAL_FAILURE(sweepAllocationFailures(leaky, [](EFI_STATUS, size_t) {}, cleanup),
                          "allocation attempt 2 of 2");
  // One that frees its buffer twice when the second allocation fails.
  auto doubleFree = [&]() -> EFI_STATUS {
    RETURN_IF_ERROR(bs()->AllocatePool(EfiBootServicesData, 16, &first));
    EFI_STATUS s = bs()->AllocatePool(EfiBootServicesData, 16, &second);
    if (EFI_ERROR(s)) {
      bs()->FreePool(first);
      bs()->FreePool(first);
      first = nullptr;
    }
    return s;
  };
  EXPECT_NONFATAL_FAILURE(sweepAllocationFailures(doubleFree, [](EFI_STATUS, size_t) {}, cleanup),
                          "allocation attempt 2 of 2 failing (EFI_OUT_OF_RESOURCES) frees memory");
  markBaseline();
  // Free what the leaky run lost so that this test itself ends clean.
  for (const host::AllocationInfo& a : platform().outstandingAllocations()) bs()->FreePool(a.address);
}

}  // namespace
}  // namespace tvl::test
