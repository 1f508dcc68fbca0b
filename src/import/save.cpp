// NodeSaveToHii: the request text of an import written into the device.
// Each "GUID=" segment is looked up among the device's forms; unchanged
// values count as written, refused ones mark their record, the rest go to
// the device's RouteConfig, once more as a one-byte zero write when the
// device rejects a zero value of several bytes.
#include "import/save.h"

#include "driver/trace.h"
#include "import/internal.h"
#include "util/text.h"

using tvl::rt::Pool;

namespace tvl::imp {
namespace {

constexpr CHAR8 kFunction[] = "tvlNodeSaveToHii";
constexpr UINTN kGuidFieldLength = 5;  // "GUID="

struct SaveCall {
  EFI_HII_CONFIG_ACCESS_PROTOCOL* access = nullptr;
  EFI_HANDLE driver = nullptr;
  XML_NODE** results = nullptr;
  EFI_STATUS overall = EFI_DEVICE_ERROR;  // nothing written yet
  UINTN counter = 0;
  RecordIndex records;
  bool indexTried = false;
  bool indexed = false;

  // The first write turns "nothing written" into success, or into a mix
  // when earlier segments were taken without being written.
  void success() {
    if (overall == EFI_DEVICE_ERROR) overall = counter == 1 ? EFI_SUCCESS : EFI_ABORTED;
  }
  void failure(const CHAR8* name, UINT64 code) {
    if (overall == EFI_SUCCESS) overall = EFI_ABORTED;
    // The records are indexed at the first mark; a refused index falls
    // back to the search of addErrorNode itself.
    if (!indexTried && results && *results) {
      indexTried = true;
      indexed = !EFI_ERROR(records.build(*results));
    }
    markErrorRecord(name, code, results, indexed ? &records : nullptr);
  }
};

EFI_STATUS route(SaveCall& call, CHAR16* configuration) {
  EFI_STRING progress = nullptr;
  EFI_STATUS status = call.access->RouteConfig(call.access, configuration, &progress);
  trace(TVL_LEVEL_PROGRESS, kFunction, u"HiiConfigAccess->RouteConfig: %r (%d)\n", status, UINT32(call.counter));
  return status;
}

// Writes one segment: a zero value that the device rejects as invalid is
// tried once more as a one-byte zero write.
EFI_STATUS write(SaveCall& call, CHAR16* segment) {
  trace(TVL_LEVEL_FAILURE, kFunction, u"Processing Request: %s\n", segment);
  EFI_STATUS status = route(call, segment);
  if (status != EFI_INVALID_PARAMETER) return status;
  Pool<CHAR16> trimmed(TrimConfigRequest(segment));
  if (!trimmed) return status;
  trace(TVL_LEVEL_FAILURE, kFunction, u"Processing Retry: %s\n", trimmed.get());
  return route(call, trimmed.get());
}

enum class Next { Segment, Stop };

// One segment of `length` characters at `start`. A status that ends the
// call comes back through `end`.
Next saveSegment(SaveCall& call, const CHAR16* start, UINTN length, EFI_STATUS* end) {
  Pool<CHAR16> segment = rt::duplicate(start, length);
  if (!segment) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"TempConfigRequest = NULL\n");
    *end = EFI_OUT_OF_RESOURCES;
    return Next::Stop;
  }
  const CHAR16* offset = findWide(segment.get(), u"&OFFSET=");
  if (!offset) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"&OFFSET= is missing in CfgReq\n");
    *end = EFI_INVALID_PARAMETER;
    return Next::Stop;
  }
  Pool<CHAR16> configHdr = rt::duplicate(segment.get(), UINTN(offset - segment.get()));
  if (!configHdr) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"CfgHdr = NULL\n");
    *end = EFI_OUT_OF_RESOURCES;
    return Next::Stop;
  }
  Pool<CHAR16> blockName = rt::duplicate(offset);
  if (!blockName) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"BlockName = NULL\n");
    *end = EFI_OUT_OF_RESOURCES;
    return Next::Stop;
  }

  ++call.counter;
  Pool<CHAR8> name;
  UINT64 verdict = kVerdictWrite;
  // A segment that addresses no statement is passed over.
  if (EFI_ERROR(GetInfoByBlockName(call.driver, configHdr.get(), blockName.get(), name.receive(), &verdict)))
    return Next::Segment;
  if (verdict == kVerdictUnchanged) {
    trace(TVL_LEVEL_PROGRESS, kFunction, u"Statement Value has not changed\n");
    call.success();
    return Next::Segment;
  }
  if (verdict != kVerdictWrite) {
    call.failure(name.get(), verdict);
    return Next::Segment;
  }
  EFI_STATUS status = write(call, segment.get());
  if (!EFI_ERROR(status)) {
    call.success();
    return Next::Segment;
  }
  call.failure(name.get(), UINT64(status));
  return mFailureMode == 1 ? Next::Stop : Next::Segment;
}

EFI_STATUS save(EFI_HANDLE driver, const CHAR16* request, XML_NODE** results) {
  SaveCall call;
  call.driver = driver;
  call.results = results;
  if (!driver || !request || !results) return EFI_INVALID_PARAMETER;
  VOID* access = nullptr;
  RETURN_IF_ERROR(rt::bs()->HandleProtocol(driver, &gEfiHiiConfigAccessProtocolGuid, &access));
  call.access = static_cast<EFI_HII_CONFIG_ACCESS_PROTOCOL*>(access);

  const CHAR16* start = findWide(request, u"GUID=");
  if (!start) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"GUID= is missing in ConfigRequest!\n");
    return EFI_INVALID_PARAMETER;
  }
  while (start) {
    const CHAR16* next = findWide(start + kGuidFieldLength, u"GUID=");
    const UINTN length = next ? UINTN(next - start) : rt::length(start);
    EFI_STATUS end = EFI_SUCCESS;
    if (saveSegment(call, start, length, &end) == Next::Stop) {
      if (EFI_ERROR(end)) return end;
      break;
    }
    start = next;
  }
  return call.overall;
}

}  // namespace
}  // namespace tvl::imp

extern "C" {

EFI_STATUS EFIAPI tvlNodeSaveToHii(TOLVANE_PROTOCOL*, EFI_HANDLE DriverHandle, CHAR16* ConfigRequest,
                                   XML_NODE** ConfigResults) {
  tvl::trace(TVL_LEVEL_FAILURE, tvl::imp::kFunction, u"ConfigRequest: %s\n", ConfigRequest);
  // The results root is changed in place; the slot keeps the root it held.
  return tvl::imp::save(DriverHandle, ConfigRequest, ConfigResults);
}

CHAR16* TrimConfigRequest(const CHAR16* ConfigRequest) {
  using namespace tvl;
  constexpr CHAR8 kTrim[] = "TrimConfigRequest";
  trace(TVL_LEVEL_PROGRESS, kTrim, u"Entered\n");
  if (!ConfigRequest) return nullptr;
  const CHAR16* widthField = imp::findWide(ConfigRequest, u"WIDTH=");
  if (!widthField) return nullptr;
  const CHAR16* digits = widthField + 6;
  while (*digits == u' ' || *digits == u'\t' || *digits == u'0') ++digits;
  // A width past 2^60 bytes is more zeros than any text holds.
  constexpr UINT64 kMostZeros = ~UINT64(0) >> 4;
  const UINT64 width = hexNumberUpTo(digits, kMostZeros);
  if (width > kMostZeros) return nullptr;
  const CHAR16* valueField = imp::findWide(ConfigRequest, u"VALUE=");
  if (!valueField) return nullptr;
  // Twice the width in zeros; the terminator or any other digit ends the
  // check first, so no width reads past the text.
  const CHAR16* value = valueField + 6;
  for (UINT64 i = 0; i < width; ++i, value += 2)
    if (value[0] != u'0' || value[1] != u'0') return nullptr;

  static constexpr CHAR16 kTail[] = u"1&VALUE=00";
  const UINTN prefix = UINTN(widthField + 6 - ConfigRequest);
  const UINTN tail = rt::length(kTail);
  rt::Pool<CHAR16> trimmed = rt::Pool<CHAR16>::zeroed(prefix + tail + 1);
  if (!trimmed) return nullptr;
  rt::copyMem(trimmed.get(), ConfigRequest, prefix * sizeof(CHAR16));
  rt::copyMem(trimmed.get() + prefix, kTail, tail * sizeof(CHAR16));
  trace(TVL_LEVEL_FAILURE, kTrim, u"trimmedConfigRequest: %s\n", trimmed.get());
  return trimmed.release();
}

}  // extern "C"
