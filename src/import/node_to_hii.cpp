// The import entry: the device's handle, location and forms, its own
// export under mKeepFormSets, the walk over the pending items in commit
// order with the rules that pass items over, the overall status and the
// clean-up.
#include "driver/trace.h"
#include "export/export.h"
#include "import/call.h"
#include "util/device_handles.h"
#include "util/hii_string.h"
#include "util/text.h"
#include "xml/node.h"

using tvl::rt::Pool;

extern "C" {
UINT16 mFailureMode = 2;
}

namespace tvl::imp {
namespace {

constexpr CHAR8 kFunction[] = "tvlNodeToHii";

// Secrets whose current value is never shown, so equal texts say nothing.
constexpr const CHAR8* kChapSecrets[] = {"IscsiInitiatorChapPwd", "FirstTgtChapPwd", "SecondTgtChapPwd"};

bool containsText(const CHAR16* text, const CHAR16* word) {
  for (; text && *text; ++text) {
    UINTN i = 0;
    while (word[i] && text[i] == word[i]) ++i;
    if (!word[i]) return true;
  }
  return false;
}

bool isChapSecret(const CHAR8* name) {
  for (const CHAR8* secret : kChapSecrets)
    if (compareNoCase(name, secret) == 0) return true;
  return false;
}

Pool<CHAR16> widen(const CHAR8* text) {
  UINTN n = rt::length(text);
  Pool<CHAR16> wide = Pool<CHAR16>::zeroed(n + 1);
  if (wide)
    for (UINTN i = 0; i < n; ++i) wide[i] = CHAR16(UINT8(text[i]));
  return wide;
}

// Appends an entry to a name's run, keeping document order.
template <typename Entry>
bool appendEntry(HashMap<ByText<CHAR8>>& heads, Vec<Entry>& entries, const void* key, const Entry& entry) {
  if (!entries.push(entry)) return false;
  UINTN index = entries.size();
  UINT64 head = 0;
  if (heads.find(key, &head)) {
    entries[UINTN(entries[UINTN(head - 1)].last - 1)].next = index;
    entries[UINTN(head - 1)].last = index;
    return true;
  }
  entries[index - 1].last = index;
  return heads.put(key, index);
}

}  // namespace

// ---------------------------------------------------------------- lookups

EFI_STATUS NameIndex::build(XML_NODE* root) {
  bool refused = false;
  RETURN_IF_ERROR(walkDocument(root, [&](XML_NODE* node) {
    XML_NODE* first = node->children;
    if (named(node, "ConfigItem") && first && first->contents &&
        !appendEntry(heads_, entries_, first->contents, Entry{node, 0, 0})) {
      refused = true;
      return Step::Stop;
    }
    return Step::Enter;
  }));
  return refused ? EFI_OUT_OF_RESOURCES : EFI_SUCCESS;
}

XML_NODE* NameIndex::first(const CHAR8* name) const {
  UINT64 head = 0;
  return heads_.find(name, &head) ? entries_[UINTN(head - 1)].item : nullptr;
}

XML_NODE* NameIndex::withPartition(const CHAR8* name, const CHAR8* partition) const {
  UINT64 head = 0;
  if (!heads_.find(name, &head)) return nullptr;
  for (UINTN e = UINTN(head); e; e = entries_[e - 1].next) {
    XML_NODE* item = entries_[e - 1].item;
    CHAR8* found = nullptr;
    if (EFI_ERROR(getPartitionIndex(item->children, &found))) continue;
    trace(TVL_LEVEL_PROGRESS, "GetNodeByNameTagWithPartition", u"partitionIndex = %a currentPartIndex = %a\n",
          partition, found);
    if (compareNoCase(found, partition) == 0) return item;
  }
  return nullptr;
}

StatementIndex::~StatementIndex() {
  for (UINTN i = 0; i < entries_.size(); ++i) rt::release(entries_[i].name);
}

EFI_STATUS StatementIndex::build(HII_FORMSET_RECORD* formSet) {
  if (!formSet) return EFI_SUCCESS;
  for (UINT64 f = 0; f < formSet->FormCount; ++f) {
    const HII_FORM_RECORD* form = formSet->Forms[f];
    for (UINT64 s = 0; form && s < form->StatementCount; ++s) {
      HII_STATEMENT_RECORD* statement = form->Statements[s];
      if (!statement || !statement->BlockName) continue;
      if (!entries_.push({statement, nullptr, kUnfetched, 0, 0})) return EFI_OUT_OF_RESOURCES;
      UINTN index = entries_.size();
      UINT64 head = 0;
      if (heads_.find(statement->BlockName, &head)) {
        entries_[UINTN(entries_[UINTN(head - 1)].last - 1)].next = index;
        entries_[UINTN(head - 1)].last = index;
      } else {
        entries_[index - 1].last = index;
        if (!heads_.put(statement->BlockName, index)) return EFI_OUT_OF_RESOURCES;
      }
    }
  }
  built_ = true;
  return EFI_SUCCESS;
}

EFI_STATUS StatementIndex::find(XML_NODE* item, const CHAR16* blockName, EFI_HII_HANDLE hiiHandle,
                                HII_STATEMENT_RECORD** statement) {
  if (!blockName || !built_) return EFI_INVALID_PARAMETER;
  const CHAR8* name = item && item->children ? item->children->contents : nullptr;
  if (!name) {
    trace(TVL_LEVEL_FAILURE, "GetStatement", u"PendingConfigItemNode has no name: %r\n", EFI_INVALID_PARAMETER);
    return EFI_INVALID_PARAMETER;
  }
  UINT64 head = 0;
  if (!heads_.find(blockName, &head)) return EFI_NOT_FOUND;
  for (UINTN e = UINTN(head); e; e = entries_[e - 1].next) {
    Entry& entry = entries_[e - 1];
    if (entry.state == kUnfetched) {
      EFI_STATUS status = GetStringBeforeBracket("x-UEFI", hiiHandle, entry.statement->Prompt, &entry.name);
      // A shortage is asked again next time; any other failure is final.
      if (status == EFI_OUT_OF_RESOURCES) continue;
      entry.state = EFI_ERROR(status) ? kNone : kFetched;
    }
    if (entry.state == kFetched && rt::equal<CHAR8>(entry.name, name)) {
      *statement = entry.statement;
      return EFI_SUCCESS;
    }
  }
  return EFI_NOT_FOUND;
}

// ---------------------------------------------------------------- outcomes

bool ImportCall::addSegment(const CHAR16* configHdr, const CHAR16* blockName, const CHAR16* value) {
  if (EFI_ERROR(appendRequestSegment(request, configHdr, blockName, value, false))) return false;
  *configRequest = request.text;
  return true;
}

void ImportCall::recordSuccess(const PendingItem& item) {
  appendStatusRecord(item.name, item.current, item.pending, "Success", 0, resultsTarget);
  *configRequest = request.text;
  if (overall == EFI_DEVICE_ERROR && request.text) overall = EFI_ABORTED;
}

bool ImportCall::recordFailure(const PendingItem& item, UINT64 code, bool withItems) {
  appendStatusRecord(item.name, withItems ? item.current : nullptr, withItems ? item.pending : nullptr, "Failure",
                     code, resultsTarget);
  if (overall == EFI_SUCCESS) overall = request.text ? EFI_ABORTED : EFI_DEVICE_ERROR;
  return mFailureMode == 1 ? end(overall, true) : true;
}

bool ImportCall::end(EFI_STATUS status, bool giveResults) {
  ended = true;
  endStatus = status;
  storeResults = giveResults;
  return false;
}

namespace {

// ---------------------------------------------------------------- one item

// Handles one pending item found for commit index `n`. FALSE when the call
// ends; every other way of passing the item over goes on with the next.
bool handleItem(ImportCall& call, XML_NODE* pending, UINT64 n) {
  call.order.consume(pending);
  XML_NODE* first = pending->children;
  trace(TVL_LEVEL_PROGRESS, kFunction, u"PendingConfigItemNode trying to be set = %a with CommitIndex = %x\n",
        first ? first->contents : nullptr, UINT32(n));

  PendingItem item;
  item.pending = pending;
  CHAR8* type = nullptr;
  if (!isConfigItemWritable(pending, &type)) {
    trace(TVL_LEVEL_PROGRESS, kFunction, u"ConfigItem is not writable\n");
    return true;
  }
  item.type = type;
  if (!first || !first->contents) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"PendingConfigItem is empty\n");
    return true;
  }
  item.name = first->contents;

  CHAR8* partition = nullptr;
  item.current = EFI_ERROR(getPartitionIndex(first, &partition)) ? call.currentNames.first(item.name)
                                                                : call.currentNames.withPartition(item.name, partition);
  if (!item.current) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"ConfigItem missing from CurrentXML\n");
    return true;
  }

  // A block name that cannot be copied ends the call with the results so
  // far, as any other working buffer does: passing the item over would
  // leave no trace of it in the results.
  Pool<CHAR8> blockName;
  EFI_STATUS status = takeBlockName(item.current, blockName.receive());
  if (status == EFI_OUT_OF_RESOURCES) return call.end(status, true);
  if (EFI_ERROR(status)) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"BlockName missing from CurrentXML\n");
    return true;
  }

  if (!call.isBios && !isChapSecret(item.name) && !rt::equal<CHAR8>(item.type, "OrderedList") &&
      CompareNodes(first, item.current->children) == EFI_SUCCESS) {
    trace(TVL_LEVEL_PROGRESS, kFunction, u"CompareNodes matched, skipping item = %r\n", EFI_SUCCESS);
    return true;
  }

  item.possible = call.possibleNames.first(item.name);
  if (!item.possible) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"ConfigItem missing from PossibleXML\n");
    return true;
  }

  Pool<CHAR16> wideBlockName = widen(blockName.get());
  if (!wideBlockName) return call.end(EFI_OUT_OF_RESOURCES, false);
  item.blockName = wideBlockName.get();

  // The statement's own store gives the header; without a statement the
  // header of the last one chosen (or the export's first store) stays.
  if (call.statements.find(pending, item.blockName, call.hiiHandle, &item.statement) == EFI_SUCCESS) {
    const HII_VARSTORE_RECORD* store = item.statement->VarStore;
    if (store && store->ConfigHdr) {
      mConfigHdr = store->ConfigHdr;
      mConfigHdrLength = rt::length(store->ConfigHdr);
    }
  } else {
    item.statement = nullptr;
  }
  return applyRule(call, item);
}

// Every pass in commit order. FALSE when the call ended early.
bool applyInOrder(ImportCall& call, UINT64 maxCommitIndex) {
  Vec<UINT64> values;
  if (EFI_ERROR(call.order.passValues(maxCommitIndex, values))) return call.end(EFI_OUT_OF_RESOURCES, true);
  for (UINTN v = 0; v < values.size(); ++v) {
    const UINT64 n = values[v];
    XML_NODE* item = nullptr;
    if (EFI_ERROR(call.order.first(n, &item))) return call.end(EFI_OUT_OF_RESOURCES, true);
    while (item) {
      if (!handleItem(call, item, n)) return false;
      if (EFI_ERROR(call.order.next(n, item, &item))) return call.end(EFI_OUT_OF_RESOURCES, true);
    }
  }
  return true;
}

// Everything the entry acquires before the items; released on every path.
struct Device {
  Pool<EFI_HII_HANDLE> handles;
  UINTN handleCount = 0;
  bool isBios = false;
};

EFI_STATUS locateDevice(EFI_HANDLE controller, Device& device) {
  EFI_STATUS status = HandleToHiiHandleBuffer(controller, &device.handleCount, device.handles.receive());
  if (EFI_ERROR(status)) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"HandleToHiiHandleBuffer failed %r\n", status);
    return status;
  }
  VOID* devicePath = nullptr;
  status = rt::bs()->HandleProtocol(controller, &gEfiDevicePathProtocolGuid, &devicePath);
  if (EFI_ERROR(status)) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"HandleProtocol failed %r\n", status);
    return status;
  }
  Pool<CHAR16> description;
  Pool<CHAR16> fqdd;
  Pool<CHAR16> pathText;
  status = gDeviceLocationProtocol->DevicePathToLocationText(
      gDeviceLocationProtocol, static_cast<const EFI_DEVICE_PATH_PROTOCOL*>(devicePath), "en-US",
      description.receive(), fqdd.receive(), pathText.receive());
  if (EFI_ERROR(status) || !fqdd) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"gDeviceLocationProtocol->DevicePathToLocationText failed %r\n", status);
    // A service that answers without a location text has not placed the
    // device: nothing can be matched against its forms.
    return EFI_ERROR(status) ? status : EFI_NOT_FOUND;
  }
  device.isBios = containsText(fqdd.get(), u"BIOS");
  return EFI_SUCCESS;
}

// Ends a call that got as far as the items: the results root to the caller
// (or freed when the caller cannot see it), the trees and the kept form
// sets released.
EFI_STATUS finish(ImportCall& call) {
  if (!call.ended || call.storeResults)
    *call.configResults = call.resultsTarget.root;
  else if (!call.rootGiven && call.resultsTarget.root)
    freeNode(call.resultsTarget.root);
  call.possible.reset();
  call.current.reset();
  DestroyGlobalForms();
  return call.ended ? call.endStatus : call.overall;
}

EFI_STATUS importDevice(TOLVANE_PROTOCOL* This, EFI_HANDLE controller, XML_NODE* pendingTree, CHAR16** configRequest,
                        XML_NODE** configResults) {
  // The out-arguments are tested too: a call without them could not be
  // answered.
  if (!This || !controller || !pendingTree || !configRequest || !configResults) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"Input paramater validation failed\n");
    return EFI_INVALID_PARAMETER;
  }
  if (!gDeviceLocationProtocol) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"gDeviceLocationProtocol is NULL\n");
    return EFI_INVALID_PARAMETER;
  }
  Device device;
  RETURN_IF_ERROR(locateDevice(controller, device));

  XML_NODE* possible = nullptr;
  XML_NODE* current = nullptr;
  mKeepFormSets = 1;
  EFI_STATUS status = This->HiiToNode(This, controller, &possible, &current);
  mKeepFormSets = 0;
  if (EFI_ERROR(status)) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"HiiToNode failed %r\n", status);
    DestroyGlobalForms();
    return status;
  }
  ImportCall call(configRequest, configResults, device.handles[0],
                  mFormSetBuffer && mFormSetBufferCount ? mFormSetBuffer[0] : nullptr);
  // From here on the call owns both trees: every return frees them.
  call.possible.reset(possible);
  call.current.reset(current);
  call.isBios = device.isBios;
  if (!possible || !current) {
    DestroyGlobalForms();
    return EFI_DEVICE_ERROR;
  }

  UINT64 maxCommitIndex = 0;
  getMaxCommitIndex(pendingTree, &maxCommitIndex);
  if (maxCommitIndex == 0) {
    trace(TVL_LEVEL_PROGRESS, kFunction, u"MaxCommitIndex is ZERO: %r\n", EFI_SUCCESS);
    DestroyGlobalForms();
    return call.rootGiven ? EFI_SUCCESS : EFI_DEVICE_ERROR;
  }
  XML_NODE* form = nullptr;
  const bool currentHasForms = !EFI_ERROR(findNodeByName("Form", call.current.get(), &form));
  if (!currentHasForms) trace(TVL_LEVEL_FAILURE, kFunction, u"Current values is missing form data\n");
  if (currentHasForms && EFI_ERROR(findNodeByName("Form", pendingTree, &form))) {
    trace(TVL_LEVEL_FAILURE, kFunction, u"Pending values is missing form data\n");
    form = nullptr;
  }
  if (!currentHasForms || !form) {
    DestroyGlobalForms();
    return EFI_DEVICE_ERROR;
  }

  // The lookups of the whole call, built once.
  if (EFI_ERROR(call.order.prepare(pendingTree)) || EFI_ERROR(call.currentNames.build(call.current.get())) ||
      EFI_ERROR(call.possibleNames.build(call.possible.get())) ||
      EFI_ERROR(call.statements.build(mFormSetBuffer && mFormSetBufferCount ? mFormSetBuffer[0] : nullptr))) {
    call.end(EFI_OUT_OF_RESOURCES, false);
    return finish(call);
  }
  applyInOrder(call, maxCommitIndex);
  return finish(call);
}

}  // namespace
}  // namespace tvl::imp

extern "C" EFI_STATUS EFIAPI tvlNodeToHii(TOLVANE_PROTOCOL* This, EFI_HANDLE ControllerHandle,
                                          XML_NODE* PendingTree, CHAR16** ConfigRequest, XML_NODE** ConfigResults) {
  tvl::trace(TVL_LEVEL_PROGRESS, tvl::imp::kFunction, u"Entering\n");
  EFI_STATUS status = tvl::imp::importDevice(This, ControllerHandle, PendingTree, ConfigRequest, ConfigResults);
  tvl::trace(TVL_LEVEL_PROGRESS, tvl::imp::kFunction, u"Exiting: %r\n", status);
  return status;
}
