// Inside the POSIX half of the library.
#pragma once

#include "platform/file_status.h"

namespace qor::platform {

// Asks for the status of the file at `path`, which counts from the folder with the descriptor `folder` (AT_FDCWD: the
// current folder). `flags` are those of statx; AT_EMPTY_PATH and an empty path mean the file that `folder` is. Returns
// 0 or the system's error code.
int get_status(int folder, const char* path, int flags, file_status& out) noexcept;

} // namespace qor::platform
