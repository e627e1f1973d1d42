#include "output_file.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qor::heap_tool {

// A device, a pipe or a link of this name would be replaced by a file: /dev/stdout is a link. A folder cannot be.
int output_file::check_place(const std::string& path) {
    struct stat found;
    if (::lstat(path.c_str(), &found) != 0)
        return errno == ENOENT ? 0 : errno;
    if (S_ISDIR(found.st_mode))
        return EISDIR;
    return S_ISREG(found.st_mode) ? 0 : EEXIST;
}

int output_file::create(const std::string& path) {
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    m_file = file;
    return file < 0 ? errno : 0;
}

bool output_file::is_taken(int error) noexcept { return error == EEXIST; }

int output_file::use_standard_output() {
    m_file = STDOUT_FILENO;
    return 0;
}

int output_file::write_out(std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::write(static_cast<int>(m_file), text.data(), text.size());
        if (count < 0 && errno != EINTR)
            return errno;
        text.remove_prefix(count > 0 ? static_cast<std::size_t>(count) : 0);
    }
    return 0;
}

int output_file::close() {
    const int file = static_cast<int>(m_file);
    m_file = -1;
    return file >= 0 && ::close(file) != 0 ? errno : 0;
}

int output_file::replace(const std::string& path, const std::string& by) {
    return ::rename(by.c_str(), path.c_str()) == 0 ? 0 : errno;
}

void output_file::remove(const std::string& path) { ::unlink(path.c_str()); }

} // namespace qor::heap_tool
