// The sample platform's devices as constant data for the sample-device
// image: what a device driver of the platform would carry in its image. The
// data is generated at build time from the same descriptions the host's
// sample platform builds its devices from (host/sample/), so both publish
// the same device paths, package lists and stores.
#pragma once

#include "uefi/base.h"

namespace tvl::sample {

// One field of a default configuration: `size` bytes at `offset`.
struct SampleField {
  UINT16 offset;
  UINT16 size;
  const UINT8* bytes;
};

// The fields that have a default in one default store of the forms.
struct SampleDefaults {
  UINT16 defaultId;
  UINTN fieldCount;
  const SampleField* fields;
};

struct SampleStore {
  EFI_GUID guid;
  const CHAR16* name;
  BOOLEAN variable;  // an EFI variable rather than a buffer the device holds
  UINT32 attributes; // of the variable
  UINTN size;        // of the reset-state bytes
  const UINT8* initial;
  UINTN defaultsCount;  // default configurations, in the order the forms declare their default stores
  const SampleDefaults* defaults;
  BOOLEAN refusesWideZero;  // its driver refuses zero written over a field wider than one byte
};

struct SampleDevice {
  const CHAR16* fqdd;
  const CHAR16* description;
  UINTN pathSize;  // end node included
  const UINT8* path;
  UINTN packageListSize;
  const UINT8* packageList;  // 8-byte aligned
  UINTN storeCount;
  const SampleStore* stores;
};

// Generated.
extern const SampleDevice kSampleDevices[];
extern const UINTN kSampleDeviceCount;

}  // namespace tvl::sample
