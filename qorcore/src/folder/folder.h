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

// Returns the path of a folder. Returns an empty path and sets the last error if this host has no such folder.
std::string find(qorFolderId id);

// ---- implemented for each system

// Whether the path does not depend on the current folder.
bool is_absolute(std::string_view path) noexcept;

// Each of these bytes stands between two names.
extern const std::string_view separators;

// The system's error code for something that is no folder.
extern const int is_no_folder;

// Returns the path of a folder of the user, of the system or of the framework's configuration. Returns an empty path
// and sets the last error if the system does not know it.
std::string system_path(qorFolderId id);

// Returns the absolute path of a folder without separators at its end; only a root keeps one.
std::string clean(std::string_view path);

} // namespace qor::folder
