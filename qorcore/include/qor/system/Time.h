// Clocks. A time is a count of 100-nanosecond units: ten million make a second.
#pragma once

#include "qor/glue/binding.h"

// A clock that only goes forward, at an even pace, from an origin of its own: for measuring how long
// something takes. It does not count while the machine sleeps. Any thread may read it.
inline uint64 qorGetTickCounter() noexcept { return qor::glue::qorGetTickCounter(); }
