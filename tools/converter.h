// What the commands that call the converter driver share: its traces routed
// to standard error, the trees and texts it hands out (freed as the
// platform's services require), loading it, and the XML documents the
// commands read and write.
#pragma once

#include <ostream>
#include <string>

#include "host/sample/sample_platform.h"
#include "tools/cli.h"

namespace tvl::cli {

// "--trace" takes a hexadecimal mask ("0x80800000", "80") or level names
// separated by commas ("failure,progress"); anything else is refused
// (exit code 2).
UINTN parseTraceLevels(const std::string& text);

// Receives the log service's lines while the command runs; with a stream
// they go there as "function: text". Without one the mask is 0 so nothing
// reaches the platform console, whose echo would otherwise mix the driver's
// lines into a document written to standard output.
class TraceRoute {
 public:
  TraceRoute(DEBUG_LOG_PROTOCOL* log, UINTN mask, std::ostream* to);
  ~TraceRoute();
  TraceRoute(const TraceRoute&) = delete;
  TraceRoute& operator=(const TraceRoute&) = delete;

 private:
  static VOID EFIAPI sink(VOID* context, UINTN, const CHAR8* function, const CHAR16* line);

  DEBUG_LOG_PROTOCOL* log_;
  std::ostream* to_;
};

// A document tree handed out by the driver or the XML service, freed
// through the XML service.
class Tree {
 public:
  explicit Tree(XML_PROTOCOL* xml) : xml_(xml) {}
  ~Tree() { reset(); }
  Tree(const Tree&) = delete;
  Tree& operator=(const Tree&) = delete;
  void reset() {
    if (root) xml_->XML_FreeNode(xml_, root);
    root = nullptr;
  }

  XML_NODE* root = nullptr;

 private:
  XML_PROTOCOL* xml_;
};

// A pool buffer handed out by the driver or a service.
template <typename T>
class PoolBuffer {
 public:
  explicit PoolBuffer(host::Platform& platform) : platform_(platform) {}
  ~PoolBuffer() {
    if (text) platform_.bootServices()->FreePool(text);
  }
  PoolBuffer(const PoolBuffer&) = delete;
  PoolBuffer& operator=(const PoolBuffer&) = delete;

  T* text = nullptr;

 private:
  host::Platform& platform_;
};
using PoolText = PoolBuffer<CHAR8>;

// Loads a fresh instance of the converter driver and returns its protocol
// record; exit code 1 when the entry fails or installs nothing. `image`
// receives the driver's image handle.
TOLVANE_PROTOCOL* loadConverter(host::sample::SamplePlatform& sample, EFI_HANDLE* image = nullptr);

// ---- documents
// The XML text of `file` parsed by the XML service; a file that cannot be
// read or parsed is refused (exit code 2) with the line and column.
void parseDocument(host::sample::SamplePlatform& sample, const std::string& file, Tree& tree);
// `root` serialised by the XML service, with a final line feed (exit code 1
// when the service fails).
std::string serialise(host::sample::SamplePlatform& sample, XML_NODE* root);
// Writes `document` to `file`, or to `out` when `file` is empty; exit code 1
// when it cannot be written. A file written is reported on `out` as
// "wrote N bytes to FILE" unless `quiet`.
void writeDocument(const std::string& file, const std::string& document, std::ostream& out, bool quiet = false);

// ---- trees (node contents are escaped text, as the XML service keeps them)
std::string contents(const XML_NODE* node);
std::string attribute(const XML_NODE* node, const char* name);
// The first child named `name`, or null.
XML_NODE* child(const XML_NODE* node, const char* name);
// The first element named `name` in document order below and including
// `node`, or null.
XML_NODE* findElement(XML_NODE* node, const char* name);
// Gives `node` the contents `text` (already escaped) in a pool copy.
void setContents(host::Platform& platform, XML_NODE* node, const std::string& text);
// The text with the five predefined entities and character references
// written out; and the other way round.
std::string unescapeXml(const std::string& text);
std::string escapeXml(const std::string& text);

}  // namespace tvl::cli
