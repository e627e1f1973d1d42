// Leaves out places that are known: pools that libraries keep to the end of the process, and what the user lists.
// docs/qor-heap.md describes the file.
#pragma once

#include "export/named_profile.h"

#include <string>
#include <string_view>
#include <vector>

namespace qor::heap_tool {

// The pools of the system's libraries, in the form of such a file.
extern const std::string_view built_in_suppressions;

class suppressions {
public:
    // Adds those of a text. Returns the number of the first bad line, from 1; 0: all lines are good.
    std::size_t add(std::string_view text);

    bool matches(const named_profile& in, const heap::profile::place& place) const;

private:
    // A frame has to match all patterns. Empty patterns match everything.
    struct rule {
        bool is_innermost = false; // the first frame of the stack alone
        std::string function, object, file;
        uint64 size = 0; // of each block; 0: any
    };

    static bool parse(std::string_view line, rule& out);
    static bool matches(const rule& wanted, const named_profile& in, const named_profile::function& frame);

    std::vector<rule> m_rules;
};

// '*' matches any characters, '?' any one.
bool matches_pattern(std::string_view text, std::string_view pattern) noexcept;

} // namespace qor::heap_tool
