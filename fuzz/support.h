// Shared pieces of the fuzz targets: one sample platform per process with
// the converter driver loaded (images are loaded once, since every load
// maps a new instrumented module), a cheap reset of the platform's state
// between inputs, and a per-input check of the pool that stops the run on
// a leak, an invalid free or an overrun.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "host/platform.h"
#include "host/sample/sample_platform.h"
#include "host/sample/sample_state.h"
#include "uefi/services.h"

namespace tvl::fuzz {

struct Session {
  std::unique_ptr<host::Platform> platform;
  std::unique_ptr<host::sample::SamplePlatform> sample;
  EFI_HANDLE driverImage = nullptr;
  TOLVANE_PROTOCOL* converter = nullptr;
  XML_PROTOCOL* xml = nullptr;
  host::sample::SampleState baseline;  // the platform's state as built

  // An exported function of the driver image; aborts when it is missing.
  template <typename F>
  F driverFunction(const char* name) const {
    return reinterpret_cast<F>(driverSymbol(name));
  }
  void* driverSymbol(const char* name) const;
  host::sample::SampleDevice& bios() const;
  // Puts the stores and passwords back as built and drops the call logs
  // and the console text, which would otherwise grow with every input.
  void reset();
};

// The session, built on first use. `beforeSample`, given on the first call
// only, runs on the new platform before the sample platform is built on it
// (a target installs a protocol that must be found first).
Session& session(const std::function<void(host::Platform&)>& beforeSample = {});

// Watches the pool over one input: check() aborts with a report when
// allocations made since construction are still outstanding, or memory was
// freed that was not allocated or written past its end.
class PoolWatch {
 public:
  explicit PoolWatch(host::Platform& platform);
  void check(const char* what) const;

 private:
  host::Platform& platform_;
  uint64_t sequence_;
  size_t invalidFrees_;
  size_t overruns_;
};

// Stops the run with a message (the input is saved by the fuzzer).
[[noreturn]] void fail(const std::string& message);

// An 8-bit XML text parsed by the XML service, or null.
XML_NODE* parse(const Session& s, const std::string& text);
// Frees a tree through the XML service (null is fine).
void freeTree(const Session& s, XML_NODE* root);
// A NUL-terminated pool copy of `text` (for the driver's inputs).
CHAR8* poolText(const std::string& text);
CHAR16* poolText16(const std::u16string& text);
void freePool(void* buffer);

}  // namespace tvl::fuzz
