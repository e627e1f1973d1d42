// Completions for zsh.
#include "completions.h"

namespace qor::manual {

namespace {

// Inside of single quotes.
std::string quoted(const std::string& text) { return replaced(text, "'", "'\\''"); }

std::string explained(const std::string& text) {
    return quoted(replaced(replaced(replaced(text, "\\", "\\\\"), "[", "\\["), "]", "\\]"));
}

std::string files(const std::string& endings) { return "_files -g \"*." + endings + "(|.<->)(|.<->)(|.gz|.zst)(-.)\""; }

// The action of zsh that completes this kind.
std::string action_of(const kind& of, const std::string& function) {
    std::string named;
    if (of.name == "file")
        named = "_files";
    else if (of.name == "mtrace" || of.name == "memcheck")
        named = files(of.name);
    else if (of.name == "log")
        named = files("(mtrace|memcheck)");
    else if (of.name == "port" || of.name == "account")
        named = '_' + function + '_' + of.name + 's';
    else if (of.name == "user")
        named = "_users";
    else if (of.name == "host")
        named = "_hosts";
    std::string words;
    for (const std::string& word : of.words)
        words.append(words.empty() ? "" : " ").append(word);
    if (words.empty())
        return named.empty() ? " " : named;
    return named.empty() ? '(' + words + ')'
                         : "_alternative \"words\\:word\\:(" + words + ")\" \"files\\:file\\:" + named + '"';
}

// What is shown above the values.
std::string title_of(const kind& of) {
    if (of.name == "mtrace" || of.name == "memcheck")
        return of.name + " log";
    if (of.name == "port")
        return "serial port";
    return of.name.empty() ? "value" : of.name;
}

std::string argument(const kind& of, const std::string& function, std::size_t place) {
    return "'" + (of.is_repeated ? "*" : std::to_string(place)) + ':' + title_of(of) + ':' + action_of(of, function) +
           '\'';
}

std::string option_specs(const program& of, const std::vector<option>& options, const std::string& indentation) {
    std::string made;
    for (const option& each : options)
        for (const std::string& name : each.names) {
            made.append(indentation).append("'").append(name);
            if (each.has_value)
                made += has_equals_only(of, each) ? "=-" : name.starts_with("--") ? "=" : "+";
            if (!each.description.empty())
                made.append("[").append(explained(each.description)).append("]");
            if (each.has_value)
                made.append(":")
                    .append(title_of(each.value))
                    .append(":")
                    .append(action_of(each.value, function_name(of)));
            made += "'\n";
        }
    return made;
}

} // namespace

std::string zsh_completion(const program& of, std::string script) {
    const std::string name = function_name(of);
    std::string actions;
    std::string arguments;
    for (const action& each : of.actions) {
        actions.append("        '").append(each.name).append(":").append(quoted(each.description)).append("'\n");
        arguments.append("                ")
            .append(each.name)
            .append(")\n                    _arguments -S")
            .append(of.has_options_anywhere ? " $options" : " $framework");
        std::string own = option_specs(of, each.options, " ");
        arguments += replaced(own, "\n", "");
        std::size_t place = 0;
        for (const kind& each_argument : each.arguments)
            arguments.append(" ").append(argument(each_argument, name, ++place));
        arguments += " && ret=0\n                    ;;\n";
    }
    // A program without actions has its arguments at once.
    std::string words =
        of.runs_program ? " '(-)1: :->action' '(-)*:: :->arguments'" : " '1: :->action' '*:: :->arguments'";
    if (of.actions.empty()) {
        words.clear();
        std::size_t place = 0;
        for (const kind& each : of.arguments)
            words.append(" ").append(argument(each, name, ++place));
    }
    std::string at_action = "            _describe -t actions action actions && ret=0\n";
    if (of.runs_program) {
        at_action +=
            "            _alternative 'commands:program:_command_names -e' 'files:file:_files -g \"*(-*)\"' && ret=0\n";
        arguments += "                *)\n                    _normal && ret=0\n                    ;;\n";
    }
    for (const auto& [from, to] : {std::pair<std::string, std::string>("@f@", name),
                                   {"@framework@", option_specs(of, of.framework_options, "        ")},
                                   {"@options@", option_specs(of, of.options, "        ")},
                                   {"@actions@", actions},
                                   {"@words@", words},
                                   {"@at_action@", at_action},
                                   {"@arguments@", arguments},
                                   {"@name@", of.name}})
        script = replaced(script, from, to);
    return script;
}

} // namespace qor::manual
