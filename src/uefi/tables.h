// EFI system table, boot services and runtime services, with every slot in
// the order the UEFI specification gives it.
#pragma once

#include "uefi/base.h"

struct EFI_TABLE_HEADER {
  UINT64 Signature;
  UINT32 Revision;
  UINT32 HeaderSize;
  UINT32 CRC32;
  UINT32 Reserved;
};
static_assert(sizeof(EFI_TABLE_HEADER) == 24, "EFI_TABLE_HEADER layout");

#define EFI_SYSTEM_TABLE_SIGNATURE 0x5453595320494249ULL
#define EFI_BOOT_SERVICES_SIGNATURE 0x56524553544f4f42ULL
#define EFI_RUNTIME_SERVICES_SIGNATURE 0x56524553544e5552ULL
#define EFI_2_70_SYSTEM_TABLE_REVISION ((2u << 16) | 70u)

struct EFI_DEVICE_PATH_PROTOCOL;
struct EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL;
struct EFI_MEMORY_DESCRIPTOR;
struct EFI_CAPSULE_HEADER;

enum EFI_ALLOCATE_TYPE : UINT32 { AllocateAnyPages, AllocateMaxAddress, AllocateAddress, MaxAllocateType };
enum EFI_TIMER_DELAY : UINT32 { TimerCancel, TimerPeriodic, TimerRelative };
enum EFI_INTERFACE_TYPE : UINT32 { EFI_NATIVE_INTERFACE };
enum EFI_LOCATE_SEARCH_TYPE : UINT32 { AllHandles, ByRegisterNotify, ByProtocol };
enum EFI_RESET_TYPE : UINT32 { EfiResetCold, EfiResetWarm, EfiResetShutdown, EfiResetPlatformSpecific };

struct EFI_TIME {
  UINT16 Year;
  UINT8 Month;
  UINT8 Day;
  UINT8 Hour;
  UINT8 Minute;
  UINT8 Second;
  UINT8 Pad1;
  UINT32 Nanosecond;
  INT16 TimeZone;
  UINT8 Daylight;
  UINT8 Pad2;
};
static_assert(sizeof(EFI_TIME) == 16, "EFI_TIME layout");
#define EFI_UNSPECIFIED_TIMEZONE 0x07FF

struct EFI_TIME_CAPABILITIES {
  UINT32 Resolution;
  UINT32 Accuracy;
  BOOLEAN SetsToZero;
};

// Event types.
#define EVT_TIMER 0x80000000u
#define EVT_RUNTIME 0x40000000u
#define EVT_NOTIFY_WAIT 0x00000100u
#define EVT_NOTIFY_SIGNAL 0x00000200u
#define EVT_SIGNAL_EXIT_BOOT_SERVICES 0x00000201u
#define EVT_SIGNAL_VIRTUAL_ADDRESS_CHANGE 0x60000202u

// OpenProtocol attributes.
#define EFI_OPEN_PROTOCOL_BY_HANDLE_PROTOCOL 0x00000001u
#define EFI_OPEN_PROTOCOL_GET_PROTOCOL 0x00000002u
#define EFI_OPEN_PROTOCOL_TEST_PROTOCOL 0x00000004u
#define EFI_OPEN_PROTOCOL_BY_CHILD_CONTROLLER 0x00000008u
#define EFI_OPEN_PROTOCOL_BY_DRIVER 0x00000010u
#define EFI_OPEN_PROTOCOL_EXCLUSIVE 0x00000020u

// Variable attributes.
#define EFI_VARIABLE_NON_VOLATILE 0x00000001u
#define EFI_VARIABLE_BOOTSERVICE_ACCESS 0x00000002u
#define EFI_VARIABLE_RUNTIME_ACCESS 0x00000004u

struct EFI_OPEN_PROTOCOL_INFORMATION_ENTRY {
  EFI_HANDLE AgentHandle;
  EFI_HANDLE ControllerHandle;
  UINT32 Attributes;
  UINT32 OpenCount;
};
static_assert(sizeof(EFI_OPEN_PROTOCOL_INFORMATION_ENTRY) == 24, "open information entry layout");

typedef VOID(EFIAPI* EFI_EVENT_NOTIFY)(EFI_EVENT Event, VOID* Context);
typedef EFI_STATUS(EFIAPI* EFI_IMAGE_UNLOAD)(EFI_HANDLE ImageHandle);
typedef EFI_STATUS(EFIAPI* EFI_IMAGE_ENTRY_POINT)(EFI_HANDLE ImageHandle, struct EFI_SYSTEM_TABLE* SystemTable);

struct EFI_BOOT_SERVICES {
  EFI_TABLE_HEADER Hdr;
  // Task priority.
  EFI_TPL(EFIAPI* RaiseTPL)(EFI_TPL NewTpl);
  VOID(EFIAPI* RestoreTPL)(EFI_TPL OldTpl);
  // Memory.
  EFI_STATUS(EFIAPI* AllocatePages)(EFI_ALLOCATE_TYPE Type, EFI_MEMORY_TYPE MemoryType, UINTN Pages,
                                    EFI_PHYSICAL_ADDRESS* Memory);
  EFI_STATUS(EFIAPI* FreePages)(EFI_PHYSICAL_ADDRESS Memory, UINTN Pages);
  EFI_STATUS(EFIAPI* GetMemoryMap)(UINTN* MemoryMapSize, EFI_MEMORY_DESCRIPTOR* MemoryMap, UINTN* MapKey,
                                   UINTN* DescriptorSize, UINT32* DescriptorVersion);
  EFI_STATUS(EFIAPI* AllocatePool)(EFI_MEMORY_TYPE PoolType, UINTN Size, VOID** Buffer);
  EFI_STATUS(EFIAPI* FreePool)(VOID* Buffer);
  // Events and timers.
  EFI_STATUS(EFIAPI* CreateEvent)(UINT32 Type, EFI_TPL NotifyTpl, EFI_EVENT_NOTIFY NotifyFunction,
                                  VOID* NotifyContext, EFI_EVENT* Event);
  EFI_STATUS(EFIAPI* SetTimer)(EFI_EVENT Event, EFI_TIMER_DELAY Type, UINT64 TriggerTime);
  EFI_STATUS(EFIAPI* WaitForEvent)(UINTN NumberOfEvents, EFI_EVENT* Event, UINTN* Index);
  EFI_STATUS(EFIAPI* SignalEvent)(EFI_EVENT Event);
  EFI_STATUS(EFIAPI* CloseEvent)(EFI_EVENT Event);
  EFI_STATUS(EFIAPI* CheckEvent)(EFI_EVENT Event);
  // Protocol handlers.
  EFI_STATUS(EFIAPI* InstallProtocolInterface)(EFI_HANDLE* Handle, const EFI_GUID* Protocol,
                                               EFI_INTERFACE_TYPE InterfaceType, VOID* Interface);
  EFI_STATUS(EFIAPI* ReinstallProtocolInterface)(EFI_HANDLE Handle, const EFI_GUID* Protocol, VOID* OldInterface,
                                                 VOID* NewInterface);
  EFI_STATUS(EFIAPI* UninstallProtocolInterface)(EFI_HANDLE Handle, const EFI_GUID* Protocol, VOID* Interface);
  EFI_STATUS(EFIAPI* HandleProtocol)(EFI_HANDLE Handle, const EFI_GUID* Protocol, VOID** Interface);
  VOID* Reserved;
  EFI_STATUS(EFIAPI* RegisterProtocolNotify)(const EFI_GUID* Protocol, EFI_EVENT Event, VOID** Registration);
  EFI_STATUS(EFIAPI* LocateHandle)(EFI_LOCATE_SEARCH_TYPE SearchType, const EFI_GUID* Protocol, VOID* SearchKey,
                                   UINTN* BufferSize, EFI_HANDLE* Buffer);
  EFI_STATUS(EFIAPI* LocateDevicePath)(const EFI_GUID* Protocol, EFI_DEVICE_PATH_PROTOCOL** DevicePath,
                                       EFI_HANDLE* Device);
  EFI_STATUS(EFIAPI* InstallConfigurationTable)(const EFI_GUID* Guid, VOID* Table);
  // Images.
  EFI_STATUS(EFIAPI* LoadImage)(BOOLEAN BootPolicy, EFI_HANDLE ParentImageHandle,
                                EFI_DEVICE_PATH_PROTOCOL* DevicePath, VOID* SourceBuffer, UINTN SourceSize,
                                EFI_HANDLE* ImageHandle);
  EFI_STATUS(EFIAPI* StartImage)(EFI_HANDLE ImageHandle, UINTN* ExitDataSize, CHAR16** ExitData);
  EFI_STATUS(EFIAPI* Exit)(EFI_HANDLE ImageHandle, EFI_STATUS ExitStatus, UINTN ExitDataSize, CHAR16* ExitData);
  EFI_STATUS(EFIAPI* UnloadImage)(EFI_HANDLE ImageHandle);
  EFI_STATUS(EFIAPI* ExitBootServices)(EFI_HANDLE ImageHandle, UINTN MapKey);
  // Miscellaneous.
  EFI_STATUS(EFIAPI* GetNextMonotonicCount)(UINT64* Count);
  EFI_STATUS(EFIAPI* Stall)(UINTN Microseconds);
  EFI_STATUS(EFIAPI* SetWatchdogTimer)(UINTN Timeout, UINT64 WatchdogCode, UINTN DataSize, CHAR16* WatchdogData);
  // Driver support.
  EFI_STATUS(EFIAPI* ConnectController)(EFI_HANDLE ControllerHandle, EFI_HANDLE* DriverImageHandle,
                                        EFI_DEVICE_PATH_PROTOCOL* RemainingDevicePath, BOOLEAN Recursive);
  EFI_STATUS(EFIAPI* DisconnectController)(EFI_HANDLE ControllerHandle, EFI_HANDLE DriverImageHandle,
                                           EFI_HANDLE ChildHandle);
  // Open and close protocol.
  EFI_STATUS(EFIAPI* OpenProtocol)(EFI_HANDLE Handle, const EFI_GUID* Protocol, VOID** Interface,
                                   EFI_HANDLE AgentHandle, EFI_HANDLE ControllerHandle, UINT32 Attributes);
  EFI_STATUS(EFIAPI* CloseProtocol)(EFI_HANDLE Handle, const EFI_GUID* Protocol, EFI_HANDLE AgentHandle,
                                    EFI_HANDLE ControllerHandle);
  EFI_STATUS(EFIAPI* OpenProtocolInformation)(EFI_HANDLE Handle, const EFI_GUID* Protocol,
                                              EFI_OPEN_PROTOCOL_INFORMATION_ENTRY** EntryBuffer,
                                              UINTN* EntryCount);
  // Library.
  EFI_STATUS(EFIAPI* ProtocolsPerHandle)(EFI_HANDLE Handle, EFI_GUID*** ProtocolBuffer, UINTN* ProtocolBufferCount);
  EFI_STATUS(EFIAPI* LocateHandleBuffer)(EFI_LOCATE_SEARCH_TYPE SearchType, const EFI_GUID* Protocol,
                                         VOID* SearchKey, UINTN* NoHandles, EFI_HANDLE** Buffer);
  EFI_STATUS(EFIAPI* LocateProtocol)(const EFI_GUID* Protocol, VOID* Registration, VOID** Interface);
  EFI_STATUS(EFIAPI* InstallMultipleProtocolInterfaces)(EFI_HANDLE* Handle, ...);
  EFI_STATUS(EFIAPI* UninstallMultipleProtocolInterfaces)(EFI_HANDLE Handle, ...);
  // CRC.
  EFI_STATUS(EFIAPI* CalculateCrc32)(VOID* Data, UINTN DataSize, UINT32* Crc32);
  // Memory utilities.
  VOID(EFIAPI* CopyMem)(VOID* Destination, VOID* Source, UINTN Length);
  VOID(EFIAPI* SetMem)(VOID* Buffer, UINTN Size, UINT8 Value);
  EFI_STATUS(EFIAPI* CreateEventEx)(UINT32 Type, EFI_TPL NotifyTpl, EFI_EVENT_NOTIFY NotifyFunction,
                                    const VOID* NotifyContext, const EFI_GUID* EventGroup, EFI_EVENT* Event);
};
static_assert(__builtin_offsetof(EFI_BOOT_SERVICES, AllocatePool) == 64, "AllocatePool slot");
static_assert(__builtin_offsetof(EFI_BOOT_SERVICES, CreateEvent) == 80, "CreateEvent slot");
static_assert(__builtin_offsetof(EFI_BOOT_SERVICES, InstallProtocolInterface) == 128, "InstallProtocolInterface slot");
static_assert(__builtin_offsetof(EFI_BOOT_SERVICES, HandleProtocol) == 152, "HandleProtocol slot");
static_assert(__builtin_offsetof(EFI_BOOT_SERVICES, RegisterProtocolNotify) == 168, "RegisterProtocolNotify slot");
static_assert(__builtin_offsetof(EFI_BOOT_SERVICES, LoadImage) == 200, "LoadImage slot");
static_assert(__builtin_offsetof(EFI_BOOT_SERVICES, OpenProtocol) == 280, "OpenProtocol slot");
static_assert(__builtin_offsetof(EFI_BOOT_SERVICES, LocateHandleBuffer) == 312, "LocateHandleBuffer slot");
static_assert(__builtin_offsetof(EFI_BOOT_SERVICES, LocateProtocol) == 320, "LocateProtocol slot");
static_assert(__builtin_offsetof(EFI_BOOT_SERVICES, CreateEventEx) == 368, "CreateEventEx slot");
static_assert(sizeof(EFI_BOOT_SERVICES) == 376, "EFI_BOOT_SERVICES layout");

struct EFI_RUNTIME_SERVICES {
  EFI_TABLE_HEADER Hdr;
  EFI_STATUS(EFIAPI* GetTime)(EFI_TIME* Time, VOID* Capabilities);
  EFI_STATUS(EFIAPI* SetTime)(EFI_TIME* Time);
  EFI_STATUS(EFIAPI* GetWakeupTime)(BOOLEAN* Enabled, BOOLEAN* Pending, EFI_TIME* Time);
  EFI_STATUS(EFIAPI* SetWakeupTime)(BOOLEAN Enable, EFI_TIME* Time);
  EFI_STATUS(EFIAPI* SetVirtualAddressMap)(UINTN MemoryMapSize, UINTN DescriptorSize, UINT32 DescriptorVersion,
                                           EFI_MEMORY_DESCRIPTOR* VirtualMap);
  EFI_STATUS(EFIAPI* ConvertPointer)(UINTN DebugDisposition, VOID** Address);
  EFI_STATUS(EFIAPI* GetVariable)(const CHAR16* VariableName, const EFI_GUID* VendorGuid, UINT32* Attributes,
                                  UINTN* DataSize, VOID* Data);
  EFI_STATUS(EFIAPI* GetNextVariableName)(UINTN* VariableNameSize, CHAR16* VariableName, EFI_GUID* VendorGuid);
  EFI_STATUS(EFIAPI* SetVariable)(const CHAR16* VariableName, const EFI_GUID* VendorGuid, UINT32 Attributes,
                                  UINTN DataSize, const VOID* Data);
  EFI_STATUS(EFIAPI* GetNextHighMonotonicCount)(UINT32* HighCount);
  VOID(EFIAPI* ResetSystem)(EFI_RESET_TYPE ResetType, EFI_STATUS ResetStatus, UINTN DataSize, VOID* ResetData);
  EFI_STATUS(EFIAPI* UpdateCapsule)(EFI_CAPSULE_HEADER** CapsuleHeaderArray, UINTN CapsuleCount,
                                    EFI_PHYSICAL_ADDRESS ScatterGatherList);
  EFI_STATUS(EFIAPI* QueryCapsuleCapabilities)(EFI_CAPSULE_HEADER** CapsuleHeaderArray, UINTN CapsuleCount,
                                               UINT64* MaximumCapsuleSize, EFI_RESET_TYPE* ResetType);
  EFI_STATUS(EFIAPI* QueryVariableInfo)(UINT32 Attributes, UINT64* MaximumVariableStorageSize,
                                        UINT64* RemainingVariableStorageSize, UINT64* MaximumVariableSize);
};
static_assert(__builtin_offsetof(EFI_RUNTIME_SERVICES, GetVariable) == 72, "GetVariable slot");
static_assert(__builtin_offsetof(EFI_RUNTIME_SERVICES, SetVariable) == 88, "SetVariable slot");
static_assert(sizeof(EFI_RUNTIME_SERVICES) == 136, "EFI_RUNTIME_SERVICES layout");

struct SIMPLE_TEXT_OUTPUT_MODE {
  INT32 MaxMode;
  INT32 Mode;
  INT32 Attribute;
  INT32 CursorColumn;
  INT32 CursorRow;
  BOOLEAN CursorVisible;
};

struct EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL {
  EFI_STATUS(EFIAPI* Reset)(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* This, BOOLEAN ExtendedVerification);
  EFI_STATUS(EFIAPI* OutputString)(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* This, const CHAR16* String);
  EFI_STATUS(EFIAPI* TestString)(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* This, const CHAR16* String);
  EFI_STATUS(EFIAPI* QueryMode)(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* This, UINTN ModeNumber, UINTN* Columns, UINTN* Rows);
  EFI_STATUS(EFIAPI* SetMode)(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* This, UINTN ModeNumber);
  EFI_STATUS(EFIAPI* SetAttribute)(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* This, UINTN Attribute);
  EFI_STATUS(EFIAPI* ClearScreen)(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* This);
  EFI_STATUS(EFIAPI* SetCursorPosition)(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* This, UINTN Column, UINTN Row);
  EFI_STATUS(EFIAPI* EnableCursor)(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* This, BOOLEAN Visible);
  SIMPLE_TEXT_OUTPUT_MODE* Mode;
};
static_assert(sizeof(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL) == 80, "EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL layout");

struct EFI_CONFIGURATION_TABLE {
  EFI_GUID VendorGuid;
  VOID* VendorTable;
};
static_assert(sizeof(EFI_CONFIGURATION_TABLE) == 24, "EFI_CONFIGURATION_TABLE layout");

struct EFI_SYSTEM_TABLE {
  EFI_TABLE_HEADER Hdr;
  CHAR16* FirmwareVendor;
  UINT32 FirmwareRevision;
  EFI_HANDLE ConsoleInHandle;
  VOID* ConIn;
  EFI_HANDLE ConsoleOutHandle;
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* ConOut;
  EFI_HANDLE StandardErrorHandle;
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL* StdErr;
  EFI_RUNTIME_SERVICES* RuntimeServices;
  EFI_BOOT_SERVICES* BootServices;
  UINTN NumberOfTableEntries;
  EFI_CONFIGURATION_TABLE* ConfigurationTable;
};
static_assert(__builtin_offsetof(EFI_SYSTEM_TABLE, ConOut) == 64, "ConOut slot");
static_assert(__builtin_offsetof(EFI_SYSTEM_TABLE, RuntimeServices) == 88, "RuntimeServices slot");
static_assert(__builtin_offsetof(EFI_SYSTEM_TABLE, BootServices) == 96, "BootServices slot");
static_assert(sizeof(EFI_SYSTEM_TABLE) == 120, "EFI_SYSTEM_TABLE layout");
