// tolvane: the command line of the converter driver on the emulated
// platform. Every command builds the built-in sample platform (or, for
// `forms --hii`, a bare one around a file of package lists) afresh.
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "tools/cli.h"

namespace {

using tvl::cli::kExitBadInput;
using tvl::cli::kExitFailure;
using tvl::cli::kExitOk;

struct Command {
  const char* name;
  int (*run)(const std::vector<std::string>&, std::ostream&);
  const char* synopsis;
  const char* help;
};

constexpr Command kCommands[] = {
    {"info", tvl::cli::runInfo, "tolvane info",
     "Builds the sample platform, loads the converter driver and shows what it\n"
     "installed: the protocol GUID and handle, the revision, each of the nine\n"
     "operation slots (implemented or answering EFI_UNSUPPORTED), the services\n"
     "it bound and the entry status. Exit 1 when the driver cannot be loaded.\n"},
    {"devices", tvl::cli::runDevices, "tolvane devices",
     "Lists the sample devices: FQDD, description and device path as the\n"
     "device-location service reports them, and their HII package lists.\n"},
    {"forms", tvl::cli::runForms, "tolvane forms [--device FQDD | --hii FILE]",
     "Shows, as an indented outline, what the forms processor returns for each\n"
     "sample device (or the one named by --device): form sets with their\n"
     "languages, default stores and variable stores, forms, and every statement\n"
     "with its prompt (en-US), keyword text (x-UEFI), current value, options,\n"
     "defaults, limits, storage and state marks.\n"
     "\n"
     "With --hii FILE the package lists come from FILE instead (the bytes\n"
     "ExportPackageLists writes: package lists back to back). They are loaded\n"
     "into a fresh HII database with no configuration access, so current values\n"
     "are those the forms processor reports for storage it cannot read.\n"
     "A malformed FILE is reported with the byte offset of the bad record and\n"
     "exit code 2.\n"},
    {"export-hii", tvl::cli::runExportHii, "tolvane export-hii [--device FQDD] -o FILE",
     "Writes the package lists of the sample devices (or of the one named by\n"
     "--device) to FILE as ExportPackageLists returns them, for `forms --hii`.\n"},
};

void printUsage(std::ostream& out) {
  out << "usage: tolvane [--checked-pool] <command> [options]\n\ncommands:\n";
  for (const Command& c : kCommands) out << "  " << c.synopsis << "\n";
  out << "\n"
         "global options (before the command):\n"
         "  --checked-pool  serve the platform's pool with the checked allocator the tests\n"
         "                  use: a record per allocation, fill patterns and guard bytes.\n"
         "                  Memory freed that was not allocated, or written past its end,\n"
         "                  then fails the command (exit 1) with a report. Slower; the\n"
         "                  default is a lean allocator that keeps counts only.\n"
         "\n`tolvane <command> --help` describes a command.\n"
         "Exit codes: 0 success, 1 the platform or an operation failed, 2 wrong arguments or input.\n";
}

const Command* findCommand(const std::string& name) {
  for (const Command& c : kCommands)
    if (name == c.name) return &c;
  return nullptr;
}

bool wantsHelp(const std::vector<std::string>& args) {
  for (const auto& a : args)
    if (a == "--help" || a == "-h") return true;
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  // Global options come before the command.
  while (!args.empty() && args[0].rfind("--", 0) == 0 && args[0] != "--help") {
    if (args[0] != "--checked-pool") {
      std::cerr << "tolvane: unknown global option '" << args[0] << "'\n\n";
      printUsage(std::cerr);
      return kExitBadInput;
    }
    tvl::cli::setPoolMode(tvl::host::PoolMode::Checked);
    args.erase(args.begin());
  }
  if (args.empty()) {
    printUsage(std::cerr);
    return kExitBadInput;
  }
  if (args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
    const Command* c = args.size() > 1 ? findCommand(args[1]) : nullptr;
    if (c)
      std::cout << "usage: " << c->synopsis << "\n\n" << c->help;
    else
      printUsage(std::cout);
    return kExitOk;
  }
  const Command* command = findCommand(args[0]);
  if (!command) {
    std::cerr << "tolvane: unknown command '" << args[0] << "'\n\n";
    printUsage(std::cerr);
    return kExitBadInput;
  }
  std::vector<std::string> rest(args.begin() + 1, args.end());
  if (wantsHelp(rest)) {
    std::cout << "usage: " << command->synopsis << "\n\n" << command->help;
    return kExitOk;
  }
  try {
    int code = command->run(rest, std::cout);
    std::cout.flush();
    return code;
  } catch (const tvl::cli::Error& e) {
    std::cout.flush();
    std::cerr << "tolvane " << command->name << ": " << e.what() << "\n";
    return e.code();
  } catch (const std::exception& e) {
    std::cout.flush();
    std::cerr << "tolvane " << command->name << ": " << e.what() << "\n";
    return kExitFailure;
  }
}
