// The stored form of one password: a fixed 128-byte record, the whole data
// of its UEFI variable (PASSWORD_SYSTEM_VARIABLE or PASSWORD_SETUP_VARIABLE
// under PASSWORD_STORE_GUID). It never holds the password itself:
//
//   plain password (PASSWORD_TYPE_PLAIN): Derived is PBKDF2-HMAC-SHA-256 of
//     the password's UCS-2 characters (little-endian, no terminator) with
//     Salt and Iterations;
//   hash text (PASSWORD_TYPE_SHA256): the caller's 64 hexadecimal digits
//     stand for SHA-256 over the password's 8-bit characters followed by the
//     salt text; SaltText keeps that salt text, and Derived is PBKDF2 of the
//     32 digest bytes with Salt and Iterations. A typed password is checked
//     by hashing it with SaltText first.
//
// Salt is random and new for every password that is set; Iterations is the
// count of the image that set it, so that a record stays verifiable when a
// later build uses another count.
#pragma once

#include "uefi/base.h"

#define PASSWORD_RECORD_SIGNATURE 0x57505654u  // "TVPW"
#define PASSWORD_RECORD_VERSION 1

struct PASSWORD_RECORD {
  UINT32 Signature;
  UINT16 Version;
  UINT8 Kind;            // PASSWORD_TYPE_PLAIN or PASSWORD_TYPE_SHA256
  UINT8 SaltTextLength;  // bytes of SaltText in use (hash text only)
  UINT32 Iterations;
  UINT32 Reserved;       // 0
  UINT8 Salt[16];
  UINT8 Derived[32];
  CHAR8 SaltText[64];    // zero beyond SaltTextLength
};
static_assert(sizeof(PASSWORD_RECORD) == 128, "PASSWORD_RECORD layout");
static_assert(__builtin_offsetof(PASSWORD_RECORD, Kind) == 6, "PASSWORD_RECORD Kind");
static_assert(__builtin_offsetof(PASSWORD_RECORD, Iterations) == 8, "PASSWORD_RECORD Iterations");
static_assert(__builtin_offsetof(PASSWORD_RECORD, Salt) == 16, "PASSWORD_RECORD Salt");
static_assert(__builtin_offsetof(PASSWORD_RECORD, Derived) == 32, "PASSWORD_RECORD Derived");
static_assert(__builtin_offsetof(PASSWORD_RECORD, SaltText) == 64, "PASSWORD_RECORD SaltText");

// A record asking for more iterations than this is taken as damaged rather
// than run for minutes.
#define PASSWORD_RECORD_MAX_ITERATIONS 10000000u
