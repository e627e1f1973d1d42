// Inside the Windows half of the library.
#pragma once

#include "platform/file_status.h"

#include <windows.h>

namespace qor::platform {

// Asks for the status of an open file or folder. Returns 0 or the system's error code.
int get_status(HANDLE file, file_status& out) noexcept;

// The kind and the rights that follow from a file's attributes. `tag` is its reparse tag, or 0.
qorFileKind kind_of(DWORD attributes, DWORD tag) noexcept;
uint32 rights_of(DWORD attributes) noexcept;

} // namespace qor::platform
