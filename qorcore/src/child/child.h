// Inside the library: what the systems share about child processes, and the start, which each has for itself.
#pragma once

#include "platform/deadline.h"
#include "qor/qor.h"

#include <string>
#include <vector>

namespace qor::child {

// Starts a program whose options are checked. Sets the last error on failure.
bool start(const qorChildProcessOptions& options, IQORChildProcess** out) noexcept;

// The program as errors name it.
const char* program_name(const qorChildProcessOptions& options) noexcept;

using platform::deadline;

} // namespace qor::child
