#include "shared_library.h"

#include <dlfcn.h>

namespace qor::compression {

// Without the version there is a link for compilers only.
const char* const zlib_file = "libz.so.1";
const char* const zstd_file = "libzstd.so.1";

// RTLD_LOCAL: other libraries do not find its symbols.
void* load_library(const char* file, std::string& reason) {
    void* const library = dlopen(file, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        if (const char* const text = dlerror())
            reason = text;
    return library;
}

void* find_function(void* library, const char* name) noexcept { return dlsym(library, name); }

} // namespace qor::compression
