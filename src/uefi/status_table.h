// Every status code the firmware print conventions name, with its symbol
// ("EFI_NOT_FOUND") and its display text ("Not Found", as %r prints it).
#pragma once

#include "uefi/base.h"

namespace tvl::rt {

struct StatusEntry {
  EFI_STATUS status;
  const CHAR8* symbol;
  const CHAR8* text;
};

inline constexpr StatusEntry kStatusTable[] = {
    {EFI_SUCCESS, "EFI_SUCCESS", "Success"},
    {EFI_WARN_UNKNOWN_GLYPH, "EFI_WARN_UNKNOWN_GLYPH", "Warning Unknown Glyph"},
    {EFI_WARN_DELETE_FAILURE, "EFI_WARN_DELETE_FAILURE", "Warning Delete Failure"},
    {EFI_WARN_WRITE_FAILURE, "EFI_WARN_WRITE_FAILURE", "Warning Write Failure"},
    {EFI_WARN_BUFFER_TOO_SMALL, "EFI_WARN_BUFFER_TOO_SMALL", "Warning Buffer Too Small"},
    {EFI_WARN_STALE_DATA, "EFI_WARN_STALE_DATA", "Warning Stale Data"},
    {EFI_LOAD_ERROR, "EFI_LOAD_ERROR", "Load Error"},
    {EFI_INVALID_PARAMETER, "EFI_INVALID_PARAMETER", "Invalid Parameter"},
    {EFI_UNSUPPORTED, "EFI_UNSUPPORTED", "Unsupported"},
    {EFI_BAD_BUFFER_SIZE, "EFI_BAD_BUFFER_SIZE", "Bad Buffer Size"},
    {EFI_BUFFER_TOO_SMALL, "EFI_BUFFER_TOO_SMALL", "Buffer Too Small"},
    {EFI_NOT_READY, "EFI_NOT_READY", "Not Ready"},
    {EFI_DEVICE_ERROR, "EFI_DEVICE_ERROR", "Device Error"},
    {EFI_WRITE_PROTECTED, "EFI_WRITE_PROTECTED", "Write Protected"},
    {EFI_OUT_OF_RESOURCES, "EFI_OUT_OF_RESOURCES", "Out of Resources"},
    {EFI_VOLUME_CORRUPTED, "EFI_VOLUME_CORRUPTED", "Volume Corrupt"},
    {EFI_VOLUME_FULL, "EFI_VOLUME_FULL", "Volume Full"},
    {EFI_NO_MEDIA, "EFI_NO_MEDIA", "No Media"},
    {EFI_MEDIA_CHANGED, "EFI_MEDIA_CHANGED", "Media changed"},
    {EFI_NOT_FOUND, "EFI_NOT_FOUND", "Not Found"},
    {EFI_ACCESS_DENIED, "EFI_ACCESS_DENIED", "Access Denied"},
    {EFI_NO_RESPONSE, "EFI_NO_RESPONSE", "No Response"},
    {EFI_NO_MAPPING, "EFI_NO_MAPPING", "No mapping"},
    {EFI_TIMEOUT, "EFI_TIMEOUT", "Time out"},
    {EFI_NOT_STARTED, "EFI_NOT_STARTED", "Not started"},
    {EFI_ALREADY_STARTED, "EFI_ALREADY_STARTED", "Already started"},
    {EFI_ABORTED, "EFI_ABORTED", "Aborted"},
    {EFI_ICMP_ERROR, "EFI_ICMP_ERROR", "ICMP Error"},
    {EFI_TFTP_ERROR, "EFI_TFTP_ERROR", "TFTP Error"},
    {EFI_PROTOCOL_ERROR, "EFI_PROTOCOL_ERROR", "Protocol Error"},
    {EFI_INCOMPATIBLE_VERSION, "EFI_INCOMPATIBLE_VERSION", "Incompatible Version"},
    {EFI_SECURITY_VIOLATION, "EFI_SECURITY_VIOLATION", "Security Violation"},
    {EFI_CRC_ERROR, "EFI_CRC_ERROR", "CRC Error"},
    {EFI_END_OF_MEDIA, "EFI_END_OF_MEDIA", "End of Media"},
    {EFI_END_OF_FILE, "EFI_END_OF_FILE", "End of File"},
    {EFI_INVALID_LANGUAGE, "EFI_INVALID_LANGUAGE", "Invalid Language"},
    {EFI_COMPROMISED_DATA, "EFI_COMPROMISED_DATA", "Compromised Data"},
};

inline const StatusEntry* findStatus(EFI_STATUS status) {
  for (const StatusEntry& entry : kStatusTable)
    if (entry.status == status) return &entry;
  return nullptr;
}

}  // namespace tvl::rt
