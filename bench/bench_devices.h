// Generated devices for the benchmarks: a form set of `questions` questions
// of every common kind, 500 to a form, each form with a buffer store of its
// own, the way large server setups are laid out.
#pragma once

#include <cstddef>

#include "host/sample/form_description.h"

namespace tvl::bench {

// FQDD "System.Generated.1"; one-of (three options, a default), numeric
// (16-bit, range and default), checkbox and string questions in turn.
host::sample::DeviceDescription generatedDevice(size_t questions);

}  // namespace tvl::bench
