// A platform with the HII database installed, and handles to register
// package lists under.
#pragma once

#include <memory>
#include <vector>

#include "host/hii/device_path.h"
#include "host/hii/hii_database.h"
#include "host/hii/package_list.h"
#include "host/hii/string_package.h"
#include "tests/support/fixture.h"

namespace tvl::test::hii {

constexpr EFI_GUID guidNumber(uint32_t n) {
  return EFI_GUID{0x6a3b0000u + n, 0x11e1, 0x4c2d, {0x9f, 0x10, 0x22, 0x33, 0x44, 0x55, 0x66, uint8_t(n)}};
}

class HiiTest : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    hii_ = std::make_unique<host::hii::HiiDatabase>(platform());
  }
  void TearDown() override {
    hii_.reset();
    for (auto& [handle, interface] : installed_) platform().uninstallProtocol(handle, kMarkerGuid, interface.get());
    PlatformTest::TearDown();
  }

  host::hii::HiiDatabase& hii() { return *hii_; }
  EFI_HII_DATABASE_PROTOCOL* db() { return hii_->database(); }
  EFI_HII_STRING_PROTOCOL* str() { return hii_->strings(); }

  // A new handle that carries only a marker protocol.
  EFI_HANDLE newHandle() {
    installed_.emplace_back(nullptr, std::make_unique<int>(0));
    EXPECT_EQ(platform().installProtocol(&installed_.back().first, kMarkerGuid, installed_.back().second.get()),
              EFI_SUCCESS);
    return installed_.back().first;
  }

  EFI_HII_HANDLE add(const std::vector<uint8_t>& list, EFI_HANDLE driver) {
    EFI_HII_HANDLE handle = nullptr;
    EXPECT_EQ(hii_->addPackageList(list, driver, &handle), EFI_SUCCESS);
    return handle;
  }

  // The listing exactly as the driver asks for it: a 1-byte buffer first,
  // then one of the size the database reports.
  EFI_STATUS listAll(std::vector<EFI_HII_HANDLE>& out, UINT8 type = EFI_HII_PACKAGE_TYPE_ALL,
                     const EFI_GUID* guid = nullptr) {
    UINTN size = 1;
    std::vector<uint8_t> one(1);
    EFI_STATUS status = db()->ListPackageLists(db(), type, guid, &size, reinterpret_cast<EFI_HII_HANDLE*>(one.data()));
    if (status != EFI_BUFFER_TOO_SMALL) return status;
    if (size % sizeof(EFI_HII_HANDLE) != 0) return EFI_BAD_BUFFER_SIZE;
    out.assign(size / sizeof(EFI_HII_HANDLE), nullptr);
    return db()->ListPackageLists(db(), type, guid, &size, out.data());
  }

  static constexpr EFI_GUID kMarkerGuid = {0x5d1e2f00, 0x3c4b, 0x4a59, {0x8e, 0x7d, 0x6c, 0x5b, 0x4a, 0x39, 0x28, 0x17}};

 private:
  std::unique_ptr<host::hii::HiiDatabase> hii_;
  std::vector<std::pair<EFI_HANDLE, std::unique_ptr<int>>> installed_;
};

}  // namespace tvl::test::hii
