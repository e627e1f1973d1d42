// Inside the library: the named folders, and the part that each system implements.
#pragma once

#include "qor/qor.h"

#include <string>
#include <string_view>

namespace qor::folder {

// Returns the folder's short name, or null if there is no such id.
const char* tag(qorFolderId id) noexcept;

// Sets the last error for a folder that does not exist here; `reason` is the number of a message in the catalog.
void fail(qorFolderId id, uint32 reason);

// ---- implemented for each system

// Returns the path of a folder of the user, of the system or of the framework's configuration. Returns an empty path
// and sets the last error if the system does not know it.
std::string system_path(qorFolderId id);

// Returns the absolute path of a folder without separators at its end; only a root keeps one.
std::string clean(std::string_view path);

} // namespace qor::folder
