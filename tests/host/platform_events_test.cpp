// Events, task priority levels and protocol notification.
#include <string>
#include <utility>

#include "tests/host/platform_test_util.h"

namespace tvl::test {
namespace {

const EFI_GUID kA = testGuid(1), kB = testGuid(2);

// Each notify call's tag and the TPL it ran at; take() hands out what was written since the last take().
struct Journal {
  std::string calls;
  EFI_BOOT_SERVICES* bs = nullptr;
  std::string take() { return std::exchange(calls, {}); }
};
struct Probe { Journal* journal; char tag; EFI_EVENT chained = nullptr; /* signalled from inside the notify */ };

EFI_TPL tplNow(EFI_BOOT_SERVICES* bs) {
  EFI_TPL now = bs->RaiseTPL(TPL_HIGH_LEVEL);
  bs->RestoreTPL(now);
  return now;
}

VOID EFIAPI record(EFI_EVENT, VOID* context) {
  auto* probe = static_cast<Probe*>(context);
  probe->journal->calls += probe->tag + std::to_string(tplNow(probe->journal->bs)) + ' ';
  if (probe->chained) probe->journal->bs->SignalEvent(probe->chained);
}

class EventTest : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    journal.bs = bs();
  }
  EFI_EVENT make(Probe& probe, EFI_TPL tpl, uint32_t type = EVT_NOTIFY_SIGNAL) {
    probe.journal = &journal;
    EFI_EVENT e = nullptr;
    EXPECT_EQ(bs()->CreateEvent(type, tpl, record, &probe, &e), EFI_SUCCESS);
    return e;
  }
  Journal journal;
};

TEST_F(EventTest, CreateEventValidation) {
  const struct { uint32_t type; EFI_TPL tpl; bool withNotify, withOut; EFI_STATUS expected; } cases[] = {
      {EVT_NOTIFY_SIGNAL, TPL_CALLBACK, true, true, EFI_SUCCESS}, {EVT_NOTIFY_WAIT, TPL_NOTIFY, true, true, EFI_SUCCESS},
      {0, 0, false, true, EFI_SUCCESS}, {EVT_TIMER | EVT_NOTIFY_SIGNAL, TPL_CALLBACK, true, true, EFI_SUCCESS},
      {EVT_NOTIFY_SIGNAL | EVT_NOTIFY_WAIT, TPL_CALLBACK, true, true, EFI_INVALID_PARAMETER},
      {EVT_NOTIFY_SIGNAL, TPL_CALLBACK, false, true, EFI_INVALID_PARAMETER},
      {EVT_NOTIFY_SIGNAL, TPL_APPLICATION, true, true, EFI_INVALID_PARAMETER},
      {EVT_NOTIFY_SIGNAL, TPL_HIGH_LEVEL, true, true, EFI_INVALID_PARAMETER},
      {EVT_NOTIFY_SIGNAL, TPL_CALLBACK, true, false, EFI_INVALID_PARAMETER},
      {0x00000400, TPL_CALLBACK, true, true, EFI_INVALID_PARAMETER},
  };
  Probe probe{&journal, 'x'};
  for (const auto& t : cases) {
    EFI_EVENT e = nullptr;
    EFI_STATUS s = bs()->CreateEvent(t.type, t.tpl, t.withNotify ? record : nullptr, &probe, t.withOut ? &e : nullptr);
    EXPECT_EQ(statusName(s), statusName(t.expected)) << "type " << std::hex << t.type << " tpl " << t.tpl;
    if (s == EFI_SUCCESS) bs()->CloseEvent(e);
  }
  EFI_EVENT e = nullptr;
  platform().failAllocation(1);
  EXPECT_EQ(bs()->CreateEvent(EVT_NOTIFY_SIGNAL, TPL_CALLBACK, record, &probe, &e), EFI_OUT_OF_RESOURCES);
}

TEST_F(EventTest, NotifiesRunAtTheirTplOrWaitForRestore) {
  Probe p1{&journal, 'a'}, p2{&journal, 'b'}, p3{&journal, 'c'};
  EFI_EVENT callback1 = make(p1, TPL_CALLBACK), notify = make(p2, TPL_NOTIFY), callback2 = make(p3, TPL_CALLBACK);
  bs()->SignalEvent(callback1);  // above the current TPL: at once, at the notify's own TPL
  EXPECT_EQ(journal.take(), "a8 ");
  // Not above it: queued, run highest TPL first, in signal order within a
  // level, as the TPL drops; an already pending event runs once.
  EFI_TPL old = bs()->RaiseTPL(TPL_HIGH_LEVEL);
  for (EFI_EVENT e : {callback2, callback1, notify, callback2}) bs()->SignalEvent(e);
  bs()->RestoreTPL(TPL_CALLBACK);
  EXPECT_EQ(journal.calls, "b16 ");
  bs()->RestoreTPL(old);
  EXPECT_EQ(journal.take(), "b16 c8 a8 ");
  // A notify signalling another: a higher one runs inside it, an equal one right after.
  p1.chained = notify;
  p2.chained = callback2;
  bs()->SignalEvent(callback1);
  EXPECT_EQ(journal.take(), "a8 b16 c8 ");
  // Closing a pending event drops its notify; misuse of Raise/RestoreTPL is counted and ignored.
  p1.chained = p2.chained = nullptr;
  old = bs()->RaiseTPL(TPL_NOTIFY);
  bs()->SignalEvent(callback1);
  EXPECT_EQ(bs()->CloseEvent(callback1), EFI_SUCCESS);
  EXPECT_EQ(bs()->RaiseTPL(TPL_CALLBACK), TPL_NOTIFY);
  bs()->RestoreTPL(TPL_HIGH_LEVEL);
  EXPECT_EQ(platform().tplViolations(), 2u);
  bs()->RestoreTPL(old);
  EXPECT_EQ(journal.calls, "");
  EXPECT_EQ(platform().currentTpl(), TPL_APPLICATION);
  EXPECT_EQ(bs()->SignalEvent(callback1), EFI_INVALID_PARAMETER);
  EXPECT_EQ(bs()->CloseEvent(callback1), EFI_INVALID_PARAMETER);
  for (EFI_EVENT e : {notify, callback2}) bs()->CloseEvent(e);
}

TEST_F(EventTest, ProtocolNotifyAndLocateByRegistration) {
  Probe probe{&journal, 'n'};
  EFI_EVENT event = make(probe, TPL_CALLBACK);
  int before = 0, a1 = 0, a2 = 0, other = 0;
  EFI_HANDLE early = nullptr;
  ASSERT_EQ(platform().installProtocol(&early, kA, &before), EFI_SUCCESS);
  void* registration = nullptr;
  ASSERT_EQ(bs()->RegisterProtocolNotify(&kA, event, &registration), EFI_SUCCESS);
  void* iface = &other;
  EXPECT_EQ(bs()->LocateProtocol(&kA, registration, &iface), EFI_NOT_FOUND);  // earlier ones are not reported
  EXPECT_EQ(iface, nullptr);
  EFI_HANDLE h1 = nullptr, h2 = nullptr, h3 = nullptr, hb = nullptr;
  bs()->InstallProtocolInterface(&h1, &kA, EFI_NATIVE_INTERFACE, &a1);
  bs()->InstallProtocolInterface(&hb, &kB, EFI_NATIVE_INTERFACE, &other);
  bs()->InstallProtocolInterface(&h2, &kA, EFI_NATIVE_INTERFACE, &a2);
  EXPECT_EQ(journal.take(), "n8 n8 ");
  EXPECT_TRUE(bs()->LocateProtocol(&kA, registration, &iface) == EFI_SUCCESS && iface == &a1);
  EXPECT_TRUE(bs()->LocateProtocol(&kA, registration, &iface) == EFI_SUCCESS && iface == &a2);
  EXPECT_EQ(bs()->LocateProtocol(&kA, registration, &iface), EFI_NOT_FOUND);
  // An interface removed before it was fetched is not reported.
  bs()->InstallProtocolInterface(&h3, &kA, EFI_NATIVE_INTERFACE, &a1);
  bs()->UninstallProtocolInterface(h3, &kA, &a1);
  EXPECT_EQ(journal.take(), "n8 ");
  EXPECT_EQ(bs()->LocateProtocol(&kA, registration, &iface), EFI_NOT_FOUND);
  // Closing the event ends the registration.
  ASSERT_EQ(bs()->CloseEvent(event), EFI_SUCCESS);
  bs()->InstallProtocolInterface(&h3, &kA, EFI_NATIVE_INTERFACE, &a1);
  EXPECT_EQ(journal.calls, "");
  EXPECT_EQ(bs()->LocateProtocol(&kA, registration, &iface), EFI_INVALID_PARAMETER);
  EXPECT_EQ(bs()->RegisterProtocolNotify(&kA, event, &registration), EFI_INVALID_PARAMETER);
  EXPECT_EQ(bs()->RegisterProtocolNotify(&kA, nullptr, &registration), EFI_INVALID_PARAMETER);
}

struct Seen { EFI_BOOT_SERVICES* bs; void* registration; bool bothPresent = false; int calls = 0; };

VOID EFIAPI checkBothInstalled(EFI_EVENT, VOID* context) {
  auto* seen = static_cast<Seen*>(context);
  void* a = nullptr;
  if (seen->bs->LocateProtocol(&kA, seen->registration, &a) != EFI_SUCCESS) return;
  seen->calls++;
  void* b = nullptr;
  seen->bothPresent = seen->bs->LocateProtocol(&kB, nullptr, &b) == EFI_SUCCESS;
}

TEST_F(EventTest, InstallMultipleNotifiesAfterEverythingIsInPlace) {
  Seen state{bs(), nullptr};
  EFI_EVENT event = nullptr;
  ASSERT_EQ(bs()->CreateEvent(EVT_NOTIFY_SIGNAL, TPL_CALLBACK, checkBothInstalled, &state, &event), EFI_SUCCESS);
  ASSERT_EQ(bs()->RegisterProtocolNotify(&kA, event, &state.registration), EFI_SUCCESS);
  int a = 0, b = 0;
  EFI_HANDLE h = nullptr;
  ASSERT_EQ(bs()->InstallMultipleProtocolInterfaces(&h, &kA, &a, &kB, &b, nullptr), EFI_SUCCESS);
  EXPECT_TRUE(state.calls == 1 && state.bothPresent);
  // Rolled back before the notify runs: the notify finds nothing.
  EFI_HANDLE h2 = nullptr;
  EXPECT_EQ(bs()->InstallMultipleProtocolInterfaces(&h2, &kA, &a, &kA, &b, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(state.calls, 1);
  bs()->CloseEvent(event);
}

}  // namespace
}  // namespace tvl::test
