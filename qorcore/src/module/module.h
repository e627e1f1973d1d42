// Inside the library: modules, the shared libraries that it loads when they are first wanted.
#pragma once

#include <string>

namespace qor::module {

// A new object of a module (glue/module.h), whose file is `module` with this system's extension. False: *out is as it
// was; the last error says what is wrong, and where that is the module, names its file. Any thread.
bool create_object(const char* module, const char* interface_name, const char* kind, void** out) noexcept;

// ---- the seam to the system

extern const char* const file_extension;

// Loads a library for good. Null: `reason` says why.
void* load_library(const std::string& path, std::string& reason);

// Null: it exports nothing of this name.
void* find_export(void* library, const char* name) noexcept;

} // namespace qor::module
