// Inside the module qor-config: the tree of a text in TOML, with the place of everything in the text.
#pragma once

#include "qor/glue/config_document.h"

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace config {

using qor::config::part;

// A piece of the text.
struct range {
    std::size_t begin = 0;
    std::size_t end = 0;
};

// How something is written.
enum class form {
    scalar,   // a single value
    inlined,  // an array or a table in one value: [1, 2], {a = 1}
    root,     // the table that the text is
    header,   // a table under [a]
    implicit, // a table that only the headers of tables in it mention: a, under [a.b]
    dotted,   // a table that only dotted names mention: a, in a.b = 1
    list,     // an array whose elements are tables under [[a]]
};

struct node {
    struct entry {
        std::string name; // empty in an array
        std::unique_ptr<node> value;
    };

    // An element, or a name with its value, inside an inlined array or table.
    struct piece {
        range place;
        const node* value; // where a dotted name leads
    };

    form written = form::scalar;
    qorConfigValue value; // kind and content; the text is in `text`
    std::string text;
    range place;             // of the value, or of the header; for others that of their first entry
    std::size_t section = 0; // the statement that begins the section where the table grows
    std::vector<entry> entries;
    std::map<std::string, std::size_t, std::less<>> names; // of a table, to the entries
    std::vector<piece> pieces;

    node* find(std::string_view name) const noexcept {
        const auto found = names.find(name);
        return found != names.end() ? entries[found->second].value.get() : nullptr;
    }
    node* find(const part& step) const noexcept {
        if (!step.is_index)
            return value.kind == qorConfigKind::table ? find(step.name) : nullptr;
        return value.kind == qorConfigKind::array && step.index < entries.size() ? entries[step.index].value.get()
                                                                                 : nullptr;
    }
    node& add(std::string name, qorConfigKind kind, form how, std::size_t at);
};

// A header, or a name with its value, on lines of its own. Statement 0 is the beginning of the text.
struct statement {
    bool is_header = false;
    range place;                 // from the first bracket or name to the last bracket or the end of the value
    range lines;                 // with indentation, comment and the end of the last line
    const node* value = nullptr; // the table that the header opens, or the value
    std::size_t section = 0;     // the statement of the header above a name
};

struct outline {
    node root;
    std::vector<statement> statements;
    std::vector<std::size_t> line_begins;
    // The line in which the limit of depth is exceeded, or 0. Then the rest is not scanned.
    std::size_t too_deep_line = 0;
    // The text contradicts itself, so a parser has to refuse it.
    bool is_broken = false;

    // Lines and columns count from 1, columns in characters.
    std::size_t line_of(std::size_t at) const noexcept;
    std::size_t column_of(std::string_view text, std::size_t at) const noexcept;
};

// Scans a text. If it is valid, the result has the place of everything, but scalars have no values yet: only a parser
// knows which texts are valid, and what scalars mean. The result for any other text is arbitrary.
void scan(std::string_view text, outline& out);

// Finds the node to which a path leads; null if it leads nowhere.
const node* find(const node& root, const std::vector<part>& path) noexcept;

// Parsers of a text: fill in the values of scalars. Return false and set the last error on failure.
bool parse(const char* name, std::string_view text, outline& out);

// Whether two trees are the same, wherever they are written.
bool is_equal(const node& one, const node& other) noexcept;

} // namespace config
