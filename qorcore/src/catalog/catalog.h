// Inside the library: numbered messages in the user's language.
#pragma once

#include "qor/system/Types.h"

#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qor::catalog {

// Returns the text of a message in the best language that has it, or an empty text if there is no such message. The
// text lives as long as the process. Any thread.
std::string_view find(std::string_view catalog, uint32 number);

// The same in one language and its fallbacks ("de_AT", then "de", then English).
std::string_view find_in(std::string_view catalog, uint32 number, std::string_view language);

// Replaces {1} to {10} by the ten inserts. `inserts` may be null, and so may any of them; a missing insert is empty.
// Other braces stay as they are. Inserted text is not expanded again.
std::string expand(std::string_view text, const char* const* inserts);

// Sets the user's list of languages, separated by ':' or ','. Returns false and changes nothing if the list is invalid;
// `why` then holds the reason. Call it only while the process starts, before other threads look for messages.
bool set_languages(std::string_view list, std::string& why);

// Returns the languages in which messages are available, the best first; "en" is always the last.
std::vector<std::string> active_languages();

// ---- the English messages, the reference for all other languages

struct message {
    uint32 number;
    std::string_view text;
};

struct built_in {
    std::string_view name;
    std::span<const message> messages; // sorted by number
    // Where the other languages are, with a separator at its end; empty: where the library's own files are.
    std::string_view folder{};
};

// The framework's catalogs with their English messages.
std::span<const built_in> english() noexcept;

// Adds a catalog of a module or a program, for as long as the process lives; the texts are copied. Returns false if
// there is another one of this name. Any thread.
bool add(std::string_view name, std::span<const message> messages, std::string_view folder);

// Returns the catalog of this name, of whomever, or null.
const built_in* find_catalog(std::string_view name) noexcept;

// Calls `visit` with each catalog until it returns true, and returns whether it has.
bool any_catalog(const std::function<bool(const built_in& catalog)>& visit);

// Returns the message with this number, or null if there is none.
const message* find_message(std::span<const message> messages, uint32 number) noexcept;

} // namespace qor::catalog
