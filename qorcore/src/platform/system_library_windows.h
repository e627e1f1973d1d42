// Inside the Windows half of the library: functions of the system's libraries that few processes need. Such a library
// is loaded on first use and stays; linked, it would cost each start of a process some milliseconds.
#pragma once

#include <windows.h>

namespace qor::platform {

// Null: this system does not have it; GetLastError tells why.
template <class FUNCTION>
FUNCTION* find_function(const wchar_t* library, const char* name) noexcept {
    const HMODULE loaded = LoadLibraryExW(library, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    return loaded != nullptr ? reinterpret_cast<FUNCTION*>(reinterpret_cast<void*>(GetProcAddress(loaded, name)))
                             : nullptr;
}

} // namespace qor::platform
