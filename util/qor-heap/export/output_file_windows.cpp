#include "output_file.h"

#include "qor/glue/wide_path_windows.h"
#include "qor/qor.h"

#include <algorithm>
#include <windows.h>

namespace qor::heap_tool {

namespace {

using glue::wide_path;

int last_error() { return static_cast<int>(GetLastError()); }

HANDLE handle_of(std::intptr_t file) { return reinterpret_cast<HANDLE>(file); }

} // namespace

// A folder cannot be replaced. Devices have no attributes.
int output_file::check_place(const std::string& path) {
    const std::wstring name = wide_path(path);
    if (name.starts_with(L"\\\\.\\") || name.starts_with(L"\\\\?\\GLOBALROOT"))
        return ERROR_BAD_DEVICE;
    const DWORD found = GetFileAttributesW(name.c_str());
    return found != INVALID_FILE_ATTRIBUTES && (found & FILE_ATTRIBUTE_DIRECTORY) != 0 ? ERROR_ACCESS_DENIED : 0;
}

int output_file::create(const std::string& path) {
    const HANDLE file =
        CreateFileW(wide_path(path).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    m_file = reinterpret_cast<std::intptr_t>(file);
    return file == INVALID_HANDLE_VALUE ? last_error() : 0;
}

bool output_file::is_taken(int error) noexcept { return error == ERROR_FILE_EXISTS || error == ERROR_ALREADY_EXISTS; }

int output_file::use_standard_output() {
    const HANDLE file = GetStdHandle(STD_OUTPUT_HANDLE);
    m_file = reinterpret_cast<std::intptr_t>(file);
    return file == nullptr || file == INVALID_HANDLE_VALUE ? ERROR_INVALID_HANDLE : 0;
}

int output_file::write_out(std::string_view text) {
    DWORD mode;
    if (m_path.empty() && GetConsoleMode(handle_of(m_file), &mode))
        return fputtext(stdout, text.data(), text.size()) && std::fflush(stdout) == 0 ? 0 : last_error();
    while (!text.empty()) {
        constexpr std::size_t most = 1U << 20;
        DWORD count = 0;
        if (!WriteFile(handle_of(m_file), text.data(), static_cast<DWORD>(std::min(text.size(), most)), &count,
                       nullptr))
            return last_error();
        text.remove_prefix(count);
    }
    return 0;
}

int output_file::close() {
    const HANDLE file = handle_of(m_file);
    m_file = -1;
    return file != INVALID_HANDLE_VALUE && !CloseHandle(file) ? last_error() : 0;
}

int output_file::replace(const std::string& path, const std::string& by) {
    return MoveFileExW(wide_path(by).c_str(), wide_path(path).c_str(), MOVEFILE_REPLACE_EXISTING) ? 0 : last_error();
}

void output_file::remove(const std::string& path) { DeleteFileW(wide_path(path).c_str()); }

} // namespace qor::heap_tool
