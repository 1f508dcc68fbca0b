// Basic UEFI types, calling convention, status codes and GUIDs.
//
// Freestanding: no system header is included. Every type is built from the
// compiler's own predefined macros so that the same header serves the Linux
// host build and the x86_64-unknown-windows firmware build.
#pragma once

#if !defined(__x86_64__) && !defined(_M_X64)
#error "Tolvane targets x86-64 only"
#endif

// Microsoft x64 calling convention on every build: a function table filled
// on the host has the same ABI as one filled in firmware.
#define EFIAPI __attribute__((ms_abi))

typedef unsigned char UINT8;
typedef signed char INT8;
typedef unsigned short UINT16;
typedef short INT16;
typedef unsigned int UINT32;
typedef int INT32;
typedef unsigned long long UINT64;
typedef long long INT64;
typedef UINT64 UINTN;
typedef INT64 INTN;
typedef char CHAR8;
typedef char16_t CHAR16;
typedef UINT8 BOOLEAN;
typedef void VOID;

static_assert(sizeof(UINT64) == 8 && sizeof(UINTN) == sizeof(void*), "64-bit target required");
static_assert(sizeof(CHAR16) == 2, "UCS-2 characters are 16 bits");

#define TRUE ((BOOLEAN)1)
#define FALSE ((BOOLEAN)0)

typedef UINTN EFI_STATUS;
typedef VOID* EFI_HANDLE;
typedef VOID* EFI_EVENT;
typedef UINTN EFI_TPL;
typedef UINT64 EFI_PHYSICAL_ADDRESS;
typedef UINT64 EFI_VIRTUAL_ADDRESS;

struct EFI_GUID {
  UINT32 Data1;
  UINT16 Data2;
  UINT16 Data3;
  UINT8 Data4[8];
};
static_assert(sizeof(EFI_GUID) == 16, "EFI_GUID layout");

inline bool operator==(const EFI_GUID& a, const EFI_GUID& b) {
  if (a.Data1 != b.Data1 || a.Data2 != b.Data2 || a.Data3 != b.Data3) return false;
  for (int i = 0; i < 8; ++i)
    if (a.Data4[i] != b.Data4[i]) return false;
  return true;
}
inline bool operator!=(const EFI_GUID& a, const EFI_GUID& b) { return !(a == b); }

// Status codes (UEFI specification, Appendix D).
#define EFI_ERROR_BIT (1ULL << 63)
#define EFIERR(n) ((EFI_STATUS)(EFI_ERROR_BIT | (n)))
#define EFI_ERROR(s) (((INTN)(EFI_STATUS)(s)) < 0)

#define EFI_SUCCESS ((EFI_STATUS)0)
#define EFI_LOAD_ERROR EFIERR(1)
#define EFI_INVALID_PARAMETER EFIERR(2)
#define EFI_UNSUPPORTED EFIERR(3)
#define EFI_BAD_BUFFER_SIZE EFIERR(4)
#define EFI_BUFFER_TOO_SMALL EFIERR(5)
#define EFI_NOT_READY EFIERR(6)
#define EFI_DEVICE_ERROR EFIERR(7)
#define EFI_WRITE_PROTECTED EFIERR(8)
#define EFI_OUT_OF_RESOURCES EFIERR(9)
#define EFI_VOLUME_CORRUPTED EFIERR(10)
#define EFI_VOLUME_FULL EFIERR(11)
#define EFI_NO_MEDIA EFIERR(12)
#define EFI_MEDIA_CHANGED EFIERR(13)
#define EFI_NOT_FOUND EFIERR(14)
#define EFI_ACCESS_DENIED EFIERR(15)
#define EFI_NO_RESPONSE EFIERR(16)
#define EFI_NO_MAPPING EFIERR(17)
#define EFI_TIMEOUT EFIERR(18)
#define EFI_NOT_STARTED EFIERR(19)
#define EFI_ALREADY_STARTED EFIERR(20)
#define EFI_ABORTED EFIERR(21)
#define EFI_ICMP_ERROR EFIERR(22)
#define EFI_TFTP_ERROR EFIERR(23)
#define EFI_PROTOCOL_ERROR EFIERR(24)
#define EFI_INCOMPATIBLE_VERSION EFIERR(25)
#define EFI_SECURITY_VIOLATION EFIERR(26)
#define EFI_CRC_ERROR EFIERR(27)
#define EFI_END_OF_MEDIA EFIERR(28)
#define EFI_END_OF_FILE EFIERR(31)
#define EFI_INVALID_LANGUAGE EFIERR(32)
#define EFI_COMPROMISED_DATA EFIERR(33)

#define EFI_WARN_UNKNOWN_GLYPH ((EFI_STATUS)1)
#define EFI_WARN_DELETE_FAILURE ((EFI_STATUS)2)
#define EFI_WARN_WRITE_FAILURE ((EFI_STATUS)3)
#define EFI_WARN_BUFFER_TOO_SMALL ((EFI_STATUS)4)
#define EFI_WARN_STALE_DATA ((EFI_STATUS)5)

// Status flows by early return.
#define RETURN_IF_ERROR(expr)                 \
  do {                                        \
    EFI_STATUS tvl_status_ = (expr);          \
    if (EFI_ERROR(tvl_status_)) return tvl_status_; \
  } while (0)

// Task priority levels.
#define TPL_APPLICATION ((EFI_TPL)4)
#define TPL_CALLBACK ((EFI_TPL)8)
#define TPL_NOTIFY ((EFI_TPL)16)
#define TPL_HIGH_LEVEL ((EFI_TPL)31)

// Memory types (EFI_MEMORY_TYPE).
enum EFI_MEMORY_TYPE : UINT32 {
  EfiReservedMemoryType,
  EfiLoaderCode,
  EfiLoaderData,
  EfiBootServicesCode,
  EfiBootServicesData,
  EfiRuntimeServicesCode,
  EfiRuntimeServicesData,
  EfiConventionalMemory,
  EfiUnusableMemory,
  EfiACPIReclaimMemory,
  EfiACPIMemoryNVS,
  EfiMemoryMappedIO,
  EfiMemoryMappedIOPortSpace,
  EfiPalCode,
  EfiPersistentMemory,
  EfiMaxMemoryType
};
static_assert(sizeof(EFI_MEMORY_TYPE) == 4, "EFI_MEMORY_TYPE is 32 bits");
static_assert(EfiBootServicesData == 4, "boot-services data is pool type 4");
