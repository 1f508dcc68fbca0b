// UEFI protocols that the driver and the platform services use: loaded
// image, device path, HII database, HII string and HII configuration access.
#pragma once

#include "uefi/tables.h"

// ---------------------------------------------------------------- GUIDs
#define EFI_LOADED_IMAGE_PROTOCOL_GUID \
  { 0x5B1B31A1, 0x9562, 0x11d2, { 0x8E, 0x3F, 0x00, 0xA0, 0xC9, 0x69, 0x72, 0x3B } }
#define EFI_DEVICE_PATH_PROTOCOL_GUID \
  { 0x09576e91, 0x6d3f, 0x11d2, { 0x8e, 0x39, 0x00, 0xa0, 0xc9, 0x69, 0x72, 0x3b } }
#define EFI_HII_DATABASE_PROTOCOL_GUID \
  { 0xef9fc172, 0xa1b2, 0x4693, { 0xb3, 0x27, 0x6d, 0x32, 0xfc, 0x41, 0x60, 0x42 } }
#define EFI_HII_STRING_PROTOCOL_GUID \
  { 0x0fd96974, 0x23aa, 0x4cdc, { 0xb9, 0xcb, 0x98, 0xd1, 0x77, 0x50, 0x32, 0x2a } }
#define EFI_HII_CONFIG_ACCESS_PROTOCOL_GUID \
  { 0x330d4706, 0xf2a0, 0x4e4f, { 0xa3, 0x69, 0xb6, 0x6f, 0xa8, 0xd5, 0x43, 0x85 } }
#define EFI_GLOBAL_VARIABLE_GUID \
  { 0x8BE4DF61, 0x93CA, 0x11d2, { 0xAA, 0x0D, 0x00, 0xE0, 0x98, 0x03, 0x2B, 0x8C } }

// The GUIDs above as objects, for calls that take their address.
inline constexpr EFI_GUID gEfiLoadedImageProtocolGuid = EFI_LOADED_IMAGE_PROTOCOL_GUID;
inline constexpr EFI_GUID gEfiDevicePathProtocolGuid = EFI_DEVICE_PATH_PROTOCOL_GUID;
inline constexpr EFI_GUID gEfiHiiDatabaseProtocolGuid = EFI_HII_DATABASE_PROTOCOL_GUID;
inline constexpr EFI_GUID gEfiHiiStringProtocolGuid = EFI_HII_STRING_PROTOCOL_GUID;
inline constexpr EFI_GUID gEfiHiiConfigAccessProtocolGuid = EFI_HII_CONFIG_ACCESS_PROTOCOL_GUID;
inline constexpr EFI_GUID gEfiGlobalVariableGuid = EFI_GLOBAL_VARIABLE_GUID;

// ---------------------------------------------------------------- Loaded image
#define EFI_LOADED_IMAGE_PROTOCOL_REVISION 0x1000u

struct EFI_LOADED_IMAGE_PROTOCOL {
  UINT32 Revision;
  EFI_HANDLE ParentHandle;
  EFI_SYSTEM_TABLE* SystemTable;
  EFI_HANDLE DeviceHandle;
  EFI_DEVICE_PATH_PROTOCOL* FilePath;
  VOID* Reserved;
  UINT32 LoadOptionsSize;
  VOID* LoadOptions;
  VOID* ImageBase;
  UINT64 ImageSize;
  EFI_MEMORY_TYPE ImageCodeType;
  EFI_MEMORY_TYPE ImageDataType;
  EFI_IMAGE_UNLOAD Unload;
};
static_assert(__builtin_offsetof(EFI_LOADED_IMAGE_PROTOCOL, SystemTable) == 16, "SystemTable field");
static_assert(__builtin_offsetof(EFI_LOADED_IMAGE_PROTOCOL, LoadOptionsSize) == 48, "LoadOptionsSize field");
static_assert(__builtin_offsetof(EFI_LOADED_IMAGE_PROTOCOL, Unload) == 88, "Unload field");
static_assert(sizeof(EFI_LOADED_IMAGE_PROTOCOL) == 96, "EFI_LOADED_IMAGE_PROTOCOL layout");

// ---------------------------------------------------------------- Device path
// A device path is a packed sequence of variable-length nodes; only the
// 4-byte node header has a fixed layout. Nodes are read through cursors.
struct EFI_DEVICE_PATH_PROTOCOL {
  UINT8 Type;
  UINT8 SubType;
  UINT8 Length[2];
};
static_assert(sizeof(EFI_DEVICE_PATH_PROTOCOL) == 4, "device path node header");

#define HARDWARE_DEVICE_PATH 0x01
#define HW_PCI_DP 0x01
#define HW_VENDOR_DP 0x04
#define ACPI_DEVICE_PATH 0x02
#define ACPI_DP 0x01
#define MESSAGING_DEVICE_PATH 0x03
#define MSG_MAC_ADDR_DP 0x0b
#define MSG_SATA_DP 0x12
#define MSG_NVME_NAMESPACE_DP 0x17
#define MEDIA_DEVICE_PATH 0x04
#define END_DEVICE_PATH_TYPE 0x7f
#define END_ENTIRE_DEVICE_PATH_SUBTYPE 0xff

// ---------------------------------------------------------------- HII
typedef VOID* EFI_HII_HANDLE;
typedef UINT16 EFI_STRING_ID;
typedef UINT16 EFI_QUESTION_ID;
typedef UINT16 EFI_FORM_ID;
typedef UINT16 EFI_DEFAULT_ID;
typedef CHAR16* EFI_STRING;
typedef UINTN EFI_BROWSER_ACTION;
typedef UINTN EFI_BROWSER_ACTION_REQUEST;
typedef UINTN EFI_HII_DATABASE_NOTIFY_TYPE;

struct EFI_FONT_INFO;
struct EFI_HII_KEYBOARD_LAYOUT;
struct EFI_HII_PACKAGE_HEADER;

// The package-list header is a fixed 20-byte prefix; packages follow it.
struct EFI_HII_PACKAGE_LIST_HEADER {
  EFI_GUID PackageListGuid;
  UINT32 PackageLength;
};
static_assert(sizeof(EFI_HII_PACKAGE_LIST_HEADER) == 20, "package list header");

#define EFI_HII_PACKAGE_TYPE_ALL 0x00
#define EFI_HII_PACKAGE_TYPE_GUID 0x01
#define EFI_HII_PACKAGE_FORMS 0x02
#define EFI_HII_PACKAGE_STRINGS 0x04
#define EFI_HII_PACKAGE_FONTS 0x05
#define EFI_HII_PACKAGE_IMAGES 0x06
#define EFI_HII_PACKAGE_SIMPLE_FONTS 0x07
#define EFI_HII_PACKAGE_DEVICE_PATH 0x08
#define EFI_HII_PACKAGE_KEYBOARD_LAYOUT 0x09
#define EFI_HII_PACKAGE_ANIMATIONS 0x0A
#define EFI_HII_PACKAGE_END 0xDF

// Notification types of RegisterPackageNotify.
#define EFI_HII_DATABASE_NOTIFY_NEW_PACK 0x00000001
#define EFI_HII_DATABASE_NOTIFY_REMOVE_PACK 0x00000002
#define EFI_HII_DATABASE_NOTIFY_EXPORT_PACK 0x00000004
#define EFI_HII_DATABASE_NOTIFY_ADD_PACK 0x00000008

typedef EFI_STATUS(EFIAPI* EFI_HII_DATABASE_NOTIFY)(UINT8 PackageType, const EFI_GUID* PackageGuid,
                                                    const EFI_HII_PACKAGE_HEADER* Package, EFI_HII_HANDLE Handle,
                                                    EFI_HII_DATABASE_NOTIFY_TYPE NotifyType);

struct EFI_HII_DATABASE_PROTOCOL {
  EFI_STATUS(EFIAPI* NewPackageList)(const EFI_HII_DATABASE_PROTOCOL* This,
                                     const EFI_HII_PACKAGE_LIST_HEADER* PackageList, EFI_HANDLE DriverHandle,
                                     EFI_HII_HANDLE* Handle);
  EFI_STATUS(EFIAPI* RemovePackageList)(const EFI_HII_DATABASE_PROTOCOL* This, EFI_HII_HANDLE Handle);
  EFI_STATUS(EFIAPI* UpdatePackageList)(const EFI_HII_DATABASE_PROTOCOL* This, EFI_HII_HANDLE Handle,
                                        const EFI_HII_PACKAGE_LIST_HEADER* PackageList);
  EFI_STATUS(EFIAPI* ListPackageLists)(const EFI_HII_DATABASE_PROTOCOL* This, UINT8 PackageType,
                                       const EFI_GUID* PackageGuid, UINTN* HandleBufferLength,
                                       EFI_HII_HANDLE* Handle);
  EFI_STATUS(EFIAPI* ExportPackageLists)(const EFI_HII_DATABASE_PROTOCOL* This, EFI_HII_HANDLE Handle,
                                         UINTN* BufferSize, EFI_HII_PACKAGE_LIST_HEADER* Buffer);
  EFI_STATUS(EFIAPI* RegisterPackageNotify)(const EFI_HII_DATABASE_PROTOCOL* This, UINT8 PackageType,
                                            const EFI_GUID* PackageGuid, EFI_HII_DATABASE_NOTIFY PackageNotifyFn,
                                            EFI_HII_DATABASE_NOTIFY_TYPE NotifyType, EFI_HANDLE* NotifyHandle);
  EFI_STATUS(EFIAPI* UnregisterPackageNotify)(const EFI_HII_DATABASE_PROTOCOL* This, EFI_HANDLE NotificationHandle);
  EFI_STATUS(EFIAPI* FindKeyboardLayouts)(const EFI_HII_DATABASE_PROTOCOL* This, UINT16* KeyGuidBufferLength,
                                          EFI_GUID* KeyGuidBuffer);
  EFI_STATUS(EFIAPI* GetKeyboardLayout)(const EFI_HII_DATABASE_PROTOCOL* This, const EFI_GUID* KeyGuid,
                                        UINT16* KeyboardLayoutLength, EFI_HII_KEYBOARD_LAYOUT* KeyboardLayout);
  EFI_STATUS(EFIAPI* SetKeyboardLayout)(const EFI_HII_DATABASE_PROTOCOL* This, const EFI_GUID* KeyGuid);
  EFI_STATUS(EFIAPI* GetPackageListHandle)(const EFI_HII_DATABASE_PROTOCOL* This, EFI_HII_HANDLE PackageListHandle,
                                           EFI_HANDLE* DriverHandle);
};
static_assert(__builtin_offsetof(EFI_HII_DATABASE_PROTOCOL, ListPackageLists) == 24, "ListPackageLists slot");
static_assert(__builtin_offsetof(EFI_HII_DATABASE_PROTOCOL, GetPackageListHandle) == 80, "GetPackageListHandle slot");
static_assert(sizeof(EFI_HII_DATABASE_PROTOCOL) == 88, "EFI_HII_DATABASE_PROTOCOL layout");

struct EFI_HII_STRING_PROTOCOL {
  EFI_STATUS(EFIAPI* NewString)(const EFI_HII_STRING_PROTOCOL* This, EFI_HII_HANDLE PackageList,
                                EFI_STRING_ID* StringId, const CHAR8* Language, const CHAR16* LanguageName,
                                const CHAR16* String, const EFI_FONT_INFO* StringFontInfo);
  EFI_STATUS(EFIAPI* GetString)(const EFI_HII_STRING_PROTOCOL* This, const CHAR8* Language,
                                EFI_HII_HANDLE PackageList, EFI_STRING_ID StringId, EFI_STRING String,
                                UINTN* StringSize, EFI_FONT_INFO** StringFontInfo);
  EFI_STATUS(EFIAPI* SetString)(const EFI_HII_STRING_PROTOCOL* This, EFI_HII_HANDLE PackageList,
                                EFI_STRING_ID StringId, const CHAR8* Language, const CHAR16* String,
                                const EFI_FONT_INFO* StringFontInfo);
  EFI_STATUS(EFIAPI* GetLanguages)(const EFI_HII_STRING_PROTOCOL* This, EFI_HII_HANDLE PackageList,
                                   CHAR8* Languages, UINTN* LanguagesSize);
  EFI_STATUS(EFIAPI* GetSecondaryLanguages)(const EFI_HII_STRING_PROTOCOL* This, EFI_HII_HANDLE PackageList,
                                            const CHAR8* PrimaryLanguage, CHAR8* SecondaryLanguages,
                                            UINTN* SecondaryLanguagesSize);
};
static_assert(__builtin_offsetof(EFI_HII_STRING_PROTOCOL, GetString) == 8, "GetString is the second entry");
static_assert(sizeof(EFI_HII_STRING_PROTOCOL) == 40, "EFI_HII_STRING_PROTOCOL layout");

// EFI_IFR_TYPE_VALUE as the configuration-access callback receives it.
union EFI_IFR_TYPE_VALUE_RAW {
  UINT8 u8;
  UINT16 u16;
  UINT32 u32;
  UINT64 u64;
  BOOLEAN b;
  UINT8 bytes[22];
};

struct EFI_HII_CONFIG_ACCESS_PROTOCOL {
  EFI_STATUS(EFIAPI* ExtractConfig)(const EFI_HII_CONFIG_ACCESS_PROTOCOL* This, const CHAR16* Request,
                                    EFI_STRING* Progress, EFI_STRING* Results);
  EFI_STATUS(EFIAPI* RouteConfig)(const EFI_HII_CONFIG_ACCESS_PROTOCOL* This, const CHAR16* Configuration,
                                  EFI_STRING* Progress);
  EFI_STATUS(EFIAPI* Callback)(const EFI_HII_CONFIG_ACCESS_PROTOCOL* This, EFI_BROWSER_ACTION Action,
                               EFI_QUESTION_ID QuestionId, UINT8 Type, EFI_IFR_TYPE_VALUE_RAW* Value,
                               EFI_BROWSER_ACTION_REQUEST* ActionRequest);
};
static_assert(sizeof(EFI_HII_CONFIG_ACCESS_PROTOCOL) == 24, "EFI_HII_CONFIG_ACCESS_PROTOCOL layout");

// ---------------------------------------------------------------- Random numbers
#define EFI_RNG_PROTOCOL_GUID \
  { 0x3152bca5, 0xeade, 0x433d, { 0x86, 0x2e, 0xc0, 0x1c, 0xdc, 0x29, 0x1f, 0x44 } }
inline constexpr EFI_GUID gEfiRngProtocolGuid = EFI_RNG_PROTOCOL_GUID;

typedef EFI_GUID EFI_RNG_ALGORITHM;

struct EFI_RNG_PROTOCOL {
  EFI_STATUS(EFIAPI* GetInfo)(EFI_RNG_PROTOCOL* This, UINTN* RNGAlgorithmListSize,
                              EFI_RNG_ALGORITHM* RNGAlgorithmList);
  // A null algorithm asks for the driver's default one.
  EFI_STATUS(EFIAPI* GetRNG)(EFI_RNG_PROTOCOL* This, EFI_RNG_ALGORITHM* RNGAlgorithm, UINTN RNGValueLength,
                             UINT8* RNGValue);
};
