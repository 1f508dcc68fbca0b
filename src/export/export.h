// The export: one device's HII forms as two XML documents, the
// possible-values document (what every setting may take) and the
// current-values document (what every setting holds now), and the form-set
// cache that the import fills through it.
#pragma once

#include "export/records/records.h"
#include "uefi/services.h"

extern "C" {

// Module state shared with the import. No lock guards it: calls of the
// converter's operations must not overlap.
//
// mKeepFormSets: set by the import around its own export; while it is 1 an
// export keeps its form sets in mFormSetBuffer, fills mConfigHdr and writes
// "BlockName" elements.
extern UINT8 mKeepFormSets;
extern HII_FORMSET_RECORD** mFormSetBuffer;
extern UINTN mFormSetBufferCount;
// Header of the first variable store of the form set last walked while
// mKeepFormSets was 1 (the import may point it at a store's own header).
extern CHAR16* mConfigHdr;
extern UINTN mConfigHdrLength;
// What the last export found: a BIOS setup FQDD, and forms reached only
// through the storage controller's form-set filter.
extern UINT8 mIsBiosSetup;
extern UINT8 mIsSsdForms;

// The export operation of TOLVANE_PROTOCOL. On success the caller owns both
// trees and frees them through the node toolbox.
EFI_STATUS EFIAPI tvlHiiToNode(TOLVANE_PROTOCOL* This, EFI_HANDLE ControllerHandle, XML_NODE** PossibleValues,
                               XML_NODE** CurrentValues);

// Frees each root given with its tree, then gives the form sets back to the
// forms processor.
VOID HiiToNodeCleanup(XML_NODE* CurrentRoot, XML_NODE* PossibleRoot, UINTN FormSetBufferCount,
                      HII_FORMSET_RECORD** FormSetBuffer);

// Gives the kept form sets back to the forms processor and empties the
// cache.
VOID DestroyGlobalForms(VOID);

}  // extern "C"
