// NodeToHii and then the NodeSaveToHii slot on arbitrary pending
// documents against the sample BIOS device. Both are called through the
// converter protocol record, so whatever sits in the slots is exercised.
#include <string>

#include "fuzz/support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using tvl::fuzz::fail;
  tvl::fuzz::Session& s = tvl::fuzz::session();
  tvl::fuzz::PoolWatch watch(*s.platform);
  XML_NODE* pending = tvl::fuzz::parse(s, std::string(reinterpret_cast<const char*>(data), size));
  if (!pending) return 0;
  const EFI_HANDLE bios = s.bios().handle();
  CHAR16* request = nullptr;
  XML_NODE* results = nullptr;
  EFI_STATUS status = s.converter->NodeToHii(s.converter, bios, pending, &request, &results);
  // Some items failing while others were accepted is EFI_ABORTED, with the
  // request of the accepted ones; any other failure hands out none.
  if (EFI_ERROR(status) && status != EFI_ABORTED && request) fail("a failed NodeToHii hands out a request");
  if (request) {
    s.converter->NodeSaveToHii(s.converter, bios, request, &results);
    tvl::fuzz::freePool(request);
  }
  if (results) {
    CHAR8* text = nullptr;
    if (s.xml->XML_NodeToXML(s.xml, results, &text) != EFI_SUCCESS) fail("the results document does not serialise");
    tvl::fuzz::freePool(text);
  }
  tvl::fuzz::freeTree(s, results);
  tvl::fuzz::freeTree(s, pending);
  s.reset();
  watch.check("the import");
  return 0;
}
