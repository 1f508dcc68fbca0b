// Interfaces of the platform's closed services (log, XML, forms processor,
// device location, passwords) and of the converter protocol itself. The
// tables are shared by the driver, the service images and the host.
#pragma once

#include "uefi/protocols.h"
#include "uefi/print.h"

// ---------------------------------------------------------------- GUIDs
#define TOLVANE_PROTOCOL_GUID \
  { 0x8fc48cc8, 0x71ff, 0x460b, { 0x89, 0x71, 0xea, 0x28, 0x2c, 0x79, 0x03, 0x59 } }
#define DEBUG_LOG_PROTOCOL_GUID \
  { 0x02ba2680, 0x43cf, 0x41be, { 0xbf, 0x4a, 0x71, 0x81, 0xae, 0x2e, 0x06, 0x52 } }
#define XML_PROTOCOL_GUID \
  { 0x875ed4e0, 0x2fdd, 0x43fe, { 0xad, 0x5b, 0x02, 0x6f, 0xee, 0xf3, 0x4f, 0x16 } }
#define HII_FORMS_PROCESSOR2_PROTOCOL_GUID \
  { 0x09120f8e, 0xb55d, 0x4e0f, { 0x92, 0xca, 0x39, 0x17, 0x84, 0xdc, 0x49, 0x42 } }
#define DEVICE_LOCATION_PROTOCOL_GUID \
  { 0xc6a350ad, 0x0101, 0x49f1, { 0xae, 0x1d, 0x11, 0x80, 0xa7, 0x0f, 0x97, 0xe0 } }
#define PASSWORD2_PROTOCOL_GUID \
  { 0x04ecafdd, 0x2e18, 0x4e6b, { 0x85, 0xcf, 0x12, 0xb6, 0x78, 0xc5, 0x7e, 0xf0 } }
#define LEGACY_PASSWORD_PROTOCOL_GUID \
  { 0x050cf337, 0x418d, 0x43db, { 0x8a, 0xd5, 0xea, 0x43, 0x20, 0x0d, 0x79, 0x4f } }
// Form sets of the BIOS internal setup and of a storage controller.
#define INTERNAL_BIOS_SETUP_FORMSET_GUID \
  { 0xccdde665, 0x76cd, 0x4902, { 0x8a, 0x59, 0xc1, 0x22, 0x5d, 0xaf, 0x6d, 0x14 } }
#define INTERNAL_SSD_SETUP_FORMSET_GUID \
  { 0x8a29bfb9, 0x3893, 0x4c2a, { 0x81, 0xed, 0x2e, 0xff, 0x0c, 0xa8, 0xf2, 0x85 } }

// Vendor GUID of the UEFI variables that belong to the converter itself:
// the restore trigger "VKR_RESTORE_OP_IN_PROGRESS" that a restore job sets
// while it applies a saved configuration.
#define TOLVANE_VARIABLE_GUID \
  { 0x3e5b7c1a, 0x94d2, 0x4f68, { 0xb1, 0x0e, 0x6a, 0x27, 0xc9, 0x58, 0xd3, 0x4f } }

// The GUIDs above as objects, for calls that take their address.
inline constexpr EFI_GUID gTolvaneProtocolGuid = TOLVANE_PROTOCOL_GUID;
inline constexpr EFI_GUID gDebugLogProtocolGuid = DEBUG_LOG_PROTOCOL_GUID;
inline constexpr EFI_GUID gXmlProtocolGuid = XML_PROTOCOL_GUID;
inline constexpr EFI_GUID gHiiFormsProcessor2ProtocolGuid = HII_FORMS_PROCESSOR2_PROTOCOL_GUID;
inline constexpr EFI_GUID gDeviceLocationProtocolGuid = DEVICE_LOCATION_PROTOCOL_GUID;
inline constexpr EFI_GUID gPassword2ProtocolGuid = PASSWORD2_PROTOCOL_GUID;
inline constexpr EFI_GUID gLegacyPasswordProtocolGuid = LEGACY_PASSWORD_PROTOCOL_GUID;
inline constexpr EFI_GUID gInternalBIOSSetup = INTERNAL_BIOS_SETUP_FORMSET_GUID;
inline constexpr EFI_GUID gInternalSSDSetup = INTERNAL_SSD_SETUP_FORMSET_GUID;
inline constexpr EFI_GUID gTolvaneVariableGuid = TOLVANE_VARIABLE_GUID;

// ---------------------------------------------------------------- Log service
// Trace levels used by the driver.
#define TVL_LEVEL_TOOLBOX 0x00000008ull
#define TVL_LEVEL_FINDING 0x00000080ull
#define TVL_LEVEL_PROGRESS 0x00800000ull
#define TVL_LEVEL_FAILURE 0x80000000ull

struct DEBUG_LOG_PROTOCOL;

// A sink receives each formatted line with its level and function name.
typedef VOID(EFIAPI* DEBUG_LOG_SINK)(VOID* Context, UINTN Level, const CHAR8* FunctionName, const CHAR16* Line);

struct DEBUG_LOG_PROTOCOL {
  // 0: lines whose level shares no bit with the mask are dropped.
  EFI_STATUS(EFIAPI* SetLevelMask)(DEBUG_LOG_PROTOCOL* This, UINTN Mask);
  // 1
  EFI_STATUS(EFIAPI* GetLevelMask)(DEBUG_LOG_PROTOCOL* This, UINTN* Mask);
  // 2: adds a sink; the console is the sink while none is registered.
  EFI_STATUS(EFIAPI* RegisterSink)(DEBUG_LOG_PROTOCOL* This, DEBUG_LOG_SINK Sink, VOID* Context);
  // 3
  EFI_STATUS(EFIAPI* UnregisterSink)(DEBUG_LOG_PROTOCOL* This, DEBUG_LOG_SINK Sink, VOID* Context);
  // 4: an already formatted line.
  EFI_STATUS(EFIAPI* WriteLine)(DEBUG_LOG_PROTOCOL* This, UINTN Level, const CHAR8* FunctionName, const CHAR16* Line);
  // 5: formats in the firmware print conventions.
  EFI_STATUS(EFIAPI* Print)(DEBUG_LOG_PROTOCOL* This, UINTN Level, const CHAR8* FunctionName, const CHAR16* Format,
                            ...);
  // 6: as Print, with the arguments already gathered.
  EFI_STATUS(EFIAPI* PrintV)(DEBUG_LOG_PROTOCOL* This, UINTN Level, const CHAR8* FunctionName, const CHAR16* Format,
                             tvl::rt::VaList* Arguments);
};
static_assert(__builtin_offsetof(DEBUG_LOG_PROTOCOL, Print) == 5 * 8, "print is slot 5");

// ---------------------------------------------------------------- XML service
struct XML_ATTRIBUTE {
  CHAR8* name;
  CHAR8* value;
  XML_ATTRIBUTE* next;
  UINT64 reserved;
};
static_assert(sizeof(XML_ATTRIBUTE) == 32, "XML_ATTRIBUTE layout");
static_assert(__builtin_offsetof(XML_ATTRIBUTE, next) == 16, "XML_ATTRIBUTE next");

struct XML_NODE {
  CHAR8* name;
  CHAR8* contents;
  XML_ATTRIBUTE* attributes;
  XML_NODE* parent;
  XML_NODE* children;
  XML_NODE* next;
  XML_NODE* previous;
};
static_assert(sizeof(XML_NODE) == 56, "XML_NODE layout");
static_assert(__builtin_offsetof(XML_NODE, contents) == 8, "XML_NODE contents");
static_assert(__builtin_offsetof(XML_NODE, attributes) == 16, "XML_NODE attributes");
static_assert(__builtin_offsetof(XML_NODE, parent) == 24, "XML_NODE parent");
static_assert(__builtin_offsetof(XML_NODE, children) == 32, "XML_NODE children");
static_assert(__builtin_offsetof(XML_NODE, next) == 40, "XML_NODE next");
static_assert(__builtin_offsetof(XML_NODE, previous) == 48, "XML_NODE previous");

// Where and why a text was refused.
struct XML_PARSE_ERROR {
  UINTN Line;    // 1-based
  UINTN Column;  // 1-based, in bytes
  UINTN Offset;  // byte offset into the text
  CHAR8 Message[128];
};

struct XML_LIMITS {
  UINTN MaxDepth;       // element nesting
  UINTN MaxInputBytes;  // size of a text handed to the parser
};

struct XML_PROTOCOL;
struct XML_PROTOCOL {
  // 0: parses an 8-bit XML text of `Length` bytes into a new tree whose
  // contents are escaped text, as the node toolbox keeps them.
  EFI_STATUS(EFIAPI* XML_ParseText)(XML_PROTOCOL* This, const CHAR8* Text, UINTN Length, XML_NODE** Root,
                                    XML_PARSE_ERROR* Error);
  // 1
  EFI_STATUS(EFIAPI* XML_SetLimits)(XML_PROTOCOL* This, const XML_LIMITS* Limits);
  // 2
  EFI_STATUS(EFIAPI* XML_GetLimits)(XML_PROTOCOL* This, XML_LIMITS* Limits);
  // 3: serialises the tree below `Root` into a new pool text.
  EFI_STATUS(EFIAPI* XML_NodeToXML)(XML_PROTOCOL* This, XML_NODE* Root, CHAR8** Text);
  // 4: a new node named `Name` (the service keeps its own copy of the name).
  EFI_STATUS(EFIAPI* XML_CreateNode)(XML_PROTOCOL* This, const CHAR8* Name, XML_NODE** Node);
  // 5: frees a node with its contents, attributes, children and following
  // siblings.
  EFI_STATUS(EFIAPI* XML_FreeNode)(XML_PROTOCOL* This, XML_NODE* Root);
};
static_assert(__builtin_offsetof(XML_PROTOCOL, XML_NodeToXML) == 3 * 8, "XML_NodeToXML is slot 3");
static_assert(__builtin_offsetof(XML_PROTOCOL, XML_CreateNode) == 4 * 8, "XML_CreateNode is slot 4");
static_assert(__builtin_offsetof(XML_PROTOCOL, XML_FreeNode) == 5 * 8, "XML_FreeNode is slot 5");

// ---------------------------------------------------------------- Forms processor
struct HII_FORMSET_RECORD;

// Where the last parse failed and why.
struct HII_FORMS_PROCESSOR_ERROR {
  EFI_STATUS Status;
  UINTN PackageListIndex;  // which of the handles given
  UINTN Offset;            // byte offset into that package list
  CHAR8 Message[128];
};

struct HII_FORMS_PROCESSOR2_PROTOCOL {
  // 0
  EFI_STATUS(EFIAPI* GetRevision)(HII_FORMS_PROCESSOR2_PROTOCOL* This, UINT32* Revision);
  // 1
  EFI_STATUS(EFIAPI* ProcessForms)(HII_FORMS_PROCESSOR2_PROTOCOL* This, EFI_HII_HANDLE* HiiHandles,
                                   UINTN HiiHandleCount, const EFI_GUID* FormSetGuid, UINTN* FormSetBufferCount,
                                   HII_FORMSET_RECORD*** FormSetBuffer);
  // 2: details of the last ProcessForms failure.
  EFI_STATUS(EFIAPI* GetLastError)(HII_FORMS_PROCESSOR2_PROTOCOL* This, HII_FORMS_PROCESSOR_ERROR* Error);
  // 3
  EFI_STATUS(EFIAPI* DestroyFormSets)(HII_FORMS_PROCESSOR2_PROTOCOL* This, UINTN FormSetBufferCount,
                                      HII_FORMSET_RECORD** FormSetBuffer);
};
static_assert(__builtin_offsetof(HII_FORMS_PROCESSOR2_PROTOCOL, ProcessForms) == 8, "ProcessForms is slot 1");
static_assert(__builtin_offsetof(HII_FORMS_PROCESSOR2_PROTOCOL, DestroyFormSets) == 24, "DestroyFormSets is slot 3");

// ---------------------------------------------------------------- Device location
struct DEVICE_LOCATION_PROTOCOL {
  // 0: the platform's table entry for one device: its device path, its
  // location text (FQDD) and a description.
  EFI_STATUS(EFIAPI* RegisterLocation)(DEVICE_LOCATION_PROTOCOL* This, const EFI_DEVICE_PATH_PROTOCOL* DevicePath,
                                       const CHAR16* Fqdd, const CHAR16* Description);
  // 1: three new pool texts: the description, the FQDD and the device
  // path as text.
  EFI_STATUS(EFIAPI* DevicePathToLocationText)(DEVICE_LOCATION_PROTOCOL* This,
                                               const EFI_DEVICE_PATH_PROTOCOL* DevicePath, const CHAR8* Language,
                                               CHAR16** Description, CHAR16** Fqdd, CHAR16** DevicePathText);
  // 2: the registered device path of a FQDD, as a new pool copy.
  EFI_STATUS(EFIAPI* LocationTextToDevicePath)(DEVICE_LOCATION_PROTOCOL* This, const CHAR16* Fqdd,
                                               EFI_DEVICE_PATH_PROTOCOL** DevicePath);
};
static_assert(__builtin_offsetof(DEVICE_LOCATION_PROTOCOL, DevicePathToLocationText) == 8,
              "DevicePathToLocationText is slot 1");

// ---------------------------------------------------------------- Passwords
// Which password a call is about.
#define PASSWORD_WHICH_SYSTEM 1
#define PASSWORD_WHICH_SETUP 2

// PasswordStatus bits of GetProperties.
#define EFI_VORK_PASSWORD_INSTALLED 0x0001u  // a password is installed
#define EFI_VORK_PASSWORD_DISABLED 0x0004u   // it is disabled and cannot be changed

// PasswordType of GetProperties: what the installed password was set from.
#define PASSWORD_TYPE_NONE 0        // no password installed
#define PASSWORD_TYPE_PLAIN 1       // a plain password (method 2 or 3)
#define PASSWORD_TYPE_SHA256 2      // a SHA-256 hash text and salt (method 1)
#define PASSWORD_TYPE_UNREADABLE 0xFF  // a stored record that cannot be read

// ChangePassword method codes. The newer service takes 1 and 2, the older
// one 3; any other code is answered with EFI_UNSUPPORTED.
#define PASSWORD_METHOD_SHA256 1  // (CHAR16* Old, CHAR8* HashText, CHAR8* SaltText or null)
#define PASSWORD_METHOD_PLAIN 2   // (CHAR16* Old, CHAR16* New, CHAR8* salt: not read)
#define PASSWORD_METHOD_CHECKED 3 // (CHAR16* Old, CHAR16* New), the old password is checked

// Longest plain password, in UCS-2 characters.
#define PASSWORD_MAX_LENGTH 32

// Both password services share the layout of the slots the driver calls.
//
// GetProperties: PasswordStatus (EFI_VORK_PASSWORD_* bits) is required; the
// other outputs are written when given: PasswordType (PASSWORD_TYPE_*), the
// shortest and longest plain password, and Attributes with bit (1 << code)
// set for each method code the service takes.
//
// ChangePassword reads the variadic arguments of its method only (see the
// method codes above). An empty new password or an empty hash text clears
// the password. Statuses: EFI_INVALID_PARAMETER for a missing This or text,
// a Which other than 1 or 2, a plain password longer than
// PASSWORD_MAX_LENGTH, a hash text that is not 64 hexadecimal digits or a
// salt text longer than 64 bytes; EFI_UNSUPPORTED for a method the service
// does not take; EFI_WRITE_PROTECTED when the password is disabled;
// EFI_ACCESS_DENIED (method 3) when the old password is wrong;
// EFI_VOLUME_CORRUPTED (method 3) when the stored password cannot be read;
// the variable store's status when the password cannot be stored.
//
// VerifyPassword: EFI_SUCCESS when Password is the installed password (the
// empty text when none is installed), EFI_ACCESS_DENIED when it is not,
// EFI_VOLUME_CORRUPTED when the stored password cannot be read.
struct PASSWORD_SERVICE_PROTOCOL {
  // 0
  EFI_STATUS(EFIAPI* GetRevision)(PASSWORD_SERVICE_PROTOCOL* This, UINT32* Revision);
  // 1
  EFI_STATUS(EFIAPI* GetProperties)(PASSWORD_SERVICE_PROTOCOL* This, UINT16 Which, UINT16* PasswordStatus,
                                    UINT8* PasswordType, UINT16* MinLength, UINT16* MaxLength, UINT64* Attributes);
  // 2
  EFI_STATUS(EFIAPI* VerifyPassword)(PASSWORD_SERVICE_PROTOCOL* This, UINT16 Which, const CHAR16* Password);
  // 3: method code first; its remaining arguments depend on the method.
  EFI_STATUS(EFIAPI* ChangePassword)(PASSWORD_SERVICE_PROTOCOL* This, UINT16 Method, UINT16 Which, ...);
};
static_assert(__builtin_offsetof(PASSWORD_SERVICE_PROTOCOL, GetProperties) == 8, "GetProperties is slot 1");
static_assert(__builtin_offsetof(PASSWORD_SERVICE_PROTOCOL, ChangePassword) == 24, "ChangePassword is slot 3");
typedef PASSWORD_SERVICE_PROTOCOL PASSWORD2_PROTOCOL;
typedef PASSWORD_SERVICE_PROTOCOL LEGACY_PASSWORD_PROTOCOL;

// Both services keep the passwords in the same UEFI variables under this
// vendor GUID, non-volatile with boot-service access only, so that a
// password set through one is checked by the other:
//   PASSWORD_SYSTEM_VARIABLE, PASSWORD_SETUP_VARIABLE: the stored password
//     (a salted derivation, never the password itself); absent when none is
//     installed;
//   PASSWORD_DISABLED_VARIABLE: one byte, bit (Which - 1) set for each
//     disabled password. The platform writes it; the services only read it.
#define PASSWORD_STORE_GUID \
  { 0x871288c3, 0xcbfe, 0x4686, { 0xbb, 0x9b, 0x22, 0xeb, 0xfd, 0x17, 0x2a, 0x85 } }
inline constexpr EFI_GUID gPasswordStoreGuid = PASSWORD_STORE_GUID;
#define PASSWORD_SYSTEM_VARIABLE u"SystemPassword"
#define PASSWORD_SETUP_VARIABLE u"SetupPassword"
#define PASSWORD_DISABLED_VARIABLE u"PasswordDisabled"
#define PASSWORD_VARIABLE_ATTRIBUTES (EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS)

// ---------------------------------------------------------------- Converter protocol
#define TOLVANE_PROTOCOL_REVISION 0x2000u

struct TOLVANE_PROTOCOL;
typedef EFI_STATUS(EFIAPI* TOLVANE_HII_TO_NODE)(TOLVANE_PROTOCOL* This, EFI_HANDLE ControllerHandle,
                                                XML_NODE** PossibleValues, XML_NODE** CurrentValues);
typedef EFI_STATUS(EFIAPI* TOLVANE_NODE_TO_HII)(TOLVANE_PROTOCOL* This, EFI_HANDLE ControllerHandle,
                                                XML_NODE* PendingTree, CHAR16** ConfigRequest,
                                                XML_NODE** ConfigResults);
typedef EFI_STATUS(EFIAPI* TOLVANE_NODE_SAVE_TO_HII)(TOLVANE_PROTOCOL* This, EFI_HANDLE DriverHandle,
                                                     CHAR16* ConfigRequest, XML_NODE** ConfigResults);
typedef EFI_STATUS(EFIAPI* TOLVANE_SET_BIOS_PASSWORD)(TOLVANE_PROTOCOL* This, XML_NODE* Root, XML_NODE** Results);
typedef EFI_STATUS(EFIAPI* TOLVANE_NODES_TO_COMBINED_XML_CHAR)(TOLVANE_PROTOCOL* This, XML_NODE* First,
                                                               XML_NODE* Second, CHAR8** Text);
// A slot with no operation behind it; it ignores whatever it is given.
typedef EFI_STATUS(EFIAPI* TOLVANE_UNSUPPORTED)(...);

struct TOLVANE_PROTOCOL {
  UINT32 Revision;
  TOLVANE_HII_TO_NODE HiiToNode;
  TOLVANE_NODE_TO_HII NodeToHii;
  TOLVANE_UNSUPPORTED Slot3;
  TOLVANE_UNSUPPORTED Slot4;
  TOLVANE_NODE_SAVE_TO_HII NodeSaveToHii;
  TOLVANE_UNSUPPORTED Slot6;
  TOLVANE_SET_BIOS_PASSWORD SetBIOSPassword;
  TOLVANE_UNSUPPORTED Slot8;
  TOLVANE_NODES_TO_COMBINED_XML_CHAR NodesToCombinedXMLChar;
};
static_assert(__builtin_offsetof(TOLVANE_PROTOCOL, HiiToNode) == 8, "HiiToNode slot");
static_assert(__builtin_offsetof(TOLVANE_PROTOCOL, NodeToHii) == 16, "NodeToHii slot");
static_assert(__builtin_offsetof(TOLVANE_PROTOCOL, Slot3) == 24, "third slot");
static_assert(__builtin_offsetof(TOLVANE_PROTOCOL, Slot4) == 32, "fourth slot");
static_assert(__builtin_offsetof(TOLVANE_PROTOCOL, NodeSaveToHii) == 40, "NodeSaveToHii slot");
static_assert(__builtin_offsetof(TOLVANE_PROTOCOL, Slot6) == 48, "sixth slot");
static_assert(__builtin_offsetof(TOLVANE_PROTOCOL, SetBIOSPassword) == 56, "SetBIOSPassword slot");
static_assert(__builtin_offsetof(TOLVANE_PROTOCOL, Slot8) == 64, "eighth slot");
static_assert(__builtin_offsetof(TOLVANE_PROTOCOL, NodesToCombinedXMLChar) == 72, "NodesToCombinedXMLChar slot");
static_assert(sizeof(TOLVANE_PROTOCOL) == 80, "TOLVANE_PROTOCOL layout");
