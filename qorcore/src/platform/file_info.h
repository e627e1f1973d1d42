// Inside the library: what the system knows about a file. Results are the system's error codes, 0 for success;
// otherwise `out` is unchanged.
#pragma once

#include "platform/file_status.h"
#include "qor/qor.h"

namespace qor::platform {

// Of the object that a path leads to, or with `follow` false of a link itself.
int file_info(const char* path, bool follow, qorFileInfo& out) noexcept;
int file_info_ex(const char* path, bool follow, qorFileInfoEx& out) noexcept;

// Copies everything but the names and the target of a link.
void copy_status(const file_status& from, qorFileInfoEx& to) noexcept;

// Whether an error code means that nothing has this name.
bool means_no_file(int code) noexcept;

} // namespace qor::platform
