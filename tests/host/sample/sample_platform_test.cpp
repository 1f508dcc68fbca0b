// The sample platform's form descriptions: the layout rules they must keep.
// (Its devices, with the initial bytes of their stores, are checked whole by
// their exported documents: tests/export, tests/firmware.)
#include <gtest/gtest.h>

#include "host/sample/sample_devices.h"
#include "host/sample/sample_platform.h"

namespace sample = tvl::host::sample;
using sample::Statement;
using tvl::host::ifr::Width;

namespace {

// A device with one form set, one 16-byte store and one form of `statements`.
sample::DeviceDescription tinyDevice(std::vector<Statement> statements) {
  sample::FormSetDescription fs;
  fs.guid = {0x11111111, 0x2222, 0x3333, {4, 4, 5, 5, 6, 6, 7, 7}};
  fs.title = u"Test";
  fs.varStores = {{1, {0x1, 0x2, 0x3, {4, 5, 6, 7, 8, 9, 10, 11}}, "Store", 16, false, 0}};
  fs.forms = {{1, u"Main", u"Main", std::move(statements)}};
  sample::DeviceDescription d;
  d.fqdd = u"Test.Device.1";
  d.formSets = {fs};
  return d;
}

TEST(SampleFormDescription, RefusesDescriptionsThatCannotBeLaidOut) {
  const struct { const char* name; std::vector<Statement> statements; } cases[] = {
      {"past the end of the store", {sample::numeric(1, u"N", u"N", Width::U32).at(1, 13)}},
      {"two questions share a byte",
       {sample::numeric(1, u"A", u"A", Width::U16).at(1, 0), sample::checkbox(2, u"B", u"B").at(1, 1)}},
      {"unknown store", {sample::checkbox(1, u"C", u"C").at(2, 0)}},
      {"repeated question id", {sample::checkbox(1, u"A", u"A").at(1, 0), sample::checkbox(1, u"B", u"B").at(1, 1)}},
      {"reference to a missing form", {sample::reference(1, u"R", u"R", 9)}},
      {"current value wider than the question", {sample::numeric(1, u"N", u"N", Width::U8).at(1, 0).value(256)}},
      {"more elements than containers", {sample::orderedList(1, u"L", u"L", Width::U8, 2).at(1, 0).values({1, 2, 3})}},
      {"text longer than the maximum", {sample::string(1, u"S", u"S", 0, 2).at(1, 0).valueText(u"abc")}},
      {"value without storage", {sample::checkbox(1, u"C", u"C").value(1)}},
      {"default that does not suit", {sample::checkbox(1, u"C", u"C").at(1, 0).defaultNumber(1)}},
  };
  for (const auto& c : cases) EXPECT_THROW(sample::buildPackageList(tinyDevice(c.statements)), std::invalid_argument) << c.name;
  // The same shapes laid out correctly are accepted.
  EXPECT_NO_THROW(sample::buildPackageList(tinyDevice({sample::numeric(1, u"N", u"N", Width::U32).at(1, 12),
                                                       sample::reference(2, u"R", u"R", 1)})));
}

}  // namespace
