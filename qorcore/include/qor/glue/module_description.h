// What a module says about itself, as data in a section of its file: its name, what it was compiled against, and the
// components that it offers. libqor reads the section from the file, so that no code of a module runs before libqor
// knows that the module can work, and so that nothing has to be loaded to find out who offers a component.
//
// The numbers are in the byte order of the machine.
#pragma once

#include "qor/glue/binding.h"

#include <string_view>

namespace qor::glue {

inline constexpr char framework_version[] = QOR_VERSION;

// The section of the description. A name of Windows has at most eight bytes there.
#define QOR_MODULE_SECTION "qor_mod"

// The version of the form below.
inline constexpr uint32 description_layout = 1;

// Limits, in bytes without a final NUL.
inline constexpr uint32 longest_module_name = 100;
inline constexpr uint32 longest_version = 50;
inline constexpr uint32 longest_component_name = 255;

constexpr bool is_name_byte(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
}

// Returns whether a text consists of at least `least` parts of name bytes, with a dot between them.
constexpr bool is_dotted(std::string_view text, unsigned least) noexcept {
    unsigned parts = 1;
    char before = '.';
    for (const char c : text) {
        if (c == '.' ? before == '.' : !is_name_byte(c))
            return false;
        parts += c == '.';
        before = c;
    }
    return before != '.' && parts >= least;
}

// Whether a text can be the name of a module or a message catalog, which is also the name of a file; a version: dotted
// numbers; the name of a component, which has at least two parts.
constexpr bool is_module_name(std::string_view text) noexcept {
    return text.size() <= longest_module_name && is_dotted(text, 1);
}
constexpr bool is_version(std::string_view text) noexcept {
    return text.size() <= longest_version && is_dotted(text, 1) &&
           text.find_first_not_of(".0123456789") == std::string_view::npos;
}
constexpr bool is_component_name(std::string_view text) noexcept {
    return text.size() <= longest_component_name && is_dotted(text, 2);
}

// A row of the table, and the form that its operation has: a number that changes with its name, its result or the type
// of a parameter, and not with the name of a parameter.
struct module_row {
    uint32 number;
    uint32 form;
};

namespace row_form {

consteval uint32 add(uint32 hash, std::string_view text) { // FNV-1a
    for (const char c : text)
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619u;
    return hash;
}

// Adds a parameter, "const char* name", without its name.
consteval uint32 add_type(uint32 hash, std::string_view parameter) {
    while (!parameter.empty() && parameter.front() == ' ')
        parameter.remove_prefix(1);
    std::size_t end = parameter.size();
    while (end != 0 && is_name_byte(parameter[end - 1]))
        --end;
    while (end != 0 && parameter[end - 1] == ' ')
        --end;
    return add(add(hash, parameter.substr(0, end)), ",");
}

// `parameters` is in parentheses, as in slots.def.
consteval uint32 of(std::string_view result, std::string_view op, std::string_view parameters) {
    uint32 hash = add(add(add(add(2166136261u, result), " "), op), "(");
    parameters = parameters.substr(1, parameters.size() - 2);
    while (!parameters.empty()) {
        const std::size_t end = parameters.find(',');
        hash = add_type(hash, parameters.substr(0, end));
        parameters.remove_prefix(end == std::string_view::npos ? parameters.size() : end + 1);
    }
    return hash;
}

} // namespace row_form

// All rows of slots.def that have an operation.
inline constexpr module_row written_rows[] = {
#define QOR_SLOT(number, result, op, parameters, arguments) {number, row_form::of(#result, #op, #parameters)},
#define QOR_RESERVED(number, op)
#define QOR_FREE(first, count)
#include "qor/glue/slots.def"
#undef QOR_SLOT
#undef QOR_RESERVED
#undef QOR_FREE
};
inline constexpr uint32 written_row_count = sizeof written_rows / sizeof written_rows[0];

// The beginning of a description. The rows follow, and behind them the texts, each with a NUL: name, version, version
// of the framework, components.
struct module_description {
    char magic[8] = {'q', 'o', 'r', ' ', 'm', 'o', 'd', '\n'};
    uint32 layout = description_layout;
    uint32 size = 0; // of all of it
    uint32 table_length = slot_count;
    uint32 row_count = written_row_count;
};

template <std::size_t TEXT>
struct whole_module_description {
    module_description head;
    module_row rows[written_row_count];
    char text[TEXT];
};

// These are not constant expressions: a description that reaches one does not compile.
inline void this_is_no_name_for_a_module() {}
inline void this_is_no_version() {}
inline void this_is_no_name_for_a_component() {}

// Makes the description of a module.
template <std::size_t... SIZES>
consteval auto describe_module(const char (&... texts)[SIZES]) {
    whole_module_description<(SIZES + ...)> made{};
    made.head.size = sizeof made.head + sizeof made.rows + sizeof made.text;
    for (uint32 i = 0; i < written_row_count; ++i)
        made.rows[i] = written_rows[i];
    char* at = made.text;
    unsigned place = 0;
    for (const std::string_view text : {std::string_view(texts, SIZES - 1)...}) {
        if (place == 0 && !is_module_name(text))
            this_is_no_name_for_a_module();
        if (place == 1 && !is_version(text))
            this_is_no_version();
        if (place > 2 && !is_component_name(text))
            this_is_no_name_for_a_component();
        for (const char c : text)
            *at++ = c;
        *at++ = '\0';
        ++place;
    }
    return made;
}

} // namespace qor::glue
