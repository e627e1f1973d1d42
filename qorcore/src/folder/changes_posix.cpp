#include "folder/changes.h"

#include "platform/file_status_posix.h"
#include "platform/uninterrupted_posix.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

using qor::platform::uninterrupted;

int code_of(int result) noexcept { return result == 0 ? 0 : errno; }

// For file systems that cannot rename exclusively. A file gets a second name, which fails if that exists. A folder can
// have only one name, so whatever takes the new name between the two calls is lost, if it is an empty folder.
int rename_exclusively(const char* from, const char* to) noexcept {
    struct statx status;
    const auto examine = [&status](const char* path) {
        return uninterrupted([&] { return statx(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, STATX_TYPE, &status); });
    };
    if (examine(from) != 0)
        return errno;
    if (!S_ISDIR(status.stx_mode)) {
        if (uninterrupted([&] { return linkat(AT_FDCWD, from, AT_FDCWD, to, 0); }) == 0)
            return code_of(uninterrupted([&] { return unlinkat(AT_FDCWD, from, 0); }));
        if (errno != EPERM && errno != EOPNOTSUPP && errno != EMLINK)
            return errno;
    }
    if (examine(to) == 0)
        return EEXIST;
    return errno != ENOENT ? errno : code_of(uninterrupted([&] { return renameat(AT_FDCWD, from, AT_FDCWD, to); }));
}

} // namespace

// Codes that rename(2) and the calls of a deletion do not return for another reason.
const int qor::folder::is_mount_point = -1;
const int qor::folder::changes_meanwhile = -2;
const int qor::folder::other_file_system = EXDEV;

bool qor::folder::is_taken(int code) noexcept { return code == EEXIST; }

int qor::folder::create_folder(const char* path, uint32 rights) noexcept {
    return code_of(uninterrupted([&] { return mkdirat(AT_FDCWD, path, rights & 07777u); }));
}

int qor::folder::delete_file(const char* path) noexcept {
    return code_of(uninterrupted([&] { return unlinkat(AT_FDCWD, path, 0); }));
}

int qor::folder::rename(const char* from, const char* to, bool replace) noexcept {
    const unsigned flags = replace ? 0 : RENAME_NOREPLACE;
    const int code = code_of(uninterrupted([&] { return renameat2(AT_FDCWD, from, AT_FDCWD, to, flags); }));
    return !replace && (code == EINVAL || code == ENOSYS) ? rename_exclusively(from, to) : code;
}
