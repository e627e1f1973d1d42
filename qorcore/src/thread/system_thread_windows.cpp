#include "thread/system_thread.h"

#include "platform/end_of_process.h"
#include "platform/system_library_windows.h"
#include "platform/wide_windows.h"

#include <memory>
#include <windows.h>

namespace {

struct beginning {
    void (*run)(void* context) noexcept;
    void* context;
};

DWORD WINAPI thread_main(void* given) {
    const std::unique_ptr<beginning> own(static_cast<beginning*>(given));
    const beginning work = *own;
    work.run(work.context);
    return 0;
}

HANDLE of(qor::thread::handle which) noexcept { return reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(which)); }

} // namespace

int qor::thread::start(uint64 stack_size, void (*run)(void* context) noexcept, void* context, handle& out) noexcept {
    auto begin = std::make_unique<beginning>(beginning{run, context});
    if (platform::other_threads_are_gone())
        return ERROR_SHUTDOWN_IN_PROGRESS; // the thread would not get to run
    if (stack_size > static_cast<SIZE_T>(-1) / 2)
        return ERROR_NOT_ENOUGH_MEMORY;
    const HANDLE made = CreateThread(nullptr, static_cast<SIZE_T>(stack_size), thread_main, begin.get(),
                                     STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    if (made == nullptr)
        return static_cast<int>(GetLastError());
    (void)begin.release();
    out = reinterpret_cast<ULONG_PTR>(made);
    return 0;
}

void qor::thread::join(handle which) noexcept {
    WaitForSingleObject(of(which), INFINITE);
    CloseHandle(of(which));
}

void qor::thread::detach(handle which) noexcept { CloseHandle(of(which)); }

// Windows has the function since 10; before, a thread has no name that others see.
void qor::thread::set_own_name(const char* name) noexcept {
    using function = HRESULT WINAPI(HANDLE, PCWSTR);
    static function* const set = platform::find_function<function>(L"kernel32.dll", "SetThreadDescription");
    std::wstring wide;
    if (set != nullptr && platform::to_wide(name, wide))
        set(GetCurrentThread(), wide.c_str());
}

int qor::thread::set_own_priority(qorThreadPriority priority) noexcept {
    int level = THREAD_PRIORITY_NORMAL;
    switch (priority) {
    case qorThreadPriority::normal:
        return 0;
    case qorThreadPriority::low:
        level = THREAD_PRIORITY_BELOW_NORMAL;
        break;
    case qorThreadPriority::lowest:
        level = THREAD_PRIORITY_LOWEST;
        break;
    case qorThreadPriority::high:
        level = THREAD_PRIORITY_ABOVE_NORMAL;
        break;
    case qorThreadPriority::highest:
        level = THREAD_PRIORITY_HIGHEST;
        break;
    }
    return SetThreadPriority(GetCurrentThread(), level) ? 0 : static_cast<int>(GetLastError());
}
