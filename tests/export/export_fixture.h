// Test support for the export: a sample platform with the devices a test
// describes, a fresh driver, its traces, and the two documents of an export
// as trees that free themselves, with small queries over them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "export/records/records.h"
#include "host/sample/form_description.h"
#include "host/sample/sample_platform.h"
#include "support/fixture.h"
#include "support/log_capture.h"
#include "uefi/services.h"

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

  std::string possibleText() const;
  std::string currentText() const;
};

class DeviceExportTest : public PlatformTest {
 protected:
  void TearDown() override;

  // Builds the sample platform with `devices` (the sample devices when
  // empty) and loads a fresh driver; the leak baseline moves past both.
  void build(std::vector<host::sample::DeviceDescription> devices = {});

  host::sample::SamplePlatform& sample() { return *sample_; }
  LogCapture& log() { return log_; }
  TOLVANE_PROTOCOL* converter() { return locate<TOLVANE_PROTOCOL>(TOLVANE_PROTOCOL_GUID); }

  // HiiToNode on the device with this FQDD.
  std::unique_ptr<Documents> exportDevice(const std::u16string& fqdd);
  // A driver global or function by name.
  template <typename T>
  T& global(const char* name) {
    return *static_cast<T*>(platform().imageSymbol(driver_, name));
  }
  void* symbol(const char* name) { return platform().imageSymbol(driver_, name); }
  EFI_HANDLE driverImage() const { return driver_; }

  std::string serialise(XML_NODE* root);

 private:
  std::unique_ptr<host::sample::SamplePlatform> sample_;
  EFI_HANDLE driver_ = nullptr;
  LogCapture log_;
};

// ---- queries over a document tree
std::string text(const XML_NODE* node);
std::string attribute(const XML_NODE* node, const std::string& name);
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
