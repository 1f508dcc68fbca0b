// Configuration files for the offline platform: the current values of a
// device's stores as its ExtractConfig answered them on the real machine,
// one answer per line.
//
// A line holds UEFI configuration strings in block form, as ExtractConfig
// returns them:
//   GUID=<32 hex>&NAME=<4 hex per character>&PATH=<hex>&OFFSET=<hex>&WIDTH=<hex>&VALUE=<hex>[&OFFSET=...]
// A line may hold several such strings joined by '&' (the answer to a
// request for every store), each followed by default configurations
// ("&GUID=...&ALTCFG=<id>&OFFSET=..."): those are the firmware's defaults,
// not current values, and are skipped. Blank lines and lines that start
// with '#' are comments; a carriage return before the line feed is
// dropped. Only ASCII is accepted.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/hii/config_string.h"

namespace tvl::host::offline {

// Input that the offline platform refuses; the message says where ("at
// byte offset N (0xN): ..." in a file of package lists, "line N: ..." in a
// configuration file) and what is wrong.
class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One configuration string with its current values.
struct ConfigEntry {
  size_t line = 0;  // from 1
  hii::ConfigString config;
};

// Every configuration string of `text` in order. A malformed line throws
// InputError "line N, column C: <what is wrong>".
std::vector<ConfigEntry> parseConfigLines(const std::string& text);

}  // namespace tvl::host::offline
