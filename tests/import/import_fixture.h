// Test support for the import: pending documents made from a device's own
// export and edited in place, or parsed from text, and the outcome of
// NodeToHii as plain data.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "export/export_fixture.h"

namespace tvl::test {

namespace sample = host::sample;
using host::ifr::True;
using host::ifr::Width;

// Each "Operation" as "Name:old>new:Status:code" (values joined by '|').
std::vector<std::string> operations(const XML_NODE* results);

struct ImportOutcome {
  EFI_STATUS status = EFI_NOT_STARTED;
  std::string request;               // narrowed; empty when none was handed out
  std::vector<std::string> records;  // operations()
};

class ImportTest : public DeviceExportTest {
 public:
  // A device of the given forms with one buffer store of 0x100 bytes.
  static host::sample::DeviceDescription device(const std::u16string& fqdd,
                                                std::vector<host::sample::FormDescription> forms,
                                                std::vector<std::string> languages = {"en-US", "x-UEFI"});
  // NodeToHii on the device; the request and a results root it made go
  // back to the pool once read.
  ImportOutcome import(const std::u16string& fqdd, XML_NODE* pending, XML_NODE* results = nullptr);

  // Pool copies replace a node's contents (null: none) or the value of its
  // first attribute `name`.
  void setText(XML_NODE* node, const char* text);
  void setAttribute(XML_NODE* node, const char* name, const char* value);
  // The first ConfigItem named `name` under `root`, its CommitIndex set to
  // `index` (and by pend its first Value to `value`).
  XML_NODE* commit(XML_NODE* root, const std::string& name, const char* index = "1");
  XML_NODE* pend(XML_NODE* root, const std::string& name, const char* value, const char* index = "1");
  // An XML text as a tree that frees itself.
  std::shared_ptr<XML_NODE> parse(const std::string& text) { return parseXml(sample().xml(), text); }
};

}  // namespace tvl::test
