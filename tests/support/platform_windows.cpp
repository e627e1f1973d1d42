#include "support/platform.h"

#include <gtest/gtest.h>

#include <clocale>
#include <filesystem>
#include <windows.h>

namespace {

// Wine and Windows have different texts, which also depend on the language of Windows.
std::string wording(DWORD code) {
    char text[512];
    DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0, text,
                                  sizeof text, nullptr);
    if (length == 0)
        return "error " + std::to_string(code);
    while (length != 0 && (text[length - 1] == '\n' || text[length - 1] == '\r' || text[length - 1] == '.'))
        --length;
    return {text, length};
}

bool can_be_opened(const char* path) {
    const HANDLE file =
        CreateFileA(path, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    return file != INVALID_HANDLE_VALUE && CloseHandle(file) != 0;
}

} // namespace

std::string qor::test::process_id() { return std::to_string(GetCurrentProcessId()); }
std::string qor::test::thread_id() { return std::to_string(GetCurrentThreadId()); }

// Wine does not report the states of threads.
const bool qor::test::tells_who_sleeps = false;
void qor::test::wait_until_asleep(const std::vector<std::string>&, int milliseconds) {
    Sleep(static_cast<DWORD>(milliseconds));
}

// Windows does. Wine does only if the process has just ended.
const bool qor::test::tells_memory_of_ended =
    GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") == nullptr;

std::string qor::test::program_name() {
    wchar_t self[MAX_PATH];
    return std::filesystem::path(self, self + GetModuleFileNameW(nullptr, self, MAX_PATH)).stem().string();
}

void qor::test::interrupt_process() { EXPECT_NE(GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0), 0) << GetLastError(); }
void qor::test::kill_process() { TerminateProcess(GetCurrentProcess(), killed_code); }

// Windows has no such file, but Wine shows the files of its host as a drive.
const char* const qor::test::full_disk = can_be_opened("Z:/dev/full") ? "Z:/dev/full" : nullptr;

qor::test::reasons qor::test::system_reasons() {
    constexpr DWORD operation_on_folder = 336;
    return {wording(ERROR_FILE_NOT_FOUND), wording(ERROR_PATH_NOT_FOUND), wording(operation_on_folder),
            wording(ERROR_PATH_NOT_FOUND), wording(ERROR_PATH_NOT_FOUND), wording(ERROR_DISK_FULL)};
}

qor::test::comma_locale::comma_locale() { std::setlocale(LC_NUMERIC, "German_Germany.1252"); }
qor::test::comma_locale::~comma_locale() { std::setlocale(LC_NUMERIC, "C"); }
