// The image runtime's memory functions and the image's own memmove, memset
// and memcmp, run inside a loaded image: copies between overlapping ranges
// in both directions, fills that stay in their range, and comparisons.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <vector>

#include "support/fixture.h"

namespace {

using Copy = void (*)(VOID* dst, const VOID* src, UINTN n);
using Fill = void (*)(VOID* dst, UINTN n, UINT8 value);
using Compare = INTN (*)(const VOID* a, const VOID* b, UINTN n);

class MemoryTest : public tvl::test::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    image_ = load("memory_probe_image");
  }
  template <typename F>
  F probe(const char* name) {
    auto fn = platform().imageFunction<F>(image_, name);
    EXPECT_NE(fn, nullptr) << name;
    return fn;
  }

  EFI_HANDLE image_ = nullptr;
};

TEST_F(MemoryTest, OverlappingCopiesMoveTheSourceBytes) {
  const struct { size_t dst, src, n; } cases[] = {
      {3, 0, 10}, {0, 3, 10},  // overlapping, the destination after or before the source
      {1, 0, 15}, {0, 1, 15},  // one byte apart, both ways
      {4, 4, 8},               // the same range
      {8, 0, 8},  {0, 8, 8},   // adjacent ranges
      {5, 2, 0},               // nothing to copy
  };
  for (const char* name : {"probeCopyMem", "probeMemmove"}) {
    Copy fn = probe<Copy>(name);
    ASSERT_NE(fn, nullptr);
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(name) + " dst " + std::to_string(c.dst) + " src " + std::to_string(c.src) + " n " +
                   std::to_string(c.n));
      std::vector<UINT8> buffer(16);
      std::iota(buffer.begin(), buffer.end(), UINT8(1));
      std::vector<UINT8> expected = buffer;
      for (size_t i = 0; i < c.n; ++i) expected[c.dst + i] = buffer[c.src + i];
      fn(buffer.data() + c.dst, buffer.data() + c.src, c.n);
      EXPECT_EQ(buffer, expected);
    }
  }
}

TEST_F(MemoryTest, FillsExactlyTheRange) {
  for (const char* name : {"probeSetMem", "probeMemset"}) {
    Fill fn = probe<Fill>(name);
    ASSERT_NE(fn, nullptr);
    for (size_t n : {0, 1, 5}) {
      std::vector<UINT8> buffer(8, 0x11), expected = buffer;
      std::fill_n(expected.begin() + 1, n, UINT8(0xA5));
      fn(buffer.data() + 1, n, 0xA5);
      EXPECT_EQ(buffer, expected) << name << " n " << n;  // the bytes either side untouched
    }
  }
}

TEST_F(MemoryTest, ComparesByTheFirstDifferingByte) {
  const struct { const char* a; const char* b; size_t n; int sign; } cases[] = {
      {"abc", "abc", 3, 0}, {"abc", "abd", 2, 0},  // a difference past n does not count
      {"abc", "abd", 3, -1}, {"b\x01", "a\xFF", 2, 1},  // the first difference decides
      {"\x80", "\x7F", 1, 1},                           // bytes are unsigned
  };
  for (const char* name : {"probeCompareMem", "probeMemcmp"}) {
    Compare fn = probe<Compare>(name);
    ASSERT_NE(fn, nullptr);
    for (const auto& c : cases) {
      INTN r = fn(c.a, c.b, c.n);
      EXPECT_EQ((r > 0) - (r < 0), c.sign) << name << " case " << (&c - cases);
    }
  }
}

}  // namespace
