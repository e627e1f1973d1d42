#include "options.h"

#include "messages.h"
#include "shared/arena.h"
#include "terminal.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace qor::record {

namespace {

bool take_depth(options& chosen, const std::string& value) {
    const char* const end = value.data() + value.size();
    const auto [stop, error] = std::from_chars(value.data(), end, chosen.depth);
    if (error == std::errc() && stop == end && chosen.depth <= most_frames)
        return true;
    say(message::bad_depth, {value, std::to_string(most_frames)});
    return false;
}

bool take_compression(options& chosen, compression::format kind) {
    if (chosen.kind != compression::format::none && chosen.kind != kind) {
        say(message::both_compressions);
        return false;
    }
    chosen.kind = kind;
    return true;
}

constexpr option_row rows[] = {
#define QOR_SETS(statement) [](options& chosen, const std::string&) { return statement, true; }
#define QOR_TAKES(expression) [](options& chosen, [[maybe_unused]] const std::string& value) { return expression; }
#define QOR_OPTION(name, has_value, handler, messages, value)                                                          \
    {name, has_value, handler, message::messages##_syntax, message::messages##_description},
#include "command_line.def"
#undef QOR_SETS
#undef QOR_TAKES
};

template <class Function>
void for_each_row(Function function) {
    for (const option_row& each : rows)
        function(each);
    for (const option_row& each : options_of_system())
        function(each);
}

void show_help() {
    std::string help = text_of(message::usage) + '\n';
    constexpr std::size_t column = 18;
    for_each_row([&](const option_row& each) {
        std::string syntax = text_of(each.syntax);
        const auto width = std::ranges::count_if(syntax, [](char c) { return (c & 0xc0) != 0x80; }); // characters
        syntax.append(column - std::min(column, static_cast<std::size_t>(width)), ' ');
        help.append("  ").append(syntax).append(" ").append(text_of(each.description)).append("\n");
    });
    write_text(stream::output, help);
}

const option_row* find_row(std::string_view name) {
    const option_row* found = nullptr;
    for_each_row([&](const option_row& each) { found = name == each.name ? &each : found; });
    return found;
}

} // namespace

int read_options(int argc, char** argv, options& chosen) {
    int at = 1;
    for (; at < argc && argv[at][0] == '-'; ++at) {
        const std::string_view word = argv[at];
        if (word == "--") {
            ++at;
            break;
        }
        // "--depth=8" is "--depth 8"; "-oFILE" is "-o FILE".
        std::size_t end = word.starts_with("--") ? word.find('=') : 2;
        end = end < word.size() ? end : std::string_view::npos;
        const option_row* const row = find_row(word.substr(0, end));
        if (row == nullptr || (end != std::string_view::npos && !row->has_value)) {
            say(message::unknown_option, {argv[at]});
            return 1;
        }
        if (row->handler == nullptr) {
            show_help();
            return 0;
        }
        std::string value;
        if (row->has_value) {
            if (end != std::string_view::npos)
                value = word.substr(word.starts_with("--") ? end + 1 : end);
            else if (at + 1 < argc)
                value = argv[++at];
            if (value.empty()) {
                say(message::missing_value, {row->name});
                return 1;
            }
        }
        if (!row->handler(chosen, value))
            return 1;
    }
    chosen.command.assign(argv + at, argv + argc);
    if (!chosen.command.empty())
        return no_exit_code;
    say(message::no_program);
    return 1;
}

} // namespace qor::record
