// The operations that open configurations.
#include "config/config_file.h"
#include "error/error.h"
#include "folder/folder.h"

#include <cstring>

namespace {

constexpr uint32 for_all = 0755;
constexpr uint32 for_the_user = 0700;

// Gets the relative path of a named file. Returns false and sets the last error if the name is invalid.
bool file_of(const char* name, std::string& out) {
    const std::string_view text = name != nullptr ? name : "";
    for (std::size_t begin = 0, end = 0; end != text.npos; begin = end + 1) {
        end = text.find('/', begin);
        const std::string_view part = text.substr(begin, end == text.npos ? text.npos : end - begin);
        if (part.empty() || part.front() == '.' || !qor::config::is_usable(part)) {
            qor::error::set(qorError_config_name, {std::string(text).c_str()});
            return false;
        }
    }
    out = std::string(text) + ".toml";
    return true;
}

bool open_of_system(const char* name, const char* text, IQORConfigFile** out) {
    std::string file;
    if (!file_of(name, file))
        return false;
    std::vector<std::string> files = qor::config::system_folders();
    if (files.empty())
        return false;
    for (std::string& each : files)
        each += qor::folder::separators.front() + file;
    return qor::config::open_files(std::move(files), text, for_all, out);
}

bool open_of_user(const char* name, const char* text, IQORConfigFile** out) {
    std::string file;
    if (!file_of(name, file))
        return false;
    qorString folder;
    if (!qor::glue::qorGetFolderPath(qorFolder_user_configuration, folder))
        return false;
    return qor::config::open_files({std::string(std::string_view(folder)) + qor::folder::separators.front() + file},
                                   text, for_the_user, out);
}

bool open_absolute(const char* path, const char* text, IQORConfigFile** out) {
    if (path == nullptr || !qor::glue::qorIsAbsolutePath(path)) {
        qor::error::set(qorError_config_name, {path != nullptr ? path : ""});
        return false;
    }
    return qor::config::open_files({path}, text, for_all, out);
}

} // namespace

bool qor::glue::qorOpenSystemConfigFile(const char* name, IQORConfigFile** out) noexcept {
    return open_of_system(name, nullptr, out);
}

bool qor::glue::qorCreateSystemConfigFile(const char* name, IQORConfigFile** out) noexcept {
    return open_of_system(name, "", out);
}

bool qor::glue::qorOpenUserConfigFile(const char* name, IQORConfigFile** out) noexcept {
    return open_of_user(name, nullptr, out);
}

bool qor::glue::qorInitUserConfigFile(const char* name, const char* text, IQORConfigFile** out) noexcept {
    return open_of_user(name, text != nullptr ? text : "", out);
}

bool qor::glue::qorCreateUserConfigFile(const char* name, IQORConfigFile** out) noexcept {
    return open_of_user(name, "", out);
}

bool qor::glue::qorOpenConfigFileAbsolute(const char* path, IQORConfigFile** out) noexcept {
    return open_absolute(path, nullptr, out);
}

bool qor::glue::qorCreateConfigFileAbsolute(const char* path, IQORConfigFile** out) noexcept {
    return open_absolute(path, "", out);
}
