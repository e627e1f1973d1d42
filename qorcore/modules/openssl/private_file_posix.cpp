#include "private_file.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace {

class descriptor {
public:
    explicit descriptor(int handle) noexcept : m_handle(handle) {}
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;
    ~descriptor() {
        if (m_handle >= 0)
            ::close(m_handle);
    }
    int get() const noexcept { return m_handle; }

private:
    int m_handle;
};

bool fail(std::string& reason) {
    reason = std::generic_category().message(errno);
    return false;
}

bool write_all(int to, const std::string& text) {
    for (std::size_t at = 0; at < text.size();) {
        const ssize_t written = write(to, text.data() + at, text.size() - at);
        if (written < 0 && errno != EINTR)
            return false;
        at += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
    return fsync(to) == 0;
}

void make_folders(const std::string& path) {
    for (std::size_t slash = path.find('/', 1); slash != path.npos; slash = path.find('/', slash + 1))
        (void)mkdir(path.substr(0, slash).c_str(), 0700);
}

} // namespace

bool qor::control::read_private_file(const std::string& path, std::string& text, std::string& reason) {
    text.clear();
    const descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0)
        return errno == ENOENT || fail(reason);
    char piece[4096];
    for (;;) {
        const ssize_t got = read(file.get(), piece, sizeof piece);
        if (got == 0)
            return true;
        if (got > 0)
            text.append(piece, static_cast<std::size_t>(got));
        else if (errno != EINTR)
            return fail(reason);
    }
}

bool qor::control::write_private_file(const std::string& path, const std::string& text, std::string& reason) {
    make_folders(path);
    // mkostemp makes files that nobody else may read.
    std::string fresh = path + ".XXXXXX";
    const descriptor file(mkostemp(fresh.data(), O_CLOEXEC));
    if (file.get() < 0)
        return fail(reason);
    if (write_all(file.get(), text) && rename(fresh.c_str(), path.c_str()) == 0)
        return true;
    fail(reason);
    unlink(fresh.c_str());
    return false;
}

bool qor::control::others_may_read(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && (status.st_mode & (S_IRGRP | S_IROTH)) != 0;
}

bool qor::control::file_exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::string qor::control::configuration_folder() {
    if (const char* const folder = secure_getenv("XDG_CONFIG_HOME"); folder != nullptr && *folder == '/')
        return std::string(folder) + "/qor/";
    const char* const home = secure_getenv("HOME");
    return home != nullptr && *home != '\0' ? std::string(home) + "/.config/qor/" : std::string();
}
