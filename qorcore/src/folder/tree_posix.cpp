// Deletes a folder with its contents. It works with descriptors and single names only, so that a folder which others
// exchange for a link meanwhile is never left: a name is opened without following it, and the way back up is checked.
#include "folder/changes.h"

#include "folder/entries_posix.h"
#include "platform/uninterrupted_posix.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace {

using qor::platform::uninterrupted;

constexpr std::size_t block_size = 32 * 1024;

// The folders above the current one that stay open. With a deeper tree, the highest ones are closed and opened again
// through "..", so that any depth takes few descriptors.
constexpr std::size_t most_open = 16;

// Some file systems leave names out while others are deleted, so a folder may have to be read again. Somebody who fills
// it all the time must not keep the deletion busy without end.
constexpr int most_passes = 100;

struct open_folder {
    int descriptor = -1;
    uint64 device = 0, inode = 0;

    bool operator==(const open_folder& other) const noexcept { return device == other.device && inode == other.inode; }
};

struct level {
    open_folder folder;
    std::string name;                 // in the folder above
    std::vector<std::string> folders; // those in it that are still to delete
    int passes = 1;                   // of the last of them
};

void close_it(open_folder& folder) noexcept {
    if (folder.descriptor >= 0)
        close(folder.descriptor);
    folder.descriptor = -1;
}

// Opens a name in a folder without following a link.
int open_in(int above, const char* name, open_folder& out, bool& begins_mount) noexcept {
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    out.descriptor = uninterrupted([&] { return openat(above, name, flags); });
    if (out.descriptor < 0)
        return errno;
    struct statx status;
    if (uninterrupted([&] { return statx(out.descriptor, "", AT_EMPTY_PATH, STATX_INO, &status); }) != 0) {
        const int code = errno;
        close_it(out);
        return code;
    }
    out.device = (uint64{status.stx_dev_major} << 32) | status.stx_dev_minor;
    out.inode = status.stx_ino;
    begins_mount = (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
    return 0;
}

int unlink_in(int folder, const char* name, int flags) noexcept {
    const int result = uninterrupted([&] { return unlinkat(folder, name, flags); });
    return result == 0 || errno == ENOENT ? 0 : errno; // others may have deleted it
}

class deletion {
public:
    deletion(int parent, std::string_view name) : m_parent(parent) { m_levels.push_back({{}, std::string(name), {}}); }
    deletion(const deletion&) = delete;
    deletion& operator=(const deletion&) = delete;
    ~deletion() {
        for (level& each : m_levels)
            close_it(each.folder);
    }

    int run() {
        if (const int code = enter_root())
            return code;
        while (!m_levels.empty()) {
            const int code = m_levels.back().folders.empty() ? leave() : enter();
            if (code != 0)
                return code;
        }
        return 0;
    }

    // The names from the one to delete to the one that failed.
    std::string failed_path() const {
        std::string path;
        for (const level& each : m_levels)
            path.append(path.empty() ? "" : "/").append(each.name);
        return m_failed.empty() ? path : path + '/' + m_failed;
    }

private:
    int enter_root() {
        level& root = m_levels.back();
        bool begins_mount = false;
        int code = open_in(m_parent, root.name.c_str(), root.folder, begins_mount);
        if (code == ELOOP)
            code = ENOTDIR; // the reason that most systems give for a link
        return code != 0 ? code : begins_mount ? qor::folder::is_mount_point : delete_names();
    }

    // Deletes everything in the current folder but folders, which it remembers.
    int delete_names() {
        level& here = m_levels.back();
        const int folder = here.folder.descriptor;
        return qor::folder::each_entry(folder, block_size, [&](const dirent64& entry, std::string_view name) {
            int code = entry.d_type == DT_DIR ? EISDIR : unlink_in(folder, entry.d_name, 0);
            // Some systems answer EPERM for a folder.
            if (code == EISDIR || (code == EPERM && entry.d_type == DT_UNKNOWN)) {
                here.folders.emplace_back(name);
                code = 0;
            }
            if (code != 0)
                m_failed = name;
            return code;
        });
    }

    // Goes into the last of the remembered folders.
    int enter() {
        level& here = m_levels.back();
        level next{{}, here.folders.back(), {}};
        bool begins_mount = false;
        int code = open_in(here.folder.descriptor, next.name.c_str(), next.folder, begins_mount);
        if (code == 0 && !begins_mount) {
            if (m_levels.size() > most_open)
                close_it(m_levels[m_levels.size() - 1 - most_open].folder);
            m_levels.push_back(std::move(next));
            return delete_names();
        }
        close_it(next.folder);
        m_failed = next.name;
        if (code == 0)
            return qor::folder::is_mount_point;
        const int folder = here.folder.descriptor;
        if (code == ENOTDIR || code == ELOOP)
            code = unlink_in(folder, next.name.c_str(), 0); // it is a file or a link by now
        else if (code == ENOENT || (code == EACCES && unlink_in(folder, next.name.c_str(), AT_REMOVEDIR) == 0))
            code = 0; // others have deleted it, or it may not be read, but was empty
        if (code == 0) {
            m_failed.clear();
            forget_last(here);
        }
        return code;
    }

    static void forget_last(level& here) noexcept {
        here.folders.pop_back();
        here.passes = 1;
    }

    // Deletes the current folder, which is empty unless others fill it, and goes up.
    int leave() {
        if (m_levels.size() == 1)
            return leave_root();
        level& above = m_levels[m_levels.size() - 2];
        if (above.folder.descriptor < 0)
            if (const int code = open_again(above.folder))
                return code;
        const int code = unlink_in(above.folder.descriptor, above.folders.back().c_str(), AT_REMOVEDIR);
        const bool is_filled = code == ENOTEMPTY || code == EEXIST;
        if (is_filled && ++above.passes > most_passes)
            return qor::folder::changes_meanwhile;
        if (code != 0 && code != ENOTDIR && !is_filled)
            return code;
        close_it(m_levels.back().folder);
        m_levels.pop_back();
        if (code == 0)
            forget_last(m_levels.back());
        return 0; // otherwise it is entered again, or deleted as the file that it is by now
    }

    int leave_root() {
        level& root = m_levels.back();
        const int code = unlink_in(m_parent, root.name.c_str(), AT_REMOVEDIR);
        if (code == ENOTEMPTY || code == EEXIST)
            return ++root.passes > most_passes ? qor::folder::changes_meanwhile : read_again(root);
        if (code == 0) {
            close_it(root.folder);
            m_levels.pop_back();
        }
        return code;
    }

    int read_again(level& here) {
        return uninterrupted([&] { return lseek(here.folder.descriptor, 0, SEEK_SET); }) == 0 ? delete_names() : errno;
    }

    // Opens the folder above the current one again. If that is another one than on the way down, the current folder has
    // been moved, perhaps out of the tree.
    int open_again(open_folder& above) noexcept {
        open_folder found;
        bool begins_mount = false;
        if (const int code = open_in(m_levels.back().folder.descriptor, "..", found, begins_mount))
            return code;
        if (!(found == above)) {
            close_it(found);
            return qor::folder::changes_meanwhile;
        }
        above = found;
        return 0;
    }

    int m_parent;
    std::vector<level> m_levels;
    std::string m_failed; // the name in the current folder that could not be deleted
};

} // namespace

int qor::folder::delete_tree(const char* path, std::string& failed) {
    std::string_view whole = path;
    failed = path;
    whole = whole.substr(0, whole.find_last_not_of('/') + 1);
    const std::size_t slash = whole.rfind('/');
    const std::string above(whole.substr(0, slash == whole.npos ? 0 : slash + 1));
    const char* const folder = above.empty() ? "." : above.c_str();
    const int parent = uninterrupted([&] { return open(folder, O_PATH | O_DIRECTORY | O_CLOEXEC); });
    if (parent < 0)
        return errno;
    deletion all(parent, whole.substr(above.size()));
    const int code = all.run();
    if (const std::string inside = above + all.failed_path(); inside != whole)
        failed = inside;
    close(parent);
    return code;
}
