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

// A statement that offers the values of a kind, and the end of its case.
std::string offer_of(const std::string& function, const kind& values) {
    return '_' + function + "_offer '" + kind_text(values) + "' \"$1\" ;;\n";
}

// The cases that offer the arguments of an action.
std::string cases_of(const std::string& function, const std::string& action, const std::vector<kind>& arguments) {
    std::string made;
    std::size_t at = 0;
    for (const kind& each : arguments) {
        const std::string place = each.is_repeated ? "*" : std::to_string(at++);
        if (each.is_known())
            made += "        " + action + ':' + place + ") " + offer_of(function, each);
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
            values += "            " + names_of(each, " | ") + ") " + offer_of(name, each.value);
        if (!has_equals_only(of, each))
            separate.append(separate.empty() ? "" : " ").append(names_of(each, " "));
    }
    // A program without actions is one itself.
    const std::string start = of.actions.empty() ? of.name : "";
    std::string actions;
    std::string arguments = cases_of(name, start, of.arguments);
    for (const action& each : of.actions) {
        actions.append(actions.empty() ? "" : " ").append(each.name);
        arguments += cases_of(name, each.name, each.arguments);
    }
    for (const auto& [from, to] : {std::pair<std::string, std::string>("@f@", name),
                                   {"@name@", of.name},
                                   {"@separate@", separate},
                                   {"@actions@", actions},
                                   {"@runs@", of.runs_program ? "yes" : ""},
                                   {"@start@", start},
                                   {"@values@", values},
                                   {"@options@", options_by_action(of)},
                                   {"@arguments@", arguments}})
        script = replaced(script, from, to);
    return script;
}

} // namespace qor::manual
