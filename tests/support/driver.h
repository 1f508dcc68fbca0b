// A fixture that provides the services the driver binds (real images or
// stand-in tables), loads a fresh driver per test, captures its traces and
// reaches its exported operations and globals by name.
#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "support/fixture.h"
#include "support/log_capture.h"
#include "uefi/services.h"

namespace tvl::test {

// Services a DriverTest can provide, as bits.
enum DriverService : unsigned {
  kLogService = 1u << 0,      // the log_service image
  kXmlService = 1u << 1,      // the xml_service image
  kFormsProcessor = 1u << 2,  // a stand-in table under HII_FORMS_PROCESSOR2_PROTOCOL_GUID
  kHiiDatabase = 1u << 3,     // a stand-in table under EFI_HII_DATABASE_PROTOCOL_GUID
  kHiiString = 1u << 4,       // a stand-in table under EFI_HII_STRING_PROTOCOL_GUID
  kRequiredServices = kXmlService | kFormsProcessor | kHiiDatabase | kHiiString,
  kAllServices = kLogService | kRequiredServices,
};

class DriverTest : public PlatformTest {
 protected:
  // Provides initialServices() and loads the driver when loadsDriver() (the
  // test stops if its entry fails); its record is not counted as a leak.
  void SetUp() override;
  void TearDown() override;

  virtual unsigned initialServices() const { return kAllServices; }
  virtual bool loadsDriver() const { return true; }

  // Loads service images and installs stand-ins for the given bits (the log
  // capture attaches to the log service); the leak baseline moves past them.
  void provide(unsigned services);
  // A zero-filled table of `size` bytes installed under `guid` on a new
  // handle; it lives as long as the fixture.
  void* installStandIn(const EFI_GUID& guid, size_t size = 256, EFI_HANDLE* handle = nullptr);

  // Loads a fresh instance of the driver as driver(); the baseline moves past it.
  EFI_STATUS loadDriver();
  EFI_HANDLE driver() const { return driver_; }

  LogCapture& log() { return log_; }

  // An exported symbol of driver(); the test fails when it is missing.
  void* symbol(const char* name);
  template <typename F>
  F function(const char* name) { return reinterpret_cast<F>(symbol(name)); }
  template <typename T>
  T& global(const char* name) { return *static_cast<T*>(symbol(name)); }

  // The installed converter protocol, or null.
  TOLVANE_PROTOCOL* converter() { return locate<TOLVANE_PROTOCOL>(TOLVANE_PROTOCOL_GUID); }
  // Whether `address` is an outstanding pool allocation.
  bool isAllocated(const void* address);

 private:
  EFI_HANDLE driver_ = nullptr;
  LogCapture log_;
  std::vector<std::unique_ptr<unsigned char[]>> standIns_;
};

}  // namespace tvl::test

// A driver operation or global with the type of its declaration in src/.
#define DRIVER_FN(name) (this->template function<decltype(&::name)>(#name))
#define DRIVER_GLOBAL(name) (this->template global<std::remove_reference_t<decltype(::name)>>(#name))
