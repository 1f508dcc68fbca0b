// The image runtime's memory functions and the image's own memmove, memset
// and memcmp, run inside a loaded image.
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
  // The runtime's function and the image's C library one, by their probe names.
  template <typename F>
  std::vector<std::pair<const char*, F>> probes(const char* runtime, const char* library) {
    EFI_HANDLE image = load("memory_probe_image");
    std::vector<std::pair<const char*, F>> out;
    for (const char* name : {runtime, library})
      if (F fn = platform().imageFunction<F>(image, name)) out.emplace_back(name, fn);
    EXPECT_EQ(out.size(), 2u);
    return out;
  }
};

TEST_F(MemoryTest, OverlappingCopiesMoveTheSourceBytes) {
  const struct { size_t dst, src, n; } cases[] = {
      {3, 0, 10}, {0, 3, 10},  // overlapping, the destination after or before the source
      {1, 0, 15}, {0, 1, 15},  // one byte apart, both ways
      {4, 4, 8},  {8, 0, 8},  {0, 8, 8},  {5, 2, 0},  // the same range, adjacent ranges, nothing to copy
      {0, 5, 300}, {5, 0, 300},  // long enough for the firmware's own copy, both ways
  };
  for (auto [name, fn] : probes<Copy>("probeCopyMem", "probeMemmove"))
    for (const auto& c : cases) {
      std::vector<UINT8> buffer(std::max<size_t>(16, std::max(c.dst, c.src) + c.n));
      std::iota(buffer.begin(), buffer.end(), UINT8(1));
      std::vector<UINT8> expected = buffer;
      for (size_t i = 0; i < c.n; ++i) expected[c.dst + i] = buffer[c.src + i];
      fn(buffer.data() + c.dst, buffer.data() + c.src, c.n);
      EXPECT_EQ(buffer, expected) << name << " dst " << c.dst << " src " << c.src << " n " << c.n;
    }
}

TEST_F(MemoryTest, FillsExactlyTheRange) {
  for (auto [name, fn] : probes<Fill>("probeSetMem", "probeMemset"))
    for (size_t n : {0, 1, 5}) {
      std::vector<UINT8> buffer(8, 0x11), expected = buffer;
      std::fill_n(expected.begin() + 1, n, UINT8(0xA5));
      fn(buffer.data() + 1, n, 0xA5);
      EXPECT_EQ(buffer, expected) << name << " n " << n;  // the bytes either side untouched
    }
}

TEST_F(MemoryTest, ComparesByTheFirstDifferingByte) {
  const struct { const char* a; const char* b; size_t n; int sign; } cases[] = {
      {"abc", "abc", 3, 0}, {"abc", "abd", 2, 0},  // a difference past n does not count
      {"abc", "abd", 3, -1}, {"b\x01", "a\xFF", 2, 1},  // the first difference decides
      {"\x80", "\x7F", 1, 1},                           // bytes are unsigned
  };
  for (auto [name, fn] : probes<Compare>("probeCompareMem", "probeMemcmp"))
    for (const auto& c : cases) {
      INTN r = fn(c.a, c.b, c.n);
      EXPECT_EQ((r > 0) - (r < 0), c.sign) << name << " case " << (&c - cases);
    }
}

}  // namespace
