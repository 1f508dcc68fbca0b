// The two password services: each ChangePassword method and refusal with
// its status, GetProperties, the disabled marks and damaged records.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
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

std::u16string widen(const char* text) { return std::u16string(text, text + std::strlen(text)); }

// One ChangePassword call on a prepared store: its status, the system
// password that verifies afterwards ("": none), one that must not (or null),
// and the type reported. Texts are widened for the plain and checked methods.
struct ChangeCase {
  const char* name; PasswordImage image; std::function<void(T*, S newer)> before; UINT16 method;
  const CHAR16* old; const char* password; const char* salt; EFI_STATUS status; const char* verifies;
  const char* rejects; UINT8 type; enum { Own, Other, Null } self = Own; UINT16 which = kSys;
};

TEST_F(PasswordServiceTest, ChangePasswordByMethodAndService) {
  const auto nothing = [](T*, S) {};
  const auto setFirst = [](T*, S n) { ASSERT_EQ(setPlain(n, kSys, u"", u"First"), EFI_SUCCESS); };
  const auto setHashed = [](T* t, S n) { ASSERT_EQ(setHash(n, kSys, t->hash_.c_str(), "NaCl"), EFI_SUCCESS); };
  const auto disable = [](T* t, S) { t->markDisabled(1); };
  const PasswordImage N = PasswordImage::Newer, O = PasswordImage::Older;
  constexpr UINT16 kP = PASSWORD_METHOD_PLAIN, kH = PASSWORD_METHOD_SHA256, kC = PASSWORD_METHOD_CHECKED;
  const char* hash = hash_.c_str();
  std::string upper = hash_, salt64(64, 's'), salt65(65, 's');
  for (char& c : upper) c = char(toupper(c));
  const std::string unsalted = hashTextOf("Secret1", ""), salted64 = hashTextOf("Secret1", salt64),
                    digits63 = hash_.substr(1), notHex = "g" + digits63;
  const char *max = "abcdefghijklmnopqrstuvwxyz012345", *tooLong = "abcdefghijklmnopqrstuvwxyz0123456";  // 32, 33
  const ChangeCase cases[] = {
      // The newer service, plain text: sets, replaces and clears without
      // looking at the old password.
      {"newer plain set", N, nothing, kP, u"", "Secret1", nullptr, kOk, "Secret1", "secret1", kPlain},
      {"newer plain ignores the old password", N, setFirst, kP, u"wrong", "Second", nullptr, kOk, "Second", "First",
       kPlain},
      {"newer plain clear of nothing", N, nothing, kP, u"", "", nullptr, kOk, "", nullptr, kNone},
      {"newer plain 32 characters", N, nothing, kP, u"", max, nullptr, kOk, max, nullptr, kPlain},
      {"newer plain 33 characters", N, setFirst, kP, u"", tooLong, nullptr, kBad, "First", tooLong, kPlain},
      {"newer plain without new text", N, setFirst, kP, u"", nullptr, nullptr, kBad, "First", nullptr, kPlain},
      {"newer plain without old text", N, setFirst, kP, nullptr, "x", nullptr, kBad, "First", "x", kPlain},
      // The newer service, hash text and salt text.
      {"newer hash with salt", N, nothing, kH, u"", hash, "NaCl", kOk, "Secret1", "Secret2", kSha},
      {"newer hash without salt", N, nothing, kH, u"", unsalted.c_str(), nullptr, kOk, "Secret1", "secret1", kSha},
      {"newer hash in upper case", N, nothing, kH, u"", upper.c_str(), "NaCl", kOk, "Secret1", nullptr, kSha},
      {"newer hash salt of 64 bytes", N, nothing, kH, u"", salted64.c_str(), salt64.c_str(), kOk, "Secret1", nullptr,
       kSha},
      {"newer hash clear", N, setFirst, kH, u"", "", nullptr, kOk, "", "First", kNone},
      {"newer hash of 63 digits", N, setFirst, kH, u"", digits63.c_str(), nullptr, kBad, "First", nullptr, kPlain},
      {"newer hash not hexadecimal", N, setFirst, kH, u"", notHex.c_str(), nullptr, kBad, "First", nullptr, kPlain},
      {"newer hash salt of 65 bytes", N, setFirst, kH, u"", hash, salt65.c_str(), kBad, "First", nullptr, kPlain},
      {"newer hash without hash text", N, setFirst, kH, u"", nullptr, nullptr, kBad, "First", nullptr, kPlain},
      {"newer method 3", N, setFirst, kC, u"First", "x", nullptr, kUnsupported, "First", "x", kPlain},
      // The older service checks the old password, exactly.
      {"older set with an old password when none is installed", O, nothing, kC, u"guess", "Secret1", nullptr, kDenied,
       "", "Secret1", kNone},
      {"older change, old password in another case", O, setFirst, kC, u"first", "Second", nullptr, kDenied, "First",
       "Second", kPlain},
      {"older change without the old password", O, setFirst, kC, u"", "Second", nullptr, kDenied, "First", "Second",
       kPlain},
      {"older clear with a wrong old password", O, setFirst, kC, u"Wrong", "", nullptr, kDenied, "First", "", kPlain},
      {"older change of a password set from a hash text", O, setHashed, kC, u"Secret1", "Second", nullptr, kOk,
       "Second", "Secret1", kPlain},
      {"older change: a character beyond 8 bits never matches a hash text", O, setHashed, kC, u"Secret\u0131",
       "Second", nullptr, kDenied, "Secret1", nullptr, kSha},
      {"older without old text", O, setFirst, kC, nullptr, "x", nullptr, kBad, "First", "x", kPlain},
      {"older method 2", O, setFirst, kP, u"First", "x", nullptr, kUnsupported, "First", "x", kPlain},
      // Refusals of both services before anything is looked up.
      {"newer which 0", N, setFirst, kP, u"", "x", nullptr, kBad, "First", "x", kPlain, ChangeCase::Own, 0},
      {"newer called with another This", N, setFirst, kP, u"", "x", nullptr, kBad, "First", "x", kPlain,
       ChangeCase::Other},
      {"older called without This", O, setFirst, kC, u"First", "x", nullptr, kBad, "First", "x", kPlain,
       ChangeCase::Null},
      // A disabled password cannot be changed by any method; the other one can.
      {"newer plain disabled", N, disable, kP, u"", "x", nullptr, kLocked, "", "x", kNone},
      {"newer hash disabled", N, disable, kH, u"", hash, "NaCl", kLocked, "", "Secret1", kNone},
      {"older disabled", O, [&](T* t, S n) { setFirst(t, n), disable(t, n); }, kC, u"First", "", nullptr, kLocked,
       "First", "", kPlain},
      {"a setup mark does not disable the system password", N, [](T* t, S) { t->markDisabled(2); }, kP, u"", "x",
       nullptr, kOk, "x", nullptr, kPlain},
      {"an unreadable mark disables", N, [](T* t, S) { t->putVariable(PASSWORD_DISABLED_VARIABLE, {0, 0}); }, kP,
       u"", "x", nullptr, kLocked, "", "x", kNone},
  };
  for (const ChangeCase& c : cases) {
    SCOPED_TRACE(c.name);
    for (const CHAR16* name : {PASSWORD_SYSTEM_VARIABLE, PASSWORD_SETUP_VARIABLE, PASSWORD_DISABLED_VARIABLE})
      removeVariable(name);
    c.before(this, newer_);
    const S service = c.image == N ? newer_ : older_;
    const S self = c.self == ChangeCase::Own ? service : c.self == ChangeCase::Other ? older_ : nullptr;
    const std::u16string wide = c.password ? widen(c.password) : u"";
    const void* text = !c.password ? nullptr : c.method == kH ? static_cast<const void*>(c.password) : wide.c_str();
    EXPECT_EQ(statusName(service->ChangePassword(self, c.method, c.which, c.old, text, c.salt)), statusName(c.status));
    removeVariable(PASSWORD_DISABLED_VARIABLE);
    EXPECT_EQ(statusName(verify(kSys, widen(c.verifies).c_str())), "EFI_SUCCESS");
    if (c.rejects) { EXPECT_EQ(statusName(verify(kSys, widen(c.rejects).c_str())), "EFI_ACCESS_DENIED"); }
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
      {"disabled", [](T* t) { t->markDisabled(2); }, EFI_VORK_PASSWORD_DISABLED, kNone},
      {"installed and disabled", [&](T* t) { setup(t), t->markDisabled(3); },
       EFI_VORK_PASSWORD_INSTALLED | EFI_VORK_PASSWORD_DISABLED, kPlain},
      {"system mark only", [](T* t) { t->markDisabled(1); }, 0, kNone},
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
    EXPECT_EQ(s->GetRevision(s, nullptr), EFI_INVALID_PARAMETER);
  }
}

// A stored record that cannot be read: reported as installed, refused for
// a check of the old password, replaced by the newer service.
TEST_F(PasswordServiceTest, DamagedRecords) {
  ASSERT_EQ(setPlain(newer_, kSys, u"", u"Good"), EFI_SUCCESS);
  const PASSWORD_RECORD good = *record(kSys);
  const Bytes whole = recordBytes(good);
  using R = PASSWORD_RECORD&;
  auto damaged = [&](const std::function<void(R)>& damage) {
    PASSWORD_RECORD r = good;
    damage(r);
    return recordBytes(r);
  };
  const struct { const char* name; Bytes data; } cases[] = {
      {"one byte short", Bytes(whole.begin(), whole.end() - 1)},
      {"one byte long", [&] { Bytes b(whole.size() + 1, 0); std::copy(whole.begin(), whole.end(), b.begin()); return b; }()},
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
}

}  // namespace
