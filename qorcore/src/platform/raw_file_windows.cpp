#include "platform/raw_file.h"
#include "platform/wide_windows.h"

#include <algorithm>
#include <windows.h>

namespace {

// ERROR_DIRECTORY_NOT_SUPPORTED, which many headers do not have yet.
constexpr int operation_on_folder = 336;

HANDLE as_handle(std::intptr_t value) noexcept { return reinterpret_cast<HANDLE>(value); }

int last_error() noexcept { return static_cast<int>(GetLastError()); }

// The number of bytes to pass to the system in one call.
DWORD piece(std::size_t size) noexcept { return static_cast<DWORD>(std::min<std::size_t>(size, 0x40000000)); }

HANDLE open_handle(const wchar_t* path, qor::platform::raw_file::access how) noexcept {
    using access = qor::platform::raw_file::access;
    // Others may read, write and delete a file that is open here, as on every other system.
    constexpr DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    switch (how) {
    case access::read:
    case access::regular:
        return CreateFileW(path, GENERIC_READ, share, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    case access::truncate:
        return CreateFileW(path, GENERIC_WRITE, share, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    case access::append:
        return CreateFileW(path, FILE_APPEND_DATA, share, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    case access::create:
        return CreateFileW(path, GENERIC_WRITE, share, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    }
    return INVALID_HANDLE_VALUE;
}

bool is_folder(const wchar_t* path) noexcept {
    const DWORD attributes = GetFileAttributesW(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

} // namespace

const int qor::platform::raw_file::not_regular = ERROR_SEEK_ON_DEVICE;
const int qor::platform::raw_file::is_taken = ERROR_FILE_EXISTS;

bool qor::platform::raw_file::is_missing(int reason) noexcept {
    return reason == ERROR_FILE_NOT_FOUND || reason == ERROR_PATH_NOT_FOUND;
}

int qor::platform::raw_file::open(const char* path, access how) noexcept {
    close();
    std::wstring wide;
    if (!platform::to_wide(path, wide))
        return ERROR_INVALID_NAME;
    const HANDLE handle = open_handle(wide.c_str(), how);
    if (handle == INVALID_HANDLE_VALUE) {
        const int reason = last_error();
        // "Access denied" would make the user check the access rights, which are not the problem.
        return reason == ERROR_ACCESS_DENIED && is_folder(wide.c_str()) ? operation_on_folder : reason;
    }
    if (how == access::regular && GetFileType(handle) != FILE_TYPE_DISK) {
        CloseHandle(handle);
        return not_regular;
    }
    m_handle = reinterpret_cast<std::intptr_t>(handle);
    return 0;
}

void qor::platform::raw_file::close() noexcept {
    if (is_open())
        CloseHandle(as_handle(m_handle));
    m_handle = -1;
}

int qor::platform::raw_file::read(void* bytes, std::size_t size, std::size_t* count) noexcept {
    DWORD got = 0;
    *count = 0;
    if (!ReadFile(as_handle(m_handle), bytes, piece(size), &got, nullptr)) {
        const int reason = last_error();
        // The pipe has no writer any more: this is its end.
        return reason == ERROR_BROKEN_PIPE || reason == ERROR_HANDLE_EOF ? 0 : reason;
    }
    *count = got;
    return 0;
}

bool qor::platform::raw_file::has_to_wait() const noexcept {
    switch (GetFileType(as_handle(m_handle))) {
    case FILE_TYPE_PIPE: {
        DWORD available = 0;
        return PeekNamedPipe(as_handle(m_handle), nullptr, 0, nullptr, &available, nullptr) && available == 0;
    }
    case FILE_TYPE_CHAR:
        return WaitForSingleObject(as_handle(m_handle), 0) == WAIT_TIMEOUT;
    default:
        return false;
    }
}

int qor::platform::raw_file::read_at(std::uint64_t offset, void* bytes, std::size_t size, std::size_t* count) noexcept {
    char* const begin = static_cast<char*>(bytes);
    for (*count = 0; *count < size;) {
        OVERLAPPED place{};
        place.Offset = static_cast<DWORD>(offset + *count);
        place.OffsetHigh = static_cast<DWORD>((offset + *count) >> 32);
        DWORD got = 0;
        if (!ReadFile(as_handle(m_handle), begin + *count, piece(size - *count), &got, &place)) {
            const int reason = last_error();
            return reason == ERROR_HANDLE_EOF ? 0 : reason;
        }
        if (got == 0)
            break;
        *count += got;
    }
    return 0;
}

int qor::platform::raw_file::size(std::uint64_t* bytes) noexcept {
    LARGE_INTEGER size;
    if (!GetFileSizeEx(as_handle(m_handle), &size))
        return last_error();
    *bytes = static_cast<std::uint64_t>(size.QuadPart);
    return 0;
}

int qor::platform::raw_file::write(const void* bytes, std::size_t size) noexcept {
    const char* at = static_cast<const char*>(bytes);
    while (size != 0) {
        DWORD written = 0;
        if (!WriteFile(as_handle(m_handle), at, piece(size), &written, nullptr))
            return last_error();
        at += written;
        size -= written;
    }
    return 0;
}

// On Windows, no code closes handles that it does not know.
int qor::platform::raw_file::recover(const char*) noexcept { return 0; }

void qor::platform::raw_file::cut(std::uint64_t size) noexcept {
    FILE_END_OF_FILE_INFO end;
    end.EndOfFile.QuadPart = static_cast<LONGLONG>(size);
    SetFileInformationByHandle(as_handle(m_handle), FileEndOfFileInfo, &end, sizeof end);
}
