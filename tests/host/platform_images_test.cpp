// Image loading, instances, entry failure, unload, the current-platform stack.
#include "tests/host/platform_test_util.h"
#include "tests/host/test_counter_image.h"

namespace tvl::test {
namespace {

constexpr const char* kImage = "test_counter_image";
const EFI_GUID kLoadedImage = EFI_LOADED_IMAGE_PROTOCOL_GUID;
const EFI_GUID kCounterProtocol = TEST_COUNTER_PROTOCOL_GUID;

using Counter = UINTN (*)();

class ImageTest : public PlatformTest {
 protected:
  void setMode(uint32_t mode) {
    const EFI_GUID vendor = TEST_COUNTER_VENDOR_GUID;
    std::vector<uint8_t> bytes(reinterpret_cast<uint8_t*>(&mode), reinterpret_cast<uint8_t*>(&mode) + 4);
    ASSERT_EQ(platform().setVariable(u"TestImageMode", vendor, EFI_VARIABLE_BOOTSERVICE_ACCESS, bytes), 0u);
  }
  EFI_LOADED_IMAGE_PROTOCOL* loadedImage(EFI_HANDLE h) {
    return static_cast<EFI_LOADED_IMAGE_PROTOCOL*>(platform().handleProtocol(h, kLoadedImage));
  }
};

TEST_F(ImageTest, EveryLoadIsAnIndependentInstance) {
  EFI_HANDLE first = load(kImage), second = load(kImage);
  auto incFirst = platform().imageFunction<Counter>(first, "counterIncrement");
  auto incSecond = platform().imageFunction<Counter>(second, "counterIncrement");
  auto* counterFirst = static_cast<UINTN*>(platform().imageSymbol(first, "gCounter"));
  ASSERT_TRUE(first != second && incFirst && incSecond && counterFirst);
  EXPECT_EQ(incFirst() + incFirst() + incSecond(), 4u);  // 1, 2, then 1 in the other instance
  EXPECT_EQ(*counterFirst, 2u);
  EFI_LOADED_IMAGE_PROTOCOL* info = loadedImage(first);
  ASSERT_NE(info, nullptr);
  auto base = reinterpret_cast<uintptr_t>(info->ImageBase), code = reinterpret_cast<uintptr_t>(incFirst);
  EXPECT_TRUE(code >= base && code < base + info->ImageSize) << "ImageBase/ImageSize must cover the code";
}

TEST_F(ImageTest, FailedEntriesUnloadTheImage) {
  for (uint32_t mode : {uint32_t{TEST_MODE_FAIL_ENTRY}, uint32_t{TEST_MODE_EXIT | TEST_MODE_UNLOADABLE}}) {
    setMode(mode);
    EFI_HANDLE h = nullptr;
    EXPECT_EQ(loadStatus(kImage, &h), EFI_ABORTED) << "mode " << mode;
    ASSERT_NE(h, nullptr);
    EXPECT_FALSE(inDatabase(platform(), h)) << "the loaded-image protocol goes with the failed image";
    EXPECT_EQ(platform().unloadImage(h), EFI_INVALID_PARAMETER);
  }
}

TEST_F(ImageTest, UnloadRules) {
  EFI_HANDLE plain = load(kImage);  // without an Unload handler nothing happens
  EXPECT_EQ(platform().unloadImage(plain), EFI_UNSUPPORTED);
  EXPECT_NE(loadedImage(plain), nullptr);

  setMode(TEST_MODE_UNLOADABLE | TEST_MODE_REFUSE_UNLOAD);  // a refusing handler keeps the image
  EFI_HANDLE refusing = load(kImage);
  EXPECT_EQ(platform().unloadImage(refusing), EFI_ACCESS_DENIED);
  EXPECT_NE(loadedImage(refusing), nullptr);
  // An image that holds memory and a protocol gives both back.
  setMode(TEST_MODE_UNLOADABLE | TEST_MODE_ALLOCATE | TEST_MODE_INSTALL);
  EFI_HANDLE full = load(kImage);
  EXPECT_NE(platform().leakReport().find("test_counter_image#3"), std::string::npos) << platform().leakReport();
  ASSERT_NE(platform().handleProtocol(full, kCounterProtocol), nullptr);
  EXPECT_EQ(bs()->UnloadImage(full), EFI_SUCCESS);
  EXPECT_FALSE(inDatabase(platform(), full));
  EXPECT_TRUE(platform().handlesWith(kCounterProtocol).empty());
  EXPECT_EQ(platform().leakReport().find("test_counter_image#3"), std::string::npos);
  for (EFI_HANDLE h : {full, EFI_HANDLE{}, st()->ConsoleOutHandle}) EXPECT_EQ(bs()->UnloadImage(h), EFI_INVALID_PARAMETER);
  // A consumer holding the protocol BY_DRIVER makes the handler's uninstall fail.
  EFI_HANDLE busy = load(kImage);
  void* iface = nullptr;
  ASSERT_EQ(bs()->OpenProtocol(busy, &kCounterProtocol, &iface, plain, busy, EFI_OPEN_PROTOCOL_BY_DRIVER),
            EFI_SUCCESS);
  EXPECT_EQ(platform().unloadImage(busy), EFI_ACCESS_DENIED);
  ASSERT_EQ(bs()->CloseProtocol(busy, &kCounterProtocol, plain, busy), EFI_SUCCESS);
  EXPECT_EQ(platform().unloadImage(busy), EFI_SUCCESS);
}

// (Nested in order, the innermost platform is current: the pool tests' lean platforms.) Out of order, the
// remaining platform falls back to the one below.
TEST(PlatformStack, APlatformRemovedOutOfOrderLeavesTheOtherCurrent) {
  EXPECT_EQ(host::currentPlatform(), nullptr);
  auto outer = std::make_unique<host::Platform>();
  auto second = std::make_unique<host::Platform>();
  outer.reset();
  EXPECT_EQ(host::currentPlatform(), second.get());
  second.reset();
  EXPECT_EQ(host::currentPlatform(), nullptr);
}

}  // namespace
}  // namespace tvl::test
