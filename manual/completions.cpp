#include "completions.h"

#include <algorithm>

namespace qor::manual {

std::string function_name(const program& of) {
    std::string made = of.name;
    std::ranges::replace(made, '-', '_');
    return made;
}

std::vector<option> all_options(const program& of) {
    std::vector<option> made = of.options;
    made.insert(made.end(), of.framework_options.begin(), of.framework_options.end());
    return made;
}

bool has_equals_only(const program& of, const option& each) {
    return each.has_value && (!of.takes_next_word || !each.variable.empty());
}

std::string kind_text(const kind& of) {
    std::string made;
    if (!of.name.empty())
        made.append("@").append(of.name);
    for (const std::string& word : of.words)
        made.append(made.empty() ? "" : "|").append(word);
    return made;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = text.find(from); at != text.npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

} // namespace qor::manual
