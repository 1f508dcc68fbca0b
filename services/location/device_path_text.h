// Device paths as bytes for the location service: the bounded size walk and
// the UEFI text form of the node types the platform's devices use.
#pragma once

#include "uefi/protocols.h"

namespace tvl::location {

// A device path longer than this is refused as malformed.
constexpr UINTN kMaxDevicePathSize = 0x10000;

// Bytes of the device path at `path`, end node included: the walk follows
// node lengths, refuses a node shorter than its 4-byte header, and stops at
// the end-of-entire-path node. 0 when the path is malformed or longer than
// kMaxDevicePathSize.
UINTN devicePathSize(const EFI_DEVICE_PATH_PROTOCOL* path);

// Writes the text form of the `size` bytes of a well-formed device path
// into `out` (at most `capacity` characters including the terminator; `out`
// may be null to measure) and returns its length in characters, terminator
// excluded. Nodes: PciRoot, PcieRoot, Acpi, Pci, MAC, Sata, NVMe, VenHw;
// any other node (or a known one with an unexpected length) as
// Path(type,subtype,hex data); instances are separated by ",".
UINTN devicePathToText(const UINT8* path, UINTN size, CHAR16* out, UINTN capacity);

}  // namespace tvl::location
