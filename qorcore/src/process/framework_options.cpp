// One table has the name, the value and the effect of each option. The command line takes precedence over the
// environment.
#include "process/framework_options.h"

#include "catalog/catalog.h"
#include "debug/trace_output.h"
#include "error/error.h"
#include "log/log.h"
#include "memory/tracking.h"
#include "message_names.h"
#include "platform/own_process.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <numeric>
#include <optional>
#include <string>
#include <string_view>

namespace framework = qor::messages::framework;

namespace {

constexpr std::string_view prefix = "--qor-";

// `source` is the option or the variable as the user wrote it, for error messages.
using action = bool (*)(const char* source, const std::string& value);

bool set_language(const char* source, const std::string& value) {
    std::string why;
    if (qor::catalog::set_languages(value, why))
        return true;
    qor::error::set(qorError_option_bad_value, {source, value.c_str(), why.c_str()});
    return false;
}

bool check_written(const char* source, const std::string& path, int reason) {
    if (reason != 0)
        qor::error::set(qorError_option_cannot_write,
                        {source, path.c_str(), qor::error::system_reason(reason).c_str()});
    return reason == 0;
}

bool trace_to_file(const char* source, const std::string& value) {
    return check_written(source, value, qor::debug::attach_file(value.c_str()));
}

bool log_to(const char* source, const std::string& value) {
    return check_written(source, value, qor::log::set_target(value.c_str()));
}

bool enable_codes(const char*, const std::string& value) {
    std::size_t begin = 0;
    while (begin <= value.size()) {
        const std::size_t end = std::min(value.find(',', begin), value.size());
        if (end != begin)
            qor::glue::qorDebugEnableCode(value.substr(begin, end - begin).c_str(), true);
        begin = end + 1;
    }
    return true;
}

bool start_allocation_log(const char* source, const std::string& value) {
    return check_written(source, value, qor::memory::start_log(value));
}

// The accounts file for the option debug-listen.
std::string& users_file() {
    static auto* const made = new std::string;
    return *made;
}

bool take_users_file(const char*, const std::string& value) {
    users_file() = value;
    return true;
}

bool listen_for_debug_control(const char*, const std::string& value) {
    return qor::glue::qorDebugListen(value.c_str(), users_file().empty() ? nullptr : users_file().c_str(), nullptr);
}

struct option {
    const char* name; // without the prefix
    const char* variable;
    const char* value_name;
    action carry_out;
    int turn;
    qor::process::option_help help;
    bool is_for_one_process;
};

constexpr option options[] = {
#define QOR_FRAMEWORK_OPTION(name, variable, value_name, carry_out, turn, messages, is_for_one_process, value)         \
    {name,                                                                                                             \
     variable,                                                                                                         \
     value_name,                                                                                                       \
     carry_out,                                                                                                        \
     turn,                                                                                                             \
     {framework::messages##_syntax, framework::messages##_description},                                                \
     is_for_one_process},
#include "process/framework_options.def"
#undef QOR_FRAMEWORK_OPTION
};

// Their places in the table, in the order in which they are carried out.
constexpr auto in_turn = [] {
    std::array<std::size_t, std::size(options)> places{};
    std::iota(places.begin(), places.end(), std::size_t{0});
    std::ranges::sort(places, {}, [](std::size_t place) { return options[place].turn; });
    return places;
}();

struct settings {
    std::optional<std::string> values[std::size(options)];
};

// Returns false if the framework does not have the option, or if its value is missing.
bool read_option(const char* word, settings& wanted) {
    const std::string_view text = std::string_view(word).substr(prefix.size());
    const std::size_t equals = std::min(text.find('='), text.size());
    for (std::size_t i = 0; i < std::size(options); ++i) {
        if (text.substr(0, equals) != options[i].name)
            continue;
        if (equals + 1 >= text.size()) {
            const std::string option_word = std::string(word, prefix.size() + equals);
            qor::error::set(qorError_option_needs_value, {option_word.c_str(), options[i].value_name});
            return false;
        }
        wanted.values[i] = text.substr(equals + 1);
        return true;
    }
    qor::error::set(qorError_unknown_framework_option, {std::string(word, prefix.size() + equals).c_str()});
    return false;
}

// Returns false if an option is wrong. The other options are still read, because one of them may set the language of
// the error message. The words between the options move down in a single pass, which keeps the work linear.
bool take_from(qorStringArray& args, settings& wanted) {
    bool understood = true;
    uint32 kept = 0;
    uint32 at = 0;
    for (; at < args.GetCount() && std::strcmp(args[at], "--") != 0; ++at) {
        qorString* const words = args.m_data.elements;
        if (std::strncmp(args[at], prefix.data(), prefix.size()) != 0)
            std::swap(words[kept++], words[at]);
        else if (!read_option(args[at], wanted))
            understood = false;
    }
    args.RemoveAt(kept, at - kept);
    return understood;
}

// A variable for a single process gets the id of the process that first reads it: "7447/1234". Child processes inherit
// the variable and ignore it; a program that replaces the process by exec still uses it. Returns false if the variable
// is for another process.
bool claim(const char* variable, std::string& value) {
    const std::string mark = '/' + std::to_string(qor::platform::process_id());
    const std::size_t slash = value.rfind('/');
    if (slash == value.npos) {
        qor::platform::set_environment(variable, (value + mark).c_str());
        return true;
    }
    const bool is_ours = value.substr(slash) == mark;
    value.resize(slash);
    return is_ours;
}

} // namespace

std::vector<qor::process::option_help> qor::process::option_helps() {
    std::vector<option_help> helps;
    for (const option& each : options)
        helps.push_back(each.help);
    return helps;
}

bool qor::process::apply_framework_options(qorStringArray& args) {
    settings wanted;
    const bool understood = take_from(args, wanted);
    // The options would write files and open the process to others, with rights that the caller does not have.
    if (platform::is_privileged())
        wanted = {};
    bool logging = false;
    for (const std::size_t i : in_turn) {
        // Even a wrong command line is reported in the user's language.
        if (i != in_turn.front() && !understood)
            return false;
        std::string source = std::string(prefix) + options[i].name;
        if (const char* const variable = platform::environment(options[i].variable)) {
            std::string value = variable;
            const bool is_ours = !options[i].is_for_one_process || claim(options[i].variable, value);
            if (is_ours && !wanted.values[i]) {
                wanted.values[i] = value;
                source = options[i].variable;
            }
        }
        if (!wanted.values[i])
            continue;
        if (!options[i].carry_out(source.c_str(), *wanted.values[i]))
            return false;
        logging |= options[i].carry_out == start_allocation_log;
    }
    if (!logging)
        memory::stop_tracking();
    return true;
}
