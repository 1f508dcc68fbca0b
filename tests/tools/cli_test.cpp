// The tolvane command line, run as a program: output and exit codes of each
// command, the round trip through an exported HII file, and the refusal of
// corrupted files and wrong arguments.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>

#include "host/hii/config_string.h"
#include "host/sample/sample_devices.h"
#include "host/sample/sample_platform.h"
#include "tests/support/fixture.h"

namespace sample = tvl::host::sample;
using tvl::host::hii::toAscii;

namespace {

struct Outcome {
  int exitCode = -1;
  std::string out, err;
};

std::string readAll(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

// Runs the built program in a temporary directory of its own.
class Cli {
 public:
  Cli() {
    char pattern[] = "/tmp/tolvane-cli-XXXXXX";
    if (!mkdtemp(pattern)) throw std::runtime_error("cannot make a temporary directory");
    dir_ = pattern;
  }
  ~Cli() { std::system(("rm -rf '" + dir_ + "'").c_str()); }
  Cli(const Cli&) = delete;
  Cli& operator=(const Cli&) = delete;

  std::string path(const std::string& name) const { return dir_ + "/" + name; }

  // Runs with the checked pool unless `lean`; the checked pool fails a
  // command that frees memory wrongly.
  Outcome run(const std::vector<std::string>& args, bool lean = false) const {
    std::string command = "'" TOLVANE_CLI "'";
    if (!lean) command += " --checked-pool";
    for (const auto& a : args) command += " '" + a + "'";
    command += " >'" + path("stdout") + "' 2>'" + path("stderr") + "'";
    int status = std::system(command.c_str());
    Outcome r;
    r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = readAll(path("stdout"));
    r.err = readAll(path("stderr"));
    return r;
  }

  // Every sample device's package lists, as export-hii writes them.
  std::vector<UINT8> exportAll() const {
    Outcome r = run({"export-hii", "-o", path("all.hii")});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    std::string bytes = readAll(path("all.hii"));
    return std::vector<UINT8>(bytes.begin(), bytes.end());
  }

  void write(const std::string& name, const std::vector<UINT8>& bytes) const {
    std::ofstream(path(name), std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                     std::streamsize(bytes.size()));
  }

 private:
  std::string dir_;
};

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

// The form-set, form and statement header lines and the storage lines: the
// shape of the forms, independent of current values and of where the
// forms came from.
std::string shape(const std::string& outline) {
  std::istringstream in(outline);
  std::string line, out;
  while (std::getline(in, line)) {
    size_t start = line.find_first_not_of(' ');
    if (start == std::string::npos) continue;
    std::string t = line.substr(start);
    std::string word = t.substr(0, t.find(' '));
    bool opcode = word.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ_") == std::string::npos &&
                  t.compare(word.size(), 2, " \"") == 0;
    if (opcode || word == "FormSet" || word == "Form" || word == "storage:" || word == "ConfigHdr") out += t + "\n";
  }
  return out;
}

using Bytes = std::vector<UINT8>;

UINT32 u32At(const Bytes& b, size_t at) {
  UINT32 v = 0;
  for (size_t i = 4; i-- > 0;) v = (v << 8) | b.at(at + i);
  return v;
}
void putU32(Bytes& b, size_t at, UINT32 v) {
  for (size_t i = 0; i < 4; ++i) b.at(at + i) = UINT8(v >> (8 * i));
}
Bytes cut(const Bytes& b, size_t size) { return Bytes(b.begin(), b.begin() + long(std::min(size, b.size()))); }

// ---------------------------------------------------------------- info
class CliInfoTest : public tvl::test::PlatformTest {};

TEST_F(CliInfoTest, InfoShowsRevisionSlotsAndBoundServices) {
  Outcome r = Cli().run({"info"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.out.find("Entry status:     EFI_SUCCESS"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Revision:         0x2000"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("TOLVANE_PROTOCOL 8FC48CC8-71FF-460B-8971-EA282C790359"), std::string::npos);
  EXPECT_NE(r.out.find("(the driver's image handle)"), std::string::npos);

  // Each slot as the driver really fills it, found by loading it here.
  sample::SamplePlatform sample(platform());
  EFI_HANDLE driver = nullptr;
  ASSERT_EQ(sample.loadDriver(&driver), EFI_SUCCESS);
  const EFI_GUID converter = TOLVANE_PROTOCOL_GUID;
  auto* record = static_cast<const UINT8*>(platform().handleProtocol(driver, converter));
  void* unsupported = platform().imageSymbol(driver, "UnsupportedOperation");
  ASSERT_NE(record, nullptr);
  const char* names[] = {"HiiToNode", "NodeToHii", "(slot 3)", "(slot 4)", "NodeSaveToHii",
                         "(slot 6)", "SetBIOSPassword", "(slot 8)", "NodesToCombinedXMLChar"};
  for (size_t i = 0; i < 9; ++i) {
    void* slot = nullptr;
    std::memcpy(&slot, record + 8 + 8 * i, sizeof slot);
    // Slots 3, 4, 6 and 8 never have an operation.
    if (i == 2 || i == 3 || i == 5 || i == 7) {
      EXPECT_EQ(slot, unsupported) << names[i];
    }
    std::string line = block(r.out, std::to_string(i + 1) + " " + names[i]);
    const char* state = slot == unsupported ? "unsupported (answers EFI_UNSUPPORTED)" : "implemented";
    EXPECT_NE(line.find(state), std::string::npos) << line;
  }
  skipLeakCheck();  // the installed record stays with the loaded driver

  struct Service {
    const char* global;
    const char* state;
  } services[] = {
      {"gLogProtocol", "bound"},          {"gHiiFormsProcessor2Protocol", "bound"},
      {"gHiiDatabase", "bound"},          {"XMLProtocol", "bound"},
      {"HiiStringProtocol", "bound"},     {"gPassword2Protocol", "not bound"},
      {"gLegacyPasswordProtocol", "not bound"}, {"gDeviceLocationProtocol", "bound"},
  };
  for (const auto& s : services) {
    std::string line = block(r.out, std::string("  ") + s.global + " ");
    EXPECT_NE(line.find(std::string("  ") + s.state), std::string::npos) << line;
    EXPECT_EQ(std::string(s.state) == "bound", line.find("not bound") == std::string::npos) << line;
  }
}

// ---------------------------------------------------------------- devices and forms
TEST(CliTest, DevicesListsEachDeviceWithItsLocation) {
  Cli cli;
  Outcome r = cli.run({"devices"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  for (const auto& d : sample::sampleDevices()) {
    std::string entry = block(r.out, toAscii(d.fqdd) + "\n");
    EXPECT_NE(entry.find("description:   " + toAscii(d.description)), std::string::npos) << entry;
    EXPECT_NE(entry.find("package lists: 1"), std::string::npos) << entry;
  }
  EXPECT_NE(r.out.find("device path:   PciRoot(0x0)/Pci(0x1C,0x0)/Pci(0x0,0x0)/MAC(001B213C4D5E,0x1)"),
            std::string::npos);
}

// What the outline must show as the current value of a described question.
std::string expectedValue(const sample::Statement& s) {
  switch (s.opcode) {
    case EFI_IFR_CHECKBOX_OP:
      return s.current[0] ? "value: 1 (on)" : "value: 0 (off)";
    case EFI_IFR_ONE_OF_OP:
    case EFI_IFR_NUMERIC_OP:
      return "value: " + std::to_string(s.current[0]) + (s.opcode == EFI_IFR_ONE_OF_OP ? " (" : "\n");
    case EFI_IFR_STRING_OP:
      return "value: \"" + toAscii(s.currentText) + "\"";
    case EFI_IFR_ORDERED_LIST_OP: {
      std::string list;
      for (UINT64 e : s.current) list += (list.empty() ? "" : ", ") + std::to_string(e);
      return "value: [" + list + "]";
    }
    default:
      return {};
  }
}

TEST(CliTest, FormsShowsEveryDescribedQuestionWithItsCurrentValue) {
  Cli cli;
  Outcome r = cli.run({"forms"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  size_t checked = 0;
  for (const auto& d : sample::sampleDevices()) {
    std::string device = block(r.out, "Device " + toAscii(d.fqdd));
    ASSERT_FALSE(device.empty()) << toAscii(d.fqdd);
    for (const auto& form : d.formSet.forms) {
      for (const auto& s : form.statements) {
        if (s.current.empty() && s.currentText.empty()) continue;
        std::string statement = block(device, "keyword \"" + toAscii(s.keyword) + "\"");
        EXPECT_NE(statement.find(expectedValue(s)), std::string::npos) << statement;
        ++checked;
      }
    }
  }
  EXPECT_GT(checked, 30u);
}

TEST(CliTest, FormsShowsOptionsDefaultsLimitsAndMarks) {
  Cli cli;
  Outcome r = cli.run({"forms"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  struct Case {
    const char* keyword;  // of the statement
    const char* shown;    // a line of its block
  } cases[] = {
      {"BootMode[ProgWrite:true]", "option \"UEFI with Legacy Fallback\" keyword \"UefiLegacyFallback\" value 2 suppressed"},
      {"BootMode[ProgWrite:true]", "option \"UEFI\" keyword \"Uefi\" value 0 default"},
      {"BootMode[ProgWrite:true]", "storage: varstore 1 \"BiosSetup\" block &OFFSET=0000&WIDTH=0001 width 1 (u8)"},
      {"LegacyOptionRom[ProgUnhide:true]", "marks: suppressed"},
      {"Tpm12Compat", "marks: disabled"},
      {"SecureBoot", "marks: locked"},
      {"PasswordStatus", "marks: read-only flag"},
      {"NodeInterleave[ReadOnlyIf:MemOpMode=MirrorMode]", "marks: read-only, read-only condition (true)"},
      {"ProcVirtualization", "marks: reset required"},
      {"ProcX2Apic", "default 0x0000 \"Standard Defaults\": expression = true"},
      {"ProcPwrLimit", "default 0x0001 \"Manufacturing Defaults\": 125"},
      {"ProcPwrLimit", "range: min 35 max 500 step 5"},
      {"MemPatrolScrub", "width 8 (u64)"},
      {"MemOpMode", "value: 1 (\"Mirror Mode\")"},
      {"BootSeq\"", "default 0x0000 \"Standard Defaults\": [1, 2, 3, 4]"},
      {"TpmSecurity", "storage: varstore 2 \"BiosSecurity\""},
      {"ChapSecret", "length: min 12 max 16 characters"},
      {"IscsiConfigRef", "value: form 2, question 0"},
      {"MacAddr", "text two: \"00:1B:21:3C:4D:5E\""},
  };
  for (const auto& c : cases) {
    std::string statement = block(r.out, std::string("keyword \"") + c.keyword);
    EXPECT_NE(statement.find(c.shown), std::string::npos) << c.keyword << ":\n" << statement;
  }
  EXPECT_NE(r.out.find("varstore 2 efi-variable \"BiosSecurity\" size 4"), std::string::npos);
  EXPECT_NE(r.out.find("default store 0x0001 \"Manufacturing Defaults\""), std::string::npos);
  EXPECT_NE(r.out.find("languages: en-US, x-UEFI"), std::string::npos);
}

TEST(CliTest, DeviceOptionSelectsOneDeviceAndUnknownNamesAreRefused) {
  Cli cli;
  Outcome nic = cli.run({"forms", "--device", "NIC.Integrated.1-1-1"});
  ASSERT_EQ(nic.exitCode, 0) << nic.err;
  EXPECT_NE(nic.out.find("Device NIC.Integrated.1-1-1"), std::string::npos);
  EXPECT_EQ(nic.out.find("BIOS.InternalSetup"), std::string::npos);
  EXPECT_EQ(nic.out.find("form-set filter: none"), nic.out.find("form-set filter:"));

  const std::vector<std::string> refused[] = {
      {"forms", "--device", "NIC.Integrated.9-9-9"},
      {"forms", "--device", "bios.internalsetup.1-1"},
      {"export-hii", "--device", "NIC.Integrated.9-9-9", "-o", cli.path("x.hii")},
  };
  for (const auto& args : refused) {
    Outcome r = cli.run(args);
    EXPECT_EQ(r.exitCode, 2) << args[2];
    EXPECT_NE(r.err.find("no device with FQDD '" + args[2] + "'"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("known devices: BIOS.InternalSetup.1-1, NIC.Integrated.1-1-1"), std::string::npos);
    EXPECT_TRUE(r.out.empty()) << r.out;
  }
}

// ---------------------------------------------------------------- HII files
TEST(CliTest, ExportedFileReadsBackAsTheSameFormSets) {
  Cli cli;
  Bytes bytes = cli.exportAll();
  ASSERT_GT(bytes.size(), 40u);
  Outcome live = cli.run({"forms"});
  Outcome file = cli.run({"forms", "--hii", cli.path("all.hii")});
  ASSERT_EQ(file.exitCode, 0) << file.err;
  // The default (lean) pool changes nothing that the commands print.
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"forms"}, {"forms", "--hii", cli.path("all.hii")}, {"info"}, {"devices"}}) {
    Outcome checked = cli.run(args), lean = cli.run(args, true);
    EXPECT_EQ(lean.exitCode, 0) << args[0] << ": " << lean.err;
    EXPECT_EQ(lean.out, checked.out) << args[0];
  }
  EXPECT_NE(file.out.find("2 package list(s)"), std::string::npos);
  EXPECT_NE(file.out.find("packages: FORMS STRINGS(en-US) STRINGS(x-UEFI) DEVICE_PATH"), std::string::npos);
  EXPECT_EQ(shape(file.out), shape(live.out));
  EXPECT_GT(shape(file.out).size(), 2000u);
  // Nothing can read the stores of a file: the values are the zeros the
  // forms processor reports.
  EXPECT_NE(block(file.out, "keyword \"AssetTag\"").find("value: \"\""), std::string::npos);

  Outcome one = cli.run({"export-hii", "--device", "NIC.Integrated.1-1-1", "-o", cli.path("nic.hii")});
  ASSERT_EQ(one.exitCode, 0) << one.err;
  Outcome nic = cli.run({"forms", "--hii", cli.path("nic.hii")});
  ASSERT_EQ(nic.exitCode, 0) << nic.err;
  EXPECT_NE(nic.out.find("1 package list(s)"), std::string::npos);
  EXPECT_EQ(shape(nic.out), shape(cli.run({"forms", "--device", "NIC.Integrated.1-1-1"}).out));
}

TEST(CliTest, CorruptedFilesAreRefusedWithTheOffsetOfTheBadRecord) {
  Cli cli;
  const Bytes good = cli.exportAll();
  const size_t first = u32At(good, 16);  // the first package list's length
  ASSERT_LT(first, good.size());
  const size_t firstPackage = 20;
  const size_t endPackage = first - 4;
  struct Case {
    const char* name;
    std::function<Bytes(Bytes)> corrupt;
    size_t offset;
    const char* says;
  };
  const Case cases[] = {
      {"empty file", [](Bytes) { return Bytes(); }, 0, "empty"},
      {"cut in the first header", [](Bytes b) { return cut(b, 19); }, 0, "cut short"},
      {"cut after the first header", [](Bytes b) { return cut(b, 21); }, 0, "past the end of the file"},
      {"cut inside the first list", [&](Bytes b) { return cut(b, first - 1); }, 0,
       "past the end of the file"},
      {"cut in the second header", [&](Bytes b) { return cut(b, first + 7); }, first, "cut short"},
      {"cut before the end", [](Bytes b) { return cut(b, b.size() - 1); }, first,
       "past the end of the file"},
      {"list shorter than a header", [](Bytes b) { putU32(b, 16, 23); return b; }, 0, "shorter than"},
      {"list longer than the file", [](Bytes b) { putU32(b, 16, 0x7fffffff); return b; }, 0,
       "past the end of the file"},
      {"package shorter than its header",
       [&](Bytes b) { putU32(b, firstPackage, (u32At(b, firstPackage) & 0xFF000000u) | 2); return b; },
       firstPackage, "shorter than its 4-byte header"},
      {"package past its list",
       [&](Bytes b) { putU32(b, firstPackage, (u32At(b, firstPackage) & 0xFF000000u) | 0xFFFFFF); return b; },
       firstPackage, "runs past the end of its package list"},
      {"unknown package type", [&](Bytes b) { b.at(firstPackage + 3) = 0x33; return b; }, firstPackage,
       "unknown type 0x33"},
      {"END package too long", [&](Bytes b) { putU32(b, endPackage, 0xDF000008u); return b; }, endPackage,
       "runs past the end of its package list"},
      {"END package early",
       [&](Bytes b) { putU32(b, firstPackage, 0xDF000004u); return b; }, firstPackage, "is followed by"},
      // The FORM_SET opcode right after the first forms package header,
      // cut to 3 bytes: found by the forms processor.
      {"malformed IFR in the first list", [&](Bytes b) { b.at(firstPackage + 5) = 0x83; return b; },
       firstPackage + 4, "malformed"},
      {"malformed IFR in the second list", [&](Bytes b) { b.at(first + firstPackage + 5) = 0x83; return b; },
       first + firstPackage + 4, "package list 2 are malformed"},
  };
  ASSERT_EQ(good.at(firstPackage + 3), EFI_HII_PACKAGE_FORMS);
  ASSERT_EQ(good.at(first + firstPackage + 3), EFI_HII_PACKAGE_FORMS);
  ASSERT_EQ(good.at(firstPackage + 4), EFI_IFR_FORM_SET_OP);
  for (const auto& c : cases) {
    cli.write("bad.hii", c.corrupt(good));
    Outcome r = cli.run({"forms", "--hii", cli.path("bad.hii")});
    EXPECT_EQ(r.exitCode, 2) << c.name << ": " << r.err;
    std::string where = "at byte offset " + std::to_string(c.offset) + " (0x";
    EXPECT_NE(r.err.find(where), std::string::npos) << c.name << ": " << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << c.name << ": " << r.err;
    EXPECT_TRUE(r.out.empty()) << c.name;
  }
  // A cut exactly between two lists leaves a valid file of one list.
  cli.write("first.hii", cut(good, first));
  EXPECT_EQ(cli.run({"forms", "--hii", cli.path("first.hii")}).exitCode, 0);
}

TEST(CliTest, WrongArgumentsAreRefusedWithAMessage) {
  Cli cli;
  struct Case {
    std::vector<std::string> args;
    int exitCode;
    const char* says;  // on standard error
  } cases[] = {
      {{}, 2, "usage: tolvane [--checked-pool] <command>"},
      {{"frobnicate"}, 2, "unknown command 'frobnicate'"},
      {{"info", "extra"}, 2, "unexpected argument 'extra'"},
      {{"devices", "--device", "x"}, 2, "unknown option '--device'"},
      {{"forms", "--bogus"}, 2, "unknown option '--bogus'"},
      {{"forms", "--device"}, 2, "option --device needs a value"},
      {{"forms", "--device", "a", "--device", "b"}, 2, "given twice"},
      {{"forms", "--hii", "f", "--device", "x"}, 2, "cannot be combined"},
      {{"forms", "--hii", "/nonexistent/file.hii"}, 2, "cannot read /nonexistent/file.hii"},
      {{"export-hii"}, 2, "no output file"},
      {{"export-hii", "-o", "/nonexistent/dir/x.hii"}, 1, "cannot create /nonexistent/dir/x.hii"},
      {{"--lean-pool", "info"}, 2, "unknown global option '--lean-pool'"},
      {{"info", "--checked-pool"}, 2, "unknown option '--checked-pool'"},  // global options go first
  };
  for (const auto& c : cases) {
    Outcome r = cli.run(c.args, true);
    std::string name = c.args.empty() ? "(none)" : c.args[0];
    EXPECT_EQ(r.exitCode, c.exitCode) << name << ": " << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << name << ": " << r.err;
  }
  EXPECT_NE(cli.run({"--help"}).out.find("--checked-pool  serve the platform's pool"), std::string::npos);
  for (const char* command : {"info", "devices", "forms", "export-hii"}) {
    Outcome r = cli.run({command, "--help"});
    EXPECT_EQ(r.exitCode, 0) << command;
    EXPECT_EQ(r.out.rfind(std::string("usage: tolvane ") + command, 0), 0u) << r.out;
  }
}

}  // namespace
