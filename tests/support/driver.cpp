#include "support/driver.h"

namespace tvl::test {

void DriverTest::SetUp() {
  PlatformTest::SetUp();
  provide(initialServices());
  if (HasFatalFailure()) return;
  if (loadsDriver()) {
    EFI_STATUS status = loadDriver();
    ASSERT_EQ(status, EFI_SUCCESS) << "driver entry: " << statusName(status) << "\n" << log_.dump();
  }
}

void DriverTest::TearDown() {
  log_.detach();
  PlatformTest::TearDown();
}

void DriverTest::provide(unsigned services) {
  if (services & kLogService) {
    load("log_service");
    ASSERT_TRUE(log_.attach(platform()));
  }
  if (services & kXmlService) load("xml_service");
  if (services & kFormsProcessor) installStandIn(HII_FORMS_PROCESSOR2_PROTOCOL_GUID);
  if (services & kHiiDatabase) installStandIn(EFI_HII_DATABASE_PROTOCOL_GUID);
  if (services & kHiiString) installStandIn(EFI_HII_STRING_PROTOCOL_GUID);
  markBaseline();
}

void* DriverTest::installStandIn(const EFI_GUID& guid, size_t size, EFI_HANDLE* handle) {
  standIns_.push_back(std::make_unique<unsigned char[]>(size));
  void* table = standIns_.back().get();
  EFI_HANDLE local = nullptr;
  EFI_HANDLE* target = handle ? handle : &local;
  EXPECT_EQ(platform().installProtocol(target, guid, table), EFI_SUCCESS);
  return table;
}

EFI_STATUS DriverTest::loadDriver() {
  EFI_HANDLE handle = nullptr;
  EFI_STATUS status = loadStatus("tolvane_driver", &handle);
  driver_ = handle;
  markBaseline();
  return status;
}

void* DriverTest::symbol(const char* name) {
  void* address = driver_ ? platform().imageSymbol(driver_, name) : nullptr;
  EXPECT_NE(address, nullptr) << "the driver exports no symbol " << name;
  return address;
}

bool DriverTest::isAllocated(const void* address) {
  for (const host::AllocationInfo& a : platform().outstandingAllocations())
    if (a.address == address) return true;
  return false;
}

}  // namespace tvl::test
