// Test support for the password services: loading either image, its
// exported functions, the three forms of a ChangePassword call, and direct
// access to the password store's variables.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "services/password/record.h"
#include "support/fixture.h"
#include "uefi/services.h"

namespace tvl::test {

using Bytes = std::vector<UINT8>;

enum class PasswordImage { Newer, Older };
const char* imageName(PasswordImage image);
const EFI_GUID& protocolGuid(PasswordImage image);

// Lower-case hexadecimal text of bytes, and back.
std::string hexText(const Bytes& bytes);
Bytes fromHex(const std::string& text);
// The bytes of a UCS-2 text as it lies in memory (no terminator).
Bytes bytesOf(const std::u16string& text);
Bytes bytesOf(const std::string& text);
// Whether `needle` occurs in `haystack` (an empty needle never does).
bool contains(const UINT8* haystack, size_t size, const Bytes& needle);

// Members are public so that the tables of the tests can reach them.
class PasswordServiceTest : public PlatformTest {
 public:
  // Loads a fresh instance of the image; the leak baseline moves past it.
  PASSWORD_SERVICE_PROTOCOL* start(PasswordImage image);
  template <typename F>
  F function(PasswordImage image, const char* name) {
    return reinterpret_cast<F>(exported(image, name));
  }
  void* exported(PasswordImage image, const char* name);
  UINT32 iterations(PasswordImage image);

  // The three calls of ChangePassword.
  static EFI_STATUS setPlain(PASSWORD_SERVICE_PROTOCOL* s, UINT16 which, const CHAR16* old, const CHAR16* password);
  static EFI_STATUS setHash(PASSWORD_SERVICE_PROTOCOL* s, UINT16 which, const CHAR8* hash, const CHAR8* salt);
  static EFI_STATUS change(PASSWORD_SERVICE_PROTOCOL* s, UINT16 which, const CHAR16* old, const CHAR16* password);

  // The store's variables, read and written from the host side.
  std::optional<Bytes> variable(const CHAR16* name, UINT32* attributes = nullptr) const;
  void putVariable(const CHAR16* name, const Bytes& data);
  void removeVariable(const CHAR16* name);
  static const CHAR16* recordName(UINT16 which);
  std::optional<PASSWORD_RECORD> record(UINT16 which) const;
  void putRecord(UINT16 which, const PASSWORD_RECORD& record);
  void markDisabled(UINT8 bits) { putVariable(PASSWORD_DISABLED_VARIABLE, {bits}); }

  // SHA-256 and PBKDF2 as the image computes them (checked against
  // published vectors in the crypto tests).
  Bytes sha256(const Bytes& data);
  Bytes pbkdf2(const Bytes& password, const Bytes& salt, UINT32 iterations, size_t size = 32);
  // The hash text of method 1 for a password and salt text.
  std::string hashTextOf(const std::string& password, const std::string& salt);

 private:
  EFI_HANDLE handles_[2] = {};
};

}  // namespace tvl::test
