#include "options.h"

#include "command_table.h"
#include "message_names.h"
#include "suppressions.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace qor::heap_tool {

namespace message = qor::messages::heap;

namespace {

struct command_row {
    const char* name;
    heap_tool::command value;
    std::size_t fewest_logs;
    std::size_t most_logs;
    uint32 syntax;
    uint32 description;
};

constexpr std::size_t any_number = ~std::size_t{0};

constexpr command_row commands[] = {
#define QOR_ACTION(name, value, fewest, most, messages, arguments)                                                     \
    {name, command::value, fewest, most, message::messages##_syntax, message::messages##_description},
#include "command_line.def"
};

bool bad_value(const char* option, const std::string& value) {
    fputmsg(stderr, message::catalog, message::bad_value, value.c_str(), option);
    return false;
}

bool take_number(const char* option, const std::string& value, uint64& to) {
    const char* const end = value.data() + value.size();
    const auto [stop, fault] = std::from_chars(value.data(), end, to);
    return (fault == std::errc() && stop == end) || bad_value(option, value);
}

// A number of bytes, with k, M or G behind it for powers of 1,024.
bool take_bytes(const char* option, const std::string& value, uint64& to) {
    constexpr std::string_view units = "kMG";
    const std::size_t unit = value.empty() ? units.npos : units.find(value.back());
    const std::string digits = unit == units.npos ? value : value.substr(0, value.size() - 1);
    const unsigned shift = unit == units.npos ? 0 : 10 * (static_cast<unsigned>(unit) + 1);
    uint64 number = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, fault] = std::from_chars(digits.data(), end, number);
    if (fault != std::errc() || stop != end || number > ~uint64{0} >> shift)
        return bad_value(option, value);
    to = number << shift;
    return true;
}

bool take_form(const char* option, const std::string& value, export_form& to) {
    constexpr std::string_view names[] = {
#define QOR_EXPORT_FORM(name) #name,
#include "command_line.def"
    };
    const auto found = std::ranges::find(names, value);
    if (found == std::end(names))
        return bad_value(option, value);
    to = static_cast<export_form>(found - names + 1);
    return true;
}

bool take_label(const char* option, const std::string& value, options& chosen) {
    const std::size_t sign = value.find('=');
    if (sign == 0 || sign == std::string::npos)
        return bad_value(option, value);
    chosen.labels.emplace_back(value.substr(0, sign), value.substr(sign + 1));
    return true;
}

struct option_row {
    const char* name;
    bool has_value;
    bool (*handler)(options& chosen, const char* name, const std::string& value); // false after a message
    uint32 syntax;                                                                // 0: another name of the row before
    uint32 description;
};

#define QOR_SETS(statement) [](options& chosen, const char*, const std::string&) { return statement, true; }
#define QOR_TAKES(expression)                                                                                          \
    [](options& chosen, [[maybe_unused]] const char* name, const std::string& value) { return expression; }

constexpr option_row rows[] = {
#define QOR_OPTION(name, has_value, handler, messages, value)                                                          \
    {name, has_value, handler, message::messages##_syntax, message::messages##_description},
#define QOR_OTHER_NAME(name, has_value, handler) {name, has_value, handler, 0, 0},
#include "command_line.def"
};

#undef QOR_SETS
#undef QOR_TAKES

void show_help() {
    fputmsg(stdout, message::catalog, message::usage, true);
    write_help_lines(stdout, message::catalog, commands);
    std::fputs("\n", stdout);
    fputmsg(stdout, message::catalog, message::options_heading, true);
    write_help_lines(stdout, message::catalog, rows);
}

int show_and_end(const char* option) {
    if (std::string_view(option) == "--help")
        show_help();
    else
        fputtext(stdout, built_in_suppressions.data(), built_in_suppressions.size());
    return 0;
}

// An option's place in the words, and its value.
struct option_word {
    const option_row* row = nullptr;
    bool has_value = false;
    std::string value;
};

// "--limit=5" is "--limit 5", and "-oFILE" is "-o FILE".
option_word find_option(const std::string& word) {
    std::size_t end = word.starts_with("--") ? word.find('=') : 2;
    end = end < word.size() ? end : std::string::npos;
    option_word found;
    found.row = find_row(rows, word.substr(0, end).c_str());
    found.has_value = end != std::string::npos;
    if (found.has_value)
        found.value = word.substr(word.starts_with("--") ? end + 1 : end);
    return found;
}

int check_logs(const options& chosen) {
    const auto& row =
        *std::ranges::find_if(commands, [&](const command_row& each) { return each.value == chosen.command; });
    if (chosen.logs.size() >= row.fewest_logs && chosen.logs.size() <= row.most_logs)
        return no_exit_code;
    qorString syntax;
    syntax.LoadString(message::catalog, row.syntax);
    fputmsg(stderr, message::catalog, message::wrong_number_of_logs, row.name, syntax);
    return exit_failure;
}

} // namespace

int read_options(const std::vector<std::string>& words, options& chosen) {
    bool has_options = true;
    for (std::size_t at = 0; at < words.size(); ++at) {
        const std::string& word = words[at];
        if (!has_options || word.size() < 2 || word[0] != '-') {
            if (chosen.command != command::none) {
                chosen.logs.push_back(word);
                continue;
            }
            const command_row* const found = find_row(commands, word.c_str());
            if (found == nullptr) {
                fputmsg(stderr, message::catalog, message::unknown_command, word.c_str());
                return exit_unknown_action;
            }
            chosen.command = found->value;
            continue;
        }
        if (word == "--") {
            has_options = false;
            continue;
        }
        option_word option = find_option(word);
        if (option.row == nullptr || (option.has_value && !option.row->has_value)) {
            fputmsg(stderr, message::catalog, message::unknown_option, word.c_str());
            return exit_unknown_option;
        }
        if (option.row->handler == nullptr)
            return show_and_end(option.row->name);
        if (option.row->has_value && !option.has_value && at + 1 < words.size())
            option.value = words[++at];
        if (option.row->has_value && option.value.empty()) {
            fputmsg(stderr, message::catalog, message::missing_value, option.row->name);
            return exit_unknown_option;
        }
        if (!option.row->handler(chosen, option.row->name, option.value))
            return exit_unknown_option;
    }
    if (chosen.command == command::none) {
        fputmsg(stderr, message::catalog, message::no_command, true);
        return exit_no_action;
    }
    return check_logs(chosen);
}

} // namespace qor::heap_tool
