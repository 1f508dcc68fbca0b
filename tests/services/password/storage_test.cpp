// What the password services store: a salted PBKDF2 derivation, never the
// password; a new salt each time (the tests' platform has no RNG), from the
// firmware's RNG when there is one.
// The crypto against published vectors: FIPS 180-4 examples, RFC 4231 and
// RFC 7914 (both images build the same crypto source; the newer one runs them).
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "password_support.h"

namespace {

using tvl::test::Bytes;
using tvl::test::bytesOf;
using tvl::test::contains;
using tvl::test::fromHex;
using tvl::test::hexText;
using tvl::test::PasswordImage;
using tvl::test::statusName;

Bytes text(const std::string& s) { return bytesOf(s); }

constexpr UINT16 kSys = PASSWORD_WHICH_SYSTEM, kSetup = PASSWORD_WHICH_SETUP;

using PasswordStorageTest = tvl::test::BothPasswordServicesTest;

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
      PASSWORD_RECORD r = *record(c.which);
      const Bytes saltBytes(r.Salt, r.Salt + sizeof r.Salt);
      const Bytes derived(r.Derived, r.Derived + sizeof r.Derived);
      EXPECT_EQ(derived, pbkdf2(c.saltText ? fromHex(hash) : bytesOf(wide), saltBytes, r.Iterations));
      // No form of the password or of the caller's hash is in the record.
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
      {"the RNG answers", EFI_SUCCESS, true}, {"the RNG fails", EFI_DEVICE_ERROR, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    rng.answer = c.answer;
    rng.calls = 0;
    const UINT8 first = rng.next;
    ASSERT_EQ(setPlain(newer_, kSys, u"", u"pw"), EFI_SUCCESS);
    EXPECT_EQ(rng.calls, 1u);
    Bytes expected;
    for (UINT8 i = 0; i < 16; ++i) expected.push_back(UINT8(first + i));
    const PASSWORD_RECORD r = *record(kSys);
    EXPECT_EQ(Bytes(r.Salt, r.Salt + 16) == expected, c.fromRng);
    EXPECT_EQ(newer_->VerifyPassword(newer_, kSys, u"pw"), EFI_SUCCESS);
  }
  ASSERT_EQ(platform().uninstallProtocol(handle, gEfiRngProtocolGuid, &rng.protocol), EFI_SUCCESS);
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

using PasswordCryptoTest = tvl::test::PasswordServiceTest;

TEST_F(PasswordCryptoTest, PublishedVectors) {
  const struct { const char* name; Bytes message; const char* digest; } digests[] = {
      {"one block", text("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"empty", {}, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      // 55 bytes: the last length whose padding and length fit one block.
      {"one full block", Bytes(55, 'a'), "9f4390f8d30c2dd92ec9f095b65e2b9ae9b0a925a5258e241c9f1e910f734318"},
      // 56 bytes: the length no longer fits, padding takes a second block.
      {"two blocks", text("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
  };
  for (const auto& c : digests) EXPECT_EQ(hexText(sha256(c.message)), c.digest) << c.name;

  const struct { const char* name; Bytes key, data; const char* mac; } macs[] = {  // RFC 4231 test cases
      {"1", Bytes(20, 0x0b), text("Hi There"), "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
      {"6", Bytes(131, 0xaa), text("Test Using Larger Than Block-Size Key - Hash Key First"),
       "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"},
  };
  for (const auto& c : macs) EXPECT_EQ(hexText(hmac(c.key, c.data)), c.mac) << "RFC 4231 case " << c.name;

  const struct { const char *password, *salt; UINT32 iterations; size_t size; const char* key; } keys[] = {
      {"passwd", "salt", 1, 64,
       "55ac046e56e3089fec1691c22544b605f94185216dde0465e68b9d57c20dacbc49ca9cccf179b645991664b39d77ef317c71b845b1e30"
       "bd509112041d3a19783"},
      {"Password", "NaCl", 80000, 64,
       "4ddcd8f60b98be21830cee5ef22701f9641a4418d04c0414aeff08876b34ab56a1d425a1225833549adb841b51c9b3176a272bdebba1d"
       "078478f62b397f33c8d"},
      // A key shorter than one block is the first bytes of the longer one.
      {"passwd", "salt", 1, 20, "55ac046e56e3089fec1691c22544b605f9418521"},
  };
  for (const auto& c : keys)
    EXPECT_EQ(hexText(pbkdf2(text(c.password), text(c.salt), c.iterations, c.size)), c.key)
        << c.password << " / " << c.salt << " / " << c.iterations;
}

}  // namespace
