#include "serial/sysfs_files.h"

#include "memory/allocator.h"
#include "platform/whole_file.h"
#include "serial/sysfs.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <unistd.h>

namespace {

// An attribute takes at most a page, the table of drivers a few kilobytes.
constexpr std::size_t longest_file = 1 << 20;

} // namespace

std::vector<std::string> qor::serial::read_lines(const std::string& path) {
    std::string text;
    std::vector<std::string> lines;
    if (!platform::read_whole(path.c_str(), longest_file, text))
        return lines;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

std::string qor::serial::read_attribute(const std::string& path) {
    std::vector<std::string> lines = read_lines(path);
    if (lines.empty())
        return {};
    constexpr const char* white_space = " \t\r\v\f";
    std::string& text = lines.front();
    text.erase(text.find_last_not_of(white_space) + 1);
    text.erase(0, text.find_first_not_of(white_space));
    return std::move(text);
}

bool qor::serial::exists(const std::string& path) noexcept { return access(path.c_str(), F_OK) == 0; }

std::string qor::serial::real_path(const std::string& path) {
    char* const found = memory::found(realpath(path.c_str(), nullptr));
    std::string real = found != nullptr ? found : "";
    std::free(found);
    return real;
}

std::string qor::serial::link_target(const std::string& path) { return std::string(base_name(real_path(path))); }

int qor::serial::read_folder(const std::string& path, std::vector<std::string>& names) {
    DIR* const folder = memory::found(opendir(path.c_str()));
    if (folder == nullptr)
        return errno;
    for (;;) {
        errno = 0;
        const dirent* const entry = readdir(folder);
        if (entry == nullptr)
            break;
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..")
            names.emplace_back(name);
    }
    const int code = errno;
    closedir(folder);
    return code;
}
