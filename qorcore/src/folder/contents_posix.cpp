#include "folder/contents.h"

#include "folder/entries_posix.h"
#include "platform/uninterrupted_posix.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

using qor::platform::uninterrupted;

// Few calls for a folder of any size; small beside the list.
constexpr std::size_t block_size = 256 * 1024;

// Examines one name. Asks the file system for no more than the list has. Returns the system's error code.
int examine(int folder, const dirent64& entry, qorFileInfo& info) noexcept {
    constexpr int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;
    constexpr unsigned mask = STATX_TYPE | STATX_SIZE | STATX_MTIME;
    struct statx status;
    if (uninterrupted([&] { return statx(folder, entry.d_name, flags, mask, &status); }) == 0) {
        uint8 rest;
        info.kind = qor::platform::kind_of(status.stx_mode);
        info.size = qor::platform::has_size(info.kind) ? status.stx_size : 0;
        info.modified = qor::platform::clock_of(status.stx_mtime, rest);
        return 0;
    }
    // The folder may be read, but not searched. The kind stands in it, if the file system keeps it there.
    if (errno != EACCES && errno != EPERM)
        return errno;
    info.kind = qor::platform::kind_of(DTTOIF(entry.d_type));
    return 0;
}

} // namespace

int qor::folder::read_contents(const char* path, listing& out, std::string& failed) {
    failed = path;
    const int folder = uninterrupted([&] { return open(path, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC); });
    if (folder < 0)
        return errno;
    const int code = each_entry(folder, block_size, [&](const dirent64& entry, std::string_view name) {
        qorFileInfo info;
        const int reason = examine(folder, entry, info);
        if (reason == ENOENT)
            return 0; // it has just disappeared
        if (reason != 0)
            failed.append(failed.ends_with('/') ? "" : "/").append(name);
        else
            out.add(name, info);
        return reason;
    });
    close(folder);
    return code;
}
