// Inside the module qor-config: changes of a text that leave everything else in it as it is.
#pragma once

#include "tree.h"

#include <string>
#include <string_view>
#include <vector>

namespace config {

// The text of a value, as SetLiteral takes it. Empty for an array, a table or no value.
std::string literal_of(const qorConfigValue& value);

// The reason why something cannot be set: the number of a message, or 0.
using refusal = uint32;

// Sets a value in `text`, whose outline is `tree`. The caller has to parse the result and compare it with what was
// wanted (is_only_changed).
refusal set(const outline& tree, std::string& text, const std::vector<part>& path, std::string_view literal);

// Removes what a path leads to. Tables that existed through it alone disappear, too. To be checked like the above.
void remove(const outline& tree, std::string& text, const std::vector<part>& path);

// Whether `after` is `before` but for the value at `path`, which is `wanted`, or absent if that is null.
bool is_only_changed(const node& before, const node& after, const std::vector<part>& path, const node* wanted);

} // namespace config
