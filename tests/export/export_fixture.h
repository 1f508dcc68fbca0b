// Test support for the export of whole devices: a sample platform with the
// devices a test describes, a fresh driver and its traces, the two documents
// of an export as trees that free themselves, and small queries over trees.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "export/records/records.h"
#include "host/sample/form_description.h"
#include "host/sample/sample_platform.h"
#include "support/driver.h"

namespace tvl::test {

// Both documents of one export; the trees are freed with the object.
struct Documents {
  Documents() = default;
  Documents(const Documents&) = delete;
  Documents& operator=(const Documents&) = delete;
  ~Documents();

  EFI_STATUS status = EFI_SUCCESS;
  XML_NODE* possible = nullptr;
  XML_NODE* current = nullptr;
  XML_PROTOCOL* xml = nullptr;
};

// The sample platform brings its own services: the fixture provides none.
class DeviceExportTest : public DriverTest {
 protected:
  unsigned initialServices() const override { return 0; }
  bool loadsDriver() const override { return false; }
  void TearDown() override;

  // Builds the sample platform with `devices` (the sample devices when
  // empty) and loads a fresh driver; the leak baseline moves past both.
  void build(std::vector<host::sample::DeviceDescription> devices = {});

  host::sample::SamplePlatform& sample() { return *sample_; }
  // HiiToNode on the device with this FQDD.
  std::unique_ptr<Documents> exportDevice(const std::u16string& fqdd);
  std::string serialise(XML_NODE* root);

 private:
  std::unique_ptr<host::sample::SamplePlatform> sample_;
};

// A device of one form set; `n` makes its device path and package list
// unique.
host::sample::DeviceDescription deviceWith(const std::u16string& fqdd, UINT8 n, host::sample::FormSetDescription set);

// ---- queries over a document tree
std::string text(const XML_NODE* node);
std::string attribute(const XML_NODE* node, const std::string& name);
// "name=value name=value" of the node's own attributes.
std::string attributes(const XML_NODE* node);
// "Name,RefFormId,..." of the element's children; an attribute list in
// brackets after names that have one: "ValueStruct[Suppressed=true]".
std::string childNames(const XML_NODE* node, bool withAttributes = false);
std::vector<const XML_NODE*> children(const XML_NODE* node, const std::string& name = "");
const XML_NODE* child(const XML_NODE* node, const std::string& name, size_t index = 0);
// Every element named `name` below `root`, in document order.
std::vector<const XML_NODE*> descendants(const XML_NODE* root, const std::string& name);
// The ConfigItems whose first child ("Name") holds `name`.
std::vector<const XML_NODE*> items(const XML_NODE* root, const std::string& name);
const XML_NODE* item(const XML_NODE* root, const std::string& name);
// "Value" texts of the item's ValueStructs, joined by '|'; DefaultIds and
// attributes in brackets: "true[0000,0001]|false".
std::string valueList(const XML_NODE* configItem);

}  // namespace tvl::test
