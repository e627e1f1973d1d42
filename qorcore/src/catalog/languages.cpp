#include "catalog/languages.h"

#include <algorithm>

namespace {

// Longer than the name of any language, and short enough for a file name.
constexpr std::size_t max_name = 40;

constexpr std::string_view separators = ":,";
constexpr std::string_view english = "en";

constexpr bool is_lower(char c) noexcept { return c >= 'a' && c <= 'z'; }
constexpr bool is_upper(char c) noexcept { return c >= 'A' && c <= 'Z'; }
constexpr bool is_letter(char c) noexcept { return is_lower(c) || is_upper(c); }
constexpr bool is_alphanumeric(char c) noexcept { return is_letter(c) || (c >= '0' && c <= '9'); }
constexpr char to_lower(char c) noexcept { return is_upper(c) ? static_cast<char>(c - 'A' + 'a') : c; }
constexpr char to_upper(char c) noexcept { return is_lower(c) ? static_cast<char>(c - 'a' + 'A') : c; }

// Removes the text before the first separator, and the separator, from `rest`.
std::string_view take_part(std::string_view& rest, std::string_view between) noexcept {
    const std::size_t end = rest.find_first_of(between);
    const std::string_view part = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    return part;
}

// Adds a language and its fallbacks. Returns false for English, which ends the list.
bool add(std::vector<std::string>& languages, std::string_view canonical) {
    if (canonical == english)
        return false;
    for (std::size_t end = canonical.size(); end != std::string_view::npos && end != 0;
         end = canonical.rfind('_', end - 1)) {
        const std::string_view name = canonical.substr(0, end);
        if (std::find(languages.begin(), languages.end(), name) == languages.end())
            languages.emplace_back(name);
    }
    return true;
}

} // namespace

std::string qor::catalog::canonical_language(std::string_view name) {
    if (name == "C" || name == "POSIX")
        return std::string(english);
    // The loop below would not notice a separator at the very end.
    if (name.size() > max_name || name.ends_with('_') || name.ends_with('-'))
        return {};

    const std::string_view language = take_part(name, "_-");
    if (language.size() < 2 || language.size() > 8 || !std::all_of(language.begin(), language.end(), is_letter))
        return {};
    std::string result(language);
    std::transform(result.begin(), result.end(), result.begin(), to_lower);

    while (!name.empty()) {
        const std::string_view part = take_part(name, "_-");
        if (part.empty() || !std::all_of(part.begin(), part.end(), is_alphanumeric))
            return {};
        result += '_';
        const bool is_country = part.size() == 2;
        std::transform(part.begin(), part.end(), std::back_inserter(result),
                       [is_country](char c) { return is_country ? to_upper(c) : c; });
    }
    return result.starts_with("en_") ? std::string(english) : result;
}

std::vector<std::string> qor::catalog::with_fallbacks(std::string_view language) {
    std::vector<std::string> languages;
    add(languages, canonical_language(language));
    return languages;
}

bool qor::catalog::parse_languages(std::string_view text, std::vector<std::string>& languages,
                                   std::string_view& refused) {
    std::vector<std::string> result;
    refused = {};
    bool any = false;
    bool ended = false;
    while (!text.empty()) {
        const std::string_view name = take_part(text, separators);
        if (name.empty())
            continue;
        const std::string canonical = canonical_language(name);
        if (canonical.empty()) {
            refused = name;
            return false;
        }
        any = true;
        ended = ended || !add(result, canonical);
    }
    if (any)
        languages = std::move(result);
    return any;
}

std::vector<std::string> qor::catalog::languages_of_environment(const char* (*value)(const char* variable)) {
    const char* locale = nullptr;
    for (const char* const variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        locale = value(variable);
        if (locale != nullptr)
            break;
    }
    // A locale of "C" or "POSIX" asks for output that no other setting changes.
    if (locale != nullptr && (std::string_view(locale) == "C" || std::string_view(locale) == "POSIX"))
        return {};

    const char* const list = value("LANGUAGE");
    std::string_view rest = list != nullptr ? list : locale != nullptr ? locale : "";
    std::vector<std::string> languages;
    while (!rest.empty()) {
        std::string_view name = take_part(rest, separators);
        // In the name of a locale, a character set and a variant follow: "de_AT.UTF-8@euro".
        name = name.substr(0, name.find_first_of(".@"));
        if (!add(languages, canonical_language(name)))
            break;
    }
    return languages;
}
