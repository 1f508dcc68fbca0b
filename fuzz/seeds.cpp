// Writes seed inputs for every fuzz target into DIR/<target>/, one file per
// input named by its contents' hash: the sample platform's package lists,
// configuration headers and strings, keyword strings and documents, and a
// state file. scripts/fuzz-seeds merges them into the committed corpora.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "fuzz/support.h"
#include "host/sample/sample_devices.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;
std::string gOut;

void write(const std::string& target, const Bytes& bytes) {
  const fs::path dir = fs::path(gOut) / target;
  fs::create_directories(dir);
  const size_t hash = std::hash<std::string>{}(std::string(bytes.begin(), bytes.end()));
  char name[32];
  std::snprintf(name, sizeof name, "seed-%016zx", hash);
  std::ofstream(dir / name, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}
void write(const std::string& target, const std::string& text) { write(target, Bytes(text.begin(), text.end())); }

std::string serialise(tvl::fuzz::Session& s, XML_NODE* root) {
  CHAR8* text = nullptr;
  if (!root || s.xml->XML_NodeToXML(s.xml, root, &text) != EFI_SUCCESS) return {};
  std::string out(reinterpret_cast<const char*>(text));
  tvl::fuzz::freePool(text);
  return out;
}

std::string narrow(const CHAR16* text) {
  std::string out;
  for (; text && *text; ++text) out.push_back(char(*text));
  return out;
}

// One pending document per ConfigItem of a current-values document: the
// item with a pending commit index inside the document's outer elements.
void pendingItems(const std::string& current) {
  const size_t first = current.find("<ConfigItem");
  const size_t last = current.rfind("</ConfigItem>");
  if (first == std::string::npos || last == std::string::npos) return;
  const std::string head = current.substr(0, first);
  const std::string tail = current.substr(last + 13);
  for (size_t at = first; at != std::string::npos && at < last; at = current.find("<ConfigItem", at + 1)) {
    const size_t end = current.find("</ConfigItem>", at);
    std::string item = current.substr(at, end + 13 - at);
    const size_t index = item.find("<CommitIndex>0<");
    if (index != std::string::npos) item.replace(index, 14, "<CommitIndex>1");
    write("import", head + item + tail);
  }
  write("import", current);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
    return 2;
  }
  gOut = argv[1];
  tvl::fuzz::Session& s = tvl::fuzz::session();
  auto& hii = s.sample->hii();
  Bytes all;
  unsigned deviceIndex = 0;
  for (auto& device : s.sample->devices()) {
    // Package lists: the forms processor, the file reader.
    for (EFI_HII_HANDLE list : device.packageLists()) {
      Bytes bytes;
      if (hii.exportPackageLists(list, bytes) != EFI_SUCCESS) continue;
      write("forms", bytes);
      write("hii_file", bytes);
      all.insert(all.end(), bytes.begin(), bytes.end());
    }
    // Configuration strings: the whole answer of every store, and each
    // header alone, for ExtractConfig (call 0) and RouteConfig (call 2).
    EFI_HII_CONFIG_ACCESS_PROTOCOL* access = device.device->configAccess();
    EFI_STRING progress = nullptr;
    EFI_STRING results = nullptr;
    if (access->ExtractConfig(access, nullptr, &progress, &results) == EFI_SUCCESS) {
      const std::string text = narrow(results);
      for (size_t at = 0; at < text.size();) {
        size_t next = text.find("&GUID=", at + 1);
        if (next == std::string::npos) next = text.size();
        std::string piece = text.substr(at == 0 ? 0 : at + 1, next - (at == 0 ? 0 : at + 1));
        const size_t offset = piece.find("&OFFSET=");
        for (unsigned call : {0u, 2u}) {
          write("config", std::string(1, char(call << 6 | deviceIndex)) + piece);
          if (offset != std::string::npos)
            write("config", std::string(1, char(call << 6 | deviceIndex)) + piece.substr(0, offset));
        }
        at = next;
      }
      tvl::fuzz::freePool(results);
    }
    write("config", std::string(1, char(1 << 6 | deviceIndex)));
    // Documents: the XML parser, the import (BIOS device).
    XML_NODE* possible = nullptr;
    XML_NODE* current = nullptr;
    if (s.converter->HiiToNode(s.converter, device.handle(), &possible, &current) == EFI_SUCCESS) {
      write("xml", serialise(s, possible));
      const std::string currentText = serialise(s, current);
      write("xml", currentText);
      if (device.fqdd() == tvl::host::sample::kBiosFqdd) pendingItems(currentText);
    }
    tvl::fuzz::freeTree(s, possible);
    tvl::fuzz::freeTree(s, current);
    // Keyword strings of the device, as the keyword target reads them.
    for (EFI_STRING_ID id = 1; id < 0x800; ++id) {
      CHAR16 buffer[4096];
      UINTN size = sizeof buffer;
      EFI_HII_STRING_PROTOCOL* strings = hii.strings();
      if (strings->GetString(strings, "x-UEFI", device.packageLists().front(), id, buffer, &size, nullptr) !=
          EFI_SUCCESS)
        continue;
      const std::string text = narrow(buffer);
      if (text.find('[') != std::string::npos) write("keyword", std::string{char(deviceIndex), char(id)} + text);
    }
    ++deviceIndex;
  }
  write("hii_file", all);
  // The state file of the platform as built, and with passwords set.
  tvl::host::sample::SampleState state = tvl::host::sample::captureState(*s.sample);
  write("state", tvl::host::sample::formatState(state));
  state.passwordVariables.push_back({"SetupPassword", {1, 2, 3, 4}});
  state.passwordVariables.push_back({"PasswordDisabled", {2}});
  write("state", tvl::host::sample::formatState(state));
  // Password items: flags, then the eight values.
  write("password", std::string("\x01\x01\x01\x01\x01\x01\x01\x01\nc2VjcmV0\n\nb3RoZXI=\n\n\n\n\n"));
  write("password", std::string("\x01\x00\x01\x00\n\n\nQQ==\n"));
  write("password", std::string("\0\0\0\0\x03\x01\x03\x01\n\n\n\n\n" +
                                std::string(64, 'a') + "\nsalt\n" + std::string(64, 'F') + "\n\n", 80));
  return 0;
}
