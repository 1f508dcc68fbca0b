// Test support for the driver's password operations: a stand-in password
// service that records every call exactly as it arrives through the
// variadic slot, or the real service images; pending documents of password
// items; and the results as plain data.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "export/export_fixture.h"

namespace tvl::test {

// A stand-in for either password service. GetProperties answers `bits`
// (per Which) or `propertiesStatus`; ChangePassword answers
// `changeStatus[Which]`. Each call is logged as text:
//   "props W"
//   "M/W old=TEXT new=u:TEXT"              methods 2 and 3: UCS-2 texts
//   "1/W old=TEXT hash=a:TEXT salt=a:TEXT" method 1: 8-bit texts, "salt=null"
// where non-ASCII characters show as \xNN (8-bit) or \uNNNN (UCS-2).
struct FakePasswordService {
  PASSWORD_SERVICE_PROTOCOL protocol;  // first: This is the instance
  UINT16 bits[3] = {};
  EFI_STATUS propertiesStatus = EFI_SUCCESS;
  EFI_STATUS changeStatus[3] = {};
  std::vector<std::string> calls;

  FakePasswordService();
  std::vector<std::string> changes() const;  // the calls other than "props"
};

enum class Service { None, FakeNewer, FakeOlder, Newer, Older };

// One item of a pending document. `index`: null for no CommitIndex element,
// "" for one without contents. `value`: null for no ValueStruct, else the
// Value's contents, marked Encoding="Base64" when `base64`.
struct Item {
  std::string name;
  const char* index = "1";
  std::optional<std::string> value;
  bool base64 = true;
};

// The Base64 text of `bytes`.
std::string base64(const std::string& bytes);
// A ConfigData document holding the items in one Form.
std::string document(const std::vector<Item>& items);
// Each "Operation" as "Name:Status:code".
std::vector<std::string> records(const XML_NODE* results);

class PasswordTest : public DriverTest {
 protected:
  bool loadsDriver() const override { return false; }

  // Provides the service and loads the driver, which binds it.
  void start(Service service);
  FakePasswordService& fake() { return *fake_; }
  // Marks passwords disabled in the store the service images read.
  void markDisabled(UINT8 whichBits);
  // Runs SetBIOSPassword through the protocol slot.
  EFI_STATUS apply(XML_NODE* root, XML_NODE** results);

  XML_PROTOCOL* xml() { return locate<XML_PROTOCOL>(XML_PROTOCOL_GUID); }
  std::shared_ptr<XML_NODE> parse(const std::string& text) { return parseXml(xml(), text); }
  std::string serialise(XML_NODE* root) { return xmlText(xml(), bs(), root); }
  // The CommitIndex text of the item named `name`: "(none)" without
  // contents, "(missing)" without an element.
  std::string commitIndex(XML_NODE* root, const std::string& name);

 private:
  std::unique_ptr<FakePasswordService> fake_;
};

}  // namespace tvl::test
