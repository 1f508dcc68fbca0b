#include "export/export_fixture.h"

#include <pthread.h>

#include "host/hii/device_path.h"
#include "host/hii/package_list.h"
#include "host/hii/string_package.h"
#include "host/sample/sample_devices.h"
#include "xml/node.h"

namespace tvl::test {

std::string describe(const XML_NODE* node);

Documents::~Documents() {
  if (possible) xml->XML_FreeNode(xml, possible);
  if (current) xml->XML_FreeNode(xml, current);
}

void DeviceExportTest::build(std::vector<host::sample::DeviceDescription> devices) {
  buildWith(devices.empty() ? host::sample::sampleDevices() : std::move(devices));
}

void DeviceExportTest::buildWith(std::vector<host::sample::DeviceDescription> devices) {
  sample_ = std::make_unique<host::sample::SamplePlatform>(platform(), std::move(devices));
  ASSERT_EQ(loadDriver(), EFI_SUCCESS);
  ASSERT_TRUE(log().attach(platform()));
  markBaseline();
}

void DeviceExportTest::TearDown() {
  DriverTest::TearDown();
  sample_.reset();
}

std::unique_ptr<Documents> DeviceExportTest::exportDevice(const std::u16string& fqdd) {
  auto docs = std::make_unique<Documents>();
  docs->xml = sample_->xml();
  host::sample::SampleDevice* device = sample_->findDevice(fqdd);
  EXPECT_NE(device, nullptr);
  if (!device) {
    docs->status = EFI_NOT_FOUND;
    return docs;
  }
  TOLVANE_PROTOCOL* self = converter();
  docs->status = self->HiiToNode(self, device->handle(), &docs->possible, &docs->current);
  return docs;
}

std::shared_ptr<XML_NODE> parseXml(XML_PROTOCOL* xml, const std::string& text) {
  XML_NODE* root = nullptr;
  XML_PARSE_ERROR error{};
  EXPECT_EQ(xml->XML_ParseText(xml, text.data(), text.size(), &root, &error), EFI_SUCCESS) << error.Message << text;
  return std::shared_ptr<XML_NODE>(root, [xml](XML_NODE* node) {
    if (node) xml->XML_FreeNode(xml, node);
  });
}

std::string xmlText(XML_PROTOCOL* xml, EFI_BOOT_SERVICES* bs, XML_NODE* root) {
  CHAR8* out = nullptr;
  EXPECT_EQ(xml->XML_NodeToXML(xml, root, &out), EFI_SUCCESS);
  std::string result = out ? out : "";
  if (out) bs->FreePool(out);
  return result;
}

host::sample::DeviceDescription deviceWith(const std::u16string& fqdd, UINT8 n, host::sample::FormSetDescription set) {
  host::sample::DeviceDescription d;
  d.fqdd = fqdd;
  d.description = u"test device";
  const EFI_GUID vendor = {0x51e0a2b0u + n, 0x1c2d, 0x4e5f, {0x90, 0x81, 0x72, 0x63, 0x54, 0x45, 0x36, n}};
  d.devicePath = host::hii::DevicePathBuilder().vendorHardware(vendor).build();
  d.packageListGuid = {0x6a7b8c9du + n, 0x1e2f, 0x4a5b, {0x9c, 0x8d, 0x7e, 0x6f, 0x50, 0x41, 0x32, n}};
  d.formSets = {std::move(set)};
  return d;
}

// ---------------------------------------------------------------- queries

std::string text(const XML_NODE* node) { return node && node->contents ? node->contents : ""; }

std::string attribute(const XML_NODE* node, const std::string& name) {
  for (const XML_ATTRIBUTE* a = node ? node->attributes : nullptr; a; a = a->next)
    if (name == a->name) return a->value;
  return "";
}

std::string attributes(const XML_NODE* node) {
  std::string out;
  for (const XML_ATTRIBUTE* a = node ? node->attributes : nullptr; a; a = a->next)
    out += std::string(out.empty() ? "" : " ") + a->name + "=" + a->value;
  return out;
}

std::string childNames(const XML_NODE* node, bool withAttributes) {
  std::string out;
  for (const XML_NODE* c = node ? node->children : nullptr; c; c = c->next) {
    out += (out.empty() ? "" : ",") + std::string(c->name);
    if (withAttributes && c->attributes) out += "[" + attributes(c) + "]";
  }
  return out;
}

std::vector<const XML_NODE*> children(const XML_NODE* node, const std::string& name) {
  std::vector<const XML_NODE*> out;
  for (const XML_NODE* c = node ? node->children : nullptr; c; c = c->next)
    if (name.empty() || name == c->name) out.push_back(c);
  return out;
}

const XML_NODE* child(const XML_NODE* node, const std::string& name, size_t index) {
  std::vector<const XML_NODE*> all = children(node, name);
  return index < all.size() ? all[index] : nullptr;
}

std::vector<const XML_NODE*> descendants(const XML_NODE* root, const std::string& name) {
  std::vector<const XML_NODE*> out;
  std::vector<const XML_NODE*> stack;
  if (root) stack.push_back(root);
  while (!stack.empty()) {
    const XML_NODE* n = stack.back();
    stack.pop_back();
    if (name == n->name) out.push_back(n);
    std::vector<const XML_NODE*> kids = children(n);
    for (auto it = kids.rbegin(); it != kids.rend(); ++it) stack.push_back(*it);
  }
  return out;
}

std::vector<const XML_NODE*> items(const XML_NODE* root, const std::string& name) {
  std::vector<const XML_NODE*> out;
  for (const XML_NODE* n : descendants(root, "ConfigItem"))
    if (n->children && text(n->children) == name) out.push_back(n);
  return out;
}

const XML_NODE* item(const XML_NODE* root, const std::string& name) {
  std::vector<const XML_NODE*> all = items(root, name);
  return all.empty() ? nullptr : all.front();
}

std::string valueList(const XML_NODE* configItem) {
  std::string out;
  for (const XML_NODE* vs : children(configItem, "ValueStruct")) {
    if (!out.empty()) out += '|';
    out += text(child(vs, "Value"));
    std::string marks;
    for (const XML_NODE* id : children(vs, "DefaultId")) marks += (marks.empty() ? "" : ",") + text(id);
    for (const XML_ATTRIBUTE* a = vs->attributes; a; a = a->next)
      marks += (marks.empty() ? "" : ",") + std::string(a->name) + "=" + a->value;
    if (!marks.empty()) out += "[" + marks + "]";
  }
  return out;
}

void runOnSmallStack(host::Platform& platform, const std::function<void()>& body) {
  struct Call { host::Platform* platform; const std::function<void()>* body; } call{&platform, &body};
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
#if defined(__SANITIZE_ADDRESS__)
  pthread_attr_setstacksize(&attributes, 256 * 1024);
#else
  pthread_attr_setstacksize(&attributes, 64 * 1024);
#endif
  pthread_t thread;
  auto run = [](void* p) -> void* {
    auto* c = static_cast<Call*>(p);
    c->platform->bindToThisThread();
    (*c->body)();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, run, &call), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

// ---------------------------------------------------------------- ExportTest

void ExportTest::SetUp() {
  DeviceExportTest::SetUp();
  if (HasFatalFailure()) return;
  buildWith({});
  log().clear();
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
  EXPECT_EQ(hii().addPackageList(host::hii::buildPackageList(guid, packages), owner, &handle), EFI_SUCCESS);
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
