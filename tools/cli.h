// Shared pieces of the tolvane command line: exit codes, errors, option
// parsing and text helpers.
//
// Exit codes: 0 success; 1 the emulated platform or an operation failed;
// 2 the command line or an input file is wrong.
#pragma once

#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/platform.h"

namespace tvl::host::sample {
class SamplePlatform;
struct SampleDevice;
}  // namespace tvl::host::sample

namespace tvl::cli {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitBadInput = 2;

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

// The device named by `fqdd` (exact match), or every device when `fqdd`
// is empty; an unknown name is refused (exit code 2) with the known ones.
std::vector<host::sample::SampleDevice*> selectDevices(host::sample::SamplePlatform& sample, const std::string& fqdd);

// ---- text
std::string utf8(const std::u16string& text);
// The text in double quotes, with '"', '\' and control characters escaped.
std::string quoted(const std::u16string& text);
std::string hex(UINT64 value, int digits = 0);  // "0x..." lower case
std::string guidText(const EFI_GUID& guid);     // registry format, upper case
// "handle N": the handle's position in the platform's handle database.
std::string handleName(host::Platform& platform, EFI_HANDLE handle);

}  // namespace tvl::cli
