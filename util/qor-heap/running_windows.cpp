#include "running.h"

#include <limits>
#include <windows.h>

namespace qor::heap_tool {

bool is_running(uint64 pid) noexcept {
    if (pid > std::numeric_limits<DWORD>::max())
        return false;
    const HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(pid));
    if (process == nullptr)
        return GetLastError() == ERROR_ACCESS_DENIED;
    const bool has_ended = WaitForSingleObject(process, 0) == WAIT_OBJECT_0;
    CloseHandle(process);
    return !has_ended;
}

} // namespace qor::heap_tool
