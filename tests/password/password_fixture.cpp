#include "password_fixture.h"

#include <cstdio>

#include "services/password/service.h"
#include "uefi/varargs.h"

namespace tvl::test {
namespace {

using tvl::rt::vaArg;
using tvl::rt::VaList;

FakePasswordService* fakeOf(PASSWORD_SERVICE_PROTOCOL* This) { return reinterpret_cast<FakePasswordService*>(This); }

// "a:TEXT" for 8-bit texts, "u:TEXT" for UCS-2 ones; "null" for none.
template <typename Char>
std::string show(const Char* text) {
  if (!text) return "null";
  const bool wide = sizeof(Char) > 1;
  std::string out = wide ? "u:" : "a:";
  for (; *text; ++text) {
    const unsigned c = wide ? unsigned(*text) : unsigned(static_cast<unsigned char>(*text));
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, wide ? "\\u%04x" : "\\x%02x", c);
    out += c >= 0x20 && c < 0x7f ? std::string(1, char(c)) : std::string(escaped);
  }
  return out;
}

EFI_STATUS EFIAPI fakeGetProperties(PASSWORD_SERVICE_PROTOCOL* This, UINT16 Which, UINT16* PasswordStatus,
                                    UINT8* PasswordType, UINT16* MinLength, UINT16* MaxLength, UINT64* Attributes) {
  FakePasswordService* fake = fakeOf(This);
  fake->calls.push_back("props " + std::to_string(Which));
  if (Which < 1 || Which > 2 || !PasswordStatus || !PasswordType || !MinLength || !MaxLength || !Attributes)
    return EFI_INVALID_PARAMETER;
  if (EFI_ERROR(fake->propertiesStatus)) return fake->propertiesStatus;
  *PasswordStatus = fake->bits[Which];
  *PasswordType = fake->bits[Which] & EFI_VORK_PASSWORD_INSTALLED ? PASSWORD_TYPE_PLAIN : PASSWORD_TYPE_NONE;
  return EFI_SUCCESS;
}

TVL_VARIADIC_AFTER_NARROW_BEGIN
EFI_STATUS EFIAPI fakeChangePassword(PASSWORD_SERVICE_PROTOCOL* This, UINT16 Method, UINT16 Which, ...) {
  FakePasswordService* fake = fakeOf(This);
  VaList args;
  __builtin_ms_va_start(args, Which);
  std::string call = std::to_string(Method) + "/" + std::to_string(Which) + " old=";
  const CHAR16* old = vaArg<const CHAR16*>(args);
  call += old ? show(old).substr(2) : "null";
  if (Method == PASSWORD_METHOD_SHA256) {
    call += " hash=" + show(vaArg<const CHAR8*>(args));
    call += " salt=" + show(vaArg<const CHAR8*>(args));
  } else {
    call += " new=" + show(vaArg<const CHAR16*>(args));
  }
  __builtin_ms_va_end(args);
  fake->calls.push_back(call);
  return Which >= 1 && Which <= 2 ? fake->changeStatus[Which] : EFI_INVALID_PARAMETER;
}
TVL_VARIADIC_AFTER_NARROW_END

std::string xmlEscaped(const std::string& text) {
  std::string out;
  for (char c : text) out += c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : std::string(1, c);
  return out;
}

}  // namespace

FakePasswordService::FakePasswordService() : protocol{nullptr, fakeGetProperties, nullptr, fakeChangePassword} {}

std::vector<std::string> FakePasswordService::changes() const {
  std::vector<std::string> out;
  for (const std::string& c : calls)
    if (c.rfind("props", 0) != 0) out.push_back(c);
  return out;
}

std::string base64(const std::string& bytes) {
  static const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    unsigned n = unsigned(UINT8(bytes[i])) << 16;
    if (i + 1 < bytes.size()) n |= unsigned(UINT8(bytes[i + 1])) << 8;
    if (i + 2 < bytes.size()) n |= UINT8(bytes[i + 2]);
    out += alphabet[n >> 18 & 63];
    out += alphabet[n >> 12 & 63];
    out += i + 1 < bytes.size() ? alphabet[n >> 6 & 63] : '=';
    out += i + 2 < bytes.size() ? alphabet[n & 63] : '=';
  }
  return out;
}

std::string document(const std::vector<Item>& items) {
  std::string xml = "<ConfigData><ConfigDataEntry FQDD=\"BIOS.Setup.1-1\" Type=\"CurrentValues\"><FormSet><Form>";
  for (const Item& item : items) {
    xml += "<ConfigItem Type=\"Password\"><Name>" + item.name + "</Name>";
    if (item.index) xml += item.index[0] ? "<CommitIndex>" + std::string(item.index) + "</CommitIndex>" : "<CommitIndex/>";
    if (item.value)
      xml += std::string("<ValueStruct><Value") + (item.base64 ? " Encoding=\"Base64\"" : "") + ">" +
             xmlEscaped(*item.value) + "</Value></ValueStruct>";
    xml += "</ConfigItem>";
  }
  return xml + "</Form></FormSet></ConfigDataEntry></ConfigData>";
}

std::vector<std::string> records(const XML_NODE* results) {
  std::vector<std::string> out;
  for (const XML_NODE* op = results ? results->children : nullptr; op; op = op->next)
    out.push_back(text(child(op, "Name")) + ":" + text(child(op, "Status")) + ":" + text(child(op, "ErrorCode")));
  return out;
}

void PasswordTest::start(Service service) {
  const EFI_GUID newer = PASSWORD2_PROTOCOL_GUID, older = LEGACY_PASSWORD_PROTOCOL_GUID;
  switch (service) {
    case Service::FakeNewer:
    case Service::FakeOlder: {
      fake_ = std::make_unique<FakePasswordService>();
      EFI_HANDLE handle = nullptr;
      ASSERT_EQ(platform().installProtocol(&handle, service == Service::FakeNewer ? newer : older, &fake_->protocol),
                EFI_SUCCESS);
      break;
    }
    case Service::Newer:
      load("password2_service");
      break;
    case Service::Older:
      load("legacy_password_service");
      break;
    case Service::None:
      break;
  }
  ASSERT_EQ(loadDriver(), EFI_SUCCESS) << log().dump();
}

void PasswordTest::markDisabled(UINT8 whichBits) {
  const EFI_GUID store = PASSWORD_STORE_GUID;
  ASSERT_EQ(rt()->SetVariable(PASSWORD_DISABLED_VARIABLE, &store,
                              PASSWORD_VARIABLE_ATTRIBUTES, 1, &whichBits),
            EFI_SUCCESS);
}

EFI_STATUS PasswordTest::apply(XML_NODE* root, XML_NODE** results) {
  TOLVANE_PROTOCOL* self = converter();
  return self->SetBIOSPassword(self, root, results);
}

std::string PasswordTest::commitIndex(XML_NODE* root, const std::string& name) {
  const XML_NODE* found = item(root, name);
  if (!found) return "(no item)";
  const XML_NODE* index = child(found, "CommitIndex");
  return !index ? "(missing)" : index->contents ? index->contents : "(none)";
}

}  // namespace tvl::test
