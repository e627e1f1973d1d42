// Inside the library: the languages that the user prefers.
//
// A list of languages holds names in the form used in file names ("de", "pt_BR"), the best first. Each is followed by
// its fallbacks ("pt_BR", "pt"). There are no duplicates. English is not in the list, because it implicitly ends every
// list; languages that a user names after English have no effect.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qor::catalog {

// Returns the canonical name of a language: "de_AT" for "DE-at"; "en" for every kind of English, for "C" and for
// "POSIX". The result is empty if the name is invalid. It becomes part of a file name, so it only contains letters,
// digits and '_'.
std::string canonical_language(std::string_view name);

// Returns a list of a language and its fallbacks.
std::vector<std::string> with_fallbacks(std::string_view language);

// Parses the user's list, separated by ':' or ','. Returns false if it is invalid: `refused` is then the invalid name,
// or empty if the list contains no name.
bool parse_languages(std::string_view text, std::vector<std::string>& languages, std::string_view& refused);

// Returns the languages set in the environment. `value` returns the value of a variable, or null if it is unset or
// empty.
std::vector<std::string> languages_of_environment(const char* (*value)(const char* variable));

} // namespace qor::catalog
