#include "platform/file_status_posix.h"

#include "platform/uninterrupted_posix.h"

#include <cerrno>
#include <limits>
#include <sys/sysmacros.h>

namespace {

constexpr int64 ticks_per_second = 10'000'000;
constexpr int64 seconds_from_1601_to_1970 = 11'644'473'600;

} // namespace

uint64 qor::platform::clock_of(const statx_timestamp& time, uint8& rest) noexcept {
    constexpr int64 last_second =
        static_cast<int64>(std::numeric_limits<uint64>::max() / ticks_per_second) - seconds_from_1601_to_1970 - 1;
    rest = 0;
    if (time.tv_sec < -seconds_from_1601_to_1970)
        return 1; // 0 would mean that the time is not known
    if (time.tv_sec > last_second)
        return std::numeric_limits<uint64>::max();
    rest = static_cast<uint8>(time.tv_nsec % 100);
    return static_cast<uint64>(time.tv_sec + seconds_from_1601_to_1970) * ticks_per_second + time.tv_nsec / 100;
}

qorFileKind qor::platform::kind_of(unsigned mode) noexcept {
    switch (mode & S_IFMT) {
    case S_IFREG:
        return qorFileKind::file;
    case S_IFDIR:
        return qorFileKind::folder;
    case S_IFLNK:
        return qorFileKind::link;
    case S_IFIFO:
        return qorFileKind::pipe;
    case S_IFSOCK:
        return qorFileKind::socket;
    case S_IFCHR:
        return qorFileKind::character_device;
    case S_IFBLK:
        return qorFileKind::block_device;
    default:
        return qorFileKind::unknown;
    }
}

bool qor::platform::has_size(qorFileKind kind) noexcept {
    return kind == qorFileKind::file || kind == qorFileKind::link;
}

int qor::platform::get_status(int folder, const char* path, int flags, file_status& out) noexcept {
    struct statx status;
    if (uninterrupted([&] { return statx(folder, path, flags, STATX_BASIC_STATS | STATX_BTIME, &status); }) != 0)
        return errno;
    out = {};
    out.info.kind = kind_of(status.stx_mode);
    out.info.rights = status.stx_mode & 07777u;
    out.info.size = has_size(out.info.kind) ? status.stx_size : 0;
    out.info.modified = clock_of(status.stx_mtime, out.modified_rest);
    out.info.accessed = clock_of(status.stx_atime, out.accessed_rest);
    if ((status.stx_mask & STATX_BTIME) != 0)
        out.info.created = clock_of(status.stx_btime, out.created_rest);
    out.changed = clock_of(status.stx_ctime, out.changed_rest);
    out.allocated = status.stx_blocks * 512;
    out.links = status.stx_nlink;
    out.device = makedev(status.stx_dev_major, status.stx_dev_minor);
    out.id[0] = status.stx_ino;
    out.owner = status.stx_uid;
    out.group = status.stx_gid;
    return 0;
}
