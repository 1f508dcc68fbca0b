// UEFI configuration strings: the header that names a variable store, the
// block name of a question, and reading a device's ConfigResp back into
// the bytes of a store.
#pragma once

#include "services/forms/support.h"

namespace tvl::forms {

// "GUID=<32 hex>&NAME=<4 hex per name character>&PATH=<2 hex per device
// path byte>", lower-case hex, bytes in memory order; an absent device path
// gives an empty PATH. Empty on allocation failure.
rt::Pool<CHAR16> makeConfigHdr(const EFI_GUID& guid, const CHAR16* name, const UINT8* devicePath,
                               UINTN devicePathSize);

// "&OFFSET=<hex>&WIDTH=<hex>", lower-case hex of at least four digits, as
// the form browser writes the request element of a buffer-store question.
rt::Pool<CHAR16> makeBlockName(UINT16 offset, UINT16 width);

// Copies the blocks of a ConfigResp ("...&OFFSET=o&WIDTH=w&VALUE=v...")
// into `store` (`size` bytes). VALUE gives the block's bytes as one hex
// number, its last byte first. Blocks that do not fit the store, and
// anything after the first malformed block or an "&ALTCFG=" section, are
// left out. Returns the number of blocks copied.
UINTN applyConfigResp(const CHAR16* response, UINT8* store, UINTN size);

// Bytes of the device path that starts at `path`, end node included; 0 when
// it has a node shorter than its header or runs past `limit` bytes.
UINTN devicePathSize(const UINT8* path, UINTN limit);

}  // namespace tvl::forms
