// The platform's XML service: parses XML texts into XML_NODE trees,
// serialises trees, and creates and frees nodes. Its state (the parser
// limits) lives in the protocol instance installed by the entry.
//
// Conventions of the trees it hands out and takes:
// - `contents` is escaped text ("&", "<", ">" as references, quotes as they
//   are); attribute values are plain text.
// - The parser keeps an element's text as its contents. An element with
//   child elements drops the whitespace-only stretches between and after
//   them and concatenates the rest; a leaf keeps its text exactly, so
//   <a></a> gets empty contents and <a/> none (the serialiser writes them
//   back the same way).
// - The serialiser writes a fragment: no XML declaration, no indentation.
//   It never writes text that is not well-formed: invalid names, repeated
//   attribute names, invalid UTF-8 and characters XML 1.0 does not allow
//   make it fail with EFI_INVALID_PARAMETER rather than drop or mangle
//   anything.
#include "services/xml/parser.h"
#include "services/xml/tree.h"
#include "services/xml/writer.h"
#include "uefi/runtime.h"
#include "uefi/services.h"

namespace tvl::xmlsvc {
namespace {

constexpr UINT64 kSignature = 0x31434d5358564c54ull;  // "TLVXSMC1"

// The protocol table comes first, so the interface pointer handed to
// callers is also the instance.
struct XmlService {
  XML_PROTOCOL protocol;
  UINT64 signature;
  XML_LIMITS limits;
};

XmlService* serviceOf(XML_PROTOCOL* This) {
  auto* service = reinterpret_cast<XmlService*>(This);
  return service && service->signature == kSignature ? service : nullptr;
}

EFI_STATUS EFIAPI parseTextEntry(XML_PROTOCOL* This, const CHAR8* Text, UINTN Length, XML_NODE** Root,
                                 XML_PARSE_ERROR* Error) {
  XmlService* service = serviceOf(This);
  if (!service || (!Text && Length != 0) || !Root) return EFI_INVALID_PARAMETER;
  return parseText(Text ? Text : "", Length, service->limits, Root, Error);
}

EFI_STATUS EFIAPI setLimitsEntry(XML_PROTOCOL* This, const XML_LIMITS* Limits) {
  XmlService* service = serviceOf(This);
  if (!service || !Limits || Limits->MaxDepth == 0 || Limits->MaxInputBytes == 0) return EFI_INVALID_PARAMETER;
  service->limits = *Limits;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI getLimitsEntry(XML_PROTOCOL* This, XML_LIMITS* Limits) {
  XmlService* service = serviceOf(This);
  if (!service || !Limits) return EFI_INVALID_PARAMETER;
  *Limits = service->limits;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI nodeToXmlEntry(XML_PROTOCOL* This, XML_NODE* Root, CHAR8** Text) {
  if (!serviceOf(This) || !Root || !Text) return EFI_INVALID_PARAMETER;
  return writeTree(Root, Text);
}

EFI_STATUS EFIAPI createNodeEntry(XML_PROTOCOL* This, const CHAR8* Name, XML_NODE** Node) {
  if (!serviceOf(This) || !Name || !Node) return EFI_INVALID_PARAMETER;
  return createNode(Name, tvl::rt::length(Name), Node);
}

EFI_STATUS EFIAPI freeNodeEntry(XML_PROTOCOL* This, XML_NODE* Root) {
  if (!serviceOf(This) || !Root) return EFI_INVALID_PARAMETER;
  freeTree(Root);
  return EFI_SUCCESS;
}

}  // namespace
}  // namespace tvl::xmlsvc

extern "C" EFI_STATUS EFIAPI EfiMain(EFI_HANDLE imageHandle, EFI_SYSTEM_TABLE* systemTable) {
  using namespace tvl::xmlsvc;
  tvl::rt::initialize(imageHandle, systemTable);
  tvl::rt::Pool<XmlService> service = tvl::rt::Pool<XmlService>::zeroed();
  if (!service) return EFI_OUT_OF_RESOURCES;
  service->protocol.XML_ParseText = parseTextEntry;
  service->protocol.XML_SetLimits = setLimitsEntry;
  service->protocol.XML_GetLimits = getLimitsEntry;
  service->protocol.XML_NodeToXML = nodeToXmlEntry;
  service->protocol.XML_CreateNode = createNodeEntry;
  service->protocol.XML_FreeNode = freeNodeEntry;
  service->signature = kSignature;
  service->limits.MaxDepth = kDefaultMaxDepth;
  service->limits.MaxInputBytes = kDefaultMaxInputBytes;
  EFI_HANDLE handle = nullptr;
  EFI_STATUS status =
      tvl::rt::bs()->InstallProtocolInterface(&handle, &gXmlProtocolGuid, EFI_NATIVE_INTERFACE, &service->protocol);
  if (EFI_ERROR(status)) return status;
  service.release();  // owned by the protocol database from now on
  return EFI_SUCCESS;
}
