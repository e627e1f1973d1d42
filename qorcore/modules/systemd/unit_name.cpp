#include "unit_name.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr std::size_t longest_name = 255;

constexpr std::string_view service = "service";
constexpr std::string_view kinds[] = {service, "socket", "target", "device", "mount", "automount",
                                      "swap",  "timer",  "path",   "slice",  "scope"};

bool is_allowed(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view(":-_.\\@").find(c) != std::string_view::npos;
}

} // namespace

bool systemd::complete(std::string_view name, unit_name& out) {
    if (name.empty() || name.size() > longest_name || !std::all_of(name.begin(), name.end(), is_allowed))
        return false;
    out.text = name;
    std::size_t dot = name.rfind('.');
    if (dot == std::string_view::npos ||
        std::find(std::begin(kinds), std::end(kinds), name.substr(dot + 1)) == std::end(kinds)) {
        dot = name.size();
        out.text += '.';
        out.text += service;
    }
    const std::string_view stem = name.substr(0, dot);
    const std::size_t at = stem.find('@');
    out.is_service = std::string_view(out.text).substr(dot + 1) == service;
    out.is_template = at != std::string_view::npos && at + 1 == stem.size();
    return !stem.empty() && at != 0 && out.text.size() <= longest_name;
}
