// Writes the C++ source of the sample-device image's data (sample_data.h)
// from the sample platform's descriptions: for each device its FQDD,
// description, device path and package list, and for each of its stores the
// reset-state bytes and the default configurations its forms give, as the
// host's sample devices compute them.
//
//   tolvane_sample_data OUTPUT.cpp
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "host/devices/default_config.h"
#include "host/hii/config_string.h"
#include "host/sample/sample_devices.h"

namespace {

using tvl::host::devices::DefaultConfig;
using tvl::host::devices::DefaultField;
using tvl::host::sample::DeviceDescription;

std::string hex(unsigned value, int digits) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out = "0x";
  for (int i = digits - 1; i >= 0; --i) out += kDigits[(value >> (4 * i)) & 0xF];
  return out;
}

void bytesArray(std::ostream& out, const std::string& name, const std::vector<uint8_t>& bytes, bool aligned = false) {
  out << (aligned ? "alignas(8) " : "") << "const UINT8 " << name << "[] = {";
  for (size_t i = 0; i < bytes.size(); ++i) out << (i % 16 ? " " : "\n    ") << hex(bytes[i], 2) << ",";
  out << "\n};\n";
}

// A UCS-2 literal; every character as an escape, so no text needs quoting.
std::string text(const std::u16string& s) {
  std::string out = "u\"";
  for (char16_t c : s) {
    if ((c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9') || c == u'.' || c == u' ' ||
        c == u'-' || c == u':')
      out += char(c);
    else
      out += "\\x" + hex(c, 4).substr(2) + "\"u\"";
  }
  return out + "\"";
}

std::string guid(const EFI_GUID& g) {
  std::ostringstream out;
  out << "{" << hex(g.Data1, 8) << ", " << hex(g.Data2, 4) << ", " << hex(g.Data3, 4) << ", {";
  for (int i = 0; i < 8; ++i) out << (i ? ", " : "") << hex(g.Data4[i], 2);
  out << "}}";
  return out.str();
}

void device(std::ostream& out, size_t d, const DeviceDescription& device, std::vector<std::string>& entries) {
  const std::string prefix = "kDevice" + std::to_string(d);
  const std::vector<uint8_t> list = tvl::host::sample::buildPackageList(device);
  bytesArray(out, prefix + "Path", device.devicePath);
  bytesArray(out, prefix + "List", list, true);
  std::vector<std::string> stores;
  size_t s = 0;
  for (const auto& formSet : device.formSets) {
    for (const auto& store : formSet.varStores) {
      const std::string name = prefix + "Store" + std::to_string(s++);
      const std::u16string storeName = tvl::host::hii::toUtf16(store.name);
      const std::vector<uint8_t> initial = tvl::host::sample::initialStorage(formSet, store);
      bytesArray(out, name + "Initial", initial);
      const std::vector<DefaultConfig> configs = tvl::host::devices::defaultConfigs({list}, store.guid, storeName);
      std::vector<std::string> defaults;
      for (size_t c = 0; c < configs.size(); ++c) {
        const std::string fields = name + "Defaults" + std::to_string(c);
        std::vector<std::string> entriesOfFields;
        for (size_t f = 0; f < configs[c].fields.size(); ++f) {
          const DefaultField& field = configs[c].fields[f];
          const std::string bytes = fields + "Field" + std::to_string(f);
          bytesArray(out, bytes, field.bytes);
          entriesOfFields.push_back("{" + std::to_string(field.offset) + ", " + std::to_string(field.bytes.size()) +
                                    ", " + bytes + "}");
        }
        if (!entriesOfFields.empty()) {
          out << "const SampleField " << fields << "[] = {\n";
          for (const auto& e : entriesOfFields) out << "    " << e << ",\n";
          out << "};\n";
        }
        defaults.push_back("{" + std::to_string(configs[c].defaultId) + ", " + std::to_string(entriesOfFields.size()) +
                           ", " + (entriesOfFields.empty() ? "nullptr" : fields) + "}");
      }
      if (!defaults.empty()) {
        out << "const SampleDefaults " << name << "Defaults[] = {\n";
        for (const auto& e : defaults) out << "    " << e << ",\n";
        out << "};\n";
      }
      stores.push_back("{" + guid(store.guid) + ", " + text(storeName) + ", " + (store.efiVariable ? "TRUE" : "FALSE") +
                       ", " + hex(store.attributes, 8) + ", " + std::to_string(initial.size()) + ", " + name +
                       "Initial, " + std::to_string(defaults.size()) + ", " +
                       (defaults.empty() ? "nullptr" : name + "Defaults") + ", " +
                       (store.refusesWideZero ? "TRUE" : "FALSE") + "}");
    }
  }
  if (!stores.empty()) {
    out << "const SampleStore " << prefix << "Stores[] = {\n";
    for (const auto& e : stores) out << "    " << e << ",\n";
    out << "};\n";
  }
  entries.push_back("{" + text(device.fqdd) + ", " + text(device.description) + ", " +
                    std::to_string(device.devicePath.size()) + ", " + prefix + "Path, " + std::to_string(list.size()) +
                    ", " + prefix + "List, " + std::to_string(stores.size()) + ", " +
                    (stores.empty() ? "nullptr" : prefix + "Stores") + "}");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: tolvane_sample_data OUTPUT.cpp\n";
    return 2;
  }
  std::ostringstream out;
  out << "// Generated by tolvane_sample_data from host/sample/; do not edit.\n"
         "#include \"firmware/sample/sample_data.h\"\n\n"
         "namespace tvl::sample {\nnamespace {\n\n";
  std::vector<std::string> entries;
  try {
    const std::vector<DeviceDescription> devices = tvl::host::sample::sampleDevices();
    for (size_t d = 0; d < devices.size(); ++d) device(out, d, devices[d], entries);
  } catch (const std::exception& e) {
    std::cerr << "tolvane_sample_data: " << e.what() << "\n";
    return 1;
  }
  out << "\n}  // namespace\n\nextern const SampleDevice kSampleDevices[] = {\n";
  for (const auto& e : entries) out << "    " << e << ",\n";
  out << "};\nextern const UINTN kSampleDeviceCount = " << entries.size() << ";\n\n}  // namespace tvl::sample\n";
  std::ofstream file(argv[1], std::ios::binary);
  file << out.str();
  if (!file.flush()) {
    std::cerr << "tolvane_sample_data: cannot write " << argv[1] << "\n";
    return 1;
  }
  return 0;
}
