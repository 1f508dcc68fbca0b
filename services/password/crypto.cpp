#include "services/password/crypto.h"

namespace tvl::password {
namespace {

constexpr UINT32 kRoundConstants[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2,
};

constexpr UINT32 kInitialState[8] = {
    0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a, 0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19,
};

inline UINT32 rotateRight(UINT32 x, unsigned n) { return (x >> n) | (x << (32 - n)); }

inline UINT32 loadBigEndian32(const UINT8* p) {
  return UINT32(p[0]) << 24 | UINT32(p[1]) << 16 | UINT32(p[2]) << 8 | UINT32(p[3]);
}

inline void storeBigEndian32(UINT8* p, UINT32 v) {
  p[0] = UINT8(v >> 24);
  p[1] = UINT8(v >> 16);
  p[2] = UINT8(v >> 8);
  p[3] = UINT8(v);
}

void copyBytes(VOID* destination, const VOID* source, UINTN size) {
  auto* d = static_cast<UINT8*>(destination);
  auto* s = static_cast<const UINT8*>(source);
  for (UINTN i = 0; i < size; ++i) d[i] = s[i];
}

}  // namespace

void secureWipe(VOID* buffer, UINTN size) {
  auto* p = static_cast<volatile UINT8*>(buffer);
  for (UINTN i = 0; i < size; ++i) p[i] = 0;
  // The memory clobber keeps the stores even for an object about to die.
  __asm__ __volatile__("" : : "r"(buffer) : "memory");
}

bool equalConstantTime(const VOID* a, const VOID* b, UINTN size) {
  auto* x = static_cast<const volatile UINT8*>(a);
  auto* y = static_cast<const volatile UINT8*>(b);
  UINT8 difference = 0;
  for (UINTN i = 0; i < size; ++i) difference = UINT8(difference | (x[i] ^ y[i]));
  return difference == 0;
}

// ---------------------------------------------------------------- SHA-256
void Sha256::reset() {
  copyBytes(state_, kInitialState, sizeof state_);
  filled_ = 0;
  totalBytes_ = 0;
}

void Sha256::compress(const UINT8* block) {
  UINT32 w[64];
  for (unsigned i = 0; i < 16; ++i) w[i] = loadBigEndian32(block + 4 * i);
  for (unsigned i = 16; i < 64; ++i) {
    UINT32 s0 = rotateRight(w[i - 15], 7) ^ rotateRight(w[i - 15], 18) ^ (w[i - 15] >> 3);
    UINT32 s1 = rotateRight(w[i - 2], 17) ^ rotateRight(w[i - 2], 19) ^ (w[i - 2] >> 10);
    w[i] = w[i - 16] + s0 + w[i - 7] + s1;
  }
  UINT32 a = state_[0], b = state_[1], c = state_[2], d = state_[3];
  UINT32 e = state_[4], f = state_[5], g = state_[6], h = state_[7];
  for (unsigned i = 0; i < 64; ++i) {
    UINT32 s1 = rotateRight(e, 6) ^ rotateRight(e, 11) ^ rotateRight(e, 25);
    UINT32 choice = (e & f) ^ (~e & g);
    UINT32 t1 = h + s1 + choice + kRoundConstants[i] + w[i];
    UINT32 s0 = rotateRight(a, 2) ^ rotateRight(a, 13) ^ rotateRight(a, 22);
    UINT32 majority = (a & b) ^ (a & c) ^ (b & c);
    UINT32 t2 = s0 + majority;
    h = g;
    g = f;
    f = e;
    e = d + t1;
    d = c;
    c = b;
    b = a;
    a = t1 + t2;
  }
  state_[0] += a;
  state_[1] += b;
  state_[2] += c;
  state_[3] += d;
  state_[4] += e;
  state_[5] += f;
  state_[6] += g;
  state_[7] += h;
  // The schedule is derived from the message, which may be a password.
  secureWipe(w, sizeof w);
}

void Sha256::update(const VOID* data, UINTN size) {
  auto* bytes = static_cast<const UINT8*>(data);
  totalBytes_ += size;
  while (size > 0) {
    if (filled_ == 0 && size >= kSha256BlockSize) {
      compress(bytes);
      bytes += kSha256BlockSize;
      size -= kSha256BlockSize;
      continue;
    }
    UINTN take = kSha256BlockSize - filled_;
    if (take > size) take = size;
    copyBytes(block_ + filled_, bytes, take);
    filled_ += take;
    bytes += take;
    size -= take;
    if (filled_ == kSha256BlockSize) {
      compress(block_);
      filled_ = 0;
    }
  }
}

void Sha256::finish(UINT8 digest[kSha256Size]) {
  const UINT64 bits = totalBytes_ * 8;
  // Padding: a one bit, zeros up to 56 bytes into a block, then the
  // message length in bits, big-endian.
  block_[filled_++] = 0x80;
  if (filled_ > kSha256BlockSize - 8) {
    while (filled_ < kSha256BlockSize) block_[filled_++] = 0;
    compress(block_);
    filled_ = 0;
  }
  while (filled_ < kSha256BlockSize - 8) block_[filled_++] = 0;
  for (unsigned i = 0; i < 8; ++i) block_[kSha256BlockSize - 1 - i] = UINT8(bits >> (8 * i));
  compress(block_);
  filled_ = 0;
  for (unsigned i = 0; i < 8; ++i) storeBigEndian32(digest + 4 * i, state_[i]);
  secureWipe(block_, sizeof block_);
}

// ---------------------------------------------------------------- HMAC
HmacSha256::HmacSha256(const VOID* key, UINTN keySize) {
  UINT8 padded[kSha256BlockSize] = {};
  if (keySize > kSha256BlockSize) {
    Sha256 keyHash;
    keyHash.update(key, keySize);
    keyHash.finish(padded);
  } else {
    copyBytes(padded, key, keySize);
  }
  for (UINT8& b : padded) b ^= 0x36;
  inner_.update(padded, sizeof padded);
  for (UINT8& b : padded) b ^= 0x36 ^ 0x5c;
  outer_.update(padded, sizeof padded);
  secureWipe(padded, sizeof padded);
}

void HmacSha256::finish(UINT8 mac[kSha256Size]) {
  UINT8 innerDigest[kSha256Size];
  message_.finish(innerDigest);
  message_ = outer_;
  message_.update(innerDigest, sizeof innerDigest);
  message_.finish(mac);
  secureWipe(innerDigest, sizeof innerDigest);
}

// ---------------------------------------------------------------- PBKDF2
void pbkdf2HmacSha256(const VOID* password, UINTN passwordSize, const VOID* salt, UINTN saltSize, UINT32 iterations,
                      UINT8* output, UINTN outputSize) {
  HmacSha256 prf(password, passwordSize);
  UINT8 u[kSha256Size];
  UINT8 t[kSha256Size];
  for (UINT32 blockIndex = 1; outputSize > 0; ++blockIndex) {
    UINT8 index[4];
    storeBigEndian32(index, blockIndex);
    prf.begin();
    prf.update(salt, saltSize);
    prf.update(index, sizeof index);
    prf.finish(u);
    copyBytes(t, u, sizeof t);
    for (UINT32 i = 1; i < iterations; ++i) {
      prf.sign(u, sizeof u, u);
      for (UINTN j = 0; j < kSha256Size; ++j) t[j] ^= u[j];
    }
    UINTN take = outputSize < kSha256Size ? outputSize : kSha256Size;
    copyBytes(output, t, take);
    output += take;
    outputSize -= take;
  }
  secureWipe(u, sizeof u);
  secureWipe(t, sizeof t);
}

}  // namespace tvl::password

extern "C" {

VOID sha256Digest(const VOID* Data, UINTN Size, UINT8* Digest) {
  tvl::password::Sha256 hash;
  hash.update(Data, Size);
  hash.finish(Digest);
}

VOID hmacSha256Mac(const VOID* Key, UINTN KeySize, const VOID* Data, UINTN DataSize, UINT8* Mac) {
  tvl::password::HmacSha256(Key, KeySize).sign(Data, DataSize, Mac);
}

VOID pbkdf2Sha256(const VOID* Password, UINTN PasswordSize, const VOID* Salt, UINTN SaltSize, UINT32 Iterations,
                  UINT8* Output, UINTN OutputSize) {
  if (Iterations == 0) return;
  tvl::password::pbkdf2HmacSha256(Password, PasswordSize, Salt, SaltSize, Iterations, Output, OutputSize);
}

}  // extern "C"
