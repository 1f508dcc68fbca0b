#include "import/import_fixture.h"

#include <cstring>


namespace tvl::test {

std::vector<std::string> operations(const XML_NODE* results) {
  std::vector<std::string> out;
  auto join = [](const XML_NODE* detail, const char* name) {
    std::string values;
    for (const XML_NODE* v : children(detail, name)) values += (values.empty() ? "" : "|") + text(v);
    return values;
  };
  for (const XML_NODE* op : children(results, "Operation"))
    out.push_back(text(child(op, "Name")) + ":" + join(child(op, "Detail"), "OldValue") + ">" +
                  join(child(op, "Detail"), "NewValue") + ":" + text(child(op, "Status")) + ":" +
                  text(child(op, "ErrorCode")));
  return out;
}

host::sample::DeviceDescription ImportTest::device(const std::u16string& fqdd,
                                                   std::vector<host::sample::FormDescription> forms,
                                                   std::vector<std::string> languages) {
  host::sample::FormSetDescription fs;
  fs.guid = {0x2b3c4d5e, 0x6f70, 0x4182, {0x93, 0xa4, 0xb5, 0xc6, 0xd7, 0xe8, 0xf9, 0x0a}};
  fs.title = fs.keyword = fs.helpText = u"ImportTest";
  fs.varStores = {{1, {0x3c4d5e6f, 0x7081, 0x4293, {0xa4, 0xb5, 0xc6, 0xd7, 0xe8, 0xf9, 0x0a, 0x1b}}, "Store", 0x100, false, 0}};
  fs.forms = std::move(forms);
  host::sample::DeviceDescription d = deviceWith(fqdd, 0x77, std::move(fs));
  d.languages = std::move(languages);
  return d;
}

ImportOutcome ImportTest::import(const std::u16string& fqdd, XML_NODE* pending, XML_NODE* results) {
  ImportOutcome out;
  host::sample::SampleDevice* d = sample().findDevice(fqdd);
  EXPECT_NE(d, nullptr);
  if (!d) return out;
  TOLVANE_PROTOCOL* self = converter();
  CHAR16* request = nullptr;
  XML_NODE* root = results;
  out.status = self->NodeToHii(self, d->handle(), pending, &request, &root);
  out.request = narrow(request);
  if (request) bs()->FreePool(request);
  out.records = operations(root);
  if (root && root != results) sample().xml()->XML_FreeNode(sample().xml(), root);
  return out;
}

namespace {
void replace(EFI_BOOT_SERVICES* bs, CHAR8** slot, const char* text) {
  if (*slot) bs->FreePool(*slot);
  *slot = nullptr;
  if (!text) return;
  VOID* copy = nullptr;
  bs->AllocatePool(EfiBootServicesData, std::strlen(text) + 1, &copy);
  std::memcpy(copy, text, std::strlen(text) + 1);
  *slot = static_cast<CHAR8*>(copy);
}
}  // namespace

void ImportTest::setText(XML_NODE* node, const char* text) { replace(bs(), &node->contents, text); }

void ImportTest::setAttribute(XML_NODE* node, const char* name, const char* value) {
  for (XML_ATTRIBUTE* a = node->attributes; a; a = a->next) {
    if (std::strcmp(a->name, name) != 0) continue;
    replace(bs(), &a->value, value);
    return;
  }
  ADD_FAILURE() << "no attribute " << name;
}

XML_NODE* ImportTest::commit(XML_NODE* root, const std::string& name, const char* index) {
  auto* found = const_cast<XML_NODE*>(item(root, name));
  EXPECT_NE(found, nullptr) << name;
  if (found) setText(const_cast<XML_NODE*>(child(found, "CommitIndex")), index);
  return found;
}

XML_NODE* ImportTest::pend(XML_NODE* root, const std::string& name, const char* value, const char* index) {
  XML_NODE* found = commit(root, name, index);
  if (found) setText(const_cast<XML_NODE*>(descendants(found, "Value").at(0)), value);
  return found;
}

}  // namespace tvl::test
