// `tolvane password`: sets, changes or clears the setup or system password
// of the sample BIOS device the way a configuration job does, through the
// converter's SetBIOSPassword with a pending document of Base64 password
// items; and chooses which password service the sample platform loads.
#include <termios.h>
#include <unistd.h>

#include <iostream>

#include "host/sample/sample_platform.h"
#include "host/sample/sample_state.h"
#include "tools/cli.h"
#include "tools/converter.h"

namespace tvl::cli {
namespace {

using host::sample::PasswordServices;
using host::sample::SamplePlatform;
using host::sample::statusText;

constexpr size_t kMaxPasswordBytes = 32;

// A password held by the command: its characters are overwritten before the
// memory goes back, whatever way the command ends.
class Secret {
 public:
  Secret() = default;
  ~Secret() { wipe(); }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;

  std::string& text() { return text_; }
  void wipe() {
    volatile char* bytes = text_.empty() ? nullptr : &text_[0];
    for (size_t i = 0; i < text_.size(); ++i) bytes[i] = 0;
    text_.clear();
  }

 private:
  std::string text_;
};

// Turns terminal echo off while it lives.
class NoEcho {
 public:
  NoEcho() {
    if (tcgetattr(STDIN_FILENO, &saved_) != 0) return;
    termios quiet = saved_;
    quiet.c_lflag &= ~tcflag_t(ECHO);
    active_ = tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet) == 0;
  }
  ~NoEcho() {
    if (active_) tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_);
  }
  NoEcho(const NoEcho&) = delete;
  NoEcho& operator=(const NoEcho&) = delete;

 private:
  termios saved_{};
  bool active_ = false;
};

// Passwords come from the terminal without echo, or else one per line of
// standard input; never from the command line.
class PasswordReader {
 public:
  PasswordReader() : terminal_(isatty(STDIN_FILENO) == 1) {}

  void read(const std::string& what, Secret& into) {
    std::string& text = into.text();
    bool got;
    if (terminal_) {
      std::cerr << what << ": " << std::flush;
      NoEcho quiet;
      got = static_cast<bool>(std::getline(std::cin, text));
      std::cerr << "\n";
    } else {
      got = static_cast<bool>(std::getline(std::cin, text));
    }
    if (!got) badInput("standard input ended before the " + what);
    if (!text.empty() && text.back() == '\r') text.pop_back();
    if (text.size() > kMaxPasswordBytes)
      badInput("the " + what + " is longer than " + std::to_string(kMaxPasswordBytes) + " bytes");
    if (text.find('\0') != std::string::npos) badInput("the " + what + " holds a zero byte");
  }

  // The new password, typed twice on a terminal.
  void readNew(Secret& into) {
    read("new password", into);
    if (into.text().empty()) badInput("an empty new password: use --clear to clear the password");
    if (!terminal_) return;
    Secret again;
    read("new password again", again);
    if (again.text() != into.text()) badInput("the two new passwords differ");
  }

 private:
  bool terminal_;
};

std::string base64(const std::string& bytes) {
  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    unsigned n = unsigned(UINT8(bytes[i])) << 16;
    if (i + 1 < bytes.size()) n |= unsigned(UINT8(bytes[i + 1])) << 8;
    if (i + 2 < bytes.size()) n |= UINT8(bytes[i + 2]);
    out += kAlphabet[n >> 18 & 63];
    out += kAlphabet[n >> 12 & 63];
    out += i + 1 < bytes.size() ? kAlphabet[n >> 6 & 63] : '=';
    out += i + 2 < bytes.size() ? kAlphabet[n & 63] : '=';
  }
  return out;
}

// One password item of a pending document, applied now (CommitIndex 1).
void appendItem(Secret& document, const std::string& name, Secret& password) {
  Secret encoded;
  encoded.text() = base64(password.text());
  document.text() += "<ConfigItem Type=\"Password\"><Name>" + name +
                     "</Name><CommitIndex>1</CommitIndex><ValueStruct><Value Encoding=\"Base64\">";
  document.text() += encoded.text();
  document.text() += "</Value></ValueStruct></ConfigItem>";
}

// The failure lines SetBIOSPassword traces, kept to explain a refusal.
class RefusalLog {
 public:
  explicit RefusalLog(DEBUG_LOG_PROTOCOL* log) : log_(log) {
    if (!log_) failure("the sample platform has no log service");
    EFI_STATUS status = log_->SetLevelMask(log_, TVL_LEVEL_FAILURE);
    if (status == EFI_SUCCESS) status = log_->RegisterSink(log_, &RefusalLog::sink, this);
    if (status != EFI_SUCCESS) failure("the log service refuses a trace sink: " + statusText(status));
  }
  ~RefusalLog() { log_->UnregisterSink(log_, &RefusalLog::sink, this); }
  RefusalLog(const RefusalLog&) = delete;
  RefusalLog& operator=(const RefusalLog&) = delete;

  // The last failure line of SetBIOSPassword other than its entry and exit.
  const std::string& reason() const { return reason_; }

 private:
  static VOID EFIAPI sink(VOID* context, UINTN, const CHAR8* function, const CHAR16* line) {
    auto* self = static_cast<RefusalLog*>(context);
    if (!function || std::string(function) != "SetBIOSPassword" || !line) return;
    std::string text = utf8(std::u16string(reinterpret_cast<const char16_t*>(line)));
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    const std::string prefix = "Tolvane-SetBiosPassword: ";
    if (text.rfind(prefix, 0) == 0) text.erase(0, prefix.size());
    if (text.rfind("Entering", 0) == 0 || text.rfind("Exiting", 0) == 0) return;
    self->reason_ = text;
  }

  DEBUG_LOG_PROTOCOL* log_;
  std::string reason_;
};

struct ResultRecord {
  std::string name, status, code;
};

std::string childText(const XML_NODE* node, const char* name) {
  for (const XML_NODE* c = node->children; c; c = c->next)
    if (c->name && std::string(c->name) == name) return c->contents ? c->contents : "";
  return {};
}

std::vector<ResultRecord> resultRecords(const XML_NODE* root) {
  std::vector<ResultRecord> out;
  for (const XML_NODE* op = root ? root->children : nullptr; op; op = op->next)
    out.push_back({childText(op, "Name"), childText(op, "Status"), childText(op, "ErrorCode")});
  return out;
}

}  // namespace

std::string errorCodeMessage(host::Platform& platform, EFI_HANDLE driver, const std::string& code) {
  using MessageFn = const CHAR8* (*)(UINT64);
  auto message = reinterpret_cast<MessageFn>(platform.imageSymbol(driver, "errorMessage"));
  if (!message || code.empty()) return {};
  const CHAR8* text = message(std::stoull(code, nullptr, 16));
  return text ? text : "";
}

int runPassword(const std::vector<std::string>& args, std::ostream& out) {
  std::vector<std::string> rest = args;
  std::string which;
  if (!rest.empty() && !rest[0].empty() && rest[0][0] != '-') {
    which = rest[0];
    rest.erase(rest.begin());
  }
  Options options({{"--clear", false}, {"--service", true}}, rest);
  if (!which.empty() && which != "setup" && which != "system")
    badInput("'" + which + "' is neither setup nor system");
  if (which.empty() && !options.has("--service")) badInput("name the password: setup or system (see --help)");
  if (which.empty() && options.has("--clear")) badInput("--clear needs the password to clear: setup or system");

  SamplePlatform sample(poolMode());
  host::sample::PersistentStores stores = loadState(sample);
  if (options.has("--service")) {
    const std::string service = options.value("--service");
    if (service != "new" && service != "legacy") badInput("--service takes new or legacy, not '" + service + "'");
    sample.setPasswordServices(service == "new" ? PasswordServices::Newer : PasswordServices::Legacy);
  }
  if (which.empty()) {
    stores.commit();
    out << "the sample platform loads the " << (options.value("--service") == "new" ? "newer" : "older")
        << " password service\n";
    checkPool(sample.platform());
    return kExitOk;
  }

  PASSWORD_SERVICE_PROTOCOL* newer = sample.password2();
  PASSWORD_SERVICE_PROTOCOL* older = newer ? nullptr : sample.legacyPassword();
  if (!newer && !older) failure("the sample platform loads no password service (choose one with --service)");

  const UINT16 selector = which == "setup" ? PASSWORD_WHICH_SETUP : PASSWORD_WHICH_SYSTEM;
  const std::string item = which == "setup" ? "SetupPassword" : "SysPassword";
  const std::string oldItem = which == "setup" ? "OldSetupPassword" : "OldSysPassword";

  // Only the older service checks the old password, and only when one is
  // installed.
  UINT16 bits = 0;
  if (older) {
    EFI_STATUS status = older->GetProperties(older, selector, &bits, nullptr, nullptr, nullptr, nullptr);
    if (status != EFI_SUCCESS) failure("the password service's GetProperties failed: " + statusText(status));
  }
  PasswordReader reader;
  Secret oldPassword, newPassword;
  if (older && (bits & EFI_VORK_PASSWORD_INSTALLED)) reader.read("old password", oldPassword);
  if (!options.has("--clear")) reader.readNew(newPassword);

  Secret document;
  document.text() = "<ConfigData><ConfigDataEntry FQDD=\"BIOS.Setup.1-1\" Type=\"CurrentValues\"><FormSet><Form>";
  appendItem(document, item, newPassword);
  if (older) appendItem(document, oldItem, oldPassword);
  document.text() += "</Form></FormSet></ConfigDataEntry></ConfigData>";
  oldPassword.wipe();
  newPassword.wipe();

  EFI_HANDLE driver = nullptr;
  TOLVANE_PROTOCOL* converter = loadConverter(sample, &driver);
  XML_PROTOCOL* xml = sample.xml();
  Tree pending(xml), results(xml);
  XML_PARSE_ERROR parseError{};
  EFI_STATUS parsed =
      xml->XML_ParseText(xml, document.text().data(), document.text().size(), &pending.root, &parseError);
  document.wipe();
  if (parsed != EFI_SUCCESS) failure("the pending document cannot be parsed: " + statusText(parsed));

  EFI_STATUS status;
  std::string reason;
  {
    RefusalLog refusals(sample.log());
    status = converter->SetBIOSPassword(converter, pending.root, &results.root);
    reason = refusals.reason();
  }
  std::vector<ResultRecord> records = resultRecords(results.root);
  pending.reset();
  results.reset();
  stores.commit();
  checkPool(sample.platform());

  const ResultRecord* failed = nullptr;
  for (const ResultRecord& r : records) {
    out << r.name << ": " << r.status << (r.code == "0" ? "" : " " + r.code) << "\n";
    if (r.status != "Success" && !failed) failed = &r;
  }
  if (failed) {
    std::string message = errorCodeMessage(sample.platform(), driver, failed->code);
    throw Error(kExitItemsFailed, "the " + which + " password was not " + (options.has("--clear") ? "cleared" : "set") +
                                  ": " + failed->code + (message.empty() ? "" : " " + message));
  }
  if (status != EFI_SUCCESS || records.empty())
    failure("SetBIOSPassword refused the request with " + statusText(status) + (reason.empty() ? "" : ": " + reason));
  out << "the " << which << " password is " << (options.has("--clear") ? "cleared" : "set") << "\n";
  return kExitOk;
}

}  // namespace tvl::cli
