#include "bench/bench_devices.h"

#include <string>

#include "host/hii/device_path.h"

namespace tvl::bench {

using namespace host::sample;

DeviceDescription generatedDevice(size_t questions) {
  constexpr size_t kPerForm = 500;
  DeviceDescription d;
  d.fqdd = u"System.Generated.1";
  d.description = u"generated device";
  d.devicePath = host::hii::DevicePathBuilder()
                     .vendorHardware({0x2f1e0d3c, 0x4b5a, 0x4978, {0x86, 0x95, 0xa4, 0xb3, 0xc2, 0xd1, 0xe0, 0xf9}})
                     .build();
  d.packageListGuid = {0x3a2b1c0d, 0x5e4f, 0x4a6b, {0x97, 0x88, 0x79, 0x6a, 0x5b, 0x4c, 0x3d, 0x2e}};
  FormSetDescription set;
  set.guid = {0x4c3d2e1f, 0x6a5b, 0x4c7d, {0x8e, 0x9f, 0xa0, 0xb1, 0xc2, 0xd3, 0xe4, 0xf5}};
  set.title = u"Generated Settings";
  set.keyword = u"GeneratedSettings";
  for (size_t first = 0, form = 1; first < questions; first += kPerForm, ++form) {
    UINT16 store = UINT16(form);
    set.varStores.push_back({store, {0x5d4e3f20u + UINT32(form), 0x7b6c, 0x4d8e, {1, 2, 3, 4, 5, 6, 7, 8}},
                             "Generated" + std::to_string(form), UINT16(kPerForm * 16), false, 0});
    FormDescription f{UINT16(form), u"Form " + std::u16string(1, u'A' + form % 26), u"Form" + std::u16string(1, u'A' + form % 26), {}};
    for (size_t i = first; i < questions && i < first + kPerForm; ++i) {
      std::string n = std::to_string(i);
      std::u16string name(n.begin(), n.end());
      UINT16 id = UINT16(0x1000 + i);
      UINT16 offset = UINT16((i - first) * 16);
      switch (i % 4) {
        case 0:
          f.statements.push_back(oneOf(id, u"Choice " + name, u"Choice" + name)
                                     .at(store, offset)
                                     .option(u"Off", u"Off", 0, EFI_IFR_OPTION_DEFAULT)
                                     .option(u"On", u"On", 1)
                                     .option(u"Auto", u"Auto", 2)
                                     .value(2));
          break;
        case 1:
          f.statements.push_back(numeric(id, u"Number " + name, u"Number" + name, host::ifr::Width::U16)
                                     .at(store, offset)
                                     .range(0, 1000, 10)
                                     .defaultNumber(100)
                                     .value(250));
          break;
        case 2:
          f.statements.push_back(checkbox(id, u"Switch " + name, u"Switch" + name + u"[Group:Bench]")
                                     .at(store, offset)
                                     .checkboxDefaults(true, false)
                                     .value(1));
          break;
        default:
          f.statements.push_back(string(id, u"Text " + name, u"Text" + name, 0, 8).at(store, offset).valueText(u"abc"));
          break;
      }
    }
    set.forms.push_back(std::move(f));
  }
  d.formSets = {set};
  return d;
}

}  // namespace tvl::bench
