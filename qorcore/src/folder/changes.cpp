#include "folder/changes.h"

#include "error/error.h"
#include "folder/folder.h"
#include "platform/file_info.h"
#include "string/file_names.h"

#include <random>
#include <string_view>
#include <utility>
#include <vector>

namespace {

// Each call in turn takes another random name, so more than a few of them never meet an existing one.
constexpr int most_attempts = 100;

std::string random_letters() {
    // No capitals: Windows does not tell them from small letters.
    constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyz234567";
    constexpr std::size_t length = 12;
    std::random_device random;
    std::string text;
    while (text.size() < length)
        text += letters[random() % letters.size()];
    return text;
}

bool is_done(int code, qorErrorNumber number, const char* path) noexcept {
    if (code != 0)
        qor::error::set_with_reason(number, path, code);
    return code == 0;
}

bool is_separator(char byte) noexcept { return qor::folder::separators.find(byte) != std::string_view::npos; }

// Whether a path names a folder by its own name: it does not end with "." or "..", and is no root.
bool names_a_folder(std::string_view path) noexcept {
    while (!path.empty() && is_separator(path.back()))
        path.remove_suffix(1);
    path.remove_prefix(path.find_last_of(qor::string::path_separators) + 1);
    return !path.empty() && path != "." && path != "..";
}

// Creates a folder, or accepts one that exists. Returns the system's error code.
int create_or_accept(const char* path, uint32 rights) noexcept {
    const int code = qor::folder::create_folder(path, rights);
    if (code == 0)
        return 0;
    qorFileInfo info;
    const int reason = qor::platform::file_info(path, true, info);
    if (reason == 0 && info.kind == qorFileKind::folder)
        return 0;
    // A name that exists and leads nowhere is still taken; one that cannot be examined may be a folder.
    return qor::folder::is_taken(code) && reason != 0 && !qor::platform::means_no_file(reason) ? reason : code;
}

// Goes up until a folder exists or can be created, and down again. It never asks whether a folder exists before it
// creates it, so that two processes may create the same path. If others delete folders meanwhile, it goes up again, but
// not without end: in /proc, a folder that exists denies the existence of any that is created in it. After a failure,
// `failed` is the path of the folder that could not be created.
int create_folder_path(const char* path, uint32 rights, std::string& failed) {
    constexpr int most_returns = 10;
    failed = path;
    while (failed.size() > 1 && is_separator(failed.back()))
        failed.pop_back();
    std::vector<std::string> missing; // the last one is the next to create
    int returns = 0;
    for (bool goes_down = false;;) {
        const int code = create_or_accept(failed.c_str(), missing.empty() ? rights : 0777);
        if (code == 0) {
            if (missing.empty())
                return 0;
            failed = std::move(missing.back());
            missing.pop_back();
            goes_down = true;
            continue;
        }
        const std::size_t separator = failed.find_last_of(qor::folder::separators);
        const std::size_t above =
            separator != failed.npos ? failed.find_last_not_of(qor::folder::separators, separator) : failed.npos;
        if (!qor::platform::means_no_file(code) || above == failed.npos || (goes_down && ++returns > most_returns))
            return code;
        missing.push_back(failed);
        failed.resize(above + 1);
        goes_down = false;
    }
}

} // namespace

bool qor::glue::qorCreateDirectory(const char* path, uint32 rights) noexcept {
    return is_done(folder::create_folder(path, rights), qorError_cannot_create_folder, path);
}

bool qor::glue::qorCreateDirectoryPath(const char* path, uint32 rights) noexcept {
    std::string failed;
    const int code = create_folder_path(path, rights, failed);
    return is_done(code, qorError_cannot_create_folder, failed.c_str());
}

bool qor::glue::qorDeleteFile(const char* path) noexcept {
    return is_done(folder::delete_file(path), qorError_cannot_delete_file, path);
}

bool qor::glue::qorDeleteDirectoryAndContents(const char* path) noexcept {
    if (!names_a_folder(path)) {
        error::set(qorError_invalid_argument, {"qorDeleteDirectoryAndContents", path});
        return false;
    }
    std::string failed;
    const int code = folder::delete_tree(path, failed);
    if (code == folder::is_mount_point || code == folder::changes_meanwhile) {
        error::set(code == folder::is_mount_point ? qorError_folder_is_mount_point : qorError_folder_changes,
                   {failed.c_str()});
        return false;
    }
    return is_done(code, qorError_cannot_delete_file, failed.c_str());
}

bool qor::glue::qorRenameFile(const char* from, const char* to, bool replace) noexcept {
    const int code = folder::rename(from, to, replace);
    if (code == folder::other_file_system)
        error::set(qorError_other_file_system, {from, to});
    else if (code != 0)
        error::set(qorError_cannot_rename, {from, to, error::system_reason(code).c_str()});
    return code == 0;
}

bool qor::glue::qorCreateUniqueDirectory(const char* parent, const char* prefix, qorString& path) noexcept {
    qorString folder;
    if (parent == nullptr && !qor::glue::qorGetTempFolder(folder)) {
        path.Empty();
        return false;
    }
    std::string begin = parent != nullptr ? parent : folder.Text();
    if (!begin.empty() && !is_separator(begin.back()))
        begin += folder::separators.front();
    begin += prefix;
    for (int attempt = 1;; ++attempt) {
        const std::string made = begin + random_letters();
        const int code = folder::create_folder(made.c_str(), 0700);
        if (folder::is_taken(code) && attempt < most_attempts)
            continue;
        path = code == 0 ? made.c_str() : "";
        return is_done(code, qorError_cannot_create_folder, made.c_str());
    }
}
