// Inside the library: modules, which are shared libraries loaded on first use.
#pragma once

#include <string>

namespace qor::module {

// Creates an object of one of the framework's own modules (glue/module.h). `module` is the name of its file without the
// system's extension. Returns false and leaves *out unchanged on failure; the last error says why and, if the module is
// at fault, names its file. Any thread.
bool create_object(const char* module, const char* interface_name, const char* kind, void** out) noexcept;

// Destroys the values of qorGetGlobalSlot, the one made last first.
void end_global_slots() noexcept;

// ---- implemented for each system

extern const char* const file_extension;

// Each of these bytes stands between two names of a path.
extern const char* const path_separators;

// Returns the package that contains a module of the framework's own, under the name that it has in Debian; empty for
// other modules, and where one package has them all.
std::string package_of(const std::string& module);

// Loads a library permanently. Returns null and sets `reason` on failure.
void* load_library(const std::string& path, std::string& reason);

// Returns null if there is no such export.
void* find_export(void* library, const char* name) noexcept;

} // namespace qor::module
