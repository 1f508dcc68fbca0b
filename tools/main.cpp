// tolvane: the command line of the converter driver on the emulated
// platform. Every command builds the built-in sample platform afresh and
// gives its devices the stores kept in the state file; `forms --hii` and
// `export --hii` build the offline platform around a file of package lists
// instead.
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
     "ExportPackageLists writes: package lists back to back), loaded into the\n"
     "offline platform that `export --hii` uses: each list under a driver handle\n"
     "of its own, its stores starting from the standard defaults of its forms.\n"
     "A list whose forms cannot be read as a whole is read as an export reads a\n"
     "storage device: the storage controller's form set alone.\n"
     "A malformed FILE is reported with the byte offset of the bad record and\n"
     "exit code 2.\n"},
    {"export", tvl::cli::runExport,
     "tolvane export [--device FQDD] [--possible | --current] [-o FILE | -o DIR] [--trace LEVELS]\n"
     "       tolvane export --hii FILE --fqdd TEXT [--package-list N] [--config FILE]\n"
     "                      [--possible | --current] [-o FILE] [--trace LEVELS]",
     "Loads the converter driver, has its HiiToNode export the device named by\n"
     "--device and writes the combined document: one ConfigData holding the\n"
     "possible-values entry, then the current-values entry, as\n"
     "NodesToCombinedXMLChar serialises them. With --possible or --current only\n"
     "that document is written, serialised by the XML service. The XML goes to\n"
     "standard output, or to FILE with -o (--output). docs/documents.md\n"
     "describes the documents and docs/HiiConfigurationDataSchema.xsd is their\n"
     "schema.\n"
     "\n"
     "Without --device every device is exported, one document each into the\n"
     "directory DIR given with -o (made when missing). Each file is named after\n"
     "the device's FQDD with every character other than letters, digits, '.',\n"
     "'-' and '_' replaced by '_', and \".xml\" appended\n"
     "(Disk.Bay.0:Enclosure.Internal.0-1:RAID.Integrated.1-1 becomes\n"
     "Disk.Bay.0_Enclosure.Internal.0-1_RAID.Integrated.1-1.xml). A device that\n"
     "fails is named on standard error, the others are still written, and the\n"
     "exit code is 1.\n"
     "\n"
     "--hii FILE exports instead a package list of a file of exported package\n"
     "lists (what ExportPackageLists returned on a real machine; `export-hii`\n"
     "writes one) as one device with the FQDD TEXT, without that machine: the\n"
     "lists are loaded into an offline platform with the same services and\n"
     "driver, each list under a driver handle of its own with its device path\n"
     "(or a vendor path made for it). When several lists hold forms,\n"
     "--package-list N picks the N-th list of the file (counted from 1, as\n"
     "`forms --hii` numbers them); without it they are listed and the exit code\n"
     "is 2. The device's stores start from the standard defaults of its forms\n"
     "(DEFAULT opcodes of default store 0, constant or computed, else the option\n"
     "and checkbox default flags). --config FILE gives current values: lines of\n"
     "UEFI configuration strings as ExtractConfig answers them\n"
     "(GUID=..&NAME=..&PATH=..&OFFSET=..&WIDTH=..&VALUE=..), matched to the\n"
     "stores by GUID and NAME and written over the defaults; ALTCFG sections are\n"
     "skipped, blank lines and lines starting with '#' too. A malformed line, or\n"
     "one that names no store of the forms, is refused with its line number\n"
     "(exit code 2).\n"
     "\n"
     "--trace LEVELS sends the driver's traces to standard error as\n"
     "\"function: text\" lines. LEVELS is a hexadecimal mask (0x80800000) or\n"
     "names separated by commas: failure (0x80000000), progress (0x800000),\n"
     "finding (0x80), toolbox (0x8), all.\n"
     "\n"
     "Exit 1 when an operation fails (named with its status, e.g.\n"
     "\"HiiToNode failed: EFI_NOT_FOUND\", and for --hii with the package list),\n"
     "2 for wrong arguments, an unknown device or malformed input.\n"},
    {"export-hii", tvl::cli::runExportHii, "tolvane export-hii [--device FQDD] -o FILE",
     "Writes the package lists of the sample devices (or of the one named by\n"
     "--device) to FILE as ExportPackageLists returns them, for `forms --hii`.\n"},
    {"apply", tvl::cli::runApply,
     "tolvane apply PENDING.xml [--device FQDD] [-o RESULTS.xml] [--dry-run] [--trace LEVELS]\n"
     "       tolvane apply PENDING.xml --hii FILE --fqdd TEXT [--package-list N] [--config FILE]\n"
     "                     [--config-out FILE] [--request-out FILE] [-o RESULTS.xml] [--dry-run]",
     "Applies a pending document: a current-values document with new values in\n"
     "which the items to change carry a CommitIndex of 1 or more (docs/documents.md;\n"
     "`tolvane diff --pending` makes one from an edited export). The converter's\n"
     "NodeToHii checks each numbered item against the device's forms and encodes\n"
     "the accepted values into a configuration request; NodeSaveToHii then routes\n"
     "the request to the device's RouteConfig, which writes the stores (kept in the\n"
     "state file). --dry-run stops after NodeToHii: nothing is written.\n"
     "\n"
     "The device is the one named by the document's ConfigDataEntry FQDD, or by\n"
     "--device. A table shows one row per item: its name, old and new value,\n"
     "Success or Failure, and the error code with its message. Numbered items\n"
     "that got no row (unchanged on a device other than the BIOS setup, not\n"
     "writable, or not among the forms of the first form set) are named below it.\n"
     "-o (--output) writes the ConfigResults document; --request-out writes the\n"
     "request NodeToHii built, as UTF-8 on one line (empty when it built none).\n"
     "\n"
     "--hii FILE applies the document offline to a package list of a file of\n"
     "exported package lists, as `export --hii` exports it: the stores start from\n"
     "the forms' defaults or --config FILE and the device's RouteConfig writes and\n"
     "validates them as a sample device does. --config-out FILE writes the stores\n"
     "afterwards, one line per store in the form --config reads (the whole store\n"
     "as one block). So a document can be tried without the machine: the request\n"
     "and the stores show exactly what it would write.\n"
     "\n"
     "On the BIOS setup the pending password items (SetupPassword, SysPassword and\n"
     "their SHA256 forms, docs/documents.md) are applied first, through\n"
     "SetBIOSPassword and the platform's password service, into the same results.\n"
     "\n"
     "Exit 0 when every item succeeded (or nothing was numbered), 3 when an item\n"
     "failed or SetBIOSPassword, NodeToHii or NodeSaveToHii returned an error\n"
     "(named on standard error with its status: after a failed save, items shown\n"
     "as Success may not have been written), 1 when the platform fails, 2 for wrong\n"
     "arguments or a document that cannot be read.\n"},
    {"set", tvl::cli::runSet,
     "tolvane set --device FQDD NAME=VALUE... [-o RESULTS.xml] [--request-out FILE] [--dry-run]\n"
     "                   [--trace LEVELS]",
     "Changes settings by name: exports the device's current values afresh, sets\n"
     "each NAME's value and numbers the items in the order given, then applies\n"
     "that document as `apply` does (same table, files and exit codes). VALUE is\n"
     "what the pending document's Value would hold: an option's name, true or\n"
     "false, a decimal number, a text; for an ordered list every entry's name in\n"
     "the new order, separated by commas.\n"},
    {"diff", tvl::cli::runDiff, "tolvane diff BEFORE.xml AFTER.xml [--pending [-o FILE]]",
     "Shows the items whose values differ between two current-values documents of\n"
     "a device (`export --current`, or the current entry of a combined document):\n"
     "\"NAME: OLD -> NEW\", and items found in one document only. Items pair by\n"
     "name (and partition).\n"
     "\n"
     "--pending writes the pending document that turns BEFORE into AFTER: AFTER\n"
     "with the changed items numbered 1, 2, ... in document order and every other\n"
     "CommitIndex 0, to FILE or to standard output (the listing then goes to\n"
     "standard error). `tolvane apply FILE` applies it.\n"},
    {"password", tvl::cli::runPassword,
     "tolvane password {setup|system} [--clear] [--service new|legacy]\n"
     "       tolvane password --service new|legacy",
     "Sets, changes or clears the setup or the system password of the sample BIOS\n"
     "device as a configuration job does: the passwords become the Base64 values\n"
     "of a pending document's SetupPassword / OldSetupPassword (SysPassword /\n"
     "OldSysPassword) items, which the converter's SetBIOSPassword applies through\n"
     "the bound password service. The outcome is printed per item.\n"
     "\n"
     "Passwords are never taken from the command line. On a terminal the command\n"
     "asks for them without echo (the new one twice); otherwise it reads them from\n"
     "standard input, one per line: the old password first when the older service\n"
     "is bound and a password is installed (only that service checks it), then the\n"
     "new one unless --clear is given. A password has at most 32 bytes; the older\n"
     "service stores it lower-cased.\n"
     "\n"
     "--service new|legacy chooses which password service the sample platform\n"
     "loads (the newer or the older one); the choice is kept in the state file,\n"
     "as are the passwords. Alone it only changes the service.\n"
     "\n"
     "Exit 3 when the service refused the change (a wrong old password is\n"
     "reported with error code 603 and its message), 1 when SetBIOSPassword\n"
     "refused the request before asking the service (the reason is printed),\n"
     "2 for wrong arguments or input.\n"},
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
  out << "usage: tolvane [--checked-pool] [--state FILE] <command> [options]\n\ncommands:\n";
  // A synopsis of several lines is indented for "usage: "; here by 2.
  for (const Command& c : kCommands) {
    std::string synopsis = c.synopsis;
    for (size_t at = 0; (at = synopsis.find("\n       ", at)) != std::string::npos; ++at) synopsis.erase(at + 1, 5);
    out << "  " << synopsis << "\n";
  }
  out << "\n"
         "global options (before the command):\n"
         "  --checked-pool  serve the platform's pool with the checked allocator the tests\n"
         "                  use: a record per allocation, fill patterns and guard bytes.\n"
         "                  Memory freed that was not allocated, or written past its end,\n"
         "                  then fails the command (exit 1) with a report. Slower; the\n"
         "                  default is a lean allocator that keeps counts only.\n"
         "\n`tolvane <command> --help` describes a command.\n"
         "Exit codes: 0 success, 1 the platform or an operation failed, 2 wrong arguments or input,\n"
         "3 (apply, set, password) an item, the converter's import or save, or a password change\n"
         "failed.\n\n"
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
  // The other global options come before the command.
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
