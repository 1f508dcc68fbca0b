// Defaults of the forms: the standard configuration also where no form set
// declares its default store, values of expression defaults handed in by
// their evaluator, and the stores the forms declare.
#include "host/devices/default_config.h"

#include <gtest/gtest.h>

#include <tuple>

#include "host/hii/package_list.h"
#include "host/ifr/ifr_builder.h"
#include "host/ifr/ifr_dump.h"

namespace ifr = tvl::host::ifr;
namespace hii = tvl::host::hii;
using namespace tvl::host::devices;

namespace {

constexpr EFI_GUID kStore = {0x0b5e7a11, 0x2c3d, 0x4e5f, {0xa1, 0xb2, 0xc3, 0xd4, 0xe5, 0xf6, 0x07, 0x18}};
constexpr EFI_GUID kOther = {0x1d2c3b4a, 0x5e6f, 0x4a0b, {0x8c, 0x9d, 0xae, 0xbf, 0xc0, 0xd1, 0xe2, 0xf3}};
constexpr EFI_GUID kFormSet = {0x2f4e6d8c, 0x1a3b, 0x4c5d, {0x9e, 0x0f, 0x10, 0x21, 0x32, 0x43, 0x54, 0x65}};

ifr::Bytes withoutDefaultStores(const ifr::Bytes& ifrBytes) {
  std::vector<ifr::OpInfo> ops;
  EXPECT_TRUE(ifr::walkIfr(ifrBytes.data(), ifrBytes.size(), ops));
  ifr::Bytes out;
  for (const ifr::OpInfo& op : ops)
    if (op.opcode != EFI_IFR_DEFAULTSTORE_OP)
      out.insert(out.end(), ifrBytes.begin() + long(op.offset), ifrBytes.begin() + long(op.offset + op.length));
  return out;
}

// One form set on a 8-byte store: a one-of with flagged options at 0, a
// numeric with an expression default at 2 (its opcode's offset in the list
// is returned), a checkbox with the flag at 4; then a second declaration of
// the store, larger, beside an EFI variable store and a name/value store.
std::vector<uint8_t> packageList(bool defaultStores, size_t* expressionAt) {
  ifr::FormSetBuilder set(kFormSet, 1, 1);
  set.varStore(1, kStore, "Setup", 8)
      .efiVarStore(2, kOther, "Flags", 2, EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS)
      .nameValueVarStore(3, kOther)
      .varStore(4, kStore, "Setup", 12);
  set.form(1, 1)
      .oneOf(ifr::OneOf(1, 1, 1).store(1, 0).option(1, 3).option(1, 5, EFI_IFR_OPTION_DEFAULT))
      .numeric(ifr::Numeric(2, 1, 1, ifr::Width::U16).store(1, 2).defaultExpression(ifr::number(9)))
      .checkbox(ifr::Checkbox(3, 1, 1).store(1, 4).defaultOn());
  ifr::Bytes ifrBytes = defaultStores ? set.ifr() : withoutDefaultStores(set.ifr());
  std::vector<uint8_t> list = hii::buildPackageList(kFormSet, {ifr::formsPackage(ifrBytes)});
  std::vector<ifr::OpInfo> ops;
  ifr::walkIfr(ifrBytes.data(), ifrBytes.size(), ops);
  for (const ifr::OpInfo& op : ops)
    if (op.opcode == EFI_IFR_NUMERIC_OP) *expressionAt = sizeof(EFI_HII_PACKAGE_LIST_HEADER) + 4 + op.offset;
  return list;
}

using Fields = std::vector<std::pair<uint16_t, std::vector<uint8_t>>>;

Fields fields(const std::vector<DefaultField>& in) {
  Fields out;
  for (const DefaultField& f : in) out.emplace_back(f.offset, f.bytes);
  return out;
}

TEST(DefaultConfigTest, StandardDefaultsTakeEvaluatedExpressionsAndNeedNoDeclaredStore) {
  const Fields flags = {{0, {5}}, {4, {1}}};
  const Fields withExpression = {{0, {5}}, {2, {9, 0}}, {4, {1}}};
  // configs: the default configurations routing would answer. (With declared default stores: the device's
  // whole-store answers, the offline platform's computed defaults.)
  const struct { const char* what; bool defaultStores, evaluated; size_t configs; Fields standard; } cases[] = {
      {"no default store declared", false, false, 0, flags},
      {"no default store declared, expression evaluated", false, true, 0, withExpression},
  };
  for (const auto& c : cases) {
    size_t at = 0;
    const std::vector<std::vector<uint8_t>> lists = {packageList(c.defaultStores, &at)};
    std::vector<EvaluatedDefault> evaluated;
    if (c.evaluated) evaluated.push_back({0, at, EFI_HII_DEFAULT_CLASS_STANDARD, {9, 0}});
    // An evaluated value of another list, or of another opcode, is not this question's.
    evaluated.push_back({1, at, EFI_HII_DEFAULT_CLASS_STANDARD, {7, 7}});
    evaluated.push_back({0, at + 1, EFI_HII_DEFAULT_CLASS_STANDARD, {7, 7}});
    EXPECT_EQ(fields(standardDefaults(lists, kStore, u"Setup", evaluated)), c.standard) << c.what;
    const std::vector<DefaultConfig> configs = defaultConfigs(lists, kStore, u"Setup", evaluated);
    ASSERT_EQ(configs.size(), c.configs) << c.what;
    if (c.configs) { EXPECT_EQ(fields(configs.front().fields), c.standard) << c.what; }
  }
}

TEST(DefaultConfigTest, DeclaredStoresAreListedOnceWithTheirLargestSize) {
  using Store = std::tuple<EFI_GUID, std::u16string, uint16_t, bool, uint32_t>;  // attributes: EFI variables only
  size_t at = 0;
  std::vector<Store> stores;
  for (const StoreDeclaration& s : declaredStores({packageList(true, &at)}))
    stores.emplace_back(s.guid, s.name, s.size, s.efiVariable, s.attributes);
  const uint32_t attributes = EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS;
  // The name/value store is not listed.
  EXPECT_EQ(stores, (std::vector<Store>{{kStore, u"Setup", 12, false, 0}, {kOther, u"Flags", 2, true, attributes}}));
}

}  // namespace
