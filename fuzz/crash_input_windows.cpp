#include "crash_input.h"

#include <csignal>
#include <cstdlib>
#include <string_view>
#include <windows.h>

namespace {

const std::string* current;

void leave_input() {
    DWORD written = 0;
    const HANDLE file = CreateFileW(L"crash-input", GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    WriteFile(file, current->data(), static_cast<DWORD>(current->size()), &written, nullptr);
    CloseHandle(file);
    constexpr std::string_view said = "the input is in crash-input\n";
    WriteFile(GetStdHandle(STD_ERROR_HANDLE), said.data(), said.size(), &written, nullptr);
}

LONG WINAPI on_exception(EXCEPTION_POINTERS*) {
    leave_input();
    return EXCEPTION_CONTINUE_SEARCH;
}

void on_abort(int) { leave_input(); }

} // namespace

void leave_input_on_crash(const std::string& input) {
    current = &input;
    SetUnhandledExceptionFilter(on_exception);
    std::signal(SIGABRT, on_abort);
}
