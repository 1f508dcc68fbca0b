// The two password services: each ChangePassword method and refusal with
// its status, GetProperties, the disabled marks and damaged records.
#include <gtest/gtest.h>

#include <cctype>
#include <functional>
#include <string>

#include "password_support.h"

namespace {

using tvl::test::Bytes;
using tvl::test::PasswordImage;
using tvl::test::statusName;

constexpr UINT16 kSys = PASSWORD_WHICH_SYSTEM, kSetup = PASSWORD_WHICH_SETUP;
constexpr UINT8 kNone = PASSWORD_TYPE_NONE, kPlain = PASSWORD_TYPE_PLAIN, kSha = PASSWORD_TYPE_SHA256;
constexpr EFI_STATUS kOk = EFI_SUCCESS, kBad = EFI_INVALID_PARAMETER, kDenied = EFI_ACCESS_DENIED,
                     kUnsupported = EFI_UNSUPPORTED, kLocked = EFI_WRITE_PROTECTED;
const CHAR16 kMaxPassword[] = u"abcdefghijklmnopqrstuvwxyz012345";    // 32 characters
const CHAR16 kLongPassword[] = u"abcdefghijklmnopqrstuvwxyz0123456";  // 33
static_assert(sizeof kMaxPassword == 33 * 2 && sizeof kLongPassword == 34 * 2, "password lengths");

class PasswordServiceTest : public tvl::test::BothPasswordServicesTest {
 public:
  void SetUp() override {
    BothPasswordServicesTest::SetUp();
    hash_ = hashTextOf("Secret1", "NaCl");
  }

  // The state of one password as both services report it.
  struct State { UINT16 status = 0; UINT8 type = 0; };
  State state(UINT16 which) {
    State s, t;
    EXPECT_EQ(newer_->GetProperties(newer_, which, &s.status, &s.type, nullptr, nullptr, nullptr), EFI_SUCCESS);
    EXPECT_EQ(older_->GetProperties(older_, which, &t.status, &t.type, nullptr, nullptr, nullptr), EFI_SUCCESS);
    EXPECT_TRUE(s.status == t.status && s.type == t.type) << "the services disagree";
    return s;
  }
  EFI_STATUS verify(UINT16 which, const CHAR16* password) { return newer_->VerifyPassword(newer_, which, password); }

  std::string hash_;  // SHA-256 hash text of "Secret1" with the salt text "NaCl"
};

using T = PasswordServiceTest;
using S = PASSWORD_SERVICE_PROTOCOL*;

// One call on a prepared store: its status, the system password that
// verifies afterwards (u"" when none is installed), one that must not (or
// null), and the type reported.
struct ChangeCase {
  const char* name; PasswordImage image; std::function<void(T*, S newer)> before;
  std::function<EFI_STATUS(T*, S)> call; EFI_STATUS status; const CHAR16* verifies; const CHAR16* rejects; UINT8 type;
};

TEST_F(PasswordServiceTest, ChangePasswordByMethodAndService) {
  const auto nothing = [](T*, S) {};
  const auto setFirst = [](T*, S n) { ASSERT_EQ(setPlain(n, kSys, u"", u"First"), EFI_SUCCESS); };
  const auto setHashed = [](T* t, S n) { ASSERT_EQ(setHash(n, kSys, t->hash_.c_str(), "NaCl"), EFI_SUCCESS); };
  const auto disable = [](T* t, S) { t->markDisabled(1); };
  const PasswordImage N = PasswordImage::Newer, O = PasswordImage::Older;
  const ChangeCase cases[] = {
      // The newer service, plain text: sets, replaces and clears without
      // looking at the old password.
      {"newer plain set", N, nothing, [](T*, S s) { return setPlain(s, kSys, u"", u"Secret1"); }, kOk, u"Secret1",
       u"secret1", kPlain},
      {"newer plain ignores the old password", N, setFirst,
       [](T*, S s) { return setPlain(s, kSys, u"wrong", u"Second"); }, kOk, u"Second", u"First", kPlain},
      {"newer plain clear", N, setFirst, [](T*, S s) { return setPlain(s, kSys, u"", u""); }, kOk, u"", u"First", kNone},
      {"newer plain clear of nothing", N, nothing, [](T*, S s) { return setPlain(s, kSys, u"", u""); }, kOk, u"",
       nullptr, kNone},
      {"newer plain 32 characters", N, nothing, [](T*, S s) { return setPlain(s, kSys, u"", kMaxPassword); }, kOk,
       kMaxPassword, nullptr, kPlain},
      {"newer plain 33 characters", N, setFirst, [](T*, S s) { return setPlain(s, kSys, u"", kLongPassword); }, kBad,
       u"First", kLongPassword, kPlain},
      {"newer plain without new text", N, setFirst, [](T*, S s) { return setPlain(s, kSys, u"", nullptr); }, kBad,
       u"First", nullptr, kPlain},
      {"newer plain without old text", N, setFirst, [](T*, S s) { return setPlain(s, kSys, nullptr, u"x"); }, kBad,
       u"First", u"x", kPlain},
      // The newer service, hash text and salt text.
      {"newer hash with salt", N, nothing, [](T* t, S s) { return setHash(s, kSys, t->hash_.c_str(), "NaCl"); }, kOk,
       u"Secret1", u"Secret2", kSha},
      {"newer hash without salt", N, nothing,
       [](T* t, S s) { return setHash(s, kSys, t->hashTextOf("Secret1", "").c_str(), nullptr); }, kOk, u"Secret1",
       u"secret1", kSha},
      {"newer hash in upper case", N, nothing,
       [](T* t, S s) {
         std::string upper = t->hash_;
         for (char& c : upper) c = char(toupper(c));
         return setHash(s, kSys, upper.c_str(), "NaCl");
       },
       kOk, u"Secret1", nullptr, kSha},
      {"newer hash salt of 64 bytes", N, nothing,
       [](T* t, S s) {
         std::string salt(64, 's');
         return setHash(s, kSys, t->hashTextOf("Secret1", salt).c_str(), salt.c_str());
       },
       kOk, u"Secret1", nullptr, kSha},
      {"newer hash clear", N, setFirst, [](T*, S s) { return setHash(s, kSys, "", nullptr); }, kOk, u"", u"First",
       kNone},
      {"newer hash of 63 digits", N, setFirst,
       [](T* t, S s) { return setHash(s, kSys, t->hash_.substr(1).c_str(), nullptr); }, kBad, u"First", nullptr, kPlain},
      {"newer hash not hexadecimal", N, setFirst,
       [](T* t, S s) { return setHash(s, kSys, ("g" + t->hash_.substr(1)).c_str(), nullptr); }, kBad, u"First",
       nullptr, kPlain},
      {"newer hash salt of 65 bytes", N, setFirst,
       [](T* t, S s) { return setHash(s, kSys, t->hash_.c_str(), std::string(65, 's').c_str()); }, kBad, u"First",
       nullptr, kPlain},
      {"newer hash without hash text", N, setFirst, [](T*, S s) { return setHash(s, kSys, nullptr, nullptr); }, kBad,
       u"First", nullptr, kPlain},
      {"newer method 3", N, setFirst, [](T*, S s) { return change(s, kSys, u"First", u"x"); }, kUnsupported, u"First",
       u"x", kPlain},
      // The older service checks the old password, exactly.
      {"older set", O, nothing, [](T*, S s) { return change(s, kSys, u"", u"Secret1"); }, kOk, u"Secret1", u"", kPlain},
      {"older set with an old password when none is installed", O, nothing,
       [](T*, S s) { return change(s, kSys, u"guess", u"Secret1"); }, kDenied, u"", u"Secret1", kNone},
      {"older change", O, setFirst, [](T*, S s) { return change(s, kSys, u"First", u"Second"); }, kOk, u"Second",
       u"First", kPlain},
      {"older change with a wrong old password", O, setFirst,
       [](T*, S s) { return change(s, kSys, u"Wrong", u"Second"); }, kDenied, u"First", u"Second", kPlain},
      {"older change, old password in another case", O, setFirst,
       [](T*, S s) { return change(s, kSys, u"first", u"Second"); }, kDenied, u"First", u"Second", kPlain},
      {"older change without the old password", O, setFirst, [](T*, S s) { return change(s, kSys, u"", u"Second"); },
       kDenied, u"First", u"Second", kPlain},
      {"older clear", O, setFirst, [](T*, S s) { return change(s, kSys, u"First", u""); }, kOk, u"", u"First", kNone},
      {"older clear with a wrong old password", O, setFirst, [](T*, S s) { return change(s, kSys, u"Wrong", u""); },
       kDenied, u"First", u"", kPlain},
      {"older change of a password set from a hash text", O, setHashed,
       [](T*, S s) { return change(s, kSys, u"Secret1", u"Second"); }, kOk, u"Second", u"Secret1", kPlain},
      {"older change: a character beyond 8 bits never matches a hash text", O, setHashed,
       [](T*, S s) { return change(s, kSys, u"Secret\u0131", u"Second"); }, kDenied, u"Secret1", nullptr, kSha},
      {"older 33 characters", O, setFirst, [](T*, S s) { return change(s, kSys, u"First", kLongPassword); }, kBad,
       u"First", kLongPassword, kPlain},
      {"older without old text", O, setFirst, [](T*, S s) { return change(s, kSys, nullptr, u"x"); }, kBad, u"First",
       u"x", kPlain},
      {"older method 2", O, setFirst, [](T*, S s) { return setPlain(s, kSys, u"First", u"x"); }, kUnsupported,
       u"First", u"x", kPlain},
      // Refusals of both services before anything is looked up.
      {"newer method 0", N, setFirst, [](T*, S s) { return s->ChangePassword(s, 0, kSys, u"", u"x", nullptr); },
       kUnsupported, u"First", u"x", kPlain},
      {"older method 4", O, setFirst, [](T*, S s) { return s->ChangePassword(s, 4, kSys, u"First", u"x"); },
       kUnsupported, u"First", u"x", kPlain},
      {"newer which 0", N, setFirst, [](T*, S s) { return setPlain(s, 0, u"", u"x"); }, kBad, u"First", u"x", kPlain},
      {"newer called with another This", N, setFirst,
       [](T* t, S s) { return s->ChangePassword(t->older_, PASSWORD_METHOD_PLAIN, kSys, u"", u"x", nullptr); }, kBad,
       u"First", u"x", kPlain},
      {"older called without This", O, setFirst,
       [](T*, S s) { return s->ChangePassword(nullptr, PASSWORD_METHOD_CHECKED, kSys, u"First", u"x"); }, kBad,
       u"First", u"x", kPlain},
      // A disabled password cannot be changed by any method, even with the
      // right old password; the other password can.
      {"newer plain disabled", N, disable, [](T*, S s) { return setPlain(s, kSys, u"", u"x"); }, kLocked, u"", u"x",
       kNone},
      {"newer hash disabled", N, disable, [](T* t, S s) { return setHash(s, kSys, t->hash_.c_str(), "NaCl"); },
       kLocked, u"", u"Secret1", kNone},
      {"older disabled", O,
       [](T* t, S n) {
         ASSERT_EQ(setPlain(n, kSys, u"", u"First"), EFI_SUCCESS);
         t->markDisabled(1);
       },
       [](T*, S s) { return change(s, kSys, u"First", u""); }, kLocked, u"First", u"", kPlain},
      {"a setup mark does not disable the system password", N, [](T* t, S) { t->markDisabled(2); },
       [](T*, S s) { return setPlain(s, kSys, u"", u"x"); }, kOk, u"x", nullptr, kPlain},
      {"an unreadable mark disables", N, [](T* t, S) { t->putVariable(PASSWORD_DISABLED_VARIABLE, {0, 0}); },
       [](T*, S s) { return setPlain(s, kSys, u"", u"x"); }, kLocked, u"", u"x", kNone},
  };
  for (const ChangeCase& c : cases) {
    SCOPED_TRACE(c.name);
    for (const CHAR16* name : {PASSWORD_SYSTEM_VARIABLE, PASSWORD_SETUP_VARIABLE, PASSWORD_DISABLED_VARIABLE})
      removeVariable(name);
    c.before(this, newer_);
    EXPECT_EQ(statusName(c.call(this, c.image == N ? newer_ : older_)), statusName(c.status));
    removeVariable(PASSWORD_DISABLED_VARIABLE);
    EXPECT_EQ(statusName(verify(kSys, c.verifies)), "EFI_SUCCESS");
    if (c.rejects) { EXPECT_EQ(statusName(verify(kSys, c.rejects)), "EFI_ACCESS_DENIED"); }
    State s = state(kSys);
    EXPECT_EQ(s.type, c.type);
    EXPECT_EQ(s.status, c.type == kNone ? 0 : EFI_VORK_PASSWORD_INSTALLED);
    EXPECT_EQ(state(kSetup).status, 0) << "the setup password is never touched";
    if (HasFatalFailure()) return;
  }
}

TEST_F(PasswordServiceTest, GetProperties) {
  const auto setup = [](T* t) { ASSERT_EQ(setPlain(t->newer_, kSetup, u"", u"p"), EFI_SUCCESS); };
  const struct { const char* name; std::function<void(T*)> before; UINT16 status; UINT8 type; } cases[] = {
      {"nothing", [](T*) {}, 0, kNone},
      {"installed", setup, EFI_VORK_PASSWORD_INSTALLED, kPlain},
      {"from a hash text", [](T* t) { ASSERT_EQ(setHash(t->newer_, kSetup, t->hash_.c_str(), "x"), EFI_SUCCESS); },
       EFI_VORK_PASSWORD_INSTALLED, kSha},
      {"disabled", [](T* t) { t->markDisabled(2); }, EFI_VORK_PASSWORD_DISABLED, kNone},
      {"installed and disabled", [&](T* t) { setup(t), t->markDisabled(3); },
       EFI_VORK_PASSWORD_INSTALLED | EFI_VORK_PASSWORD_DISABLED, kPlain},
      {"system mark only", [](T* t) { t->markDisabled(1); }, 0, kNone},
      {"unreadable record", [](T* t) { t->putVariable(PASSWORD_SETUP_VARIABLE, {1, 2, 3}); },
       EFI_VORK_PASSWORD_INSTALLED, PASSWORD_TYPE_UNREADABLE},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    removeVariable(PASSWORD_SETUP_VARIABLE);
    removeVariable(PASSWORD_DISABLED_VARIABLE);
    c.before(this);
    for (S s : {newer_, older_}) {
      UINT16 status = 0xEEEE, min = 0, max = 0;
      UINT8 type = 0xEE;
      UINT64 attributes = 0;
      ASSERT_EQ(s->GetProperties(s, kSetup, &status, &type, &min, &max, &attributes), EFI_SUCCESS);
      EXPECT_TRUE(status == c.status && type == c.type) << status << " " << int(type);
      EXPECT_TRUE(min == 1 && max == PASSWORD_MAX_LENGTH) << min << " " << max;
      EXPECT_EQ(attributes, s == newer_ ? (1u << PASSWORD_METHOD_SHA256 | 1u << PASSWORD_METHOD_PLAIN)
                                        : 1u << PASSWORD_METHOD_CHECKED);
    }
  }
  // Refusals, and the outputs that may be left out.
  UINT16 status = 0;
  UINT8 type = 0;
  for (S s : {newer_, older_}) {
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
  const auto bytes = [](const PASSWORD_RECORD& r) {
    const auto* b = reinterpret_cast<const UINT8*>(&r);
    return Bytes(b, b + sizeof r);
  };
  const Bytes whole = bytes(good);
  using R = PASSWORD_RECORD&;
  auto damaged = [&](const std::function<void(R)>& damage) {
    PASSWORD_RECORD r = good;
    damage(r);
    return bytes(r);
  };
  const struct { const char* name; Bytes data; } cases[] = {
      {"one byte short", Bytes(whole.begin(), whole.end() - 1)},
      {"one byte long", [&] { Bytes b = whole; b.push_back(0); return b; }()},
      {"signature", damaged([](R r) { r.Signature ^= 1; })}, {"version", damaged([](R r) { r.Version = 2; })},
      {"kind none", damaged([](R r) { r.Kind = PASSWORD_TYPE_NONE; })},
      {"kind unknown", damaged([](R r) { r.Kind = 3; })}, {"no iterations", damaged([](R r) { r.Iterations = 0; })},
      {"too many iterations", damaged([](R r) { r.Iterations = PASSWORD_RECORD_MAX_ITERATIONS + 1; })},
      {"salt text on a plain record", damaged([](R r) { r.SaltTextLength = 1; })},
      {"salt text too long", damaged([](R r) { r.Kind = kSha, r.SaltTextLength = 65; })},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    putVariable(PASSWORD_SYSTEM_VARIABLE, c.data);
    State s = state(kSys);
    EXPECT_TRUE(s.status == EFI_VORK_PASSWORD_INSTALLED && s.type == PASSWORD_TYPE_UNREADABLE);
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

}  // namespace
