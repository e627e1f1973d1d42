#include "debug/surviving_memory.h"
#include "platform/wide_windows.h"
#include "qor/glue/own_rights_windows.h"

#include <windows.h>

int qor::debug::surviving_memory::open(const std::string& path) noexcept {
    std::wstring wide;
    if (!platform::to_wide_path(path, wide))
        return ERROR_INVALID_NAME;
    constexpr DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    // Only the owner may read the file, because it contains trace lines.
    glue::own_rights rights;
    if (rights.get() == nullptr)
        return static_cast<int>(GetLastError());
    const HANDLE file = CreateFileW(wide.c_str(), GENERIC_READ | GENERIC_WRITE, share, rights.get(), CREATE_NEW,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return static_cast<int>(GetLastError());
    int reason = 0;
    // The mapping sets the size of the file; the view keeps the mapping and the file open.
    const HANDLE mapping = CreateFileMappingW(file, nullptr, PAGE_READWRITE, 0, size, nullptr);
    if (mapping != nullptr) {
        m_bytes = static_cast<char*>(MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, size));
        if (m_bytes == nullptr)
            reason = static_cast<int>(GetLastError());
        CloseHandle(mapping);
    } else {
        reason = static_cast<int>(GetLastError());
    }
    CloseHandle(file);
    if (reason != 0)
        DeleteFileW(wide.c_str());
    else
        m_path = path;
    return reason;
}

void qor::debug::surviving_memory::unmap() noexcept { UnmapViewOfFile(m_bytes); }

void qor::debug::surviving_memory::remove_file() noexcept {
    std::wstring wide;
    if (platform::to_wide_path(m_path, wide))
        DeleteFileW(wide.c_str());
}

std::string qor::debug::full_name_on_disk(const char* path) noexcept {
    std::wstring wide, form;
    if (!platform::to_wide(path, wide) || !platform::to_wide_path(path, form))
        return {};
    const DWORD attributes = GetFileAttributesW(form.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE)) != 0)
        return {};
    std::wstring full(GetFullPathNameW(wide.c_str(), 0, nullptr, nullptr), L'\0');
    full.resize(GetFullPathNameW(wide.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr));
    return platform::from_wide(full);
}
