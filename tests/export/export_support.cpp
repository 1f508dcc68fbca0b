#include "export/export_support.h"

#include "host/hii/package_list.h"
#include "host/hii/string_package.h"
#include "xml/node.h"

namespace tvl::test {

void ExportTest::SetUp() {
  DriverTest::SetUp();
  if (HasFatalFailure()) return;
  load("forms_service");
  load("location_service");
  hii_ = std::make_unique<host::hii::HiiDatabase>(platform());
  EFI_STATUS status = loadDriver();
  ASSERT_EQ(status, EFI_SUCCESS) << "driver entry: " << statusName(status) << "\n" << log().dump();
  log().clear();
}

void ExportTest::TearDown() {
  DriverTest::TearDown();
  hii_.reset();
}

EFI_HANDLE ExportTest::newDriverHandle() {
  static uint64_t marker;
  EFI_HANDLE handle = nullptr;
  EXPECT_EQ(platform().installProtocol(&handle, EFI_HII_CONFIG_ACCESS_PROTOCOL_GUID, &marker), EFI_SUCCESS);
  return handle;
}

EFI_HII_HANDLE ExportTest::addStrings(const LanguageStrings& languages, EFI_HANDLE owner) {
  if (!owner) owner = newDriverHandle();
  std::vector<std::vector<uint8_t>> packages;
  for (const auto& [language, strings] : languages)
    packages.push_back(host::hii::buildStringPackage(language, strings));
  const uint8_t n = ++lists_;
  const EFI_GUID guid = {0x6b3d0000u + n, 0x4e21, 0x4f7a, {9, 8, 7, 6, 5, 4, 3, n}};
  EFI_HII_HANDLE handle = nullptr;
  EXPECT_EQ(hii_->addPackageList(host::hii::buildPackageList(guid, packages), owner, &handle), EFI_SUCCESS);
  return handle;
}

XML_NODE* ExportTest::node(const char* name, const char* contents, const Attributes& attributes,
                           const std::vector<XML_NODE*>& children) {
  XML_NODE* made = nullptr;
  EFI_STATUS status =
      contents ? DRIVER_FN(createNodeWithString)(name, contents, &made) : DRIVER_FN(createNode)(name, &made);
  EXPECT_EQ(status, EFI_SUCCESS) << name;
  if (EFI_ERROR(status)) return nullptr;
  for (const auto& [key, value] : attributes)
    EXPECT_EQ(DRIVER_FN(addAttribute)(key.c_str(), value.c_str(), &made), EFI_SUCCESS);
  XML_NODE** slot = &made->children;
  for (XML_NODE* child : children) {
    child->parent = made;
    *slot = child;
    slot = &child->next;
  }
  return made;
}

void ExportTest::release(XML_NODE* tree) {
  if (tree) {
    EXPECT_EQ(DRIVER_FN(freeNode)(tree), EFI_SUCCESS);
  }
}

std::string ExportTest::outcome(EFI_STATUS status, XML_NODE* out) {
  if (EFI_ERROR(status)) {
    EXPECT_EQ(out, kUntouched);
    return "-";
  }
  std::string described = describe(out);
  release(out);
  return described;
}

void ExportTest::dropAttributes(XML_NODE* node) {
  for (XML_ATTRIBUTE* attribute = node->attributes; attribute;) {
    XML_ATTRIBUTE* next = attribute->next;
    bs()->FreePool(attribute->name);
    bs()->FreePool(attribute->value);
    bs()->FreePool(attribute);
    attribute = next;
  }
  node->attributes = nullptr;
}

std::string describe(const XML_NODE* node) {
  std::string out;
  for (; node; node = node->next) {
    if (!out.empty()) out += " | ";
    out += node->name ? node->name : "(null)";
    if (node->attributes) {
      out += "[";
      for (const XML_ATTRIBUTE* a = node->attributes; a; a = a->next)
        out += std::string(a->name) + "=" + a->value + (a->next ? ";" : "");
      out += "]";
    }
    if (node->contents) out += std::string(":") + node->contents;
    if (node->children) out += "{" + describe(node->children) + "}";
  }
  return out;
}

FormSetWithLanguages::FormSetWithLanguages(std::vector<std::string> languages) : tags(std::move(languages)) {
  for (std::string& tag : tags) pointers.push_back(tag.data());
  record.NumberOfLanguages = pointers.size();
  record.Languages = pointers.data();
}

}  // namespace tvl::test
