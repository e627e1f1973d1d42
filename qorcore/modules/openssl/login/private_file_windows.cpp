// Windows files have no mode; an access control list holds the rights. Ours names only the user who runs this process.
#include "private_file.h"

#include "access_list_windows.h"
#include "common/system_reason.h"
#include "qor/glue/own_rights_windows.h"
#include "qor/glue/wide_path_windows.h"
#include "support/primitives.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>
#include <windows.h>

#include <aclapi.h>

namespace {

using qor::control::private_file_fault;
using qor::glue::wide_path;

constexpr DWORD all_shares = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr DWORD reading_rights = FILE_READ_DATA | GENERIC_READ | GENERIC_ALL;
constexpr DWORD writing_rights =
    FILE_WRITE_DATA | FILE_APPEND_DATA | WRITE_DAC | WRITE_OWNER | DELETE | GENERIC_WRITE | GENERIC_ALL;

class handle {
public:
    explicit handle(HANDLE value) noexcept : m_value(value) {}
    handle(const handle&) = delete;
    handle& operator=(const handle&) = delete;
    ~handle() { close(); }
    bool is_open() const noexcept { return m_value != INVALID_HANDLE_VALUE; }
    HANDLE get() const noexcept { return m_value; }
    HANDLE release() noexcept { return std::exchange(m_value, INVALID_HANDLE_VALUE); }
    void close() noexcept {
        if (is_open())
            CloseHandle(release());
    }

private:
    HANDLE m_value;
};

struct local_freer {
    void operator()(void* memory) const noexcept { LocalFree(memory); }
};

bool failed(std::string& reason, DWORD code = GetLastError()) {
    reason = qor::modules::system_reason(static_cast<int>(code));
    return false;
}

bool failed(private_file_fault fault, std::string& reason) {
    reason = qor::control::reason_of(fault);
    return false;
}

// Whether no other account has one of these rights, or owns the file.
bool is_own(HANDLE file, DWORD forbidden, std::string& reason) {
    const std::vector<unsigned char> user = qor::glue::current_user();
    if (user.empty())
        return failed(reason);
    PSID owner = nullptr;
    PACL list = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (const DWORD code = GetSecurityInfo(file, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                           &owner, nullptr, &list, nullptr, &descriptor))
        return failed(reason, code);
    const std::unique_ptr<void, local_freer> freed_later(descriptor);
    if (!qor::control::is_trusted(owner, qor::glue::sid_of(user)))
        return failed(private_file_fault::of_another_owner, reason);
    return qor::control::allows_only_trusted(list, forbidden, qor::glue::sid_of(user)) ||
           failed(private_file_fault::others_have_access, reason);
}

bool read_all(HANDLE file, std::string& text, std::string& reason) {
    // With room for all of it, the text is not moved and leaves no copy of a secret behind.
    LARGE_INTEGER size{};
    if (GetFileSizeEx(file, &size))
        text.reserve(static_cast<std::size_t>(std::min<LONGLONG>(size.QuadPart, qor::control::longest_private_file)));
    struct piece {
        char bytes[4096];
        ~piece() { qor::crypto::wipe(bytes, sizeof bytes); }
    } piece;
    for (DWORD got = 0;;) {
        if (!ReadFile(file, piece.bytes, sizeof piece.bytes, &got, nullptr))
            return failed(reason);
        if (got == 0)
            return true;
        text.append(piece.bytes, got);
        if (text.size() > qor::control::longest_private_file)
            return failed(private_file_fault::too_long, reason);
    }
}

// While another process replaces a file that is being read, Windows briefly denies access to both, whatever their share
// modes. So a refusal counts only if it lasts. On false, the system's last error gives the reason.
template <class TRY>
bool succeeds_within(std::chrono::milliseconds longest, TRY attempt) {
    const auto end = std::chrono::steady_clock::now() + longest;
    while (!attempt()) {
        const DWORD code = GetLastError();
        if ((code != ERROR_SHARING_VIOLATION && code != ERROR_ACCESS_DENIED) ||
            std::chrono::steady_clock::now() >= end) {
            SetLastError(code);
            return false;
        }
        Sleep(1);
    }
    return true;
}

// For reading or replacing a file. Short, because a listener's peer may be waiting.
constexpr std::chrono::seconds file_patience{1};

handle open_file(const std::wstring& path, DWORD access, DWORD shares, DWORD disposition, DWORD flags,
                 std::chrono::milliseconds longest, SECURITY_ATTRIBUTES* rights = nullptr) {
    HANDLE file = INVALID_HANDLE_VALUE;
    succeeds_within(longest, [&] {
        file = CreateFileW(path.c_str(), access, shares, rights, disposition, flags, nullptr);
        return file != INVALID_HANDLE_VALUE;
    });
    return handle(file);
}

bool read_file(const std::string& path, DWORD forbidden, std::string& text, std::string& reason, bool& is_missing) {
    text.clear();
    const handle file = open_file(wide_path(path), GENERIC_READ | READ_CONTROL, all_shares, OPEN_EXISTING,
                                  FILE_ATTRIBUTE_NORMAL, file_patience);
    is_missing = !file.is_open() && (GetLastError() == ERROR_FILE_NOT_FOUND || GetLastError() == ERROR_PATH_NOT_FOUND);
    if (is_missing)
        return true;
    if (!file.is_open())
        return failed(reason);
    if (GetFileType(file.get()) != FILE_TYPE_DISK)
        return failed(private_file_fault::no_plain_file, reason);
    return is_own(file.get(), forbidden, reason) && read_all(file.get(), text, reason);
}

} // namespace

bool qor::control::read_private_file(const std::string& path, std::string& text, std::string& reason,
                                     bool& is_missing) {
    return read_file(path, reading_rights | writing_rights, text, reason, is_missing);
}

bool qor::control::read_own_file(const std::string& path, std::string& text, std::string& reason) {
    bool is_missing;
    return read_file(path, writing_rights, text, reason, is_missing);
}

// Ignores errors, because opening the file reports them.
bool qor::control::make_private_folders(const std::string& path, std::string&) {
    for (std::size_t end = path.find_first_of("/\\", 3); end != path.npos; end = path.find_first_of("/\\", end + 1))
        CreateDirectoryW(wide_path(path.substr(0, end)).c_str(), nullptr);
    return true;
}

// A file that only one process at a time can open. The system deletes it with the last handle.
qor::control::private_file_lock::private_file_lock(const std::string& file) : m_path(file + ".lock") {
    make_private_folders(file, m_reason);
    qor::glue::own_rights rights;
    if (rights.get() == nullptr) {
        failed(m_reason);
        return;
    }
    // While the file is being deleted, Windows denies access to it, so try again for a while.
    handle lock = open_file(wide_path(m_path), GENERIC_WRITE, 0, OPEN_ALWAYS,
                            FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, lock_patience, rights.get());
    if (lock.is_open()) {
        // Somebody else may have made the file before, to hold the lock whenever they like.
        if (is_own(lock.get(), reading_rights | writing_rights, m_reason))
            m_handle = reinterpret_cast<std::intptr_t>(lock.release());
        else
            m_reason.insert(0, m_path + ": ");
    } else if (GetLastError() == ERROR_SHARING_VIOLATION)
        m_reason = reason_of(private_file_fault::locked, m_path);
    else
        failed(m_reason);
}

qor::control::private_file_lock::~private_file_lock() {
    if (m_handle != -1)
        CloseHandle(reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(m_handle)));
}
