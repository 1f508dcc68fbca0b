// SetBIOSPassword and the password request entry behind the protocol slot,
// against a stand-in service that shows exactly what each ChangePassword
// call carried: both forms on both services, every refusal with its trace
// and status, the records, the order of the four attempts, how their
// statuses combine and which commit indexes they consume.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include "password/password.h"
#include "password_fixture.h"

namespace {

using tvl::test::base64;
using tvl::test::document;
using tvl::test::Item;
using tvl::test::records;
using tvl::test::Service;
using Strings = std::vector<std::string>;

constexpr UINT16 kInstalled = EFI_VORK_PASSWORD_INSTALLED;
constexpr UINT16 kDisabled = EFI_VORK_PASSWORD_DISABLED;
constexpr const char* kHash = "9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08";
const std::string k32 = "abcdefghijklmnopqrstuvwxyz012345";

Item password(const std::string& name, const std::string& value, bool marked = true, const char* index = "1") {
  return Item{name, index, value, marked};
}
Item plain(const std::string& name, const std::string& secret) { return password(name, base64(secret)); }
Item text(const std::string& name, const std::string& value) { return password(name, value, false); }

std::string line(const std::string& text) { return "Tolvane-SetBiosPassword: " + text + "\n"; }

class SetPasswordTest : public tvl::test::PasswordTest {};

// A test name from a row's description.
template <typename Case>
std::string rowName(const ::testing::TestParamInfo<Case>& info) {
  std::string name;
  for (char c : std::string(info.param.name)) name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
  return name;
}

// ---------------------------------------------------------------- SetBIOSPassword

// One call of SetBIOSPassword. Most rows name the setup password in the
// plain form (type 2); the hash rows name their items and type.
struct FormCase {
  const char* name; Service service;
  UINT16 bits;  // PasswordStatus of both passwords
  std::vector<Item> items; EFI_STATUS status; Strings changes; Strings records;
  std::string trace;  // a line SetBIOSPassword must have written ("": none checked)
  UINTN level = TVL_LEVEL_FAILURE; EFI_STATUS changeStatus = EFI_SUCCESS;
  const char* item = "SetupPassword"; const char* second = "OldSetupPassword"; UINT8 type = 2;
  EFI_STATUS propertiesStatus = EFI_SUCCESS; bool noRoot = false;
};

std::vector<FormCase> formCases() {
  const std::string S = "SetupPassword", O = "OldSetupPassword", H = "SHA256SetupPassword",
                    HS = "SHA256SetupPasswordSalt";
  const Service N = Service::FakeNewer, F = Service::FakeOlder;
  const EFI_STATUS bad = EFI_INVALID_PARAMETER;
  const UINTN progress = TVL_LEVEL_PROGRESS, failure = TVL_LEVEL_FAILURE;
  const Strings ok = {"SetupPassword:Success:0", "OldSetupPassword:Success:0"};
  const Strings hashOk = {"SHA256SetupPassword:Success:0", "SHA256SetupPasswordSalt:Success:0"};
  const std::string start = "Tolvane: Invalid starting parameter: Invalid Parameter\n";
  const auto sha = [](FormCase c) {  // the setup password's hash form
    c.item = "SHA256SetupPassword", c.second = "SHA256SetupPasswordSalt", c.type = 3;
    return c;
  };
  const FormCase cases[] = {
      // The plain form. (Setting, a wrong old password, a failing service, the
  // system password and its hash: the entry's rows below.)
      {"older: lower-cased; old item present but not read", F, 0, {plain(S, "Abc"), text(O, "not base64 at all")},
       EFI_SUCCESS, {"3/2 old= new=u:abc"}, ok, line("Attempting to set new password"), progress},
      {"older: equal but for letter case", F, kInstalled, {plain(S, "ABC"), plain(O, "abc")}, EFI_DEVICE_ERROR, {},
       {}, line("PASSWORDS MATCH; SKIP SET Device Error")},
      {"older: old item missing", F, 0, {plain(S, "Abc")}, bad, {}, {},
       line("Invalid XML; Missing OldSetupPassword Invalid Parameter")},
      {"older: installed, old empty", F, kInstalled, {plain(S, "Abc"), password(O, "")}, bad, {}, {},
       line("Password is INSTALLED, but NULL was provided Invalid Parameter")},
      {"older: installed, old not marked", F, kInstalled, {plain(S, "Abc"), password(O, base64("x"), false)}, bad, {},
       {}, line("Missing Encoding=\"Base64\" Invalid Parameter")},
      {"older: old decodes to 33 bytes", F, kInstalled, {plain(S, "Abc"), plain(O, k32 + "6")}, bad, {}, {},
       line("OldDecodedPasswordSize is too large Invalid Parameter")},
      {"new not marked", N, 0, {password(S, base64("Abc"), false)}, bad, {}, {},
       line("Missing Encoding for new password =\"Base64\" Invalid Parameter")},
      {"new decodes to 33 bytes", N, 0, {plain(S, k32 + "6")}, bad, {}, {},
       line("NewDecodedPasswordSize is too large Invalid Parameter")},
      {"new of 32 bytes", N, 0, {plain(S, k32)}, EFI_SUCCESS, {"2/2 old= new=u:" + k32}, ok,
       line("ChangePassword (Setup) Success")},
      {"a zero byte ends the password", N, 0, {plain(S, std::string("A\0BC", 4))}, EFI_SUCCESS, {"2/2 old= new=u:A"},
       ok, ""},
      {"bytes above 0x7f keep their value", N, 0, {plain(S, "\xe9t\xc9")}, EFI_SUCCESS,
       {"2/2 old= new=u:\\u00e9t\\u00c9"}, ok, ""},
      {"clear with none installed", N, 0, {password(S, "")}, bad, {}, {},
       line("Attempted to clear password, while none is set Invalid Parameter")},
      {"clear", N, kInstalled, {password(S, "")}, EFI_SUCCESS, {"2/2 old= new=u:"}, ok,
       line("Attempting to clear existing password"), progress},
      {"disabled", N, kInstalled | kDisabled, {plain(S, "Abc")}, EFI_DEVICE_ERROR, {}, {},
       line("EFI_VORK_PASSWORD_DISABLED Device Error")},
      {"GetProperties fails", N, 0, {plain(S, "Abc")}, EFI_VOLUME_CORRUPTED, {}, {},
       line("GetProperties Volume Corrupt"), failure, EFI_SUCCESS, "SetupPassword", "OldSetupPassword", 2,
       EFI_VOLUME_CORRUPTED},
      {"item missing", N, 0, {plain(O, "Abc")}, bad, {}, {},
       line("Invalid XML; Missing SetupPassword Invalid Parameter")},
      {"item without Value", N, 0, {Item{S, "1", std::nullopt, true}}, bad, {}, {},
       line("Invalid XML; Missing Value Invalid Parameter")},
      {"unknown name", N, 0, {plain("AdminPassword", "Abc")}, bad, {}, {}, line("Invalid TYPE Invalid Parameter"),
       failure, EFI_SUCCESS, "AdminPassword", "OldAdminPassword"},
      {"unknown type code: a recorded failure", N, 0, {plain(S, "Abc")}, EFI_DEVICE_ERROR, {},
       {"SetupPassword:Failure:605", "OldSetupPassword:Failure:605"}, line("Generic failure Device Error"), failure,
       EFI_SUCCESS, "SetupPassword", "OldSetupPassword", 7},
      // The common start.
      {"no service", Service::None, 0, {plain(S, "Abc")}, bad, {}, {}, start},
      {"no root", N, 0, {}, bad, {}, {}, start, failure, EFI_SUCCESS, "SetupPassword", "OldSetupPassword", 2,
       EFI_SUCCESS, true},
      {"no name", N, 0, {plain(S, "Abc")}, bad, {}, {}, start, failure, EFI_SUCCESS, nullptr},
      {"older: no second name", F, 0, {plain(S, "Abc"), plain(O, "")}, bad, {}, {},
       "Tolvane: Invalid starting parameter OldPassswordName: Invalid Parameter\n", failure, EFI_SUCCESS,
       "SetupPassword", nullptr},
      {"newer: no second name, one record", N, 0, {plain(S, "Abc")}, EFI_SUCCESS, {"2/2 old= new=u:Abc"},
       {"SetupPassword:Success:0"}, "", failure, EFI_SUCCESS, "SetupPassword", nullptr},
      // The hash form: texts passed on as they are, 8-bit.
      sha({"hash of 64 and salt of 32 characters", N, 0, {password(H, kHash), text(HS, k32)}, EFI_SUCCESS,
           {"1/2 old= hash=a:" + std::string(kHash) + " salt=a:" + k32}, hashOk,
           line("ChangePassword SHA (Setup) Success"), progress}),
      sha({"hash with an empty salt", N, 0, {text(H, kHash), text(HS, "")}, EFI_SUCCESS,
           {"1/2 old= hash=a:" + std::string(kHash) + " salt=null"}, hashOk, ""}),
      sha({"hash clear, installed or not", N, 0, {text(H, ""), text(HS, "NaCl")}, EFI_SUCCESS,
           {"1/2 old= hash=a: salt=null"}, hashOk, line("clearing the current setup password "), progress}),
      sha({"hash of 65 characters", N, 0, {text(H, std::string(kHash) + "0"), text(HS, "")}, bad, {}, {},
           line("NewDecodedPasswordSize is too large Invalid Parameter")}),
      sha({"salt of 33 characters", N, 0, {text(H, kHash), text(HS, k32 + "6")}, bad, {}, {},
           line("Salt is too large Invalid Parameter")}),
      sha({"salt item missing", N, 0, {text(H, kHash)}, bad, {}, {},
           line("Invalid XML; Missing SHA256SetupPasswordSalt Invalid Parameter")}),
      sha({"hash disabled", N, kDisabled, {text(H, kHash), text(HS, "")}, EFI_DEVICE_ERROR, {}, {},
           line("EFI_VORK_PASSWORD_DISABLED Device Error")}),
      {"hash unknown name", N, 0, {text("SHA256SetupPass", kHash), text(HS, "")}, bad, {}, {},
       line("Invalid TYPE Invalid Parameter"), failure, EFI_SUCCESS, "SHA256SetupPass", "SHA256SetupPasswordSalt", 3},
  };
  return std::vector<FormCase>(std::begin(cases), std::end(cases));
}

void PrintTo(const FormCase& c, std::ostream* os) { *os << c.name; }

class FormTest : public SetPasswordTest, public ::testing::WithParamInterface<FormCase> {};

TEST_P(FormTest, BothFormsOnBothServices) {
  const FormCase& c = GetParam();
  start(c.service);
  if (HasFatalFailure()) return;
  const bool faked = c.service != Service::None;
  if (faked) {
    fake().bits[1] = fake().bits[2] = c.bits;
    fake().changeStatus[1] = fake().changeStatus[2] = c.changeStatus;
    fake().propertiesStatus = c.propertiesStatus;
  }
  auto root = parse(document(c.items));
  XML_NODE* results = nullptr;
  log().clear();
  EFI_STATUS status = DRIVER_FN(SetBIOSPassword)(c.item, c.second, c.noRoot ? nullptr : root.get(), c.type, &results);
  EXPECT_EQ(tvl::test::statusName(status), tvl::test::statusName(c.status)) << log().dump();
  if (faked) {
    EXPECT_EQ(fake().changes(), c.changes);
  }
  EXPECT_EQ(records(results), c.records);
  if (!c.trace.empty()) {
    const tvl::test::LogRecord* r = log().find("SetBIOSPassword", c.trace);
    ASSERT_NE(r, nullptr) << log().dump();
    EXPECT_EQ(r->level, c.level);
  }
  if (results) xml()->XML_FreeNode(xml(), results);
}

INSTANTIATE_TEST_SUITE_P(Rows, FormTest, ::testing::ValuesIn(formCases()), rowName<FormCase>);

// ---------------------------------------------------------------- tvlSetBIOSPassword

struct EntryCase {
  const char* name; Service service; std::vector<Item> items; EFI_STATUS status; Strings changes; Strings records;
  std::vector<std::pair<std::string, std::string>> indexes;  // afterwards
  std::string trace;                                         // a line of tvlSetBIOSPassword
  EFI_STATUS setupStatus = EFI_SUCCESS;   // the service's answers to changes of the setup
  EFI_STATUS systemStatus = EFI_SUCCESS;  // and of the system password
};

std::vector<EntryCase> entryCases() {
  auto sys = [](const char* index) { return password("SysPassword", base64("Sys"), true, index); };
  auto setup = [](const char* index) { return password("SetupPassword", base64("Set"), true, index); };
  auto hash = [](const std::string& name, const char* index) { return password(name, "ab", false, index); };
  const std::string ok = "Tolvane-tvlSetBIOSPassword: Exiting with SUCCESS\n";
  const Service N = Service::FakeNewer;
  const Strings setupOk = {"SetupPassword:Success:0", "OldSetupPassword:Success:0"},
                sysOk = {"SysPassword:Success:0", "OldSysPassword:Success:0"};
  const EntryCase cases[] = {
      {"no service", Service::None, {setup("1")}, EFI_INVALID_PARAMETER, {}, {}, {},
       "Tolvane: Invalid parameter: Invalid Parameter\n"},
      {"nothing pending", N, {setup("0"), sys("0")}, EFI_SUCCESS, {}, {},
       {{"SetupPassword", "0"}, {"SysPassword", "0"}}, ok},
      {"setup first, whatever the document order", N, {sys("2"), setup("1")}, EFI_SUCCESS,
       {"2/2 old= new=u:Set", "2/1 old= new=u:Sys"}, {setupOk[0], setupOk[1], sysOk[0], sysOk[1]},
       {{"SetupPassword", "0"}, {"SysPassword", "0"}}, "Tolvane: SetBIOSPassword(Sys): Success\n"},
      {"only the non-zero index", N, {setup("0"), sys("1")}, EFI_SUCCESS, {"2/1 old= new=u:Sys"}, sysOk,
       {{"SetupPassword", "0"}, {"SysPassword", "0"}}, ok},
      {"four attempts in order", N,
       {hash("SHA256SystemPassword", "1"), hash("SHA256SystemPasswordSalt", "1"), hash("SHA256SetupPassword", "1"),
        hash("SHA256SetupPasswordSalt", "1"), sys("1"), setup("1")},
       EFI_SUCCESS,
       {"2/2 old= new=u:Set", "2/1 old= new=u:Sys", "1/2 old= hash=a:ab salt=a:ab", "1/1 old= hash=a:ab salt=a:ab"},
       {setupOk[0], setupOk[1], sysOk[0], sysOk[1], "SHA256SetupPassword:Success:0",
        "SHA256SetupPasswordSalt:Success:0", "SHA256SystemPassword:Success:0", "SHA256SystemPasswordSalt:Success:0"},
       {{"SHA256SetupPasswordSalt", "0"}, {"SHA256SystemPasswordSalt", "0"}},
       "Tolvane: SetBIOSPassword(SHA System ): Success\n"},
      {"a refused setup change, then a system change: success", N,
       {password("SetupPassword", base64("Set"), false), sys("1")}, EFI_SUCCESS, {"2/1 old= new=u:Sys"}, sysOk,
       {{"SetupPassword", "0"}}, "Tolvane: SetBIOSPassword(Setup): Invalid Parameter\n"},
      {"a wrong old setup password, then a system change: success", Service::FakeOlder,
       {setup("1"), plain("OldSetupPassword", "x"), sys("1"), plain("OldSysPassword", "y")}, EFI_SUCCESS,
       {"3/2 old= new=u:set", "3/1 old= new=u:sys"}, {"SetupPassword:Failure:603", sysOk[0], sysOk[1]}, {}, ok,
       EFI_ACCESS_DENIED},
      {"a failing last attempt: aborted", N, {setup("1"), sys("1")}, EFI_ABORTED,
       {"2/2 old= new=u:Set", "2/1 old= new=u:Sys"},
       {setupOk[0], setupOk[1], "SysPassword:Failure:605", "OldSysPassword:Failure:605"}, {},
       "Tolvane: One errored!: Device Error\n", EFI_SUCCESS, EFI_DEVICE_ERROR},
      {"a last refusal before the service: aborted", N, {setup("1"), password("SysPassword", "", true)}, EFI_ABORTED,
       {"2/2 old= new=u:Set"}, setupOk, {}, "Tolvane: One errored!: Invalid Parameter\n"},
      {"a write-protected last attempt counts as success", N, {sys("1")}, EFI_SUCCESS, {"2/1 old= new=u:Sys"},
       {"SysPassword:Failure:605", "OldSysPassword:Failure:605"}, {},
       "Tolvane-tvlSetBIOSPassword: ONE PASSWORD SET == SUCCESS\n", EFI_SUCCESS, EFI_WRITE_PROTECTED},
      {"an index without contents is pending and stays", N, {setup("")}, EFI_SUCCESS, {"2/2 old= new=u:Set"}, setupOk,
       {{"SetupPassword", "(none)"}}, ok},
      {"an item without an index is skipped", N, {setup(nullptr)}, EFI_SUCCESS, {}, {}, {}, ok},
      {"a salt keeps its mark without its hash", N,
       {hash("SHA256SetupPassword", "0"), hash("SHA256SetupPasswordSalt", "3")}, EFI_SUCCESS, {}, {},
       {{"SHA256SetupPasswordSalt", "3"}}, ok},
      {"a salt without a mark", N, {hash("SHA256SetupPassword", "1"), hash("SHA256SetupPasswordSalt", "0")},
       EFI_SUCCESS, {"1/2 old= hash=a:ab salt=a:ab"},
       {"SHA256SetupPassword:Success:0", "SHA256SetupPasswordSalt:Success:0"}, {{"SHA256SetupPassword", "0"}},
       "Tolvane: CheckAndClearCommitIndex failed\n"},
      {"older: a hash is refused, its mark consumed", Service::FakeOlder,
       {hash("SHA256SetupPassword", "1"), hash("SHA256SetupPasswordSalt", "1")}, EFI_ABORTED, {}, {},
       {{"SHA256SetupPassword", "0"}, {"SHA256SetupPasswordSalt", "0"}},
       "Tolvane: SetBIOSPassword(SHA Setup): Invalid Parameter\n"},
  };
  return std::vector<EntryCase>(std::begin(cases), std::end(cases));
}

void PrintTo(const EntryCase& c, std::ostream* os) { *os << c.name; }

class EntryTest : public SetPasswordTest, public ::testing::WithParamInterface<EntryCase> {};

TEST_P(EntryTest, AppliesThePendingItemsInItsOrder) {
  const EntryCase& c = GetParam();
  start(c.service);
  if (HasFatalFailure()) return;
  const bool faked = c.service != Service::None;
  if (faked) {
    fake().changeStatus[PASSWORD_WHICH_SETUP] = c.setupStatus;
    fake().changeStatus[PASSWORD_WHICH_SYSTEM] = c.systemStatus;
  }
  auto root = parse(document(c.items));
  XML_NODE* results = nullptr;
  log().clear();
  EXPECT_EQ(tvl::test::statusName(apply(root.get(), &results)), tvl::test::statusName(c.status)) << log().dump();
  if (faked) {
    EXPECT_EQ(fake().changes(), c.changes);
  }
  EXPECT_EQ(records(results), c.records);
  for (const auto& [item, index] : c.indexes) EXPECT_EQ(commitIndex(root.get(), item), index) << item;
  const tvl::test::LogRecord* r = log().find("tvlSetBIOSPassword", c.trace);
  ASSERT_NE(r, nullptr) << log().dump();
  EXPECT_EQ(log().records().front().text, "Tolvane-tvlSetBIOSPassword: Entering...\n");
  // The combined outcome is a failure-level line, each attempt's a progress line.
  const bool combined = c.trace.rfind("Tolvane-tvlSetBIOSPassword: Exiting", 0) == 0 ||
                        c.trace.rfind("Tolvane: One", 0) == 0 || c.trace.find("ONE PASSWORD") != std::string::npos;
  if (faked) {
    EXPECT_EQ(r->level, combined ? TVL_LEVEL_FAILURE : TVL_LEVEL_PROGRESS);
  }
  if (results) xml()->XML_FreeNode(xml(), results);
}

INSTANTIATE_TEST_SUITE_P(Rows, EntryTest, ::testing::ValuesIn(entryCases()), rowName<EntryCase>);

// An item whose CommitIndex has no contents is applied on every call (a
// consumed one: the rows above); a second call adds to the first's results.
TEST_F(SetPasswordTest, SecondCallAddsToTheSameResults) {
  start(Service::FakeNewer);
  auto root = parse(document({password("SysPassword", base64("Sys"), true, "")}));
  XML_NODE* results = nullptr;
  ASSERT_EQ(apply(root.get(), &results), EFI_SUCCESS);
  XML_NODE* first = results;
  ASSERT_EQ(apply(root.get(), &results), EFI_SUCCESS);
  EXPECT_EQ(fake().changes().size(), 2u);
  EXPECT_EQ(results, first);
  EXPECT_EQ(records(results).size(), 4u);
  xml()->XML_FreeNode(xml(), results);
}

TEST_F(SetPasswordTest, EntryRefusesMissingArgumentsBeforeReadingAnything) {
  start(Service::FakeNewer);
  TOLVANE_PROTOCOL* self = converter();
  for (const char* missing : {"This", "root", "results"}) {
    SCOPED_TRACE(missing);
    log().clear();
    auto root = parse(document({password("SysPassword", base64("Sys"))}));
    XML_NODE* const sentinel = reinterpret_cast<XML_NODE*>(0x1234);
    XML_NODE* results = sentinel;
    const std::string m = missing;
    EXPECT_EQ(self->SetBIOSPassword(m == "This" ? nullptr : self, m == "root" ? nullptr : root.get(),
                                    m == "results" ? nullptr : &results),
              EFI_INVALID_PARAMETER);
    EXPECT_EQ(results, sentinel);
    EXPECT_EQ(commitIndex(root.get(), "SysPassword"), "1");
    EXPECT_NE(log().find("tvlSetBIOSPassword", "Tolvane: Invalid parameter: Invalid Parameter\n"), nullptr);
    EXPECT_TRUE(fake().calls.empty());
  }
}

// ---------------------------------------------------------------- running out of memory

// Each allocation of tvlSetBIOSPassword failing in turn: the CommitIndex
// text (the item is skipped and keeps its mark), a password buffer
// (EFI_OUT_OF_RESOURCES from the attempt, so EFI_ABORTED, nothing changed
// and nothing recorded), or a record (the change stands, the status is
// success, only that record is missing). Never a leak.
struct SweepCase {
  const char* name; Service service; std::vector<Item> items; Strings changes; Strings records;
};

void PrintTo(const SweepCase& c, std::ostream* os) { *os << c.name; }

class SweepTest : public SetPasswordTest, public ::testing::WithParamInterface<SweepCase> {};

TEST_P(SweepTest, EachAllocationFailingInTurn) {
  const SweepCase& c = GetParam();
  start(c.service);
  fake().bits[PASSWORD_WHICH_SETUP] = kInstalled;
  std::shared_ptr<XML_NODE> root = parse(document(c.items));
  XML_NODE* results = nullptr;
  size_t outOfMemory = 0;
  size_t attempts = sweepAllocationFailures(
      [&] { return apply(root.get(), &results); },
      [&](EFI_STATUS status, size_t k) {
        SCOPED_TRACE("allocation " + std::to_string(k));
        const std::string index = commitIndex(root.get(), "SetupPassword");
        if (status == EFI_ABORTED) {
          ++outOfMemory;
          EXPECT_TRUE(fake().changes().empty());
          EXPECT_EQ(results, nullptr);
          EXPECT_EQ(index, "0");
          EXPECT_NE(log().find("SetBIOSPassword",
                               line("Out of resources for the password Out of Resources")),
                    nullptr);
        } else if (fake().changes().empty()) {
          EXPECT_EQ(status, EFI_SUCCESS);
          EXPECT_EQ(index, "1") << "an item whose mark cannot be consumed is skipped";
        } else {
          EXPECT_EQ(status, EFI_SUCCESS);
          EXPECT_EQ(fake().changes(), c.changes);
          for (const std::string& r : records(results))
            EXPECT_NE(std::find(c.records.begin(), c.records.end(), r), c.records.end()) << r;
        }
      },
      [&] {
        if (results) xml()->XML_FreeNode(xml(), results);
        results = nullptr;
        root = parse(document(c.items));
        fake().calls.clear();
        log().clear();
      });
  EXPECT_GE(attempts, 4u);
  EXPECT_EQ(outOfMemory, c.service == Service::FakeOlder ? 4u : 2u) << "two buffers per password";
}

INSTANTIATE_TEST_SUITE_P(Rows, SweepTest,
                         ::testing::Values(SweepCase{"newer", Service::FakeNewer, {plain("SetupPassword", "Abc")},
                                                     {"2/2 old= new=u:Abc"},
                                                     {"SetupPassword:Success:0", "OldSetupPassword:Success:0"}},
                                           SweepCase{"older with an old password", Service::FakeOlder,
                                                     {plain("SetupPassword", "Abc"), plain("OldSetupPassword", "Old")},
                                                     {"3/2 old=old new=u:abc"},
                                                     {"SetupPassword:Success:0", "OldSetupPassword:Success:0"}}),
                         rowName<SweepCase>);

}  // namespace
