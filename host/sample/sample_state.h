// State of the sample platform that outlives one run: the bytes of every
// store of every device (buffer stores and EFI variable stores), which
// password services the platform loads, and the password store's variables
// (the stored passwords and the disabled marks), kept in a state file
// between runs of the command line. A platform built without one (tests,
// benchmarks) starts from the descriptions' values, the newer password
// service and no passwords every time.
//
// The state file is text, one line per item, each line ended by "\n":
//
//   tolvane-state 2
//   store FQDD KIND GUID NAME HEX
//   ...
//   passwords SERVICES
//   password-variable NAME HEX
//   ...
//   end COUNT
//
// The first line names the format and its version. KIND is "buffer" or
// "variable"; GUID is the store's vendor GUID in registry format; NAME the
// store's name; HEX its bytes, two lower-case hexadecimal digits each ("-"
// for a store of no bytes). FQDD and NAME are printable ASCII without
// blanks. SERVICES is "none", "new", "legacy" or "both". A password-variable
// line holds one variable of the password store: NAME is SystemPassword,
// SetupPassword or PasswordDisabled, HEX its bytes (at least one). COUNT is
// the number of lines between the first and the end line, so that a file
// cut at a line boundary is told from a complete one. Version 1 files are
// read as well: they hold store lines only.
//
// Reading is strict: any line that does not have exactly this form, a
// version other than 1 or 2, a store that the platform does not have
// (unknown device, name, GUID or kind), a size other than the store's, a
// store, password variable or passwords line given twice refuses the whole
// file and changes nothing. A store that the file does not name keeps its
// value from the descriptions; without a passwords line the platform loads
// the newer service; a password variable the file does not name is absent.
//
// Writing replaces the file atomically: the text goes to a new file in the
// same directory, which is flushed to disk and then renamed over the old
// one, so a run that is interrupted leaves either the old file or the new
// one, never a part of either.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/sample/sample_platform.h"

namespace tvl::host::sample {

// A state file that cannot be read, written or used; the message names the
// file (where there is one) and the problem.
class StateError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct StoreState {
  std::string fqdd;
  bool variable = false;  // an EFI variable store rather than a buffer store
  EFI_GUID guid{};
  std::string name;
  std::vector<UINT8> bytes;
  size_t line = 0;  // where it was read from; 0 when it was not read

  bool operator==(const StoreState& other) const {
    return fqdd == other.fqdd && variable == other.variable && guid == other.guid && name == other.name &&
           bytes == other.bytes;
  }
  bool operator!=(const StoreState& other) const { return !(*this == other); }
};

// One variable of the password store.
struct PasswordVariableState {
  std::string name;
  std::vector<UINT8> bytes;

  bool operator==(const PasswordVariableState& other) const { return name == other.name && bytes == other.bytes; }
};

// Everything a state file holds.
struct SampleState {
  std::vector<StoreState> stores;
  PasswordServices passwordServices = PasswordServices::Newer;
  std::vector<PasswordVariableState> passwordVariables;  // in the order of kPasswordVariableNames

  bool operator==(const SampleState& other) const {
    return stores == other.stores && passwordServices == other.passwordServices &&
           passwordVariables == other.passwordVariables;
  }
  bool operator!=(const SampleState& other) const { return !(*this == other); }
};

constexpr int kStateVersion = 2;
// The variables of the password store that a state file keeps.
constexpr const char* kPasswordVariableNames[] = {"SystemPassword", "SetupPassword", "PasswordDisabled"};

// The text of a state file; throws StateError for an FQDD or name that the
// format cannot carry.
std::string formatState(const SampleState& state);
// A state file's text; throws StateError "line N: problem".
SampleState parseState(const std::string& text);

// The whole state of the platform, and the same written back: the stores
// (as restoreStores), the password services and the password variables.
// Nothing is written when the stores do not fit.
SampleState captureState(SamplePlatform& sample);
void restoreState(SamplePlatform& sample, const SampleState& state);

// Every store of every device of the platform, in device and declaration
// order.
std::vector<StoreState> captureStores(SamplePlatform& sample);
// Writes the given stores into the platform's devices, after checking all of
// them: a store the platform does not have, of another kind or size, or
// given twice throws StateError and nothing is written.
void restoreStores(SamplePlatform& sample, const std::vector<StoreState>& stores);

// Where the state file lives: `tolvaneState` when it is set; else
// "<xdgStateHome>/tolvane/platform.state" when that is an absolute path;
// else "<home>/.local/state/tolvane/platform.state". Null or empty values
// count as unset; with none of them, StateError.
std::string statePathFrom(const char* tolvaneState, const char* xdgStateHome, const char* home);
// The same from the environment (TOLVANE_STATE, XDG_STATE_HOME, HOME).
std::string defaultStatePath();

class StateFile {
 public:
  explicit StateFile(std::string path) : path_(std::move(path)) {}
  const std::string& path() const { return path_; }

  // What the file holds, or nothing when there is no file. A file that
  // cannot be read or parsed throws StateError "PATH: problem".
  std::optional<SampleState> read() const;
  // Replaces the file with `state` atomically, creating its directory
  // (mode 0700) when missing. `beforeRename`, when given, runs after the new
  // file is written and flushed and before it replaces the old one; it
  // receives the new file's name (tests use it to interrupt a write). On
  // any failure the new file is removed, the old one is left as it was and
  // StateError "PATH: problem" is thrown.
  void write(const SampleState& state, const std::function<void(const std::string&)>& beforeRename = {}) const;

 private:
  std::string path_;
};

// A platform's state bound to a state file: loaded from it on construction
// (nothing happens when there is no file; a file that cannot be used throws
// StateError "PATH: problem" and leaves the platform as it was), and written
// back by commit() when it changed.
class PersistentStores {
 public:
  PersistentStores(SamplePlatform& sample, StateFile file);
  const StateFile& file() const { return file_; }
  // Whether a state file was found and loaded.
  bool loaded() const { return loaded_; }
  // Writes the state file when anything differs from what it held after
  // loading; returns whether it wrote.
  bool commit();

 private:
  SamplePlatform& sample_;
  StateFile file_;
  SampleState baseline_;
  bool loaded_ = false;
};

}  // namespace tvl::host::sample
