#include "net.h"
#include "private_file.h"

#include <cstdlib>
#include <string>
#include <windows.h>

namespace {

class handle {
public:
    explicit handle(HANDLE value) noexcept : m_value(value) {}
    handle(const handle&) = delete;
    handle& operator=(const handle&) = delete;
    ~handle() {
        if (is_open())
            CloseHandle(m_value);
    }
    bool is_open() const noexcept { return m_value != INVALID_HANDLE_VALUE; }
    HANDLE get() const noexcept { return m_value; }

private:
    HANDLE m_value;
};

std::wstring wide(const std::string& text) {
    std::wstring out(text.size(), L'\0');
    out.resize(static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                                            out.data(), static_cast<int>(out.size()))));
    return out;
}

std::string narrow(const std::wstring& text) {
    std::string out(3 * text.size(), '\0');
    out.resize(static_cast<std::size_t>(WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                                            out.data(), static_cast<int>(out.size()), nullptr, nullptr)));
    return out;
}

bool fail(std::string& reason) {
    reason = qor::net::reason_of(static_cast<int>(GetLastError()));
    return false;
}

void make_folders(const std::string& path) {
    for (std::size_t end = path.find_first_of("/\\", 3); end != path.npos; end = path.find_first_of("/\\", end + 1))
        (void)CreateDirectoryW(wide(path.substr(0, end)).c_str(), nullptr);
}

} // namespace

bool qor::control::read_private_file(const std::string& path, std::string& text, std::string& reason) {
    text.clear();
    const handle file(CreateFileW(wide(path).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                  nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file.is_open())
        return GetLastError() == ERROR_FILE_NOT_FOUND || GetLastError() == ERROR_PATH_NOT_FOUND || fail(reason);
    char piece[4096];
    for (DWORD got = 0;;) {
        if (!ReadFile(file.get(), piece, sizeof piece, &got, nullptr))
            return fail(reason);
        if (got == 0)
            return true;
        text.append(piece, got);
    }
}

bool qor::control::write_private_file(const std::string& path, const std::string& text, std::string& reason) {
    make_folders(path);
    const std::wstring fresh = wide(path + '.' + std::to_string(GetCurrentProcessId()));
    {
        const handle file(CreateFileW(fresh.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
        DWORD written = 0;
        if (!file.is_open() || !WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) ||
            !FlushFileBuffers(file.get()))
            return fail(reason);
    }
    if (MoveFileExW(fresh.c_str(), wide(path).c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
        return true;
    fail(reason);
    DeleteFileW(fresh.c_str());
    return false;
}

// The folders of a user are his own there; whoever lets others into them has done so on purpose.
bool qor::control::others_may_read(const std::string&) { return false; }

bool qor::control::file_exists(const std::string& path) {
    return GetFileAttributesW(wide(path).c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::string qor::control::configuration_folder() {
    const wchar_t* const folder = _wgetenv(L"APPDATA");
    return folder != nullptr ? narrow(folder) + "/qor/" : std::string();
}
