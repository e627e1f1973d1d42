// Inside the library: numbered messages in the user's language.
#pragma once

#include "qor/system/Types.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qor::catalog {

// The text of a message in the best language that has it; empty: there is no such message. The text lives as
// long as the process. Any thread.
std::string_view find(std::string_view catalog, uint32 number);

// The same in one language and what it falls back to ("de_AT", then "de", then English).
std::string_view find_in(std::string_view catalog, uint32 number, std::string_view language);

// Puts ten inserts (null: none at all; a null one is empty) in the place of {1} to {10}. Other braces stay as
// they are, and what was put in is not looked at again.
std::string expand(std::string_view text, const char* const* inserts);

// The user's list of languages, separated by ':' or ','. False: `why` says what is wrong with it, and nothing
// has changed. Only while the process starts, before other threads look for messages.
bool set_languages(std::string_view list, std::string& why);

// The languages in which messages are found, the best first; "en" is always the last.
std::vector<std::string> active_languages();

// ---- what every other language is measured by

struct message {
    uint32 number;
    std::string_view text;
};

struct built_in {
    std::string_view name;
    std::span<const message> messages; // sorted by number
};

// All catalogs with their English messages.
std::span<const built_in> english() noexcept;

// The message of that number; null: there is none.
const message* find_message(std::span<const message> messages, uint32 number) noexcept;

} // namespace qor::catalog
