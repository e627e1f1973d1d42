#include "platform/raw_file.h"

#include "qor/glue/regular_file_posix.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <limits>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

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

bool is_identity(const struct stat& status, const std::uint64_t (&identity)[2]) noexcept {
    return status.st_dev == identity[0] && status.st_ino == identity[1];
}

// Blocks the signals that a failed write would send to this thread, because they would end the host.
class no_write_signals {
public:
    no_write_signals() noexcept {
        sigemptyset(&m_signals);
        sigaddset(&m_signals, SIGXFSZ);
        sigaddset(&m_signals, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_signals, &m_before);
    }
    no_write_signals(const no_write_signals&) = delete;
    no_write_signals& operator=(const no_write_signals&) = delete;
    ~no_write_signals() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

    // Call this after a failed write: it removes the pending signal, which would otherwise arrive when this object
    // ends.
    void take(int reason) noexcept {
        constexpr timespec no_time{};
        if (reason == EFBIG || reason == EPIPE)
            sigtimedwait(&m_signals, nullptr, &no_time);
    }

private:
    sigset_t m_signals;
    sigset_t m_before;
};

} // namespace

const int qor::platform::raw_file::not_regular = ESPIPE;
const int qor::platform::raw_file::is_taken = EEXIST;

bool qor::platform::raw_file::is_missing(int reason) noexcept { return reason == ENOENT || reason == ENOTDIR; }

int qor::platform::raw_file::open(const char* path, access how) noexcept {
    close();
    int handle = open_handle(path, how);
    if (handle < 0)
        return errno;
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
void qor::platform::raw_file::close() noexcept {
    struct stat status;
    if (m_handle >= 0 && fstat(static_cast<int>(m_handle), &status) == 0 && is_identity(status, m_identity))
        ::close(static_cast<int>(m_handle));
    m_handle = -1;
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
    ssize_t got;
    do
        got = ::read(static_cast<int>(m_handle), bytes, size);
    while (got < 0 && errno == EINTR);
    *count = got > 0 ? static_cast<std::size_t>(got) : 0;
    return got < 0 ? errno : 0;
}

// A file on a disk is always ready.
bool qor::platform::raw_file::has_to_wait() const noexcept {
    pollfd file{static_cast<int>(m_handle), POLLIN, 0};
    return poll(&file, 1, 0) == 0;
}

int qor::platform::raw_file::read_at(std::uint64_t offset, void* bytes, std::size_t size, std::size_t* count) noexcept {
    // Offsets above this limit do not exist in a file.
    constexpr std::uint64_t end = std::numeric_limits<off_t>::max();
    char* const begin = static_cast<char*>(bytes);
    for (*count = 0; *count < size && offset + *count <= end;) {
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

int qor::platform::raw_file::write(const void* bytes, std::size_t size) noexcept {
    no_write_signals quiet;
    const char* at = static_cast<const char*>(bytes);
    while (size != 0) {
        const ssize_t written = ::write(static_cast<int>(m_handle), at, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0) {
            const int reason = errno;
            quiet.take(reason);
            return reason;
        }
        at += written;
        size -= static_cast<std::size_t>(written);
    }
    return 0;
}

void qor::platform::raw_file::cut(std::uint64_t size) noexcept {
    (void)!ftruncate(static_cast<int>(m_handle), static_cast<off_t>(size));
}
