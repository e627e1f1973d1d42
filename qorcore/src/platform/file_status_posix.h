// Inside the POSIX half of the library.
#pragma once

#include "platform/file_status.h"

#include <sys/stat.h>

namespace qor::platform {

// Asks for the status of the file at `path`, which counts from the folder with the descriptor `folder` (AT_FDCWD: the
// current folder). `flags` are those of statx; AT_EMPTY_PATH and an empty path mean the file that `folder` is. Returns
// 0 or the system's error code.
int get_status(int folder, const char* path, int flags, file_status& out) noexcept;

// Parts of the status.
qorFileKind kind_of(unsigned mode) noexcept;
bool has_size(qorFileKind kind) noexcept;

// Returns a clock: times that no clock has become the nearest one. `rest` becomes the nanoseconds beyond it, 0 to 99.
uint64 clock_of(const statx_timestamp& time, uint8& rest) noexcept;

} // namespace qor::platform
