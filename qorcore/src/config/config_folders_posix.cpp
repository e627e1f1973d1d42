#include "config/config.h"
#include "platform/own_process.h"

#include <algorithm>

std::vector<std::string> qor::config::system_folders() {
    std::vector<std::string> folders;
    const char* const listed = platform::environment("XDG_CONFIG_DIRS");
    std::string_view rest = listed != nullptr ? listed : "";
    while (!rest.empty()) {
        std::string_view folder = rest.substr(0, rest.find(':'));
        rest.remove_prefix(std::min(rest.size(), folder.size() + 1));
        while (folder.size() > 1 && folder.ends_with('/'))
            folder.remove_suffix(1);
        if (folder.starts_with('/')) // others do not count, by the XDG base directories
            folders.emplace_back(folder);
    }
    folders.emplace_back("/etc");
    if (listed == nullptr)
        folders.emplace_back("/etc/xdg");
    return folders;
}

bool qor::config::is_usable(std::string_view) noexcept { return true; }
