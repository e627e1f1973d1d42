#include "file/raw_file.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int open_flags(qor::file::raw_file::access how) noexcept {
    using access = qor::file::raw_file::access;
    switch (how) {
    case access::read:
        return O_RDONLY;
    case access::truncate:
        return O_WRONLY | O_CREAT | O_TRUNC;
    case access::append:
        return O_WRONLY | O_CREAT | O_APPEND;
    }
    return O_RDONLY;
}

} // namespace

int qor::file::raw_file::open(const char* path, access how) noexcept {
    close();
    int handle;
    do
        handle = ::open(path, open_flags(how) | O_CLOEXEC | O_NOCTTY, 0666);
    while (handle < 0 && errno == EINTR);
    if (handle < 0)
        return errno;
    // Where a host closed its standard streams, what it prints must not end up in this file.
    if (handle <= STDERR_FILENO) {
        const int moved = fcntl(handle, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        const int reason = errno;
        ::close(handle);
        if (moved < 0)
            return reason;
        handle = moved;
    }
    struct stat status;
    if (fstat(handle, &status) == 0 && S_ISDIR(status.st_mode)) {
        ::close(handle);
        return EISDIR;
    }
    m_handle = handle;
    return 0;
}

void qor::file::raw_file::close() noexcept {
    if (m_handle >= 0)
        ::close(static_cast<int>(m_handle));
    m_handle = -1;
}

int qor::file::raw_file::read(void* bytes, std::size_t size, std::size_t* count) noexcept {
    ssize_t got;
    do
        got = ::read(static_cast<int>(m_handle), bytes, size);
    while (got < 0 && errno == EINTR);
    *count = got > 0 ? static_cast<std::size_t>(got) : 0;
    return got < 0 ? errno : 0;
}

int qor::file::raw_file::write(const void* bytes, std::size_t size) noexcept {
    const char* at = static_cast<const char*>(bytes);
    while (size != 0) {
        const ssize_t written = ::write(static_cast<int>(m_handle), at, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return errno;
        at += written;
        size -= static_cast<std::size_t>(written);
    }
    return 0;
}
