#include "password_support.h"

#include <cstring>

namespace tvl::test {

const char* imageName(PasswordImage image) {
  return image == PasswordImage::Newer ? "password2_service" : "legacy_password_service";
}

const EFI_GUID& protocolGuid(PasswordImage image) {
  return image == PasswordImage::Newer ? gPassword2ProtocolGuid : gLegacyPasswordProtocolGuid;
}

std::string hexText(const Bytes& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (UINT8 b : bytes) {
    out += kDigits[b >> 4];
    out += kDigits[b & 15];
  }
  return out;
}

Bytes fromHex(const std::string& text) {
  Bytes out;
  for (size_t i = 0; i + 1 < text.size(); i += 2) out.push_back(UINT8(std::stoi(text.substr(i, 2), nullptr, 16)));
  return out;
}

Bytes bytesOf(const std::u16string& text) {
  Bytes out(text.size() * 2);
  std::memcpy(out.data(), text.data(), out.size());
  return out;
}

Bytes bytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }

bool contains(const UINT8* haystack, size_t size, const Bytes& needle) {
  if (needle.empty() || size < needle.size()) return false;
  for (size_t i = 0; i + needle.size() <= size; ++i)
    if (std::memcmp(haystack + i, needle.data(), needle.size()) == 0) return true;
  return false;
}

PASSWORD_SERVICE_PROTOCOL* PasswordServiceTest::start(PasswordImage image) {
  handles_[int(image)] = load(imageName(image));
  markBaseline();
  auto* service = locate<PASSWORD_SERVICE_PROTOCOL>(protocolGuid(image));
  EXPECT_NE(service, nullptr) << imageName(image) << " installed no protocol";
  return service;
}

void* PasswordServiceTest::exported(PasswordImage image, const char* name) {
  if (!handles_[int(image)]) start(image);
  void* address = platform().imageSymbol(handles_[int(image)], name);
  EXPECT_NE(address, nullptr) << imageName(image) << " exports no " << name;
  return address;
}

UINT32 PasswordServiceTest::iterations(PasswordImage image) {
  auto* count = static_cast<const UINT32*>(exported(image, "gPasswordIterations"));
  return count ? *count : 0;
}

EFI_STATUS PasswordServiceTest::setPlain(PASSWORD_SERVICE_PROTOCOL* s, UINT16 which, const CHAR16* old,
                                         const CHAR16* password) {
  return s->ChangePassword(s, PASSWORD_METHOD_PLAIN, which, old, password, static_cast<const CHAR8*>(nullptr));
}

EFI_STATUS PasswordServiceTest::setHash(PASSWORD_SERVICE_PROTOCOL* s, UINT16 which, const CHAR8* hash,
                                        const CHAR8* salt) {
  return s->ChangePassword(s, PASSWORD_METHOD_SHA256, which, u"", hash, salt);
}

EFI_STATUS PasswordServiceTest::change(PASSWORD_SERVICE_PROTOCOL* s, UINT16 which, const CHAR16* old,
                                       const CHAR16* password) {
  return s->ChangePassword(s, PASSWORD_METHOD_CHECKED, which, old, password);
}

std::optional<Bytes> PasswordServiceTest::variable(const CHAR16* name, UINT32* attributes) const {
  Bytes data;
  auto& p = const_cast<PasswordServiceTest*>(this)->platform();
  if (p.getVariable(name, gPasswordStoreGuid, &data, attributes) != EFI_SUCCESS) return std::nullopt;
  return data;
}

void PasswordServiceTest::putVariable(const CHAR16* name, const Bytes& data) {
  ASSERT_EQ(platform().setVariable(name, gPasswordStoreGuid, PASSWORD_VARIABLE_ATTRIBUTES, data), EFI_SUCCESS);
}

void PasswordServiceTest::removeVariable(const CHAR16* name) {
  platform().setVariable(name, gPasswordStoreGuid, PASSWORD_VARIABLE_ATTRIBUTES, {});
}

const CHAR16* PasswordServiceTest::recordName(UINT16 which) {
  return which == PASSWORD_WHICH_SYSTEM ? PASSWORD_SYSTEM_VARIABLE : PASSWORD_SETUP_VARIABLE;
}

std::optional<PASSWORD_RECORD> PasswordServiceTest::record(UINT16 which) const {
  std::optional<Bytes> data = variable(recordName(which));
  if (!data || data->size() != sizeof(PASSWORD_RECORD)) return std::nullopt;
  PASSWORD_RECORD r;
  std::memcpy(&r, data->data(), sizeof r);
  return r;
}

void PasswordServiceTest::putRecord(UINT16 which, const PASSWORD_RECORD& record) {
  const auto* bytes = reinterpret_cast<const UINT8*>(&record);
  putVariable(recordName(which), Bytes(bytes, bytes + sizeof record));
}

Bytes PasswordServiceTest::sha256(const Bytes& data) {
  Bytes digest(32);
  function<VOID (*)(const VOID*, UINTN, UINT8*)>(PasswordImage::Newer, "sha256Digest")(data.data(), data.size(),
                                                                                       digest.data());
  return digest;
}

Bytes PasswordServiceTest::pbkdf2(const Bytes& password, const Bytes& salt, UINT32 iterations, size_t size) {
  Bytes out(size);
  function<VOID (*)(const VOID*, UINTN, const VOID*, UINTN, UINT32, UINT8*, UINTN)>(PasswordImage::Newer,
                                                                                     "pbkdf2Sha256")(
      password.data(), password.size(), salt.data(), salt.size(), iterations, out.data(), out.size());
  return out;
}

std::string PasswordServiceTest::hashTextOf(const std::string& password, const std::string& salt) {
  return hexText(sha256(bytesOf(password + salt)));
}

}  // namespace tvl::test
