// Test support for the export: a sample platform with the devices a test
// describes (DeviceExportTest) or none (ExportTest, for single functions),
// the documents of an export, and compact queries over trees.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "export/records/records.h"
#include "host/sample/form_description.h"
#include "host/sample/sample_platform.h"
#include "support/driver.h"

namespace tvl::test {

using Attributes = std::vector<std::pair<std::string, std::string>>;
using LanguageStrings = std::vector<std::pair<std::string, std::vector<std::u16string>>>;

// What a test puts in an output slot that must stay unwritten.
inline XML_NODE* const kUntouched = reinterpret_cast<XML_NODE*>(uintptr_t(0x5a5a));

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

// An XML text parsed by `xml` as a tree that frees itself; a tree as text.
std::shared_ptr<XML_NODE> parseXml(XML_PROTOCOL* xml, const std::string& text);
std::string xmlText(XML_PROTOCOL* xml, EFI_BOOT_SERVICES* bs, XML_NODE* root);

// The sample platform brings its own services: the fixture provides none.
class DeviceExportTest : public DriverTest {
 protected:
  unsigned initialServices() const override { return 0; }
  bool loadsDriver() const override { return false; }
  void TearDown() override;

  // The sample platform with `devices` (the sample devices when empty) and
  // a fresh driver; the leak baseline moves past both.
  void build(std::vector<host::sample::DeviceDescription> devices = {});
  void buildWith(std::vector<host::sample::DeviceDescription> devices);  // exactly these

  host::sample::SamplePlatform& sample() { return *sample_; }
  // HiiToNode on the device with this FQDD.
  std::unique_ptr<Documents> exportDevice(const std::u16string& fqdd);
  std::string serialise(XML_NODE* root) { return xmlText(sample_->xml(), bs(), root); }

 private:
  std::unique_ptr<host::sample::SamplePlatform> sample_;
};

// A device of one form set; `n` makes its device path and package list unique.
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
// Runs `body` on a thread with 64 KiB of stack (256 KiB under the
// sanitizer, whose red zones and unoptimised frames triple every frame).
void runOnSmallStack(host::Platform& platform, const std::function<void()>& body);

// For single functions of the driver: the sample platform without devices.
class ExportTest : public DeviceExportTest {
 protected:
  void SetUp() override;

  host::hii::HiiDatabase& hii() { return sample().hii(); }

  // A new driver handle (it carries a configuration-access marker).
  EFI_HANDLE newDriverHandle();
  // A package list of one string package per language (string id N is the
  // N-th text) for `owner`, a new driver handle when null.
  EFI_HII_HANDLE addStrings(const LanguageStrings& languages, EFI_HANDLE owner = nullptr);

  // A node made by the driver's node toolbox, `children` linked below it.
  XML_NODE* node(const char* name, const char* contents = nullptr, const Attributes& attributes = {},
                 const std::vector<XML_NODE*>& children = {});
  void release(XML_NODE* tree);  // through the driver's freeNode; null ignored
  // What a builder handed out, described and freed: the node and its
  // following siblings, separated by " | ", each written as
  // name[attribute=value;...]:contents{children}; "-" when it failed (and
  // its output slot must still hold kUntouched).
  std::string outcome(EFI_STATUS status, XML_NODE* out);
  // Takes every attribute off a node and returns it to the pool.
  void dropAttributes(XML_NODE* node);

 private:
  uint8_t lists_ = 0;
};

// A FormSet record whose language list lives in the object.
struct FormSetWithLanguages {
  explicit FormSetWithLanguages(std::vector<std::string> languages);
  FormSetWithLanguages(const FormSetWithLanguages&) = delete;
  FormSetWithLanguages& operator=(const FormSetWithLanguages&) = delete;
  HII_FORMSET_RECORD record{};
  std::vector<std::string> tags;
  std::vector<CHAR8*> pointers;
};

}  // namespace tvl::test
