// The libraries lie beside the program; others of these names are left alone.
#include "shared_library.h"

#include "system_reason.h"

#include <string_view>
#include <windows.h>

namespace qor::compression {

const char* const zlib_file = "zlib1.dll";
const char* const zstd_file = "libzstd.dll";

void* load_library(const char* file, std::string& reason) {
    // No dialog about a damaged file.
    DWORD before = 0;
    SetThreadErrorMode(SEM_FAILCRITICALERRORS, &before);
    const std::string_view name = file; // ASCII
    const HMODULE library =
        LoadLibraryExW(std::wstring(name.begin(), name.end()).c_str(), nullptr, LOAD_LIBRARY_SEARCH_APPLICATION_DIR);
    if (library == nullptr)
        reason = system_reason(static_cast<int>(GetLastError()));
    SetThreadErrorMode(before, nullptr);
    return library;
}

void* find_function(void* library, const char* name) noexcept {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}

} // namespace qor::compression
