// The driver's life cycle: service binding, installation and replacement of
// the converter protocol, late binding through protocol-notify events, the
// unsupported slots and unload.
#include <gtest/gtest.h>

#include "driver/driver.h"
#include "support/driver.h"
#include "xml/node.h"

namespace {

using namespace tvl::test;  // DriverTest, the service bits, statusName

constexpr char kEntry[] = "TolvaneInitialize";

TEST_F(DriverTest, InstallsItsRecordWithUnloadHandler) {
  ASSERT_EQ(platform().handlesWith(gTolvaneProtocolGuid), std::vector<EFI_HANDLE>{driver()});
  auto* loaded = static_cast<EFI_LOADED_IMAGE_PROTOCOL*>(
      platform().handleProtocol(driver(), EFI_LOADED_IMAGE_PROTOCOL_GUID));
  ASSERT_NE(loaded, nullptr);
  EXPECT_EQ(reinterpret_cast<void*>(loaded->Unload), symbol("TolvaneUnload"));
  // Each service bound to the installed instance: the command line's info test.
  const LogRecord* entering = log().find(kEntry, "Entering\n");
  EXPECT_TRUE(entering && entering->level == TVL_LEVEL_PROGRESS) << log().dump();
}

TEST_F(DriverTest, SecondLoadReplacesTheFirstInstanceAndFreesItsRecord) {
  EFI_HANDLE first = driver();
  uint64_t firstRecord = 0;
  for (const tvl::host::AllocationInfo& a : platform().outstandingAllocations())
    if (a.address == converter()) firstRecord = a.sequence;
  ASSERT_NE(firstRecord, 0u);
  log().clear();

  ASSERT_EQ(loadDriver(), EFI_SUCCESS);
  EXPECT_EQ(platform().handlesWith(gTolvaneProtocolGuid), std::vector<EFI_HANDLE>{driver()});
  for (const tvl::host::AllocationInfo& a : platform().outstandingAllocations())
    EXPECT_NE(a.sequence, firstRecord) << "the first record is still allocated";
  const LogRecord* uninstall = log().find(kEntry, "UninstallProtocolInterface Status = 0\n");
  EXPECT_TRUE(uninstall && uninstall->level == TVL_LEVEL_PROGRESS) << log().dump();

  // The first image no longer carries the protocol: its unload has nothing
  // to remove, succeeds and leaves the second instance alone.
  EXPECT_EQ(platform().unloadImage(first), EFI_SUCCESS);
  EXPECT_EQ(platform().handlesWith(gTolvaneProtocolGuid), std::vector<EFI_HANDLE>{driver()});
}

// A consumer holding the protocol keeps it from a second load (which traces
// the refusal) and from an unload, until it lets go.
TEST_F(DriverTest, InstanceHeldByAnotherDriverIsKeptUntilReleased) {
  EFI_HANDLE first = driver(), agent = nullptr;
  TOLVANE_PROTOCOL* firstRecord = converter();
  installStandIn(EFI_GUID{0x1d0a0001, 0, 0, {0}}, 8, &agent);
  VOID* opened = nullptr;
  ASSERT_EQ(bs()->OpenProtocol(first, &gTolvaneProtocolGuid, &opened, agent, first, EFI_OPEN_PROTOCOL_BY_DRIVER),
            EFI_SUCCESS);
  log().clear();
  ASSERT_EQ(loadDriver(), EFI_SUCCESS);
  EXPECT_TRUE(isAllocated(firstRecord));
  EXPECT_EQ(platform().handlesWith(gTolvaneProtocolGuid), (std::vector<EFI_HANDLE>{first, driver()}));
  EXPECT_EQ(log().count(kEntry, "UninstallProtocolInterface Status = f\n"), 1u) << log().dump();

  EXPECT_EQ(statusName(platform().unloadImage(first)), statusName(EFI_ACCESS_DENIED));
  EXPECT_TRUE(isAllocated(firstRecord));
  ASSERT_EQ(bs()->CloseProtocol(first, &gTolvaneProtocolGuid, agent, first), EFI_SUCCESS);
  EXPECT_EQ(platform().unloadImage(first), EFI_SUCCESS);
  EXPECT_EQ(platform().handlesWith(gTolvaneProtocolGuid), std::vector<EFI_HANDLE>{driver()});
  EXPECT_FALSE(isAllocated(firstRecord));
}

TEST_F(DriverTest, DeviceLocationServiceIsBoundWhenItArrivesOrAtEntry) {
  ASSERT_EQ(DRIVER_GLOBAL(gDeviceLocationProtocol), nullptr);
  void* location = installStandIn(DEVICE_LOCATION_PROTOCOL_GUID);
  EXPECT_EQ(DRIVER_GLOBAL(gDeviceLocationProtocol), location);
  // Present at entry: bound without an event.
  size_t events = platform().openEvents();
  ASSERT_EQ(loadDriver(), EFI_SUCCESS);
  EXPECT_EQ(DRIVER_GLOBAL(gDeviceLocationProtocol), location);
  EXPECT_EQ(platform().openEvents(), events);
}

struct PasswordCase {  // trace: the one password trace expected, or null
  const char* name; bool newer, older, bindsNewer, bindsOlder; const char* trace;
};

class PasswordBindingTest : public DriverTest, public ::testing::WithParamInterface<PasswordCase> {
 protected:
  bool loadsDriver() const override { return false; }
};

TEST_P(PasswordBindingTest, BindsAtMostOnePasswordService) {
  const PasswordCase& c = GetParam();
  void* newer = c.newer ? installStandIn(PASSWORD2_PROTOCOL_GUID, sizeof(PASSWORD_SERVICE_PROTOCOL)) : nullptr;
  void* older = c.older ? installStandIn(LEGACY_PASSWORD_PROTOCOL_GUID, sizeof(PASSWORD_SERVICE_PROTOCOL)) : nullptr;
  ASSERT_EQ(loadDriver(), EFI_SUCCESS);
  EXPECT_EQ(DRIVER_GLOBAL(gPassword2Protocol), c.bindsNewer ? newer : nullptr);
  EXPECT_EQ(DRIVER_GLOBAL(gLegacyPasswordProtocol), c.bindsOlder ? older : nullptr);

  for (std::string text : {"New password2 protocol found\n", " Both new and old password protocols not found \n"})
    EXPECT_EQ(log().count(kEntry, text), c.trace && text == c.trace ? 1u : 0u) << text << log().dump();
}

// Parameters are named after their first field.
const auto caseName = [](const auto& info) { return std::string(info.param.name); };

INSTANTIATE_TEST_SUITE_P(Services, PasswordBindingTest,
                         ::testing::Values(PasswordCase{"Neither", false, false, false, false,
                                                        " Both new and old password protocols not found \n"},
                                           PasswordCase{"OlderOnly", false, true, false, true, nullptr},
                                           PasswordCase{"NewerOnly", true, false, true, false,
                                                        "New password2 protocol found\n"},
                                           PasswordCase{"Both", true, true, true, false,
                                                        "New password2 protocol found\n"}),
                         caseName);

struct MissingServiceCase {  // boundBefore: how many of the required globals, in binding order, are bound
  const char* name; unsigned missing; size_t boundBefore;
};

class MissingServiceTest : public DriverTest, public ::testing::WithParamInterface<MissingServiceCase> {
 protected:
  unsigned initialServices() const override { return kAllServices & ~GetParam().missing; }
  bool loadsDriver() const override { return false; }
};

TEST_P(MissingServiceTest, EntryFailsWithTheLocateStatusAndInstallsNothing) {
  const char* required[] = {"gHiiFormsProcessor2Protocol", "gHiiDatabase", "XMLProtocol", "HiiStringProtocol"};
  EXPECT_EQ(loadDriver(), EFI_NOT_FOUND);
  EXPECT_TRUE(platform().handlesWith(gTolvaneProtocolGuid).empty());
  for (size_t i = 0; i < 4; ++i)
    EXPECT_EQ(global<void*>(required[i]) != nullptr, i < GetParam().boundBefore) << required[i];
  EXPECT_TRUE(!DRIVER_GLOBAL(gPassword2Protocol) && !DRIVER_GLOBAL(gLegacyPasswordProtocol));
  ASSERT_EQ(log().records().size(), 1u) << log().dump();
  EXPECT_EQ(log().records()[0].text, "Entering\n");
}

INSTANTIATE_TEST_SUITE_P(Services, MissingServiceTest,
                         ::testing::Values(MissingServiceCase{"FormsProcessor", kFormsProcessor, 0},
                                           MissingServiceCase{"HiiDatabase", kHiiDatabase, 1},
                                           MissingServiceCase{"Xml", kXmlService, 2},
                                           MissingServiceCase{"HiiString", kHiiString, 3}),
                         caseName);

class EntryWithoutLogTest : public DriverTest {
 protected:
  unsigned initialServices() const override { return kRequiredServices & ~kXmlService; }
  bool loadsDriver() const override { return false; }
};

TEST_F(EntryWithoutLogTest, FailedEntryKeepsTheLogNotifyEvent) {
  size_t events = platform().openEvents();
  EXPECT_EQ(loadDriver(), EFI_NOT_FOUND);
  EXPECT_EQ(platform().openEvents(), events + 1);
  // The kept event binds the log service once it arrives (as after an
  // entry that succeeded: the same event).
  provide(kLogService);
  EXPECT_EQ(DRIVER_GLOBAL(gLogProtocol), log().protocol());
}

TEST_F(DriverTest, EntryOnAHandleWithoutLoadedImageFailsWithTheOpenStatus) {
  EFI_HANDLE bare = nullptr;
  installStandIn(EFI_GUID{0x1d0a0002, 0, 0, {0}}, 8, &bare);
  EXPECT_EQ(statusName(DRIVER_FN(TolvaneInitialize)(bare, st())), statusName(EFI_UNSUPPORTED));
  // The earlier instance was already replaced: nothing stays installed.
  EXPECT_TRUE(platform().handlesWith(gTolvaneProtocolGuid).empty());
}

TEST_F(DriverTest, EntryAllocationFailures) {
  auto initialize = DRIVER_FN(TolvaneInitialize);
  TOLVANE_PROTOCOL* before = nullptr;
  size_t eventsBefore = 0;
  std::vector<EFI_STATUS> statuses;
  size_t attempts = sweepAllocationFailures(
      [&] {
        before = converter();
        eventsBefore = platform().openEvents();
        log().clear();
        return initialize(driver(), st());
      },
      [&](EFI_STATUS status, size_t k) {
        statuses.push_back(status);
        if (status == EFI_SUCCESS) {
          EXPECT_NE(converter(), nullptr) << k;
          return;
        }
        EXPECT_EQ(status, EFI_OUT_OF_RESOURCES) << k << " " << statusName(status);
        EXPECT_EQ(platform().openEvents(), eventsBefore) << "an event stays after failure " << k;
        if (k == 1) {  // listing the handles of the earlier instance: it stays installed
          EXPECT_EQ(converter(), before);
          const LogRecord* line = log().find(kEntry, "LocateHandleBuffer status = 9\n");
          EXPECT_TRUE(line && line->level == TVL_LEVEL_FAILURE) << log().dump();
        } else {
          EXPECT_EQ(converter(), nullptr) << k;
        }
      },
      [&] {
        EFI_STATUS restored = converter() ? EFI_SUCCESS : initialize(driver(), st());
        EXPECT_EQ(restored, EFI_SUCCESS);
      });
  // Listing, event, notify registration, record, installation.
  ASSERT_EQ(attempts, 5u);
  EXPECT_EQ(statuses, (std::vector<EFI_STATUS>{EFI_OUT_OF_RESOURCES, EFI_SUCCESS, EFI_SUCCESS, EFI_OUT_OF_RESOURCES,
                                                EFI_OUT_OF_RESOURCES}));
  EXPECT_EQ(platform().unloadImage(driver()), EFI_SUCCESS);
}

// Which slots hold it: the command line's info test.
TEST_F(DriverTest, UnsupportedSlotsAnswerUnsupportedWhateverTheyAreGiven) {
  TOLVANE_PROTOCOL* p = converter();
  for (TOLVANE_UNSUPPORTED slot : {p->Slot3, p->Slot4, p->Slot6, p->Slot8}) {
    EXPECT_EQ(slot(), EFI_UNSUPPORTED);
    EXPECT_EQ(slot(1.5, ~0ull, "text", nullptr, 7, 8, 9, 10), EFI_UNSUPPORTED);
  }
}

}  // namespace
