// The handle database through EFI_BOOT_SERVICES.
#include <functional>
#include <map>
#include <sstream>

#include "tests/host/platform_test_util.h"

namespace tvl::test {
namespace {

const EFI_GUID kA = testGuid(1), kB = testGuid(2), kC = testGuid(3);
const EFI_GUID kDevicePath = EFI_DEVICE_PATH_PROTOCOL_GUID;

class HandleDatabaseTest : public PlatformTest {
 protected:
  EFI_HANDLE installNew(const EFI_GUID& guid, void* iface) {
    EFI_HANDLE h = nullptr;
    EXPECT_EQ(bs()->InstallProtocolInterface(&h, &guid, EFI_NATIVE_INTERFACE, iface), EFI_SUCCESS);
    return h;
  }
  EFI_STATUS installPath(EFI_HANDLE* h, std::vector<uint8_t>& path, const EFI_GUID& guid, void* iface) {
    return bs()->InstallMultipleProtocolInterfaces(h, &kDevicePath, path.data(), &guid, iface, nullptr);
  }
  int a = 0, a2 = 0, b = 0, c = 0;
};

TEST_F(HandleDatabaseTest, InstallUninstallAndLocateRules) {
  void* i = &c;
  EXPECT_EQ(bs()->LocateProtocol(&kA, nullptr, &i), EFI_NOT_FOUND);
  EXPECT_EQ(i, nullptr);
  EFI_HANDLE h = installNew(kA, &a);
  EFI_HANDLE h2 = installNew(kA, &a2);
  int notAHandle = 0;
  EFI_HANDLE bogus = &notAHandle;
  const auto native = EFI_NATIVE_INTERFACE;
  const std::pair<std::function<EFI_STATUS()>, EFI_STATUS> cases[] = {
      {[&] { return bs()->InstallProtocolInterface(nullptr, &kB, native, &b); }, EFI_INVALID_PARAMETER},
      {[&] { return bs()->InstallProtocolInterface(&h, nullptr, native, &b); }, EFI_INVALID_PARAMETER},
      {[&] { return bs()->InstallProtocolInterface(&h, &kB, static_cast<EFI_INTERFACE_TYPE>(1), &b); },
       EFI_INVALID_PARAMETER},
      {[&] { return bs()->InstallProtocolInterface(&h, &kA, native, &a2); }, EFI_INVALID_PARAMETER},
      {[&] { return bs()->InstallProtocolInterface(&bogus, &kB, native, &b); }, EFI_INVALID_PARAMETER},
      {[&] { return bs()->UninstallProtocolInterface(h, &kA, &a2); }, EFI_NOT_FOUND},
      {[&] { return bs()->UninstallProtocolInterface(h, &kB, &b); }, EFI_NOT_FOUND},
      {[&] { return bs()->UninstallProtocolInterface(bogus, &kA, &a); }, EFI_INVALID_PARAMETER},
      {[&] { return bs()->UninstallProtocolInterface(h, nullptr, &a); }, EFI_INVALID_PARAMETER},
      {[&] { return bs()->HandleProtocol(h, &kB, &i); }, EFI_UNSUPPORTED},
      {[&] { return bs()->HandleProtocol(bogus, &kA, &i); }, EFI_INVALID_PARAMETER},
      {[&] { return bs()->LocateProtocol(nullptr, nullptr, &i); }, EFI_INVALID_PARAMETER},
      {[&] { return bs()->LocateProtocol(&kA, nullptr, nullptr); }, EFI_INVALID_PARAMETER},
      {[&] { return bs()->InstallProtocolInterface(&h, &kB, native, &b); }, EFI_SUCCESS},
  };
  for (size_t n = 0; n < std::size(cases); ++n)
    EXPECT_EQ(statusName(cases[n].first()), statusName(cases[n].second)) << "case " << n;
  // LocateProtocol finds the first installed.
  ASSERT_EQ(bs()->LocateProtocol(&kA, nullptr, &i), EFI_SUCCESS);
  EXPECT_EQ(i, &a);
  EXPECT_EQ(platform().uninstallProtocol(h2, kA, &a2), EFI_SUCCESS);

  // The handle lives while it carries a protocol and disappears with the last.
  EXPECT_EQ(bs()->UninstallProtocolInterface(h, &kA, &a), EFI_SUCCESS);
  EXPECT_TRUE(inDatabase(platform(), h));
  EXPECT_EQ(bs()->UninstallProtocolInterface(h, &kB, &b), EFI_SUCCESS);
  EXPECT_FALSE(inDatabase(platform(), h));
  EXPECT_EQ(bs()->HandleProtocol(h, &kA, &i), EFI_INVALID_PARAMETER);
}

constexpr uint32_t kGet = EFI_OPEN_PROTOCOL_GET_PROTOCOL;
constexpr uint32_t kChild = EFI_OPEN_PROTOCOL_BY_CHILD_CONTROLLER;
constexpr uint32_t kDriver = EFI_OPEN_PROTOCOL_BY_DRIVER;

// OpenProtocol on interface A of one handle: "o<agent><controller><attributes>"
// opens, "c<agent><controller>" closes, "u" uninstalls; after
// "=" the status (s success, d denied, a already started, i invalid, n not
// found). Handle 0 is null. Attributes: G get, H by handle, T test, C by
// child, D by driver, X exclusive, ? an undefined bit.
const std::pair<const char*, const char*> kOpenScenarios[] = {
    {"GET_PROTOCOL does not hold the interface", "o11G=s o11G=s u=s"},
    {"BY_HANDLE_PROTOCOL and TEST_PROTOCOL do not hold it either", "o10H=s o20T=s u=s"},
    {"BY_DRIVER refuses uninstall until closed", "o11D=s u=d c11=s u=s"},
    {"BY_DRIVER twice by the same agent is ALREADY_STARTED", "o11D=s o11D=a c11=s"},
    {"BY_DRIVER by a second agent is denied; GET_PROTOCOL is not", "o11D=s o22D=d o22G=s c11=s c22=s"},
    {"EXCLUSIVE blocks BY_DRIVER, EXCLUSIVE and uninstall", "o10X=s o22D=d o20X=d o10X=d u=d c10=s u=s"},
    {"EXCLUSIVE after BY_DRIVER is denied", "o11D=s o20X=d o22DX=d c11=s o22DX=s o22DX=a c22=s"},
    {"BY_CHILD_CONTROLLER holds the interface", "o11C=s u=d c11=s u=s"},
    {"attribute and handle validation", "o01D=i o10D=i o00X=i o10C=i o11=i o11GD=i o11?=i o00G=s"},
    {"close rules", "c11=n c01=i o11G=s c12=n c21=n c11=s c11=n"},
};

TEST_F(HandleDatabaseTest, OpenProtocolScenarios) {
  const std::map<char, uint32_t> bits = {{'G', kGet}, {'H', EFI_OPEN_PROTOCOL_BY_HANDLE_PROTOCOL},
      {'T', EFI_OPEN_PROTOCOL_TEST_PROTOCOL}, {'C', kChild}, {'D', kDriver}, {'X', EFI_OPEN_PROTOCOL_EXCLUSIVE}, {'?', 0x40}};
  const std::map<char, EFI_STATUS> statuses = {{'s', EFI_SUCCESS}, {'d', EFI_ACCESS_DENIED}, {'a', EFI_ALREADY_STARTED},
                                               {'i', EFI_INVALID_PARAMETER}, {'n', EFI_NOT_FOUND}};
  for (auto [what, steps] : kOpenScenarios) {
    SCOPED_TRACE(what);
    EFI_HANDLE h = installNew(kA, &a);
    EFI_HANDLE agents[] = {nullptr, installNew(kB, &b), installNew(kB, &b)};
    EFI_HANDLE controllers[] = {nullptr, installNew(kC, &c), installNew(kC, &c)};
    bool installed = true;
    std::istringstream in(steps);
    for (std::string step; in >> step;) {
      size_t eq = step.find('=');
      EFI_HANDLE agent = eq > 1 ? agents[step[1] - '0'] : nullptr;
      EFI_HANDLE controller = eq > 2 ? controllers[step[2] - '0'] : nullptr;
      uint32_t attributes = 0;
      for (size_t i = 3; i < eq; ++i) attributes |= bits.at(step[i]);
      EFI_STATUS status = EFI_SUCCESS;
      void* iface = nullptr;
      if (step[0] == 'o') {
        status = bs()->OpenProtocol(h, &kA, &iface, agent, controller, attributes);
        bool handsOut = status == EFI_SUCCESS && step[3] != 'T';
        if (handsOut || status == EFI_ACCESS_DENIED || status == EFI_INVALID_PARAMETER) {
          EXPECT_EQ(iface, handsOut ? &a : nullptr) << step;
        }
      } else if (step[0] == 'c') status = bs()->CloseProtocol(h, &kA, agent, controller);
      else installed = (status = bs()->UninstallProtocolInterface(h, &kA, &a)) != EFI_SUCCESS && installed;
      EXPECT_EQ(statusName(status), statusName(statuses.at(step[eq + 1]))) << step;
    }
    if (installed) platform().uninstallProtocol(h, kA, &a);
    for (int i = 1; i <= 2; ++i) platform().uninstallProtocol(agents[i], kB, &b), platform().uninstallProtocol(controllers[i], kC, &c);
  }
}

TEST_F(HandleDatabaseTest, LocateHandleBuffer) {
  EFI_HANDLE h1 = installNew(kA, &a), h2 = installNew(kA, &a2);
  UINTN count = 0;
  EFI_HANDLE* handles = reinterpret_cast<EFI_HANDLE*>(&count);
  EXPECT_EQ(bs()->LocateHandleBuffer(ByProtocol, &kDevicePath, nullptr, &count, &handles), EFI_NOT_FOUND);
  EXPECT_TRUE(count == 0 && handles == nullptr);
  ASSERT_EQ(bs()->LocateHandleBuffer(ByProtocol, &kA, nullptr, &count, &handles), EFI_SUCCESS);
  EXPECT_EQ(std::vector<EFI_HANDLE>(handles, handles + count), (std::vector<EFI_HANDLE>{h1, h2}));
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

TEST_F(HandleDatabaseTest, InstallMultipleIsAllOrNothing) {
  EFI_HANDLE h = nullptr;
  // A duplicate GUID in the list fails the whole call and leaves nothing.
  EXPECT_EQ(bs()->InstallMultipleProtocolInterfaces(&h, &kA, &a, &kB, &b, &kA, &a2, nullptr),
            EFI_INVALID_PARAMETER);
  EXPECT_EQ(h, nullptr);
  EXPECT_TRUE(platform().handlesWith(kA).empty() && platform().handlesWith(kB).empty());
  ASSERT_EQ(bs()->InstallMultipleProtocolInterfaces(&h, &kA, &a, &kB, &b, nullptr), EFI_SUCCESS);
  // On an existing handle a failure takes back only what this call added.
  EXPECT_EQ(bs()->InstallMultipleProtocolInterfaces(&h, &kC, &c, &kA, &a2, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(platform().handleProtocol(h, kA), &a);
  EXPECT_EQ(platform().handleProtocol(h, kC), nullptr);
  platform().uninstallProtocol(h, kA, &a), platform().uninstallProtocol(h, kB, &b);

  // A device path that some handle already has cannot make a new handle.
  std::vector<uint8_t> path = pciPath({1, 2}), same = path;
  EFI_HANDLE first = nullptr, second = nullptr;
  ASSERT_EQ(installPath(&first, path, kB, &b), EFI_SUCCESS);
  EXPECT_EQ(installPath(&second, same, kA, &a), EFI_ALREADY_STARTED);
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
        for (auto [guid, iface] : {std::pair{kA, &a}, {kB, &b}, {kC, &c}})
          if (swept) platform().uninstallProtocol(swept, guid, iface);
        swept = nullptr;
      });
}

}  // namespace
}  // namespace tvl::test
