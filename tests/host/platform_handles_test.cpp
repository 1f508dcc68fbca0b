// The handle database as images see it through EFI_BOOT_SERVICES.
#include <functional>

#include "tests/host/platform_test_util.h"

namespace tvl::test {
namespace {

const EFI_GUID kA = testGuid(1);
const EFI_GUID kB = testGuid(2);
const EFI_GUID kC = testGuid(3);
const EFI_GUID kDevicePath = EFI_DEVICE_PATH_PROTOCOL_GUID;

class HandleDatabaseTest : public PlatformTest {
 protected:
  EFI_HANDLE installNew(const EFI_GUID& guid, void* iface) {
    EFI_HANDLE h = nullptr;
    EXPECT_EQ(bs()->InstallProtocolInterface(&h, &guid, EFI_NATIVE_INTERFACE, iface), EFI_SUCCESS);
    return h;
  }
  bool inDatabase(EFI_HANDLE h) {
    for (EFI_HANDLE x : platform().allHandles())
      if (x == h) return true;
    return false;
  }
  int a = 0, a2 = 0, b = 0, c = 0;
};

TEST_F(HandleDatabaseTest, InstallAndUninstallRules) {
  EFI_HANDLE h = installNew(kA, &a);
  int notAHandle = 0;
  EFI_HANDLE bogus = &notAHandle;
  struct Case {
    const char* what;
    std::function<EFI_STATUS()> call;
    EFI_STATUS expected;
  };
  const Case cases[] = {
      {"install: null handle pointer",
       [&] { return bs()->InstallProtocolInterface(nullptr, &kB, EFI_NATIVE_INTERFACE, &b); },
       EFI_INVALID_PARAMETER},
      {"install: null GUID",
       [&] { return bs()->InstallProtocolInterface(&h, nullptr, EFI_NATIVE_INTERFACE, &b); }, EFI_INVALID_PARAMETER},
      {"install: not a native interface",
       [&] { return bs()->InstallProtocolInterface(&h, &kB, static_cast<EFI_INTERFACE_TYPE>(1), &b); },
       EFI_INVALID_PARAMETER},
      {"install: protocol already on the handle",
       [&] { return bs()->InstallProtocolInterface(&h, &kA, EFI_NATIVE_INTERFACE, &a2); }, EFI_INVALID_PARAMETER},
      {"install: unknown handle",
       [&] { return bs()->InstallProtocolInterface(&bogus, &kB, EFI_NATIVE_INTERFACE, &b); },
       EFI_INVALID_PARAMETER},
      {"uninstall: other interface pointer", [&] { return bs()->UninstallProtocolInterface(h, &kA, &a2); },
       EFI_NOT_FOUND},
      {"uninstall: protocol not on the handle", [&] { return bs()->UninstallProtocolInterface(h, &kB, &b); },
       EFI_NOT_FOUND},
      {"uninstall: unknown handle", [&] { return bs()->UninstallProtocolInterface(bogus, &kA, &a); },
       EFI_INVALID_PARAMETER},
      {"uninstall: null GUID", [&] { return bs()->UninstallProtocolInterface(h, nullptr, &a); },
       EFI_INVALID_PARAMETER},
      {"reinstall: old interface differs", [&] { return bs()->ReinstallProtocolInterface(h, &kA, &a2, &b); },
       EFI_NOT_FOUND},
      {"handle protocol: missing", [&] { void* i; return bs()->HandleProtocol(h, &kB, &i); }, EFI_UNSUPPORTED},
      {"handle protocol: unknown handle", [&] { void* i; return bs()->HandleProtocol(bogus, &kA, &i); },
       EFI_INVALID_PARAMETER},
      {"install: second protocol", [&] { return bs()->InstallProtocolInterface(&h, &kB, EFI_NATIVE_INTERFACE, &b); },
       EFI_SUCCESS},
  };
  for (const Case& t : cases) EXPECT_EQ(statusName(t.call()), statusName(t.expected)) << t.what;

  // The handle lives while it carries a protocol and disappears with the last.
  EXPECT_EQ(bs()->UninstallProtocolInterface(h, &kA, &a), EFI_SUCCESS);
  EXPECT_TRUE(inDatabase(h));
  EXPECT_EQ(bs()->UninstallProtocolInterface(h, &kB, &b), EFI_SUCCESS);
  EXPECT_FALSE(inDatabase(h));
  void* i = nullptr;
  EXPECT_EQ(bs()->HandleProtocol(h, &kA, &i), EFI_INVALID_PARAMETER);
}

// One OpenProtocol scenario: steps on the interface A of one handle, made by
// agents 1 and 2 for controllers 1 and 2 (0 stands for a null handle).
struct Step {
  enum Kind { Open, Close, Uninstall, Reinstall } kind;
  int agent;
  int controller;
  uint32_t attributes;
  EFI_STATUS expected;
};
struct Scenario {
  const char* what;
  std::vector<Step> steps;
};

constexpr uint32_t kByHandle = EFI_OPEN_PROTOCOL_BY_HANDLE_PROTOCOL;
constexpr uint32_t kGet = EFI_OPEN_PROTOCOL_GET_PROTOCOL;
constexpr uint32_t kTest = EFI_OPEN_PROTOCOL_TEST_PROTOCOL;
constexpr uint32_t kChild = EFI_OPEN_PROTOCOL_BY_CHILD_CONTROLLER;
constexpr uint32_t kDriver = EFI_OPEN_PROTOCOL_BY_DRIVER;
constexpr uint32_t kExclusive = EFI_OPEN_PROTOCOL_EXCLUSIVE;
using S = Step;

const Scenario kOpenScenarios[] = {
    {"GET_PROTOCOL does not hold the interface",
     {{S::Open, 1, 1, kGet, EFI_SUCCESS}, {S::Open, 1, 1, kGet, EFI_SUCCESS}, {S::Uninstall, 0, 0, 0, EFI_SUCCESS}}},
    {"BY_HANDLE_PROTOCOL and TEST_PROTOCOL do not hold it either",
     {{S::Open, 1, 0, kByHandle, EFI_SUCCESS}, {S::Open, 2, 0, kTest, EFI_SUCCESS},
      {S::Uninstall, 0, 0, 0, EFI_SUCCESS}}},
    {"BY_DRIVER refuses uninstall and reinstall until closed",
     {{S::Open, 1, 1, kDriver, EFI_SUCCESS}, {S::Uninstall, 0, 0, 0, EFI_ACCESS_DENIED},
      {S::Reinstall, 0, 0, 0, EFI_ACCESS_DENIED}, {S::Close, 1, 1, 0, EFI_SUCCESS},
      {S::Uninstall, 0, 0, 0, EFI_SUCCESS}}},
    {"BY_DRIVER twice by the same agent is ALREADY_STARTED",
     {{S::Open, 1, 1, kDriver, EFI_SUCCESS}, {S::Open, 1, 1, kDriver, EFI_ALREADY_STARTED},
      {S::Close, 1, 1, 0, EFI_SUCCESS}}},
    {"BY_DRIVER by a second agent is denied; GET_PROTOCOL is not",
     {{S::Open, 1, 1, kDriver, EFI_SUCCESS}, {S::Open, 2, 2, kDriver, EFI_ACCESS_DENIED},
      {S::Open, 2, 2, kGet, EFI_SUCCESS}, {S::Close, 1, 1, 0, EFI_SUCCESS}, {S::Close, 2, 2, 0, EFI_SUCCESS}}},
    {"EXCLUSIVE blocks BY_DRIVER, EXCLUSIVE and uninstall",
     {{S::Open, 1, 0, kExclusive, EFI_SUCCESS}, {S::Open, 2, 2, kDriver, EFI_ACCESS_DENIED},
      {S::Open, 2, 0, kExclusive, EFI_ACCESS_DENIED}, {S::Open, 1, 0, kExclusive, EFI_ACCESS_DENIED},
      {S::Uninstall, 0, 0, 0, EFI_ACCESS_DENIED}, {S::Close, 1, 0, 0, EFI_SUCCESS},
      {S::Uninstall, 0, 0, 0, EFI_SUCCESS}}},
    {"EXCLUSIVE after BY_DRIVER is denied (no driver can be disconnected)",
     {{S::Open, 1, 1, kDriver, EFI_SUCCESS}, {S::Open, 2, 0, kExclusive, EFI_ACCESS_DENIED},
      {S::Open, 2, 2, kDriver | kExclusive, EFI_ACCESS_DENIED}, {S::Close, 1, 1, 0, EFI_SUCCESS},
      {S::Open, 2, 2, kDriver | kExclusive, EFI_SUCCESS}, {S::Open, 2, 2, kDriver | kExclusive, EFI_ALREADY_STARTED},
      {S::Close, 2, 2, 0, EFI_SUCCESS}}},
    {"BY_CHILD_CONTROLLER holds the interface",
     {{S::Open, 1, 1, kChild, EFI_SUCCESS}, {S::Uninstall, 0, 0, 0, EFI_ACCESS_DENIED},
      {S::Close, 1, 1, 0, EFI_SUCCESS}, {S::Uninstall, 0, 0, 0, EFI_SUCCESS}}},
    {"attribute and handle validation",
     {{S::Open, 0, 1, kDriver, EFI_INVALID_PARAMETER}, {S::Open, 1, 0, kDriver, EFI_INVALID_PARAMETER},
      {S::Open, 0, 0, kExclusive, EFI_INVALID_PARAMETER}, {S::Open, 1, 0, kChild, EFI_INVALID_PARAMETER},
      {S::Open, 1, 1, 0, EFI_INVALID_PARAMETER}, {S::Open, 1, 1, kGet | kDriver, EFI_INVALID_PARAMETER},
      {S::Open, 1, 1, 0x40, EFI_INVALID_PARAMETER}, {S::Open, 0, 0, kGet, EFI_SUCCESS}}},
    {"close rules",
     {{S::Close, 1, 1, 0, EFI_NOT_FOUND}, {S::Close, 0, 1, 0, EFI_INVALID_PARAMETER},
      {S::Open, 1, 1, kGet, EFI_SUCCESS}, {S::Close, 1, 2, 0, EFI_NOT_FOUND}, {S::Close, 2, 1, 0, EFI_NOT_FOUND},
      {S::Close, 1, 1, 0, EFI_SUCCESS}, {S::Close, 1, 1, 0, EFI_NOT_FOUND}}},
};

TEST_F(HandleDatabaseTest, OpenProtocolScenarios) {
  for (const Scenario& sc : kOpenScenarios) {
    SCOPED_TRACE(sc.what);
    EFI_HANDLE h = installNew(kA, &a);
    EFI_HANDLE agents[] = {nullptr, installNew(kB, &b), installNew(kB, &b)};
    EFI_HANDLE controllers[] = {nullptr, installNew(kC, &c), installNew(kC, &c)};
    bool installed = true;
    for (size_t i = 0; i < sc.steps.size(); ++i) {
      const Step& s = sc.steps[i];
      EFI_STATUS status = EFI_SUCCESS;
      void* iface = nullptr;
      switch (s.kind) {
        case Step::Open:
          status = bs()->OpenProtocol(h, &kA, &iface, agents[s.agent], controllers[s.controller], s.attributes);
          if (status == EFI_SUCCESS && s.attributes != kTest) {
            EXPECT_EQ(iface, &a) << "step " << i;
          }
          if (status == EFI_ACCESS_DENIED || status == EFI_INVALID_PARAMETER) {
            EXPECT_EQ(iface, nullptr) << i;
          }
          break;
        case Step::Close:
          status = bs()->CloseProtocol(h, &kA, agents[s.agent], controllers[s.controller]);
          break;
        case Step::Uninstall:
          status = bs()->UninstallProtocolInterface(h, &kA, &a);
          if (status == EFI_SUCCESS) installed = false;
          break;
        case Step::Reinstall:
          status = bs()->ReinstallProtocolInterface(h, &kA, &a, &a);
          break;
      }
      EXPECT_EQ(statusName(status), statusName(s.expected)) << "step " << i;
    }
    if (installed) {
      EXPECT_EQ(platform().uninstallProtocol(h, kA, &a), EFI_SUCCESS);
    }
    for (int i = 1; i <= 2; ++i) {
      EXPECT_EQ(platform().uninstallProtocol(agents[i], kB, &b), EFI_SUCCESS);
      EXPECT_EQ(platform().uninstallProtocol(controllers[i], kC, &c), EFI_SUCCESS);
    }
  }
}

TEST_F(HandleDatabaseTest, OpenProtocolInformationCountsOpens) {
  EFI_HANDLE h = installNew(kA, &a);
  EFI_HANDLE agent = installNew(kB, &b);
  EFI_HANDLE controller = installNew(kC, &c);
  void* iface = nullptr;
  ASSERT_EQ(bs()->OpenProtocol(h, &kA, &iface, agent, controller, kGet), EFI_SUCCESS);
  ASSERT_EQ(bs()->OpenProtocol(h, &kA, &iface, agent, controller, kGet), EFI_SUCCESS);
  ASSERT_EQ(bs()->OpenProtocol(h, &kA, &iface, agent, controller, kDriver), EFI_SUCCESS);
  EFI_OPEN_PROTOCOL_INFORMATION_ENTRY* entries = nullptr;
  UINTN count = 0;
  ASSERT_EQ(bs()->OpenProtocolInformation(h, &kA, &entries, &count), EFI_SUCCESS);
  ASSERT_EQ(count, 2u);
  EXPECT_EQ(entries[0].Attributes, kGet);
  EXPECT_EQ(entries[0].OpenCount, 2u);
  EXPECT_EQ(entries[1].Attributes, kDriver);
  EXPECT_EQ(entries[1].AgentHandle, agent);
  EXPECT_EQ(entries[1].ControllerHandle, controller);
  EXPECT_EQ(bs()->FreePool(entries), EFI_SUCCESS);
  EXPECT_EQ(bs()->OpenProtocolInformation(h, &kB, &entries, &count), EFI_NOT_FOUND);
  // With a BY_DRIVER open the uninstall fails before touching anything.
  EXPECT_EQ(bs()->UninstallProtocolInterface(h, &kA, &a), EFI_ACCESS_DENIED);
  ASSERT_EQ(bs()->OpenProtocolInformation(h, &kA, &entries, &count), EFI_SUCCESS);
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(bs()->FreePool(entries), EFI_SUCCESS);
  // Without one, the GET_PROTOCOL opens go even when a child open still
  // refuses the uninstall, as in firmware.
  ASSERT_EQ(bs()->CloseProtocol(h, &kA, agent, controller), EFI_SUCCESS);
  ASSERT_EQ(bs()->OpenProtocol(h, &kA, &iface, agent, controller, kGet), EFI_SUCCESS);
  ASSERT_EQ(bs()->OpenProtocol(h, &kA, &iface, agent, controller, kChild), EFI_SUCCESS);
  EXPECT_EQ(bs()->UninstallProtocolInterface(h, &kA, &a), EFI_ACCESS_DENIED);
  ASSERT_EQ(bs()->OpenProtocolInformation(h, &kA, &entries, &count), EFI_SUCCESS);
  ASSERT_EQ(count, 1u);
  EXPECT_EQ(entries[0].Attributes, kChild);
  EXPECT_EQ(bs()->FreePool(entries), EFI_SUCCESS);
}

TEST_F(HandleDatabaseTest, ProtocolsPerHandleListsInstallOrder) {
  EFI_HANDLE h = installNew(kC, &c);
  ASSERT_EQ(bs()->InstallProtocolInterface(&h, &kA, EFI_NATIVE_INTERFACE, &a), EFI_SUCCESS);
  EFI_GUID** guids = nullptr;
  UINTN count = 0;
  ASSERT_EQ(bs()->ProtocolsPerHandle(h, &guids, &count), EFI_SUCCESS);
  ASSERT_EQ(count, 2u);
  EXPECT_TRUE(*guids[0] == kC);
  EXPECT_TRUE(*guids[1] == kA);
  EXPECT_EQ(bs()->FreePool(guids), EFI_SUCCESS);
  EXPECT_EQ(bs()->ProtocolsPerHandle(nullptr, &guids, &count), EFI_INVALID_PARAMETER);
  EXPECT_EQ(bs()->ProtocolsPerHandle(h, nullptr, &count), EFI_INVALID_PARAMETER);
}

TEST_F(HandleDatabaseTest, LocateHandleAndBuffer) {
  EFI_HANDLE h1 = installNew(kA, &a);
  EFI_HANDLE h2 = installNew(kA, &a2);
  EFI_HANDLE h3 = installNew(kB, &b);
  // The later-installed interface is listed after the earlier one even
  // when its handle is older.
  ASSERT_EQ(bs()->InstallProtocolInterface(&h3, &kC, EFI_NATIVE_INTERFACE, &c), EFI_SUCCESS);
  ASSERT_EQ(bs()->InstallProtocolInterface(&h1, &kC, EFI_NATIVE_INTERFACE, &c), EFI_SUCCESS);

  EFI_HANDLE buffer[4] = {};
  UINTN size = 0;
  EXPECT_EQ(bs()->LocateHandle(ByProtocol, &kA, nullptr, &size, buffer), EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ(size, 2 * sizeof(EFI_HANDLE));
  size = sizeof buffer;
  ASSERT_EQ(bs()->LocateHandle(ByProtocol, &kC, nullptr, &size, buffer), EFI_SUCCESS);
  EXPECT_EQ(size, 2 * sizeof(EFI_HANDLE));
  EXPECT_EQ(buffer[0], h3);
  EXPECT_EQ(buffer[1], h1);
  size = sizeof buffer;
  EXPECT_EQ(bs()->LocateHandle(ByProtocol, &kDevicePath, nullptr, &size, buffer), EFI_NOT_FOUND);
  EXPECT_EQ(size, 0u);
  size = 8;
  EXPECT_EQ(bs()->LocateHandle(ByProtocol, &kA, nullptr, &size, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(bs()->LocateHandle(ByProtocol, &kA, nullptr, nullptr, buffer), EFI_INVALID_PARAMETER);
  size = sizeof buffer;
  EXPECT_EQ(bs()->LocateHandle(ByProtocol, nullptr, nullptr, &size, buffer), EFI_INVALID_PARAMETER);
  EXPECT_EQ(bs()->LocateHandle(ByRegisterNotify, nullptr, nullptr, &size, buffer), EFI_INVALID_PARAMETER);
  EXPECT_EQ(bs()->LocateHandle(static_cast<EFI_LOCATE_SEARCH_TYPE>(7), &kA, nullptr, &size, buffer),
            EFI_INVALID_PARAMETER);

  UINTN count = 0;
  EFI_HANDLE* handles = nullptr;
  ASSERT_EQ(bs()->LocateHandleBuffer(AllHandles, nullptr, nullptr, &count, &handles), EFI_SUCCESS);
  std::vector<EFI_HANDLE> all(handles, handles + count);
  EXPECT_EQ(all, platform().allHandles());
  EXPECT_EQ(all.size(), 4u);  // the console handle and ours
  EXPECT_EQ(bs()->FreePool(handles), EFI_SUCCESS);
  handles = reinterpret_cast<EFI_HANDLE*>(&count);
  EXPECT_EQ(bs()->LocateHandleBuffer(ByProtocol, &kDevicePath, nullptr, &count, &handles), EFI_NOT_FOUND);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(handles, nullptr);

  ASSERT_EQ(bs()->LocateHandleBuffer(ByProtocol, &kA, nullptr, &count, &handles), EFI_SUCCESS);
  ASSERT_EQ(count, 2u);
  EXPECT_EQ(handles[0], h1);
  EXPECT_EQ(handles[1], h2);
  EXPECT_EQ(bs()->FreePool(handles), EFI_SUCCESS);
  sweepAllocationFailures(
      [&] {
        EFI_STATUS s = bs()->LocateHandleBuffer(ByProtocol, &kA, nullptr, &count, &handles);
        if (s == EFI_SUCCESS) bs()->FreePool(handles);
        return s;
      },
      [&](EFI_STATUS s, size_t) {
        EXPECT_EQ(s, EFI_OUT_OF_RESOURCES);
        EXPECT_EQ(handles, nullptr);
      });
}

TEST_F(HandleDatabaseTest, LocateProtocolFindsTheFirstInstalled) {
  void* iface = &c;
  EXPECT_EQ(bs()->LocateProtocol(&kA, nullptr, &iface), EFI_NOT_FOUND);
  EXPECT_EQ(iface, nullptr);
  EFI_HANDLE h1 = installNew(kA, &a);
  installNew(kA, &a2);
  ASSERT_EQ(bs()->LocateProtocol(&kA, nullptr, &iface), EFI_SUCCESS);
  EXPECT_EQ(iface, &a);
  // A reinstalled interface counts as newly installed.
  ASSERT_EQ(bs()->ReinstallProtocolInterface(h1, &kA, &a, &b), EFI_SUCCESS);
  ASSERT_EQ(bs()->LocateProtocol(&kA, nullptr, &iface), EFI_SUCCESS);
  EXPECT_EQ(iface, &a2);
  EXPECT_EQ(bs()->LocateProtocol(nullptr, nullptr, &iface), EFI_INVALID_PARAMETER);
  EXPECT_EQ(bs()->LocateProtocol(&kA, nullptr, nullptr), EFI_INVALID_PARAMETER);
}

TEST_F(HandleDatabaseTest, InstallMultipleIsAllOrNothing) {
  EFI_HANDLE h = nullptr;
  // A duplicate GUID in the list fails the whole call and leaves nothing.
  EXPECT_EQ(bs()->InstallMultipleProtocolInterfaces(&h, &kA, &a, &kB, &b, &kA, &a2, nullptr),
            EFI_INVALID_PARAMETER);
  EXPECT_EQ(h, nullptr);
  EXPECT_TRUE(platform().handlesWith(kA).empty());
  EXPECT_TRUE(platform().handlesWith(kB).empty());

  ASSERT_EQ(bs()->InstallMultipleProtocolInterfaces(&h, &kA, &a, &kB, &b, nullptr), EFI_SUCCESS);
  ASSERT_NE(h, nullptr);
  // On an existing handle a failure takes back only what this call added.
  EXPECT_EQ(bs()->InstallMultipleProtocolInterfaces(&h, &kC, &c, &kA, &a2, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(platform().handleProtocol(h, kA), &a);
  EXPECT_EQ(platform().handleProtocol(h, kC), nullptr);
  EXPECT_EQ(bs()->InstallMultipleProtocolInterfaces(nullptr, &kC, &c, nullptr), EFI_INVALID_PARAMETER);

  // Removal is all-or-nothing too.
  EXPECT_EQ(bs()->UninstallMultipleProtocolInterfaces(h, &kA, &a, &kB, &a2, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(platform().handleProtocol(h, kA), &a);
  EXPECT_EQ(platform().handleProtocol(h, kB), &b);
  EXPECT_EQ(bs()->UninstallMultipleProtocolInterfaces(h, &kA, &a, &kB, &b, nullptr), EFI_SUCCESS);
  EXPECT_TRUE(platform().allHandles().size() == 1u);  // only the console remains

  // A device path that some handle already has cannot make a new handle.
  std::vector<uint8_t> path = pciPath({1, 2});
  std::vector<uint8_t> same = path;
  EFI_HANDLE first = nullptr, second = nullptr;
  ASSERT_EQ(bs()->InstallMultipleProtocolInterfaces(&first, &kDevicePath, path.data(), nullptr), EFI_SUCCESS);
  EXPECT_EQ(bs()->InstallMultipleProtocolInterfaces(&second, &kA, &a, &kDevicePath, same.data(), nullptr),
            EFI_ALREADY_STARTED);
  EXPECT_EQ(second, nullptr);
  EXPECT_TRUE(platform().handlesWith(kA).empty());

  EFI_HANDLE swept = nullptr;
  sweepAllocationFailures(
      [&] { return bs()->InstallMultipleProtocolInterfaces(&swept, &kA, &a, &kB, &b, &kC, &c, nullptr); },
      [&](EFI_STATUS s, size_t) {
        EXPECT_EQ(s, EFI_OUT_OF_RESOURCES);
        EXPECT_EQ(swept, nullptr);
        EXPECT_TRUE(platform().handlesWith(kA).empty());
      },
      [&] {
        if (swept) {
          EXPECT_EQ(bs()->UninstallMultipleProtocolInterfaces(swept, &kA, &a, &kB, &b, &kC, &c, nullptr), EFI_SUCCESS);
        }
        swept = nullptr;
      });
}

TEST_F(HandleDatabaseTest, LocateDevicePathPicksTheLongestPrefix) {
  std::vector<uint8_t> shortPath = pciPath({1});
  std::vector<uint8_t> longPath = pciPath({1, 2});
  std::vector<uint8_t> otherPath = pciPath({1, 2, 3});
  EFI_HANDLE shortHandle = nullptr, longHandle = nullptr, other = nullptr;
  ASSERT_EQ(bs()->InstallMultipleProtocolInterfaces(&shortHandle, &kDevicePath, shortPath.data(), &kA, &a, nullptr),
            EFI_SUCCESS);
  ASSERT_EQ(bs()->InstallMultipleProtocolInterfaces(&longHandle, &kDevicePath, longPath.data(), &kA, &a2, nullptr),
            EFI_SUCCESS);
  // Has the longest match but not the protocol asked for.
  ASSERT_EQ(bs()->InstallMultipleProtocolInterfaces(&other, &kDevicePath, otherPath.data(), &kB, &b, nullptr),
            EFI_SUCCESS);

  struct Case {
    std::vector<uint8_t> source;
    EFI_STATUS expected;
    EFI_HANDLE device;
    size_t remainingOffset;
  };
  std::vector<uint8_t> malformed = pciPath({1, 2});
  malformed[8] = 2;  // second node claims to be 2 bytes long
  std::vector<Case> cases = {
      {pciPath({1, 2, 3, 4}), EFI_SUCCESS, longHandle, 12},
      {pciPath({1, 2}), EFI_SUCCESS, longHandle, 12},
      {pciPath({1, 5}), EFI_SUCCESS, shortHandle, 6},
      {pciPath({9}), EFI_NOT_FOUND, nullptr, 0},
      {malformed, EFI_INVALID_PARAMETER, nullptr, 0},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    Case& t = cases[i];
    EFI_DEVICE_PATH_PROTOCOL* path = asPath(t.source);
    EFI_HANDLE device = nullptr;
    EXPECT_EQ(statusName(bs()->LocateDevicePath(&kA, &path, &device)), statusName(t.expected)) << "case " << i;
    if (t.expected != EFI_SUCCESS) continue;
    EXPECT_EQ(device, t.device) << "case " << i;
    EXPECT_EQ(reinterpret_cast<uint8_t*>(path) - t.source.data(), static_cast<std::ptrdiff_t>(t.remainingOffset));
  }
  EFI_DEVICE_PATH_PROTOCOL* path = asPath(longPath);
  EFI_HANDLE device = nullptr;
  EXPECT_EQ(bs()->LocateDevicePath(&kA, &path, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(bs()->LocateDevicePath(&kA, nullptr, &device), EFI_INVALID_PARAMETER);
  EXPECT_EQ(bs()->LocateDevicePath(nullptr, &path, &device), EFI_INVALID_PARAMETER);
}

}  // namespace
}  // namespace tvl::test
