// Inside the Windows half of the library: functions of the system's libraries that few processes need. Such a library
// is loaded on first use and is never unloaded. Linking it would add some milliseconds to the start of every process.
#pragma once

#include <windows.h>

namespace qor::platform {

// Returns null if this system does not have the function; GetLastError gives the reason.
template <class FUNCTION>
FUNCTION* find_function(const wchar_t* library, const char* name) noexcept {
    const HMODULE loaded = LoadLibraryExW(library, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    return loaded != nullptr ? reinterpret_cast<FUNCTION*>(reinterpret_cast<void*>(GetProcAddress(loaded, name)))
                             : nullptr;
}

} // namespace qor::platform
