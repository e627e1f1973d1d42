// Inside the library: opening configuration files.
#pragma once

#include "config/config.h"

namespace qor::config {

// Opens the configuration of `files`, uppermost first. If none exists, creates the first with `text`, which may be
// null: then that is an error. Returns false and sets the last error on failure.
bool open_files(std::vector<std::string> files, const char* text, uint32 folder_rights, IQORConfigFile** out);

} // namespace qor::config
