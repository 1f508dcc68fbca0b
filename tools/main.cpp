// tolvane: the command line of the converter driver on the emulated
// platform. Every command builds the built-in sample platform (or, for
// `forms --hii`, a bare one around a file of package lists) afresh and
// gives its devices the stores kept in the state file.
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
     "are those the forms processor reports for storage it cannot read. A list\n"
     "whose forms cannot be read as a whole is read as an export reads a storage\n"
     "device: the storage controller's form set alone.\n"
     "A malformed FILE is reported with the byte offset of the bad record and\n"
     "exit code 2.\n"},
    {"export", tvl::cli::runExport,
     "tolvane export [--device FQDD] [--possible | --current] [-o FILE] [--trace LEVELS]",
     "Loads the converter driver, has its HiiToNode export the device named by\n"
     "--device (needed when the platform has more than one device) and writes\n"
     "the combined document: one ConfigData holding the possible-values entry,\n"
     "then the current-values entry, as NodesToCombinedXMLChar serialises them.\n"
     "With --possible or --current only that document is written, serialised\n"
     "by the XML service. The XML goes to standard output, or to FILE with -o\n"
     "(--output). docs/documents.md describes the documents and\n"
     "docs/HiiConfigurationDataSchema.xsd is their schema.\n"
     "\n"
     "--trace LEVELS sends the driver's traces to standard error as\n"
     "\"function: text\" lines. LEVELS is a hexadecimal mask (0x80800000) or\n"
     "names separated by commas: failure (0x80000000), progress (0x800000),\n"
     "finding (0x80), toolbox (0x8), all.\n"
     "\n"
     "Exit 1 when an operation fails (named with its status, e.g.\n"
     "\"HiiToNode failed: EFI_NOT_FOUND\"), 2 for wrong arguments or an unknown\n"
     "device.\n"},
    {"export-hii", tvl::cli::runExportHii, "tolvane export-hii [--device FQDD] -o FILE",
     "Writes the package lists of the sample devices (or of the one named by\n"
     "--device) to FILE as ExportPackageLists returns them, for `forms --hii`.\n"},
    {"reset", tvl::cli::runReset, "tolvane reset",
     "Restores the defaults: writes the stores of a freshly built sample\n"
     "platform to the state file, whatever it held before (also when it\n"
     "cannot be read).\n"},
};

constexpr const char* kStateHelp =
    "The sample devices' stores persist between runs in a state file: the one\n"
    "given with --state FILE (before or after the command), else $TOLVANE_STATE,\n"
    "else $XDG_STATE_HOME/tolvane/platform.state, else\n"
    "~/.local/state/tolvane/platform.state. A state file that cannot be read is\n"
    "refused (exit code 2) until `tolvane reset` replaces it.\n";

void printUsage(std::ostream& out) {
  out << "usage: tolvane [--state FILE] <command> [options]\n\ncommands:\n";
  for (const Command& c : kCommands) out << "  " << c.synopsis << "\n";
  out << "\n`tolvane <command> --help` describes a command.\n"
         "Exit codes: 0 success, 1 the platform or an operation failed, 2 wrong arguments or input.\n\n"
      << kStateHelp;
}

// Takes the global --state option out of the arguments, wherever it stands.
bool takeStateOption(std::vector<std::string>& args) {
  std::string file;
  bool given = false;
  for (size_t i = 0; i < args.size();) {
    std::string value;
    if (args[i] == "--state") {
      if (i + 1 >= args.size()) throw tvl::cli::Error(kExitBadInput, "option --state needs a value");
      value = args[i + 1];
      args.erase(args.begin() + long(i), args.begin() + long(i) + 2);
    } else if (args[i].rfind("--state=", 0) == 0) {
      value = args[i].substr(8);
      args.erase(args.begin() + long(i));
    } else {
      ++i;
      continue;
    }
    if (given) throw tvl::cli::Error(kExitBadInput, "option --state given twice");
    if (value.empty()) throw tvl::cli::Error(kExitBadInput, "option --state needs a non-empty value");
    given = true;
    file = value;
  }
  if (given) tvl::cli::setStateFile(file);
  return given;
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
  try {
    takeStateOption(args);
  } catch (const tvl::cli::Error& e) {
    std::cerr << "tolvane: " << e.what() << "\n";
    return e.code();
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
