// The two password services: each method and each refusal with its
// status, GetProperties, the disabled marks, shared storage between the
// services, damaged records, and loading and unloading the images.
#include <gtest/gtest.h>

#include <cctype>
#include <functional>
#include <string>

#include "password_support.h"

namespace {

using tvl::test::Bytes;
using tvl::test::PasswordImage;
using tvl::test::statusName;

constexpr UINT16 kSys = PASSWORD_WHICH_SYSTEM;
constexpr UINT16 kSetup = PASSWORD_WHICH_SETUP;
const CHAR16 kMaxPassword[] = u"abcdefghijklmnopqrstuvwxyz012345";     // 32 characters
const CHAR16 kLongPassword[] = u"abcdefghijklmnopqrstuvwxyz0123456";   // 33
static_assert(sizeof kMaxPassword == 33 * 2 && sizeof kLongPassword == 34 * 2, "password lengths");

class PasswordServiceTest : public tvl::test::PasswordServiceTest {
 public:
  void SetUp() override {
    tvl::test::PasswordServiceTest::SetUp();
    newer_ = start(PasswordImage::Newer);
    older_ = start(PasswordImage::Older);
    hash_ = hashTextOf("Secret1", "NaCl");
    bareHash_ = hashTextOf("Secret1", "");
  }

  PASSWORD_SERVICE_PROTOCOL* service(PasswordImage image) const {
    return image == PasswordImage::Newer ? newer_ : older_;
  }

  // The state of one password as both services report it.
  struct State {
    UINT16 status = 0;
    UINT8 type = 0;
  };
  State state(UINT16 which) {
    State s;
    EXPECT_EQ(newer_->GetProperties(newer_, which, &s.status, &s.type, nullptr, nullptr, nullptr), EFI_SUCCESS);
    State t;
    EXPECT_EQ(older_->GetProperties(older_, which, &t.status, &t.type, nullptr, nullptr, nullptr), EFI_SUCCESS);
    EXPECT_TRUE(s.status == t.status && s.type == t.type) << "the services disagree";
    return s;
  }
  EFI_STATUS verify(UINT16 which, const CHAR16* password) { return newer_->VerifyPassword(newer_, which, password); }

  PASSWORD_SERVICE_PROTOCOL* newer_ = nullptr;
  PASSWORD_SERVICE_PROTOCOL* older_ = nullptr;
  std::string hash_;      // SHA-256 hash text of "Secret1" with the salt text "NaCl"
  std::string bareHash_;  // the same without a salt text
};

using Prepare = std::function<void(PasswordServiceTest*)>;

// One call on a prepared store: its status, and the password that verifies
// afterwards (u"" when none is installed) with its type.
struct ChangeCase {
  const char* name;
  PasswordImage image;
  std::function<void(PasswordServiceTest*, PASSWORD_SERVICE_PROTOCOL* newer)> before;
  std::function<EFI_STATUS(PasswordServiceTest*, PASSWORD_SERVICE_PROTOCOL*)> call;
  EFI_STATUS status;
  const CHAR16* verifies;  // for the system password
  const CHAR16* rejects;   // a password that must not verify afterwards, or null
  UINT8 type;
};

TEST_F(PasswordServiceTest, ChangePasswordByMethodAndService) {
  using T = PasswordServiceTest;
  using S = PASSWORD_SERVICE_PROTOCOL*;
  const auto nothing = [](T*, S) {};
  const auto setFirst = [](T*, S n) { ASSERT_EQ(setPlain(n, kSys, u"", u"First"), EFI_SUCCESS); };
  const PasswordImage N = PasswordImage::Newer, O = PasswordImage::Older;
  const ChangeCase cases[] = {
      // The newer service, plain text: sets, replaces and clears without
      // looking at the old password.
      {"newer plain set", N, nothing, [](T*, S s) { return setPlain(s, kSys, u"", u"Secret1"); }, EFI_SUCCESS,
       u"Secret1", u"secret1", PASSWORD_TYPE_PLAIN},
      {"newer plain ignores the old password", N, setFirst,
       [](T*, S s) { return setPlain(s, kSys, u"wrong", u"Second"); }, EFI_SUCCESS, u"Second", u"First",
       PASSWORD_TYPE_PLAIN},
      {"newer plain clear", N, setFirst, [](T*, S s) { return setPlain(s, kSys, u"", u""); }, EFI_SUCCESS, u"",
       u"First", PASSWORD_TYPE_NONE},
      {"newer plain clear of nothing", N, nothing, [](T*, S s) { return setPlain(s, kSys, u"", u""); }, EFI_SUCCESS,
       u"", nullptr, PASSWORD_TYPE_NONE},
      {"newer plain 32 characters", N, nothing, [](T*, S s) { return setPlain(s, kSys, u"", kMaxPassword); },
       EFI_SUCCESS, kMaxPassword, nullptr, PASSWORD_TYPE_PLAIN},
      {"newer plain 33 characters", N, setFirst, [](T*, S s) { return setPlain(s, kSys, u"", kLongPassword); },
       EFI_INVALID_PARAMETER, u"First", kLongPassword, PASSWORD_TYPE_PLAIN},
      {"newer plain without new text", N, setFirst, [](T*, S s) { return setPlain(s, kSys, u"", nullptr); },
       EFI_INVALID_PARAMETER, u"First", nullptr, PASSWORD_TYPE_PLAIN},
      {"newer plain without old text", N, setFirst, [](T*, S s) { return setPlain(s, kSys, nullptr, u"x"); },
       EFI_INVALID_PARAMETER, u"First", u"x", PASSWORD_TYPE_PLAIN},
      // The newer service, hash text and salt text.
      {"newer hash with salt", N, nothing, [](T* t, S s) { return setHash(s, kSys, t->hash_.c_str(), "NaCl"); },
       EFI_SUCCESS, u"Secret1", u"Secret2", PASSWORD_TYPE_SHA256},
      {"newer hash without salt", N, nothing,
       [](T* t, S s) { return setHash(s, kSys, t->bareHash_.c_str(), nullptr); }, EFI_SUCCESS, u"Secret1",
       u"secret1", PASSWORD_TYPE_SHA256},
      {"newer hash in upper case", N, nothing,
       [](T* t, S s) {
         std::string upper = t->hash_;
         for (char& c : upper) c = char(toupper(c));
         return setHash(s, kSys, upper.c_str(), "NaCl");
       },
       EFI_SUCCESS, u"Secret1", nullptr, PASSWORD_TYPE_SHA256},
      {"newer hash salt of 64 bytes", N, nothing,
       [](T* t, S s) {
         std::string salt(64, 's');
         return setHash(s, kSys, t->hashTextOf("Secret1", salt).c_str(), salt.c_str());
       },
       EFI_SUCCESS, u"Secret1", nullptr, PASSWORD_TYPE_SHA256},
      {"newer hash clear", N, setFirst, [](T*, S s) { return setHash(s, kSys, "", nullptr); }, EFI_SUCCESS, u"",
       u"First", PASSWORD_TYPE_NONE},
      {"newer hash of 63 digits", N, setFirst,
       [](T* t, S s) { return setHash(s, kSys, t->hash_.substr(1).c_str(), nullptr); }, EFI_INVALID_PARAMETER,
       u"First", nullptr, PASSWORD_TYPE_PLAIN},
      {"newer hash not hexadecimal", N, setFirst,
       [](T* t, S s) { return setHash(s, kSys, ("g" + t->hash_.substr(1)).c_str(), nullptr); },
       EFI_INVALID_PARAMETER, u"First", nullptr, PASSWORD_TYPE_PLAIN},
      {"newer hash salt of 65 bytes", N, setFirst,
       [](T* t, S s) { return setHash(s, kSys, t->hash_.c_str(), std::string(65, 's').c_str()); },
       EFI_INVALID_PARAMETER, u"First", nullptr, PASSWORD_TYPE_PLAIN},
      {"newer hash without hash text", N, setFirst, [](T*, S s) { return setHash(s, kSys, nullptr, nullptr); },
       EFI_INVALID_PARAMETER, u"First", nullptr, PASSWORD_TYPE_PLAIN},
      {"newer method 3", N, setFirst, [](T*, S s) { return change(s, kSys, u"First", u"x"); }, EFI_UNSUPPORTED,
       u"First", u"x", PASSWORD_TYPE_PLAIN},
      // The older service checks the old password.
      {"older set", O, nothing, [](T*, S s) { return change(s, kSys, u"", u"Secret1"); }, EFI_SUCCESS, u"Secret1",
       u"", PASSWORD_TYPE_PLAIN},
      {"older set with an old password when none is installed", O, nothing,
       [](T*, S s) { return change(s, kSys, u"guess", u"Secret1"); }, EFI_ACCESS_DENIED, u"", u"Secret1",
       PASSWORD_TYPE_NONE},
      {"older change", O, setFirst, [](T*, S s) { return change(s, kSys, u"First", u"Second"); }, EFI_SUCCESS,
       u"Second", u"First", PASSWORD_TYPE_PLAIN},
      {"older change with a wrong old password", O, setFirst,
       [](T*, S s) { return change(s, kSys, u"Wrong", u"Second"); }, EFI_ACCESS_DENIED, u"First", u"Second",
       PASSWORD_TYPE_PLAIN},
      {"older change: the old password is compared exactly", O, setFirst,
       [](T*, S s) { return change(s, kSys, u"first", u"Second"); }, EFI_ACCESS_DENIED, u"First", u"Second",
       PASSWORD_TYPE_PLAIN},
      {"older change without the old password", O, setFirst, [](T*, S s) { return change(s, kSys, u"", u"Second"); },
       EFI_ACCESS_DENIED, u"First", u"Second", PASSWORD_TYPE_PLAIN},
      {"older clear", O, setFirst, [](T*, S s) { return change(s, kSys, u"First", u""); }, EFI_SUCCESS, u"", u"First",
       PASSWORD_TYPE_NONE},
      {"older clear with a wrong old password", O, setFirst, [](T*, S s) { return change(s, kSys, u"Wrong", u""); },
       EFI_ACCESS_DENIED, u"First", u"", PASSWORD_TYPE_PLAIN},
      {"older change of a password set from a hash text", O,
       [](T* t, S n) { ASSERT_EQ(setHash(n, kSys, t->hash_.c_str(), "NaCl"), EFI_SUCCESS); },
       [](T*, S s) { return change(s, kSys, u"Secret1", u"Second"); }, EFI_SUCCESS, u"Second", u"Secret1",
       PASSWORD_TYPE_PLAIN},
      {"older change: a character beyond 8 bits never matches a hash text", O,
       [](T* t, S n) { ASSERT_EQ(setHash(n, kSys, t->hash_.c_str(), "NaCl"), EFI_SUCCESS); },
       [](T*, S s) { return change(s, kSys, u"Secret\u0131", u"Second"); }, EFI_ACCESS_DENIED, u"Secret1", nullptr,
       PASSWORD_TYPE_SHA256},
      {"older 33 characters", O, setFirst, [](T*, S s) { return change(s, kSys, u"First", kLongPassword); },
       EFI_INVALID_PARAMETER, u"First", kLongPassword, PASSWORD_TYPE_PLAIN},
      {"older without old text", O, setFirst, [](T*, S s) { return change(s, kSys, nullptr, u"x"); },
       EFI_INVALID_PARAMETER, u"First", u"x", PASSWORD_TYPE_PLAIN},
      {"older method 2", O, setFirst, [](T*, S s) { return setPlain(s, kSys, u"First", u"x"); }, EFI_UNSUPPORTED,
       u"First", u"x", PASSWORD_TYPE_PLAIN},
      // Refusals of both services before anything is looked up.
      {"newer method 0", N, setFirst, [](T*, S s) { return s->ChangePassword(s, 0, kSys, u"", u"x", nullptr); },
       EFI_UNSUPPORTED, u"First", u"x", PASSWORD_TYPE_PLAIN},
      {"older method 4", O, setFirst, [](T*, S s) { return s->ChangePassword(s, 4, kSys, u"First", u"x"); },
       EFI_UNSUPPORTED, u"First", u"x", PASSWORD_TYPE_PLAIN},
      {"newer which 0", N, setFirst, [](T*, S s) { return setPlain(s, 0, u"", u"x"); }, EFI_INVALID_PARAMETER,
       u"First", u"x", PASSWORD_TYPE_PLAIN},
      {"newer called with another This", N, setFirst,
       [](T* t, S s) { return s->ChangePassword(t->older_, PASSWORD_METHOD_PLAIN, kSys, u"", u"x", nullptr); },
       EFI_INVALID_PARAMETER, u"First", u"x", PASSWORD_TYPE_PLAIN},
      {"older called without This", O, setFirst,
       [](T*, S s) { return s->ChangePassword(nullptr, PASSWORD_METHOD_CHECKED, kSys, u"First", u"x"); },
       EFI_INVALID_PARAMETER, u"First", u"x", PASSWORD_TYPE_PLAIN},
      // A disabled password cannot be changed by any method, even with the
      // right old password; the other password can.
      {"newer plain disabled", N, [](T* t, S) { t->markDisabled(1); },
       [](T*, S s) { return setPlain(s, kSys, u"", u"x"); }, EFI_WRITE_PROTECTED, u"", u"x", PASSWORD_TYPE_NONE},
      {"newer hash disabled", N, [](T* t, S) { t->markDisabled(1); },
       [](T* t, S s) { return setHash(s, kSys, t->hash_.c_str(), "NaCl"); }, EFI_WRITE_PROTECTED, u"", u"Secret1",
       PASSWORD_TYPE_NONE},
      {"older disabled", O,
       [](T* t, S n) {
         ASSERT_EQ(setPlain(n, kSys, u"", u"First"), EFI_SUCCESS);
         t->markDisabled(1);
       },
       [](T*, S s) { return change(s, kSys, u"First", u""); }, EFI_WRITE_PROTECTED, u"First", u"", PASSWORD_TYPE_PLAIN},
      {"a setup mark does not disable the system password", N, [](T* t, S) { t->markDisabled(2); },
       [](T*, S s) { return setPlain(s, kSys, u"", u"x"); }, EFI_SUCCESS, u"x", nullptr, PASSWORD_TYPE_PLAIN},
      {"an unreadable mark disables", N, [](T* t, S) { t->putVariable(PASSWORD_DISABLED_VARIABLE, {0, 0}); },
       [](T*, S s) { return setPlain(s, kSys, u"", u"x"); }, EFI_WRITE_PROTECTED, u"", u"x", PASSWORD_TYPE_NONE},
  };
  for (const ChangeCase& c : cases) {
    SCOPED_TRACE(c.name);
    removeVariable(PASSWORD_SYSTEM_VARIABLE);
    removeVariable(PASSWORD_SETUP_VARIABLE);
    removeVariable(PASSWORD_DISABLED_VARIABLE);
    c.before(this, newer_);
    EXPECT_EQ(statusName(c.call(this, service(c.image))), statusName(c.status));
    removeVariable(PASSWORD_DISABLED_VARIABLE);
    EXPECT_EQ(statusName(verify(kSys, c.verifies)), "EFI_SUCCESS");
    if (c.rejects) {
      EXPECT_EQ(statusName(verify(kSys, c.rejects)), "EFI_ACCESS_DENIED");
    }
    State s = state(kSys);
    EXPECT_EQ(s.type, c.type);
    EXPECT_EQ(s.status, c.type == PASSWORD_TYPE_NONE ? 0 : EFI_VORK_PASSWORD_INSTALLED);
    EXPECT_EQ(state(kSetup).status, 0) << "the setup password is never touched";
    if (HasFatalFailure()) return;
  }
}

TEST_F(PasswordServiceTest, GetProperties) {
  struct Case {
    const char* name;
    Prepare before;
    UINT16 status;
    UINT8 type;
  } cases[] = {
      {"nothing", [](PasswordServiceTest*) {}, 0, PASSWORD_TYPE_NONE},
      {"installed", [](PasswordServiceTest* t) { ASSERT_EQ(setPlain(t->newer_, kSetup, u"", u"p"), EFI_SUCCESS); },
       EFI_VORK_PASSWORD_INSTALLED, PASSWORD_TYPE_PLAIN},
      {"from a hash text",
       [](PasswordServiceTest* t) { ASSERT_EQ(setHash(t->newer_, kSetup, t->hash_.c_str(), "x"), EFI_SUCCESS); },
       EFI_VORK_PASSWORD_INSTALLED, PASSWORD_TYPE_SHA256},
      {"disabled", [](PasswordServiceTest* t) { t->markDisabled(2); }, EFI_VORK_PASSWORD_DISABLED, PASSWORD_TYPE_NONE},
      {"installed and disabled",
       [](PasswordServiceTest* t) {
         ASSERT_EQ(setPlain(t->newer_, kSetup, u"", u"p"), EFI_SUCCESS);
         t->markDisabled(3);
       },
       EFI_VORK_PASSWORD_INSTALLED | EFI_VORK_PASSWORD_DISABLED, PASSWORD_TYPE_PLAIN},
      {"system mark only", [](PasswordServiceTest* t) { t->markDisabled(1); }, 0, PASSWORD_TYPE_NONE},
      {"unreadable record", [](PasswordServiceTest* t) { t->putVariable(PASSWORD_SETUP_VARIABLE, {1, 2, 3}); },
       EFI_VORK_PASSWORD_INSTALLED, PASSWORD_TYPE_UNREADABLE},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    removeVariable(PASSWORD_SETUP_VARIABLE);
    removeVariable(PASSWORD_DISABLED_VARIABLE);
    c.before(this);
    for (PasswordImage image : {PasswordImage::Newer, PasswordImage::Older}) {
      PASSWORD_SERVICE_PROTOCOL* s = service(image);
      UINT16 status = 0xEEEE, min = 0, max = 0;
      UINT8 type = 0xEE;
      UINT64 attributes = 0;
      ASSERT_EQ(s->GetProperties(s, kSetup, &status, &type, &min, &max, &attributes), EFI_SUCCESS);
      EXPECT_EQ(status, c.status);
      EXPECT_EQ(type, c.type);
      EXPECT_EQ(min, 1);
      EXPECT_EQ(max, PASSWORD_MAX_LENGTH);
      EXPECT_EQ(attributes, image == PasswordImage::Newer
                                ? (1u << PASSWORD_METHOD_SHA256 | 1u << PASSWORD_METHOD_PLAIN)
                                : 1u << PASSWORD_METHOD_CHECKED);
    }
  }
  // Refusals, and the outputs that may be left out.
  UINT16 status = 0;
  UINT8 type = 0;
  for (PASSWORD_SERVICE_PROTOCOL* s : {newer_, older_}) {
    EXPECT_EQ(s->GetProperties(s, kSys, &status, nullptr, nullptr, nullptr, nullptr), EFI_SUCCESS);
    EXPECT_EQ(s->GetProperties(s, kSys, nullptr, &type, nullptr, nullptr, nullptr), EFI_INVALID_PARAMETER);
    EXPECT_EQ(s->GetProperties(s, 0, &status, &type, nullptr, nullptr, nullptr), EFI_INVALID_PARAMETER);
    EXPECT_EQ(s->GetProperties(s, 3, &status, &type, nullptr, nullptr, nullptr), EFI_INVALID_PARAMETER);
    EXPECT_EQ(s->GetProperties(nullptr, kSys, &status, &type, nullptr, nullptr, nullptr), EFI_INVALID_PARAMETER);
    EXPECT_EQ(s->VerifyPassword(s, 0, u""), EFI_INVALID_PARAMETER);
    EXPECT_EQ(s->VerifyPassword(s, kSys, nullptr), EFI_INVALID_PARAMETER);
    UINT32 revision = 0;
    EXPECT_EQ(s->GetRevision(s, &revision), EFI_SUCCESS);
    EXPECT_NE(revision, 0u);
    EXPECT_EQ(s->GetRevision(s, nullptr), EFI_INVALID_PARAMETER);
  }
}

// A stored record that cannot be read: reported as installed, refused for
// a check of the old password, replaced by the newer service.
TEST_F(PasswordServiceTest, DamagedRecords) {
  ASSERT_EQ(setPlain(newer_, kSys, u"", u"Good"), EFI_SUCCESS);
  const PASSWORD_RECORD good = *record(kSys);
  const auto* goodBytes = reinterpret_cast<const UINT8*>(&good);
  const Bytes whole(goodBytes, goodBytes + sizeof good);
  auto damaged = [&](const std::function<void(PASSWORD_RECORD&)>& damage) {
    PASSWORD_RECORD r = good;
    damage(r);
    const auto* b = reinterpret_cast<const UINT8*>(&r);
    return Bytes(b, b + sizeof r);
  };
  struct Case {
    const char* name;
    Bytes data;
  } cases[] = {
      {"one byte short", Bytes(whole.begin(), whole.end() - 1)},
      {"one byte long", [&] { Bytes b = whole; b.push_back(0); return b; }()},
      {"signature", damaged([](PASSWORD_RECORD& r) { r.Signature ^= 1; })},
      {"version", damaged([](PASSWORD_RECORD& r) { r.Version = 2; })},
      {"kind none", damaged([](PASSWORD_RECORD& r) { r.Kind = PASSWORD_TYPE_NONE; })},
      {"kind unknown", damaged([](PASSWORD_RECORD& r) { r.Kind = 3; })},
      {"no iterations", damaged([](PASSWORD_RECORD& r) { r.Iterations = 0; })},
      {"too many iterations", damaged([](PASSWORD_RECORD& r) { r.Iterations = PASSWORD_RECORD_MAX_ITERATIONS + 1; })},
      {"salt text on a plain record", damaged([](PASSWORD_RECORD& r) { r.SaltTextLength = 1; })},
      {"salt text too long", damaged([](PASSWORD_RECORD& r) {
         r.Kind = PASSWORD_TYPE_SHA256;
         r.SaltTextLength = 65;
       })},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    putVariable(PASSWORD_SYSTEM_VARIABLE, c.data);
    State s = state(kSys);
    EXPECT_EQ(s.status, EFI_VORK_PASSWORD_INSTALLED);
    EXPECT_EQ(s.type, PASSWORD_TYPE_UNREADABLE);
    EXPECT_EQ(statusName(verify(kSys, u"Good")), "EFI_VOLUME_CORRUPTED");
    EXPECT_EQ(statusName(change(older_, kSys, u"Good", u"New")), "EFI_VOLUME_CORRUPTED");
    EXPECT_EQ(variable(PASSWORD_SYSTEM_VARIABLE), c.data) << "a refused change leaves the record";
    EXPECT_EQ(setPlain(newer_, kSys, u"", u"New"), EFI_SUCCESS);
    EXPECT_EQ(verify(kSys, u"New"), EFI_SUCCESS);
  }
  // The undamaged record verifies: the cases fail for their damage.
  putVariable(PASSWORD_SYSTEM_VARIABLE, whole);
  EXPECT_EQ(verify(kSys, u"Good"), EFI_SUCCESS);
}

// Loading an image with each of its allocations failing in turn installs
// nothing and leaves nothing behind; unloading removes the service and
// frees it.
TEST_F(PasswordServiceTest, LoadAndUnload) {
  for (PasswordImage image : {PasswordImage::Newer, PasswordImage::Older}) {
    SCOPED_TRACE(tvl::test::imageName(image));
    size_t installed = platform().handlesWith(protocolGuid(image)).size();
    EFI_HANDLE handle = nullptr;
    size_t attempts = sweepAllocationFailures(
        [&] { return loadStatus(tvl::test::imageName(image), &handle); },
        [&](EFI_STATUS status, size_t k) {
          EXPECT_TRUE(EFI_ERROR(status)) << "attempt " << k;
          EXPECT_EQ(platform().handlesWith(protocolGuid(image)).size(), installed) << "attempt " << k;
        },
        [&] {
          if (platform().handlesWith(protocolGuid(image)).size() > installed) {
            EXPECT_EQ(platform().unloadImage(handle), EFI_SUCCESS);
          }
        });
    EXPECT_GE(attempts, 2u);
    ASSERT_EQ(loadStatus(tvl::test::imageName(image), &handle), EFI_SUCCESS);
    EXPECT_EQ(platform().handlesWith(protocolGuid(image)).size(), installed + 1);
    EXPECT_EQ(platform().unloadImage(handle), EFI_SUCCESS);
    EXPECT_EQ(platform().handlesWith(protocolGuid(image)).size(), installed);
  }
}

}  // namespace
