#include "folder/changes.h"

#include "platform/wide_windows.h"

#include <windows.h>

namespace {

// ERROR_DIRECTORY_NOT_SUPPORTED, which many headers do not have yet.
constexpr int operation_on_folder = 336;

bool exists(const std::wstring& path) noexcept { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

bool is_folder(const std::wstring& path) noexcept {
    return exists(path) && (GetFileAttributesW(path.c_str()) & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

int code_of(BOOL done) noexcept { return done ? 0 : static_cast<int>(GetLastError()); }

} // namespace

// Codes that the system does not use.
const int qor::folder::is_mount_point = -1;
const int qor::folder::changes_meanwhile = -2;
const int qor::folder::other_file_system = ERROR_NOT_SAME_DEVICE;

bool qor::folder::is_taken(int code) noexcept { return code == ERROR_ALREADY_EXISTS || code == ERROR_FILE_EXISTS; }

int qor::folder::create_folder(const char* path, uint32) noexcept {
    std::wstring wide;
    if (!platform::to_wide_path(path, wide))
        return ERROR_INVALID_NAME;
    return code_of(CreateDirectoryW(wide.c_str(), nullptr));
}

// The system refuses to delete a file that is read-only, which elsewhere only matters to those who write to it.
int qor::folder::delete_file(const char* path) noexcept {
    std::wstring wide;
    if (!platform::to_wide_path(path, wide))
        return ERROR_INVALID_NAME;
    const DWORD attributes = GetFileAttributesW(wide.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return code_of(FALSE);
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 ? code_of(RemoveDirectoryW(wide.c_str()))
                                                                : operation_on_folder;
    const bool is_read_only = (attributes & FILE_ATTRIBUTE_READONLY) != 0;
    if (is_read_only)
        SetFileAttributesW(wide.c_str(), attributes & ~DWORD{FILE_ATTRIBUTE_READONLY});
    const int code = code_of(DeleteFileW(wide.c_str()));
    if (code != 0 && is_read_only)
        SetFileAttributesW(wide.c_str(), attributes);
    return code;
}

int qor::folder::rename(const char* from, const char* to, bool replace) noexcept {
    std::wstring wide_from, wide_to;
    if (!platform::to_wide_path(from, wide_from) || !platform::to_wide_path(to, wide_to))
        return ERROR_INVALID_NAME;
    if (!replace && wide_from == wide_to && exists(wide_to))
        return ERROR_ALREADY_EXISTS; // the system would do nothing, successfully
    // Some file systems let a folder and a file replace each other.
    const bool is_other_name = CompareStringOrdinal(wide_from.c_str(), -1, wide_to.c_str(), -1, TRUE) != CSTR_EQUAL;
    if (replace && is_other_name && exists(wide_to) && (is_folder(wide_from) || is_folder(wide_to)))
        return ERROR_ALREADY_EXISTS;
    return code_of(MoveFileExW(wide_from.c_str(), wide_to.c_str(), replace ? MOVEFILE_REPLACE_EXISTING : 0));
}
