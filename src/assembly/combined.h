// Serialisation of an export's two documents into one XML text.
#pragma once

#include "uefi/services.h"

extern "C" {

// One text holding First's "ConfigData" root with its children up to and
// including its first "ConfigDataEntry", followed by Second's first
// "ConfigDataEntry" and everything after it. Nothing is copied: Second's
// entry is linked behind First's for the duration of the serialisation
// only, so both trees come back unchanged. `Text` is the XML service's
// output and follows its ownership.
EFI_STATUS EFIAPI tvlNodesToCombinedXMLChar(TOLVANE_PROTOCOL* This, XML_NODE* First, XML_NODE* Second, CHAR8** Text);

}  // extern "C"
