#include "windows_path.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace qor::heap {

namespace {

bool is_slash(char c) noexcept { return c == '\\' || c == '/'; }

// A device in every folder, whatever follows a dot or blanks.
bool is_device(std::string_view name) noexcept {
    name = name.substr(0, name.find('.'));
    while (!name.empty() && name.back() == ' ')
        name.remove_suffix(1);
    std::array<char, 8> upper{};
    if (name.empty() || name.size() >= upper.size())
        return false;
    std::transform(name.begin(), name.end(), upper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    const std::string_view word(upper.data(), name.size());
    for (const std::string_view device : {"CON", "PRN", "AUX", "NUL", "CONIN$", "CONOUT$", "CLOCK$"})
        if (word == device)
            return true;
    // COM1, LPT9; the superscript digits 1, 2 and 3 count, too.
    const std::string_view port = word.substr(0, 3);
    const std::string_view number = word.size() > 3 ? word.substr(3) : std::string_view();
    return (port == "COM" || port == "LPT") && ((number.size() == 1 && number[0] >= '0' && number[0] <= '9') ||
                                                number == "\xc2\xb9" || number == "\xc2\xb2" || number == "\xc2\xb3");
}

} // namespace

bool is_on_drive(std::string_view path) noexcept {
    if (path.size() < 4 || path[1] != ':' || !is_slash(path[2]))
        return false;
    const int drive = path[0] | 0x20;
    if (drive < 'a' || drive > 'z')
        return false;
    path.remove_prefix(3);
    // A colon names a stream within a file, and the others no file at all.
    if (std::any_of(path.begin(), path.end(), [](char c) {
            return static_cast<unsigned char>(c) < ' ' ||
                   std::string_view(":*?\"<>|").find(c) != std::string_view::npos;
        }))
        return false;
    while (!path.empty()) {
        const auto end = static_cast<std::size_t>(std::find_if(path.begin(), path.end(), is_slash) - path.begin());
        if (is_device(path.substr(0, end)))
            return false;
        path.remove_prefix(std::min(end + 1, path.size()));
    }
    return true;
}

} // namespace qor::heap
