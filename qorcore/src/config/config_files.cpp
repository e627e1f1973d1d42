// Reading and locking configuration files.
#include "config/config.h"
#include "error/error.h"
#include "folder/folder.h"
#include "module/module.h"
#include "platform/file_info.h"

#include <algorithm>
#include <ranges>

namespace {

constexpr uint64 longest_wait = 10 * qorTicksPerSecond; // for a lock
constexpr std::string_view extension = ".toml";

// The names of the drop-ins of a file, in order. There need not be any.
bool find_drop_ins(const std::string& folder, std::vector<std::string>& names) {
    qorFileInfo info;
    if (const int code = qor::platform::file_info(folder.c_str(), true, info)) {
        if (qor::platform::means_no_file(code))
            return true;
        qor::error::set_with_reason(qorError_cannot_list_folder, folder.c_str(), code);
        return false;
    }
    zetSmartPointer<IQORFolderContents> all;
    if (!qor::glue::qorGetFolderContents(folder.c_str(), all.Out()))
        return false;
    for (const qorFolderEntry& each : all->Entries())
        if (each.kind != qorFileKind::folder && each.Name().ends_with(extension) && !each.Name().starts_with('.'))
            names.emplace_back(each.Name());
    std::sort(names.begin(), names.end());
    return true;
}

} // namespace

std::string qor::config::drop_in_folder(const std::string& file) {
    return (file.ends_with(extension) ? file.substr(0, file.size() - extension.size()) : file) + ".d";
}

bool qor::config::read_file(const std::string& path, std::string& text, bool& exists) {
    text.clear();
    exists = false;
    platform::raw_file file;
    int reason = file.open(path.c_str(), platform::raw_file::access::regular);
    if (platform::raw_file::is_missing(reason))
        return true;
    if (reason == platform::raw_file::not_regular) {
        error::set(qorError_no_disk_file, {path.c_str()});
        return false;
    }
    if (reason != 0) {
        error::set_with_reason(qorError_cannot_open_file, path.c_str(), reason);
        return false;
    }
    exists = true;
    char piece[16 * 1024];
    for (std::size_t count = 1; count != 0; text.append(piece, count)) {
        reason = file.read(piece, sizeof piece, &count);
        if (reason != 0) {
            error::set_with_reason(qorError_cannot_read_file, path.c_str(), reason);
            return false;
        }
        if (text.size() + count > max_size) {
            error::set(qorError_config_too_large, {path.c_str(), std::to_string(max_size >> 20).c_str()});
            return false;
        }
    }
    return true;
}

bool qor::config::read_files(const std::vector<std::string>& files, contents& out) {
    out.clear();
    const auto add = [&out](std::string path) {
        file_text read{std::move(path), {}};
        bool exists = false;
        if (!read_file(read.path, read.text, exists))
            return false;
        if (exists)
            out.push_back(std::move(read));
        return true;
    };
    for (const std::string& file : files) {
        const std::string folder = drop_in_folder(file);
        std::vector<std::string> names;
        if (!find_drop_ins(folder, names))
            return false;
        for (const std::string& name : std::views::reverse(names))
            if (!add(folder + folder::separators.front() + name))
                return false;
        if (!add(file))
            return false;
    }
    return true;
}

bool qor::config::file_lock::take(const std::string& path) {
    const std::size_t name = path.find_last_of(folder::separators) + 1;
    const std::string beside = path.substr(0, name) + "." + path.substr(name) + ".lock";
    platform::raw_file::terms how;
    how.writes = true;
    how.creates = true;
    const uint64 begin = glue::qorGetTickCounter();
    for (;;) {
        const int reason = m_file.open(beside.c_str(), how);
        if (reason == 0)
            return true;
        if (reason != platform::raw_file::in_use) {
            error::set_with_reason(qorError_cannot_open_file, beside.c_str(), reason);
            return false;
        }
        if (glue::qorGetTickCounter() - begin > longest_wait) {
            error::set(qorError_config_locked,
                       {path.c_str(), std::to_string(longest_wait / qorTicksPerSecond).c_str()});
            return false;
        }
        glue::qorSleep(5);
    }
}

bool qor::config::parse(const file_text& from, zetSmartPointer<IQORConfigDocument>& out) {
    void* made = nullptr;
    if (!module::create_object("qor-config", "IQORConfigDocument", "toml", &made))
        return false;
    out.AttachNew(static_cast<IQORConfigDocument*>(made));
    return out->Parse(from.path.c_str(), from.text.data(), from.text.size());
}
