#include "platform/file_info.h"

#include "platform/file_status_posix.h"
#include "platform/uninterrupted_posix.h"

#include <cerrno>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using qor::platform::uninterrupted;

// A faulty name service that asks for more room each time must not use up all memory.
constexpr std::size_t max_entry_size = std::size_t{1} << 20;

// No call mounts anything.
int examine(const char* path, bool follow, qor::platform::file_status& status) noexcept {
    return qor::platform::get_status(AT_FDCWD, path, AT_NO_AUTOMOUNT | (follow ? 0 : AT_SYMLINK_NOFOLLOW), status);
}

// Returns the name of a user or group, with one of the C library's functions, or the number if it has no name.
template <class ENTRY, class ID>
std::string name_of(int (*read)(ID, ENTRY*, char*, std::size_t, ENTRY**), char* ENTRY::*name, ID number) {
    std::vector<char> buffer;
    ENTRY entry;
    ENTRY* found = nullptr;
    int code = ERANGE;
    for (std::size_t size = 1024; code == ERANGE && size <= max_entry_size; size *= 2) {
        buffer.resize(size);
        code = read(number, &entry, buffer.data(), buffer.size(), &found);
    }
    return found != nullptr ? found->*name : std::to_string(number);
}

// Links of /proc report size 0, and any link may change between two calls, so the text decides how long it is.
int read_target(const char* path, std::string& target) {
    for (std::size_t size = 256;; size *= 2) {
        target.resize(size);
        const ssize_t length = uninterrupted([&] { return readlink(path, target.data(), target.size()); });
        if (length < 0)
            return errno;
        if (static_cast<std::size_t>(length) < size) {
            target.resize(static_cast<std::size_t>(length));
            return 0;
        }
    }
}

} // namespace

int qor::platform::file_info(const char* path, bool follow, qorFileInfo& out) noexcept {
    file_status status;
    const int code = examine(path, follow, status);
    if (code == 0)
        out = status.info;
    return code;
}

int qor::platform::file_info_ex(const char* path, bool follow, qorFileInfoEx& out) noexcept {
    file_status status;
    if (const int code = examine(path, follow, status))
        return code;
    std::string target;
    if (status.info.kind == qorFileKind::link)
        if (const int code = read_target(path, target))
            return code;
    copy_status(status, out);
    out.owner_name = name_of(getpwuid_r, &passwd::pw_name, uid_t{status.owner});
    out.group_name = name_of(getgrgid_r, &group::gr_name, gid_t{status.group});
    out.target = target;
    return 0;
}

bool qor::platform::means_no_file(int code) noexcept { return code == ENOENT || code == ENOTDIR; }
