#include "folder/contents.h"

#include "platform/file_status_windows.h"
#include "platform/wide_windows.h"

#include <windows.h>

namespace {

int last_error() noexcept { return static_cast<int>(GetLastError()); }

qorFileInfo info_of(const WIN32_FIND_DATAW& found) noexcept {
    qorFileInfo info;
    info.kind = qor::platform::kind_of(found.dwFileAttributes, found.dwReserved0);
    if (info.kind != qorFileKind::folder)
        info.size = (uint64{found.nFileSizeHigh} << 32) | found.nFileSizeLow;
    info.modified = (uint64{found.ftLastWriteTime.dwHighDateTime} << 32) | found.ftLastWriteTime.dwLowDateTime;
    return info;
}

} // namespace

int qor::folder::read_contents(const char* path, listing& out, std::string& failed) {
    failed = path;
    std::wstring pattern;
    if (failed.empty())
        return ERROR_PATH_NOT_FOUND;
    if (!platform::to_wide_path(failed.ends_with(':') ? failed + '.' : failed, pattern))
        return ERROR_INVALID_NAME;
    if (!pattern.ends_with(L'\\') && !pattern.ends_with(L'/'))
        pattern += L'\\';
    pattern += L'*';
    WIN32_FIND_DATAW found;
    // Without the short names of old programs; in large blocks.
    const HANDLE search = FindFirstFileExW(pattern.c_str(), FindExInfoBasic, &found, FindExSearchNameMatch, nullptr,
                                           FIND_FIRST_EX_LARGE_FETCH);
    if (search == INVALID_HANDLE_VALUE) {
        // The root of an empty disk has no names at all, not even ".".
        const int code = last_error();
        const DWORD attributes = GetFileAttributesW(pattern.substr(0, pattern.size() - 1).c_str());
        const bool is_folder = attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        return code == ERROR_FILE_NOT_FOUND && is_folder ? 0 : code;
    }
    do {
        const std::wstring_view name = found.cFileName;
        if (name != L"." && name != L"..")
            out.add(platform::name_from_wide(name), info_of(found));
    } while (FindNextFileW(search, &found));
    const int code = last_error();
    FindClose(search);
    return code == ERROR_NO_MORE_FILES ? 0 : code;
}
