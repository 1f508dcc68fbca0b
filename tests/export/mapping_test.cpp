// Common names of NIC settings that adapters publish under their own names:
// exact matches only, both vendor spellings of a name, the table's last row.
// (Mapped names in a NIC's export: the firmware documents test.)
#include <gtest/gtest.h>

#include "export/export_fixture.h"
#include "export/mapping.h"

namespace {

class MappingTest : public tvl::test::ExportTest {};

TEST_F(MappingTest, KnownVendorNamesGiveTheirCommonName) {
  struct Case { const char* vendor; const char* common; } cases[] = {  // common null: no mapping
      {"DhcpVndorID", "DhcpVendId"},         {"DhcpVndorId", "DhcpVendId"},          {"DHCPVNDORID", nullptr},
      {"OptionROM", "BootOptionROM"},        {"BootOptionROM", nullptr},             {"LnkSpeed", nullptr},
      {"LinkUpDelayTime", "LnkUpDelayTime"}, {"LinkUpDelayTime ", nullptr},          {"LinkUpDelay", nullptr},
      {"SecondTgtChapIdLegacy", "SecondTgtChapId"}, {"", nullptr},
  };
  const CHAR8 sentinel[] = "unchanged";
  for (const Case& c : cases) {
    const CHAR8* mapped = sentinel;
    DRIVER_FN(getMappedName)(c.vendor, &mapped);
    EXPECT_STREQ(mapped, c.common ? c.common : sentinel) << c.vendor;
  }
  const CHAR8* mapped = sentinel;
  DRIVER_FN(getMappedName)(nullptr, &mapped);
  DRIVER_FN(getMappedName)("OptionROM", nullptr);
  EXPECT_EQ(mapped, sentinel);
}

}  // namespace
