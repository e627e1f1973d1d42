// The new file has no name until it is complete, so a process that is killed leaves nothing behind. Where the file
// system has no nameless files, and in the moment between the last two steps, its name is that of the target and
// ".qor-unfinished". Its writer holds a lock on it, so another writer knows whether such a file is still wanted.
#include "platform/replacement.h"

#include "platform/uninterrupted_posix.h"
#include "qor/glue/binding.h"
#include "qor/glue/regular_file_posix.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using qor::platform::uninterrupted;

constexpr int most_writers = 100; // of one file at once

constexpr mode_t own_rights = S_IRUSR | S_IWUSR;

int descriptor_of(const qor::platform::raw_file& file) noexcept { return static_cast<int>(file.handle()); }

// Resolves links, so that the target of a link is replaced and not the link.
std::string real_path(const char* path) {
    char* const found = realpath(path, nullptr);
    if (found == nullptr && errno == ENOMEM)
        qor::glue::qorEndOutOfMemory();
    std::string real = found != nullptr ? found : path;
    std::free(found);
    return real;
}

// The name of the new file for the `attempt`th of several writers: one component, whatever the length of the target's.
std::string unfinished_name(const std::string& target, int attempt) {
    const std::string end = (attempt != 0 ? "." + std::to_string(attempt) : "") + ".qor-unfinished";
    std::size_t length = std::min(target.size(), NAME_MAX - end.size());
    while (length != 0 && length != target.size() && (target[length] & 0xc0) == 0x80)
        --length;
    return target.substr(0, length) + end;
}

// The lock belongs to the open file, so it ends with the process and does not collide with locks of the host. Returns
// false if another has it; where there are no locks, nobody has.
bool lock(int file) noexcept {
    struct flock whole {};
    whole.l_type = F_WRLCK;
    return fcntl(file, F_OFD_SETLK, &whole) == 0;
}

bool is_at(int file, int folder, const char* name) noexcept {
    struct stat opened, there;
    return fstat(file, &opened) == 0 && fstatat(folder, name, &there, AT_SYMLINK_NOFOLLOW) == 0 &&
           opened.st_dev == there.st_dev && opened.st_ino == there.st_ino;
}

// Removes what a killed process has left. Returns false if the name is taken by anything else.
bool remove_leftover(int folder, const char* name) noexcept {
    const int file = openat(folder, name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (file < 0)
        return errno == ENOENT;
    struct stat status;
    const bool is_leftover = fstat(file, &status) == 0 && S_ISREG(status.st_mode) && lock(file) &&
                             is_at(file, folder, name) && unlinkat(folder, name, 0) == 0;
    close(file);
    return is_leftover;
}

// Calls `make` with one name after the other until it finds a free one. Returns the system's error code.
template <class MAKE>
int with_free_name(int folder, const std::string& target, std::string& name, MAKE make) {
    int reason = EEXIST;
    for (int attempt = 0; reason == EEXIST && attempt < most_writers; ++attempt) {
        name = unfinished_name(target, attempt);
        reason = make(name.c_str());
        if (reason == EEXIST && remove_leftover(folder, name.c_str()))
            reason = make(name.c_str());
    }
    if (reason != 0)
        name.clear();
    return reason;
}

// Without /proc a nameless file cannot get a name.
int open_nameless(int folder, mode_t rights) noexcept {
    const int file = uninterrupted([&] { return openat(folder, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, rights); });
    struct stat status;
    if (file >= 0 && stat(("/proc/self/fd/" + std::to_string(file)).c_str(), &status) == 0)
        return file;
    if (file >= 0)
        close(file);
    return -1;
}

// Gives a nameless file a name.
int link_nameless(int file, int folder, const std::string& target, std::string& name) {
    const std::string made = "/proc/self/fd/" + std::to_string(file);
    return with_free_name(folder, target, name, [folder, &made](const char* wanted) {
        const auto link = [&] { return linkat(AT_FDCWD, made.c_str(), folder, wanted, AT_SYMLINK_FOLLOW); };
        return uninterrupted(link) == 0 ? 0 : errno;
    });
}

} // namespace

int qor::platform::replacement::begin(const char* path, bool is_private) {
    drop();
    const std::string real = real_path(path);
    const std::size_t slash = real.rfind('/');
    m_target = slash == real.npos ? real : real.substr(slash + 1);
    const std::string around = slash == real.npos ? "." : real.substr(0, slash + 1);
    struct stat status;
    const bool exists = stat(real.c_str(), &status) == 0;
    if (!exists && errno != ENOENT)
        return errno;
    if (m_target.empty())
        return exists ? EISDIR : ENOENT;
    if (exists)
        if (const int reason = glue::reason_against(status))
            return reason;
    m_is_private = is_private;
    m_keeps = exists && !is_private;
    if (m_keeps)
        if (const int reason = m_kept.read(real.c_str()))
            return reason;

    m_folder = uninterrupted([&] { return ::open(around.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
    if (m_folder < 0)
        return errno;
    const mode_t rights = m_keeps || m_is_private ? own_rights : 0666;
    int file = open_nameless(m_folder, rights);
    if (file < 0) {
        const int reason = with_free_name(m_folder, m_target, m_name, [this, &file, rights](const char* name) {
            file =
                uninterrupted([&] { return openat(m_folder, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, rights); });
            if (file < 0)
                return errno;
            // Another writer may have taken it for a leftover before the lock was there.
            lock(file);
            if (is_at(file, m_folder, name))
                return 0;
            close(file);
            return EEXIST;
        });
        if (reason != 0)
            return reason;
    } else {
        lock(file);
    }
    return m_file.adopt(file);
}

int qor::platform::replacement::commit() {
    const int file = descriptor_of(m_file);
    int reason = 0;
    if (m_keeps)
        reason = m_kept.write(file);
    else if (m_is_private && uninterrupted([file] { return fchmod(file, own_rights); }) != 0)
        reason = errno;
    if (reason == 0)
        reason = m_file.sync();
    if (reason == 0 && m_name.empty())
        reason = link_nameless(file, m_folder, m_target, m_name);
    if (reason == 0 &&
        uninterrupted([this] { return renameat(m_folder, m_name.c_str(), m_folder, m_target.c_str()); }) != 0)
        reason = errno;
    if (reason == 0) {
        m_name.clear();
        // Not every file system can do that.
        if (uninterrupted([this] { return fsync(m_folder); }) != 0 && errno != EINVAL)
            reason = errno;
    }
    drop();
    return reason;
}

void qor::platform::replacement::drop() noexcept {
    if (!m_name.empty())
        unlinkat(m_folder, m_name.c_str(), 0);
    m_name.clear();
    m_file.close();
    if (m_folder >= 0)
        close(m_folder);
    m_folder = -1;
}
