// Test support for the import: pending documents made from a device's own
// export, edited in place, and the outcome of NodeToHii as plain data.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "export/export_fixture.h"

namespace tvl::test {

// One "Operation" as "Name:old>new:Status:code" (values joined by '|').
std::vector<std::string> operations(const XML_NODE* results);

struct ImportOutcome {
  EFI_STATUS status = EFI_NOT_STARTED;
  std::string request;                // narrowed; empty when none was handed out
  std::vector<std::string> records;   // operations()
  std::string results;                // the serialised document, "" when none
};

class ImportTest : public DeviceExportTest {
 public:
  // A device of the given forms with one buffer store of 0x100 bytes.
  static host::sample::DeviceDescription device(const std::u16string& fqdd,
                                                std::vector<host::sample::FormDescription> forms,
                                                std::vector<std::string> languages = {"en-US", "x-UEFI"});

 protected:
  // NodeToHii on the device; the request and the results go back to the
  // pool once read. `results` is the incoming root (kept by the caller).
  ImportOutcome import(const std::u16string& fqdd, XML_NODE* pending, XML_NODE* results = nullptr);

 public:
  // Replaces a node's contents with a pool copy of `text` (null: none).
  void setText(XML_NODE* node, const char* text);
  // Replaces the value of the node's first attribute `name`.
  void setAttribute(XML_NODE* node, const char* name, const char* value);
  // The first ConfigItem named `name` under `root`, with its CommitIndex
  // set to `index`.
  XML_NODE* commit(XML_NODE* root, const std::string& name, const char* index = "1");
  // The same, with its first Value set to `value`.
  XML_NODE* pend(XML_NODE* root, const std::string& name, const char* value, const char* index = "1");
  // An XML text as a tree that frees itself.
  std::shared_ptr<XML_NODE> parse(const std::string& text);
};

}  // namespace tvl::test
