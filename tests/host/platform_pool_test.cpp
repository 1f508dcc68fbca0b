// Pool accounting, fault injection, invalid frees, the lean pool, and the fixture's leak check and sweep.
#include <gtest/gtest-spi.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "tests/host/platform_test_util.h"

namespace tvl::test {
namespace {

const EFI_GUID kSomeGuid = testGuid(9);

// Every counter of the pool in one line, so that one comparison pins them all.
std::string counts(const host::PoolStats& s) {
  return std::to_string(s.outstanding) + " outstanding (" + std::to_string(s.outstandingBytes) + " bytes), " +
         std::to_string(s.allocations) + " allocations, " + std::to_string(s.frees) + " frees, " +
         std::to_string(s.failedByInjection) + " injected, " + std::to_string(s.invalidFrees) + " invalid, " +
         std::to_string(s.overruns) + " overruns";
}

class PoolTest : public PlatformTest {
 protected:
  void* allocate(size_t size) { return allocateFrom(bs(), size); }
  static void* allocateFrom(EFI_BOOT_SERVICES* services, size_t size) {
    void* p = nullptr;
    EXPECT_EQ(services->AllocatePool(EfiBootServicesData, size, &p), EFI_SUCCESS);
    return p;
  }
  // Runs `body` on the fixture's checked pool, then on a lean platform of its own.
  template <typename Body>
  void onEachPool(Body body) {
    { SCOPED_TRACE("checked pool"); body(platform()); }
    host::Platform lean(host::PoolMode::Lean);
    SCOPED_TRACE("lean pool");
    body(lean);
  }
};

TEST_F(PoolTest, PoolTypesAndArguments) {
  const std::pair<uint32_t, bool> types[] = {{EfiBootServicesData, true}, {EfiLoaderData, true},  // type, accepted
      {EfiRuntimeServicesData, true}, {0x70000000u, true}, {0x80000001u, true}, {EfiConventionalMemory, false},
      {EfiPersistentMemory, false}, {EfiMaxMemoryType, false}, {0x6FFFFFFFu, false}};
  onEachPool([&](host::Platform& pool) {
    EFI_BOOT_SERVICES* services = pool.bootServices();
    for (auto [type, accepted] : types) {
      void* p = nullptr;
      EFI_STATUS s = services->AllocatePool(static_cast<EFI_MEMORY_TYPE>(type), 8, &p);
      EXPECT_EQ(statusName(s), statusName(accepted ? EFI_SUCCESS : EFI_INVALID_PARAMETER)) << std::hex << type;
      if (s == EFI_SUCCESS) services->FreePool(p);
    }
    EXPECT_EQ(services->AllocatePool(EfiBootServicesData, 8, nullptr), EFI_INVALID_PARAMETER);
    void *empty = allocateFrom(services, 0), *other = allocateFrom(services, 0);  // zero-size, still distinct
    EXPECT_TRUE(empty && other && empty != other);
    EXPECT_TRUE(services->FreePool(empty) == EFI_SUCCESS && services->FreePool(other) == EFI_SUCCESS);
    EXPECT_EQ(pool.poolStats().outstanding, 0u);
  });
}

// Sizes on both sides of the lean pool's boundaries: 16-byte steps, the
// switch to power-of-two classes, the largest class and the blocks beyond.
TEST_F(PoolTest, LeanPoolBlocksAreAlignedAndDisjoint) {
  host::Platform lean(host::PoolMode::Lean);
  EFI_BOOT_SERVICES* services = lean.bootServices();
  const size_t sizes[] = {0, 1, 7, 8, 9, 15, 16, 17, 100, 512, 513, 1000, 1024, 1025, 4096, 65535, 65536, 65537, 300000};
  // The lean pool counts each block at its size class: 8-byte steps up to
  // 512 bytes, then powers of two up to 64 KiB; larger blocks exactly.
  size_t total = 0;
  for (size_t size : sizes)
    total += size > 65536 ? size : size <= 512 ? std::max<size_t>(8, (size + 7) / 8 * 8) : size_t(1) << (64 - __builtin_clzll(size - 1));
  // The second round gets recycled blocks, which the pool kept its free lists in.
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round == 0 ? "fresh blocks" : "recycled blocks");
    std::vector<uint8_t*> blocks;
    for (size_t size : sizes) {
      auto* p = static_cast<uint8_t*>(allocateFrom(services, size));
      ASSERT_NE(p, nullptr);
      EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 0u) << size;
      std::memset(p, 0xA0 + int(blocks.size()), size);
      blocks.push_back(p);
    }
    const size_t n = std::size(sizes), allocated = (round + 1) * n;
    EXPECT_EQ(counts(lean.poolStats()), counts({n, total, allocated, allocated - n}));
    EXPECT_NE(lean.leakReport().find(std::to_string(n) + " pool allocation(s), " + std::to_string(total) +
                                     " bytes"), std::string::npos) << lean.leakReport();
    // Each block still holds its own pattern: none overlaps another or the pool's heads.
    for (size_t b = 0; b < blocks.size(); ++b) {
      size_t foreign = 0;
      for (size_t i = 0; i < sizes[b]; ++i) foreign += blocks[b][i] != uint8_t(0xA0 + b);
      EXPECT_EQ(foreign, 0u) << sizes[b];
    }
    for (size_t b = blocks.size(); b-- > 0;) EXPECT_EQ(services->FreePool(blocks[b]), EFI_SUCCESS);
    EXPECT_EQ(counts(lean.poolStats()), counts({0, 0, allocated, allocated}));
    EXPECT_TRUE(lean.leakReport().empty()) << lean.leakReport();
  }
  // Blocks enough to fill several chunks stay apart; those still held go with the platform.
  std::vector<std::pair<uint32_t*, size_t>> many;
  for (uint32_t i = 0; i < 20000; ++i) {
    size_t words = 1 + (i * 7) % 200;
    auto* p = static_cast<uint32_t*>(allocateFrom(services, words * 4));
    ASSERT_NE(p, nullptr);
    for (size_t w = 0; w < words; ++w) p[w] = i;
    many.emplace_back(p, words);
  }
  size_t damaged = 0;
  for (uint32_t i = 0; i < many.size(); ++i)
    for (size_t w = 0; w < many[i].second; ++w) damaged += many[i].first[w] != i;
  EXPECT_EQ(damaged, 0u);
  for (size_t i = 0; i < many.size(); i += 2) services->FreePool(many[i].first);
  EXPECT_EQ(lean.poolStats().outstanding, many.size() / 2);
}

TEST_F(PoolTest, LeanPoolRefusesWhatItDidNotHandOut) {
  void* checked = allocate(32);  // a block of the fixture's (checked) pool
  alignas(8) uint8_t local[64] = {};
  void* host = std::malloc(64);
  {
    host::Platform lean(host::PoolMode::Lean);
    EFI_BOOT_SERVICES* services = lean.bootServices();
    auto* small = static_cast<uint8_t*>(allocateFrom(services, 40));
    auto* large = static_cast<uint8_t*>(allocateFrom(services, 200000));
    auto* freed = static_cast<uint8_t*>(allocateFrom(services, 40));
    ASSERT_EQ(services->FreePool(freed), EFI_SUCCESS);
    const struct { const char* what; void* address; } cases[] = {
        {"null", nullptr},
        {"stack memory", local + 16},
        {"host heap memory", host},
        {"interior, unaligned", small + 1},
        {"interior, aligned", small + 8},
        {"interior of a large block", large + 4096},
        {"a block freed before", freed},
        {"a checked pool's block", checked},
    };
    for (const auto& c : cases) EXPECT_EQ(services->FreePool(c.address), EFI_INVALID_PARAMETER) << c.what;
    EXPECT_NE(lean.poolErrorReport().find("not an outstanding pool allocation"), std::string::npos);
    // The refusals changed nothing: the real blocks free once, and only once.
    EXPECT_TRUE(services->FreePool(small) == EFI_SUCCESS && services->FreePool(large) == EFI_SUCCESS);
    EXPECT_EQ(services->FreePool(large), EFI_INVALID_PARAMETER);
    host::PoolStats expected{0, 0, 3, 3};
    expected.invalidFrees = std::size(cases) + 1;
    EXPECT_EQ(counts(lean.poolStats()), counts(expected));
  }
  std::free(host);
  EXPECT_EQ(bs()->FreePool(checked), EFI_SUCCESS);
}

// The checked pool's accounting and the fixture's leak check, which counts what came after its
// baseline; invalid frees and overruns are counted, not fatal.
TEST_F(PoolTest, AccountingAndTheLeakCheck) {
  void* kept = allocate(40);
  markBaseline();  // held on purpose, like an image's state
  void *a = allocate(24), *b = allocate(100);
  EXPECT_EQ(counts(platform().poolStats()), counts({3, 164, 3, 0}));
  auto list = platform().outstandingAllocations();
  ASSERT_EQ(list.size(), 3u);
  std::string report = platform().leakReport(), since = platform().leakReport(list[2].sequence);
  EXPECT_NE(report.find("24 bytes allocated by host"), std::string::npos) << report;
  EXPECT_TRUE(since.find("100 bytes") != std::string::npos && since.find("24 bytes") == std::string::npos) << since;
  EXPECT_NONFATAL_FAILURE(expectNoLeaks(), "24 bytes allocated by host");
  EXPECT_TRUE(bs()->FreePool(a) == EFI_SUCCESS && bs()->FreePool(b) == EFI_SUCCESS);
  expectNoLeaks();
  EXPECT_EQ(bs()->FreePool(kept), EFI_SUCCESS);
  EXPECT_EQ(counts(platform().poolStats()), counts({0, 0, 3, 3}));
  EXPECT_TRUE(platform().leakReport().empty());
  auto* p = static_cast<uint8_t*>(allocate(16));
  int local = 0;
  EXPECT_EQ(bs()->FreePool(&local), EFI_INVALID_PARAMETER);
  EXPECT_EQ(bs()->FreePool(p + 1), EFI_INVALID_PARAMETER);  // interior pointer
  EXPECT_EQ(bs()->FreePool(nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(bs()->FreePool(p), EFI_SUCCESS);
  EXPECT_EQ(bs()->FreePool(p), EFI_INVALID_PARAMETER);  // twice
  EXPECT_EQ(platform().poolStats().invalidFrees, 4u);
  EXPECT_NONFATAL_FAILURE(expectNoLeaks(), "memory was freed that was not allocated");
  markBaseline();  // errors before the baseline no longer count
  p = static_cast<uint8_t*>(allocate(10));
  p[10] = 0;
  EXPECT_EQ(bs()->FreePool(p), EFI_SUCCESS);
  EXPECT_EQ(platform().poolStats().overruns, 1u);
  EXPECT_NONFATAL_FAILURE(expectNoLeaks(), "written past their end");
  markBaseline();
}

TEST_F(PoolTest, FaultInjectionModes) {
  const struct { bool from; size_t k; const char* outcomes; } cases[] = {  // per attempt: s succeeded, f refused
      {false, 2, "sfsss"}, {false, 1, "fssss"}, {true, 3, "ssfff"}, {true, 1, "fffff"}, {false, 9, "sssss"}};
  onEachPool([&](host::Platform& pool) {
    EFI_BOOT_SERVICES* services = pool.bootServices();
    size_t refused = 0;
    for (const auto& t : cases) {
      t.from ? pool.failAllocationsFrom(t.k) : pool.failAllocation(t.k);
      std::string outcomes;
      std::vector<void*> held;
      for (int i = 0; i < 5; ++i) {
        void* p = nullptr;
        EFI_STATUS s = services->AllocatePool(EfiBootServicesData, 8, &p);
        EXPECT_TRUE(s == EFI_SUCCESS || (s == EFI_OUT_OF_RESOURCES && p == nullptr));
        outcomes += s == EFI_SUCCESS ? 's' : 'f';
        if (p) held.push_back(p);
      }
      pool.clearAllocationFaults();
      EXPECT_EQ(outcomes, t.outcomes) << (t.from ? "from " : "single ") << t.k;
      refused += std::count(outcomes.begin(), outcomes.end(), 'f');
      for (void* p : held) services->FreePool(p);
    }
    EXPECT_EQ(pool.poolStats().failedByInjection, refused);
    EXPECT_EQ(pool.poolStats().outstanding, 0u);
    pool.failAllocationsFrom(1);  // firmware services that allocate take part too
    int iface = 0;
    EFI_HANDLE h = nullptr;
    EXPECT_EQ(services->InstallProtocolInterface(&h, &kSomeGuid, EFI_NATIVE_INTERFACE, &iface),
              EFI_OUT_OF_RESOURCES);
    EXPECT_EQ(h, nullptr);
    pool.clearAllocationFaults();
  });
}

// The free observer (the password tests' watch on wiped secrets) sees each pool block with its contents
// before the fill, and nothing once removed.
TEST_F(PoolTest, TheFreeObserverSeesContentsBeforeTheFill) {
  std::vector<std::pair<size_t, std::string>> seen;
  platform().setFreeObserver([&](const void* block, size_t size) {
    seen.emplace_back(size, std::string(static_cast<const char*>(block), std::min<size_t>(size, 6)));
  });
  char* text = static_cast<char*>(allocate(7));
  std::memcpy(text, "secret", 7);
  EXPECT_EQ(bs()->FreePool(text), EFI_SUCCESS);
  platform().setFreeObserver({});
  EXPECT_EQ(bs()->FreePool(allocate(3)), EFI_SUCCESS);
  const std::vector<std::pair<size_t, std::string>> expected = {{7, "secret"}};
  EXPECT_EQ(seen, expected);
}

TEST_F(PoolTest, SweepRunsEveryFailurePointAndFindsLeaks) {
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

  // Two faulty operations: when the second allocation fails, one forgets its first buffer, the other frees it twice.
  const std::pair<bool, const char*> faults[] = {
      {false, "allocation attempt 2 of 2"},
      {true, "allocation attempt 2 of 2 failing (EFI_OUT_OF_RESOURCES) frees memory"},
  };
  void *first = nullptr, *second = nullptr;
  for (auto [freeTwice, message] : faults) {
    auto faulty = [&, freeTwice = freeTwice]() -> EFI_STATUS {
      RETURN_IF_ERROR(bs()->AllocatePool(EfiBootServicesData, 16, &first));
      EFI_STATUS s = bs()->AllocatePool(EfiBootServicesData, 16, &second);
      if (EFI_ERROR(s)) {
        for (int i = 0; freeTwice && i < 2; ++i) bs()->FreePool(first);
        first = nullptr;
      }
      return s;
    };
    auto cleanup = [&] {
      for (void* p : {first, second})
        if (p) bs()->FreePool(p);
      first = second = nullptr;
    };
    EXPECT_NONFATAL_FAILURE(sweepAllocationFailures(faulty, [](EFI_STATUS, size_t) {}, cleanup), message);
  }
  markBaseline();
  for (const host::AllocationInfo& a : platform().outstandingAllocations()) bs()->FreePool(a.address);
}

}  // namespace
}  // namespace tvl::test
