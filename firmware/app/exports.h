// The export in real firmware: every controller connected, the firmware's
// HII database written out, the sample devices loaded, and then HiiToNode
// and NodesToCombinedXMLChar on every handle whose package lists hold
// forms, with the documents, the stores and a manifest written to the boot
// drive.
#pragma once

#include "export/records/records.h"
#include "firmware/app/report.h"
#include "uefi/media.h"
#include "uefi/services.h"

namespace tvl::check {

struct Services {
  TOLVANE_PROTOCOL* converter;
  XML_PROTOCOL* xml;
  HII_FORMS_PROCESSOR2_PROTOCOL* forms;
  DEVICE_LOCATION_PROTOCOL* location;
  DEBUG_LOG_PROTOCOL* log;
  EFI_HII_DATABASE_PROTOCOL* database;
  EFI_HII_STRING_PROTOCOL* strings;
  EFI_DEVICE_PATH_TO_TEXT_PROTOCOL* pathText;  // optional: display only
};

void runExports(const Services& services, Report& report);

}  // namespace tvl::check
