// Completions for bash, with the functions of bash-completion.
#include "completions.h"

namespace qor::manual {

namespace {

std::string names_of(const option& each, const char* between) {
    std::string made;
    for (const std::string& name : each.names)
        made.append(made.empty() ? "" : between).append(name);
    return made;
}

// The words to offer for options: "--file=" if its value must follow in the same word.
std::string option_words(const program& of, const std::vector<option>& options) {
    std::string made;
    for (const option& each : options)
        for (const std::string& name : each.names)
            made.append(made.empty() ? "" : " ").append(name).append(has_equals_only(of, each) ? "=" : "");
    return made;
}

std::string offer_options(const std::string& pattern, const std::string& words) {
    return "            " + pattern + ") COMPREPLY=($(compgen -W '" + words + "' -- \"$cur\")) ;;\n";
}

std::string options_by_action(const program& of) {
    if (of.has_options_anywhere || of.runs_program || of.actions.empty())
        return offer_options("*", option_words(of, all_options(of)));
    std::string made = offer_options("''", option_words(of, all_options(of)));
    for (const action& each : of.actions)
        if (!each.options.empty())
            made +=
                offer_options(each.name, option_words(of, each.options) + ' ' + option_words(of, of.framework_options));
    return made + offer_options("*", option_words(of, of.framework_options));
}

// The cases that offer the arguments of an action.
std::string cases_of(const std::string& function, const std::string& action, const std::vector<kind>& arguments) {
    std::string made;
    std::size_t at = 0;
    for (const kind& each : arguments) {
        if (each.is_known())
            made.append("        ")
                .append(action)
                .append(":")
                .append(each.is_repeated ? "*" : std::to_string(at))
                .append(") _")
                .append(function)
                .append("_offer '")
                .append(kind_text(each))
                .append("' \"$1\" ;;\n");
        ++at;
    }
    return made;
}

} // namespace

std::string bash_completion(const program& of, std::string script) {
    const std::string name = function_name(of);
    std::string values;
    std::string separate;
    for (const option& each : all_options(of)) {
        if (!each.has_value)
            continue;
        if (each.value.is_known())
            values.append("            ")
                .append(names_of(each, " | "))
                .append(") _")
                .append(name)
                .append("_offer '")
                .append(kind_text(each.value))
                .append("' \"$1\" ;;\n");
        if (!has_equals_only(of, each))
            separate.append(separate.empty() ? "" : " | ").append(names_of(each, " | "));
    }
    std::string actions;
    std::string arguments;
    for (const action& each : of.actions) {
        actions.append(actions.empty() ? "" : " ").append(each.name);
        arguments += cases_of(name, each.name, each.arguments);
    }
    // A program without actions is one itself.
    const std::string start = of.actions.empty() ? of.name : "";
    if (of.actions.empty())
        arguments = cases_of(name, start, of.arguments);
    else
        arguments.insert(0, "        :*) COMPREPLY=($(compgen -W '" + actions + "' -- \"$cur\")) ;;\n");
    std::string first_word;
    std::string program_words;
    if (of.runs_program) {
        // Behind the options stands a command with words of its own; only as the first word is an action's name one.
        first_word = "            if [[ ! $action && ($at -gt 1 || ${words[at]} != @(" + replaced(actions, " ", "|") +
                     ")) ]]; then\n                _" + name + "_program $at\n                return\n            fi\n";
        program_words = "    if [[ ! $action ]]; then\n        _" + name +
                        "_program $cword\n"
                        "        ((cword == 1)) && COMPREPLY+=($(compgen -W '" +
                        actions +
                        "' -- \"$cur\"))\n"
                        "        return\n    fi\n";
    }
    std::string next_word;
    std::string separate_case;
    if (!separate.empty()) {
        separate_case = "            " + separate + ") ((at++)) ;;\n";
        next_word = "    [[ $prev == @(" + replaced(separate, " | ", "|") + ") && $at -gt $cword ]] && of=$prev\n";
    }
    for (const auto& [from, to] : {std::pair<std::string, std::string>("@f@", name),
                                   {"@first_word@", first_word},
                                   {"@separate@", separate_case},
                                   {"@next_word@", next_word},
                                   {"@values@", values},
                                   {"@options@", options_by_action(of)},
                                   {"@program@", program_words},
                                   {"@start@", start},
                                   {"@arguments@", arguments},
                                   {"@name@", of.name}})
        script = replaced(script, from, to);
    return script;
}

} // namespace qor::manual
