// The export on arbitrary keyword texts. Each input is read twice: by the
// keyword readers directly (dependencies, modifiers, token walk), and as
// the "x-UEFI" string of one of a sample device's strings, which a whole
// export of that device then reads as a question's prompt. The first two
// bytes pick the device and the string; the rest is the text.
#include <cstring>
#include <string>
#include <vector>

#include "export/keyword.h"
#include "fuzz/support.h"

namespace {

using tvl::fuzz::fail;
using tvl::fuzz::Session;

constexpr CHAR8 kKeywordLanguage[] = "x-UEFI";

// The strings each device has in the keyword language, found once.
struct DeviceStrings {
  EFI_HII_HANDLE list = nullptr;
  std::vector<EFI_STRING_ID> ids;
};

std::u16string getString(EFI_HII_STRING_PROTOCOL* strings, EFI_HII_HANDLE list, EFI_STRING_ID id, bool* found) {
  CHAR16 buffer[4096];
  UINTN size = sizeof buffer;
  *found = strings->GetString(strings, kKeywordLanguage, list, id, buffer, &size, nullptr) == EFI_SUCCESS;
  return *found ? std::u16string(buffer) : std::u16string();
}

const std::vector<DeviceStrings>& deviceStrings(Session& s) {
  static std::vector<DeviceStrings>* all = nullptr;
  if (all) return *all;
  all = new std::vector<DeviceStrings>;
  EFI_HII_STRING_PROTOCOL* strings = s.sample->hii().strings();
  for (auto& device : s.sample->devices()) {
    DeviceStrings d;
    d.list = device.packageLists().front();
    for (EFI_STRING_ID id = 1; id < 0x800; ++id) {
      bool found = false;
      getString(strings, d.list, id, &found);
      if (found) d.ids.push_back(id);
    }
    if (!d.ids.empty()) all->push_back(d);
  }
  if (all->empty()) fail("no sample device has keyword strings");
  s.reset();
  return *all;
}

// What the readers build must serialise: the export hands it on as text.
void checkSerialises(Session& s, XML_NODE* node, const char* what) {
  if (!node) return;
  CHAR8* text = nullptr;
  if (s.xml->XML_NodeToXML(s.xml, node, &text) != EFI_SUCCESS) fail(std::string(what) + " does not serialise");
  tvl::fuzz::freePool(text);
}

void readDirectly(Session& s, const std::string& text) {
  auto dependencies = s.driverFunction<decltype(&createDependenciesNode)>("createDependenciesNode");
  auto modifiers = s.driverFunction<decltype(&createModifierNodes)>("createModifierNodes");
  auto nextToken = s.driverFunction<decltype(&getNextKeywordToken)>("getNextKeywordToken");
  auto hasValue = s.driverFunction<decltype(&hasKeywordValue)>("hasKeywordValue");
  auto hasCondition = s.driverFunction<decltype(&hasConditionToken)>("hasConditionToken");
  // The export narrows strings to printable ASCII before these readers see
  // them; only such texts must give elements that serialise (other bytes
  // are carried into the elements as they are).
  bool printable = true;
  for (char c : text) printable = printable && c >= 0x20 && c < 0x7F;
  CHAR8* keyword = tvl::fuzz::poolText(text);
  XML_NODE* node = nullptr;
  if (dependencies(keyword, &node) == EFI_SUCCESS && printable) checkSerialises(s, node, "a Dependencies element");
  tvl::fuzz::freeTree(s, node);
  node = nullptr;
  if (modifiers(keyword, &node) == EFI_SUCCESS && printable) checkSerialises(s, node, "a Modifier chain");
  tvl::fuzz::freeTree(s, node);
  CHAR8* key = nullptr;
  CHAR8* value = nullptr;
  const CHAR8* rest = keyword;
  const size_t length = text.size();
  for (size_t tokens = 0; nextToken(rest, &key, &value, &rest) == EFI_SUCCESS; ++tokens) {
    if (!rest || rest < keyword || rest > keyword + length || tokens > length) fail("the token walk runs away");
  }
  tvl::fuzz::freePool(key);
  tvl::fuzz::freePool(value);
  hasValue(keyword, reinterpret_cast<const CHAR8*>("ProgWrite"), reinterpret_cast<const CHAR8*>("true"));
  hasCondition(keyword);
  tvl::fuzz::freePool(keyword);
}

void exportWithPrompt(Session& s, uint8_t deviceByte, uint8_t stringByte, const std::string& text) {
  const auto& all = deviceStrings(s);
  const DeviceStrings& d = all[deviceByte % all.size()];
  const EFI_STRING_ID id = d.ids[stringByte % d.ids.size()];
  EFI_HII_STRING_PROTOCOL* strings = s.sample->hii().strings();
  bool found = false;
  const std::u16string original = getString(strings, d.list, id, &found);
  std::u16string wide(text.begin(), text.end());
  for (char16_t& c : wide) c = char16_t(c & 0xFF);
  if (strings->SetString(strings, d.list, id, kKeywordLanguage, wide.c_str(), nullptr) != EFI_SUCCESS)
    fail("cannot set a keyword string");
  EFI_HANDLE controller = nullptr;
  for (auto& device : s.sample->devices())
    if (device.packageLists().front() == d.list) controller = device.handle();
  XML_NODE* possible = nullptr;
  XML_NODE* current = nullptr;
  EFI_STATUS status = s.converter->HiiToNode(s.converter, controller, &possible, &current);
  if (status == EFI_SUCCESS) {
    checkSerialises(s, possible, "the possible-values document");
    checkSerialises(s, current, "the current-values document");
  } else if (possible || current) {
    fail("a failed export hands out a document");
  }
  tvl::fuzz::freeTree(s, possible);
  tvl::fuzz::freeTree(s, current);
  if (strings->SetString(strings, d.list, id, kKeywordLanguage, original.c_str(), nullptr) != EFI_SUCCESS)
    fail("cannot restore a keyword string");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  Session& s = tvl::fuzz::session();
  deviceStrings(s);
  std::string text(reinterpret_cast<const char*>(data) + 2, size - 2);
  if (std::memchr(text.data(), 0, text.size())) text.resize(std::strlen(text.c_str()));
  tvl::fuzz::PoolWatch watch(*s.platform);
  readDirectly(s, text);
  watch.check("the keyword readers");
  if (!(data[0] & 0x80)) exportWithPrompt(s, data[0], data[1], text);
  s.reset();
  watch.check("the export with a fuzzed prompt");
  return 0;
}
