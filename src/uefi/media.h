// UEFI protocols of the boot media and of device-path display, which the
// firmware's test application uses: simple file system, file, and device
// path to text.
#pragma once

#include "uefi/protocols.h"

#define EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_GUID \
  { 0x964e5b22, 0x6459, 0x11d2, { 0x8e, 0x39, 0x00, 0xa0, 0xc9, 0x69, 0x72, 0x3b } }
#define EFI_DEVICE_PATH_TO_TEXT_PROTOCOL_GUID \
  { 0x8b843e20, 0x8132, 0x4852, { 0x90, 0xcc, 0x55, 0x1a, 0x4e, 0x4a, 0x7f, 0x1c } }

inline constexpr EFI_GUID gEfiSimpleFileSystemProtocolGuid = EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_GUID;
inline constexpr EFI_GUID gEfiDevicePathToTextProtocolGuid = EFI_DEVICE_PATH_TO_TEXT_PROTOCOL_GUID;

// ---------------------------------------------------------------- files
#define EFI_FILE_MODE_READ 0x0000000000000001ULL
#define EFI_FILE_MODE_WRITE 0x0000000000000002ULL
#define EFI_FILE_MODE_CREATE 0x8000000000000000ULL
#define EFI_FILE_DIRECTORY 0x0000000000000010ULL

struct EFI_FILE_PROTOCOL {
  UINT64 Revision;
  EFI_STATUS(EFIAPI* Open)(EFI_FILE_PROTOCOL* This, EFI_FILE_PROTOCOL** NewHandle, const CHAR16* FileName,
                           UINT64 OpenMode, UINT64 Attributes);
  EFI_STATUS(EFIAPI* Close)(EFI_FILE_PROTOCOL* This);
  EFI_STATUS(EFIAPI* Delete)(EFI_FILE_PROTOCOL* This);
  EFI_STATUS(EFIAPI* Read)(EFI_FILE_PROTOCOL* This, UINTN* BufferSize, VOID* Buffer);
  EFI_STATUS(EFIAPI* Write)(EFI_FILE_PROTOCOL* This, UINTN* BufferSize, const VOID* Buffer);
  EFI_STATUS(EFIAPI* GetPosition)(EFI_FILE_PROTOCOL* This, UINT64* Position);
  EFI_STATUS(EFIAPI* SetPosition)(EFI_FILE_PROTOCOL* This, UINT64 Position);
  EFI_STATUS(EFIAPI* GetInfo)(EFI_FILE_PROTOCOL* This, const EFI_GUID* InformationType, UINTN* BufferSize,
                              VOID* Buffer);
  EFI_STATUS(EFIAPI* SetInfo)(EFI_FILE_PROTOCOL* This, const EFI_GUID* InformationType, UINTN BufferSize,
                              const VOID* Buffer);
  EFI_STATUS(EFIAPI* Flush)(EFI_FILE_PROTOCOL* This);
};
static_assert(__builtin_offsetof(EFI_FILE_PROTOCOL, Write) == 40, "Write slot");
static_assert(__builtin_offsetof(EFI_FILE_PROTOCOL, Flush) == 80, "Flush slot");

struct EFI_SIMPLE_FILE_SYSTEM_PROTOCOL {
  UINT64 Revision;
  EFI_STATUS(EFIAPI* OpenVolume)(EFI_SIMPLE_FILE_SYSTEM_PROTOCOL* This, EFI_FILE_PROTOCOL** Root);
};
static_assert(sizeof(EFI_SIMPLE_FILE_SYSTEM_PROTOCOL) == 16, "EFI_SIMPLE_FILE_SYSTEM_PROTOCOL layout");

// ---------------------------------------------------------------- device path text
struct EFI_DEVICE_PATH_TO_TEXT_PROTOCOL {
  // Both answer a new pool text, or null.
  CHAR16*(EFIAPI* ConvertDeviceNodeToText)(const EFI_DEVICE_PATH_PROTOCOL* DeviceNode, BOOLEAN DisplayOnly,
                                           BOOLEAN AllowShortcuts);
  CHAR16*(EFIAPI* ConvertDevicePathToText)(const EFI_DEVICE_PATH_PROTOCOL* DevicePath, BOOLEAN DisplayOnly,
                                           BOOLEAN AllowShortcuts);
};
static_assert(sizeof(EFI_DEVICE_PATH_TO_TEXT_PROTOCOL) == 16, "EFI_DEVICE_PATH_TO_TEXT_PROTOCOL layout");
