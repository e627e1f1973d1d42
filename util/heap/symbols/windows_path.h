// Paths of Windows that a stranger may name without harm.
#pragma once

#include <string_view>

namespace qor::heap {

// Whether a path leads to a file on a drive: X:\..., with any slashes. A share would tell its server who the user is; a
// device may wait, or act; a path that is relative would be looked for where this program runs. So none of them does.
bool is_on_drive(std::string_view path) noexcept;

} // namespace qor::heap
