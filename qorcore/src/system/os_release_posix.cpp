#include "system/linux_host.h"

namespace {

// Reads a value as a shell does: in quotes of either kind, or with a backslash before special characters.
std::string unquote(std::string_view text) {
    std::string value;
    char quote = '\0';
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\\' && quote != '\'' && i + 1 < text.size())
            value += text[++i];
        else if (quote == '\0' && (c == '"' || c == '\''))
            quote = c;
        else if (c == quote && quote != '\0')
            quote = '\0';
        else
            value += c;
    }
    return value;
}

// If a key occurs several times, the last line KEY=VALUE counts.
std::string find_value(std::string_view text, std::string_view key) {
    std::string value;
    std::string_view line;
    while (qor::system::take_line(text, line)) {
        while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\r'))
            line.remove_suffix(1);
        if (line.starts_with(key) && line.substr(key.size()).starts_with('='))
            value = unquote(line.substr(key.size() + 1));
    }
    return value;
}

} // namespace

qor::system::os_release qor::system::read_os_release(const linux_host& host) {
    std::string text = host.read("/etc/os-release");
    if (text.empty())
        text = host.read("/usr/lib/os-release");
    os_release found;
    found.name = find_value(text, "NAME");
    // Distributions without releases have no version, but may have a build id.
    for (const char* const key : {"VERSION", "VERSION_ID", "BUILD_ID"})
        if (found.version.empty())
            found.version = find_value(text, key);
    found.description = find_value(text, "PRETTY_NAME");
    if (found.description.empty() && !found.name.empty())
        found.description = found.name + (found.version.empty() ? "" : " " + found.version);
    return found;
}
