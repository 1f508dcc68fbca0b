// The state file of the command line, and `tolvane reset`.
#include "host/sample/sample_platform.h"
#include "host/sample/sample_state.h"
#include "tools/cli.h"

namespace tvl::cli {
namespace {

using host::sample::PersistentStores;
using host::sample::SamplePlatform;
using host::sample::StateError;
using host::sample::StateFile;

std::string gStateFile;  // from --state; empty: from the environment

}  // namespace

void setStateFile(const std::string& path) { gStateFile = path; }

std::string stateFile() {
  if (!gStateFile.empty()) return gStateFile;
  try {
    return host::sample::defaultStatePath();
  } catch (const StateError& e) {
    badInput(e.what());
  }
}

PersistentStores loadState(SamplePlatform& sample) {
  try {
    return PersistentStores(sample, StateFile(stateFile()));
  } catch (const StateError& e) {
    badInput(std::string("state file ") + e.what() + " (`tolvane reset` restores the defaults)");
  }
}

int runReset(const std::vector<std::string>& args, std::ostream& out) {
  Options options({}, args);
  // The defaults are what a platform built afresh holds (the newer password
  // service, no passwords); the old file is not read, so a damaged one is
  // replaced as well.
  SamplePlatform sample;
  StateFile file(stateFile());
  host::sample::SampleState defaults = host::sample::captureState(sample);
  try {
    file.write(defaults);
  } catch (const StateError& e) {
    failure(std::string("cannot write the state file ") + e.what());
  }
  out << "restored the defaults of " << defaults.stores.size() << " stores of " << sample.devices().size()
      << " devices in " << file.path() << "\n";
  return kExitOk;
}

}  // namespace tvl::cli
