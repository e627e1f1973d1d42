// The new file is called like the target, with random characters and ".qor-unfinished" behind it: a name that could be
// guessed could be taken before. Nobody else can open the file while it is being written, so another writer knows
// whether such a file is still wanted.
#include "platform/random_name.h"
#include "platform/replacement.h"
#include "platform/wide_windows.h"
#include "qor/glue/own_rights_windows.h"

#include <algorithm>
#include <iterator>
#include <windows.h>

namespace {

constexpr int most_attempts = 100;

constexpr wchar_t mark[] = L".qor-unfinished";

// ERROR_DIRECTORY_NOT_SUPPORTED, which many headers do not have yet.
constexpr int operation_on_folder = 336;

// While somebody reads the old file, Windows does not replace it. Readers of a file that is replaced as a whole are
// soon done.
constexpr ULONGLONG patience_milliseconds = 1000;

int last_error() noexcept { return static_cast<int>(GetLastError()); }

// Looks at what is to be replaced, if there is anything. Resolves links, so that the target of a link is replaced and
// not the link.
int examine_target(std::wstring& path) {
    if (path.empty() || path.back() == L'/' || path.back() == L'\\')
        return ERROR_PATH_NOT_FOUND;
    const HANDLE file =
        CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        const int reason = last_error();
        return qor::platform::raw_file::is_missing(reason) ? 0 : reason;
    }
    BY_HANDLE_FILE_INFORMATION about{};
    int reason = 0;
    if (GetFileType(file) != FILE_TYPE_DISK)
        reason = qor::platform::raw_file::not_regular;
    else if (!GetFileInformationByHandle(file, &about))
        reason = last_error();
    else if ((about.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        reason = operation_on_folder;
    else if ((GetFileAttributesW(path.c_str()) & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        std::wstring found(GetFinalPathNameByHandleW(file, nullptr, 0, 0), L'\0');
        const DWORD length = GetFinalPathNameByHandleW(file, found.data(), static_cast<DWORD>(found.size()), 0);
        if (length != 0 && length < found.size())
            path = found.substr(0, length);
    }
    CloseHandle(file);
    return reason;
}

// Removes what a killed process has left. A file that was written a moment ago may be about to take its place.
void remove_leftover(const std::wstring& path) noexcept {
    constexpr uint64 ten_minutes = 600 * 10'000'000ull;
    const HANDLE file = CreateFileW(path.c_str(), DELETE | FILE_READ_ATTRIBUTES, 0, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return;
    const auto number = [](FILETIME time) { return time.dwLowDateTime | uint64{time.dwHighDateTime} << 32; };
    FILETIME written, now;
    GetSystemTimeAsFileTime(&now);
    FILE_DISPOSITION_INFO gone{TRUE};
    if (GetFileTime(file, nullptr, nullptr, &written) && number(written) + ten_minutes < number(now))
        SetFileInformationByHandle(file, FileDispositionInfo, &gone, sizeof gone);
    CloseHandle(file);
}

std::size_t name_begin(const std::wstring& path) noexcept { return path.find_last_of(L"\\/:") + 1; }

// The beginning of the new file's path. Its name is one component, whatever the length of the target's.
std::wstring begin_of_new(const std::wstring& target) {
    constexpr std::size_t longest = 255 - qor::platform::random_name_length - std::size(mark);
    const std::size_t begin = name_begin(target);
    return target.substr(0, begin + std::min(target.size() - begin, longest)).append(L".");
}

void remove_leftovers(const std::wstring& begin) {
    WIN32_FIND_DATAW found;
    const HANDLE search = FindFirstFileW(std::wstring(begin).append(L"*").append(mark).c_str(), &found);
    if (search == INVALID_HANDLE_VALUE)
        return;
    // The pattern also matches short names and names with other characters in between.
    const std::size_t length =
        begin.size() - name_begin(begin) + qor::platform::random_name_length + std::size(mark) - 1;
    do {
        const std::wstring_view name = found.cFileName;
        if (name.size() == length && name.ends_with(mark))
            remove_leftover(begin.substr(0, name_begin(begin)).append(name));
    } while (FindNextFileW(search, &found));
    FindClose(search);
}

} // namespace

int qor::platform::replacement::begin(const char* path, bool is_private) {
    drop();
    std::wstring target;
    if (!to_wide_path(path, target))
        return ERROR_INVALID_NAME;
    if (const int reason = examine_target(target))
        return reason;
    glue::own_rights rights;
    if (is_private && rights.get() == nullptr)
        return last_error();
    m_target = name_from_wide(target);
    m_keeps = !is_private && GetFileAttributesW(target.c_str()) != INVALID_FILE_ATTRIBUTES;
    if (m_keeps)
        if (const int reason = m_kept.read(m_target.c_str()))
            return reason;
    const std::wstring begin = begin_of_new(target);
    remove_leftovers(begin);
    HANDLE file = INVALID_HANDLE_VALUE;
    int reason = ERROR_FILE_EXISTS;
    for (int attempt = 0; reason == ERROR_FILE_EXISTS && attempt < most_attempts; ++attempt) {
        const std::string random = random_name();
        const std::wstring name = std::wstring(begin).append(random.begin(), random.end()).append(mark);
        file = CreateFileW(name.c_str(), GENERIC_WRITE | WRITE_DAC, 0, is_private ? rights.get() : nullptr, CREATE_NEW,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
        reason = file != INVALID_HANDLE_VALUE ? 0 : last_error();
        // A file that is being deleted.
        if (reason == ERROR_ACCESS_DENIED && GetFileAttributesW(name.c_str()) != INVALID_FILE_ATTRIBUTES)
            reason = ERROR_FILE_EXISTS;
        m_name = name_from_wide(name);
    }
    if (reason != 0) {
        m_name.clear();
        return reason;
    }
    return m_file.adopt(reinterpret_cast<std::intptr_t>(file));
}

int qor::platform::replacement::commit() {
    int reason = m_keeps ? m_kept.write(m_file.handle()) : 0;
    if (reason == 0)
        reason = m_file.sync();
    const int late = m_file.close();
    if (reason == 0)
        reason = late;
    std::wstring name, target;
    to_wide_path(m_name, name);
    to_wide_path(m_target, target);
    const ULONGLONG end = GetTickCount64() + patience_milliseconds;
    while (reason == 0 &&
           !MoveFileExW(name.c_str(), target.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        const int code = last_error();
        if ((code != ERROR_SHARING_VIOLATION && code != ERROR_ACCESS_DENIED) || GetTickCount64() >= end)
            reason = code;
        else
            Sleep(1);
    }
    if (reason == 0)
        m_name.clear();
    drop();
    return reason;
}

void qor::platform::replacement::drop() noexcept {
    m_file.close();
    std::wstring name;
    if (!m_name.empty() && to_wide_path(m_name, name))
        DeleteFileW(name.c_str());
    m_name.clear();
}
