// The sample devices' documents that HiiToNode made in real firmware are the
// host's, byte for byte: each device of a fresh sample platform (its reset
// state) is exported on the host and compared with the file the firmware
// run wrote for its FQDD. The firmware's files come from the directory in
// TOLVANE_FIRMWARE_DOCUMENTS (a fresh run's output), else from the test
// data kept in tests/data/firmware/.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include "host/hii/config_string.h"
#include "host/sample/sample_platform.h"
#include "tests/firmware/firmware_support.h"

namespace {

namespace hii = tvl::host::hii;

struct Row {
  std::string file;
  std::string status;
};

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// manifest.txt: "file <TAB> FQDD <TAB> status <TAB> lists <TAB> path" per
// device, '#' lines are comments. By FQDD.
std::map<std::string, Row> readManifest(const std::string& path) {
  std::map<std::string, Row> rows;
  std::istringstream lines(readFile(path));
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> fields;
    std::istringstream columns(line);
    for (std::string field; std::getline(columns, field, '\t');) fields.push_back(field);
    if (fields.size() >= 3) rows[fields[1]] = {fields[0], fields[2]};
  }
  return rows;
}

// The first difference of two texts, with a little context, for the message.
std::string firstDifference(const std::string& host, const std::string& firmware) {
  size_t at = 0;
  while (at < host.size() && at < firmware.size() && host[at] == firmware[at]) ++at;
  const size_t from = at < 40 ? 0 : at - 40;
  return "first difference at byte " + std::to_string(at) + " (host " + std::to_string(host.size()) +
         " bytes, firmware " + std::to_string(firmware.size()) + ")\n  host:     ..." + host.substr(from, 100) +
         "\n  firmware: ..." + firmware.substr(from, 100);
}

TEST(FirmwareDocuments, SampleDevicesExportAsOnTheHost) {
  const char* given = std::getenv("TOLVANE_FIRMWARE_DOCUMENTS");
  const std::string dir = given ? given : std::string(TOLVANE_SOURCE_DIR) + "/tests/data/firmware";
  if (given && !std::ifstream(dir + "/manifest.txt")) GTEST_SKIP() << "no firmware run in " << dir;
  const std::map<std::string, Row> manifest = readManifest(dir + "/manifest.txt");
  ASSERT_FALSE(manifest.empty()) << dir << "/manifest.txt lists no device";

  tvl::host::sample::SamplePlatform sample;
  EFI_HANDLE driver = nullptr;
  ASSERT_EQ(sample.loadDriver(&driver), EFI_SUCCESS);
  for (auto& device : sample.devices()) {
    const std::string fqdd = hii::toAscii(device.fqdd());
    SCOPED_TRACE(fqdd);
    auto row = manifest.find(fqdd);
    ASSERT_NE(row, manifest.end()) << "the firmware run exported no device " << fqdd;
    EXPECT_EQ(row->second.status, "Success");
    const std::string firmware = readFile(dir + "/" + row->second.file + ".xml");
    const std::string host = tvl::test::firmware::combinedDocument(sample.platform(), device.handle());
    EXPECT_EQ(host.rfind("<ConfigData", 0), 0u) << host;
    EXPECT_TRUE(host == firmware) << firstDifference(host, firmware);
  }
}

}  // namespace
