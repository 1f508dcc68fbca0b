// base64Decode on arbitrary texts, and the SetBIOSPassword slot of the
// converter record on documents whose password items hold them. The input
// is split at newlines: the first piece decides which items are pending
// and which values are marked Base64; the others are the values of the
// items in order.
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/support.h"
#include "password/base64.h"

namespace {

using tvl::fuzz::fail;

constexpr const char* kItems[] = {"SetupPassword",       "OldSetupPassword",        "SysPassword",
                                  "OldSysPassword",      "SHA256SetupPassword",     "SHA256SetupPasswordSalt",
                                  "SHA256SystemPassword", "SHA256SystemPasswordSalt"};
constexpr size_t kItemCount = sizeof kItems / sizeof kItems[0];

std::string escaped(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '&') out += "&amp;";
    else if (c == '<') out += "&lt;";
    else if (c == '>') out += "&gt;";
    else out += c;
  }
  return out;
}

void decode(tvl::fuzz::Session& s, const std::string& text) {
  auto length = s.driverFunction<decltype(&base64DecodedLength)>("base64DecodedLength");
  auto decoder = s.driverFunction<decltype(&base64Decode)>("base64Decode");
  CHAR8* input = tvl::fuzz::poolText(text);
  const UINTN expected = length(input);
  // Exactly as many bytes as promised, so a longer write is caught.
  std::vector<UINT8> output(expected ? expected : 1);
  UINTN written = ~UINTN(0);
  decoder(input, output.data(), &written);
  if (written != expected) fail("base64Decode writes another length than base64DecodedLength gives");
  if (expected > (text.size() + 3) / 4 * 3) fail("base64DecodedLength promises more than the text can hold");
  tvl::fuzz::freePool(input);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tvl::fuzz::Session& s = tvl::fuzz::session();
  tvl::fuzz::PoolWatch watch(*s.platform);
  std::string input(reinterpret_cast<const char*>(data), size);
  if (std::memchr(input.data(), 0, input.size())) input.resize(std::strlen(input.c_str()));
  std::vector<std::string> pieces;
  for (size_t at = 0;;) {
    size_t end = input.find('\n', at);
    pieces.push_back(input.substr(at, end == std::string::npos ? std::string::npos : end - at));
    if (end == std::string::npos) break;
    at = end + 1;
  }
  for (size_t i = 1; i < pieces.size(); ++i) decode(s, pieces[i]);
  decode(s, input);
  watch.check("base64Decode");

  const std::string& flags = pieces[0];
  std::string document = "<ConfigData><ConfigDataEntry><FormSet><Form>";
  for (size_t i = 0; i < kItemCount && i + 1 < pieces.size(); ++i) {
    const unsigned char flag = i < flags.size() ? static_cast<unsigned char>(flags[i]) : 0;
    document += "<ConfigItem><Name>" + std::string(kItems[i]) + "</Name>";
    if (!(flag & 4)) document += std::string("<CommitIndex>") + (flag & 1 ? "1" : "0") + "</CommitIndex>";
    document += "<ValueStruct><Value";
    if (!(flag & 2)) document += " Encoding=\"Base64\"";
    document += ">" + escaped(pieces[i + 1]) + "</Value></ValueStruct></ConfigItem>";
  }
  document += "</Form></FormSet></ConfigDataEntry></ConfigData>";
  XML_NODE* root = tvl::fuzz::parse(s, document);
  if (root) {
    XML_NODE* results = nullptr;
    s.converter->SetBIOSPassword(s.converter, root, &results);
    tvl::fuzz::freeTree(s, results);
    tvl::fuzz::freeTree(s, root);
  }
  s.reset();
  watch.check("SetBIOSPassword");
  return 0;
}
