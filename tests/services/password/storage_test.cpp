// What the password services store: a salted PBKDF2 derivation, never the
// password; a new salt each time, from the firmware's RNG when there is one.
// (No password in freed pool memory: the driver's password hygiene tests.)
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "password_support.h"

namespace {

using tvl::test::Bytes;
using tvl::test::bytesOf;
using tvl::test::contains;
using tvl::test::fromHex;
using tvl::test::PasswordImage;
using tvl::test::statusName;

constexpr UINT16 kSys = PASSWORD_WHICH_SYSTEM, kSetup = PASSWORD_WHICH_SETUP;

class PasswordStorageTest : public tvl::test::BothPasswordServicesTest {
 public:
  Bytes salt(UINT16 which) {
    std::optional<PASSWORD_RECORD> r = record(which);
    return r ? Bytes(r->Salt, r->Salt + sizeof r->Salt) : Bytes();
  }
};

// An RNG that hands out counting bytes, or fails.
struct CountingRng {
  EFI_RNG_PROTOCOL protocol{nullptr, &CountingRng::getRng};
  EFI_STATUS answer = EFI_SUCCESS;
  UINT8 next = 0x40;
  size_t calls = 0;

  static EFI_STATUS EFIAPI getRng(EFI_RNG_PROTOCOL* This, EFI_RNG_ALGORITHM* algorithm, UINTN length,
                                  UINT8* value) {
    auto* self = reinterpret_cast<CountingRng*>(This);
    ++self->calls;
    if (algorithm || !value) return EFI_INVALID_PARAMETER;
    if (self->answer != EFI_SUCCESS) return self->answer;
    for (UINTN i = 0; i < length; ++i) value[i] = self->next++;
    return EFI_SUCCESS;
  }
};

TEST_F(PasswordStorageTest, RecordsHoldASaltedDerivationAndNeverThePassword) {
  const struct {  // saltText null: plain form
    const char* name; PasswordImage image; UINT16 which; std::string password; const char* saltText;
  } cases[] = {
      {"newer plain", PasswordImage::Newer, kSys, "Plain-Secret", nullptr},
      {"older plain", PasswordImage::Older, kSetup, "Older-Secret", nullptr},
      {"newer hash with salt", PasswordImage::Newer, kSetup, "Hashed-Secret", "pepper-and-salt"},
      {"newer hash without salt", PasswordImage::Newer, kSys, "Hashed-Secret", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::u16string wide(c.password.begin(), c.password.end());
    const std::string hash = c.saltText ? hashTextOf(c.password, c.saltText) : "";
    Bytes earlierSalt, earlierDerived;
    for (int round = 0; round < 2; ++round) {
      PASSWORD_SERVICE_PROTOCOL* s = c.image == PasswordImage::Newer ? newer_ : older_;
      const CHAR16* old = c.image == PasswordImage::Older && round ? wide.c_str() : u"";
      EFI_STATUS status = c.saltText ? setHash(s, c.which, hash.c_str(), *c.saltText ? c.saltText : nullptr)
                          : c.image == PasswordImage::Newer ? setPlain(s, c.which, old, wide.c_str())
                                                            : change(s, c.which, old, wide.c_str());
      ASSERT_EQ(statusName(status), "EFI_SUCCESS");

      UINT32 attributes = 0;
      std::optional<Bytes> data = variable(recordName(c.which), &attributes);
      ASSERT_TRUE(data && data->size() == sizeof(PASSWORD_RECORD));
      EXPECT_EQ(attributes, PASSWORD_VARIABLE_ATTRIBUTES);
      // (The other fields: read back by GetProperties and VerifyPassword in
      // the service tests.)
      PASSWORD_RECORD r = *record(c.which);
      const Bytes saltBytes(r.Salt, r.Salt + sizeof r.Salt);
      const Bytes derived(r.Derived, r.Derived + sizeof r.Derived);
      EXPECT_EQ(derived, pbkdf2(c.saltText ? fromHex(hash) : bytesOf(wide), saltBytes, r.Iterations));
      // Neither form of the password, nor the hash the caller gave, nor its
      // digest, is anywhere in the record.
      for (const Bytes& secret : {bytesOf(wide), bytesOf(c.password), bytesOf(hash), fromHex(hash)})
        EXPECT_FALSE(contains(data->data(), data->size(), secret));
      // Setting the same password again draws a new salt.
      if (round == 1) {
        EXPECT_NE(saltBytes, earlierSalt);
        EXPECT_NE(derived, earlierDerived);
      }
      earlierSalt = saltBytes;
      earlierDerived = derived;
    }
  }
}

TEST_F(PasswordStorageTest, SaltComesFromTheFirmwareRngWhenThereIsOne) {
  CountingRng rng;
  EFI_HANDLE handle = nullptr;
  ASSERT_EQ(platform().installProtocol(&handle, gEfiRngProtocolGuid, &rng.protocol), EFI_SUCCESS);
  const struct { const char* name; EFI_STATUS answer; bool fromRng; } cases[] = {
      {"the RNG answers", EFI_SUCCESS, true}, {"the RNG fails", EFI_DEVICE_ERROR, false},
      {"the RNG has no entropy yet", EFI_NOT_READY, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    rng.answer = c.answer;
    rng.calls = 0;
    const UINT8 first = rng.next;
    ASSERT_EQ(setPlain(newer_, kSys, u"", u"pw"), EFI_SUCCESS);
    EXPECT_EQ(rng.calls, 1u);
    Bytes expected;
    for (UINT8 i = 0; i < 16; ++i) expected.push_back(UINT8(first + i));
    EXPECT_EQ(salt(kSys) == expected, c.fromRng);
    EXPECT_EQ(newer_->VerifyPassword(newer_, kSys, u"pw"), EFI_SUCCESS);
  }
  // Without an RNG the fallback still gives every password its own salt.
  ASSERT_EQ(platform().uninstallProtocol(handle, gEfiRngProtocolGuid, &rng.protocol), EFI_SUCCESS);
  ASSERT_EQ(setPlain(newer_, kSys, u"", u"pw"), EFI_SUCCESS);
  ASSERT_EQ(setPlain(newer_, kSetup, u"", u"pw"), EFI_SUCCESS);
  EXPECT_NE(salt(kSys), salt(kSetup));
  EXPECT_EQ(salt(kSys).size(), 16u);
}

// A record keeps its own count: one made with another count verifies, and
// a change stores the image's count.
TEST_F(PasswordStorageTest, RecordsOfAnotherIterationCountVerify) {
  for (UINT32 count : {1u, iterations(PasswordImage::Newer) + 1}) {
    SCOPED_TRACE(count);
    PASSWORD_RECORD r{};
    r.Signature = PASSWORD_RECORD_SIGNATURE;
    r.Version = PASSWORD_RECORD_VERSION;
    r.Kind = PASSWORD_TYPE_PLAIN;
    r.Iterations = count;
    for (UINT8 i = 0; i < 16; ++i) r.Salt[i] = UINT8(0xA0 + i);
    Bytes derived = pbkdf2(bytesOf(std::u16string(u"Older")), Bytes(r.Salt, r.Salt + 16), count);
    std::memcpy(r.Derived, derived.data(), 32);
    putRecord(kSys, r);
    EXPECT_EQ(newer_->VerifyPassword(newer_, kSys, u"Older"), EFI_SUCCESS);
    EXPECT_EQ(newer_->VerifyPassword(newer_, kSys, u"older"), EFI_ACCESS_DENIED);
    ASSERT_EQ(change(older_, kSys, u"Older", u"Newer"), EFI_SUCCESS);
    EXPECT_EQ(record(kSys)->Iterations, iterations(PasswordImage::Older));
  }
}

}  // namespace
