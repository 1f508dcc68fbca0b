// Pool growth of the converter and the platform services, measured in real
// firmware: while a window is open, every AllocatePool made from the code
// of a watched image is recorded, and every FreePool of a recorded buffer
// crosses it off. Whatever is left when the window closes was allocated by
// those images and not given back.
//
// The boot-services table is patched for as long as the watch lives (its
// CRC is recomputed both ways); allocations made by the firmware's own
// drivers, at any TPL, pass through untouched.
#pragma once

#include "uefi/protocols.h"
#include "uefi/runtime.h"

namespace tvl::check {

struct PoolGrowth {
  UINTN allocations;  // made by watched images in the window
  UINTN outstanding;  // of those, not freed when it closed
  UINTN bytes;        // their size
  bool overflow;      // more buffers outstanding at once than the table holds
};

class PoolWatch {
 public:
  PoolWatch() = default;
  ~PoolWatch();
  PoolWatch(const PoolWatch&) = delete;
  PoolWatch& operator=(const PoolWatch&) = delete;

  // Watches the code of the image loaded as `imageHandle`.
  EFI_STATUS watchImage(EFI_HANDLE imageHandle);
  // Patches the table; false when it could not.
  bool install();
  void begin();
  PoolGrowth end();
};

}  // namespace tvl::check
