#include "tests/host/offline/dump_shapes.h"

#include "host/hii/device_path.h"
#include "host/hii/package_list.h"
#include "host/ifr/ifr_builder.h"
#include "host/ifr/strings.h"

namespace tvl::test::shapes {
namespace {

namespace ifr = host::ifr;
namespace hii = host::hii;
using ifr::Width;

constexpr UINT32 kNvBs = EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS;
constexpr EFI_GUID kTianoGuid = EFI_IFR_TIANO_GUID;

EFI_GUID guid(UINT32 n) {
  return EFI_GUID{0x51a0be00u + n, 0x6c3e, 0x4f27, {0xa8, 0x14, 0x0d, 0x93, 0x2e, 0x55, 0x7b, UINT8(n)}};
}

Bytes withDevicePath(Bytes list, const Bytes& path) {
  hii::PackageListView view;
  hii::parsePackageList(list.data(), list.size(), view);
  std::vector<Bytes> packages;
  for (const auto& p : view.packages) packages.emplace_back(p.data, p.data + p.size);
  packages.push_back(hii::buildPackage(EFI_HII_PACKAGE_DEVICE_PATH, path));
  return hii::buildPackageList(view.guid, packages);
}

// A text in en-US, with its keyword in `keywordLanguage`.
struct Texts {
  ifr::Strings& strings;
  std::string keywordLanguage;
  UINT16 operator()(const char16_t* text, const char16_t* keyword) const {
    return strings.add({{"en-US", text}, {keywordLanguage, keyword}});
  }
  UINT16 operator()(const char16_t* text) const { return strings.add({{"en-US", text}}); }
};
Bytes vendorPath(UINT32 n) { return hii::DevicePathBuilder().vendorHardware(guid(n)).build(); }

}  // namespace

Bytes platformConfigList() {
  ifr::Strings strings({"en-US", "x-UEFI"});
  Texts t{strings, "x-UEFI"};
  const UINT16 title = t(u"Platform Configuration", u"PlatformConfig");
  const UINT16 help = t(u"Change various platform settings.");
  const UINT16 low = t(u"Low", u"Low"), mid = t(u"Medium", u"Medium"), high = t(u"High", u"High");
  ifr::FormSetBuilder set(guid(1), title, help);
  set.varStore(1, kPlatformStoreGuid, "MainFormState", kPlatformStoreSize)
      .efiVarStore(2, kPlatformVariableGuid, "PlatformFlags", kPlatformVariableSize, kNvBs);
  set.form(1, title)
      // Constant default of the standard store: 800 at 0.
      .numeric(ifr::Numeric(1, t(u"Horizontal resolution", u"ResWidth"), help, Width::U16)
                   .store(1, 0).range(640, 4096).defaultValue(800).defaultValue(1024, 1))
      // Computed from the first: 800 + 224 at 2.
      .numeric(ifr::Numeric(2, t(u"Vertical resolution", u"ResHeight"), help, Width::U16)
                   .store(1, 2).range(480, 4096).defaultExpression(ifr::add(ifr::questionRef(1), ifr::number(224))))
      // Option flags: the standard default 1 at 4.
      .oneOf(ifr::OneOf(3, t(u"Fan speed", u"FanSpeed"), help).store(1, 4)
                 .option(low, 0).option(mid, 1, EFI_IFR_OPTION_DEFAULT).option(high, 2, EFI_IFR_OPTION_DEFAULT_MFG))
      // Checkbox flag: on at 5.
      .checkbox(ifr::Checkbox(4, t(u"Boot splash", u"BootSplash"), help).store(1, 5).defaultOn())
      // A DEFAULT opcode wins over the flag: off at 6.
      .checkbox(ifr::Checkbox(5, t(u"Fast boot", u"FastBoot"), help).store(1, 6).defaultOn().defaultValue(false))
      // Only a manufacturing default: 0 at 7.
      .oneOf(ifr::OneOf(6, t(u"Power profile", u"PowerProfile"), help).store(1, 7)
                 .option(low, 5).option(high, 6).defaultValue(6, 1))
      // A constant expression: 21 at 8.
      .numeric(ifr::Numeric(7, t(u"Timeout", u"Timeout"), help, Width::U32)
                   .store(1, 8).range(0, 600).defaultExpression(ifr::multiply(ifr::number(3), ifr::number(7))))
      // No default: 0 at 12.
      .numeric(ifr::Numeric(8, t(u"Serial number", u"SerialNumber"), help, Width::U32).store(1, 12).range(0, 99999))
      // The variable store: checkbox flag at 0, constant default at 2.
      .checkbox(ifr::Checkbox(9, t(u"Secure mode", u"SecureMode"), help).store(2, 0).defaultOn())
      .numeric(ifr::Numeric(10, t(u"Boot delay", u"BootDelay"), help, Width::U16)
                   .store(2, 2).range(0, 0xffff).defaultValue(0x1234));
  return withDevicePath(ifr::packageList(kPlatformGuid, set, strings), vendorPath(2));
}

Bytes keywordNamespaceList() {
  ifr::Strings strings({"en-US", "x-UEFI-ns"});
  Texts t{strings, "x-UEFI-ns"};
  const UINT16 title = t(u"iSCSI Configuration");
  const UINT16 help = t(u"Configure the iSCSI parameters.");
  ifr::FormSetBuilder set(guid(3), title, help);
  set.varStore(1, guid(4), "ISCSI_CONFIG_IFR_NVDATA", 8);
  set.form(1, title)
      .string(ifr::String(1, t(u"iSCSI Initiator Name", u"iSCSIInitiatorName"), help, 4, 223).store(1, 0))
      .checkbox(ifr::Checkbox(2, t(u"Enable iSCSI", u"iSCSIEnable"), help).store(1, 6));
  return withDevicePath(ifr::packageList(guid(5), set, strings), vendorPath(6));
}

Bytes twoFormSetsList() {
  ifr::Strings strings({"en-US"});
  const UINT16 health = strings.add(u"Driver Health"), configure = strings.add(u"Driver Health Configure");
  const UINT16 help = strings.add(u"Check whether the drivers are healthy.");
  ifr::FormSetBuilder first(guid(7), health, help), second(guid(8), configure, help);
  first.form(0x1001, health).subtitle(health).text(help, help);
  second.form(0x1002, configure).subtitle(configure).text(help, help);
  return withDevicePath(ifr::packageList(guid(9), std::vector<Bytes>{first.package(), second.package()}, strings),
                        vendorPath(10));
}

Bytes sharedGuidList(int n) {
  ifr::Strings strings({"en-US"});
  const UINT16 title = strings.add(u"File Explorer"), help = strings.add(u"Choose a file.");
  ifr::FormSetBuilder set(guid(11), title, help);
  set.form(1, title).label(0x1000).label(0xffff);
  Bytes list = ifr::packageList(kSharedGuid, set, strings);
  return n == 1 ? withDevicePath(list, vendorPath(12)) : list;  // only the first driver gave a device path
}

Bytes lowerCaseList() {
  ifr::Strings strings({"en-us"});
  const UINT16 title = strings.add(u"iPXE (52:54:00:12:34:56)");
  const UINT16 help = strings.add(u"Configure iPXE");
  Bytes ops;
  auto op = [&ops](UINT8 opcode, bool scope, const Bytes& fields) {
    ops.push_back(opcode);
    ops.push_back(UINT8((fields.size() + 2) | (scope ? 0x80 : 0)));
    ops.insert(ops.end(), fields.begin(), fields.end());
  };
  auto le16 = [](Bytes& b, UINT16 v) { b.push_back(UINT8(v)), b.push_back(UINT8(v >> 8)); };
  auto guidBytes = [](Bytes& b, const EFI_GUID& g) {
    const auto* p = reinterpret_cast<const UINT8*>(&g);
    b.insert(b.end(), p, p + sizeof g);
  };
  Bytes formSet;  // two class GUIDs, counted in Flags
  guidBytes(formSet, guid(13));
  le16(formSet, title), le16(formSet, help);
  formSet.push_back(2);
  guidBytes(formSet, gEfiHiiPlatformSetupFormsetGuid);
  guidBytes(formSet, guid(14));
  op(EFI_IFR_FORM_SET_OP, true, formSet);
  for (UINT8 extend : {UINT8(1), UINT8(2)}) {  // class, subclass
    Bytes g;
    guidBytes(g, kTianoGuid);
    g.push_back(extend), le16(g, extend == 1 ? 0x04 : 0x03);
    op(EFI_IFR_GUID_OP, false, g);
  }
  Bytes store, form;
  le16(store, 1), guidBytes(store, guid(15));
  op(EFI_IFR_VARSTORE_NAME_VALUE_OP, false, store);
  le16(form, 1), le16(form, title);
  op(EFI_IFR_FORM_OP, true, form);
  for (const char16_t* name : {u"Name", u"Version"}) {
    Bytes text;
    le16(text, strings.add(name)), le16(text, help), le16(text, strings.add(u"iPXE"));
    op(EFI_IFR_TEXT_OP, false, text);
  }
  for (UINT16 tag : {UINT16(0x0101), UINT16(0x0102)}) {  // string questions on the name/value store, no scope
    Bytes q;
    const UINT16 name = strings.add(tag == 0x0101 ? u"hostname" : u"filename");
    le16(q, strings.add(tag == 0x0101 ? u"Host name" : u"Boot filename")), le16(q, help), le16(q, tag), le16(q, 1),
        le16(q, name);
    q.insert(q.end(), {0, 0x00, 0xff, 0x00});
    op(EFI_IFR_STRING_OP, false, q);
  }
  for (int end = 0; end < 2; ++end) op(EFI_IFR_END_OP, false, {});
  // Forms first, then the strings, whose LanguageName is the last string.
  const UINT16 english = strings.add(u"English");
  std::vector<Bytes> packages = {ifr::formsPackage(ops)};
  for (Bytes& p : strings.packages()) {
    p[44] = UINT8(english), p[45] = UINT8(english >> 8);
    packages.push_back(std::move(p));
  }
  packages.push_back(hii::buildPackage(
      EFI_HII_PACKAGE_DEVICE_PATH,
      hii::DevicePathBuilder().pciRoot(0).pci(3, 0).mac({0x52, 0x54, 0x00, 0x12, 0x34, 0x56}).build()));
  return hii::buildPackageList(guid(16), packages);
}

Bytes fontList() {
  Bytes font(12, 0);  // EFI_HII_SIMPLE_FONT_PACKAGE_HDR without glyphs
  return hii::buildPackageList(guid(17), {hii::buildPackage(EFI_HII_PACKAGE_SIMPLE_FONTS, font)});
}

Bytes imageList() {
  Bytes images(8, 0);  // ImageInfoOffset and PaletteInfoOffset, nothing behind them
  images.push_back(0);  // EFI_HII_IIBT_END
  return hii::buildPackageList(guid(18), {hii::buildPackage(EFI_HII_PACKAGE_IMAGES, images)});
}

DumpFile firmwareDump() {
  DumpFile dump;
  auto add = [&dump](const Bytes& list, DumpedList what) {
    dump.bytes.insert(dump.bytes.end(), list.begin(), list.end());
    dump.lists.push_back(std::move(what));
  };
  add(fontList(), {"fonts", false, false});
  add(platformConfigList(), {"platform configuration", true, true});
  add(sharedGuidList(1), {"file explorer 1", true, true});
  add(keywordNamespaceList(), {"x-UEFI-ns keywords", true, true});
  add(imageList(), {"images", false, false});
  add(twoFormSetsList(), {"two form sets", true, true});
  add(sharedGuidList(2), {"file explorer 2", true, true});
  add(lowerCaseList(), {"en-us strings", true, false});
  add(sharedGuidList(3), {"file explorer 3", true, true});
  return dump;
}

}  // namespace tvl::test::shapes
