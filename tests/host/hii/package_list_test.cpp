// Package-list validation.
#include <gtest/gtest.h>

#include <functional>

#include "host/hii/package_list.h"
#include "host/hii/string_package.h"
#include "tests/host/hii/hii_bytes.h"

namespace hii = tvl::host::hii;
using namespace tvl::test::hii;

namespace {

constexpr EFI_GUID kListGuid = {0x1c0f2a31, 0x77d2, 0x4b55, {0x90, 0x1e, 0x3a, 0x44, 0x10, 0x5d, 0x21, 0x07}};

Bytes sample() {
  return hii::buildPackageList(kListGuid, {hii::buildStringPackage("en-US", {u"a", u"b"}),
                                           hii::buildPackage(EFI_HII_PACKAGE_FORMS, {1, 2, 3})});
}

void setLength(Bytes& b, uint32_t length) {
  for (int i = 0; i < 4; ++i) b[16 + i] = uint8_t(length >> (8 * i));
}

TEST(PackageList, MalformedListsAreRefusedWithTheirOffset) {
  const size_t second = 20 + hii::buildStringPackage("en-US", {u"a", u"b"}).size();
  const size_t end = second + 7;
  const struct { const char* name; std::function<void(Bytes&)> mutate; size_t errorOffset; } cases[] = {
      {"header cut off", [](Bytes& b) { b.resize(19); }, 0},
      {"length too small for an END package", [](Bytes& b) { setLength(b, 23); }, 16},
      {"length past the data", [](Bytes& b) { setLength(b, uint32_t(b.size() + 1)); }, 16},
      {"package header cut off", [&](Bytes& b) { b.resize(second + 2); setLength(b, uint32_t(b.size())); }, second},
      {"package shorter than its header", [&](Bytes& b) { b[second] = 3; }, second},
      {"package runs past the list", [&](Bytes& b) { b[second] = 0x40; }, second},
      {"no END package", [&](Bytes& b) { b.resize(end); setLength(b, uint32_t(end)); }, end},
      {"END package with a payload",
       [&](Bytes& b) { b.push_back(0); b[end] = 5; setLength(b, uint32_t(b.size())); }, end},
      {"data after the END package",
       [&](Bytes& b) { b.insert(b.end(), {4, 0, 0, 2}); setLength(b, uint32_t(b.size())); }, end},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes list = sample();
    c.mutate(list);
    ExactCopy copy(list);
    hii::PackageListView view;
    hii::FormatError error;
    EXPECT_EQ(hii::parsePackageList(copy.data.get(), copy.size, view, &error), EFI_INVALID_PARAMETER);
    EXPECT_EQ(error.offset, c.errorOffset) << error.message;
  }
}

}  // namespace
