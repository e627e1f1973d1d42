// Inside the facility: the modes of qorFileMode, and the errors of opening.
#pragma once

#include "error/error.h"
#include "platform/raw_file.h"

namespace qor::file {

// Converts a mode. Returns false if its flags contradict each other.
bool to_terms(uint32 mode, platform::raw_file::terms& out) noexcept;

// Sets the last error for a result of raw_file::open() other than 0.
void set_open_error(const char* path, int reason) noexcept;

} // namespace qor::file
