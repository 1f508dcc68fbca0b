// The export entry: checks, the device's HII handles and FQDD, the choice of
// forms, the document skeleton, the form-set cache and the clean-up.
#include "driver/trace.h"
#include "export/export.h"
#include "export/walk.h"
#include "uefi/runtime.h"
#include "util/device_handles.h"

using tvl::trace;
using tvl::exp::ChildList;
using tvl::rt::Pool;

extern "C" {
UINT8 mKeepFormSets;
HII_FORMSET_RECORD** mFormSetBuffer;
UINTN mFormSetBufferCount;
CHAR16* mConfigHdr;
UINTN mConfigHdrLength;
UINT8 mIsBiosSetup;
UINT8 mIsSsdForms;
}

namespace {

constexpr CHAR8 kFunction[] = "tvlHiiToNode";
constexpr CHAR8 kSchemaInstanceNamespace[] = "http://www.w3.org/2001/XMLSchema-instance";

// Case-insensitive (ASCII letters) search for an 8-bit word in a UCS-2 text.
bool containsNoCase(const CHAR16* text, const CHAR8* word) {
  auto lower = [](UINT32 c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; };
  for (; text && *text; ++text) {
    UINTN i = 0;
    while (word[i] && text[i] && lower(text[i]) == lower(UINT8(word[i]))) ++i;
    if (!word[i]) return true;
  }
  return false;
}

bool contains(const CHAR16* text, const CHAR8* word) {
  for (; text && *text; ++text) {
    UINTN i = 0;
    while (word[i] && text[i] == CHAR16(UINT8(word[i]))) ++i;
    if (!word[i]) return true;
  }
  return false;
}

// The FQDD as the documents carry it: the low byte of each character.
Pool<CHAR8> lowBytes(const CHAR16* text) {
  UINTN n = tvl::rt::length(text);
  Pool<CHAR8> out = Pool<CHAR8>::zeroed(n + 1);
  if (out)
    for (UINTN i = 0; i < n; ++i) out[i] = CHAR8(text[i] & 0xFF);
  return out;
}

void destroyFormSets(UINTN count, HII_FORMSET_RECORD** formSets) {
  if (formSets) gHiiFormsProcessor2Protocol->DestroyFormSets(gHiiFormsProcessor2Protocol, count, formSets);
}

// The export's own copy of a variable store header. mConfigHdr points at it
// until the import points mConfigHdr at a store's own header; whatever
// mConfigHdr points at, only this copy is ever freed here.
CHAR16* ownedConfigHdr;

// What the device's FQDD selects.
struct Classification {
  bool biosSetup;
  bool storage;
};

Classification classify(const CHAR16* fqdd) {
  return {containsNoCase(fqdd, "BIOS.InternalSetup.1"),
          containsNoCase(fqdd, "Disk.Bay") || containsNoCase(fqdd, "PCIeSSD.Slot")};
}

// Parses the device's forms as its class asks: a storage device first
// without a filter, then with the controller's form-set filter; any other
// device with the BIOS filter or none.
EFI_STATUS processForms(const Classification& kind, EFI_HII_HANDLE* handles, UINTN count, UINTN* formSetCount,
                        HII_FORMSET_RECORD*** formSets) {
  HII_FORMS_PROCESSOR2_PROTOCOL* forms = gHiiFormsProcessor2Protocol;
  if (kind.storage) {
    trace(TVL_LEVEL_PROGRESS, kFunction, u"SSD Forms with Controller GUID\n");
    EFI_STATUS status = forms->ProcessForms(forms, handles, count, nullptr, formSetCount, formSets);
    if (!EFI_ERROR(status)) {
      mIsSsdForms = 0;
      return status;
    }
    status = forms->ProcessForms(forms, handles, count, &gInternalSSDSetup, formSetCount, formSets);
    if (EFI_ERROR(status)) {
      trace(TVL_LEVEL_FAILURE, kFunction, u"gHiiFormsProcessor2Protocol Returned: %r for PCIe SSD\n", status);
      return status;
    }
    mIsSsdForms = 1;
    return status;
  }
  mIsSsdForms = 0;
  EFI_STATUS status = forms->ProcessForms(forms, handles, count, kind.biosSetup ? &gInternalBIOSSetup : nullptr,
                                          formSetCount, formSets);
  if (EFI_ERROR(status)) trace(TVL_LEVEL_FAILURE, kFunction, u"gHiiFormsProcessor2Protocol Returned: %r\n", status);
  return status;
}

// Root attributes in document order; each is added to the possible root,
// then to the current root.
EFI_STATUS addRootAttributes(XML_NODE* possible, XML_NODE* current) {
  static constexpr const CHAR8* kAttributes[][2] = {
      {"Version", "2.0.0"},
      {"xmlns:xsi", kSchemaInstanceNamespace},
      {"xsi:noNamespaceSchemaLocation", "HiiConfigurationDataSchema.xsd"},
  };
  for (const auto& attribute : kAttributes) {
    RETURN_IF_ERROR(addAttribute(attribute[0], attribute[1], &possible));
    RETURN_IF_ERROR(addAttribute(attribute[0], attribute[1], &current));
  }
  return EFI_SUCCESS;
}

// The skeleton below the two roots and the walk of every form set.
EFI_STATUS buildDocuments(tvl::exp::ExportContext& context, const CHAR8* fqdd8, UINTN formSetCount,
                          HII_FORMSET_RECORD** formSets) {
  RETURN_IF_ERROR(addRootAttributes(context.possibleRoot, context.currentRoot));
  ChildList possibleRoot(context.possibleRoot);
  ChildList currentRoot(context.currentRoot);
  XML_NODE* possibleEntry = nullptr;
  XML_NODE* currentEntry = nullptr;
  RETURN_IF_ERROR(tvl::exp::appendEmpty(possibleRoot, "ConfigDataEntry", &possibleEntry));
  RETURN_IF_ERROR(tvl::exp::appendEmpty(currentRoot, "ConfigDataEntry", &currentEntry));
  RETURN_IF_ERROR(addAttribute("FQDD", fqdd8, &possibleEntry));
  RETURN_IF_ERROR(addAttribute("FQDD", fqdd8, &currentEntry));
  RETURN_IF_ERROR(addAttribute("Type", "PossibleValues", &possibleEntry));
  RETURN_IF_ERROR(addAttribute("Type", "CurrentValues", &currentEntry));

  trace(TVL_LEVEL_FAILURE, kFunction, u"FormSetBufferCount = %d\n", UINT32(formSetCount));
  ChildList possibleSets(possibleEntry);
  ChildList currentSets(currentEntry);
  for (UINTN i = 0; i < formSetCount; ++i)
    RETURN_IF_ERROR(tvl::exp::walkFormSet(context, formSets[i], possibleSets, currentSets));
  return EFI_SUCCESS;
}

// Everything the entry acquires before the walk; released on every path.
struct EntryResources {
  Pool<EFI_HII_HANDLE> handles;
  Pool<CHAR16> fqdd;
};

EFI_STATUS locateDevice(EFI_HANDLE controller, EntryResources& held, UINTN* handleCount) {
  EFI_STATUS status = HandleToHiiHandleBuffer(controller, handleCount, held.handles.receive());
  if (EFI_ERROR(status)) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"HandleToHiiHandleBuffer Returned: %r\n", status);
    return status;
  }
  VOID* devicePath = nullptr;
  status = tvl::rt::bs()->HandleProtocol(controller, &gEfiDevicePathProtocolGuid, &devicePath);
  if (EFI_ERROR(status)) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"gEfiDevicePathProtocolGuid Returned: %r\n", status);
    return status;
  }
  Pool<CHAR16> description;
  Pool<CHAR16> pathText;
  status = gDeviceLocationProtocol->DevicePathToLocationText(
      gDeviceLocationProtocol, static_cast<const EFI_DEVICE_PATH_PROTOCOL*>(devicePath), "en-US",
      description.receive(), held.fqdd.receive(), pathText.receive());
  if (EFI_ERROR(status) || !held.fqdd) {
    // A service that succeeds without a FQDD ends the export with its own
    // status (success) and no documents.
    trace(TVL_LEVEL_FAILURE, kFunction, u"DevicePathToLocationText Returned: %r\n", status);
    return status;
  }
  trace(TVL_LEVEL_FINDING, kFunction, u"FQDD = %s\n", held.fqdd.get());
  return EFI_SUCCESS;
}

}  // namespace

// The walk replaces mConfigHdr with a copy of `header`; the previous copy
// that the export made is freed, a header the import pointed at is not.
namespace tvl::exp {
EFI_STATUS keepConfigHdr(const CHAR16* header) {
  UINTN n = rt::length(header);
  Pool<CHAR16> copy = rt::duplicate(header, n);
  if (!copy) return EFI_OUT_OF_RESOURCES;
  rt::release(ownedConfigHdr);
  ownedConfigHdr = copy.release();
  mConfigHdr = ownedConfigHdr;
  mConfigHdrLength = n;
  return EFI_SUCCESS;
}
}  // namespace tvl::exp

extern "C" {

VOID HiiToNodeCleanup(XML_NODE* CurrentRoot, XML_NODE* PossibleRoot, UINTN FormSetBufferCount,
                      HII_FORMSET_RECORD** FormSetBuffer) {
  if (CurrentRoot) freeNode(CurrentRoot);
  if (PossibleRoot) freeNode(PossibleRoot);
  destroyFormSets(FormSetBufferCount, FormSetBuffer);
}

VOID DestroyGlobalForms(VOID) {
  if (mFormSetBuffer) {
    EFI_STATUS status =
        gHiiFormsProcessor2Protocol->DestroyFormSets(gHiiFormsProcessor2Protocol, mFormSetBufferCount, mFormSetBuffer);
    if (EFI_ERROR(status)) trace(TVL_LEVEL_FAILURE, "DestroyGlobalForms", u"Unable to destroy mFormSetBuffer\n");
  }
  mFormSetBuffer = nullptr;
  mFormSetBufferCount = 0;
  // mConfigHdr points at the export's copy or at a header inside the form
  // sets just given back: neither outlives the cache, so it goes with it.
  tvl::rt::release(ownedConfigHdr);
  ownedConfigHdr = nullptr;
  mConfigHdr = nullptr;
  mConfigHdrLength = 0;
}

}  // extern "C"

namespace {

EFI_STATUS exportDevice(TOLVANE_PROTOCOL* This, EFI_HANDLE ControllerHandle, XML_NODE** PossibleValues,
                        XML_NODE** CurrentValues) {
  if (!gDeviceLocationProtocol) return EFI_DEVICE_ERROR;
  if (!This || !ControllerHandle || !PossibleValues || !CurrentValues) return EFI_INVALID_PARAMETER;

  EntryResources held;
  UINTN handleCount = 0;
  EFI_STATUS status = locateDevice(ControllerHandle, held, &handleCount);
  if (EFI_ERROR(status) || !held.fqdd) return status;

  Classification kind = classify(held.fqdd.get());
  mIsBiosSetup = kind.biosSetup ? 1 : 0;

  UINTN formSetCount = 0;
  HII_FORMSET_RECORD** formSets = nullptr;
  RETURN_IF_ERROR(processForms(kind, held.handles.get(), handleCount, &formSetCount, &formSets));

  tvl::exp::ExportContext context;
  context.fqdd = held.fqdd.get();
  context.hiiHandle = held.handles[0];
  context.nicDevice = contains(context.fqdd, "NIC.");
  context.biosPasswords = contains(context.fqdd, "BIOS");

  status = createNode("ConfigData", &context.possibleRoot);
  if (EFI_ERROR(status)) {
    destroyFormSets(formSetCount, formSets);
    return status;
  }
  status = createNode("ConfigData", &context.currentRoot);
  if (EFI_ERROR(status)) {
    HiiToNodeCleanup(nullptr, context.possibleRoot, formSetCount, formSets);
    return status;
  }

  Pool<CHAR8> fqdd8 = lowBytes(context.fqdd);
  status = fqdd8 ? buildDocuments(context, fqdd8.get(), formSetCount, formSets) : EFI_OUT_OF_RESOURCES;
  if (EFI_ERROR(status)) {
    HiiToNodeCleanup(context.currentRoot, context.possibleRoot, formSetCount, formSets);
    return status;
  }

  if (mKeepFormSets == 1) {
    // A second kept export before the cache is emptied replaces it; the
    // form sets it held go back to the service rather than being lost.
    if (mFormSetBuffer && mFormSetBuffer != formSets) destroyFormSets(mFormSetBufferCount, mFormSetBuffer);
    mFormSetBuffer = formSets;
    mFormSetBufferCount = formSetCount;
  } else {
    destroyFormSets(formSetCount, formSets);
  }
  *PossibleValues = context.possibleRoot;
  *CurrentValues = context.currentRoot;
  return EFI_SUCCESS;
}

}  // namespace

extern "C" EFI_STATUS EFIAPI tvlHiiToNode(TOLVANE_PROTOCOL* This, EFI_HANDLE ControllerHandle,
                                          XML_NODE** PossibleValues, XML_NODE** CurrentValues) {
  trace(TVL_LEVEL_PROGRESS, kFunction, u"Entering\n");
  EFI_STATUS status = exportDevice(This, ControllerHandle, PossibleValues, CurrentValues);
  trace(TVL_LEVEL_PROGRESS, kFunction, u"Exiting: %r\n", status);
  return status;
}
