// Test support for the export: a fresh driver over the log, XML, forms and
// device-location services and the platform's HII database, with helpers
// that register string packages, build small trees through the driver's
// node toolbox and describe trees compactly for table-driven checks.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "export/records/records.h"
#include "host/hii/hii_database.h"
#include "support/driver.h"

namespace tvl::test {

using Attributes = std::vector<std::pair<std::string, std::string>>;
using LanguageStrings = std::vector<std::pair<std::string, std::vector<std::u16string>>>;

// What a test puts in an output slot that must stay unwritten.
inline XML_NODE* const kUntouched = reinterpret_cast<XML_NODE*>(uintptr_t(0x5a5a));

class ExportTest : public DriverTest {
 protected:
  unsigned initialServices() const override { return kLogService | kXmlService; }
  bool loadsDriver() const override { return false; }
  void SetUp() override;
  void TearDown() override;

  host::hii::HiiDatabase& hii() { return *hii_; }

  // A new driver handle (it carries a configuration-access marker).
  EFI_HANDLE newDriverHandle();
  // Registers a package list with one string package per language (string
  // id N is the N-th text) for `owner`, a new driver handle when null; its
  // HII handle.
  EFI_HII_HANDLE addStrings(const LanguageStrings& languages, EFI_HANDLE owner = nullptr);

  // A node made with the driver's createNode (or createNodeWithString when
  // `contents` is given) and addAttribute, with `children` linked below it
  // in order. The caller releases the tree.
  XML_NODE* node(const char* name, const char* contents = nullptr, const Attributes& attributes = {},
                 const std::vector<XML_NODE*>& children = {});
  // Frees a tree (null is ignored) through the driver's freeNode.
  void release(XML_NODE* tree);
  // What a builder handed out, described and freed; "-" when it failed,
  // after checking that its output slot still holds kUntouched.
  std::string outcome(EFI_STATUS status, XML_NODE* out);
  // Takes every attribute off a node and returns it to the pool.
  void dropAttributes(XML_NODE* node);

 private:
  std::unique_ptr<host::hii::HiiDatabase> hii_;
  uint8_t lists_ = 0;
};

// A node and its following siblings, separated by " | ", each written as
// name[attribute=value;...]:contents{children}, the parts present only when
// the node has them.
std::string describe(const XML_NODE* node);

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
