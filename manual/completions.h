// Completions for shells: each function returns the script for one program. `script` is the part that programs share,
// from the folder `shells`.
#pragma once

#include "programs.h"

#include <string>

namespace qor::manual {

std::string bash_completion(const program& of, std::string script);
std::string zsh_completion(const program& of, std::string script);
std::string fish_completion(const program& of, std::string script);

// The beginning of the names of functions in the script of a program: "qor_heap".
std::string function_name(const program& of);

// Every option that may stand before the action.
std::vector<option> all_options(const program& of);

// Whether the value must follow in the same word: "--file=NAME".
bool has_equals_only(const program& of, const option& each);

// The kind as a word of a script: "@NAME|WORD|WORD".
std::string kind_text(const kind& of);

// `text` with each `from` replaced by `to`.
std::string replaced(std::string text, const std::string& from, const std::string& to);

} // namespace qor::manual
