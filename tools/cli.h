// Shared pieces of the tolvane command line: exit codes, errors, option
// parsing and text helpers.
//
// Exit codes: 0 success; 1 the emulated platform or an operation failed;
// 2 the command line or an input file is wrong; 3 (apply, set, password) an
// item or an operation of the converter failed, or the password service
// refused a change.
#pragma once

#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/platform.h"

#include <memory>

namespace tvl::host::sample {
class SamplePlatform;
struct SampleDevice;
class PersistentStores;
}  // namespace tvl::host::sample
namespace tvl::host::offline {
class OfflinePlatform;
}  // namespace tvl::host::offline

namespace tvl::cli {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitBadInput = 2;
// `apply` and `set`: an item failed, or NodeToHii, NodeSaveToHii or
// SetBIOSPassword answered with an error; `password`: a "Failure" record.
constexpr int kExitItemsFailed = 3;

// An error that ends the command with `code`; the message is printed as
// "tolvane <command>: <message>".
class Error : public std::runtime_error {
 public:
  Error(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

[[noreturn]] void badInput(const std::string& message);
[[noreturn]] void failure(const std::string& message);

struct OptionDescription {
  const char* name;  // "--device", "-o"
  bool takesValue;
};

// The options of one command: each at most once, values as the next
// argument or after '='. Anything else is refused with exit code 2.
class Options {
 public:
  Options(const std::vector<OptionDescription>& description, const std::vector<std::string>& args);
  bool has(const std::string& name) const;
  // The value of an option that was given (empty when absent).
  std::string value(const std::string& name) const;

 private:
  std::vector<std::pair<std::string, std::string>> given_;
};

// Takes the operands (the arguments that are neither an option of
// `description` nor an option's value) out of `args`, in order.
std::vector<std::string> takeOperands(const std::vector<OptionDescription>& description,
                                      std::vector<std::string>& args);

// ---- the pool of the platforms the commands build: lean unless the
// global option --checked-pool chose the checked one.
host::PoolMode poolMode();
void setPoolMode(host::PoolMode mode);
// Called by each command when it is done with its platform: with the
// checked pool, memory freed that was not allocated or written past its end
// fails the command (exit 1) with the pool's report.
void checkPool(const host::Platform& platform);

// ---- commands: each returns its exit code; errors are thrown as Error.
int runInfo(const std::vector<std::string>& args, std::ostream& out);
int runDevices(const std::vector<std::string>& args, std::ostream& out);
int runForms(const std::vector<std::string>& args, std::ostream& out);
int runExportHii(const std::vector<std::string>& args, std::ostream& out);
int runExport(const std::vector<std::string>& args, std::ostream& out);
int runReset(const std::vector<std::string>& args, std::ostream& out);
int runPassword(const std::vector<std::string>& args, std::ostream& out);

// The message of a results document's error code (hexadecimal text, as the
// records write it) from the loaded driver's table; empty when unknown.
std::string errorCodeMessage(host::Platform& platform, EFI_HANDLE driver, const std::string& code);
int runApply(const std::vector<std::string>& args, std::ostream& out);
int runSet(const std::vector<std::string>& args, std::ostream& out);
int runDiff(const std::vector<std::string>& args, std::ostream& out);

// ---- state
// The state file that keeps the sample platform's stores between runs:
// the one given with --state (main sets it), else TOLVANE_STATE, else the
// per-user default. Refused (exit code 2) when there is no place for it.
void setStateFile(const std::string& path);
std::string stateFile();
// Gives `sample` the stores of the state file (nothing when there is no
// file yet). A file that cannot be used is refused (exit code 2) with its
// name and the problem; it is never replaced by the defaults silently.
host::sample::PersistentStores loadState(host::sample::SamplePlatform& sample);

// The device named by `fqdd` (exact match), or every device when `fqdd`
// is empty; an unknown name is refused (exit code 2) with the known ones.
std::vector<host::sample::SampleDevice*> selectDevices(host::sample::SamplePlatform& sample, const std::string& fqdd);

// ---- files of exported package lists
// The bytes of `file`; refused (exit code 2) when it cannot be read.
std::vector<UINT8> readFile(const std::string& file);
// The offline platform around the package lists of `file`. A file whose
// framing is broken is refused (exit code 2) with the byte offset of the bad
// record; what the platform accepts with a warning is said on standard
// error.
std::unique_ptr<host::offline::OfflinePlatform> loadOffline(const std::string& file);
// The index of the package list that `number` names (counted from 1 over
// the file, as `forms --hii` numbers them), or of the only one that holds
// forms when `number` is empty. With several and no number, they are listed
// (number, GUID, device path, form sets) in the refusal (exit code 2).
size_t choosePackageList(host::offline::OfflinePlatform& offline, const std::string& file, const std::string& number);
// "package list N (GUID ...) with form set "Title" {GUID}, ...".
std::string describeList(host::offline::OfflinePlatform& offline, size_t index);

// ---- text
std::string utf8(const std::u16string& text);
// The text in double quotes, with '"', '\' and control characters escaped.
std::string quoted(const std::u16string& text);
std::string hex(UINT64 value, int digits = 0);  // "0x..." lower case
std::string guidText(const EFI_GUID& guid);     // registry format, upper case
// "handle N": the handle's position in the platform's handle database.
std::string handleName(host::Platform& platform, EFI_HANDLE handle);

}  // namespace tvl::cli
