#include "host/devices/default_config.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <utility>

#include "host/hii/package_list.h"
#include "host/ifr/ifr_dump.h"
#include "uefi/ifr.h"
#include "uefi/protocols.h"

namespace tvl::host::devices {
namespace {

// Bounds-checked fields of one opcode, at byte offsets from its header;
// a field past the opcode's end reads as zero.
class OpFields {
 public:
  OpFields(const uint8_t* op, size_t length) : op_(op), length_(length) {}
  bool has(size_t at, size_t n) const { return at <= length_ && n <= length_ - at; }
  uint8_t u8(size_t at) const { return has(at, 1) ? op_[at] : 0; }
  uint16_t u16(size_t at) const { return has(at, 2) ? uint16_t(op_[at] | (op_[at + 1] << 8)) : 0; }
  EFI_GUID guid(size_t at) const {
    EFI_GUID g{};
    if (has(at, sizeof g)) std::memcpy(&g, op_ + at, sizeof g);
    return g;
  }
  // The bytes from `at` to the opcode's end (none when `at` is past it).
  std::vector<uint8_t> rest(size_t at) const {
    return at < length_ ? std::vector<uint8_t>(op_ + at, op_ + length_) : std::vector<uint8_t>{};
  }
  // The NUL-terminated ASCII text at `at`; false when it does not end
  // inside the opcode.
  bool ascii(size_t at, std::u16string& text) const {
    text.clear();
    for (; at < length_; ++at) {
      if (op_[at] == 0) return true;
      text += char16_t(op_[at]);
    }
    return false;
  }

 private:
  const uint8_t* op_;
  size_t length_;
};

// Bytes of a number or boolean value of IFR type `type`; 0 for other types.
size_t valueBytes(uint8_t type) {
  if (type <= EFI_IFR_TYPE_NUM_SIZE_64) return size_t(1) << type;
  return type == EFI_IFR_TYPE_BOOLEAN ? 1 : 0;
}

// Question header fields, after the 2-byte opcode header.
constexpr size_t kVarStoreId = 8, kVarStoreInfo = 10, kAfterHeader = 13;

// A question on a storage whose scope is still open.
struct OpenQuestion {
  const StorageName* storage = nullptr;  // in the walk's storeIds_
  uint8_t opcode = 0;
  unsigned depth = 0;
  uint16_t offset = 0;
  size_t width = 0;  // an ordered list's is known from its first option
  uint8_t containers = 0;
  std::map<uint16_t, std::vector<uint8_t>> fromFlags, fromRecords;
};

// One walk over the forms collects the defaults of every storage they
// declare: a device with many storages costs one pass, not one per storage.
class Walk {
 public:
  // With `alwaysStandard` every form set counts as declaring the standard
  // default store.
  Walk(const std::vector<EvaluatedDefault>& evaluated, bool alwaysStandard, DeviceDefaults& out)
      : evaluated_(evaluated), alwaysStandard_(alwaysStandard), out_(out) {
    for (const EvaluatedDefault& e : evaluated_) evaluatedAt_.emplace(std::make_pair(e.listIndex, e.opcodeOffset), &e);
  }

  // The IFR of a forms package that starts at byte `at` of package list
  // `listIndex`.
  void formsPackage(size_t listIndex, size_t at, const uint8_t* ifr, size_t size) {
    std::vector<ifr::OpInfo> ops;
    if (!ifr::walkIfr(ifr, size, ops)) return;
    listIndex_ = listIndex;
    for (const ifr::OpInfo& op : ops) {
      opcodeOffset_ = at + op.offset;
      visit(op, OpFields(ifr + op.offset, op.length));
    }
  }

 private:
  struct Entry {
    const StorageName* storage;
    uint16_t defaultId;
    DefaultField field;
  };

  void visit(const ifr::OpInfo& op, const OpFields& f) {
    switch (op.opcode) {
      case EFI_IFR_FORM_SET_OP:
        defaultIds_.clear(), storeIds_.clear(), storesInOrder_.clear(), entries_.clear(), questions_.clear();
        if (alwaysStandard_) defaultIds_.push_back(EFI_HII_DEFAULT_CLASS_STANDARD);
        break;
      case EFI_IFR_DEFAULTSTORE_OP:
        if (std::find(defaultIds_.begin(), defaultIds_.end(), f.u16(4)) == defaultIds_.end())
          defaultIds_.push_back(f.u16(4));
        break;
      case EFI_IFR_VARSTORE_OP:  // Guid, VarStoreId, Size, Name
        declareStore(f.u16(18), f.guid(2), f, 22);
        break;
      case EFI_IFR_VARSTORE_EFI_OP:  // VarStoreId, Guid, Attributes, Size, Name
        declareStore(f.u16(2), f.guid(4), f, 26);
        break;
      case EFI_IFR_ONE_OF_OP:
      case EFI_IFR_NUMERIC_OP:
        openQuestion(op, f, size_t(1) << (f.u8(kAfterHeader) & EFI_IFR_NUMERIC_SIZE));
        break;
      case EFI_IFR_CHECKBOX_OP:
        if (OpenQuestion* q = openQuestion(op, f, 1)) {
          const uint8_t flags = f.u8(kAfterHeader);
          q->fromFlags[EFI_HII_DEFAULT_CLASS_STANDARD] = {uint8_t(flags & EFI_IFR_CHECKBOX_DEFAULT ? 1 : 0)};
          q->fromFlags[EFI_HII_DEFAULT_CLASS_MANUFACTURING] = {uint8_t(flags & EFI_IFR_CHECKBOX_DEFAULT_MFG ? 1 : 0)};
        }
        break;
      case EFI_IFR_ORDERED_LIST_OP:
        if (OpenQuestion* q = openQuestion(op, f, 0)) q->containers = f.u8(kAfterHeader);
        break;
      case EFI_IFR_ONE_OF_OPTION_OP:  // Option, Flags, Type, Value
        if (!questions_.empty()) option(questions_.back(), f.u8(4), f.u8(5), f.rest(6));
        break;
      case EFI_IFR_DEFAULT_OP:  // DefaultId, Type, Value
        if (!questions_.empty() && f.u8(4) != EFI_IFR_TYPE_OTHER) {
          OpenQuestion& q = questions_.back();
          q.fromRecords[f.u16(2)] = f.u8(4) == EFI_IFR_TYPE_BUFFER ? f.rest(5) : fit(f.rest(5), valueBytes(f.u8(4)));
        }
        break;
      case EFI_IFR_END_OP:
        if (!questions_.empty() && questions_.back().depth == op.depth) {
          closeQuestion(questions_.back());
          questions_.pop_back();
        } else if (op.depth == 0) {
          closeFormSet();
        }
        break;
      default:
        break;
    }
    // A question without scope has nothing nested: done at once.
    if (opened_ && !op.scope) {
      closeQuestion(questions_.back());
      questions_.pop_back();
    }
    opened_ = false;
  }

  // A storage of the form set, with the name at byte `nameAt`; one whose
  // name does not end inside the opcode is not one.
  void declareStore(uint16_t id, const EFI_GUID& guid, const OpFields& f, size_t nameAt) {
    StorageName storage{guid, {}};
    if (id == 0 || !f.ascii(nameAt, storage.name)) return;
    const StorageName* known = &*names_.insert(std::move(storage)).first;
    storeIds_.emplace(id, known);  // a repeated id keeps its first storage
    if (std::find(storesInOrder_.begin(), storesInOrder_.end(), known) == storesInOrder_.end())
      storesInOrder_.push_back(known);
  }

  // A question on a storage of the form set; null for one elsewhere.
  OpenQuestion* openQuestion(const ifr::OpInfo& op, const OpFields& f, size_t width) {
    const auto store = storeIds_.find(f.u16(kVarStoreId));
    if (store == storeIds_.end()) return nullptr;
    OpenQuestion q;
    q.storage = store->second;
    q.opcode = op.opcode;
    q.depth = op.depth;
    q.offset = f.u16(kVarStoreInfo);
    q.width = width;
    const auto evaluated = evaluatedAt_.equal_range(std::make_pair(listIndex_, opcodeOffset_));
    for (auto e = evaluated.first; e != evaluated.second; ++e) q.fromRecords[e->second->defaultId] = e->second->value;
    questions_.push_back(std::move(q));
    opened_ = true;
    return &questions_.back();
  }

  void option(OpenQuestion& q, uint8_t flags, uint8_t type, const std::vector<uint8_t>& value) {
    if (q.opcode == EFI_IFR_ORDERED_LIST_OP && q.width == 0) q.width = valueBytes(type) * q.containers;
    if (q.opcode != EFI_IFR_ONE_OF_OP) return;
    const std::vector<uint8_t> bytes = fit(value, valueBytes(type));
    if (flags & EFI_IFR_OPTION_DEFAULT) q.fromFlags[EFI_HII_DEFAULT_CLASS_STANDARD] = bytes;
    if (flags & EFI_IFR_OPTION_DEFAULT_MFG) q.fromFlags[EFI_HII_DEFAULT_CLASS_MANUFACTURING] = bytes;
  }

  // `bytes` cut to `n`, or zero-extended to it.
  static std::vector<uint8_t> fit(std::vector<uint8_t> bytes, size_t n) {
    bytes.resize(n, 0);
    return bytes;
  }

  void closeQuestion(const OpenQuestion& q) {
    if (q.width == 0) return;
    std::map<uint16_t, std::vector<uint8_t>> defaults = q.fromRecords;
    defaults.insert(q.fromFlags.begin(), q.fromFlags.end());  // a record wins over a flag
    for (const auto& [defaultId, value] : defaults)
      entries_.push_back({q.storage, defaultId, {q.offset, fit(value, q.width)}});
  }

  // Each storage the form set declares gets a configuration per default
  // store of the form set, with the fields of its questions.
  void closeFormSet() {
    // Entries grouped by storage, each group in question order.
    const auto byStorage = [](const Entry& a, const Entry& b) { return std::less<const StorageName*>()(a.storage, b.storage); };
    std::stable_sort(entries_.begin(), entries_.end(), byStorage);
    for (const StorageName* storage : storesInOrder_) {
      std::vector<DefaultConfig>& configs = out_[*storage];
      const Entry key{storage, 0, {}};
      const auto [first, last] = std::equal_range(entries_.begin(), entries_.end(), key, byStorage);
      for (uint16_t defaultId : defaultIds_) {
        auto config = std::find_if(configs.begin(), configs.end(),
                                   [defaultId](const DefaultConfig& c) { return c.defaultId == defaultId; });
        if (config == configs.end()) config = configs.insert(configs.end(), DefaultConfig{defaultId, {}});
        for (auto e = first; e != last; ++e) {
          if (e->defaultId != defaultId) continue;
          auto at = std::lower_bound(config->fields.begin(), config->fields.end(), e->field.offset,
                                     [](const DefaultField& f, uint16_t offset) { return f.offset < offset; });
          if (at != config->fields.end() && at->offset == e->field.offset)
            *at = e->field;
          else
            config->fields.insert(at, e->field);
        }
      }
    }
  }

  const std::vector<EvaluatedDefault>& evaluated_;
  // The evaluated defaults by package list and opcode offset.
  std::multimap<std::pair<size_t, size_t>, const EvaluatedDefault*> evaluatedAt_;
  const bool alwaysStandard_;
  DeviceDefaults& out_;
  size_t listIndex_ = 0;
  size_t opcodeOffset_ = 0;  // of the opcode being visited, in its package list
  std::vector<uint16_t> defaultIds_;
  std::set<StorageName> names_;  // every storage met, so that pointers to them stay valid
  std::map<uint16_t, const StorageName*> storeIds_;  // of the form set
  std::vector<const StorageName*> storesInOrder_;    // of the form set, as declared
  std::vector<Entry> entries_;
  std::vector<OpenQuestion> questions_;
  bool opened_ = false;  // by the opcode being visited
};

// Calls `visit(listIndex, offset in the list, ifr, size)` for the IFR of
// every forms package of the lists that parse.
template <typename Visit>
void eachFormsPackage(const std::vector<std::vector<uint8_t>>& packageLists, Visit visit) {
  for (size_t i = 0; i < packageLists.size(); ++i) {
    hii::PackageListView view;
    if (hii::parsePackageList(packageLists[i].data(), packageLists[i].size(), view) != EFI_SUCCESS) continue;
    for (const hii::PackageView& package : view.packages)
      if (package.type == EFI_HII_PACKAGE_FORMS)
        visit(i, package.offset + HII_PACKAGE_HEADER_SIZE, package.data + HII_PACKAGE_HEADER_SIZE,
              package.size - HII_PACKAGE_HEADER_SIZE);
  }
}

}  // namespace

bool StorageName::operator<(const StorageName& other) const {
  const int order = std::memcmp(&guid, &other.guid, sizeof guid);
  return order != 0 ? order < 0 : name < other.name;
}

DeviceDefaults allDefaultConfigs(const std::vector<std::vector<uint8_t>>& packageLists,
                                 const std::vector<EvaluatedDefault>& evaluated, bool alwaysStandard) {
  DeviceDefaults out;
  Walk walk(evaluated, alwaysStandard, out);
  eachFormsPackage(packageLists, [&walk](size_t list, size_t at, const uint8_t* ifr, size_t size) {
    walk.formsPackage(list, at, ifr, size);
  });
  return out;
}

std::vector<DefaultConfig> defaultConfigs(const std::vector<std::vector<uint8_t>>& packageLists, const EFI_GUID& guid,
                                          const std::u16string& name, const std::vector<EvaluatedDefault>& evaluated) {
  DeviceDefaults all = allDefaultConfigs(packageLists, evaluated, false);
  auto found = all.find(StorageName{guid, name});
  return found != all.end() ? std::move(found->second) : std::vector<DefaultConfig>{};
}

std::vector<DefaultField> standardFields(const DeviceDefaults& defaults, const EFI_GUID& guid,
                                         const std::u16string& name) {
  auto found = defaults.find(StorageName{guid, name});
  if (found == defaults.end()) return {};
  for (const DefaultConfig& config : found->second)
    if (config.defaultId == EFI_HII_DEFAULT_CLASS_STANDARD) return config.fields;
  return {};
}

std::vector<DefaultField> standardDefaults(const std::vector<std::vector<uint8_t>>& packageLists, const EFI_GUID& guid,
                                           const std::u16string& name, const std::vector<EvaluatedDefault>& evaluated) {
  return standardFields(allDefaultConfigs(packageLists, evaluated, true), guid, name);
}

std::vector<StoreDeclaration> declaredStores(const std::vector<std::vector<uint8_t>>& packageLists) {
  std::vector<StoreDeclaration> stores;
  auto declare = [&stores](StoreDeclaration store) {
    for (StoreDeclaration& s : stores) {
      if (s.guid == store.guid && s.name == store.name) {
        s.size = std::max(s.size, store.size);
        return;
      }
    }
    stores.push_back(std::move(store));
  };
  eachFormsPackage(packageLists, [&declare](size_t, size_t, const uint8_t* ifr, size_t size) {
    std::vector<ifr::OpInfo> ops;
    if (!ifr::walkIfr(ifr, size, ops)) return;
    for (const ifr::OpInfo& op : ops) {
      OpFields f(ifr + op.offset, op.length);
      StoreDeclaration store;
      if (op.opcode == EFI_IFR_VARSTORE_OP && f.ascii(22, store.name)) {
        store.guid = f.guid(2);  // Guid, VarStoreId, Size, Name
        store.size = f.u16(20);
      } else if (op.opcode == EFI_IFR_VARSTORE_EFI_OP && f.ascii(26, store.name)) {
        store.guid = f.guid(4);  // VarStoreId, Guid, Attributes, Size, Name
        store.attributes = uint32_t(f.u16(20)) | uint32_t(f.u16(22)) << 16;
        store.size = f.u16(24);
        store.efiVariable = true;
      } else {
        continue;
      }
      if (!store.name.empty()) declare(std::move(store));
    }
  });
  return stores;
}

}  // namespace tvl::host::devices
