#include "error/error.h"
#include "module/module.h"
#include "platform/wide_windows.h"
#include "qor/glue/impl_windows.h"

#include <algorithm>
#include <windows.h>

const char* const qor::module::file_extension = ".dll";
const char* const qor::module::path_separators = "/\\";

std::string qor::module::package_of(const std::string&) { return {}; }

void* qor::module::load_library(const std::string& path, std::string& reason) {
    std::wstring wide;
    if (!platform::to_wide(path.c_str(), wide)) {
        reason = error::system_reason(ERROR_INVALID_NAME);
        return nullptr;
    }
    std::replace(wide.begin(), wide.end(), L'/', L'\\'); // the loader accepts no other separator
    const glue::no_dialogs quiet;
    const HMODULE library = LoadLibraryExW(wide.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (library == nullptr)
        reason = error::system_reason(static_cast<int>(GetLastError()));
    return library;
}

void* qor::module::find_export(void* library, const char* name) noexcept {
    void* const found = reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
    return glue::is_function(found) ? found : nullptr;
}
