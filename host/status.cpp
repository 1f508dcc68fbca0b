#include "host/status.h"

#include <cstdio>

#include "uefi/status_table.h"

namespace tvl::host {

std::string statusName(EFI_STATUS status) {
  if (const tvl::rt::StatusEntry* entry = tvl::rt::findStatus(status)) return entry->symbol;
  char text[32];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(status));
  return text;
}

}  // namespace tvl::host
