// SHA-256, HMAC-SHA-256 and PBKDF2-HMAC-SHA-256 for the password services,
// with the wiping of secrets. Freestanding: no allocation, every state on
// the caller's stack and wiped when it goes out of scope.
#pragma once

#include "uefi/base.h"

namespace tvl::password {

constexpr UINTN kSha256Size = 32;
constexpr UINTN kSha256BlockSize = 64;

// Overwrites `size` bytes with zeros in a way the compiler may not drop,
// even when the memory is never read again.
void secureWipe(VOID* buffer, UINTN size);

// Compares in time that depends on `size` only, not on where the bytes
// differ.
bool equalConstantTime(const VOID* a, const VOID* b, UINTN size);

class Sha256 {
 public:
  Sha256() { reset(); }
  ~Sha256() { secureWipe(this, sizeof *this); }
  Sha256(const Sha256&) = default;
  Sha256& operator=(const Sha256&) = default;

  void reset();
  void update(const VOID* data, UINTN size);
  // Writes the digest; the object must be reset before further use.
  void finish(UINT8 digest[kSha256Size]);

 private:
  void compress(const UINT8* block);

  UINT32 state_[8];
  UINT8 block_[kSha256BlockSize];
  UINTN filled_;
  UINT64 totalBytes_;
};

// HMAC-SHA-256 with the key absorbed once, so that one key can sign many
// messages (PBKDF2 signs thousands with the same password).
class HmacSha256 {
 public:
  HmacSha256(const VOID* key, UINTN keySize);
  ~HmacSha256() = default;  // both states wipe themselves

  // A message in pieces: begin, update as often as needed, finish.
  void begin() { message_ = inner_; }
  void update(const VOID* data, UINTN size) { message_.update(data, size); }
  void finish(UINT8 mac[kSha256Size]);

  void sign(const VOID* data, UINTN size, UINT8 mac[kSha256Size]) {
    begin();
    update(data, size);
    finish(mac);
  }

 private:
  Sha256 inner_;    // after the key XOR ipad block
  Sha256 outer_;    // after the key XOR opad block
  Sha256 message_;  // the message being signed
};

// PBKDF2 (RFC 8018) with HMAC-SHA-256 as the pseudo-random function.
// `iterations` must be at least 1; any output size is accepted.
void pbkdf2HmacSha256(const VOID* password, UINTN passwordSize, const VOID* salt, UINTN saltSize, UINT32 iterations,
                      UINT8* output, UINTN outputSize);

}  // namespace tvl::password

// The same operations by name, so that tests reach them in a loaded image.
extern "C" {
VOID sha256Digest(const VOID* Data, UINTN Size, UINT8* Digest);
VOID hmacSha256Mac(const VOID* Key, UINTN KeySize, const VOID* Data, UINTN DataSize, UINT8* Mac);
VOID pbkdf2Sha256(const VOID* Password, UINTN PasswordSize, const VOID* Salt, UINTN SaltSize, UINT32 Iterations,
                  UINT8* Output, UINTN OutputSize);
}
