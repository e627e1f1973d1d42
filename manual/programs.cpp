// The lists are those that the programs themselves are built from, with their English texts.
#include "programs.h"

#include "memory/tracking.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <string_view>

namespace {

#define QOR_MESSAGE(number, name, text) inline constexpr char name[] = text;

namespace framework_text {
#include "qorcore.def"
} // namespace framework_text
namespace tool_text {
#include "qortool.def"
} // namespace tool_text
namespace debug_user_text {
#include "qor-debug-user.def"
} // namespace debug_user_text
namespace heap_text {
#include "qor-heap.def"
} // namespace heap_text
namespace record_text {
#include "qor-record.def"
} // namespace record_text

#undef QOR_MESSAGE

using namespace qor::manual;

constexpr std::array kind_names = {"file", "mtrace", "memcheck", "log", "port", "user", "account", "host"};

// Reads the kinds of a list: words, and several for one argument with "|" between.
class kind_reader {
public:
    explicit kind_reader(const std::vector<std::string>& languages) : m_languages(languages) {}

    kind read_one(std::string text) const {
        kind made;
        if (text.ends_with("...")) {
            made.is_repeated = true;
            text.resize(text.size() - 3);
        }
        std::istringstream parts(text);
        for (std::string part; std::getline(parts, part, '|');) {
            if (part == "form")
                made.words = {
#define QOR_EXPORT_FORM(name) #name,
#include "qor-heap/command_line.def"
                };
            else if (part == "language")
                made.words = m_languages;
            else if (std::ranges::find(kind_names, part) != kind_names.end())
                made.name = part;
            else if (part != "text")
                made.words.push_back(part);
        }
        return made;
    }

    std::vector<kind> read(const std::string& text) const {
        std::vector<kind> made;
        std::istringstream words(text);
        for (std::string word; words >> word;)
            made.push_back(read_one(word));
        return made;
    }

private:
    const std::vector<std::string>& m_languages;
};

option make_option(const kind_reader& kinds, const char* name, bool has_value, const char* value, const char* syntax,
                   const char* description) {
    return {{name}, syntax, description, has_value, kinds.read_one(value), {}};
}

std::vector<option> framework_options(const kind_reader& kinds) {
    std::vector<option> made;
#define QOR_FRAMEWORK_OPTION(name, of_environment, value_name, carry_out, turn, messages, is_for_one_process, value)   \
    made.push_back(make_option(kinds, "--qor-" name, true, value, framework_text::messages##_syntax,                   \
                               framework_text::messages##_description));                                               \
    made.back().variable = of_environment;
#include "process/framework_options.def"
#undef QOR_FRAMEWORK_OPTION
    return made;
}

void add_dispatch_codes(program& to) {
#define QOR_EXIT_CODE(code, name, meaning) to.exit_codes.push_back({code, meaning});
#include "qortool/exit_codes.def"
#undef QOR_EXIT_CODE
}

void add_loading_code(program& to) { to.exit_codes.push_back({100, "The library libqor could not be loaded."}); }

program read_qortool(const kind_reader& kinds) {
    program made;
    made.name = "qortool";
#define QOR_OPTION(name, handler, messages)                                                                            \
    made.options.push_back(                                                                                            \
        make_option(kinds, "--" name, false, "", tool_text::messages##_syntax, tool_text::messages##_description));
#define QOR_ACTION(name, handler, messages, arguments)                                                                 \
    made.actions.push_back(                                                                                            \
        {name, tool_text::messages##_syntax, tool_text::messages##_description, kinds.read(arguments), {}});
#define QOR_ACTION_OPTION(of, option_name)                                                                             \
    std::ranges::find(made.actions, #of, &action::name)                                                                \
        ->options.push_back(make_option(kinds, "--" option_name, false, "", "--" option_name, ""));
#define QOR_CONSOLE_COMMAND(name, handler, message) made.console_commands.push_back(tool_text::console_##message);
#include "qortool/command_line.def"
    made.exit_codes = {
        {0, "The action succeeded. A replay that finds leaks has succeeded."},
        {1, "The action failed, its arguments or options are wrong, an option of the framework is wrong, or the action "
            "was 'help'."}};
    add_dispatch_codes(made);
    add_loading_code(made);
    made.framework_options = framework_options(kinds);
    return made;
}

program read_debug_user(const kind_reader& kinds) {
    program made;
    made.name = "qor-debug-user";
    made.has_options_anywhere = true;
#define QOR_OPTION(name, messages, value)                                                                              \
    made.options.push_back(make_option(kinds, "--" #name, *(value) != '\0', value, debug_user_text::messages##_syntax, \
                                       debug_user_text::messages##_description));
#define QOR_ACTION(name, count, messages, arguments)                                                                   \
    made.actions.push_back({#name,                                                                                     \
                            debug_user_text::messages##_syntax,                                                        \
                            debug_user_text::messages##_description,                                                   \
                            kinds.read(arguments),                                                                     \
                            {}});
#include "qor-debug-user/command_line.def"
    made.exit_codes = {{0, "The action succeeded."},
                       {1, "The action failed, its arguments are wrong, or an option of the framework is wrong."}};
    add_dispatch_codes(made);
    add_loading_code(made);
    made.framework_options = framework_options(kinds);
    return made;
}

program read_heap(const kind_reader& kinds) {
    program made;
    made.name = "qor-heap";
    made.takes_next_word = true;
    made.has_options_anywhere = true;
    made.exit_codes = {{0, "The command succeeded, and the table is within the limits."}};
#define QOR_ACTION(name, value, fewest, most, messages, arguments)                                                     \
    made.actions.push_back(                                                                                            \
        {name, heap_text::messages##_syntax, heap_text::messages##_description, kinds.read(arguments), {}});
#define QOR_OPTION(name, has_value, handler, messages, value)                                                          \
    made.options.push_back(                                                                                            \
        make_option(kinds, name, has_value, value, heap_text::messages##_syntax, heap_text::messages##_description));
#define QOR_OTHER_NAME(name, has_value, handler) made.options.back().names.push_back(name);
#define QOR_EXIT_CODE(code, name, meaning) made.exit_codes.push_back({code, meaning});
#include "qor-heap/command_line.def"
    add_dispatch_codes(made);
    add_loading_code(made);
    std::ranges::sort(made.exit_codes, {}, &exit_code::code);
    made.framework_options = framework_options(kinds);
    return made;
}

program read_record(const kind_reader& kinds) {
    constexpr std::string_view before_usage = "Usage: qor-record ";
    program made;
    made.name = "qor-record";
    made.takes_next_word = true;
    made.runs_program = true;
#define QOR_ACTION(name, usage, arguments)                                                                             \
    made.actions.push_back({#name, record_text::usage + before_usage.size(), {}, kinds.read(arguments), {}});
#define QOR_OPTION(name, has_value, handler, messages, value)                                                          \
    made.options.push_back(make_option(kinds, name, has_value, value, record_text::messages##_syntax,                  \
                                       record_text::messages##_description));
#include "qor-record/command_line.def"
    return made;
}

// It has one option of its own and no table.
program read_check(const kind_reader& kinds) {
    program made;
    made.name = "qor-check";
    made.arguments = kinds.read("file");
    made.options = {make_option(kinds, "--help", false, "", "--help", "Shows the usage.")};
    made.framework_options = framework_options(kinds);
    made.exit_codes = {{0, "The program binds."},
                       {1, "It does not bind, and would end with exit code 100."},
                       {2, "It cannot be examined, or the command line is wrong."}};
    return made;
}

} // namespace

std::vector<program> qor::manual::read_tables(const std::vector<std::string>& languages) {
    const kind_reader kinds(languages);
    return {read_qortool(kinds), read_heap(kinds), read_record(kinds), read_debug_user(kinds), read_check(kinds)};
}
