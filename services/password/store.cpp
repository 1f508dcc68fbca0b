#include "services/password/store.h"

#include "services/password/crypto.h"
#include "uefi/runtime.h"

#ifndef TOLVANE_PASSWORD_ITERATIONS
// Firmware images: costly for a guesser, about a tenth of a second for one
// check at the setup prompt. Host images set their own (lower) count.
#define TOLVANE_PASSWORD_ITERATIONS 100000
#endif
static_assert(TOLVANE_PASSWORD_ITERATIONS >= 1 && TOLVANE_PASSWORD_ITERATIONS <= PASSWORD_RECORD_MAX_ITERATIONS,
              "PBKDF2 iteration count out of range");

extern "C" const UINT32 gPasswordIterations = TOLVANE_PASSWORD_ITERATIONS;

namespace tvl::password {
namespace {

using tvl::rt::bs;
using tvl::rt::rts;

// Salts that do not come from an RNG also mix in how often this image has
// made one, so that two salts of one image never repeat.
UINT64 gFallbackSalts;

const CHAR16* variableName(UINT16 which) {
  return which == PASSWORD_WHICH_SYSTEM ? PASSWORD_SYSTEM_VARIABLE : PASSWORD_SETUP_VARIABLE;
}

// Stack storage for secret bytes that is wiped when it goes out of scope,
// on every path.
template <typename T>
struct Wiped {
  T value{};
  ~Wiped() { secureWipe(&value, sizeof value); }
};
struct Digest {
  UINT8 bytes[kSha256Size];
};

int hexValue(CHAR8 c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool wellFormed(const PASSWORD_RECORD& r) {
  if (r.Signature != PASSWORD_RECORD_SIGNATURE || r.Version != PASSWORD_RECORD_VERSION) return false;
  if (r.Iterations < 1 || r.Iterations > PASSWORD_RECORD_MAX_ITERATIONS) return false;
  if (r.Kind == PASSWORD_TYPE_PLAIN) return r.SaltTextLength == 0;
  return r.Kind == PASSWORD_TYPE_SHA256 && r.SaltTextLength <= kMaxSaltText;
}

// EFI_SUCCESS with a well-formed record, EFI_NOT_FOUND when none is stored,
// EFI_VOLUME_CORRUPTED for a record of another size or form, or the
// variable store's failure.
EFI_STATUS readRecord(UINT16 which, PASSWORD_RECORD& record) {
  UINTN size = sizeof record;
  UINT32 attributes = 0;
  EFI_STATUS status = rts()->GetVariable(variableName(which), &gPasswordStoreGuid, &attributes, &size, &record);
  if (status == EFI_BUFFER_TOO_SMALL) return EFI_VOLUME_CORRUPTED;
  RETURN_IF_ERROR(status);
  if (size != sizeof record || !wellFormed(record)) return EFI_VOLUME_CORRUPTED;
  return EFI_SUCCESS;
}

// A random salt from the firmware's RNG; without one (or when it fails),
// a digest of the monotonic count, the time, the processor's cycle
// counter and this image's salt count.
void makeSalt(UINT8 salt[kSaltSize]) {
  EFI_RNG_PROTOCOL* rng = nullptr;
  if (!EFI_ERROR(bs()->LocateProtocol(&gEfiRngProtocolGuid, nullptr, reinterpret_cast<VOID**>(&rng))) && rng &&
      !EFI_ERROR(rng->GetRNG(rng, nullptr, kSaltSize, salt)))
    return;
  Sha256 mix;
  UINT64 count = 0;
  bs()->GetNextMonotonicCount(&count);
  mix.update(&count, sizeof count);
  EFI_TIME now{};
  if (!EFI_ERROR(rts()->GetTime(&now, nullptr))) mix.update(&now, sizeof now);
  UINT64 cycles = __builtin_ia32_rdtsc();
  mix.update(&cycles, sizeof cycles);
  ++gFallbackSalts;
  mix.update(&gFallbackSalts, sizeof gFallbackSalts);
  Digest digest;
  mix.finish(digest.bytes);
  tvl::rt::copyMem(salt, digest.bytes, kSaltSize);
}

void newRecord(PASSWORD_RECORD& r, UINT8 kind) {
  tvl::rt::setMem(&r, sizeof r, 0);
  r.Signature = PASSWORD_RECORD_SIGNATURE;
  r.Version = PASSWORD_RECORD_VERSION;
  r.Kind = kind;
  r.Iterations = gPasswordIterations;
  makeSalt(r.Salt);
}

void derive(const PASSWORD_RECORD& r, const VOID* secret, UINTN size, UINT8 out[kSha256Size]) {
  pbkdf2HmacSha256(secret, size, r.Salt, sizeof r.Salt, r.Iterations, out, kSha256Size);
}

// SHA-256 over the password's 8-bit characters and the record's salt text:
// what a hash text stands for. False when a character does not fit in 8
// bits (such a password cannot have been hashed that way).
bool hashWithSaltText(const PASSWORD_RECORD& r, const CHAR16* password, UINT8 out[kSha256Size]) {
  Sha256 hash;
  Wiped<UINT8> byte;  // one character of the password at a time
  for (const CHAR16* c = password; *c; ++c) {
    if (*c > 0xFF) return false;
    byte.value = UINT8(*c);
    hash.update(&byte.value, 1);
  }
  hash.update(r.SaltText, r.SaltTextLength);
  hash.finish(out);
  return true;
}

bool matches(const PASSWORD_RECORD& r, const CHAR16* candidate) {
  Wiped<Digest> derived;
  if (r.Kind == PASSWORD_TYPE_PLAIN) {
    derive(r, candidate, tvl::rt::length(candidate) * sizeof(CHAR16), derived.value.bytes);
  } else {
    Wiped<Digest> hashed;
    if (!hashWithSaltText(r, candidate, hashed.value.bytes)) return false;
    derive(r, hashed.value.bytes, kSha256Size, derived.value.bytes);
  }
  return equalConstantTime(derived.value.bytes, r.Derived, kSha256Size);
}

EFI_STATUS writeRecord(UINT16 which, const PASSWORD_RECORD& r) {
  return rts()->SetVariable(variableName(which), &gPasswordStoreGuid, PASSWORD_VARIABLE_ATTRIBUTES, sizeof r, &r);
}

}  // namespace

UINTN lengthUpTo(const CHAR16* text, UINTN limit) {
  UINTN n = 0;
  while (n <= limit && text[n]) ++n;
  return n;
}

UINTN lengthUpTo(const CHAR8* text, UINTN limit) {
  UINTN n = 0;
  while (n <= limit && text[n]) ++n;
  return n;
}

bool isPlainPassword(const CHAR16* password) {
  return password && lengthUpTo(password, PASSWORD_MAX_LENGTH) <= PASSWORD_MAX_LENGTH;
}

bool isHashText(const CHAR8* text) {
  if (!text) return false;
  UINTN length = lengthUpTo(text, kHashTextLength);
  if (length == 0) return true;
  if (length != kHashTextLength) return false;
  for (UINTN i = 0; i < length; ++i)
    if (hexValue(text[i]) < 0) return false;
  return true;
}

bool isSaltText(const CHAR8* text) { return !text || lengthUpTo(text, kMaxSaltText) <= kMaxSaltText; }

bool isDisabled(UINT16 which) {
  UINT8 marks = 0;
  UINTN size = sizeof marks;
  UINT32 attributes = 0;
  EFI_STATUS status = rts()->GetVariable(PASSWORD_DISABLED_VARIABLE, &gPasswordStoreGuid, &attributes, &size, &marks);
  if (status == EFI_NOT_FOUND) return false;
  if (EFI_ERROR(status) || size != sizeof marks) return true;
  return (marks & (1u << (which - 1))) != 0;
}

EFI_STATUS properties(UINT16 which, UINT16* status, UINT8* type) {
  Wiped<PASSWORD_RECORD> record;
  EFI_STATUS read = readRecord(which, record.value);
  UINT16 bits = 0;
  UINT8 kind = PASSWORD_TYPE_NONE;
  if (read == EFI_SUCCESS) {
    bits |= EFI_VORK_PASSWORD_INSTALLED;
    kind = record.value.Kind;
  } else if (read == EFI_VOLUME_CORRUPTED) {
    // Something is stored; it still counts as a password, so that a clear
    // is not refused for want of one.
    bits |= EFI_VORK_PASSWORD_INSTALLED;
    kind = PASSWORD_TYPE_UNREADABLE;
  } else if (read != EFI_NOT_FOUND) {
    return read;
  }
  if (isDisabled(which)) bits |= EFI_VORK_PASSWORD_DISABLED;
  *status = bits;
  *type = kind;
  return EFI_SUCCESS;
}

EFI_STATUS verify(UINT16 which, const CHAR16* candidate) {
  Wiped<PASSWORD_RECORD> record;
  EFI_STATUS read = readRecord(which, record.value);
  if (read == EFI_NOT_FOUND) return candidate[0] == 0 ? EFI_SUCCESS : EFI_ACCESS_DENIED;
  RETURN_IF_ERROR(read);
  return matches(record.value, candidate) ? EFI_SUCCESS : EFI_ACCESS_DENIED;
}

EFI_STATUS setPlain(UINT16 which, const CHAR16* password) {
  UINTN length = tvl::rt::length(password);
  if (length == 0) return clear(which);
  Wiped<PASSWORD_RECORD> record;
  newRecord(record.value, PASSWORD_TYPE_PLAIN);
  derive(record.value, password, length * sizeof(CHAR16), record.value.Derived);
  return writeRecord(which, record.value);
}

EFI_STATUS setHash(UINT16 which, const CHAR8* hashText, const CHAR8* saltText) {
  if (hashText[0] == 0) return clear(which);
  Wiped<Digest> digest;
  for (UINTN i = 0; i < kSha256Size; ++i)
    digest.value.bytes[i] = UINT8(hexValue(hashText[2 * i]) << 4 | hexValue(hashText[2 * i + 1]));
  Wiped<PASSWORD_RECORD> record;
  newRecord(record.value, PASSWORD_TYPE_SHA256);
  UINTN saltLength = tvl::rt::length(saltText);
  record.value.SaltTextLength = UINT8(saltLength);
  tvl::rt::copyMem(record.value.SaltText, saltText, saltLength);
  derive(record.value, digest.value.bytes, kSha256Size, record.value.Derived);
  return writeRecord(which, record.value);
}

EFI_STATUS clear(UINT16 which) {
  EFI_STATUS status = rts()->SetVariable(variableName(which), &gPasswordStoreGuid, PASSWORD_VARIABLE_ATTRIBUTES, 0,
                                         nullptr);
  // Clearing what is not there leaves the wanted state.
  return status == EFI_NOT_FOUND ? EFI_SUCCESS : status;
}

}  // namespace tvl::password
