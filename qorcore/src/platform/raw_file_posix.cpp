#include "platform/raw_file.h"

#include "platform/file_status_posix.h"
#include "platform/no_write_signals_posix.h"
#include "platform/uninterrupted_posix.h"
#include "qor/glue/regular_file_posix.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

using qor::platform::no_write_signals;
using qor::platform::uninterrupted;

int open_flags(qor::platform::raw_file::access how) noexcept {
    using access = qor::platform::raw_file::access;
    switch (how) {
    case access::read:
    case access::regular: // opened by glue::open_regular_file()
        return O_RDONLY;
    case access::truncate:
        return O_WRONLY | O_CREAT | O_TRUNC;
    case access::append:
        return O_WRONLY | O_CREAT | O_APPEND;
    case access::create:
        return O_WRONLY | O_CREAT | O_EXCL;
    }
    return O_RDONLY;
}

int open_handle(const char* path, qor::platform::raw_file::access how) noexcept {
    struct stat status;
    if (how == qor::platform::raw_file::access::regular)
        return qor::glue::open_regular_file(path, status);
    int handle;
    do
        handle = open(path, open_flags(how) | O_CLOEXEC | O_NOCTTY, 0666);
    while (handle < 0 && errno == EINTR);
    return handle;
}

int descriptor_of(std::intptr_t handle) noexcept { return static_cast<int>(handle); }

// The end of the largest file that the system can count.
constexpr std::uint64_t last_offset = std::numeric_limits<off_t>::max();

int open_flags(const qor::platform::raw_file::terms& how) noexcept {
    int flags = !how.writes ? O_RDONLY : how.reads ? O_RDWR : O_WRONLY;
    if (how.creates)
        flags |= O_CREAT;
    if (how.is_new)
        flags |= O_CREAT | O_EXCL;
    if (how.appends)
        flags |= O_APPEND;
    // Should a pipe or a device take the place of the file, opening it must not wait.
    return flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
}

// Checks the type of an open file, takes the lock by which openers exclude each other, and truncates only then: what
// another has open unshared must stay as it is. A file system without locks excludes nobody.
int take(int file, const qor::platform::raw_file::terms& how) noexcept {
    struct stat status;
    if (fstat(file, &status) != 0)
        return errno;
    if (const int reason = qor::glue::reason_against(status))
        return reason;
    if (uninterrupted([&] { return flock(file, (how.is_shared ? LOCK_SH : LOCK_EX) | LOCK_NB); }) != 0 &&
        errno == EWOULDBLOCK)
        return EWOULDBLOCK;
    if (how.truncates && uninterrupted([&] { return ftruncate(file, 0); }) != 0)
        return errno;
    return 0;
}

bool is_identity(const struct stat& status, const std::uint64_t (&identity)[2]) noexcept {
    return status.st_dev == identity[0] && status.st_ino == identity[1];
}

// Writes all bytes by `call`, which gets the bytes, their number, and how many have been written. If `count` is not
// null, it receives this number at the end.
template <class CALL>
int write_all(const void* bytes, std::size_t size, std::size_t* count, CALL call) noexcept {
    qor::platform::no_write_signals quiet;
    std::size_t done = 0;
    int reason = 0;
    while (done < size && reason == 0) {
        const ssize_t written =
            uninterrupted([&] { return call(static_cast<const char*>(bytes) + done, size - done, done); });
        if (written <= 0)
            reason = written < 0 ? errno : ENOSPC;
        else
            done += static_cast<std::size_t>(written);
    }
    quiet.take(reason);
    if (count != nullptr)
        *count = done;
    return reason;
}

} // namespace

const int qor::platform::raw_file::not_regular = ESPIPE;
const int qor::platform::raw_file::is_taken = EEXIST;
const int qor::platform::raw_file::in_use = EWOULDBLOCK;
const int qor::platform::raw_file::was_replaced = -1;
const int qor::platform::raw_file::no_hole = -1;

bool qor::platform::raw_file::is_missing(int reason) noexcept { return reason == ENOENT || reason == ENOTDIR; }

int qor::platform::raw_file::open(const char* path, access how) noexcept {
    close();
    const int handle = open_handle(path, how);
    return handle < 0 ? errno : adopt(handle);
}

// The type is checked before open(), because opening a device can have side effects, and again afterwards, because
// another may have replaced the file in between.
int qor::platform::raw_file::open(const char* path, const terms& how) noexcept {
    close();
    struct stat status;
    if (stat(path, &status) == 0) {
        if (const int reason = glue::reason_against(status); reason != 0 && !how.is_new)
            return reason;
    }
    int handle = uninterrupted([&] { return ::open(path, open_flags(how), how.is_private ? 0600 : 0666); });
    // A pipe without a reader.
    if (handle < 0)
        return errno == ENXIO ? not_regular : errno;
    if (const int reason = take(handle, how)) {
        ::close(handle);
        return reason;
    }
    m_appends = how.appends;
    return adopt(handle);
}

int qor::platform::raw_file::adopt(std::intptr_t opened) noexcept {
    int handle = descriptor_of(opened);
    // If the host closed its standard streams, their output must not end up in this file.
    if (handle <= STDERR_FILENO) {
        const int moved = fcntl(handle, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        const int reason = errno;
        ::close(handle);
        if (moved < 0)
            return reason;
        handle = moved;
    }
    struct stat status;
    const int reason = fstat(handle, &status) != 0 ? errno : S_ISDIR(status.st_mode) ? EISDIR : 0;
    if (reason != 0) {
        ::close(handle);
        return reason;
    }
    m_handle = handle;
    m_identity[0] = status.st_dev;
    m_identity[1] = status.st_ino;
    return 0;
}

// If the host has reused the descriptor for a file of its own, only the host may close it.
int qor::platform::raw_file::close() noexcept {
    m_appends = false;
    const int handle = descriptor_of(std::exchange(m_handle, -1));
    struct stat status;
    if (handle < 0 || fstat(handle, &status) != 0 || !is_identity(status, m_identity) || ::close(handle) == 0)
        return 0;
    // After an interruption the descriptor is closed all the same.
    return errno == EINTR ? 0 : errno;
}

bool qor::platform::raw_file::is_at(const char* path) const noexcept {
    struct stat status;
    return stat(path, &status) == 0 && is_identity(status, m_identity);
}

int qor::platform::raw_file::recover(const char* path) noexcept {
    struct stat status;
    if (fstat(static_cast<int>(m_handle), &status) == 0 && is_identity(status, m_identity))
        return 0;
    close();
    if (stat(path, &status) == 0 && !S_ISREG(status.st_mode))
        return EBADF;
    return open(path, access::append);
}

int qor::platform::raw_file::read(void* bytes, std::size_t size, std::size_t* count) noexcept {
    const int file = descriptor_of(m_handle);
    *count = 0;
    ssize_t got = uninterrupted([&] { return ::read(file, bytes, size); });
    if (got < 0 && errno == EINVAL) {
        // The system refuses a read that goes on behind the largest file.
        const off_t here = lseek(file, 0, SEEK_CUR);
        const std::uint64_t rest = last_offset - static_cast<std::uint64_t>(std::max<off_t>(here, 0));
        if (here < 0 || size <= rest)
            return EINVAL;
        got = uninterrupted([&] { return ::read(file, bytes, static_cast<std::size_t>(rest)); });
    }
    if (got < 0)
        return errno;
    *count = static_cast<std::size_t>(got);
    return 0;
}

// A file on a disk is always ready.
bool qor::platform::raw_file::has_to_wait() const noexcept {
    pollfd file{static_cast<int>(m_handle), POLLIN, 0};
    return poll(&file, 1, 0) == 0;
}

int qor::platform::raw_file::read_at(std::uint64_t offset, void* bytes, std::size_t size, std::size_t* count) noexcept {
    char* const begin = static_cast<char*>(bytes);
    // The system refuses a read that goes on behind the largest file.
    size = offset < last_offset ? std::min(size, static_cast<std::size_t>(last_offset - offset)) : 0;
    for (*count = 0; *count < size;) {
        const ssize_t got =
            pread(static_cast<int>(m_handle), begin + *count, size - *count, static_cast<off_t>(offset + *count));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return errno;
        if (got == 0)
            break;
        *count += static_cast<std::size_t>(got);
    }
    return 0;
}

int qor::platform::raw_file::size(std::uint64_t* bytes) noexcept {
    struct stat status;
    if (fstat(static_cast<int>(m_handle), &status) != 0)
        return errno;
    *bytes = static_cast<std::uint64_t>(status.st_size);
    return 0;
}

int qor::platform::raw_file::status(file_status& out) noexcept {
    return get_status(descriptor_of(m_handle), "", AT_EMPTY_PATH, out);
}

int qor::platform::raw_file::write(const void* bytes, std::size_t size, std::size_t* count) noexcept {
    return write_all(bytes, size, count, [this](const void* from, std::size_t length, std::size_t) {
        return ::write(descriptor_of(m_handle), from, length);
    });
}

int qor::platform::raw_file::write_at(std::uint64_t offset, const void* bytes, std::size_t size,
                                      std::size_t* count) noexcept {
    *count = 0;
    if (offset > last_offset || size > last_offset - offset)
        return size != 0 ? EFBIG : 0;
    return write_all(bytes, size, count, [this, offset](const void* from, std::size_t length, std::size_t done) {
        return pwrite(descriptor_of(m_handle), from, length, static_cast<off_t>(offset + done));
    });
}

int qor::platform::raw_file::sync() noexcept {
    return uninterrupted([this] { return fsync(descriptor_of(m_handle)); }) == 0 ? 0 : errno;
}

int qor::platform::raw_file::set_size(std::uint64_t size) noexcept {
    if (size > last_offset)
        return EFBIG;
    qor::platform::no_write_signals quiet;
    if (uninterrupted([&] { return ftruncate(descriptor_of(m_handle), static_cast<off_t>(size)); }) == 0)
        return 0;
    const int reason = errno;
    quiet.take(reason);
    return reason;
}

int qor::platform::raw_file::remove(const char* path) noexcept {
    struct stat status;
    if (lstat(path, &status) != 0)
        return errno;
    if (!is_identity(status, m_identity))
        return was_replaced;
    return unlink(path) == 0 ? 0 : errno;
}

// A file that takes as much room as it has bytes is not worth the search. Searching moves the position.
int qor::platform::raw_file::next_run(std::uint64_t limit, run& out) noexcept {
    const int file = descriptor_of(m_handle);
    out = {limit, false};
    struct stat status;
    if (fstat(file, &status) != 0)
        return errno;
    const off_t here =
        S_ISREG(status.st_mode) && status.st_blocks < status.st_size / 512 ? lseek(file, 0, SEEK_CUR) : -1;
    if (here < 0 || here >= status.st_size)
        return 0;
    off_t end = lseek(file, here, SEEK_DATA);
    const bool is_hole = end > here || (end < 0 && errno == ENXIO);
    if (end < 0 && is_hole)
        end = status.st_size;
    else if (end == here)
        end = lseek(file, here, SEEK_HOLE);
    if (lseek(file, here, SEEK_SET) != here)
        return errno;
    if (end > here)
        out = {std::min(limit, static_cast<std::uint64_t>(end - here)), is_hole};
    return 0;
}

int qor::platform::raw_file::skip_hole(raw_file& from, std::uint64_t size) noexcept {
    const int file = descriptor_of(m_handle);
    struct stat status;
    const off_t here = lseek(file, 0, SEEK_CUR);
    if (here < 0 || m_appends || fstat(file, &status) != 0 || !S_ISREG(status.st_mode) || here != status.st_size)
        return no_hole;
    const std::uint64_t end = static_cast<std::uint64_t>(here) + size;
    const int reason = set_size(end);
    if (reason == 0 && lseek(file, static_cast<off_t>(size), SEEK_CUR) >= 0) {
        if (lseek(descriptor_of(from.m_handle), static_cast<off_t>(size), SEEK_CUR) >= 0)
            return 0;
        if (lseek(file, here, SEEK_SET) != here)
            return errno;
    }
    // Zeros would not fit, either, but it could take days to find that out.
    if (reason == EFBIG)
        return reason;
    cut(static_cast<std::uint64_t>(here));
    return no_hole;
}

// The first call may find that the system cannot copy between these two; some kernels also claim that a file of theirs
// is empty.
std::uint64_t qor::platform::raw_file::copy_from(raw_file& from, std::uint64_t limit) noexcept {
    constexpr std::uint64_t most = std::uint64_t{1} << 30;
    qor::platform::no_write_signals quiet;
    std::uint64_t count = 0;
    while (count < limit) {
        const ssize_t copied = uninterrupted([&] {
            return copy_file_range(descriptor_of(from.m_handle), nullptr, descriptor_of(m_handle), nullptr,
                                   static_cast<std::size_t>(std::min(limit - count, most)), 0);
        });
        if (copied < 0)
            quiet.take(errno);
        if (copied <= 0)
            break;
        count += static_cast<std::uint64_t>(copied);
    }
    return count;
}

void qor::platform::raw_file::cut(std::uint64_t size) noexcept {
    if (set_size(size) == 0)
        lseek(descriptor_of(m_handle), static_cast<off_t>(size), SEEK_SET);
}
