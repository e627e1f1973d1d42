#include "catalog/catalog.h"
#include "message_names.h"
#include "module/module.h"
#include "qor/glue/impl_posix.h"

#include <dlfcn.h>

namespace framework = qor::messages::framework;

const char* const qor::module::file_extension = ".so";
const char* const qor::module::path_separators = "/";

std::string qor::module::package_of(const std::string& module) {
    return module.starts_with("qor-") ? "lib" + module : std::string();
}

// RTLD_NOW reports unresolved symbols here, not later. RTLD_LOCAL keeps the symbols of the module to itself.
void* qor::module::load_library(const std::string& path, std::string& reason) {
    if (!glue::is_whole(path.c_str())) {
        reason = catalog::find(framework::catalog, framework::not_a_library);
        return nullptr;
    }
    void* const library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        if (const char* const text = dlerror())
            reason = text;
    return library;
}

void* qor::module::find_export(void* library, const char* name) noexcept {
    void* const found = dlsym(library, name);
    return glue::is_function(found) ? found : nullptr;
}
