#include "platform/file_attributes.h"
#include "platform/wide_windows.h"

#include <windows.h>

namespace {

int last_error() noexcept { return static_cast<int>(GetLastError()); }

// Whether the file system keeps access control lists.
bool keeps_lists(HANDLE file) noexcept {
    DWORD flags = 0;
    return GetVolumeInformationByHandleW(file, nullptr, 0, nullptr, nullptr, &flags, nullptr, 0) &&
           (flags & FILE_PERSISTENT_ACLS) != 0;
}

// Reads the list in the form in which it can be set, the entries that come from the folder included.
int read_list(HANDLE file, std::vector<unsigned char>& out) {
    DWORD size = 0;
    while (
        !GetKernelObjectSecurity(file, DACL_SECURITY_INFORMATION, out.data(), static_cast<DWORD>(out.size()), &size)) {
        if (GetLastError() != ERROR_INSUFFICIENT_BUFFER)
            return last_error();
        out.resize(size);
    }
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD revision = 0;
    // Without this, the system would forget which entries come from the folder.
    if (GetSecurityDescriptorControl(out.data(), &control, &revision) && (control & SE_DACL_AUTO_INHERITED) != 0)
        SetSecurityDescriptorControl(out.data(), SE_DACL_AUTO_INHERIT_REQ, SE_DACL_AUTO_INHERIT_REQ);
    return 0;
}

} // namespace

int qor::platform::file_attributes::read(const char* path) {
    m_descriptor.clear();
    std::wstring wide;
    if (!to_wide_path(path, wide))
        return ERROR_INVALID_NAME;
    const HANDLE file = CreateFileW(wide.c_str(), FILE_READ_ATTRIBUTES | READ_CONTROL,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return last_error();
    BY_HANDLE_FILE_INFORMATION about;
    int reason = GetFileInformationByHandle(file, &about) ? 0 : last_error();
    if (reason == 0) {
        m_rights = about.dwFileAttributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
        if (keeps_lists(file))
            reason = read_list(file, m_descriptor);
    }
    CloseHandle(file);
    return reason;
}

int qor::platform::file_attributes::write(std::intptr_t handle) const {
    const HANDLE file = reinterpret_cast<HANDLE>(handle);
    FILE_BASIC_INFO basic{}; // a time of 0 stays as it is
    basic.FileAttributes = m_rights | FILE_ATTRIBUTE_ARCHIVE;
    if (!SetFileInformationByHandle(file, FileBasicInfo, &basic, sizeof basic))
        return last_error();
    if (m_descriptor.empty())
        return 0;
    auto* const list = const_cast<unsigned char*>(m_descriptor.data()); // the system only reads it
    return SetKernelObjectSecurity(file, DACL_SECURITY_INFORMATION, list) ? 0 : last_error();
}
