// Commit indexes and node comparison: the bookkeeping that orders pending
// items and marks them done, the writability test, the removal of the
// block name the export leaves in the current tree, the ValueStruct lookup
// by position, the unchanged-value test and the statement behind an item.
//
// These are the operations one at a time, each searching from scratch. The
// import itself reaches the same answers through indexes built once per
// call (node_to_hii.cpp).
#include "driver/trace.h"
#include "export/export.h"
#include "import/collections.h"
#include "import/internal.h"
#include "util/hii_string.h"
#include "util/text.h"
#include "xml/node.h"

using tvl::imp::named;
using tvl::imp::Step;
using tvl::rt::Pool;

namespace {

constexpr const CHAR8* kWritableTypes[] = {"Enumeration", "String", "Integer", "Password", "OrderedList", "Checkbox"};

XML_NODE* find(const CHAR8* name, XML_NODE* start) {
  XML_NODE* node = nullptr;
  return start && !EFI_ERROR(findNodeByName(name, start, &node)) ? node : nullptr;
}

bool holdsName(XML_NODE* item, const CHAR8* name) {
  XML_NODE* node = nullptr;
  return item->children && !EFI_ERROR(findNodeByNameAndContents("Name", name, item->children, &node));
}

EFI_STATUS setZero(XML_NODE* indexNode) {
  Pool<CHAR8> zero = tvl::rt::duplicate("0");
  if (!zero) return EFI_OUT_OF_RESOURCES;
  tvl::rt::release(indexNode->contents);
  indexNode->contents = zero.release();
  return EFI_SUCCESS;
}

EFI_STATUS compared(EFI_STATUS status, const CHAR16* text) {
  tvl::trace(TVL_LEVEL_FAILURE, "CompareNodes", text, status);
  return status;
}

}  // namespace

extern "C" {

VOID getMaxCommitIndex(XML_NODE* Start, UINT64* Max) {
  if (!Max) return;
  // A visit the pool cannot hold stops where it got to.
  tvl::imp::walkDocument(Start, [&](XML_NODE* node) {
    if (named(node, "CommitIndex")) {
      UINT64 value = parseDecimal(node->contents);
      if (value > *Max) {
        *Max = value;
        return Step::Leave;
      }
    }
    return Step::Enter;
  });
}

EFI_STATUS findPendingItemByCommitIndex(UINT64 N, XML_NODE* Start, XML_NODE** Found) {
  if (Found) *Found = nullptr;
  if (N == 0 || !Start || !Found) return EFI_INVALID_PARAMETER;
  XML_NODE* firstForm = find("Form", Start);
  if (!firstForm) return EFI_INVALID_PARAMETER;
  for (XML_NODE* form = firstForm; form; form = form->next) {
    for (XML_NODE* item = find("ConfigItem", form); item; item = item->next) {
      if (holdsName(item, "SysPassword") || holdsName(item, "SetupPassword")) continue;
      XML_NODE* index = find("CommitIndex", item->children);
      if (index && parseDecimal(index->contents) == N) {
        *Found = item;
        return EFI_SUCCESS;
      }
    }
  }
  return EFI_NOT_FOUND;
}

EFI_STATUS clearCommitIndex(XML_NODE* Item) {
  if (!Item) return EFI_INVALID_PARAMETER;
  XML_NODE* index = nullptr;
  RETURN_IF_ERROR(findNodeByName("CommitIndex", Item, &index));
  return setZero(index);
}

EFI_STATUS CheckAndClearCommitIndex(XML_NODE* Start, const CHAR8* ItemName) {
  XML_NODE* name = nullptr;
  RETURN_IF_ERROR(findNodeByNameAndContents("Name", ItemName, Start, &name));
  XML_NODE* index = nullptr;
  RETURN_IF_ERROR(findNodeByName("CommitIndex", name, &index));
  if (!index->contents) return EFI_SUCCESS;
  if (parseDecimal(index->contents) == 0) return EFI_NOT_FOUND;
  return setZero(index);
}

BOOLEAN isConfigItemWritable(XML_NODE* Item, CHAR8** Type) {
  if (!Item || !Type || !named(Item, "ConfigItem")) return FALSE;
  CHAR8* type = nullptr;
  if (EFI_ERROR(getAttributeValue(Item, "Type", &type)) || !type) return FALSE;
  for (const CHAR8* writable : kWritableTypes) {
    if (tvl::rt::equal(type, writable)) {
      *Type = type;
      return TRUE;
    }
  }
  return FALSE;
}

// The element holds the configuration-string fragment escaped, as the
// export stores every text ("&amp;OFFSET=..."); the copy handed out is the
// fragment itself, so that it matches the statement's block name and
// forms a request.
EFI_STATUS takeBlockName(XML_NODE* Item, CHAR8** BlockName) {
  if (!Item || !BlockName || !named(Item, "ConfigItem") || !Item->children) return EFI_INVALID_PARAMETER;
  XML_NODE* index = find("CommitIndex", Item->children);
  if (!index) return EFI_INVALID_PARAMETER;
  XML_NODE* block = index->next;
  if (!block || !named(block, "BlockName") || !block->next || !block->contents) return EFI_INVALID_PARAMETER;
  Pool<CHAR8> copy = tvl::rt::duplicate(block->contents);
  if (!copy) return EFI_OUT_OF_RESOURCES;
  tvl::imp::unescapeInPlace(copy.get());
  index->next = block->next;
  block->next->previous = index;
  block->next = nullptr;
  freeNode(block);
  *BlockName = copy.release();
  return EFI_SUCCESS;
}

EFI_STATUS findValueStructByIndex(XML_NODE* Item, UINT64 N, XML_NODE** Found) {
  if (!Item || !Item->children || !Found) return EFI_INVALID_PARAMETER;
  for (XML_NODE* child = Item->children; child; child = child->next) {
    if (!named(child, "ValueStruct")) continue;
    for (const XML_ATTRIBUTE* attribute = child->attributes; attribute; attribute = attribute->next) {
      if (attribute->name && tvl::rt::equal(attribute->name, "Index") && parseDecimal(attribute->value) == N) {
        *Found = child;
        return EFI_SUCCESS;
      }
    }
  }
  return EFI_NOT_FOUND;
}

EFI_STATUS CompareNodes(XML_NODE* SrcNode, XML_NODE* DstNode) {
  if (!SrcNode || !DstNode) return compared(EFI_INVALID_PARAMETER, u"SrcNode and DstNode are NULL: %r\n");
  XML_NODE* srcName = find("Name", SrcNode);
  if (!srcName) return compared(EFI_INVALID_PARAMETER, u"SrcNode missing Name: %r\n");
  XML_NODE* dstName = find("Name", DstNode);
  if (!dstName) return compared(EFI_INVALID_PARAMETER, u"DstNode missing Name: %r\n");
  if (srcName->contents && dstName->contents && !tvl::rt::equal(srcName->contents, dstName->contents))
    return compared(EFI_NOT_FOUND, u"Names don't match: %r\n");
  XML_NODE* srcValue = find("Value", SrcNode);
  if (!srcValue) return compared(EFI_INVALID_PARAMETER, u"SrcNode missing Value: %r\n");
  XML_NODE* dstValue = find("Value", DstNode);
  if (!dstValue) return compared(EFI_INVALID_PARAMETER, u"DstNode missing Value: %r\n");
  const CHAR8* pending = srcValue->contents;
  const CHAR8* current = dstValue->contents;
  if (!pending && !current) return compared(EFI_SUCCESS, u"Both current and pending values are NULL: %r\n");
  if (pending && current) {
    if (tvl::rt::equal(pending, current)) return compared(EFI_SUCCESS, u"Values match: %r\n");
    return compared(EFI_NOT_FOUND, u"Values don't match: %r\n");
  }
  return compared(EFI_NOT_FOUND, u"Pending or current value is NULL, Values don't match: %r\n");
}

EFI_STATUS GetStatement(XML_NODE* Item, const CHAR16* BlockName, HII_STATEMENT_RECORD** Statement,
                        EFI_HII_HANDLE HiiHandle) {
  if (!BlockName || !Statement || !mFormSetBuffer || mFormSetBufferCount == 0 || !mFormSetBuffer[0])
    return EFI_INVALID_PARAMETER;
  if (!Item || !Item->children || !Item->children->contents) {
    tvl::trace(TVL_LEVEL_FAILURE, "GetStatement", u"PendingConfigItemNode has no name: %r\n", EFI_INVALID_PARAMETER);
    return EFI_INVALID_PARAMETER;
  }
  const HII_FORMSET_RECORD* formSet = mFormSetBuffer[0];
  for (UINT64 f = 0; f < formSet->FormCount; ++f) {
    const HII_FORM_RECORD* form = formSet->Forms[f];
    for (UINT64 s = 0; form && s < form->StatementCount; ++s) {
      HII_STATEMENT_RECORD* statement = form->Statements[s];
      if (!statement || !statement->BlockName || !tvl::rt::equal<CHAR16>(statement->BlockName, BlockName)) continue;
      Pool<CHAR8> name;
      if (EFI_ERROR(GetStringBeforeBracket("x-UEFI", HiiHandle, statement->Prompt, name.receive()))) continue;
      if (tvl::rt::equal<CHAR8>(name.get(), Item->children->contents)) {
        *Statement = statement;
        return EFI_SUCCESS;
      }
    }
  }
  return EFI_NOT_FOUND;
}

}  // extern "C"
