#include "thread_name.h"

#include "wide_text_windows.h"

#include <windows.h>

namespace qor::record {

namespace {

// Windows has it from 10, version 1607, on.
using thread_description = HRESULT WINAPI(HANDLE, PWSTR*);
thread_description* find_function() {
    const auto found = GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "GetThreadDescription");
    return reinterpret_cast<thread_description*>(reinterpret_cast<void*>(found));
}

} // namespace

std::string name_of_thread(std::int32_t, std::uint32_t thread) {
    static thread_description* const describe = find_function();
    const HANDLE opened = describe != nullptr ? OpenThread(THREAD_QUERY_LIMITED_INFORMATION, FALSE, thread) : nullptr;
    if (opened == nullptr)
        return {};
    PWSTR name = nullptr;
    std::string text;
    if (SUCCEEDED(describe(opened, &name)) && name != nullptr) {
        text = narrow(name).substr(0, 64);
        LocalFree(name);
    }
    CloseHandle(opened);
    return text;
}

} // namespace qor::record
