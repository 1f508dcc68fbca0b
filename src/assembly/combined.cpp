#include "assembly/combined.h"

#include "driver/trace.h"
#include "uefi/runtime.h"
#include "xml/node.h"

namespace {

constexpr CHAR8 kFunctionName[] = "tvlNodesToCombinedXMLChar";
constexpr CHAR8 kRootName[] = "ConfigData";
constexpr CHAR8 kEntryName[] = "ConfigDataEntry";

bool isConfigData(const XML_NODE* root) { return root->name && tvl::rt::equal(root->name, kRootName); }

}  // namespace

extern "C" EFI_STATUS EFIAPI tvlNodesToCombinedXMLChar(TOLVANE_PROTOCOL* This, XML_NODE* First, XML_NODE* Second,
                                                       CHAR8** Text) {
  tvl::trace(TVL_LEVEL_FAILURE, kFunctionName, u"Tolvane-tvlNodesToCombinedXmlChar: Entering...\n");
  if (!This || !First || !Second || !Text) {
    tvl::trace(TVL_LEVEL_FAILURE, kFunctionName, u"Tolvane-tvlNodesToCombinedXmlChar: Invalid starting parameter: %r\n",
               EFI_INVALID_PARAMETER);
    return EFI_INVALID_PARAMETER;
  }
  if (!isConfigData(First) || !isConfigData(Second)) {
    tvl::trace(TVL_LEVEL_FAILURE, kFunctionName,
               u"Tolvane-tvlNodesToCombinedXmlChar: possible or current do not point to <ConfigData>\n");
    return EFI_INVALID_PARAMETER;
  }

  XML_NODE* secondEntry = nullptr;
  RETURN_IF_ERROR(findNodeByName(kEntryName, Second, &secondEntry));
  XML_NODE* firstEntry = nullptr;
  RETURN_IF_ERROR(findNodeByName(kEntryName, First, &firstEntry));

  XML_NODE* savedNext = firstEntry->next;
  firstEntry->next = secondEntry;
  EFI_STATUS status = XMLProtocol->XML_NodeToXML(XMLProtocol, First, Text);
  firstEntry->next = savedNext;

  if (EFI_ERROR(status)) {
    tvl::trace(TVL_LEVEL_FAILURE, kFunctionName,
               u"Tolvane-tvlNodesToCombinedXmlChar: ERROR XMLProtocol->XML_NodeToXML conversion of Node to XML "
               u"failed. Status:%x\n",
               status);
    return status;
  }
  return EFI_SUCCESS;
}
