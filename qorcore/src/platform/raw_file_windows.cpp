#include "platform/file_status_windows.h"
#include "platform/raw_file.h"
#include "platform/wide_windows.h"
#include "qor/glue/own_rights_windows.h"

#include <algorithm>
#include <cwchar>
#include <utility>
#include <windows.h>

namespace {

// ERROR_DIRECTORY_NOT_SUPPORTED, which many headers do not have yet.
constexpr int operation_on_folder = 336;

HANDLE as_handle(std::intptr_t value) noexcept { return reinterpret_cast<HANDLE>(value); }

int last_error() noexcept { return static_cast<int>(GetLastError()); }

// The number of bytes to pass to the system in one call.
DWORD piece(std::size_t size) noexcept { return static_cast<DWORD>(std::min<std::size_t>(size, 0x40000000)); }

// Standard input has no name there, so it has that of the other systems.
constexpr wchar_t standard_input[] = L"/dev/stdin";

HANDLE open_standard_input() noexcept {
    HANDLE own = INVALID_HANDLE_VALUE;
    const HANDLE process = GetCurrentProcess();
    const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    if (input == nullptr || input == INVALID_HANDLE_VALUE)
        SetLastError(ERROR_FILE_NOT_FOUND);
    else if (DuplicateHandle(process, input, process, &own, 0, FALSE, DUPLICATE_SAME_ACCESS) != 0)
        return own;
    return INVALID_HANDLE_VALUE;
}

HANDLE open_handle(const wchar_t* path, qor::platform::raw_file::access how) noexcept {
    using access = qor::platform::raw_file::access;
    // Others may read, write and delete a file that is open here, as on every other system.
    constexpr DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    switch (how) {
    case access::read:
        if (std::wcscmp(path, standard_input) == 0)
            return open_standard_input();
        [[fallthrough]];
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

// Others may read and write a file only if both share it, but always rename and delete it, as on every other system.
HANDLE open_handle(const wchar_t* path, const qor::platform::raw_file::terms& how) noexcept {
    const DWORD access = (how.reads ? GENERIC_READ : 0u) | (how.writes ? GENERIC_WRITE : 0u);
    const DWORD share = FILE_SHARE_DELETE | (how.is_shared ? FILE_SHARE_READ | FILE_SHARE_WRITE : 0u);
    const DWORD which = how.is_new ? CREATE_NEW : how.creates ? OPEN_ALWAYS : OPEN_EXISTING;
    if (!how.is_private)
        return CreateFileW(path, access, share, nullptr, which, FILE_ATTRIBUTE_NORMAL, nullptr);
    qor::glue::own_rights rights;
    if (rights.get() == nullptr)
        return INVALID_HANDLE_VALUE;
    return CreateFileW(path, access, share, rights.get(), which, FILE_ATTRIBUTE_NORMAL, nullptr);
}

// The place for a read or a write, whatever the position of the handle.
OVERLAPPED place_of(std::uint64_t offset) noexcept {
    OVERLAPPED place{};
    place.Offset = static_cast<DWORD>(offset);
    place.OffsetHigh = static_cast<DWORD>(offset >> 32);
    return place;
}

// The end of the largest file that the system can count.
constexpr std::uint64_t last_offset = 0x7fffffffffffffff;

constexpr std::uint64_t end_of_file = ~std::uint64_t{0}; // as the place of a write

bool is_folder(const wchar_t* path) noexcept {
    const DWORD attributes = GetFileAttributesW(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// Why a file could not be opened. "Access denied" would make the user check the access rights of a folder, which are
// not the problem.
int reason_against(const wchar_t* path) noexcept {
    const int reason = last_error();
    return reason == ERROR_ACCESS_DENIED && is_folder(path) ? operation_on_folder : reason;
}

// Opens PATH in one of the two ways above. With IS_REGULAR, anything but a file on a disk is refused.
template <typename HOW>
int open_path(const char* path, const HOW& how, bool is_regular, HANDLE& handle) noexcept {
    std::wstring wide;
    if (!qor::platform::to_wide_path(path, wide))
        return ERROR_INVALID_NAME;
    handle = open_handle(wide.c_str(), how);
    if (handle == INVALID_HANDLE_VALUE)
        return reason_against(wide.c_str());
    if (!is_regular || GetFileType(handle) == FILE_TYPE_DISK)
        return 0;
    CloseHandle(handle);
    return qor::platform::raw_file::not_regular;
}

// Returns 0 if both handles are of the same file.
int compare(HANDLE one, HANDLE other) noexcept {
    BY_HANDLE_FILE_INFORMATION ours, theirs;
    if (!GetFileInformationByHandle(one, &ours) || !GetFileInformationByHandle(other, &theirs))
        return last_error();
    return ours.dwVolumeSerialNumber == theirs.dwVolumeSerialNumber && ours.nFileIndexLow == theirs.nFileIndexLow &&
                   ours.nFileIndexHigh == theirs.nFileIndexHigh
               ? 0
               : qor::platform::raw_file::was_replaced;
}

} // namespace

const int qor::platform::raw_file::not_regular = ERROR_SEEK_ON_DEVICE;
const int qor::platform::raw_file::is_taken = ERROR_FILE_EXISTS;
const int qor::platform::raw_file::in_use = ERROR_SHARING_VIOLATION;
const int qor::platform::raw_file::was_replaced = -1;
const int qor::platform::raw_file::no_hole = -1;

bool qor::platform::raw_file::is_missing(int reason) noexcept {
    return reason == ERROR_FILE_NOT_FOUND || reason == ERROR_PATH_NOT_FOUND;
}

int qor::platform::raw_file::open(const char* path, access how) noexcept {
    close();
    HANDLE handle = INVALID_HANDLE_VALUE;
    const int reason = open_path(path, how, how == access::regular, handle);
    return reason == 0 ? adopt(reinterpret_cast<std::intptr_t>(handle)) : reason;
}

int qor::platform::raw_file::open(const char* path, const terms& how) noexcept {
    close();
    HANDLE handle = INVALID_HANDLE_VALUE;
    const int reason = open_path(path, how, true, handle);
    if (reason != 0)
        return reason;
    m_appends = how.appends;
    adopt(reinterpret_cast<std::intptr_t>(handle));
    return how.truncates ? set_size(0) : 0;
}

int qor::platform::raw_file::adopt(std::intptr_t handle) noexcept {
    m_handle = handle;
    return 0;
}

int qor::platform::raw_file::close() noexcept {
    m_appends = false;
    return !is_open() || CloseHandle(as_handle(std::exchange(m_handle, -1))) ? 0 : last_error();
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
    size = offset < last_offset ? std::min(size, static_cast<std::size_t>(last_offset - offset)) : 0;
    for (*count = 0; *count < size;) {
        OVERLAPPED place = place_of(offset + *count);
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

int qor::platform::raw_file::status(file_status& out) noexcept { return get_status(as_handle(m_handle), out); }

int qor::platform::raw_file::write(const void* bytes, std::size_t size, std::size_t* count) noexcept {
    std::size_t done = 0;
    int reason = 0;
    while (done != size && reason == 0) {
        OVERLAPPED end = place_of(end_of_file);
        DWORD written = 0;
        if (!WriteFile(as_handle(m_handle), static_cast<const char*>(bytes) + done, piece(size - done), &written,
                       m_appends ? &end : nullptr))
            reason = last_error();
        done += written;
    }
    if (count != nullptr)
        *count = done;
    return reason;
}

int qor::platform::raw_file::write_at(std::uint64_t offset, const void* bytes, std::size_t size,
                                      std::size_t* count) noexcept {
    *count = 0;
    if (offset > last_offset || size > last_offset - offset)
        return size != 0 ? ERROR_INVALID_PARAMETER : 0;
    while (*count < size) {
        OVERLAPPED place = place_of(offset + *count);
        DWORD written = 0;
        if (!WriteFile(as_handle(m_handle), static_cast<const char*>(bytes) + *count, piece(size - *count), &written,
                       &place))
            return last_error();
        *count += written;
    }
    return 0;
}

int qor::platform::raw_file::sync() noexcept { return FlushFileBuffers(as_handle(m_handle)) ? 0 : last_error(); }

int qor::platform::raw_file::set_size(std::uint64_t size) noexcept {
    if (size > last_offset)
        return ERROR_INVALID_PARAMETER;
    FILE_END_OF_FILE_INFO end;
    end.EndOfFile.QuadPart = static_cast<LONGLONG>(size);
    return SetFileInformationByHandle(as_handle(m_handle), FileEndOfFileInfo, &end, sizeof end) ? 0 : last_error();
}

int qor::platform::raw_file::remove(const char* path) noexcept {
    std::wstring wide;
    if (!platform::to_wide_path(path, wide))
        return ERROR_INVALID_NAME;
    const HANDLE there =
        CreateFileW(wide.c_str(), DELETE | FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (there == INVALID_HANDLE_VALUE)
        return last_error();
    FILE_DISPOSITION_INFO gone{TRUE};
    int reason = compare(as_handle(m_handle), there);
    if (reason == 0 && !SetFileInformationByHandle(there, FileDispositionInfo, &gone, sizeof gone))
        reason = last_error();
    CloseHandle(there);
    return reason;
}

// Only a file that a program has marked as sparse can have holes here, and the system's own copies do not keep them.
int qor::platform::raw_file::next_run(std::uint64_t limit, run& out) noexcept {
    out = {limit, false};
    return 0;
}

int qor::platform::raw_file::skip_hole(raw_file&, std::uint64_t) noexcept { return no_hole; }

// The system copies only whole files by their paths.
std::uint64_t qor::platform::raw_file::copy_from(raw_file&, std::uint64_t) noexcept { return 0; }

// On Windows, no code closes handles that it does not know.
bool qor::platform::raw_file::is_at(const char* path) const noexcept {
    std::wstring wide;
    if (!platform::to_wide_path(path, wide))
        return false;
    const HANDLE there =
        CreateFileW(wide.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (there == INVALID_HANDLE_VALUE)
        return false;
    const bool is_ours = compare(as_handle(m_handle), there) == 0;
    CloseHandle(there);
    return is_ours;
}

int qor::platform::raw_file::recover(const char*) noexcept { return 0; }

void qor::platform::raw_file::cut(std::uint64_t size) noexcept {
    LARGE_INTEGER end;
    end.QuadPart = static_cast<LONGLONG>(size);
    if (set_size(size) == 0)
        SetFilePointerEx(as_handle(m_handle), end, nullptr, FILE_BEGIN);
}
