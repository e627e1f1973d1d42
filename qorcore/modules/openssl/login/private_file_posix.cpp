#include "private_file.h"

#include "common/system_reason.h"
#include "qor/glue/regular_file_posix.h"
#include "support/primitives.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <new>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

using qor::control::private_file_fault;
using qor::control::reason_of;

class descriptor {
public:
    explicit descriptor(int number) noexcept : m_number(number) {}
    descriptor(descriptor&& other) noexcept : m_number(other.release()) {}
    descriptor& operator=(descriptor&&) = delete;
    ~descriptor() {
        if (m_number >= 0)
            ::close(m_number);
    }
    int number() const noexcept { return m_number; }
    int release() noexcept { return std::exchange(m_number, -1); }

private:
    int m_number;
};

bool failed(std::string& reason) {
    reason = qor::modules::system_reason(errno);
    return false;
}

bool failed(private_file_fault fault, std::string& reason, const std::string& insert = {}) {
    reason = reason_of(fault, insert);
    return false;
}

std::string folder_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == path.npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// Resolves links, so that the target of a link is replaced and not the link.
std::string real_path(const std::string& path) {
    char* const found = realpath(path.c_str(), nullptr);
    if (found == nullptr && errno == ENOMEM)
        throw std::bad_alloc();
    std::string real = found != nullptr ? found : path;
    std::free(found);
    return real;
}

// In another user's folder, our files would be in that user's way, and that user could replace a file by an earlier
// version.
bool is_own_folder(const struct stat& status) noexcept { return status.st_uid == geteuid() || status.st_uid == 0; }

// Everyone who may write in the folder could also do that, unless the folder has the sticky bit.
bool is_safe_folder(const std::string& folder, std::string& reason) {
    struct stat status;
    if (stat(folder.c_str(), &status) != 0)
        return failed(reason);
    if (!is_own_folder(status))
        return failed(private_file_fault::folder_of_another_owner, reason, folder);
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (status.st_mode & S_ISVTX) == 0)
        return failed(private_file_fault::others_change_folder, reason, folder);
    return true;
}

// `forbidden` has the access rights that others must not have.
bool is_own(const struct stat& status, mode_t forbidden, std::string& reason) {
    if (status.st_uid != geteuid() && status.st_uid != 0)
        return failed(private_file_fault::of_another_owner, reason);
    if ((status.st_mode & forbidden) != 0)
        return failed(private_file_fault::others_have_access, reason);
    return true;
}

bool read_all(int file, std::string& text, std::string& reason) {
    struct piece {
        char bytes[4096];
        ~piece() { qor::crypto::wipe(bytes, sizeof bytes); }
    } piece;
    auto& bytes = piece.bytes;
    for (;;) {
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
    // With room for all of it, the text is not moved and leaves no copy of a secret behind.
    text.reserve(std::min(static_cast<std::size_t>(status.st_size), qor::control::longest_private_file));
    return is_own(status, forbidden, reason) && read_all(file.number(), text, reason);
}

// Opens the lock file; does not wait for the lock. On failure, returns a closed descriptor and sets `reason`.
descriptor open_lock(const std::string& path, std::string& reason) {
    descriptor lock(
        open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, S_IRUSR | S_IWUSR));
    struct stat status;
    if (lock.number() < 0 || fstat(lock.number(), &status) != 0) {
        failed(reason);
        return descriptor(-1);
    }
    if (!S_ISREG(status.st_mode)) {
        failed(private_file_fault::no_plain_file, reason);
        return descriptor(-1);
    }
    return is_own(status, S_IRWXG | S_IRWXO, reason) ? std::move(lock) : descriptor(-1);
}

// The holder of the lock removes the file at the end; a lock on a removed file keeps nobody out.
bool is_at(int file, const std::string& path) noexcept {
    struct stat opened, there;
    return fstat(file, &opened) == 0 && stat(path.c_str(), &there) == 0 && opened.st_dev == there.st_dev &&
           opened.st_ino == there.st_ino;
}

} // namespace

bool qor::control::read_private_file(const std::string& path, std::string& text, std::string& reason,
                                     bool& is_missing) {
    return read_file(path, S_IRWXG | S_IRWXO, text, reason, is_missing) &&
           (is_missing || is_safe_folder(folder_of(real_path(path)), reason));
}

bool qor::control::read_own_file(const std::string& path, std::string& text, std::string& reason) {
    bool is_missing;
    return read_file(path, S_IWGRP | S_IWOTH, text, reason, is_missing);
}

// Makes missing folders. A super-user who runs with another user's home folder must not leave folders there that this
// user cannot use.
bool qor::control::make_private_folders(const std::string& path, std::string& reason) {
    for (std::size_t slash = path.find('/', 1); slash != path.npos; slash = path.find('/', slash + 1)) {
        const std::string folder = path.substr(0, slash);
        struct stat status;
        if (stat(folder.c_str(), &status) == 0)
            continue;
        const std::string around = folder_of(folder);
        if (errno == ENOENT && stat(around.c_str(), &status) == 0 && !is_own_folder(status))
            return failed(private_file_fault::folder_of_another_owner, reason, around);
        if (mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST)
            return failed(reason);
    }
    return true;
}

qor::control::private_file_lock::private_file_lock(const std::string& file) {
    if (!make_private_folders(file, m_reason))
        return;
    const std::string real = real_path(file);
    if (!is_safe_folder(folder_of(real), m_reason))
        return;
    const std::string path = real + ".lock";
    for (const auto end = std::chrono::steady_clock::now() + lock_patience;;) {
        descriptor lock = open_lock(path, m_reason);
        if (lock.number() < 0) {
            m_reason = path + ": " + m_reason;
            return;
        }
        const bool is_free = flock(lock.number(), LOCK_EX | LOCK_NB) == 0;
        if (is_free && is_at(lock.number(), path)) {
            m_path = path;
            m_handle = lock.release();
            return;
        }
        if (!is_free && errno != EWOULDBLOCK && errno != EINTR) {
            failed(m_reason);
            return;
        }
        if (std::chrono::steady_clock::now() >= end) {
            failed(private_file_fault::locked, m_reason, path);
            return;
        }
        if (!is_free)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

qor::control::private_file_lock::~private_file_lock() {
    if (m_handle < 0)
        return;
    unlink(m_path.c_str());
    close(static_cast<int>(m_handle));
}
