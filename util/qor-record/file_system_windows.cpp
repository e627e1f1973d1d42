#include "file_system.h"

#include "wide_text_windows.h"

#include "qor/glue/wide_path_windows.h"

#include <algorithm>
#include <windows.h>

namespace qor::record {

const int out_of_memory = ERROR_NOT_ENOUGH_MEMORY;
const char separators[] = "\\/";

namespace {

using glue::wide_path;

int last_error() { return static_cast<int>(GetLastError()); }
HANDLE handle_of(std::intptr_t file) { return reinterpret_cast<HANDLE>(file); }

constexpr DWORD everybody = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

} // namespace

static_assert(sizeof(std::intptr_t) == sizeof(HANDLE));

// The rights are those of the folder.
int raw_file::create(const std::string& path) {
    const HANDLE file = CreateFileW(wide_path(path).c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE,
                                    nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    m_file = reinterpret_cast<std::intptr_t>(file);
    return is_open() ? 0 : last_error();
}

int raw_file::open(const std::string& path) {
    const HANDLE file = CreateFileW(wide_path(path).c_str(), GENERIC_READ, everybody, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    m_file = reinterpret_cast<std::intptr_t>(file);
    return is_open() ? 0 : last_error();
}

void raw_file::close() {
    if (is_open())
        CloseHandle(handle_of(m_file));
    m_file = none;
}

std::size_t raw_file::read(char* data, std::size_t size) {
    DWORD count = 0;
    if (!is_open() ||
        !ReadFile(handle_of(m_file), data, static_cast<DWORD>(std::min<std::size_t>(size, 1U << 30)), &count, nullptr))
        return 0;
    return count;
}

int raw_file::write(const char* data, std::size_t size, std::size_t& done) {
    for (std::size_t left = size; left > 0;) {
        DWORD count = 0;
        const auto piece = static_cast<DWORD>(std::min<std::size_t>(left, 1U << 30));
        const bool is_written = WriteFile(handle_of(m_file), data + size - left, piece, &count, nullptr) != 0;
        left -= count;
        done += count;
        if (!is_written || count == 0)
            return is_written ? ERROR_DISK_FULL : last_error();
    }
    return 0;
}

void raw_file::cut_to(std::uint64_t size) {
    LARGE_INTEGER place;
    place.QuadPart = static_cast<LONGLONG>(size);
    if (SetFilePointerEx(handle_of(m_file), place, nullptr, FILE_BEGIN))
        SetEndOfFile(handle_of(m_file));
}

int remove_file(const std::string& path) { return DeleteFileW(wide_path(path).c_str()) ? 0 : last_error(); }
int rename_file(const std::string& from, const std::string& to) {
    return MoveFileExW(wide_path(from).c_str(), wide_path(to).c_str(), MOVEFILE_REPLACE_EXISTING) ? 0 : last_error();
}
bool is_there(const std::string& path) { return type_of(path) != file_type::nothing; }
bool is_taken(int error) noexcept { return error == ERROR_FILE_EXISTS || error == ERROR_ALREADY_EXISTS; }
bool is_missing(int error) noexcept { return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND; }

std::string reason_of(int error) {
    wchar_t text[512];
    DWORD size = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                static_cast<DWORD>(error), 0, text, sizeof text / sizeof *text, nullptr);
    while (size > 0 && (text[size - 1] <= L' ' || text[size - 1] == L'.'))
        --size;
    return size > 0 ? narrow({text, size}) : std::to_string(error);
}

file_type type_of(const std::string& path) {
    const DWORD found = GetFileAttributesW(wide_path(path).c_str());
    if (found == INVALID_FILE_ATTRIBUTES)
        return file_type::nothing;
    constexpr DWORD no_file = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DEVICE;
    return (found & no_file) != 0 ? file_type::other : file_type::regular;
}

std::string path_of_folder(const std::string& folder) {
    const std::wstring name = wide(folder);
    std::wstring path(GetFullPathNameW(name.c_str(), 0, nullptr, nullptr), L'\0');
    path.resize(GetFullPathNameW(name.c_str(), static_cast<DWORD>(path.size()), path.data(), nullptr));
    std::wstring lifted = path;
    glue::lift_path_limit(lifted);
    const DWORD found = GetFileAttributesW(lifted.c_str());
    if (path.empty() || found == INVALID_FILE_ATTRIBUTES || (found & FILE_ATTRIBUTE_DIRECTORY) == 0)
        return {};
    return narrow(path);
}

std::vector<std::string> names_in(const std::string& folder) {
    std::vector<std::string> names;
    WIN32_FIND_DATAW entry;
    const HANDLE entries = FindFirstFileW(wide_path(folder + "\\*").c_str(), &entry);
    if (entries == INVALID_HANDLE_VALUE)
        return names;
    do
        names.push_back(narrow(entry.cFileName));
    while (FindNextFileW(entries, &entry));
    FindClose(entries);
    return names;
}

} // namespace qor::record
