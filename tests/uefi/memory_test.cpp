// Copies between overlapping ranges by the image runtime's copyMem and
// memmove, in both directions of overlap, run inside a loaded image.
#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "support/fixture.h"

namespace {

using Copy = void (*)(VOID* dst, const VOID* src, UINTN n);

class MemoryTest : public tvl::test::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    image_ = load("memory_probe_image");
  }
  Copy copy(const char* name) {
    auto fn = platform().imageFunction<Copy>(image_, name);
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
    Copy fn = copy(name);
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

}  // namespace
