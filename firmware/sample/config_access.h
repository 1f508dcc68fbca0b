// EFI_HII_CONFIG_ACCESS_PROTOCOL of a sample device in firmware: ExtractConfig
// and RouteConfig over the device's stores, with the answers, validation and
// Progress positions of the host's sample devices (host/devices/device.h):
//
// ExtractConfig(Request):
// - null Request: every store, whole, as <ConfigHdr>&OFFSET=0000&WIDTH=
//   <size>&VALUE=<digits>, each followed by its default configurations
//   ("&<ConfigHdr>&ALTCFG=<DefaultId>" and the fields that fit the store),
//   joined by '&'; Progress is set to null;
// - a <ConfigHdr> alone: that store, whole, with its default configurations
//   under the header as written;
// - a <ConfigHdr> with OFFSET/WIDTH blocks: the header and each block as
//   written, each block followed by &VALUE=.
// RouteConfig(Configuration): a <ConfigHdr> and OFFSET/WIDTH/VALUE blocks,
// applied only when the whole string is valid; a store marked
// refusesWideZero refuses a block wider than one byte whose value is all
// zeros (EFI_INVALID_PARAMETER, Progress at that block).
// Statuses: EFI_INVALID_PARAMETER for null arguments, syntax errors and
// fields outside the store (Progress at the '&' of the pair at fault, the
// start of the string for the first pair); EFI_NOT_FOUND when GUID, NAME
// or PATH names no store of this device (Progress at the start); a failed
// read of an EFI variable store gives the variable service's status;
// EFI_OUT_OF_RESOURCES when the pool refuses the Results string.
#pragma once

#include "firmware/sample/sample_data.h"
#include "uefi/protocols.h"

namespace tvl::sample {

struct PublishedStore {
  const SampleStore* data;
  UINT8* bytes;  // a buffer store's current bytes (data->size); null for an EFI variable
};

// One published device; the protocol comes first, so that the interface
// pointer is the device.
struct PublishedDevice {
  EFI_HII_CONFIG_ACCESS_PROTOCOL access;
  UINT64 signature;
  const SampleDevice* data;
  PublishedStore* stores;  // data->storeCount
  EFI_HANDLE handle;
  EFI_HII_HANDLE hiiHandle;
};

inline constexpr UINT64 kPublishedDeviceSignature = 0x3143564453565454ull;  // "TTVSDVC1"

EFI_STATUS EFIAPI SampleExtractConfig(const EFI_HII_CONFIG_ACCESS_PROTOCOL* This, const CHAR16* Request,
                                      EFI_STRING* Progress, EFI_STRING* Results);
EFI_STATUS EFIAPI SampleRouteConfig(const EFI_HII_CONFIG_ACCESS_PROTOCOL* This, const CHAR16* Configuration,
                                    EFI_STRING* Progress);
EFI_STATUS EFIAPI SampleCallback(const EFI_HII_CONFIG_ACCESS_PROTOCOL* This, EFI_BROWSER_ACTION Action,
                                 EFI_QUESTION_ID QuestionId, UINT8 Type, EFI_IFR_TYPE_VALUE_RAW* Value,
                                 EFI_BROWSER_ACTION_REQUEST* ActionRequest);

}  // namespace tvl::sample
