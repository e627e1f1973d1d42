#include "folder/folder.h"

#include "error/error.h"
#include "process/process.h"
#include "string/file_names.h"

#include <iterator>

namespace {

// In the order of the ids.
constexpr const char* tags[] = {
    "home",
    "desktop",
    "documents",
    "downloads",
    "music",
    "pictures",
    "videos",
    "public",
    "templates",
    "user-configuration",
    "user-data",
    "user-state",
    "user-cache",
    "user-runtime",
    "user-temporary",
    "user-logs",
    "user-fonts",
    "system-configuration",
    "system-data",
    "system-state",
    "system-cache",
    "system-logs",
    "system-temporary",
    "system-programs",
    "system-libraries",
    "qor-executable",
    "qor-library",
    "qor-catalogs",
    "qor-user-configuration",
    "qor-system-configuration",
};
static_assert(std::size(tags) == qorFolderCount);

std::string find(qorFolderId id) {
    switch (id) {
    case qorFolder_qor_executable: {
        const std::string program = qor::process::executable();
        return qor::folder::clean(program.substr(0, program.find_last_of(qor::string::path_separators) + 1));
    }
    case qorFolder_qor_library:
        return qor::folder::clean(qor::process::library_folder());
    case qorFolder_qor_catalogs:
        return qor::folder::clean(qor::process::library_folder() + "qor");
    default:
        return qor::folder::system_path(id);
    }
}

// Null: there is no such folder.
const char* checked_tag(qorFolderId id) {
    const char* const tag = qor::folder::tag(id);
    if (tag == nullptr)
        qor::error::set(qorError_unknown_folder, {std::to_string(id).c_str()});
    return tag;
}

} // namespace

const char* qor::folder::tag(qorFolderId id) noexcept { return id < std::size(tags) ? tags[id] : nullptr; }

bool qor::glue::qorGetFolderTagForId(qorFolderId id, qorString& tag) noexcept {
    const char* const found = checked_tag(id);
    tag = found;
    return found != nullptr;
}

bool qor::glue::qorGetFolderPath(qorFolderId id, qorString& path) noexcept {
    std::string found;
    if (checked_tag(id) != nullptr)
        found = find(id);
    path = found.c_str();
    return !found.empty();
}
