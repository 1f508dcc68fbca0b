// SHA-256, HMAC-SHA-256 and PBKDF2-HMAC-SHA-256 against published vectors:
// FIPS 180-4 examples, RFC 4231 and RFC 7914. Both password images build
// the same crypto source; the vectors run in the newer one.
#include <gtest/gtest.h>

#include "password_support.h"

namespace {

using tvl::test::Bytes;
using tvl::test::hexText;

Bytes text(const std::string& s) { return tvl::test::bytesOf(s); }

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
      {"a million a", Bytes(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
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
      // No iteration is no key: the output is left as it was (zeros here).
      {"passwd", "salt", 0, 20, "0000000000000000000000000000000000000000"},
  };
  for (const auto& c : keys)
    EXPECT_EQ(hexText(pbkdf2(text(c.password), text(c.salt), c.iterations, c.size)), c.key)
        << c.password << " / " << c.salt << " / " << c.iterations;
}

}  // namespace
