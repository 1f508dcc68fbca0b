// The tolvane command line, run as a program: output and exit codes of each
// command, exported HII files, the state file, and refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "host/hii/config_string.h"
#include "host/ifr/ifr_dump.h"
#include "host/sample/sample_devices.h"
#include "host/sample/sample_platform.h"
#include "tests/host/offline/dump_shapes.h"
#include "tests/tools/cli_runner.h"

namespace sample = tvl::host::sample;
namespace shapes = tvl::test::shapes;
using tvl::host::hii::toAscii;

using tvl::test::Cli;
using tvl::test::exists;
using tvl::test::has;
using tvl::test::Outcome;
using tvl::test::readAll;

namespace {

// The lines after the line that contains `header`, up to the next line
// indented no deeper than it.
std::string block(const std::string& text, const std::string& header) {
  size_t at = text.find(header);
  if (at == std::string::npos) return {};
  size_t start = text.rfind('\n', at);
  start = start == std::string::npos ? 0 : start + 1;
  size_t indent = text.find_first_not_of(' ', start) - start;
  size_t end = text.find('\n', at);
  while (end != std::string::npos && end + 1 < text.size()) {
    size_t next = text.find_first_not_of(' ', end + 1);
    if (next == std::string::npos || next - (end + 1) <= indent) break;
    end = text.find('\n', end + 1);
  }
  return text.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

using Bytes = std::string;  // a file's bytes

UINT32 u32At(const Bytes& b, size_t at) {
  UINT32 v = 0;
  for (size_t i = 4; i-- > 0;) v = (v << 8) | UINT8(b.at(at + i));
  return v;
}
Bytes text(const std::vector<UINT8>& bytes) { return Bytes(bytes.begin(), bytes.end()); }

// ---------------------------------------------------------------- info
TEST(CliTest, InfoShowsRevisionSlotsAndBoundServices) {
  const std::string out = Cli().ok({"info"});
  for (const char* line : {"Entry status:     EFI_SUCCESS", "Revision:         0x2000",
                           "TOLVANE_PROTOCOL 8FC48CC8-71FF-460B-8971-EA282C790359", "(the driver's image handle)",
                           "Password service: PASSWORD2_PROTOCOL, the newer service (the platform loads: new)\n"})
    EXPECT_TRUE(has(out, line));
  // The slots named in parentheses have no operation.
  const char* slots[] = {"HiiToNode", "NodeToHii", "(slot 3)", "(slot 4)", "NodeSaveToHii",
                         "(slot 6)", "SetBIOSPassword", "(slot 8)", "NodesToCombinedXMLChar"};
  for (size_t i = 0; i < std::size(slots); ++i)
    EXPECT_TRUE(has(block(out, std::to_string(i + 1) + " " + slots[i]),
                    slots[i][0] == '(' ? "unsupported (answers EFI_UNSUPPORTED)" : "implemented"));
  // Which password service is bound: PasswordBindingTest.
  for (const char* global : {"gLogProtocol", "gHiiFormsProcessor2Protocol", "gHiiDatabase", "XMLProtocol",
                             "HiiStringProtocol", "gPassword2Protocol", "gDeviceLocationProtocol"})
    EXPECT_TRUE(has(block(out, std::string("  ") + global + " "), "  bound"));
  EXPECT_FALSE(has(out, "no longer installed"));  // each bound to the installed instance
}

// ---------------------------------------------------------------- devices and forms
TEST(CliTest, DevicesListsEachDeviceWithItsLocation) {
  const std::string out = Cli().ok({"devices"});
  for (const auto& d : sample::sampleDevices()) {
    const std::string entry = block(out, toAscii(d.fqdd) + "\n");
    EXPECT_TRUE(has(entry, "description:   " + toAscii(d.description)));
    EXPECT_TRUE(has(entry, "package lists: 1"));
  }
  EXPECT_TRUE(has(out, "device path:   PciRoot(0x0)/Pci(0x1C,0x0)/Pci(0x0,0x0)/MAC(001B213C4D5E,0x1)"));
}

TEST(CliTest, FormsShowsOptionsDefaultsLimitsAndMarks) {
  const std::string out = Cli().ok({"forms"});
  struct Case {
    const char* keyword;  // of the statement
    const char* shown;    // a line of its block
  } cases[] = {
      {"BootMode[ProgWrite:true]", "option \"UEFI with Legacy Fallback\" keyword \"UefiLegacyFallback\" value 2 suppressed"},
      {"BootMode[ProgWrite:true]", "option \"UEFI\" keyword \"Uefi\" value 0 default"},
      {"BootMode[ProgWrite:true]", "storage: varstore 1 \"BiosSetup\" block &OFFSET=0000&WIDTH=0001 width 1 (u8)"},
      {"LegacyOptionRom[ProgUnhide:true]", "marks: suppressed"}, {"Tpm12Compat", "marks: disabled"},
      {"SecureBoot", "marks: locked"}, {"PasswordStatus", "marks: read-only flag"},
      {"NodeInterleave[ReadOnlyIf:MemOpMode=MirrorMode]", "marks: read-only, read-only condition (true)"},
      {"ProcVirtualization", "marks: reset required"},
      {"ProcX2Apic", "default 0x0000 \"Standard Defaults\": expression = true"},
      {"ProcPwrLimit", "default 0x0001 \"Manufacturing Defaults\": 125"}, {"ProcPwrLimit", "value: 165\n"},
      {"ProcPwrLimit", "range: min 35 max 500 step 5"}, {"MemPatrolScrub", "width 8 (u64)"},
      {"MemOpMode", "value: 1 (\"Mirror Mode\")"},
      {"BootSeq\"", "default 0x0000 \"Standard Defaults\": [1, 2, 3, 4]"},
      {"ChapSecret", "length: min 12 max 16 characters"}, {"AssetTag", "value: \"ASSET-0042\""},
      {"IscsiConfigRef", "value: form 2, question 0"}, {"MacAddr", "text two: \"00:1B:21:3C:4D:5E\""},
      {"UefiBootSeq\"", "option \"PXE Device 1: Integrated NIC 1 Port 1 Partition 1 (IPv6)\" keyword "
                        "\"NIC.PxeDevice.1-1[Protocol:IPv6]\" value 2"},
      {"UefiBootSeqEnDis[FQDD:NIC.PxeDevice.1-1][Protocol:IPv6]", "value: 0 (off)"},
      {"UefiBootSeq\"", "value: [4, 1, 3, 2, 5]"},
      {"GlobalHotSpare[ReadOnlyIf:DiskStatus=Online]", "marks: read-only condition (false)"},
  };
  for (const auto& c : cases) EXPECT_TRUE(has(block(out, std::string("keyword \"") + c.keyword), c.shown));
  // Option flags mark the option; only DEFAULT opcodes list defaults.
  EXPECT_FALSE(has(block(out, "keyword \"BootMode"), "default 0x"));
  for (const char* line : {"varstore 2 efi-variable \"BiosSecurity\" size 4",
                           "default store 0x0001 \"Manufacturing Defaults\"", "languages: en-US, x-UEFI",
                           "languages: en-US, fr-FR, x-UEFI"})
    EXPECT_TRUE(has(out, line));
  EXPECT_TRUE(has(block(out, "FormSet " + tvl::host::ifr::guidText(sample::kFcFormSetGuid)), "languages: en-US\n"));
  // The storage device's forms are read with the controller's filter, once
  // the unfiltered parse has failed on the second form set.
  const std::string disk = block(out, "Device " + toAscii(sample::kDiskFqdd));
  EXPECT_TRUE(has(disk, "without a filter: EFI_VOLUME_CORRUPTED: expression leaves 2 values instead of one"));
  EXPECT_TRUE(has(disk, "form sets: 1"));
}

// ---------------------------------------------------------------- HII files
// Reading the file's forms offline: the export of the same file equals the
// live one (OfflineExportOfASampleDeviceEqualsItsLiveExport).
TEST(CliTest, FormsOfAnExportedFileListItsPackages) {
  Cli cli;
  cli.ok({"export-hii", "-o", cli.path("all.hii")});
  const std::string live = cli.ok({"forms"}), file = cli.ok({"forms", "--hii", cli.path("all.hii")});
  for (const char* line : {"5 package list(s)",
                           "packages: FORMS FORMS FORMS STRINGS(en-US) STRINGS(x-UEFI) DEVICE_PATH",
                           "packages: FORMS STRINGS(en-US) STRINGS(fr-FR) STRINGS(x-UEFI) DEVICE_PATH"})
    EXPECT_TRUE(has(file, line));
  // A file names no device, so no BIOS filter applies: the BIOS setup's
  // other two form sets are shown only from the file.
  for (const EFI_GUID& other : {sample::kSetupMenuFormSetGuid, sample::kBootManagerFormSetGuid}) {
    EXPECT_TRUE(has(file, "FormSet " + tvl::host::ifr::guidText(other)));
    EXPECT_FALSE(has(live, "FormSet " + tvl::host::ifr::guidText(other)));
  }
  // Nothing can read the stores of a file: the values are the zeros the
  // forms processor reports.
  EXPECT_TRUE(has(block(file, "keyword \"AssetTag\""), "value: \"\""));
  EXPECT_FALSE(has(cli.ok({"forms", "--device", "NIC.Integrated.1-1-1"}), "BIOS.InternalSetup"));
}

TEST(CliTest, CorruptedFilesAreRefusedWithTheOffsetOfTheBadRecord) {
  Cli cli;
  cli.ok({"export-hii", "-o", cli.path("all.hii")});
  const Bytes good = readAll(cli.path("all.hii"));
  const size_t first = u32At(good, 16);  // the first package list's length
  ASSERT_LT(first, good.size());
  size_t last = 0;  // where the last package list starts
  while (last + u32At(good, last + 16) < good.size()) last += u32At(good, last + 16);
  const size_t firstPackage = 20, endPackage = first - 4, all = good.size();
  // Each row cuts the file to `size` bytes and writes the low `width` bytes
  // of `value` at `at`.
  struct Case { const char* name; size_t size, at; UINT32 value; int width; size_t offset; const char* says; };
  const Case cases[] = {
      {"empty file", 0, 0, 0, 0, 0, "empty"},
      {"cut in the first header", 19, 0, 0, 0, 0, "cut short"},
      {"cut inside the first list", first - 1, 0, 0, 0, 0, "past the end of the file"},
      {"cut in the second header", first + 7, 0, 0, 0, first, "cut short"},
      {"cut before the end", all - 1, 0, 0, 0, last, "past the end of the file"},
      {"list shorter than a header", all, 16, 23, 4, 0, "shorter than"},
      {"list longer than the file", all, 16, 0x7fffffff, 4, 0, "past the end of the file"},
      {"package shorter than its header", all, firstPackage, 2, 3, firstPackage, "shorter than its 4-byte header"},
      {"package past its list", all, firstPackage, 0xFFFFFF, 3, firstPackage, "runs past the end of its package list"},
      {"unknown package type", all, firstPackage + 3, 0x33, 1, firstPackage, "unknown type 0x33"},
      {"END package too long", all, endPackage, 0xDF000008u, 4, endPackage, "runs past the end of its package list"},
      {"END package early", all, firstPackage, 0xDF000004u, 4, firstPackage, "is followed by"},
      // The FORM_SET opcode right after the first forms package header,
      // cut to 3 bytes: found by the forms processor.
      {"malformed IFR in the first list", all, firstPackage + 5, 0x83, 1, firstPackage + 4, "malformed"},
      {"malformed IFR in the second list", all, first + firstPackage + 5, 0x83, 1, first + firstPackage + 4,
       "package list 2 are malformed"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes bad = good.substr(0, c.size);
    for (int i = 0; i < c.width; ++i) bad.at(c.at + i) = char(UINT8(c.value >> (8 * i)));
    cli.write("bad.hii", bad);
    Outcome r = cli.run({"forms", "--hii", cli.path("bad.hii")});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_TRUE(has(r.err, "at byte offset " + std::to_string(c.offset) + " (0x"));
    EXPECT_TRUE(has(r.err, c.says));
    EXPECT_TRUE(r.out.empty());
  }
  // A cut exactly between two lists leaves a valid file of one list.
  cli.write("first.hii", good.substr(0, first));
  EXPECT_EQ(cli.run({"forms", "--hii", cli.path("first.hii")}).exitCode, 0);
}

// ---------------------------------------------------------------- state
TEST(CliTest, StoresPersistBetweenRunsAndResetRestoresTheDefaults) {
  Cli cli;
  const std::string file = cli.path("platform.state");
  ASSERT_EQ(cli.run({"devices"}).exitCode, 0);
  EXPECT_FALSE(exists(file)) << "a command that changes nothing writes no state file";

  EXPECT_EQ(cli.ok({"reset"}), "restored the defaults of 10 stores of 5 devices in " + file + "\n");
  const std::string defaults = readAll(file);
  // Stores written by one run and read by the next: ApplyCli.

  // A damaged file is refused, and left as it is, until reset.
  const std::string damaged = defaults.substr(0, 100);
  cli.write("platform.state", damaged);
  for (const char* command : {"info", "devices", "forms"}) {
    SCOPED_TRACE(command);
    Outcome r = cli.run({command});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_TRUE(has(r.err, "state file " + file + ": the last line is not ended: the file is cut short"));
    EXPECT_TRUE(has(r.err, "`tolvane reset` restores the defaults"));
    EXPECT_TRUE(r.out.empty()) << r.out;
  }
  EXPECT_EQ(readAll(file), damaged);

  cli.ok({"reset"});
  EXPECT_EQ(readAll(file), defaults);
}

// Each run is a process of its own, so every step also shows that the
// service choice and the stored password persist in the state file.
TEST(CliTest, PasswordSetsChangesAndClearsThroughEitherService) {
  struct Step {
    const char* what;
    std::vector<std::string> args;
    std::string input;  // standard input, one password per line
    int exitCode;
    std::string out;  // a line the output holds
    std::string err;  // a text standard error holds
  } older[] = {
      {"choose the older service", {"password", "--service", "legacy"}, "", 0, "loads the older password service", ""},
      {"set: no old password asked, none installed", {"password", "setup"}, "Abc\n", 0,
       "SetupPassword: Success\nOldSetupPassword: Success\nthe setup password is set\n", ""},
      {"change with a wrong old password", {"password", "setup"}, "nope\nXyz\n", 3, "SetupPassword: Failure 603\n",
       "tolvane password: the setup password was not set: 603 Password: Old password is incorrect.\n"},
      {"clear with the old one", {"password", "setup", "--clear"}, "Abc\n", 0, "the setup password is cleared\n", ""},
      {"clear with none installed: refused before the service", {"password", "setup", "--clear"}, "", 1, "",
       "Attempted to clear password, while none is set"},
      {"the system password, on its own", {"password", "system"}, "Sys\n", 0,
       "SysPassword: Success\nOldSysPassword: Success\n", ""},
  }, newer[] = {
      {"choose the newer service", {"password", "--service", "new"}, "", 0, "loads the newer password service", ""},
      {"set", {"password", "setup"}, "Abc\n", 0, "the setup password is set\n", ""},
      {"set over it: no old password asked", {"password", "setup"}, "Def\n", 0, "the setup password is set\n", ""},
      {"clear", {"password", "setup", "--clear"}, "", 0, "the setup password is cleared\n", ""},
      {"never from an argument", {"password", "setup", "hunter2"}, "", 2, "", "unexpected argument 'hunter2'"},
      {"standard input ends early", {"password", "setup"}, "", 2, "", "standard input ended before the new password"},
      {"longer than 32 bytes", {"password", "setup"}, std::string(33, 'x') + "\n", 2, "", "longer than 32 bytes"},
      {"empty without --clear", {"password", "setup"}, "\n", 2, "", "use --clear"},
      {"unknown password", {"password", "admin"}, "", 2, "", "'admin' is neither setup nor system"},
      {"unknown service", {"password", "--service", "old"}, "", 2, "", "--service takes new or legacy"},
  };
  // The service chosen persists: only the older one checks the old password.
  for (const auto& [steps, count] : {std::pair(older, std::size(older)), std::pair(newer, std::size(newer))}) {
    Cli cli;
    for (size_t i = 0; i < count; ++i) {
      const Step& step = steps[i];
      SCOPED_TRACE(step.what);
      Outcome r = cli.run(step.args, false, "", step.input);
      EXPECT_EQ(r.exitCode, step.exitCode) << r.out << r.err;
      EXPECT_TRUE(has(r.out, step.out));
      EXPECT_TRUE(has(r.err, step.err));
    }
    // The last step of each left the setup password cleared.
    EXPECT_EQ(readAll(cli.path("platform.state")).find("password-variable SetupPassword"), std::string::npos);
  }
}

TEST(CliTest, StateFileComesFromTheOptionThenTheEnvironment) {
  Cli cli;
  const std::string home = cli.path("home"), xdg = cli.path("xdg");
  const std::string option = cli.path("option.state"), variable = cli.path("variable.state");
  struct Case {
    std::string environment;
    std::vector<std::string> args;
    std::string file;
  } cases[] = {
      {"TOLVANE_STATE=" + variable, {"--state", option, "reset"}, option},
      {"TOLVANE_STATE=" + variable, {"reset", "--state=" + option}, option},
      {"TOLVANE_STATE=" + variable + " XDG_STATE_HOME=" + xdg + " HOME=" + home, {"reset"}, variable},
      {"XDG_STATE_HOME=" + xdg + " HOME=" + home, {"reset"}, xdg + "/tolvane/platform.state"},
      {"HOME=" + home, {"reset"}, home + "/.local/state/tolvane/platform.state"},
  };
  for (const auto& c : cases) {
    std::system(("rm -rf '" + home + "' '" + xdg + "' '" + option + "' '" + variable + "'").c_str());
    SCOPED_TRACE(c.environment);
    Outcome r = cli.run(c.args, false, c.environment);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(has(r.out, " in " + c.file + "\n"));
    for (const std::string& f : {option, variable, xdg + "/tolvane/platform.state",
                                 home + "/.local/state/tolvane/platform.state"})
      EXPECT_EQ(exists(f), f == c.file) << f;
  }
}

TEST(CliTest, WrongArgumentsAreRefusedWithAMessage) {
  Cli cli;
  cli.write("dump.hii", text(shapes::firmwareDump().bytes));
  cli.write("config.txt", "# none\nGUID=00");
  const std::string dump = cli.path("dump.hii"), config = cli.path("config.txt");
  const std::string bios = "BIOS.InternalSetup.1-1", home = "HOME=" + cli.path("home");
  const std::string known = "known devices: BIOS.InternalSetup.1-1, NIC.Integrated.1-1-1, "
                            "Disk.Bay.0:Enclosure.Internal.0-1:RAID.Integrated.1-1, FC.Slot.2-1, RAID.Slot.6-1";
  struct Case {
    std::vector<std::string> args;
    int exitCode;
    std::string says;         // on standard error; nothing goes to standard output
    std::string environment = "";  // instead of the test's state file
  } cases[] = {
      {{}, 2, "usage: tolvane [--checked-pool] [--state FILE] <command>"},
      {{"frobnicate"}, 2, "unknown command 'frobnicate'"},
      {{"info", "extra"}, 2, "unexpected argument 'extra'"},
      {{"devices", "--device", "x"}, 2, "unknown option '--device'"},
      {{"forms", "--device"}, 2, "option --device needs a value"},
      {{"forms", "--device", "a", "--device", "b"}, 2, "given twice"},
      {{"forms", "--hii", "f", "--device", "x"}, 2, "cannot be combined"},
      {{"forms", "--hii", "/nonexistent/file.hii"}, 2, "cannot read /nonexistent/file.hii"},
      {{"export-hii"}, 2, "no output file"},
      {{"export-hii", "-o", "/nonexistent/dir/x.hii"}, 1, "cannot create /nonexistent/dir/x.hii"},
      {{"export", "-o", config}, 1, "cannot make the directory " + config},
      {{"--lean-pool", "info"}, 2, "unknown global option '--lean-pool'"},
      {{"info", "--checked-pool"}, 2, "unknown option '--checked-pool'"},  // global options go first
      // The export refuses before it exports anything.
      {{"export", "--device", bios, "--possible", "--current"}, 2, "--possible or --current, not both"},
      {{"export", "--device", "NIC.Integrated.9-9-9"}, 2, "no device with FQDD 'NIC.Integrated.9-9-9'"},
      {{"export"}, 2, "name the device with --device FQDD, or give -o DIR to export every device into DIR; known "
                      "devices: BIOS.InternalSetup.1-1, NIC.Integrated.1-1-1"},
      {{"export", "--device", bios, "--trace", "failure,,progress"}, 2, "--trace: 'failure,,progress' is neither"},
      {{"export", "--device", bios, "--trace", "0x1ffffffffffffffff"}, 2, "is neither a hexadecimal mask"},
      {{"export", "--device", bios, "-o", cli.path("a.xml"), "--output", cli.path("b.xml")}, 2, "output file once"},
      // FQDDs match exactly, letter case included.
      {{"forms", "--device", "bios.internalsetup.1-1"}, 2, "no device with FQDD 'bios.internalsetup.1-1'; " + known},
      {{"export-hii", "--device", "NIC.Integrated.9-9-9", "-o", cli.path("x.hii")}, 2, "; " + known},
      {{"export", "--hii", dump, "--fqdd", "X", "--package-list", "0"}, 2,
       "--package-list 0: " + dump + " holds package lists 1 to 9"},
      {{"export", "--hii", dump, "--fqdd", "X", "--package-list", "10"}, 2, "holds package lists 1 to 9"},
      {{"export", "--hii", dump, "--fqdd", "X", "--package-list", "2x"}, 2, "holds package lists 1 to 9"},
      {{"export", "--hii", dump, "--fqdd", "X", "--package-list", "2", "--device", bios}, 2,
       "cannot be combined with --hii"},
      {{"export", "--hii", dump, "--fqdd", "X", "--package-list", "2", "--config", config}, 2,
       config + ": line 2, column 8: GUID needs 32 hex digits"},
      {{"export", "--hii", dump, "--package-list", "2"}, 2, "--hii FILE needs --fqdd TEXT"},
      {{"export", "--fqdd", "X"}, 2, "--fqdd goes with --hii FILE"},
      {{"reset"}, 2, "no place for the state file", "HOME="},
      {{"reset", "--state"}, 2, "option --state needs a value", home},
      {{"--state=", "reset"}, 2, "option --state needs a non-empty value", home},
      {{"--state", cli.path("s"), "reset", "--state", cli.path("s")}, 2, "option --state given twice", home},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.says);
    Outcome r = cli.run(c.args, true, c.environment);
    EXPECT_EQ(r.exitCode, c.exitCode) << r.err;
    EXPECT_TRUE(has(r.err, c.says));
    EXPECT_TRUE(r.out.empty()) << r.out;
  }
  EXPECT_FALSE(exists(cli.path("a.xml")));
  EXPECT_TRUE(has(cli.ok({"--help"}), "--checked-pool  serve the platform's pool"));
  for (const char* command : {"info", "devices", "forms", "export-hii", "export", "apply", "set", "diff", "reset"})
    EXPECT_EQ(cli.ok({command, "--help"}).rfind(std::string("usage: tolvane ") + command, 0), 0u) << command;
}

// ---------------------------------------------------------------- export
// --trace sets the log service's mask: the driver entry's "Entering" line
// (a progress line) reaches standard error exactly when the mask has the
// progress bit.
TEST(CliTest, ExportTraceLevelsSelectTheDriversLines) {
  Cli cli;
  struct Case {
    const char* levels;  // null: no --trace
    bool shown;
  } cases[] = {
      {nullptr, false},           {"progress", true},         {"0x800000", true}, {"800000", true},
      {"FAILURE,Progress", true}, {"failure,finding", false}, {"toolbox", false}, {"all", true},
      {"0", false},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = {"export", "--device", "NIC.Integrated.1-1-1", "-o", cli.path("doc.xml")};
    if (c.levels) args.insert(args.end(), {"--trace", c.levels});
    Outcome r = cli.run(args);
    SCOPED_TRACE(c.levels ? c.levels : "(none)");
    EXPECT_NE(r.exitCode, 2) << r.err;
    EXPECT_EQ(bool(has("\n" + r.err, "\nTolvaneInitialize: Entering\n")), c.shown) << r.err;
  }
}

// ---------------------------------------------------------------- offline export
// Every list of a dump in the shapes real firmware writes: listed when no
// list is chosen, then each chosen by number either exports or fails with a
// message that names it and the reason.
TEST(CliTest, OfflineExportTakesEveryFormListOfAFirmwareDumpByNumber) {
  Cli cli;
  const shapes::DumpFile dump = shapes::firmwareDump();
  cli.write("dump.hii", text(dump.bytes));
  const std::string file = cli.path("dump.hii");
  EXPECT_TRUE(has(cli.run({"export", "--hii", file, "--fqdd", "X"}).err,
                  "\n  7: GUID FE561596-E6BF-41A6-8376-C72B719874D0, device path VenHw("));
  // The listing's count, the exported documents and the failures' exit code
  // 1 with the list and the status named: tools.offline_export_of_firmware_dump.
  for (size_t i = 0; i < dump.lists.size(); ++i) {
    const shapes::DumpedList& list = dump.lists[i];
    SCOPED_TRACE(list.what);
    const std::string number = std::to_string(i + 1), out = cli.path("list" + number + ".xml");
    Outcome r = cli.run({"export", "--hii", file, "--fqdd", "Offline." + number, "--package-list", number, "-o", out});
    EXPECT_EQ(r.exitCode, !list.hasForms ? 2 : list.exports ? 0 : 1) << r.err;
    if (!list.hasForms) {
      EXPECT_TRUE(has(r.err, "--package-list " + number + ": package list " + number + " (GUID "));
      EXPECT_TRUE(has(r.err, "holds no forms"));
    }
    if (list.hasForms && !list.exports) {
      EXPECT_TRUE(has(r.err, "HiiToNode failed: EFI_NOT_FOUND: its strings are in \"en-us\", not in the exact "
                             "\"en-US\" that an export needs"));
      EXPECT_FALSE(exists(out));
    }
  }
}

// What a sample device's ExtractConfig answers for every store (one line,
// with the default configurations), on a sample platform built afresh.
std::string extractAll(sample::SamplePlatform& sample, const std::u16string& fqdd) {
  EFI_HII_CONFIG_ACCESS_PROTOCOL* access = sample.findDevice(fqdd)->device->configAccess();
  EFI_STRING progress = nullptr, results = nullptr;
  EXPECT_EQ(access->ExtractConfig(access, nullptr, &progress, &results), EFI_SUCCESS);
  std::string line = results ? toAscii(reinterpret_cast<const char16_t*>(results)) : "";
  if (results) sample.platform().bootServices()->FreePool(results);
  return line;
}

// A sample device's package list and its stores as ExtractConfig answers
// them give, offline, the same documents as the device itself.
TEST(CliTest, OfflineExportOfASampleDeviceEqualsItsLiveExport) {
  Cli cli;
  sample::SamplePlatform sample;
  for (const auto& d : sample::sampleDevices()) {
    const std::string fqdd = toAscii(d.fqdd);
    cli.write("config.txt", "# " + fqdd + "\n" + extractAll(sample, d.fqdd) + "\n");
    SCOPED_TRACE(fqdd);
    cli.ok({"export-hii", "--device", fqdd, "-o", cli.path("device.hii")});
    for (const char* kind : {"--possible", "--current"}) {
      const std::string live = cli.ok({"export", "--device", fqdd, kind});
      EXPECT_EQ(live.rfind("<ConfigData ", 0), 0u) << kind;
      EXPECT_EQ(cli.ok({"export", "--hii", cli.path("device.hii"), "--fqdd", fqdd, "--config", cli.path("config.txt"),
                        kind}),
                live)
          << kind;
    }
  }
}

// ---------------------------------------------------------------- every device
// One document per device (each validating: docs.schema.accepts_export),
// named after its FQDD with ':' replaced.
TEST(CliTest, ExportWithoutDeviceWritesEveryDeviceIntoADirectory) {
  Cli cli;
  const std::string file = cli.path("new/documents/") + "Disk.Bay.0_Enclosure.Internal.0-1_RAID.Integrated.1-1.xml";
  EXPECT_TRUE(has(cli.ok({"export", "-o", cli.path("new/documents"), "--current"}), "bytes to " + file + "\n"));
  EXPECT_TRUE(has(readAll(file), "<ConfigDataEntry FQDD=\"" + toAscii(sample::kDiskFqdd) + "\" Type=\"CurrentValues\">"));
}

}  // namespace
