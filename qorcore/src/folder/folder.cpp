#include "folder/folder.h"

#include "catalog/catalog.h"
#include "error/error.h"
#include "message_names.h"
#include "platform/own_process.h"
#include "platform/resources.h"
#include "string/file_names.h"

#include <iterator>

namespace framework = qor::messages::framework;

namespace {

// The tags, in the order of the ids.
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

// Cleans the path of a folder of the framework's own. Returns an empty path and sets the last error if the system does
// not know the folder, or if it was removed.
std::string own_path(qorFolderId id, const std::string& found) {
    std::string path = qor::folder::clean(found);
    if (path.empty())
        qor::folder::fail(id, framework::no_program_path);
    return path;
}

// Returns null and sets the last error if there is no such folder.
const char* checked_tag(qorFolderId id) {
    const char* const tag = qor::folder::tag(id);
    if (tag == nullptr)
        qor::error::set(qorError_unknown_folder, {std::to_string(id).c_str()});
    return tag;
}

} // namespace

const char* qor::folder::tag(qorFolderId id) noexcept { return id < std::size(tags) ? tags[id] : nullptr; }

void qor::folder::fail(qorFolderId id, uint32 reason) {
    const std::string text(catalog::find(framework::catalog, reason));
    error::set(qorError_no_such_folder, {tag(id), text.c_str()});
}

std::string qor::folder::find(qorFolderId id) {
    switch (id) {
    case qorFolder_qor_executable: {
        const std::string program = platform::executable();
        return own_path(id, program.substr(0, program.find_last_of(string::path_separators) + 1));
    }
    case qorFolder_qor_library:
        return own_path(id, platform::library_folder());
    case qorFolder_qor_catalogs:
        return own_path(id, platform::resource_folder());
    default:
        return system_path(id);
    }
}

bool qor::glue::qorGetFolderTagForId(qorFolderId id, qorString& tag) noexcept {
    const char* const found = checked_tag(id);
    tag = found;
    return found != nullptr;
}

bool qor::glue::qorGetFolderPath(qorFolderId id, qorString& path) noexcept {
    std::string found;
    if (checked_tag(id) != nullptr)
        found = folder::find(id);
    path = found.c_str();
    return !found.empty();
}
