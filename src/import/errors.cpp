// Error codes with their messages, and the marking of an existing result
// record as a failure once the save path cannot write its item.
#include "driver/trace.h"
#include "import/collections.h"
#include "import/internal.h"
#include "util/text.h"
#include "xml/node.h"

using tvl::rt::Pool;

extern "C" {

const ERROR_MESSAGE_ROW ErrorMessageTable[] = {
    {0x101, "Enumeration: Option not found."},
    {0x102, "Enumeration: Invalid data type."},
    {0x103, "Enumeration: Unable to set suppressed option."},
    {0x201, "String: Value is outside of mix/max range."},
    {0x202, "String: Invalid data type."},
    {0x301, "Integer: Value is outside of mix/max range."},
    {0x302, "Integer: Invalid data type."},
    {0x303, "Integer: Value is non-numeric."},
    {0x401, "Checkbox: Value is not 'true' or 'false'."},
    {0x402, "Checkbox: Invalid data type."},
    {0x501, "OrderedList: Option not found."},
    {0x502, "OrderedList: Invalid data type."},
    {0x503, "OrderedList: Unable to find index."},
    {0x601, "Password: Invalid data type."},
    {0x602, "Password: Value is outside of mix/max range."},
    {0x603, "Password: Old password is incorrect."},
    {0x604, "Password: Invalid XML."},
    {0x605, "Password: Unable to set password."},
    {0x606, "Password: Not installed."},
    {0x901, "Unable to set; ConfigItem is ReadOnly"},
    {0x902, "Unable to set; ConfigItem is Suppressed"},
    {0x903, "Unable to set; Option is Suppressed"},
    {0, nullptr},
};

const CHAR8* errorMessage(UINT64 Code) {
  for (const ERROR_MESSAGE_ROW* row = ErrorMessageTable; row->Code != 0; ++row)
    if (row->Code == Code) return row->Message;
  return nullptr;
}

}  // extern "C"

namespace tvl::imp {

CodeText codeText(UINT64 code) {
  CodeText out;
  formatAsciiN(out.text, sizeof(out.text), "%x", UINT32(code));
  return out;
}


namespace {

constexpr CHAR8 kFunction[] = "addErrorNode";

XML_NODE* nextNamed(XML_NODE* node, const CHAR8* name) {
  while (node && !named(node, name)) node = node->next;
  return node;
}

// Replaces a node's contents; when the copy cannot be made the node is
// left without contents.
void setContents(XML_NODE* node, const CHAR8* text) {
  rt::release(node->contents);
  node->contents = rt::duplicate(text).release();
}

}  // namespace

EFI_STATUS RecordIndex::build(XML_NODE* root) {
  bool refused = false;
  RETURN_IF_ERROR(walkDocument(root, [&](XML_NODE* node) {
    UINT64 found = 0;
    if (named(node, "Name") && node->contents && !names_.find(node->contents, &found) &&
        !names_.put(node->contents, UINT64(UINTN(node)))) {
      refused = true;
      return Step::Stop;
    }
    return Step::Enter;
  }));
  return refused ? EFI_OUT_OF_RESOURCES : EFI_SUCCESS;
}

XML_NODE* RecordIndex::find(const CHAR8* name) const {
  UINT64 node = 0;
  return names_.find(name, &node) ? reinterpret_cast<XML_NODE*>(UINTN(node)) : nullptr;
}

void markErrorRecord(const CHAR8* name, UINT64 errorCode, XML_NODE** resultsRoot, const RecordIndex* index) {
  trace(TVL_LEVEL_PROGRESS, kFunction, u"Marking failure, ErrorCode = %lx\n", errorCode);
  if (!resultsRoot || !*resultsRoot || !name) return;
  XML_NODE* nameNode = nullptr;
  if (index)
    nameNode = index->find(name);
  else if (EFI_ERROR(findNodeByNameAndContents("Name", name, *resultsRoot, &nameNode)))
    nameNode = nullptr;
  if (!nameNode) return;
  XML_NODE* detail = nextNamed(nameNode->next, "Detail");
  XML_NODE* status = detail ? nextNamed(detail, "Status") : nullptr;
  if (!status) return;
  if (status->contents) setContents(status, "Failure");
  if (XML_NODE* code = nextNamed(status, "ErrorCode")) {
    // Formatted into a fixed buffer, then copied at its exact length.
    CodeText text = codeText(errorCode);
    setContents(code, text.text);
  }
  trace(TVL_LEVEL_PROGRESS, kFunction, u"Marked failure, ErrorCode = %lx\n", errorCode);
}

}  // namespace tvl::imp

extern "C" VOID addErrorNode(const CHAR8* Name, UINT64 ErrorCode, XML_NODE** ResultsRoot) {
  tvl::imp::markErrorRecord(Name, ErrorCode, ResultsRoot, nullptr);
}
