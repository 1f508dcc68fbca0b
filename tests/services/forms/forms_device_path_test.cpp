// The device path in a store's configuration header comes from the driver
// handle's device-path protocol, which is outside input: a path whose node
// lengths are impossible, or that finds no end inside 64 KiB, gives a header
// without a path (never a read past the path, never an endless walk).
#include <gtest/gtest.h>

#include "forms_support.h"

namespace tvl::test::forms {
namespace {

using FormsDevicePathTest = FormsTest;
using Bytes = std::vector<uint8_t>;

// A node of `type`/`subType` whose length field says `length`; the bytes
// after its header are zero, `room` of them.
void node(Bytes& out, UINT8 type, UINT8 subType, UINT16 length, size_t room) {
  out.insert(out.end(), {type, subType, UINT8(length & 0xFF), UINT8(length >> 8)});
  out.resize(out.size() + room);
}
void end(Bytes& out) { node(out, 0x7F, 0xFF, 4, 0); }

TEST_F(FormsDevicePathTest, ImpossiblePathsGiveAHeaderWithoutPath) {
  Bytes vendor;  // hardware vendor node (20 bytes) and the end node
  node(vendor, 0x01, 0x04, 20, 16);
  end(vendor);
  Bytes zeroLength, shortNode, noEnd, pastLimit;
  node(zeroLength, 0x01, 0x04, 0, 16);
  end(zeroLength);
  node(shortNode, 0x01, 0x04, 3, 16);
  end(shortNode);
  // Two nodes of 32 KiB fill the 64 KiB a path may take, with no end node.
  node(noEnd, 0x01, 0x04, 0x8000, 0x8000 - 4);
  node(noEnd, 0x01, 0x04, 0x8000, 0x8000 - 4);
  end(noEnd);
  // The second node claims more than what is left of the 64 KiB.
  node(pastLimit, 0x01, 0x04, 0x8000, 0x8000 - 4);
  node(pastLimit, 0x01, 0x04, 0xFFFF, 0x10000);
  end(pastLimit);
  const struct {
    const char* name;
    const Bytes& path;
    bool kept;
  } rows[] = {
      {"vendor node and end", vendor, true},
      {"node of length 0", zeroLength, false},
      {"node shorter than its header", shortNode, false},
      {"no end within 64 KiB", noEnd, false},
      {"node past 64 KiB", pastLimit, false},
  };
  const Sample sample;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EFI_HANDLE driver = nullptr;
    ASSERT_EQ(platform().installProtocol(&driver, gEfiDevicePathProtocolGuid, const_cast<uint8_t*>(row.path.data())),
              EFI_SUCCESS);
    EFI_HII_HANDLE handle = nullptr;
    ASSERT_EQ(database().addPackageList(sample.list(), driver, &handle), EFI_SUCCESS);
    {
      auto parse = process({handle});
      ASSERT_EQ(parse->status, EFI_SUCCESS) << lastError().Message;
      EXPECT_EQ(text16(parse->set()->VarStoreBuffer[0]->ConfigHdr),
                hii::configHdr(kStoreGuid, u"Setup", row.kept ? row.path : Bytes{}));
    }
    EXPECT_EQ(database().removePackageList(handle), EFI_SUCCESS);
    EXPECT_EQ(platform().uninstallProtocol(driver, gEfiDevicePathProtocolGuid, const_cast<uint8_t*>(row.path.data())),
              EFI_SUCCESS);
  }
}

}  // namespace
}  // namespace tvl::test::forms
