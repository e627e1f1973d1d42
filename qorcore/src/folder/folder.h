// Inside the library: the named folders, and the seam to the system that knows where they are.
#pragma once

#include "qor/qor.h"

#include <string>
#include <string_view>

namespace qor::folder {

// The folder's short name; null: there is no such id.
const char* tag(qorFolderId id) noexcept;

// Sets the last error: there is no such folder here, for the reason with this number in the catalog.
void fail(qorFolderId id, uint32 reason);

// ---- the seam to the system

// Where a folder of the user or of the system lies, or the framework's configuration. Empty: the system does
// not say, and the last error tells why.
std::string system_path(qorFolderId id);

// The same folder by an absolute path without separators at its end; only a root keeps one.
std::string clean(std::string_view path);

} // namespace qor::folder
