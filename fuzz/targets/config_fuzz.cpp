// ExtractConfig and RouteConfig of the sample devices on arbitrary
// configuration strings. The first byte picks the device and the call; the
// rest is the string, one character per byte (configuration strings are
// ASCII, so the fuzzer's mutations stay in the alphabet that matters).
#include <string>

#include "fuzz/support.h"

namespace {

using tvl::fuzz::fail;

size_t length16(const CHAR16* text) {
  size_t n = 0;
  while (text[n]) ++n;
  return n;
}

void checkProgress(const CHAR16* text, const EFI_STRING progress, const char* call) {
  if (!progress) return;
  if (progress < text || progress > text + length16(text))
    fail(std::string(call) + " sets Progress outside the string");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  tvl::fuzz::Session& s = tvl::fuzz::session();
  auto& devices = s.sample->devices();
  auto& device = devices[(data[0] & 0x3F) % devices.size()];
  const unsigned call = data[0] >> 6;
  std::u16string text;
  for (size_t i = 1; i < size; ++i) text.push_back(char16_t(data[i]));

  tvl::fuzz::PoolWatch watch(*s.platform);
  EFI_HII_CONFIG_ACCESS_PROTOCOL* access = device.device->configAccess();
  CHAR16* string = tvl::fuzz::poolText16(text);
  EFI_STRING progress = nullptr;
  if (call < 2) {
    EFI_STRING results = nullptr;
    const bool whole = call == 1 && text.empty();
    EFI_STATUS status = access->ExtractConfig(access, whole ? nullptr : string, &progress, &results);
    if (!whole) checkProgress(string, progress, "ExtractConfig");
    if (status == EFI_SUCCESS) {
      if (!results) fail("ExtractConfig succeeds without results");
      length16(results);
    } else if (results) {
      fail("a failed ExtractConfig hands out results");
    }
    tvl::fuzz::freePool(results);
  } else {
    access->RouteConfig(access, string, &progress);
    checkProgress(string, progress, "RouteConfig");
  }
  tvl::fuzz::freePool(string);
  s.reset();
  watch.check("the configuration call");
  return 0;
}
