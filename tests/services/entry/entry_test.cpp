// A service image whose entry cannot allocate what it needs returns the
// failure and installs nothing, and its failed entries leave nothing in the
// pool. The successful load of each image is counted first, so that every
// allocation attempt it makes (the platform's own included) is failed in
// turn.
#include <gtest/gtest.h>

#include "support/fixture.h"
#include "uefi/services.h"

namespace {

struct Image {
  const char* name;
  const EFI_GUID* protocol;
};

class ServiceEntryTest : public tvl::test::PlatformTest {};

TEST_F(ServiceEntryTest, EveryAllocationFailureOfTheEntryInstallsNothing) {
  const Image images[] = {
      {"log_service", &gDebugLogProtocolGuid},
      {"xml_service", &gXmlProtocolGuid},
      {"location_service", &gDeviceLocationProtocolGuid},
  };
  for (const Image& image : images) {
    SCOPED_TRACE(image.name);
    // One instance that loads: the log service stays for the platform's
    // lifetime, so what loaded images keep is outside the leak check.
    const size_t startAttempts = platform().allocationAttempts();
    EFI_HANDLE handle = nullptr;
    ASSERT_EQ(loadStatus(image.name, &handle), EFI_SUCCESS);
    const size_t attempts = platform().allocationAttempts() - startAttempts;
    EXPECT_GE(attempts, 1u);
    const size_t installed = platform().handlesWith(*image.protocol).size();
    markBaseline();
    for (size_t k = 1; k <= attempts; ++k) {
      platform().failAllocation(k);
      EFI_HANDLE failed = nullptr;
      const EFI_STATUS status = loadStatus(image.name, &failed);
      platform().clearAllocationFaults();
      EXPECT_EQ(status, EFI_OUT_OF_RESOURCES) << "attempt " << k << " of " << attempts;
      EXPECT_EQ(platform().handlesWith(*image.protocol).size(), installed) << "attempt " << k;
      if (status == EFI_SUCCESS) return;  // a second instance would change what follows
    }
    expectNoLeaks();
  }
}

}  // namespace
