#include "folder/user_dirs.h"

#include "platform/whole_file.h"

namespace {

// The file normally has a few hundred bytes.
constexpr std::size_t max_size = 1 << 20;

void skip_blanks(std::string_view& text) { text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size())); }

bool take(std::string_view& text, std::string_view word) {
    if (!text.starts_with(word))
        return false;
    text.remove_prefix(word.size());
    return true;
}

// Returns the value of XDG_<key>_DIR="$HOME/folder" or ="/folder", or an empty text for any other line. The file has
// the syntax of the shell, but only lines of these two forms are ever written.
std::string value_of(std::string_view line, std::string_view key, const std::string& home) {
    skip_blanks(line);
    if (!take(line, "XDG_") || !take(line, key) || !take(line, "_DIR"))
        return {};
    skip_blanks(line);
    if (!take(line, "="))
        return {};
    skip_blanks(line);
    if (!take(line, "\""))
        return {};
    std::string value;
    if (take(line, "$HOME"))
        value = home;
    if (!line.starts_with('/') && !(line.starts_with('"') && !value.empty()))
        return {};
    for (; !line.empty() && line.front() != '"'; line.remove_prefix(1)) {
        if (line.front() == '\\' && line.size() > 1)
            line.remove_prefix(1);
        value += line.front();
    }
    return value;
}

} // namespace

std::string qor::folder::user_dir(const std::string& file, std::string_view key, const std::string& home) {
    std::string content;
    if (!platform::read_whole(file.c_str(), max_size, content))
        return home;
    std::string found = home;
    // The last matching line counts, as in the shell.
    for (std::string_view rest = content; !rest.empty();) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        if (std::string value = value_of(line, key, home); !value.empty())
            found = std::move(value);
    }
    return found;
}
