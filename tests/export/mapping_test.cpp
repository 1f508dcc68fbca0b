// Common names of NIC settings that adapters publish under their own names.
#include <gtest/gtest.h>

#include <string>

#include "export/export_fixture.h"
#include "export/mapping.h"

namespace {

class MappingTest : public tvl::test::ExportTest {};

TEST_F(MappingTest, KnownVendorNamesGiveTheirCommonName) {
  struct Case { const char* vendor; const char* common; } cases[] = {  // common null: no mapping
      {"DhcpVndorID", "DhcpVendId"},         {"DhcpVndorId", "DhcpVendId"},          {"DHCPVNDORID", nullptr},
      {"OptionROM", "BootOptionROM"},        {"BootOptionROM", nullptr},             {"LnkSpeed", nullptr},
      {"LinkUpDelayTime", "LnkUpDelayTime"}, {"LinkUpDelayTime ", nullptr},          {"LinkUpDelay", nullptr},
      {"TgtAsFirstHDD", "FirstHddTarget"},   {"SecondTgtChapIdLegacy", "SecondTgtChapId"}, {"", nullptr},
  };
  const CHAR8 sentinel[] = "unchanged";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.vendor);
    log().clear();
    const CHAR8* mapped = sentinel;
    DRIVER_FN(getMappedName)(c.vendor, &mapped);
    if (!c.common) {
      EXPECT_EQ(mapped, sentinel);
      EXPECT_TRUE(log().records().empty()) << log().dump();
      continue;
    }
    ASSERT_NE(mapped, sentinel);
    EXPECT_STREQ(mapped, c.common);
    ASSERT_EQ(log().records().size(), 1u) << log().dump();
    const tvl::test::LogRecord& r = log().records()[0];
    EXPECT_EQ(r.function, "getMappedName");
    EXPECT_EQ(r.level, TVL_LEVEL_FAILURE);
    EXPECT_EQ(r.text, std::string("VendorName = ") + c.vendor + " MappedStrName = " + c.common + "\n");
  }
  const CHAR8* mapped = sentinel;
  DRIVER_FN(getMappedName)(nullptr, &mapped);
  DRIVER_FN(getMappedName)("OptionROM", nullptr);
  EXPECT_EQ(mapped, sentinel);
}

}  // namespace
