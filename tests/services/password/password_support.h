// Test support for the password services: either image and its exported
// functions, the ChangePassword calls and the store's variables.
#pragma once

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "services/password/record.h"
#include "support/fixture.h"
#include "uefi/services.h"

namespace tvl::test {

using Bytes = std::vector<UINT8>;

enum class PasswordImage { Newer, Older };
inline const char* imageName(PasswordImage image) {
  return image == PasswordImage::Newer ? "password2_service" : "legacy_password_service";
}

// Lower-case hexadecimal text of bytes, and back.
inline std::string hexText(const Bytes& bytes) {
  std::string out;
  for (UINT8 b : bytes) out += {"0123456789abcdef"[b >> 4], "0123456789abcdef"[b & 15]};
  return out;
}
inline Bytes fromHex(const std::string& text) {
  Bytes out;
  for (size_t i = 0; i + 1 < text.size(); i += 2) out.push_back(UINT8(std::stoi(text.substr(i, 2), nullptr, 16)));
  return out;
}
// The bytes of a text as it lies in memory (no terminator).
template <typename C>
Bytes bytesOf(const std::basic_string<C>& text) {
  const auto* b = reinterpret_cast<const UINT8*>(text.data());
  return Bytes(b, b + text.size() * sizeof(C));
}
// Whether `needle` occurs in `haystack` (an empty needle never does).
inline bool contains(const UINT8* haystack, size_t size, const Bytes& needle) {
  for (size_t i = 0; !needle.empty() && i + needle.size() <= size; ++i)
    if (std::memcmp(haystack + i, needle.data(), needle.size()) == 0) return true;
  return false;
}

class PasswordServiceTest : public PlatformTest {
 public:
  // Loads a fresh instance of the image; the leak baseline moves past it.
  PASSWORD_SERVICE_PROTOCOL* start(PasswordImage image) {
    handles_[int(image)] = load(imageName(image));
    markBaseline();
    auto* service = locate<PASSWORD_SERVICE_PROTOCOL>(image == PasswordImage::Newer ? gPassword2ProtocolGuid
                                                                                    : gLegacyPasswordProtocolGuid);
    EXPECT_NE(service, nullptr) << imageName(image) << " installed no protocol";
    return service;
  }
  template <typename F>
  F function(PasswordImage image, const char* name) {
    if (!handles_[int(image)]) start(image);
    void* address = platform().imageSymbol(handles_[int(image)], name);
    EXPECT_NE(address, nullptr) << imageName(image) << " exports no " << name;
    return reinterpret_cast<F>(address);
  }
  UINT32 iterations(PasswordImage image) {
    auto* count = function<const UINT32*>(image, "gPasswordIterations");
    return count ? *count : 0;
  }

  // The three calls of ChangePassword.
  static EFI_STATUS setPlain(PASSWORD_SERVICE_PROTOCOL* s, UINT16 which, const CHAR16* old, const CHAR16* password) {
    return s->ChangePassword(s, PASSWORD_METHOD_PLAIN, which, old, password, static_cast<const CHAR8*>(nullptr));
  }
  static EFI_STATUS setHash(PASSWORD_SERVICE_PROTOCOL* s, UINT16 which, const CHAR8* hash, const CHAR8* salt) {
    return s->ChangePassword(s, PASSWORD_METHOD_SHA256, which, u"", hash, salt);
  }
  static EFI_STATUS change(PASSWORD_SERVICE_PROTOCOL* s, UINT16 which, const CHAR16* old, const CHAR16* password) {
    return s->ChangePassword(s, PASSWORD_METHOD_CHECKED, which, old, password);
  }

  // The store's variables, read and written from the host side.
  std::optional<Bytes> variable(const CHAR16* name, UINT32* attributes = nullptr) {
    Bytes data;
    if (platform().getVariable(name, gPasswordStoreGuid, &data, attributes) != EFI_SUCCESS) return std::nullopt;
    return data;
  }
  void putVariable(const CHAR16* name, const Bytes& data) {
    ASSERT_EQ(platform().setVariable(name, gPasswordStoreGuid, PASSWORD_VARIABLE_ATTRIBUTES, data), EFI_SUCCESS);
  }
  void removeVariable(const CHAR16* name) {
    platform().setVariable(name, gPasswordStoreGuid, PASSWORD_VARIABLE_ATTRIBUTES, {});
  }
  static const CHAR16* recordName(UINT16 which) {
    return which == PASSWORD_WHICH_SYSTEM ? PASSWORD_SYSTEM_VARIABLE : PASSWORD_SETUP_VARIABLE;
  }
  std::optional<PASSWORD_RECORD> record(UINT16 which) {
    std::optional<Bytes> data = variable(recordName(which));
    if (!data || data->size() != sizeof(PASSWORD_RECORD)) return std::nullopt;
    PASSWORD_RECORD r;
    std::memcpy(&r, data->data(), sizeof r);
    return r;
  }
  static Bytes recordBytes(const PASSWORD_RECORD& r) {
    const auto* b = reinterpret_cast<const UINT8*>(&r);
    return Bytes(b, b + sizeof r);
  }
  void putRecord(UINT16 which, const PASSWORD_RECORD& r) { putVariable(recordName(which), recordBytes(r)); }
  void markDisabled(UINT8 bits) { putVariable(PASSWORD_DISABLED_VARIABLE, {bits}); }

  // SHA-256, HMAC-SHA-256 and PBKDF2 as the newer image computes them
  // (checked against published vectors in the storage tests).
  Bytes sha256(const Bytes& data) {
    Bytes digest(32);
    function<VOID (*)(const VOID*, UINTN, UINT8*)>(kNewer, "sha256Digest")(data.data(), data.size(), digest.data());
    return digest;
  }
  Bytes hmac(const Bytes& key, const Bytes& data) {
    Bytes mac(32);
    function<VOID (*)(const VOID*, UINTN, const VOID*, UINTN, UINT8*)>(kNewer, "hmacSha256Mac")(
        key.data(), key.size(), data.data(), data.size(), mac.data());
    return mac;
  }
  Bytes pbkdf2(const Bytes& password, const Bytes& salt, UINT32 iterations, size_t size = 32) {
    Bytes out(size);
    function<VOID (*)(const VOID*, UINTN, const VOID*, UINTN, UINT32, UINT8*, UINTN)>(kNewer, "pbkdf2Sha256")(
        password.data(), password.size(), salt.data(), salt.size(), iterations, out.data(), out.size());
    return out;
  }
  std::string hashTextOf(const std::string& password, const std::string& salt) {
    return hexText(sha256(bytesOf(password + salt)));
  }

 private:
  static constexpr PasswordImage kNewer = PasswordImage::Newer;
  EFI_HANDLE handles_[2] = {};
};

// Both images loaded.
class BothPasswordServicesTest : public PasswordServiceTest {
 public:
  void SetUp() override {
    PasswordServiceTest::SetUp();
    newer_ = start(PasswordImage::Newer);
    older_ = start(PasswordImage::Older);
  }

  PASSWORD_SERVICE_PROTOCOL* newer_ = nullptr;
  PASSWORD_SERVICE_PROTOCOL* older_ = nullptr;
};

}  // namespace tvl::test
