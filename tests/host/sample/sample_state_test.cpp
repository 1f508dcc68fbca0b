// The sample platform's state file: round trips of the stores and the
// password state, refusal of damaged files, interrupted writes. (Password
// services and stored passwords persist through `tolvane password` runs, the
// file's path follows the environment of `tolvane`: tests/tools.)
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>

#include "host/hii/config_string.h"
#include "host/sample/sample_devices.h"
#include "host/sample/sample_platform.h"
#include "host/sample/sample_state.h"
#include "tests/support/fixture.h"

namespace sample = tvl::host::sample;
using sample::SampleState;
using sample::StateError;
using sample::StateFile;
using sample::StoreState;

namespace {

class SampleStateTest : public tvl::test::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    sample_ = std::make_unique<sample::SamplePlatform>(platform());
    markBaseline();
    char pattern[] = "/tmp/tolvane-state-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    sample_.reset();
    std::filesystem::remove_all(dir_);
    PlatformTest::TearDown();
  }

  std::string path(const std::string& name = "platform.state") const { return dir_ + "/" + name; }
  static std::string readText(const std::string& file) {
    std::ifstream f(file, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  }
  static void writeText(const std::string& file, const std::string& text) { std::ofstream(file, std::ios::binary) << text; }
  std::vector<std::string> entries() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_)) names.push_back(entry.path().filename());
    return names;
  }
  // Flips a byte of every store, so that none holds its default.
  void changeEveryStore() {
    for (StoreState s : sample::captureStores(*sample_)) {
      s.bytes.at(0) ^= 0x5A;
      sample_->findDevice(tvl::host::hii::toUtf16(s.fqdd))->device->setStorage(s.guid, tvl::host::hii::toUtf16(s.name), s.bytes);
    }
  }

  std::unique_ptr<sample::SamplePlatform> sample_;
  std::string dir_;
};

SampleState stateOf(std::vector<StoreState> stores) {
  SampleState state;
  state.stores = std::move(stores);
  return state;
}

TEST_F(SampleStateTest, CommitWritesChangedStoresAndTheyLoadBack) {
  const std::string file = path("nested/deeper/platform.state");
  sample::PersistentStores state(*sample_, StateFile(file));
  EXPECT_FALSE(state.loaded());
  EXPECT_FALSE(state.commit());
  struct stat st {};
  EXPECT_NE(stat(file.c_str(), &st), 0) << "an unchanged platform writes nothing";

  const std::vector<StoreState> defaults = sample::captureStores(*sample_);
  ASSERT_EQ(defaults.size(), 10u);
  changeEveryStore();
  const std::vector<StoreState> changed = sample::captureStores(*sample_);
  EXPECT_TRUE(state.commit());
  EXPECT_FALSE(state.commit());
  ASSERT_EQ(stat(path("nested").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  EXPECT_EQ(sample::parseState(readText(file)).stores, changed);

  sample::restoreStores(*sample_, defaults);
  ASSERT_EQ(sample::captureStores(*sample_), defaults);
  sample::PersistentStores again(*sample_, StateFile(file));
  EXPECT_TRUE(again.loaded());
  EXPECT_EQ(sample::captureStores(*sample_), changed);

  // A store of no bytes, the GUID in registry form; version 1 holds stores only.
  StoreState empty{"Some.Device.1", true, sample::kNicFormSetGuid, "Empty", {}, 0};
  const std::string line = "store Some.Device.1 variable A4D81C37-5E92-4B6A-8F03-7C1D26E9B850 Empty -\n";
  EXPECT_EQ(sample::formatState(stateOf({empty})), "tolvane-state 2\n" + line + "passwords new\nend 2\n");
  EXPECT_EQ(sample::parseState(sample::formatState(stateOf({empty}))), stateOf({empty}));
  EXPECT_EQ(sample::parseState("tolvane-state 1\n" + line + "end 1\n"), stateOf({empty}));
}

// A damaged file is refused whole, by a message naming the file and the
// problem, and no store changes, not even those of lines before the damage.
TEST_F(SampleStateTest, DamagedStateFilesAreRefusedWithoutChangingAnything) {
  const std::vector<StoreState> defaults = sample::captureStores(*sample_);
  std::vector<StoreState> changed = defaults;
  for (auto& s : changed) s.bytes.at(0) ^= 0xFF;
  SampleState changedState = stateOf(changed);
  changedState.passwordServices = sample::PasswordServices::Legacy;
  changedState.passwordVariables = {{"SetupPassword", {1, 2, 3}}, {"PasswordDisabled", {2}}};
  const std::string good = sample::formatState(changedState);
  // Header, 10 store lines, passwords, two password variables, end.
  const size_t n = changed.size(), lines = n + 3;
  auto at = [](size_t line) { return "line " + std::to_string(line) + ": "; };
  auto replace = [](std::string text, const std::string& from, const std::string& to) {
    size_t i = text.find(from);
    if (i == std::string::npos) throw std::logic_error("no " + from);
    return text.replace(i, from.size(), to);
  };
  using Damage = std::function<std::string(const std::string&)>;
  auto rep = [&](std::string from, std::string to) -> Damage { return [=](const std::string& t) { return replace(t, from, to); }; };
  auto endCount = [&](const std::string& t, size_t count) {
    return replace(t, "\nend " + std::to_string(lines), "\nend " + std::to_string(count));
  };
  auto lastStoreLine = [](const std::string& t) {
    size_t end = t.rfind("\npasswords "), begin = t.rfind('\n', end - 1) + 1;
    return t.substr(begin, end + 1 - begin);
  };
  const std::string raid = "FE8D2124-DD31-423A-BD51-4B7C488513D8";
  const struct { const char* name; Damage damage; std::string says; } cases[] = {
      {"empty", [](const std::string&) { return std::string(); }, "the file is empty"},
      {"cut inside a line", [](const std::string& t) { return t.substr(0, t.size() / 2); }, "cut short"},
      {"cut after a line", [](const std::string& t) { return t.substr(0, t.rfind("end ")); }, "ends without its end line"},
      {"end count wrong", [&](const std::string& t) { return endCount(t, lines - 1); },
       at(n + 5) + "the end line counts " + std::to_string(lines - 1) + " lines, the file holds " + std::to_string(lines)},
      {"text after the end", [](const std::string& t) { return t + "store x\n"; }, at(n + 6) + "text after the end line"},
      {"version 3", rep("tolvane-state 2", "tolvane-state 3"), "line 1: state format version 3 is not supported"},
      {"bad hex", [](std::string t) { return t.replace(t.find(" SetupMenu ") + 11, 1, "g"); },
       "line 2: 'g' at byte 0 is not a hexadecimal digit"},
      {"odd hex", rep(" SetupMenu ", " SetupMenu 0"), "line 2: the bytes have an odd number of hexadecimal digits"},
      {"unknown device", rep("store RAID.Slot.6-1 ", "store RAID.Slot.7-1 "),
       at(n + 1) + "the sample platform has no device RAID.Slot.7-1"},
      {"unknown store", rep(" RaidControllerConfig ", " RaidConfig "), at(n + 1) + "device RAID.Slot.6-1 has no store \"RaidConfig\""},
      {"wrong GUID", rep(raid, "FE8D2124-DD31-423A-BD51-4B7C488513D9"),
       at(n + 1) + "device RAID.Slot.6-1 has no store \"RaidControllerConfig\""},
      {"wrong size", [&](const std::string& t) { std::string l = lastStoreLine(t); return replace(t, l, l.substr(0, l.size() - 3) + "\n"); },
       at(n + 1) + "store \"RaidControllerConfig\" " + raid + " of device RAID.Slot.6-1 holds 16 bytes, not 15"},
      {"wrong kind", rep(" variable ", " buffer "), "is an EFI variable store, not a buffer store"},
      {"store twice", [&](const std::string& t) { std::string l = lastStoreLine(t); return endCount(replace(t, l, l + l), lines + 1); },
       at(n + 2) + "store \"RaidControllerConfig\""},
      {"bad GUID", rep("FE8D2124-DD31", "FE8D2124DD31-"), "is not a GUID in registry format"},
      {"CR LF line ends", rep("tolvane-state 2\n", "tolvane-state 2\r\n"), "line 1: a control or non-ASCII character"},
      {"missing field", rep(" SetupMenu ", " "), "line 2: a store line has 5 fields instead of 6"},
      {"unknown password services", rep("passwords legacy", "passwords old"), "unknown password services \"old\""},
      {"passwords twice",
       [&](const std::string& t) { return endCount(replace(t, "passwords legacy\n", "passwords legacy\npasswords new\n"), lines + 1); },
       "the password services are given twice"},
      {"unknown password variable", rep("password-variable SetupPassword", "password-variable BootOrder"),
       "\"BootOrder\" is not a variable of the password store"},
      {"password variable twice", rep("password-variable PasswordDisabled", "password-variable SetupPassword"),
       "the password variable SetupPassword is given twice"},
      {"password variable too long", rep("PasswordDisabled 02", "PasswordDisabled " + std::string(2050, '0')),
       "a password variable of more than 1024 bytes"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    sample::restoreStores(*sample_, defaults);
    writeText(path(), c.damage(good));
    try {
      sample::PersistentStores state(*sample_, StateFile(path()));
      ADD_FAILURE() << "accepted";
    } catch (const StateError& e) {
      const std::string message = e.what();
      EXPECT_EQ(message.rfind(path() + ": ", 0), 0u) << message;
      EXPECT_NE(message.find(c.says), std::string::npos) << message;
    }
    EXPECT_EQ(sample::captureState(*sample_), stateOf(defaults));
  }
  // The undamaged text is accepted: the cases above fail for their damage.
  writeText(path(), good);
  sample::PersistentStores state(*sample_, StateFile(path()));
  EXPECT_EQ(sample::captureState(*sample_), changedState);
  sample_->setPasswordServices(sample::PasswordServices::None);  // unloaded before the leak check
}

// A write stopped between writing the new file and renaming it leaves the old
// file as it was.
TEST_F(SampleStateTest, InterruptedWritesLeaveTheOldFileIntact) {
  const std::vector<StoreState> defaults = sample::captureStores(*sample_);
  StateFile file(path());
  file.write(stateOf(defaults));
  const std::string old = readText(path());
  changeEveryStore();
  const SampleState changed = sample::captureState(*sample_);
  const std::string fresh = sample::formatState(changed);

  std::string temp;  // an error: the new file is removed again
  EXPECT_THROW(file.write(changed,
                          [&](const std::string& name) {
                            temp = name;
                            EXPECT_EQ(readText(name), fresh) << "the new file is complete before the rename";
                            throw std::runtime_error("injected failure");
                          }),
               std::runtime_error);
  EXPECT_EQ(temp.rfind(path() + ".", 0), 0u) << temp << ": not beside the state file";
  EXPECT_EQ(readText(path()), old);
  EXPECT_EQ(entries(), std::vector<std::string>{"platform.state"});

  file.write(changed);
  EXPECT_EQ(readText(path()), fresh);
}

}  // namespace
