// Files of exported HII package lists (package lists back to back, as
// EFI_HII_DATABASE_PROTOCOL.ExportPackageLists writes them): a
// bounds-checked walk that validates every package-list and package header
// before anything else reads the bytes.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "uefi/protocols.h"

namespace tvl::host::offline {

struct FilePackage {
  UINT8 type = 0;
  size_t offset = 0;  // from the start of the file
  size_t length = 0;  // header included
  std::string language;  // string packages
};

// A record of the file that breaks the format.
struct FileFault {
  size_t offset = 0;
  std::string message;
};

struct FilePackageList {
  size_t offset = 0;  // from the start of the file
  size_t length = 0;  // PackageLength
  EFI_GUID guid{};
  std::vector<FilePackage> packages;  // the END package left out
  std::vector<UINT8> devicePath;      // payload of its device-path package, if any
  bool hasForms = false;
  // Packages whose contents do not parse (a string package, a device-path
  // package): the list's framing holds, so the other lists stay readable.
  std::vector<FileFault> flaws;
};

// Walks `size` bytes. Refused: an empty file; a package-list header cut
// short; a package-list length shorter than its header and END package or
// past the end of the file; a package header cut short; a package length
// shorter than its header or past the end of its list; a package of a type
// the UEFI specification does not define (0x00, 0x03, 0x0B to 0xDE); an END
// package that is not 4 bytes or not last, or none. False with `fault` set
// on the first such record. A string package or a device-path package that
// does not parse is a flaw of its list (FilePackageList::flaws), not of the
// file.
bool scanPackageLists(const UINT8* data, size_t size, std::vector<FilePackageList>& lists, FileFault& fault);

// "FORMS", "STRINGS", ... or "0x.." for a package type.
std::string packageTypeName(UINT8 type);

}  // namespace tvl::host::offline
