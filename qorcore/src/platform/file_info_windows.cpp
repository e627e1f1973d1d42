#include "platform/file_info.h"

#include "platform/file_status_windows.h"
#include "platform/system_library_windows.h"
#include "platform/wide_windows.h"

#include <aclapi.h>
#include <cstring>
#include <memory>
#include <sddl.h>
#include <string>
#include <windows.h>
#include <winioctl.h>

namespace {

using qor::platform::find_function;

struct close_handle {
    using pointer = HANDLE;
    void operator()(HANDLE handle) const noexcept { CloseHandle(handle); }
};
using owned_handle = std::unique_ptr<HANDLE, close_handle>;

struct free_local {
    void operator()(void* memory) const noexcept { LocalFree(memory); }
};

int last_error() noexcept { return static_cast<int>(GetLastError()); }

// Returns a system error code. Whoever may not read the security of a file may still know the rest.
int open_for_information(const char* path, bool follow, owned_handle& out) noexcept {
    std::wstring wide;
    if (!qor::platform::to_wide_path(path, wide))
        return ERROR_INVALID_NAME;
    constexpr DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const DWORD flags = FILE_FLAG_BACKUP_SEMANTICS | (follow ? 0 : FILE_FLAG_OPEN_REPARSE_POINT);
    HANDLE handle =
        CreateFileW(wide.c_str(), FILE_READ_ATTRIBUTES | READ_CONTROL, share, nullptr, OPEN_EXISTING, flags, nullptr);
    if (handle == INVALID_HANDLE_VALUE && GetLastError() == ERROR_ACCESS_DENIED)
        handle = CreateFileW(wide.c_str(), FILE_READ_ATTRIBUTES, share, nullptr, OPEN_EXISTING, flags, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
        return last_error();
    out.reset(handle);
    return 0;
}

// Devices and pipes have nothing but their kind.
int examine(HANDLE handle, qor::platform::file_status& out) noexcept {
    const DWORD type = GetFileType(handle);
    if (type != FILE_TYPE_CHAR && type != FILE_TYPE_PIPE)
        return qor::platform::get_status(handle, out);
    out = {};
    out.info.kind = type == FILE_TYPE_CHAR ? qorFileKind::character_device : qorFileKind::pipe;
    return 0;
}

int examine(const char* path, bool follow, owned_handle& handle, qor::platform::file_status& out) noexcept {
    const int code = open_for_information(path, follow, handle);
    return code != 0 ? code : examine(handle.get(), out);
}

// Returns "DOMAIN\name", or the text of the SID if the system knows no name.
std::string name_of(PSID sid) {
    auto* const look_up = find_function<decltype(LookupAccountSidW)>(L"advapi32.dll", "LookupAccountSidW");
    auto* const print = find_function<decltype(ConvertSidToStringSidW)>(L"advapi32.dll", "ConvertSidToStringSidW");
    if (sid == nullptr || look_up == nullptr || print == nullptr)
        return {};
    wchar_t name[256], domain[256];
    DWORD name_size = 256, domain_size = 256;
    SID_NAME_USE use;
    if (look_up(nullptr, sid, name, &name_size, domain, &domain_size, &use))
        return qor::platform::from_wide(domain_size != 0 ? std::wstring(domain) + L'\\' + name : std::wstring(name));
    wchar_t* text = nullptr;
    if (!print(sid, &text))
        return {};
    const std::unique_ptr<wchar_t, free_local> owned(text);
    return qor::platform::from_wide(text);
}

// Leaves both names empty if the caller may not read them.
void read_owners(HANDLE handle, qorString& owner_name, qorString& group_name) {
    owner_name.Empty();
    group_name.Empty();
    auto* const read = find_function<decltype(GetSecurityInfo)>(L"advapi32.dll", "GetSecurityInfo");
    PSID owner = nullptr, group = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (read == nullptr || read(handle, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION, &owner,
                                &group, nullptr, nullptr, &descriptor) != ERROR_SUCCESS)
        return;
    const std::unique_ptr<void, free_local> owned(descriptor);
    owner_name = name_of(owner);
    group_name = name_of(group);
}

// The layout of the data that FSCTL_GET_REPARSE_POINT returns for symbolic links and junctions, in front of the names.
struct link_head {
    ULONG tag;
    USHORT length, reserved;
    USHORT substitute_offset, substitute_length, print_offset, print_length;
};

// Returns the text that the user gave the link; empty if it cannot be read.
std::string read_target(HANDLE handle) {
    alignas(link_head) char data[MAXIMUM_REPARSE_DATA_BUFFER_SIZE];
    DWORD size = 0;
    if (!DeviceIoControl(handle, FSCTL_GET_REPARSE_POINT, nullptr, 0, data, sizeof data, &size, nullptr) ||
        size < sizeof(link_head))
        return {};
    link_head head;
    std::memcpy(&head, data, sizeof head);
    const std::size_t names = sizeof head + (head.tag == IO_REPARSE_TAG_SYMLINK ? sizeof(ULONG) : 0);
    const bool has_print = head.print_length != 0;
    const std::size_t begin = names + (has_print ? head.print_offset : head.substitute_offset);
    const std::size_t length = has_print ? head.print_length : head.substitute_length;
    if (begin + length > size)
        return {};
    std::wstring text(length / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), data + begin, text.size() * sizeof(wchar_t));
    return qor::platform::name_from_wide(text);
}

} // namespace

int qor::platform::file_info(const char* path, bool follow, qorFileInfo& out) noexcept {
    owned_handle handle;
    file_status status;
    const int code = examine(path, follow, handle, status);
    if (code == 0)
        out = status.info;
    return code;
}

int qor::platform::file_info_ex(const char* path, bool follow, qorFileInfoEx& out) noexcept {
    owned_handle handle;
    file_status status;
    if (const int code = examine(path, follow, handle, status))
        return code;
    copy_status(status, out);
    read_owners(handle.get(), out.owner_name, out.group_name);
    out.target = status.info.kind == qorFileKind::link ? read_target(handle.get()).c_str() : "";
    return 0;
}

bool qor::platform::means_no_file(int code) noexcept {
    return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND || code == ERROR_INVALID_NAME;
}
