// Inside the library: which languages the user wants.
//
// A list of languages holds names in the form of their files ("de", "pt_BR"), the best first, each followed
// by what it falls back to ("pt_BR", "pt"), without duplicates. English is not in it: it stands behind every
// list, so that what a user names behind English counts for nothing.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qor::catalog {

// The one spelling of a language's name: "DE-at" is "de_AT". "en" for every kind of English, "C" and "POSIX".
// Empty: this cannot be a language's name. Names become file names, so letters, digits and '_' are all that
// ever comes out.
std::string canonical_language(std::string_view name);

// A language and what it falls back to, as a list.
std::vector<std::string> with_fallbacks(std::string_view language);

// What the user wrote, separated by ':' or ','. False: `refused` is the part that is no language's name, or
// empty if there is no name at all.
bool parse_languages(std::string_view text, std::vector<std::string>& languages, std::string_view& refused);

// What the environment asks for. `value` gives a variable's value, null if it is unset or empty.
std::vector<std::string> languages_of_environment(const char* (*value)(const char* variable));

} // namespace qor::catalog
