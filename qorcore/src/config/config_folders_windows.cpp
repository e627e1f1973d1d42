#include "config/config.h"
#include "qor/system/Folder.h"

std::vector<std::string> qor::config::system_folders() {
    qorString folder;
    if (!glue::qorGetFolderPath(qorFolder_system_configuration, folder))
        return {};
    return {std::string(std::string_view(folder))};
}

// Windows has its own separators, names of devices, and streams of files.
bool qor::config::is_usable(std::string_view part) noexcept { return part.find_first_of("\\:<>|?*\"") == part.npos; }
