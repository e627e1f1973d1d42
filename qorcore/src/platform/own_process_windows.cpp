#include "platform/own_process.h"

#include "platform/end_of_process.h"
#include "platform/wide_windows.h"

#include <cstdio>
#include <map>
#include <mutex>
#include <new>
#include <windows.h>

namespace {

// Longer than any path.
constexpr DWORD max_path = 32768;

std::string module_path(HMODULE module) {
    std::wstring path(max_path, L'\0');
    path.resize(GetModuleFileNameW(module, path.data(), max_path));
    return qor::platform::from_wide(path);
}

// "C:\Tools\client.exe" is "client".
std::string executable_name() {
    std::string name = qor::platform::executable();
    name.erase(0, name.find_last_of('\\') + 1);
    return name.substr(0, name.find_last_of('.'));
}

// Never destroyed: exit handlers also report under this name.
std::string& process_name() {
    static std::string* const name = new std::string(executable_name());
    return *name;
}

DWORD WINAPI thread_main(void* run) {
    reinterpret_cast<void (*)() noexcept>(run)();
    return 0;
}

const DWORD loading_thread = GetCurrentThreadId();

void WINAPI call_at_thread_end(void* run) { reinterpret_cast<void (*)()>(run)(); }

} // namespace

const char* qor::platform::name() noexcept { return process_name().c_str(); }
void qor::platform::set_name(const char* name) { process_name() = name; }

unsigned long qor::platform::process_id() noexcept { return GetCurrentProcessId(); }
unsigned long qor::platform::thread_id() noexcept { return GetCurrentThreadId(); }
bool qor::platform::is_main_thread() noexcept { return GetCurrentThreadId() == loading_thread; }

// The destructor of a thread_local object would come too late: the run-time has already freed the memory of these
// objects when it calls their destructors. The system calls this function before it notifies the libraries of the end
// of a thread.
void qor::platform::at_thread_end(void (*run)()) noexcept {
    static const DWORD slot = FlsAlloc(call_at_thread_end);
    if (slot != FLS_OUT_OF_INDEXES)
        FlsSetValue(slot, reinterpret_cast<void*>(run));
}

std::string qor::platform::executable() { return module_path(nullptr); }

std::string qor::platform::library_folder() {
    HMODULE self = nullptr;
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            reinterpret_cast<const wchar_t*>(&qor::platform::library_folder), &self))
        return {};
    const std::string path = module_path(self);
    const std::size_t backslash = path.rfind('\\');
    return backslash == std::string::npos ? std::string() : path.substr(0, backslash + 1);
}

// On Windows, a program runs with the rights of the user who starts it.
bool qor::platform::is_privileged() noexcept { return false; }

const char* qor::platform::environment(const char* variable) noexcept {
    // The system's own variables are UTF-16. A converted value stays at its address until the variable changes, as in
    // the C library's environment.
    static std::mutex lock;
    static auto& values = *new std::map<std::string, std::string>;
    std::wstring name;
    if (!platform::to_wide(variable, name))
        return nullptr;
    std::wstring value(GetEnvironmentVariableW(name.c_str(), nullptr, 0), L'\0');
    value.resize(GetEnvironmentVariableW(name.c_str(), value.data(), static_cast<DWORD>(value.size())));
    if (value.empty())
        return nullptr;
    const std::string converted = platform::from_wide(value);
    const std::lock_guard hold(lock);
    std::string& kept = values[variable];
    if (kept != converted)
        kept = converted;
    return kept.c_str();
}

void qor::platform::set_environment(const char* variable, const char* value) noexcept {
    std::wstring name;
    std::wstring wide;
    if (platform::to_wide(variable, name) && platform::to_wide(value, wide))
        SetEnvironmentVariableW(name.c_str(), wide.c_str());
}

bool qor::platform::has_argument(const char* begin) noexcept {
    std::wstring wide;
    if (!platform::to_wide(begin, wide))
        return false;
    // A quoted word also counts.
    const std::wstring line = GetCommandLineW();
    return line.find(L' ' + wide) != std::wstring::npos || line.find(L'"' + wide) != std::wstring::npos;
}

// On Windows, no file can take the place of a closed stream, because handles are not numbered like descriptors. But the
// C library buffers standard error if it is redirected. A question or a warning would then appear only when the process
// ends.
void qor::platform::set_up_standard_streams() noexcept {
    static const int done = std::setvbuf(stderr, nullptr, _IONBF, 0);
    (void)done;
}

// Windows has no fork.
void qor::platform::watch_forks(void (*)() noexcept, void (*)() noexcept, void (*)() noexcept) noexcept {}

int qor::platform::start_thread(void (*run)() noexcept) noexcept {
    if (platform::other_threads_are_gone())
        return ERROR_SHUTDOWN_IN_PROGRESS; // the thread would not get to run
    const HANDLE thread = CreateThread(nullptr, 0, thread_main, reinterpret_cast<void*>(run), 0, nullptr);
    if (thread == nullptr)
        return static_cast<int>(GetLastError());
    CloseHandle(thread);
    return 0;
}
