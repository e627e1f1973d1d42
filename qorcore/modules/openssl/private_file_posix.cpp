#include "private_file.h"

#include "qor/glue/regular_file_posix.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace {

using qor::control::private_file_fault;
using qor::control::reason_of;

class descriptor {
public:
    explicit descriptor(int number) noexcept : m_number(number) {}
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;
    ~descriptor() {
        if (m_number >= 0)
            ::close(m_number);
    }
    int number() const noexcept { return m_number; }
    int release() noexcept { return std::exchange(m_number, -1); }

    // True: everything has reached the file.
    bool close() noexcept { return ::close(release()) == 0; }

private:
    int m_number;
};

bool failed(std::string& reason) {
    reason = std::generic_category().message(errno);
    return false;
}

bool failed(private_file_fault fault, std::string& reason) {
    reason = reason_of(fault);
    return false;
}

// `forbidden`: what others may not do.
bool is_own(const struct stat& status, mode_t forbidden, std::string& reason) {
    if (status.st_uid != geteuid() && status.st_uid != 0)
        return failed(private_file_fault::of_another_owner, reason);
    if ((status.st_mode & forbidden) != 0)
        return failed(private_file_fault::others_have_access, reason);
    return true;
}

bool read_all(int file, std::string& text, std::string& reason) {
    for (;;) {
        char bytes[4096];
        const ssize_t count = read(file, bytes, sizeof bytes);
        if (count == 0)
            return true;
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return failed(reason);
        text.append(bytes, static_cast<std::size_t>(count));
        if (text.size() > qor::control::longest_private_file)
            return failed(private_file_fault::too_long, reason);
    }
}

bool read_file(const std::string& path, mode_t forbidden, std::string& text, std::string& reason, bool& is_missing) {
    text.clear();
    struct stat status;
    const descriptor file(qor::glue::open_regular_file(path.c_str(), status));
    is_missing = file.number() < 0 && errno == ENOENT;
    if (is_missing)
        return true;
    if (file.number() < 0)
        return errno == EISDIR || errno == ESPIPE ? failed(private_file_fault::no_plain_file, reason) : failed(reason);
    return is_own(status, forbidden, reason) && read_all(file.number(), text, reason);
}

bool write_all(int file, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(file, text.data(), text.size());
        if (count < 0 && errno != EINTR)
            return false;
        text.remove_prefix(count < 0 ? 0 : static_cast<std::size_t>(count));
    }
    return true;
}

std::string folder_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == path.npos ? "." : path.substr(0, slash + 1);
}

// Those that are missing; whatever goes wrong shows when the file is opened.
void make_folders(const std::string& path) {
    for (std::size_t slash = path.find('/', 1); slash != path.npos; slash = path.find('/', slash + 1))
        mkdir(path.substr(0, slash).c_str(), S_IRWXU);
}

// Where a link leads to is what is to be replaced, not the link.
std::string real_path(const std::string& path) {
    char* const found = realpath(path.c_str(), nullptr);
    const std::string real = found != nullptr ? found : path;
    std::free(found);
    return real;
}

} // namespace

bool qor::control::read_private_file(const std::string& path, std::string& text, std::string& reason, bool& is_missing) {
    return read_file(path, S_IRWXG | S_IRWXO, text, reason, is_missing);
}

bool qor::control::read_own_file(const std::string& path, std::string& text, std::string& reason) {
    bool is_missing;
    return read_file(path, S_IWGRP | S_IWOTH, text, reason, is_missing);
}

bool qor::control::write_private_file(const std::string& path, std::string_view text, std::string& reason) {
    make_folders(path);
    const std::string real = real_path(path);
    const descriptor folder(open(folder_of(real).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::string made = real + ".XXXXXX";
    descriptor file(mkostemp(made.data(), O_CLOEXEC));
    if (folder.number() < 0 || file.number() < 0)
        return failed(reason);
    // What is there after a loss of power is the old file or the new one, and the new one is whole.
    if (fchmod(file.number(), S_IRUSR | S_IWUSR) == 0 && write_all(file.number(), text) && fsync(file.number()) == 0 &&
        file.close() && rename(made.c_str(), real.c_str()) == 0 && fsync(folder.number()) == 0)
        return true;
    failed(reason);
    unlink(made.c_str());
    return false;
}

qor::control::private_folder_lock::private_folder_lock(const std::string& file) {
    make_folders(file);
    descriptor folder(open(folder_of(real_path(file)).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    int result;
    do
        result = flock(folder.number(), LOCK_EX);
    while (result != 0 && errno == EINTR);
    if (result == 0)
        m_handle = folder.release();
    else
        failed(m_reason);
}

qor::control::private_folder_lock::~private_folder_lock() {
    if (m_handle >= 0)
        close(static_cast<int>(m_handle));
}

bool qor::control::private_folder_lock::is_held(std::string& reason) const {
    reason = m_reason;
    return m_handle >= 0;
}
