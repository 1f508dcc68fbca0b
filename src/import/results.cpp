// Result records: one "Operation" per reported item under a "ConfigResults"
// root, with the item's name, its old and new values, the status word and
// the error code. During a restore, successes that change nothing are left
// out.
#include "driver/trace.h"
#include "export/tree.h"
#include "import/collections.h"
#include "import/internal.h"
#include "util/text.h"
#include "xml/owned_node.h"

using tvl::exp::ChildList;
using tvl::rt::Pool;
using tvl::xml::OwnedNode;

extern "C" const CHAR16 kRestoreVariableName[] = u"VKR_RESTORE_OP_IN_PROGRESS";

namespace tvl::imp {
namespace {

constexpr CHAR8 kFunction[] = "addStatusNode";

bool namedNoCase(const XML_NODE* node, const CHAR8* name) {
  return node->name && compareNoCase(node->name, name) == 0;
}

// The value of a ValueStruct: the first "Value" (any letter case) among its
// first child and that child's following siblings; for a ValueStruct
// without children, among itself and its following siblings.
XML_NODE* valueOf(XML_NODE* valueStruct) {
  for (XML_NODE* node = valueStruct->children ? valueStruct->children : valueStruct; node; node = node->next)
    if (namedNoCase(node, "Value")) return node;
  return nullptr;
}

XML_NODE* firstValue(XML_NODE* item) {
  XML_NODE* value = nullptr;
  return EFI_ERROR(findNodeByName("Value", item->children, &value)) ? nullptr : value;
}

// A success whose value did not change is dropped during a restore.
bool isDropped(XML_NODE* current, XML_NODE* pending, UINT64 errorCode) {
  if (errorCode != 0 || !current || !pending || !current->children || !pending->children) return false;
  XML_NODE* currentValue = firstValue(current);
  bool restore = restoreInProgress();
  if (currentValue && !restore) return false;
  XML_NODE* pendingValue = firstValue(pending);
  return currentValue && pendingValue && currentValue->contents && pendingValue->contents &&
         rt::equal(currentValue->contents, pendingValue->contents);
}

bool isOrderedList(const XML_NODE* item) {
  for (const XML_ATTRIBUTE* a = item->attributes; a; a = a->next)
    if (a->value && rt::equal(a->value, "OrderedList")) return true;
  return false;
}

// The position an ordered-list entry names: its first "Index" attribute
// (any letter case). FALSE when it has none.
bool positionOf(const XML_NODE* valueStruct, UINT64* position) {
  for (const XML_ATTRIBUTE* a = valueStruct->attributes; a; a = a->next) {
    if (a->name && compareNoCase(a->name, "Index") == 0) {
      *position = parseDecimal(a->value);
      return true;
    }
  }
  return false;
}

// "NewValue" elements of an ordered list: one empty element per pending
// ValueStruct, then each filled, by the position its entry names, with a
// copy of the entry's value taken as it stands (no escaping pass).
EFI_STATUS appendListValues(ChildList& detail, XML_NODE* pending) {
  Vec<XML_NODE*> slots;
  UINTN count = countValueStructs(pending->children);
  if (!slots.reserve(count)) return EFI_OUT_OF_RESOURCES;
  for (UINTN i = 0; i < count; ++i) {
    XML_NODE* slot = nullptr;
    RETURN_IF_ERROR(exp::appendText(detail, "NewValue", "", &slot));
    slots.push(slot);
  }
  for (XML_NODE* entry = pending->children; entry; entry = entry->next) {
    UINT64 position = 0;
    if (!namedNoCase(entry, "ValueStruct") || !positionOf(entry, &position) || position >= count) continue;
    XML_NODE* value = valueOf(entry);
    if (!value || !value->contents) continue;
    Pool<CHAR8> copy = rt::duplicate(value->contents);
    if (!copy) return EFI_OUT_OF_RESOURCES;
    rt::release(slots[position]->contents);
    slots[position]->contents = copy.release();
  }
  return EFI_SUCCESS;
}

// Old values from the current item, new values from the pending one; new
// values only follow old ones.
EFI_STATUS appendValues(ChildList& detail, XML_NODE* current, XML_NODE* pending) {
  bool anyOld = false;
  for (XML_NODE* child = current ? current->children : nullptr; child; child = child->next) {
    if (!namedNoCase(child, "ValueStruct")) continue;
    XML_NODE* value = valueOf(child);
    if (!value) continue;
    RETURN_IF_ERROR(exp::appendText(detail, "OldValue", value->contents ? value->contents : ""));
    anyOld = true;
  }
  if (!anyOld || !pending || !pending->children) return EFI_SUCCESS;
  if (isOrderedList(pending)) return appendListValues(detail, pending);
  for (XML_NODE* child = pending->children; child; child = child->next) {
    if (!namedNoCase(child, "ValueStruct")) continue;
    XML_NODE* value = valueOf(child);
    if (value) RETURN_IF_ERROR(exp::appendText(detail, "NewValue", value->contents ? value->contents : ""));
  }
  return EFI_SUCCESS;
}

}  // namespace

bool restoreInProgress() {
  EFI_RUNTIME_SERVICES* runtime = rt::rts();
  if (!runtime || !runtime->GetVariable) return false;
  UINT8 data[4];
  UINTN size = sizeof(data);
  UINT32 attributes = 0;
  return !EFI_ERROR(runtime->GetVariable(kRestoreVariableName, &gTolvaneVariableGuid, &attributes, &size, data));
}

EFI_STATUS appendStatusRecord(const CHAR8* name, XML_NODE* currentItem, XML_NODE* pendingItem,
                              const CHAR8* statusWord, UINT64 errorCode, ResultsTarget& target) {
  trace(TVL_LEVEL_PROGRESS, kFunction, u"Entering\n");
  if (isDropped(currentItem, pendingItem, errorCode)) {
    trace(TVL_LEVEL_PROGRESS, kFunction, u"Restore in progress, value unchanged: not recorded\n");
    return EFI_SUCCESS;
  }
  // The record is built on its own and linked last, so a failure leaves
  // the document as it was.
  OwnedNode operation;
  RETURN_IF_ERROR(createNode("Operation", operation.receive()));
  if (EFI_ERROR(addAttribute("name", "CHANGE", operation.address()))) return EFI_OUT_OF_RESOURCES;
  ChildList children(operation.get());
  XML_NODE* detail = nullptr;
  RETURN_IF_ERROR(exp::appendText(children, "DisplayValue", name));
  RETURN_IF_ERROR(exp::appendText(children, "Name", name));
  RETURN_IF_ERROR(exp::appendEmpty(children, "Detail", &detail));
  ChildList detailChildren(detail);
  RETURN_IF_ERROR(appendValues(detailChildren, currentItem, pendingItem));
  RETURN_IF_ERROR(exp::appendText(children, "Status", statusWord));
  RETURN_IF_ERROR(exp::appendText(children, "ErrorCode", codeText(errorCode).text));

  XML_NODE* root = target.root;
  if (!root) {
    RETURN_IF_ERROR(createNode("ConfigResults", &root));
    target.last = nullptr;
  } else if (!target.last) {
    for (XML_NODE* child = root->children; child; child = child->next) target.last = child;
  }
  XML_NODE* record = operation.release();
  record->parent = root;
  if (target.last) {
    target.last->next = record;
    record->previous = target.last;
  } else {
    root->children = record;
  }
  target.root = root;
  target.last = record;
  trace(TVL_LEVEL_PROGRESS, kFunction, u"Exiting\n");
  return EFI_SUCCESS;
}

}  // namespace tvl::imp

extern "C" EFI_STATUS addStatusNode(const CHAR8* Name, XML_NODE* CurrentItem, XML_NODE* PendingItem,
                                    const CHAR8* StatusWord, UINT64 ErrorCode, XML_NODE** ResultsRoot) {
  if (!ResultsRoot) return EFI_INVALID_PARAMETER;
  tvl::imp::ResultsTarget target;
  target.root = *ResultsRoot;
  RETURN_IF_ERROR(tvl::imp::appendStatusRecord(Name, CurrentItem, PendingItem, StatusWord, ErrorCode, target));
  *ResultsRoot = target.root;
  return EFI_SUCCESS;
}
