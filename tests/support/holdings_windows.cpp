#include "support/holdings.h"

#include <windows.h> // before tlhelp32.h

#include <tlhelp32.h>

namespace {

std::size_t own_threads() {
    const HANDLE all = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 each{};
    each.dwSize = sizeof each;
    std::size_t count = 0;
    for (BOOL is_there = Thread32First(all, &each); is_there; is_there = Thread32Next(all, &each))
        count += each.th32OwnerProcessID == GetCurrentProcessId();
    CloseHandle(all);
    return count;
}

// The blocks in use of the process's heap.
std::size_t used_memory() {
    const HANDLE heap = GetProcessHeap();
    PROCESS_HEAP_ENTRY each{};
    std::size_t bytes = 0;
    HeapLock(heap);
    while (HeapWalk(heap, &each))
        if ((each.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0)
            bytes += each.cbData;
    HeapUnlock(heap);
    return bytes;
}

} // namespace

qor::test::holdings qor::test::own_holdings() {
    DWORD handles = 0;
    EXPECT_TRUE(GetProcessHandleCount(GetCurrentProcess(), &handles));
    return {handles, own_threads(), used_memory()};
}
