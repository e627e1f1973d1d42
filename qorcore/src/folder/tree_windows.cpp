// Deletes a folder with its contents. Each folder stays open while something in it is deleted, in a way that lets
// nobody rename, delete or exchange it; so the path of what is in it stays right.
#include "folder/changes.h"

#include "folder/contents.h"
#include "folder/folder.h"
#include "platform/file_status_windows.h"
#include "platform/wide_windows.h"

#include <utility>
#include <vector>
#include <windows.h>

namespace {

// Somebody who fills a folder all the time must not keep the deletion busy without end.
constexpr int most_passes = 100;

int last_error() noexcept { return static_cast<int>(GetLastError()); }

struct level {
    HANDLE folder = INVALID_HANDLE_VALUE;
    std::string path;
    std::vector<std::string> folders; // the paths of those in it that are still to delete
    int passes = 1;
};

class deletion {
public:
    deletion() = default;
    deletion(const deletion&) = delete;
    deletion& operator=(const deletion&) = delete;
    ~deletion() {
        for (const level& each : m_levels)
            CloseHandle(each.folder);
    }

    // After a failure, `failed` is the path of what could not be deleted.
    int run(const char* path, std::string& failed) {
        int code = enter(path, failed);
        while (code == 0 && !m_levels.empty()) {
            level& here = m_levels.back();
            if (here.folders.empty()) {
                code = leave(failed);
                continue;
            }
            const std::string next = std::move(here.folders.back());
            here.folders.pop_back();
            code = enter(next, failed);
            if (code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND)
                code = 0; // others have deleted it
            else if (code == ERROR_DIRECTORY)
                code = qor::folder::delete_file(next.c_str()); // it is a file or a link by now
        }
        return code;
    }

private:
    int enter(const std::string& path, std::string& failed) {
        failed = path;
        std::wstring wide;
        if (!qor::platform::to_wide_path(path, wide))
            return ERROR_INVALID_NAME;
        const HANDLE folder =
            CreateFileW(wide.c_str(), FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE,
                        nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
        if (folder == INVALID_HANDLE_VALUE)
            return last_error();
        qor::platform::file_status status;
        int code = qor::platform::get_status(folder, status);
        if (code == 0 && status.info.kind != qorFileKind::folder)
            code = ERROR_DIRECTORY;
        if (code != 0) {
            CloseHandle(folder);
            return code;
        }
        m_levels.push_back({folder, path, {}});
        return delete_names(failed);
    }

    // Deletes everything in the current folder but folders, which it remembers.
    int delete_names(std::string& failed) {
        level& here = m_levels.back();
        qor::folder::listing all;
        if (const int code = qor::folder::read_contents(here.path.c_str(), all, failed))
            return code;
        all.finish();
        for (const qorFolderEntry& each : all.entries()) {
            std::string path = here.path;
            path += qor::folder::separators.front();
            path += each.Name();
            if (each.kind == qorFileKind::folder) {
                here.folders.push_back(std::move(path));
                continue;
            }
            const int code = qor::folder::delete_file(path.c_str());
            if (code != 0 && code != ERROR_FILE_NOT_FOUND) {
                failed = std::move(path);
                return code;
            }
        }
        return 0;
    }

    // Deletes the current folder, which is empty unless others fill it, and goes up. It has to be closed for that. What
    // takes its place in that moment is no danger: of a folder only an empty one is deleted, of a link only itself.
    int leave(std::string& failed) {
        failed = std::move(m_levels.back().path);
        const int passes = m_levels.back().passes;
        CloseHandle(m_levels.back().folder);
        m_levels.pop_back();
        const int code = remove_folder(failed);
        if (code != ERROR_DIR_NOT_EMPTY)
            return code;
        if (passes == most_passes)
            return qor::folder::changes_meanwhile;
        const std::string path = failed;
        const int entered = enter(path, failed);
        if (entered == 0)
            m_levels.back().passes = passes + 1;
        return entered;
    }

    static int remove_folder(const std::string& path) {
        std::wstring wide;
        qor::platform::to_wide_path(path, wide);
        if (RemoveDirectoryW(wide.c_str()))
            return 0;
        const int code = last_error();
        if (code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND)
            return 0; // others have deleted it
        // The attribute "read-only" keeps a folder from being deleted, though not its contents.
        const bool is_done = code == ERROR_ACCESS_DENIED && SetFileAttributesW(wide.c_str(), FILE_ATTRIBUTE_NORMAL) &&
                             RemoveDirectoryW(wide.c_str());
        return is_done ? 0 : code;
    }

    std::vector<level> m_levels;
};

} // namespace

int qor::folder::delete_tree(const char* path, std::string& failed) {
    std::string whole = path;
    whole.erase(whole.find_last_not_of(separators) + 1);
    deletion all;
    const int code = all.run(whole.c_str(), failed);
    if (failed == whole)
        failed = path;
    return code;
}
