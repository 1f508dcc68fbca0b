// The save path: overall status over mixed segments, the block-name lookup,
// the one-byte retry of a rejected zero write, marks in the results, and
// allocation failures.
#include <gtest/gtest.h>

#include "host/sample/sample_devices.h"
#include "import/import_fixture.h"
#include "import/save.h"

namespace {

using namespace tvl::test;

constexpr char16_t kDevice[] = u"System.Save.1";
const EFI_GUID kStoreGuid = {0x3c4d5e6f, 0x7081, 0x4293, {0xa4, 0xb5, 0xc6, 0xd7, 0xe8, 0xf9, 0x0a, 0x1b}};

sample::FormDescription saveForm() {
  using namespace sample;
  Condition hidden = suppressIf(True());
  Condition locked = grayOutIf(True());
  return {1, u"Save", u"Save", {
      oneOf(0x201, u"Mode", u"Mode").at(1, 0x00).option(u"A", u"A", 1).option(u"B", u"B", 2)
          .optionIf(hidden, u"Five", u"Five", 5).optionIf(hidden, u"Late", u"Late", 0x1f).value(1),
      numeric(0x202, u"Count", u"Count").at(1, 0x01).range(0, 9, 1).value(1),
      numeric(0x203, u"Locked", u"Locked").at(1, 0x02).range(0, 9, 1).readOnly(),
      numeric(0x204, u"Granted", u"Granted[ProgWrite:True]").at(1, 0x03).range(0, 9, 1).readOnly(),
      checkbox(0x205, u"Hidden", u"Hidden").at(1, 0x04).when(hidden),
      checkbox(0x206, u"Shown", u"Shown[ProgWriteSuppress:true]").at(1, 0x05).when(hidden),
      checkbox(0x207, u"Both", u"Both").at(1, 0x06).when(hidden).when(locked),
      oneOf(0x208, u"HiddenMode", u"HiddenMode").at(1, 0x07).when(hidden).option(u"A", u"A", 1)
          .optionIf(hidden, u"B", u"B", 0x2b).value(1),
      numeric(0x209, u"Option ROM", u"Option ROM").at(1, 0x08).range(0, 9, 1).readOnly().when(hidden),
      numeric(0x20A, u"Wide", u"Wide", Width::U16).at(1, 0x10).range(0, 0xFFFF, 1).value(0x0102),
  }};
}

class SaveTest : public ImportTest {
 protected:
  void buildSave() { build({device(kDevice, {saveForm()})}); }
  sample::SampleDevice& dev(const std::u16string& fqdd = kDevice) { return *sample().findDevice(fqdd); }
  std::u16string header(const std::u16string& fqdd = kDevice) {
    return dev(fqdd).device->configHdr(kStoreGuid, u"Store");
  }

  // A results document with one Success record per name.
  std::shared_ptr<XML_NODE> results(const std::vector<std::string>& names) {
    std::string text = "<ConfigResults>";
    for (const auto& n : names)
      text += "<Operation><DisplayValue>" + n + "</DisplayValue><Name>" + n +
              "</Name><Detail/><Status>Success</Status><ErrorCode>0</ErrorCode></Operation>";
    return parse(text + "</ConfigResults>");
  }
  EFI_STATUS save(const std::u16string& request, XML_NODE* root, const std::u16string& fqdd = kDevice) {
    TOLVANE_PROTOCOL* self = converter();
    XML_NODE* slot = root;
    std::u16string copy = request;
    EFI_STATUS status = self->NodeSaveToHii(self, dev(fqdd).handle(), copy.data(), &slot);
    EXPECT_EQ(slot, root);
    return status;
  }
  bool logged(const std::string& function, const std::string& line) { return log().find(function, line); }
};

// Segments by what becomes of them: written, unchanged (verdict 2),
// refused (read-only), rejected by the device, or addressing nothing.
const std::u16string kWritten = u"&OFFSET=0001&WIDTH=0001&VALUE=07";
const std::u16string kUnchanged = u"&OFFSET=0000&WIDTH=0001&VALUE=01";
const std::u16string kRefused = u"&OFFSET=0002&WIDTH=0001&VALUE=04";
const std::u16string kRejected = u"&OFFSET=0010&WIDTH=0002&VALUE=0005";
const std::u16string kUnknown = u"&OFFSET=0030&WIDTH=0001&VALUE=01";

TEST_F(SaveTest, OverallStatusFollowsTheOrderOfOutcomes) {
  buildSave();
  // The device rejects every write into the wide field.
  dev().device->setRouteConfigFilter([](const std::u16string& text) {
    return text.find(u"OFFSET=0010") != std::u16string::npos ? EFI_NOT_FOUND : EFI_SUCCESS;
  });
  const std::u16string hdr = header();
  const struct {  // codes: Status initial and ErrorCode of Count, Locked and Wide afterwards
    std::u16string request; EFI_STATUS status; std::string codes; size_t routes; const char* trace = nullptr;
  } cases[] = {
      {hdr + kWritten, EFI_SUCCESS, "S0 S0 S0", 1},
      {hdr + kRejected, EFI_DEVICE_ERROR, "S0 S0 Fe", 1, "HiiConfigAccess->RouteConfig: Not Found (1)\n"},
      {hdr + kWritten + hdr + kRefused, EFI_ABORTED, "S0 F901 S0", 1},
      {hdr + kRefused + hdr + kWritten, EFI_ABORTED, "S0 F901 S0", 1},
      {hdr + kRefused, EFI_DEVICE_ERROR, "S0 F901 S0", 0},
      {hdr + kUnchanged + hdr + kUnchanged, EFI_SUCCESS, "S0 S0 S0", 0, "Statement Value has not changed\n"},
      {hdr + kUnknown + hdr + kWritten, EFI_ABORTED, "S0 S0 S0", 1},
      {hdr + kWritten + hdr + kUnknown, EFI_SUCCESS, "S0 S0 S0", 1},
      {hdr + kUnknown, EFI_DEVICE_ERROR, "S0 S0 S0", 0},
      {hdr + kWritten + hdr + kRejected + hdr + kWritten, EFI_ABORTED, "S0 S0 Fe", 3},
      // Requests that cannot be cut; segments before a malformed one stay
      // written, and what stands before the first GUID= is ignored.
      {kWritten.substr(1), EFI_INVALID_PARAMETER, "S0 S0 S0", 0, "GUID= is missing in ConfigRequest!\n"},
      {hdr, EFI_INVALID_PARAMETER, "S0 S0 S0", 0, "&OFFSET= is missing in CfgReq\n"},
      {hdr + kWritten + hdr, EFI_INVALID_PARAMETER, "S0 S0 S0", 1},
      {u"junk&" + hdr + kWritten, EFI_SUCCESS, "S0 S0 S0", 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(narrow(c.request.c_str()));
    auto root = results({"Count", "Locked", "Wide"});
    log().clear();
    const size_t before = dev().device->routeConfigCalls().size();
    EXPECT_EQ(save(c.request, root.get()), c.status);
    std::string codes;
    for (const XML_NODE* op : children(root.get(), "Operation"))
      codes += (codes.empty() ? "" : " ") + text(child(op, "Status")).substr(0, 1) + text(child(op, "ErrorCode"));
    EXPECT_EQ(codes, c.codes);
    EXPECT_EQ(dev().device->routeConfigCalls().size() - before, c.routes);
    EXPECT_TRUE(!c.trace || logged("tvlNodeSaveToHii", c.trace));
  }
  // Arguments that are missing, and a handle without configuration access.
  TOLVANE_PROTOCOL* self = converter();
  auto root = results({"Count"});
  XML_NODE* slot = root.get();
  std::u16string request = hdr + kWritten;
  const size_t before = dev().device->routeConfigCalls().size();
  EXPECT_EQ(self->NodeSaveToHii(self, dev().handle(), nullptr, &slot), EFI_INVALID_PARAMETER);
  EXPECT_EQ(self->NodeSaveToHii(self, nullptr, request.data(), &slot), EFI_INVALID_PARAMETER);
  EXPECT_EQ(self->NodeSaveToHii(self, dev().handle(), request.data(), nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(self->NodeSaveToHii(self, driver(), request.data(), &slot), EFI_UNSUPPORTED);
  EXPECT_EQ(dev().device->routeConfigCalls().size(), before);
}

// Every verdict, and every failure (which makes the save pass the segment
// over) with no name handed out.
TEST_F(SaveTest, LookupGivesEachVerdict) {
  buildSave();
  auto lookup = DRIVER_FN(GetInfoByBlockName);
  const std::u16string hdr = header(), guid = hdr.substr(5, 32), rest = hdr.substr(37);
  const struct {
    std::u16string block;
    const char* name;  // null: the lookup fails with `verdict` as its status
    UINT64 verdict;
    const char* trace = nullptr;  // the judging line
    std::u16string configHdr = {};
  } cases[] = {
      {u"&OFFSET=0000&WIDTH=0001&VALUE=01", "Mode", 2, "Statement is Unchanges\n"},
      {u"&OFFSET=0000&WIDTH=0001&VALUE=02", "Mode", 0},
      // A one-of value compared over the padded current value only.
      {u"&OFFSET=0000&WIDTH=0001&VALUE=010", "Mode", 2},
      // Suppressed options: the option's unpadded text against the padded
      // value, so option 5 never matches "05" but option 0x1f matches "1f".
      {u"&OFFSET=0000&WIDTH=0001&VALUE=05", "Mode", 0},
      {u"&OFFSET=0000&WIDTH=0001&VALUE=1f", "Mode", 0x903, "Option is Suppressed\n"},
      // Only one-of statements are ever unchanged.
      {u"&OFFSET=0001&WIDTH=0001&VALUE=01", "Count", 0},
      {u"&OFFSET=0002&WIDTH=0001&VALUE=01", "Locked", 0x901, "Statement is ReadOnly\n"},
      {u"&OFFSET=0003&WIDTH=0001&VALUE=01", "Granted", 0},
      {u"&OFFSET=0004&WIDTH=0001&VALUE=01", "Hidden", 0x902, "Statement is suppressed\n"},
      {u"&OFFSET=0005&WIDTH=0001&VALUE=01", "Shown", 0},
      // Read-only and suppressed: the later hit wins.
      {u"&OFFSET=0006&WIDTH=0001&VALUE=01", "Both", 0x902, "Statement is ReadOnly\n"},
      {u"&OFFSET=0007&WIDTH=0001&VALUE=2b", "HiddenMode", 0x903, "Statement is suppressed\n"},
      {u"&OFFSET=0008&WIDTH=0001&VALUE=01", "Option ROM", 0},
      {u"&OFFSET=0010&WIDTH=0002&VALUE=0102", "Wide", 0},
      {u"&OFFSET=0001&WIDTH=0001", nullptr, EFI_INVALID_PARAMETER},
      {u"&OFFSET=0030&WIDTH=0001&VALUE=01", nullptr, EFI_NOT_FOUND},
      {u"&OFFSET=0001&WIDTH=0002&VALUE=01", nullptr, EFI_NOT_FOUND},
      // GUID fields of 34 digits, of 30 (15 bytes, the 16th left zero),
      // with a stray character, or none.
      {u"&OFFSET=0001&WIDTH=0001&VALUE=01", nullptr, EFI_INVALID_PARAMETER, nullptr, u"GUID=" + guid + u"00" + rest},
      {u"&OFFSET=0001&WIDTH=0001&VALUE=01", nullptr, EFI_NOT_FOUND, nullptr, u"GUID=" + guid.substr(0, 30) + rest},
      {u"&OFFSET=0001&WIDTH=0001&VALUE=01", nullptr, EFI_INVALID_PARAMETER, nullptr,
       u"GUID=" + guid.substr(0, 31) + u"x" + rest},
      {u"&OFFSET=0001&WIDTH=0001&VALUE=01", nullptr, EFI_INVALID_PARAMETER, nullptr, u"NAME=" + rest},
  };
  for (const auto& c : cases) {
    const std::u16string configHdr = c.configHdr.empty() ? hdr : c.configHdr;
    SCOPED_TRACE(narrow((configHdr + c.block).c_str()));
    log().clear();
    CHAR8* name = nullptr;
    UINT64 verdict = 0x5a5a;
    EXPECT_EQ(lookup(dev().handle(), configHdr.c_str(), c.block.c_str(), &name, &verdict),
              c.name ? EFI_SUCCESS : c.verdict);
    EXPECT_STREQ(name, c.name);
    EXPECT_EQ(c.name ? verdict : c.verdict, c.verdict);
    EXPECT_TRUE(!c.trace || logged("GetInfoByBlockName", c.trace));
    if (name) bs()->FreePool(name);
  }
  CHAR8* name = nullptr;
  UINT64 verdict = 0;
  const CHAR16* block = u"&OFFSET=0001&WIDTH=0001&VALUE=01";
  EXPECT_EQ(lookup(nullptr, hdr.c_str(), block, &name, &verdict), EFI_INVALID_PARAMETER);
  // A handle without package lists of its own.
  EXPECT_EQ(lookup(driver(), hdr.c_str(), block, &name, &verdict), EFI_NOT_FOUND);
  // Every allocation failing in turn: a name exactly on success.
  log().setLevelMask(0);
  sweepAllocationFailures(
      [&] { return lookup(dev().handle(), hdr.c_str(), block, &name, &verdict); },
      [&](EFI_STATUS status, size_t k) { EXPECT_EQ(name != nullptr, status == EFI_SUCCESS) << k; },
      [&] {
        if (name) bs()->FreePool(name);
        name = nullptr;
      });
}

TEST_F(SaveTest, TrimmedRequestIsAOneByteZeroWrite) {
  buildSave();
  auto trim = DRIVER_FN(TrimConfigRequest);
  const std::u16string hdr = u"GUID=01&NAME=02&PATH=03";
  const struct {  // trimmed null: none
    std::u16string request; const char16_t* trimmed;
  } cases[] = {
      {hdr + u"&OFFSET=0004&WIDTH=000A&VALUE=" + std::u16string(20, u'0'), u"&OFFSET=0004&WIDTH=1&VALUE=00"},
      {hdr + u"&OFFSET=0004&WIDTH= \t02&VALUE=0000", u"&OFFSET=0004&WIDTH=1&VALUE=00"},
      {hdr + u"&OFFSET=0004&WIDTH=0&VALUE=5", u"&OFFSET=0004&WIDTH=1&VALUE=00"},  // a width of 0 checks nothing
      {hdr + u"&OFFSET=0004&WIDTH=000A&VALUE=" + std::u16string(19, u'0') + u"1", nullptr},
      {hdr + u"&OFFSET=0004&WIDTH=0004&VALUE=000000", nullptr},  // the terminator ends the zeros
      {hdr + u"&OFFSET=0004&WIDTH=10000000000000000&VALUE=5", nullptr},  // 2^64 bytes, not a width of 0
      {hdr + u"&OFFSET=0004&WIDTH=0004", nullptr},
      {hdr + u"&OFFSET=0004&VALUE=00", nullptr},
  };
  for (const auto& c : cases) {
    CHAR16* out = trim(c.request.c_str());
    EXPECT_EQ(out ? std::u16string(out) : u"none", c.trimmed ? hdr + c.trimmed : u"none") << narrow(c.request.c_str());
    EXPECT_TRUE(!c.trimmed || logged("TrimConfigRequest", "trimmedConfigRequest: " + narrow((hdr + c.trimmed).c_str()) + "\n"));
    if (out) bs()->FreePool(out);
  }
  EXPECT_EQ(trim(nullptr), nullptr);
}

// The BIOS device's thermal store rejects a zero written over a wide
// field; the retry clears the low byte alone and keeps the firmware's high
// byte. A non-zero value is written whole, and a rejected non-zero value
// is not retried.
TEST_F(SaveTest, RejectedZeroWriteIsRetriedAsOneByte) {
  build();
  const std::u16string bios = sample::kBiosFqdd;
  const struct {
    const char* value; bool rejectAll; EFI_STATUS status; std::vector<uint8_t> bytes; size_t routes;
    std::string record;
  } cases[] = {
      {"0", false, EFI_SUCCESS, {0x00, 0x02, 0, 0}, 2, "FanSpeedOffset:532>0:Success:0"},
      {"7", false, EFI_SUCCESS, {0x07, 0x00, 0, 0}, 1, "FanSpeedOffset:532>7:Success:0"},
      {"7", true, EFI_DEVICE_ERROR, {0x14, 0x02, 0, 0}, 1, "FanSpeedOffset:532>7:Failure:2"},
      {"0", true, EFI_DEVICE_ERROR, {0x14, 0x02, 0, 0}, 2, "FanSpeedOffset:532>0:Failure:2"},
  };
  for (const auto& c : cases) {
    dev(bios).device->setStorage(sample::kBiosThermalStoreGuid, u"BiosThermal", {0x14, 0x02, 0, 0});
    dev(bios).device->setRouteConfigFilter(
        [reject = c.rejectAll](const std::u16string&) { return reject ? EFI_INVALID_PARAMETER : EFI_SUCCESS; });
    auto docs = exportDevice(bios);
    pend(docs->current, "FanSpeedOffset", c.value);
    TOLVANE_PROTOCOL* self = converter();
    CHAR16* request = nullptr;
    XML_NODE* root = nullptr;
    ASSERT_EQ(self->NodeToHii(self, dev(bios).handle(), docs->current, &request, &root), EFI_SUCCESS);
    log().clear();
    const size_t before = dev(bios).device->routeConfigCalls().size();
    EXPECT_EQ(self->NodeSaveToHii(self, dev(bios).handle(), request, &root), c.status) << c.value;
    EXPECT_EQ(dev(bios).device->storage(sample::kBiosThermalStoreGuid, u"BiosThermal"), c.bytes) << c.value;
    const auto& calls = dev(bios).device->routeConfigCalls();
    ASSERT_EQ(calls.size() - before, c.routes) << c.value;
    if (c.routes == 2) {
      EXPECT_EQ(calls.back().text, calls[before].text.substr(0, calls[before].text.find(u"WIDTH=") + 6) +
                                       u"1&VALUE=00");
      EXPECT_TRUE(logged("tvlNodeSaveToHii", "Processing Retry: " + narrow(calls.back().text.c_str()) + "\n"));
    }
    EXPECT_EQ(operations(root), std::vector<std::string>{c.record});
    bs()->FreePool(request);
    sample().xml()->XML_FreeNode(sample().xml(), root);
  }
}

// A record is found by the first "Name" with the item's name anywhere in
// the results: the boot sequence's enable checkboxes report under the
// list's name before the list itself, and their own keyword name reports
// nowhere. The legacy sequence is suppressed in UEFI boot mode.
TEST_F(SaveTest, RefusalMarksTheFirstRecordOfItsName) {
  build();
  const std::u16string bios = sample::kBiosFqdd;
  auto docs = exportDevice(bios);
  XML_NODE* list = commit(docs->current, "BootSeq");
  auto entries = children(list, "ValueStruct");
  setAttribute(const_cast<XML_NODE*>(entries[0]), "Enabled", attribute(entries[0], "Enabled") == "true" ? "false"
                                                                                                       : "true");
  const std::string first = text(child(entries[0], "Value")), second = text(child(entries[1], "Value"));
  setText(const_cast<XML_NODE*>(child(entries[0], "Value")), second.c_str());
  setText(const_cast<XML_NODE*>(child(entries[1], "Value")), first.c_str());
  // The device rejects the enable checkbox's write too, which marks
  // nothing: no record carries the checkbox's own keyword name.
  dev(bios).device->setRouteConfigFilter([](const std::u16string&) { return EFI_DEVICE_ERROR; });
  TOLVANE_PROTOCOL* self = converter();
  CHAR16* request = nullptr;
  XML_NODE* root = nullptr;
  ASSERT_EQ(self->NodeToHii(self, dev(bios).handle(), docs->current, &request, &root), EFI_SUCCESS);
  std::vector<std::string> before = operations(root);
  ASSERT_GE(before.size(), 2u);
  log().clear();
  EXPECT_EQ(self->NodeSaveToHii(self, dev(bios).handle(), request, &root), EFI_DEVICE_ERROR);
  std::vector<std::string> after = operations(root);
  ASSERT_EQ(after.size(), before.size());
  EXPECT_EQ(after[0].substr(0, after[0].find(':')), "BootSeq");
  EXPECT_NE(after[0].find(":Failure:902"), std::string::npos) << after[0];
  for (size_t i = 1; i < after.size(); ++i) EXPECT_EQ(after[i], before[i]) << i;
  bs()->FreePool(request);
  sample().xml()->XML_FreeNode(sample().xml(), root);
}

// Every allocation of a save of the sample BIOS device failing in turn: a
// documented status, the results root handed back unchanged in shape, and
// no leak.
TEST_F(SaveTest, EveryAllocationFailureEndsCleanly) {
  build();
  log().setLevelMask(0);
  const std::u16string bios = sample::kBiosFqdd;
  auto docs = exportDevice(bios);
  pend(docs->current, "FanSpeedOffset", "0", "1");
  pend(docs->current, "ProcCores", "12", "2");
  pend(docs->current, "MemOpMode", "FaultResilientMode", "3");
  commit(docs->current, "Version", "4");
  TOLVANE_PROTOCOL* self = converter();
  CHAR16* request = nullptr;
  XML_NODE* root = nullptr;
  ASSERT_EQ(self->NodeToHii(self, dev(bios).handle(), docs->current, &request, &root), EFI_SUCCESS);
  const std::string records = serialise(root);
  std::vector<std::pair<EFI_GUID, std::u16string>> stores = {{sample::kBiosSetupStoreGuid, u"BiosSetup"},
                                                             {sample::kBiosThermalStoreGuid, u"BiosThermal"}};
  std::vector<std::vector<uint8_t>> initial;
  for (const auto& s : stores) initial.push_back(dev(bios).device->storage(s.first, s.second));
  XML_NODE* slot = root;
  auto run = [&] { return self->NodeSaveToHii(self, dev(bios).handle(), request, &slot); };
  auto reset = [&] {
    for (size_t i = 0; i < stores.size(); ++i)
      dev(bios).device->setStorage(stores[i].first, stores[i].second, initial[i]);
    for (const char* name : {"FanSpeedOffset", "ProcCores", "MemOpMode", "Version"})
      for (const XML_NODE* op : children(root, "Operation"))
        if (text(child(op, "Name")) == name) {
          setText(const_cast<XML_NODE*>(child(op, "Status")), "Success");
          setText(const_cast<XML_NODE*>(child(op, "ErrorCode")), "0");
        }
    EXPECT_EQ(serialise(root), records);
  };
  EXPECT_EQ(run(), EFI_ABORTED);  // Version is read-only
  reset();
  size_t outOfMemory = 0;
  auto check = [&](EFI_STATUS status, size_t k) {
    // A lookup that runs out of memory passes its segment over.
    outOfMemory += status == EFI_OUT_OF_RESOURCES;
    EXPECT_TRUE(status == EFI_ABORTED || status == EFI_OUT_OF_RESOURCES || status == EFI_SUCCESS ||
                status == EFI_DEVICE_ERROR)
        << k << " " << statusName(status);
    EXPECT_EQ(slot, root) << k;
  };
  sweepAllocationFailures(run, check, reset);
  EXPECT_GT(outOfMemory, 0u);
  bs()->FreePool(request);
  sample().xml()->XML_FreeNode(sample().xml(), root);
}

}  // namespace
