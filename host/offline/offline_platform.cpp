#include "host/offline/offline_platform.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "export/records/records.h"
#include "host/hii/config_string.h"
#include "host/hii/device_path.h"
#include "host/ifr/ifr_dump.h"
#include "host/status.h"
#include "services/location/device_path_text.h"

namespace tvl::host::offline {
namespace {

std::string offsetText(size_t offset) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "byte offset %zu (0x%zx)", offset, offset);
  return buf;
}

constexpr UINT32 kVariableAccess = EFI_VARIABLE_BOOTSERVICE_ACCESS | EFI_VARIABLE_RUNTIME_ACCESS;
constexpr UINT32 kFallbackAttributes = EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS;

// Form sets of one ProcessForms call, given back exactly once.
class ParsedFormSets {
 public:
  explicit ParsedFormSets(HII_FORMS_PROCESSOR2_PROTOCOL* processor) : processor_(processor) {}
  ~ParsedFormSets() {
    if (sets) processor_->DestroyFormSets(processor_, count, sets);
  }
  ParsedFormSets(const ParsedFormSets&) = delete;
  ParsedFormSets& operator=(const ParsedFormSets&) = delete;

  // The list's forms as an export reads them: all of them, else (a list
  // whose forms do not all evaluate) the storage controller's form set.
  EFI_STATUS process(EFI_HII_HANDLE handle, std::string* why) {
    EFI_STATUS status = processor_->ProcessForms(processor_, &handle, 1, nullptr, &count, &sets);
    if (status == EFI_SUCCESS) return status;
    HII_FORMS_PROCESSOR_ERROR error{};
    processor_->GetLastError(processor_, &error);
    if (processor_->ProcessForms(processor_, &handle, 1, &gInternalSSDSetup, &count, &sets) == EFI_SUCCESS)
      return EFI_SUCCESS;
    if (why) *why = statusName(status) + ": " + error.Message + " (at " + offsetText(error.Offset) + " of the list)";
    return status;
  }

  UINTN count = 0;
  HII_FORMSET_RECORD** sets = nullptr;

 private:
  HII_FORMS_PROCESSOR2_PROTOCOL* processor_;
};

bool buffered(const HII_VARSTORE_RECORD* store) {
  return store && (store->StoreType == EFI_IFR_VARSTORE_OP || store->StoreType == EFI_IFR_VARSTORE_EFI_OP);
}

// The value of an evaluated expression in `width` bytes, storage order;
// empty when it is neither a number nor a boolean.
std::vector<uint8_t> valueBytes(const HII_VALUE& result, size_t width) {
  UINT64 number = 0;
  if (result.Type <= EFI_IFR_TYPE_NUM_SIZE_64)
    number = hiiValueNumber(result, hiiNumberWidth(result.Type));
  else if (result.Type == EFI_IFR_TYPE_BOOLEAN)
    number = result.Value[0] ? 1 : 0;
  else
    return {};
  std::vector<uint8_t> bytes(width);
  for (size_t i = 0; i < width && i < 8; ++i) bytes[i] = uint8_t(number >> (8 * i));
  return bytes;
}

std::string hexText(UINT64 value) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(value));
  return buf;
}

std::string storeName(const EFI_GUID& guid, const std::u16string& name) {
  return "\"" + hii::toAscii(name) + "\" (GUID " + ifr::guidText(guid) + ")";
}

}  // namespace

std::string OfflineList::name(size_t index) const {
  return "package list " + std::to_string(index + 1) + " (GUID " + ifr::guidText(file.guid) + ")";
}

OfflinePlatform::OfflinePlatform(const std::vector<uint8_t>& file, PoolMode poolMode) {
  std::vector<FilePackageList> scanned;
  FileFault fault;
  if (!scanPackageLists(file.data(), file.size(), scanned, fault))
    throw InputError("at " + offsetText(fault.offset) + ": " + fault.message);
  platform_ = std::make_unique<Platform>(poolMode);
  services_ = std::make_unique<sample::SamplePlatform>(*platform_, std::vector<sample::DeviceDescription>{});
  lists_.resize(scanned.size());
  for (size_t i = 0; i < scanned.size(); ++i) {
    lists_[i].file = std::move(scanned[i]);
    addList(i, file);
  }
}

OfflinePlatform::~OfflinePlatform() { lists_.clear(); }

void OfflinePlatform::addList(size_t index, const std::vector<uint8_t>& file) {
  OfflineList& list = lists_[index];
  for (const FileFault& flaw : list.file.flaws)
    warnings_.push_back(list.name(index) + ": at " + offsetText(flaw.offset) + ": " + flaw.message);
  list.devicePath = list.file.devicePath;
  if (list.devicePath.empty()) {
    const UINT32 number = UINT32(index + 1);
    list.devicePath = hii::DevicePathBuilder()
                          .vendorHardware(kOfflineVendorGuid, {UINT8(number), UINT8(number >> 8), UINT8(number >> 16),
                                                               UINT8(number >> 24)})
                          .build();
    list.madeDevicePath = true;
  }
  list.device = std::make_unique<devices::Device>(*platform_, services_->hii(), list.devicePath);
  const auto begin = file.begin() + long(list.file.offset);
  const std::vector<uint8_t> bytes(begin, begin + long(list.file.length));
  try {
    list.hiiHandle = list.device->addPackageList(bytes);
  } catch (const std::runtime_error& e) {
    warnings_.push_back(list.name(index) + " at " + offsetText(list.file.offset) + ": " + e.what() +
                        "; it is left out");
    list.refusal = e.what();
    for (const FileFault& flaw : list.file.flaws)
      list.refusal += " (at " + offsetText(flaw.offset) + ": " + flaw.message + ")";
    list.device.reset();
    return;
  }
  if (list.file.hasForms) startStores(list);
}

std::vector<uint8_t> OfflinePlatform::exported(const OfflineList& list) {
  std::vector<uint8_t> bytes;
  if (services_->hii().exportPackageLists(list.hiiHandle, bytes) != EFI_SUCCESS) bytes.clear();
  return bytes;
}

void OfflinePlatform::startStores(OfflineList& list) {
  const std::vector<std::vector<uint8_t>> forms = {exported(list)};
  list.stores = devices::declaredStores(forms);
  auto fill = [&](const std::vector<devices::EvaluatedDefault>& evaluated, bool declare) {
    const devices::DeviceDefaults defaults = devices::allDefaultConfigs(forms, evaluated, true);
    for (size_t i = 0; i < list.stores.size();) {
      const devices::StoreDeclaration& store = list.stores[i];
      std::vector<uint8_t> bytes(store.size, 0);
      for (const devices::DefaultField& f : devices::standardFields(defaults, store.guid, store.name))
        if (f.offset + f.bytes.size() <= bytes.size())
          std::memcpy(bytes.data() + f.offset, f.bytes.data(), f.bytes.size());
      if (!declare) {
        list.device->setStorage(store.guid, store.name, bytes);
      } else if (!store.efiVariable) {
        list.device->addBufferStorage(store.guid, store.name, bytes);
      } else if (!declareVariable(list, store, bytes)) {
        list.stores.erase(list.stores.begin() + long(i));
        continue;
      }
      ++i;
    }
  };
  fill({}, true);
  // Expression defaults are evaluated over the stores as the constant
  // defaults left them, then written over those.
  std::vector<devices::EvaluatedDefault> evaluated = evaluateDefaults(list);
  if (evaluated.empty()) return;
  list.device->setEvaluatedDefaults(evaluated);
  fill(evaluated, false);
}

bool OfflinePlatform::declareVariable(OfflineList& list, const devices::StoreDeclaration& store,
                                      const std::vector<uint8_t>& bytes) {
  // Forms may declare attributes without access (no variable could hold
  // them) or ones this platform does not emulate.
  UINT32 attributes = store.attributes;
  const bool taken = (attributes & kVariableAccess) != 0 &&
                     platform_->setVariable(store.name, store.guid, attributes, bytes) == EFI_SUCCESS;
  if (!taken) {
    warnings_.push_back("EFI variable store " + storeName(store.guid, store.name) + " has attributes " +
                        hexText(attributes) +
                        ", which the platform does not take; it is kept as a non-volatile boot-service variable");
    attributes = kFallbackAttributes;
  }
  try {
    list.device->addVariableStorage(store.guid, store.name, bytes, attributes);
    return true;
  } catch (const std::runtime_error& e) {
    warnings_.push_back("EFI variable store " + storeName(store.guid, store.name) + " cannot be made (" + e.what() +
                        "); it is left out");
    return false;
  }
}

std::vector<devices::EvaluatedDefault> OfflinePlatform::evaluateDefaults(OfflineList& list) {
  std::vector<devices::EvaluatedDefault> evaluated;
  ParsedFormSets parsed(services_->formsProcessor());
  if (parsed.process(list.hiiHandle, nullptr) != EFI_SUCCESS) return evaluated;
  for (UINTN f = 0; f < parsed.count; ++f) {
    const HII_FORMSET_RECORD* set = parsed.sets[f];
    for (UINT64 g = 0; g < set->FormCount; ++g) {
      const HII_FORM_RECORD* form = set->Forms[g];
      for (UINT64 s = 0; s < form->StatementCount; ++s) {
        const HII_STATEMENT_RECORD* statement = form->Statements[s];
        if (!buffered(statement->VarStore) || statement->StorageWidth == 0) continue;
        for (UINT64 d = 0; d < statement->DefaultCount; ++d) {
          const HII_DEFAULT_RECORD* def = statement->Defaults[d];
          if (!def->ValueExpression) continue;
          std::vector<uint8_t> value = valueBytes(def->ValueExpression->Result, statement->StorageWidth);
          if (!value.empty()) evaluated.push_back({0, size_t(statement->Offset), def->DefaultId, std::move(value)});
        }
      }
    }
  }
  return evaluated;
}

void OfflinePlatform::registerFqdd(size_t index, const std::u16string& fqdd, const std::u16string& description) {
  DEVICE_LOCATION_PROTOCOL* location = services_->location();
  const OfflineList& list = lists_.at(index);
  EFI_STATUS status = location->RegisterLocation(
      location, reinterpret_cast<const EFI_DEVICE_PATH_PROTOCOL*>(list.devicePath.data()), fqdd.c_str(),
      description.c_str());
  if (status != EFI_SUCCESS)
    throw std::runtime_error("the location service refuses FQDD " + hii::toAscii(fqdd) + " for " + list.name(index) +
                             ": " + statusName(status));
}

void OfflinePlatform::applyConfig(size_t index, const std::vector<ConfigEntry>& entries) {
  OfflineList& list = lists_.at(index);
  if (!list.device) throw std::runtime_error(list.name(index) + " has no device: " + list.refusal);
  struct Write {
    const devices::StoreDeclaration* store;
    const hii::ConfigBlock* block;
  };
  std::vector<Write> writes;
  for (const ConfigEntry& entry : entries) {
    const hii::ConfigHeader& header = entry.config.header;
    const devices::StoreDeclaration* store = nullptr;
    for (const devices::StoreDeclaration& s : list.stores)
      if (s.guid == header.guid && s.name == header.name) store = &s;
    if (!store) {
      std::string known;
      for (const devices::StoreDeclaration& s : list.stores)
        known += (known.empty() ? "" : ", ") + storeName(s.guid, s.name);
      throw InputError("line " + std::to_string(entry.line) + ": no store of the forms of " + list.name(index) +
                       " is " + storeName(header.guid, header.name) +
                       (known.empty() ? std::string("; they declare none") : "; they declare " + known));
    }
    for (const hii::ConfigBlock& block : entry.config.blocks) {
      if (block.offset > store->size || block.width > store->size - block.offset)
        throw InputError("line " + std::to_string(entry.line) + ": OFFSET " + std::to_string(block.offset) +
                         " WIDTH " + std::to_string(block.width) + " runs past the " + std::to_string(store->size) +
                         "-byte store " + storeName(store->guid, store->name));
      writes.push_back({store, &block});
    }
  }
  for (const Write& w : writes) {
    std::vector<uint8_t> bytes = list.device->storage(w.store->guid, w.store->name);
    bytes.resize(w.store->size, 0);
    std::memcpy(bytes.data() + w.block->offset, w.block->value.data(), w.block->width);
    list.device->setStorage(w.store->guid, w.store->name, bytes);
  }
}

std::vector<FormSetSummary> OfflinePlatform::formSets(size_t index, std::string* why) {
  OfflineList& list = lists_.at(index);
  if (!list.device) {
    if (why) *why = list.refusal;
    return {};
  }
  ParsedFormSets parsed(services_->formsProcessor());
  if (parsed.process(list.hiiHandle, why) != EFI_SUCCESS) return {};
  EFI_HII_STRING_PROTOCOL* strings = services_->hii().strings();
  std::vector<FormSetSummary> out;
  for (UINTN i = 0; i < parsed.count; ++i) {
    const HII_FORMSET_RECORD* set = parsed.sets[i];
    FormSetSummary summary;
    summary.guid = set->Guid;
    for (UINT64 l = 0; l < set->NumberOfLanguages; ++l) summary.languages.push_back(set->Languages[l]);
    std::vector<const CHAR8*> languages = {"en-US"};
    if (set->NumberOfLanguages) languages.push_back(set->Languages[0]);
    for (const CHAR8* language : languages) {
      CHAR16 text[256] = {};
      UINTN size = sizeof text;
      if (strings->GetString(strings, language, list.hiiHandle, set->FormSetTitle, text, &size, nullptr) ==
          EFI_SUCCESS) {
        summary.title = reinterpret_cast<const char16_t*>(text);
        break;
      }
    }
    out.push_back(std::move(summary));
  }
  return out;
}

std::u16string OfflinePlatform::devicePathText(size_t index) {
  const std::vector<uint8_t>& path = lists_.at(index).devicePath;
  std::u16string text(location::devicePathToText(path.data(), path.size(), nullptr, 0), u'\0');
  location::devicePathToText(path.data(), path.size(), reinterpret_cast<CHAR16*>(text.data()), text.size() + 1);
  return text;
}

}  // namespace tvl::host::offline
