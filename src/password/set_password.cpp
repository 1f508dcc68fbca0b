#include "password/password.h"

#include "driver/trace.h"
#include "import/import.h"
#include "password/base64.h"
#include "password/secret.h"
#include "util/text.h"
#include "xml/node.h"

using tvl::trace;
using tvl::password::SecretPool;

namespace {

constexpr CHAR8 kFunction[] = "SetBIOSPassword";
constexpr CHAR8 kEntryFunction[] = "tvlSetBIOSPassword";

constexpr UINTN kMaxDecodedPassword = 32;  // bytes, and UCS-2 characters once widened
constexpr UINTN kMaxHashText = 64;
constexpr UINTN kMaxSaltText = 32;

constexpr UINT64 kErrorOldPasswordWrong = 0x603;
constexpr UINT64 kErrorPasswordNotSet = 0x605;

// The old password with none installed, the old password the newer service
// takes (it asks for none), a clear, and the hash text of a clear.
constexpr CHAR16 kEmptyPassword[] = u"";
constexpr CHAR8 kEmptyHash[] = "";

// What a form made of the request: a refusal before the service was asked
// to change anything (nothing to record), or ChangePassword's status.
struct Outcome {
  EFI_STATUS status;
  bool attempted;
};
Outcome refused(EFI_STATUS status) { return {status, false}; }
Outcome attempted(EFI_STATUS status) { return {status, true}; }

bool olderServiceBound() { return !gPassword2Protocol && gLegacyPasswordProtocol; }

PASSWORD_SERVICE_PROTOCOL* boundService() {
  return gPassword2Protocol ? gPassword2Protocol : gLegacyPasswordProtocol;
}

bool equal(const CHAR8* a, const CHAR8* b) { return a && b && tvl::rt::equal(a, b); }

bool hasContents(const XML_NODE* value) { return value->contents && value->contents[0]; }

// The password item named `name` (the ConfigItem whose first child holds the
// name) and the first Value found from it.
EFI_STATUS findValue(XML_NODE* root, const CHAR8* name, XML_NODE** value) {
  XML_NODE* item = nullptr;
  if (EFI_ERROR(findNodeByChildContents(name, "ConfigItem", root, &item))) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane-SetBiosPassword: Invalid XML; Missing %a %r\n", name,
          EFI_INVALID_PARAMETER);
    return EFI_INVALID_PARAMETER;
  }
  if (EFI_ERROR(findNodeByName("Value", item, value))) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane-SetBiosPassword: Invalid XML; Missing Value %r\n",
          EFI_INVALID_PARAMETER);
    return EFI_INVALID_PARAMETER;
  }
  return EFI_SUCCESS;
}

// GetProperties of `which`, traced; the password's status bits in
// `*passwordStatus`. A disabled password is refused here.
EFI_STATUS readProperties(PASSWORD_SERVICE_PROTOCOL* service, UINT16 which, UINT16* passwordStatus) {
  UINT16 status = 0;
  UINT8 type = 0;
  UINT16 minimum = 0, maximum = 0;  // not read
  UINT64 attributes = 0;            // not read
  EFI_STATUS result = service->GetProperties(service, which, &status, &type, &minimum, &maximum, &attributes);
  if (EFI_ERROR(result)) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane-SetBiosPassword: GetProperties %r\n", result);
    return result;
  }
  const UINT32 disabled = status & EFI_VORK_PASSWORD_DISABLED;
  trace(TVL_LEVEL_PROGRESS, kFunction, u"PasswordStatus: %x %x %x %x\n", UINT32(status), UINT32(status != 0), disabled,
        UINT32(disabled != 0));
  trace(TVL_LEVEL_PROGRESS, kFunction, u"PasswordType  : %x\n", UINT32(type));
  if (disabled) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane-SetBiosPassword: EFI_VORK_PASSWORD_DISABLED %r\n",
          EFI_DEVICE_ERROR);
    return EFI_DEVICE_ERROR;
  }
  *passwordStatus = status;
  return EFI_SUCCESS;
}

// Base64 contents to the UCS-2 text the service takes: the decoded bytes up
// to the first zero byte, each widened to one character. The decoded size
// is counted before anything is written, so the 33-byte buffer (32 bytes
// and the terminator its zero fill gives) never overflows; over 32 bytes
// sets `*tooLarge` and gives EFI_INVALID_PARAMETER. Both buffers are wiped
// when they go back to the pool.
EFI_STATUS toServiceForm(const CHAR8* base64, SecretPool<CHAR16>& password, bool* tooLarge) {
  *tooLarge = base64DecodedLength(base64) > kMaxDecodedPassword;
  if (*tooLarge) return EFI_INVALID_PARAMETER;
  SecretPool<UINT8> decoded = SecretPool<UINT8>::zeroed(kMaxDecodedPassword + 1);
  if (!decoded) return EFI_OUT_OF_RESOURCES;
  UINTN written = 0;
  base64Decode(base64, decoded.get(), &written);
  UINTN length = 0;
  while (decoded[length]) ++length;
  SecretPool<CHAR16> widened = SecretPool<CHAR16>::zeroed(kMaxDecodedPassword + 1);
  if (!widened) return EFI_OUT_OF_RESOURCES;
  formatUnicodeN(widened.get(), length + 1, u"%a", reinterpret_cast<const CHAR8*>(decoded.get()));
  password = static_cast<SecretPool<CHAR16>&&>(widened);
  return EFI_SUCCESS;
}

// toServiceForm with the refusals traced; `sizeTrace` names the password
// whose size was over the limit.
EFI_STATUS convert(const XML_NODE* value, SecretPool<CHAR16>& password, const CHAR16* sizeTrace) {
  bool tooLarge = false;
  EFI_STATUS status = toServiceForm(value->contents, password, &tooLarge);
  if (tooLarge)
    trace(TVL_LEVEL_FAILURE, kFunction, sizeTrace, status);
  else if (EFI_ERROR(status))
    trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane-SetBiosPassword: Out of resources for the password %r\n", status);
  return status;
}

// Type 1 or 2: a Base64 password, through method 3 of the older service
// (with the old password, both lower-cased) or method 2 of the newer one.
Outcome plainForm(const CHAR8* name, const CHAR8* secondName, XML_NODE* root) {
  UINT16 which;
  if (equal(name, "SysPassword")) {
    which = PASSWORD_WHICH_SYSTEM;
  } else if (equal(name, "SetupPassword")) {
    which = PASSWORD_WHICH_SETUP;
  } else {
    trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane-SetBiosPassword: Invalid TYPE %r\n", EFI_INVALID_PARAMETER);
    return refused(EFI_INVALID_PARAMETER);
  }
  PASSWORD_SERVICE_PROTOCOL* service = boundService();
  const bool older = olderServiceBound();
  UINT16 passwordStatus = 0;
  EFI_STATUS status = readProperties(service, which, &passwordStatus);
  if (EFI_ERROR(status)) return refused(status);
  const bool installed = (passwordStatus & EFI_VORK_PASSWORD_INSTALLED) != 0;

  XML_NODE* newValue = nullptr;
  status = findValue(root, name, &newValue);
  if (EFI_ERROR(status)) return refused(status);

  // Only the older service checks the old password. Its item must be there
  // even when no password is installed; its contents are then not read.
  SecretPool<CHAR16> oldPassword;
  if (older) {
    XML_NODE* oldValue = nullptr;
    status = findValue(root, secondName, &oldValue);
    if (EFI_ERROR(status)) return refused(status);
    if (installed) {
      if (!hasContents(oldValue)) {
        trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane-SetBiosPassword: Password is INSTALLED, but NULL was provided %r\n",
              EFI_INVALID_PARAMETER);
        return refused(EFI_INVALID_PARAMETER);
      }
      if (!hasBase64Encoding(oldValue)) {
        trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane-SetBiosPassword: Missing Encoding=\"Base64\" %r\n",
              EFI_INVALID_PARAMETER);
        return refused(EFI_INVALID_PARAMETER);
      }
      status = convert(oldValue, oldPassword, u"Tolvane-SetBiosPassword: OldDecodedPasswordSize is too large %r\n");
      if (EFI_ERROR(status)) return refused(status);
      toLowerUnicode(oldPassword.get());
    } else {
      trace(TVL_LEVEL_PROGRESS, kFunction, u"Tolvane-SetBiosPassword: Attempting to set new password\n");
    }
  }

  SecretPool<CHAR16> newPassword;
  if (hasContents(newValue)) {
    if (!hasBase64Encoding(newValue)) {
      trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane-SetBiosPassword: Missing Encoding for new password =\"Base64\" %r\n",
            EFI_INVALID_PARAMETER);
      return refused(EFI_INVALID_PARAMETER);
    }
    status = convert(newValue, newPassword, u"Tolvane-SetBiosPassword: NewDecodedPasswordSize is too large %r\n");
    if (EFI_ERROR(status)) return refused(status);
    if (older) toLowerUnicode(newPassword.get());
  } else if (!installed) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane-SetBiosPassword: Attempted to clear password, while none is set %r\n",
          EFI_INVALID_PARAMETER);
    return refused(EFI_INVALID_PARAMETER);
  } else {
    trace(TVL_LEVEL_PROGRESS, kFunction, u"Tolvane-SetBiosPassword: Attempting to clear existing password\n");
  }

  const CHAR16* oldText = oldPassword ? oldPassword.get() : kEmptyPassword;
  const CHAR16* newText = newPassword ? newPassword.get() : kEmptyPassword;
  if (older && tvl::rt::equal(oldText, newText)) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane-SetBiosPassword: PASSWORDS MATCH; SKIP SET %r\n", EFI_DEVICE_ERROR);
    return refused(EFI_DEVICE_ERROR);
  }
  // Method 3 takes (old, new); method 2 (old, new, salt), of which the
  // newer service reads neither the old password nor the salt.
  status = older ? service->ChangePassword(service, PASSWORD_METHOD_CHECKED, which, oldText, newText)
                 : service->ChangePassword(service, PASSWORD_METHOD_PLAIN, which, kEmptyPassword, newText,
                                           static_cast<const CHAR8*>(nullptr));
  // The outcome of the plain change is a line of the failure level, as the
  // entry and exit are; the hash form's is progress.
  trace(TVL_LEVEL_FAILURE, kFunction,
        which == PASSWORD_WHICH_SYSTEM ? u"Tolvane-SetBiosPassword: ChangePassword (Sys) %r\n"
                                       : u"Tolvane-SetBiosPassword: ChangePassword (Setup) %r\n",
        status);
  return attempted(status);
}

// Type 3 or 4: a SHA-256 hash text and salt text for method 1 of the newer
// service, passed on as they are: nothing is decoded or lower-cased, and
// neither the installed bit nor the Encoding attribute is looked at.
Outcome hashForm(const CHAR8* name, const CHAR8* secondName, XML_NODE* root) {
  // Only the newer service takes a hash. With the older one bound the
  // request is refused before any call, as a missing service is refused at
  // the start: EFI_INVALID_PARAMETER, no record (nothing was attempted).
  PASSWORD_SERVICE_PROTOCOL* service = gPassword2Protocol;
  if (!service) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane: Invalid starting parameter: %r\n", EFI_INVALID_PARAMETER);
    return refused(EFI_INVALID_PARAMETER);
  }
  UINT16 which;
  if (equal(name, "SHA256SystemPassword")) {
    which = PASSWORD_WHICH_SYSTEM;
  } else if (equal(name, "SHA256SetupPassword")) {
    which = PASSWORD_WHICH_SETUP;
  } else {
    trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane-SetBiosPassword: Invalid TYPE %r\n", EFI_INVALID_PARAMETER);
    return refused(EFI_INVALID_PARAMETER);
  }
  UINT16 passwordStatus = 0;
  EFI_STATUS status = readProperties(service, which, &passwordStatus);
  if (EFI_ERROR(status)) return refused(status);

  XML_NODE* hashValue = nullptr;
  status = findValue(root, name, &hashValue);
  if (EFI_ERROR(status)) return refused(status);
  const CHAR8* hash = hashValue->contents ? hashValue->contents : kEmptyHash;
  if (tvl::rt::length(hash) > kMaxHashText) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane-SetBiosPassword: NewDecodedPasswordSize is too large %r\n",
          EFI_INVALID_PARAMETER);
    return refused(EFI_INVALID_PARAMETER);
  }
  XML_NODE* saltValue = nullptr;
  status = findValue(root, secondName, &saltValue);
  if (EFI_ERROR(status)) return refused(status);
  if (tvl::rt::length(saltValue->contents) > kMaxSaltText) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane-SetBiosPassword: Salt is too large %r\n", EFI_INVALID_PARAMETER);
    return refused(EFI_INVALID_PARAMETER);
  }

  if (!hash[0]) {
    trace(TVL_LEVEL_PROGRESS, kFunction,
          which == PASSWORD_WHICH_SYSTEM ? u"Tolvane-SetBiosPassword: clearing the current system password \n"
                                         : u"Tolvane-SetBiosPassword: clearing the current setup password \n");
    status = service->ChangePassword(service, PASSWORD_METHOD_SHA256, which, kEmptyPassword, kEmptyHash,
                                     static_cast<const CHAR8*>(nullptr));
  } else {
    const CHAR8* salt = hasContents(saltValue) ? saltValue->contents : nullptr;
    trace(TVL_LEVEL_PROGRESS, kFunction, u"Tolvane-SetBiosPassword: SHA256 hash %a\n", hash);
    trace(TVL_LEVEL_PROGRESS, kFunction, u"Tolvane-SetBiosPassword: SHA256 salt %a\n", salt ? salt : kEmptyHash);
    status = service->ChangePassword(service, PASSWORD_METHOD_SHA256, which, kEmptyPassword, hash, salt);
  }
  trace(TVL_LEVEL_PROGRESS, kFunction,
        which == PASSWORD_WHICH_SYSTEM ? u"Tolvane-SetBiosPassword: ChangePassword SHA (Sys) %r\n"
                                       : u"Tolvane-SetBiosPassword: ChangePassword SHA (Setup) %r\n",
        status);
  return attempted(status);
}

// Adds one record without values. A record that cannot be written changes
// neither the outcome nor the status (the import treats its records alike).
void addRecord(const CHAR8* name, const CHAR8* statusWord, UINT64 code, XML_NODE** root) {
  addStatusNode(name, nullptr, nullptr, statusWord, code, root);
}

// The records of an attempted change, stored back into `*results`.
EFI_STATUS recordOutcome(const CHAR8* name, const CHAR8* secondName, EFI_STATUS status, XML_NODE** results) {
  XML_NODE* root = *results;
  if (status == EFI_ACCESS_DENIED) {
    trace(TVL_LEVEL_FAILURE, kFunction,
          u"Tolvane-SetBiosPassword: Old password was incorrect; Password was not set %r\n", status);
    addRecord(name, "Failure", kErrorOldPasswordWrong, &root);
  } else if (EFI_ERROR(status)) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane-SetBiosPassword: Generic failure %r\n", status);
    addRecord(name, "Failure", kErrorPasswordNotSet, &root);
    if (secondName) addRecord(secondName, "Failure", kErrorPasswordNotSet, &root);
  } else {
    addRecord(name, "Success", 0, &root);
    if (secondName) addRecord(secondName, "Success", 0, &root);
  }
  *results = root;
  trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane-SetBiosPassword: Exiting with %r\n", status);
  return status;
}

// The item has a pending change, whose mark is now consumed.
bool takePending(XML_NODE* root, const CHAR8* name) { return !EFI_ERROR(CheckAndClearCommitIndex(root, name)); }

// The statuses of the attempts combined by four rules written for a pair.
// Only the second is ever fed: it holds the last attempt's status, the
// first stays EFI_SUCCESS. So the last attempt decides.
EFI_STATUS combineStatuses(EFI_STATUS first, EFI_STATUS second) {
  if ((first == EFI_WRITE_PROTECTED || second == EFI_WRITE_PROTECTED) &&
      (first == EFI_SUCCESS || second == EFI_SUCCESS)) {
    trace(TVL_LEVEL_FAILURE, kEntryFunction, u"Tolvane-tvlSetBIOSPassword: ONE PASSWORD SET == SUCCESS\n");
    return EFI_SUCCESS;
  }
  if (EFI_ERROR(first) && EFI_ERROR(second)) {
    trace(TVL_LEVEL_FAILURE, kEntryFunction, u"Tolvane: Both errored!: %r\n", second);
    return EFI_DEVICE_ERROR;
  }
  if (EFI_ERROR(first) || EFI_ERROR(second)) {
    trace(TVL_LEVEL_FAILURE, kEntryFunction, u"Tolvane: One errored!: %r\n", EFI_ERROR(second) ? second : first);
    return EFI_ABORTED;
  }
  trace(TVL_LEVEL_FAILURE, kEntryFunction, u"Tolvane-tvlSetBIOSPassword: Exiting with SUCCESS\n");
  return EFI_SUCCESS;
}

}  // namespace

extern "C" {

EFI_STATUS SetBIOSPassword(const CHAR8* Name, const CHAR8* SecondName, XML_NODE* Root, UINT8 Type,
                           XML_NODE** Results) {
  trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane-SetBiosPassword: Entering ...\n");
  if (!boundService() || !Root || !Name || !Results) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane: Invalid starting parameter: %r\n", EFI_INVALID_PARAMETER);
    return EFI_INVALID_PARAMETER;
  }
  if (olderServiceBound() && !SecondName) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"Tolvane: Invalid starting parameter OldPassswordName: %r\n",
          EFI_INVALID_PARAMETER);
    return EFI_INVALID_PARAMETER;
  }
  Outcome outcome = attempted(EFI_DEVICE_ERROR);  // an unknown type code is recorded as a failed change
  if (Type == TVL_PASSWORD_TYPE_SYSTEM || Type == TVL_PASSWORD_TYPE_SETUP)
    outcome = plainForm(Name, SecondName, Root);
  else if (Type == TVL_PASSWORD_TYPE_SHA256_SETUP || Type == TVL_PASSWORD_TYPE_SHA256_SYSTEM)
    outcome = hashForm(Name, SecondName, Root);
  if (!outcome.attempted) return outcome.status;
  return recordOutcome(Name, SecondName, outcome.status, Results);
}

EFI_STATUS EFIAPI tvlSetBIOSPassword(TOLVANE_PROTOCOL* This, XML_NODE* Root, XML_NODE** Results) {
  trace(TVL_LEVEL_FAILURE, kEntryFunction, u"Tolvane-tvlSetBIOSPassword: Entering...\n");
  if (!Root || !This || !Results || !boundService()) {
    trace(TVL_LEVEL_FAILURE, kEntryFunction, u"Tolvane: Invalid parameter: %r\n", EFI_INVALID_PARAMETER);
    return EFI_INVALID_PARAMETER;
  }
  XML_NODE* results = *Results;
  const EFI_STATUS first = EFI_SUCCESS;
  EFI_STATUS second = EFI_SUCCESS;
  if (takePending(Root, "SetupPassword")) {
    second = SetBIOSPassword("SetupPassword", "OldSetupPassword", Root, TVL_PASSWORD_TYPE_SETUP, &results);
    trace(TVL_LEVEL_PROGRESS, kEntryFunction, u"Tolvane: SetBIOSPassword(Setup): %r\n", second);
  }
  if (takePending(Root, "SysPassword")) {
    second = SetBIOSPassword("SysPassword", "OldSysPassword", Root, TVL_PASSWORD_TYPE_SYSTEM, &results);
    trace(TVL_LEVEL_PROGRESS, kEntryFunction, u"Tolvane: SetBIOSPassword(Sys): %r\n", second);
  }
  // A salt's mark is consumed only together with its hash's.
  if (takePending(Root, "SHA256SetupPassword")) {
    second = SetBIOSPassword("SHA256SetupPassword", "SHA256SetupPasswordSalt", Root, TVL_PASSWORD_TYPE_SHA256_SETUP,
                             &results);
    trace(TVL_LEVEL_PROGRESS, kEntryFunction, u"Tolvane: SetBIOSPassword(SHA Setup): %r\n", second);
    if (!takePending(Root, "SHA256SetupPasswordSalt"))
      trace(TVL_LEVEL_PROGRESS, kEntryFunction, u"Tolvane: CheckAndClearCommitIndex failed\n");
  }
  if (takePending(Root, "SHA256SystemPassword")) {
    second = SetBIOSPassword("SHA256SystemPassword", "SHA256SystemPasswordSalt", Root,
                             TVL_PASSWORD_TYPE_SHA256_SYSTEM, &results);
    takePending(Root, "SHA256SystemPasswordSalt");
    trace(TVL_LEVEL_PROGRESS, kEntryFunction, u"Tolvane: SetBIOSPassword(SHA System ): %r\n", second);
  }
  *Results = results;
  return combineStatuses(first, second);
}

}  // extern "C"
