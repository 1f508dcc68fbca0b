#include "tests/support/fixture.h"

namespace {

using tvl::test::PlatformTest;

const EFI_GUID kGuidA = {0x11111111, 0x2222, 0x3333, {0x44, 0x44, 0x55, 0x55, 0x55, 0x55, 0x55, 0x01}};

TEST_F(PlatformTest, Smoke) {
  int a = 0;
  EFI_HANDLE h = nullptr;
  ASSERT_EQ(bs()->InstallProtocolInterface(&h, &kGuidA, EFI_NATIVE_INTERFACE, &a), EFI_SUCCESS);
  void* out = nullptr;
  ASSERT_EQ(bs()->LocateProtocol(&kGuidA, nullptr, &out), EFI_SUCCESS);
  EXPECT_EQ(out, &a);
  EFI_HANDLE img = load("test_counter_image");
  EXPECT_NE(img, nullptr);
}

}  // namespace
namespace {
using tvl::test::PlatformTest;
TEST_F(PlatformTest, TwoInstances) {
  EFI_HANDLE a = load("test_counter_image");
  EFI_HANDLE b = load("test_counter_image");
  auto incA = platform().imageFunction<UINTN (*)()>(a, "counterIncrement");
  auto incB = platform().imageFunction<UINTN (*)()>(b, "counterIncrement");
  ASSERT_TRUE(incA && incB);
  EXPECT_EQ(incA(), 1u);
  EXPECT_EQ(incA(), 2u);
  EXPECT_EQ(incB(), 1u);
}
}
