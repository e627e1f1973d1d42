#include "debug/surviving_memory.h"

#include "memory/allocator.h"
#include "platform/no_write_signals_posix.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

int qor::debug::surviving_memory::open(const std::string& path) noexcept {
    // Only the owner may read the file, because it contains trace lines. O_EXCL makes sure that an existing name is
    // never followed to another file.
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (file < 0)
        return errno;
    // Without reserved disk space, a store into the mapping would kill the process when the disk is full.
    platform::no_write_signals quiet;
    int reason = posix_fallocate(file, 0, size);
    quiet.take(reason);
    if (reason == 0) {
        void* const mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        if (mapped == MAP_FAILED)
            reason = errno;
        else
            m_bytes = static_cast<char*>(mapped);
    }
    ::close(file);
    if (reason != 0)
        unlink(path.c_str());
    else
        m_path = path;
    return reason;
}

void qor::debug::surviving_memory::unmap() noexcept { munmap(m_bytes, size); }
void qor::debug::surviving_memory::remove_file() noexcept { unlink(m_path.c_str()); }

std::string qor::debug::full_name_on_disk(const char* path) noexcept {
    struct stat status;
    if (stat(path, &status) != 0 || !S_ISREG(status.st_mode))
        return {};
    char* const full = memory::found(realpath(path, nullptr));
    std::string result = full != nullptr ? full : "";
    std::free(full);
    return result;
}
