// The sample devices' documents that HiiToNode made in real firmware are the
// host's, byte for byte: each device of a fresh sample platform (its reset
// state) is exported on the host and compared with the file the firmware
// run wrote for its FQDD. The firmware's files come from the directory in
// TOLVANE_FIRMWARE_DOCUMENTS (a fresh run's output), else from the test
// data kept in tests/data/firmware/.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "host/hii/config_string.h"
#include "host/sample/sample_platform.h"
#include "tests/firmware/firmware_support.h"

namespace {

namespace hii = tvl::host::hii;

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// The file that manifest.txt ("file <TAB> FQDD <TAB> status ..." per device)
// names for a device whose export succeeded, or "" when it names none.
std::string fileOf(const std::string& manifest, const std::string& fqdd) {
  std::istringstream lines(manifest);
  for (std::string line; std::getline(lines, line);)
    if (line.find("\t" + fqdd + "\tSuccess\t") != std::string::npos) return line.substr(0, line.find('\t'));
  return "";
}

TEST(FirmwareDocuments, SampleDevicesExportAsOnTheHost) {
  const char* given = std::getenv("TOLVANE_FIRMWARE_DOCUMENTS");
  const std::string dir = given ? given : std::string(TOLVANE_SOURCE_DIR) + "/tests/data/firmware";
  if (given && !std::ifstream(dir + "/manifest.txt")) GTEST_SKIP() << "no firmware run in " << dir;
  const std::string manifest = readFile(dir + "/manifest.txt");

  tvl::host::sample::SamplePlatform sample;
  EFI_HANDLE driver = nullptr;
  ASSERT_EQ(sample.loadDriver(&driver), EFI_SUCCESS);
  for (auto& device : sample.devices()) {
    const std::string fqdd = hii::toAscii(device.fqdd());
    SCOPED_TRACE(fqdd);
    const std::string file = fileOf(manifest, fqdd);
    ASSERT_FALSE(file.empty()) << "the firmware run exported no device " << fqdd;
    const std::string firmware = readFile(dir + "/" + file + ".xml");
    const std::string host = tvl::test::firmware::combinedDocument(sample.platform(), device.handle());
    EXPECT_EQ(host, firmware);
  }
}

}  // namespace
