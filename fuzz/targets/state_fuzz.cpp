// The state-file reader: whatever it accepts formats back to a text that
// reads to the same state, and is either written into the sample platform
// or refused as a whole.
#include <string>

#include "fuzz/support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tvl::host::sample;
  using tvl::fuzz::fail;
  tvl::fuzz::Session& s = tvl::fuzz::session();
  SampleState state;
  try {
    state = parseState(std::string(reinterpret_cast<const char*>(data), size));
  } catch (const StateError&) {
    return 0;
  }
  try {
    if (parseState(formatState(state)) != state) fail("a state read back from its own text differs");
  } catch (const StateError& e) {
    fail(std::string("a state that was read does not format and read again: ") + e.what());
  }
  tvl::fuzz::PoolWatch watch(*s.platform);
  const SampleState before = captureState(*s.sample);
  // Another choice of password services would load a new instance of an
  // image for every such input; the services stay as they are.
  state.passwordServices = before.passwordServices;
  try {
    restoreState(*s.sample, state);
  } catch (const StateError&) {
    if (captureState(*s.sample) != before) fail("a refused state changes the platform");
  }
  s.reset();
  watch.check("restoring a state");
  return 0;
}
