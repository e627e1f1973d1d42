#include "file_system.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace qor::record {

const int out_of_memory = ENOMEM;
const char separators[] = "/";

int raw_file::create(const std::string& path) {
    m_file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    return m_file < 0 ? errno : 0;
}

int raw_file::open(const std::string& path) {
    m_file = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    return m_file < 0 ? errno : 0;
}

void raw_file::close() {
    if (is_open())
        ::close(static_cast<int>(m_file));
    m_file = none;
}

std::size_t raw_file::read(char* data, std::size_t size) {
    ssize_t count;
    do
        count = is_open() ? ::read(static_cast<int>(m_file), data, size) : 0;
    while (count < 0 && errno == EINTR);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

int raw_file::write(const char* data, std::size_t size, std::size_t& done) {
    for (std::size_t left = size; left > 0;) {
        const ssize_t count = ::write(static_cast<int>(m_file), data + size - left, left);
        if (count > 0) {
            left -= static_cast<std::size_t>(count);
            done += static_cast<std::size_t>(count);
        } else if (count == 0 || errno != EINTR) {
            return count < 0 ? errno : ENOSPC;
        }
    }
    return 0;
}

void raw_file::cut_to(std::uint64_t size) { (void)!::ftruncate(static_cast<int>(m_file), static_cast<off_t>(size)); }

int remove_file(const std::string& path) { return ::unlink(path.c_str()) != 0 ? errno : 0; }
int rename_file(const std::string& from, const std::string& to) {
    return std::rename(from.c_str(), to.c_str()) != 0 ? errno : 0;
}
bool is_there(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }
bool is_taken(int error) noexcept { return error == EEXIST; }
bool is_missing(int error) noexcept { return error == ENOENT; }
std::string reason_of(int error) { return std::strerror(error); }

file_type type_of(const std::string& path) {
    struct stat status;
    if (::lstat(path.c_str(), &status) != 0)
        return file_type::nothing;
    return S_ISREG(status.st_mode) ? file_type::regular : file_type::other;
}

std::string path_of_folder(const std::string& folder) {
    const std::unique_ptr<char, decltype(&std::free)> path(::realpath(folder.c_str(), nullptr), &std::free);
    struct stat status;
    if (path == nullptr || ::stat(path.get(), &status) != 0 || !S_ISDIR(status.st_mode))
        return {};
    return path.get();
}

std::vector<std::string> names_in(const std::string& folder) {
    std::vector<std::string> names;
    DIR* const entries = ::opendir(folder.c_str());
    while (const dirent* const entry = entries != nullptr ? ::readdir(entries) : nullptr)
        names.emplace_back(entry->d_name);
    if (entries != nullptr)
        ::closedir(entries);
    return names;
}

} // namespace qor::record
