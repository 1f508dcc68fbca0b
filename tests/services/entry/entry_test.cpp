// A service image whose entry fails an allocation returns the failure,
// installs nothing and leaves nothing in the pool; one that loaded unloads.
#include <gtest/gtest.h>

#include "support/fixture.h"
#include "uefi/services.h"

namespace {

using ServiceEntryTest = tvl::test::PlatformTest;

TEST_F(ServiceEntryTest, EveryAllocationFailureOfTheEntryInstallsNothing) {
  const struct { const char* name; const EFI_GUID* protocol; bool unloads; } images[] = {
      {"log_service", &gDebugLogProtocolGuid, false},
      {"xml_service", &gXmlProtocolGuid, false},
      {"location_service", &gDeviceLocationProtocolGuid, true},
      {"password2_service", &gPassword2ProtocolGuid, true},
      {"legacy_password_service", &gLegacyPasswordProtocolGuid, true},
  };
  for (const auto& image : images) {
    SCOPED_TRACE(image.name);
    // Each allocation of a load that succeeds fails in turn; what the loaded
    // instance keeps is outside the leak check.
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
    if (image.unloads) {
      EXPECT_EQ(platform().unloadImage(handle), EFI_SUCCESS);
      EXPECT_EQ(platform().handlesWith(*image.protocol).size(), installed - 1);
    }
  }
}

}  // namespace
