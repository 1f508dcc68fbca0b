// State of the sample platform that outlives one run: the bytes of every
// store of every device (buffer stores and EFI variable stores), kept in a
// state file between runs of the command line. A platform built without
// one (tests, benchmarks) starts from the descriptions' values every time.
//
// The state file is text, one line per store, each line ended by "\n":
//
//   tolvane-state 1
//   store FQDD KIND GUID NAME HEX
//   ...
//   end COUNT
//
// The first line names the format and its version. KIND is "buffer" or
// "variable"; GUID is the store's vendor GUID in registry format; NAME the
// store's name; HEX its bytes, two lower-case hexadecimal digits each ("-"
// for a store of no bytes). FQDD and NAME are printable ASCII without
// blanks. COUNT is the number of store lines, so that a file cut at a line
// boundary is told from a complete one.
//
// Reading is strict: any line that does not have exactly this form, a
// version other than 1, a store that the platform does not have (unknown
// device, name, GUID or kind), a size other than the store's, or a store
// given twice refuses the whole file and changes nothing. A store that the
// file does not name keeps its value from the descriptions.
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

constexpr int kStateVersion = 1;

// The text of a state file; throws StateError for an FQDD or name that the
// format cannot carry.
std::string formatState(const std::vector<StoreState>& stores);
// The stores of a state file's text; throws StateError "line N: problem".
std::vector<StoreState> parseState(const std::string& text);

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

  // The stores the file holds, or nothing when there is no file. A file
  // that cannot be read or parsed throws StateError "PATH: problem".
  std::optional<std::vector<StoreState>> read() const;
  // Replaces the file with `stores` atomically, creating its directory
  // (mode 0700) when missing. `beforeRename`, when given, runs after the new
  // file is written and flushed and before it replaces the old one; it
  // receives the new file's name (tests use it to interrupt a write). On
  // any failure the new file is removed, the old one is left as it was and
  // StateError "PATH: problem" is thrown.
  void write(const std::vector<StoreState>& stores,
             const std::function<void(const std::string&)>& beforeRename = {}) const;

 private:
  std::string path_;
};

// A platform's stores bound to a state file: loaded from it on
// construction (nothing happens when there is no file; a file that cannot
// be used throws StateError "PATH: problem" and leaves the stores as they
// were), and written back by commit() when they changed.
class PersistentStores {
 public:
  PersistentStores(SamplePlatform& sample, StateFile file);
  const StateFile& file() const { return file_; }
  // Whether a state file was found and loaded.
  bool loaded() const { return loaded_; }
  // Writes the state file when any store differs from what it held after
  // loading; returns whether it wrote.
  bool commit();

 private:
  SamplePlatform& sample_;
  StateFile file_;
  std::vector<StoreState> baseline_;
  bool loaded_ = false;
};

}  // namespace tvl::host::sample
