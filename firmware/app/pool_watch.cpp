#include "firmware/app/pool_watch.h"

namespace tvl::check {
namespace {

using AllocatePoolFn = EFI_STATUS(EFIAPI*)(EFI_MEMORY_TYPE, UINTN, VOID**);
using FreePoolFn = EFI_STATUS(EFIAPI*)(VOID*);

constexpr UINTN kMaxImages = 8;
constexpr UINTN kSlots = 1u << 14;  // buffers outstanding at once
constexpr UINTN kEmpty = 0;
constexpr UINTN kRemoved = 1;

struct Range {
  UINTN base;
  UINTN size;
};

struct Slot {
  UINTN address;  // kEmpty, kRemoved or a buffer
  UINTN size;
};

// Module state: the patched entries reach it without a context.
struct State {
  AllocatePoolFn allocate;
  FreePoolFn free;
  Range images[kMaxImages];
  UINTN imageCount;
  bool installed;
  bool open;
  PoolGrowth growth;
  Slot slots[kSlots];
};
State gState;

UINTN slotOf(UINTN address) { return (address >> 4) * 0x9E3779B97F4A7C15ull >> 48 & (kSlots - 1); }

bool fromWatchedImage(UINTN caller) {
  for (UINTN i = 0; i < gState.imageCount; ++i)
    if (caller - gState.images[i].base < gState.images[i].size) return true;
  return false;
}

void record(UINTN address, UINTN size) {
  ++gState.growth.allocations;
  for (UINTN n = 0, i = slotOf(address); n < kSlots; ++n, i = (i + 1) & (kSlots - 1)) {
    if (gState.slots[i].address > kRemoved) continue;
    gState.slots[i] = {address, size};
    ++gState.growth.outstanding;
    gState.growth.bytes += size;
    return;
  }
  gState.growth.overflow = true;
}

void cross(UINTN address) {
  for (UINTN n = 0, i = slotOf(address); n < kSlots; ++n, i = (i + 1) & (kSlots - 1)) {
    if (gState.slots[i].address == kEmpty) return;
    if (gState.slots[i].address != address) continue;
    --gState.growth.outstanding;
    gState.growth.bytes -= gState.slots[i].size;
    gState.slots[i].address = kRemoved;
    return;
  }
}

// The watched images never allocate from event notifications, so an
// allocation that interrupts a table update comes from the firmware and
// does not touch the table.
EFI_STATUS EFIAPI watchedAllocatePool(EFI_MEMORY_TYPE type, UINTN size, VOID** buffer) {
  const UINTN caller = reinterpret_cast<UINTN>(__builtin_return_address(0));
  EFI_STATUS status = gState.allocate(type, size, buffer);
  if (status == EFI_SUCCESS && gState.open && buffer && *buffer && fromWatchedImage(caller))
    record(reinterpret_cast<UINTN>(*buffer), size);
  return status;
}

EFI_STATUS EFIAPI watchedFreePool(VOID* buffer) {
  EFI_STATUS status = gState.free(buffer);
  if (status == EFI_SUCCESS && gState.open && buffer) cross(reinterpret_cast<UINTN>(buffer));
  return status;
}

void updateCrc() {
  EFI_BOOT_SERVICES* bs = rt::bs();
  UINT32 crc = 0;
  bs->Hdr.CRC32 = 0;
  bs->CalculateCrc32(bs, bs->Hdr.HeaderSize, &crc);
  bs->Hdr.CRC32 = crc;
}

}  // namespace

PoolWatch::~PoolWatch() {
  if (!gState.installed) return;
  EFI_BOOT_SERVICES* bs = rt::bs();
  EFI_TPL old = bs->RaiseTPL(TPL_HIGH_LEVEL);
  bs->AllocatePool = gState.allocate;
  bs->FreePool = gState.free;
  updateCrc();
  bs->RestoreTPL(old);
  gState.installed = false;
  gState.open = false;
}

EFI_STATUS PoolWatch::watchImage(EFI_HANDLE imageHandle) {
  if (gState.imageCount == kMaxImages) return EFI_OUT_OF_RESOURCES;
  EFI_LOADED_IMAGE_PROTOCOL* image = nullptr;
  RETURN_IF_ERROR(
      rt::bs()->HandleProtocol(imageHandle, &gEfiLoadedImageProtocolGuid, reinterpret_cast<VOID**>(&image)));
  gState.images[gState.imageCount++] = {reinterpret_cast<UINTN>(image->ImageBase), UINTN(image->ImageSize)};
  return EFI_SUCCESS;
}

bool PoolWatch::install() {
  if (gState.installed) return true;
  EFI_BOOT_SERVICES* bs = rt::bs();
  EFI_TPL old = bs->RaiseTPL(TPL_HIGH_LEVEL);
  gState.allocate = bs->AllocatePool;
  gState.free = bs->FreePool;
  bs->AllocatePool = watchedAllocatePool;
  bs->FreePool = watchedFreePool;
  updateCrc();
  bs->RestoreTPL(old);
  gState.installed = true;
  return true;
}

void PoolWatch::begin() {
  rt::setMem(gState.slots, sizeof gState.slots, 0);
  gState.growth = {};
  gState.open = true;
}

PoolGrowth PoolWatch::end() {
  gState.open = false;
  return gState.growth;
}

}  // namespace tvl::check
