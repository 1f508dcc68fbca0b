// The driver binds the password service images that are loaded: the newer
// one whenever it is there, the older one only without it; and the bound
// service answers through the driver's pointer.
#include <gtest/gtest.h>

#include "password_support.h"
#include "support/driver.h"

namespace {

struct BindingCase {
  const char* name;
  bool newer;
  bool older;
};

class PasswordBindingTest : public tvl::test::DriverTest, public ::testing::WithParamInterface<BindingCase> {
 protected:
  bool loadsDriver() const override { return false; }
};

TEST_P(PasswordBindingTest, TheNewerServiceWins) {
  const BindingCase& c = GetParam();
  // Both orders of loading: the binding does not depend on it.
  if (c.older) load(tvl::test::imageName(tvl::test::PasswordImage::Older));
  if (c.newer) load(tvl::test::imageName(tvl::test::PasswordImage::Newer));
  auto* newer = locate<PASSWORD_SERVICE_PROTOCOL>(gPassword2ProtocolGuid);
  auto* older = locate<PASSWORD_SERVICE_PROTOCOL>(gLegacyPasswordProtocolGuid);
  ASSERT_EQ(newer != nullptr, c.newer);
  ASSERT_EQ(older != nullptr, c.older);
  ASSERT_EQ(loadDriver(), EFI_SUCCESS) << log().dump();

  PASSWORD_SERVICE_PROTOCOL* bound2 = global<PASSWORD_SERVICE_PROTOCOL*>("gPassword2Protocol");
  PASSWORD_SERVICE_PROTOCOL* boundLegacy = global<PASSWORD_SERVICE_PROTOCOL*>("gLegacyPasswordProtocol");
  EXPECT_EQ(bound2, newer);
  EXPECT_EQ(boundLegacy, c.newer ? nullptr : older);
  PASSWORD_SERVICE_PROTOCOL* bound = bound2 ? bound2 : boundLegacy;
  if (!bound) return;
  UINT16 status = 0xFFFF;
  UINT64 methods = 0;
  ASSERT_EQ(bound->GetProperties(bound, PASSWORD_WHICH_SETUP, &status, nullptr, nullptr, nullptr, &methods),
            EFI_SUCCESS);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(methods, c.newer ? (1u << PASSWORD_METHOD_SHA256 | 1u << PASSWORD_METHOD_PLAIN)
                             : 1u << PASSWORD_METHOD_CHECKED);
}

INSTANTIATE_TEST_SUITE_P(Images, PasswordBindingTest,
                         ::testing::Values(BindingCase{"None", false, false}, BindingCase{"Newer", true, false},
                                           BindingCase{"Older", false, true}, BindingCase{"Both", true, true}),
                         [](const ::testing::TestParamInfo<BindingCase>& info) { return std::string(info.param.name); });

}  // namespace
