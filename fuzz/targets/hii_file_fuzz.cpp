// The reader of exported package-list files (the command line's --hii):
// whatever it accepts lies inside the file, package by package.
#include <vector>

#include "fuzz/support.h"
#include "host/offline/hii_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using tvl::fuzz::fail;
  std::vector<tvl::host::offline::FilePackageList> lists;
  tvl::host::offline::FileFault fault;
  if (!tvl::host::offline::scanPackageLists(data, size, lists, fault)) {
    if (fault.offset > size) fail("the fault lies past the end of the file");
    if (fault.message.empty()) fail("a refused file gives no reason");
    return 0;
  }
  if (lists.empty()) fail("an accepted file holds no package list");
  size_t end = 0;
  for (const auto& list : lists) {
    if (list.offset != end || list.length > size - list.offset) fail("a package list lies outside the file");
    end = list.offset + list.length;
    for (const auto& package : list.packages)
      if (package.offset < list.offset || package.length > end - package.offset ||
          package.offset + package.length > end)
        fail("a package lies outside its list");
    for (const auto& flaw : list.flaws)
      if (flaw.offset > end) fail("a flaw lies outside its list");
  }
  if (end != size) fail("the package lists do not cover the file");
  return 0;
}
