// Completions for fish.
#include "completions.h"

namespace qor::manual {

namespace {

std::string quoted(const std::string& text) { return '\'' + replaced(replaced(text, "\\", "\\\\"), "'", "\\'") + '\''; }

class script_writer {
public:
    explicit script_writer(const program& of) : m_program(of), m_begin("__" + function_name(of)) {}

    void write_option(const option& each, const std::string& condition) {
        for (const std::string& name : each.names)
            if (has_equals_only(m_program, each))
                write_option_with_equals(name + '=', each, condition);
            else
                write_switch(name, each, condition);
    }

    void write_action(const action& each) {
        write(condition_of("has_no_action"), "-a " + each.name, each.description);
        std::size_t at = 0;
        for (const kind& argument : each.arguments) {
            if (argument.is_known())
                write(condition_of("at " + each.name + " '" + (argument.is_repeated ? "*" : std::to_string(at)) + '\''),
                      offer_of(argument), "");
            ++at;
        }
    }

    // Of a program without actions.
    void write_arguments() {
        std::size_t at = 0;
        for (const kind& argument : m_program.arguments) {
            if (argument.is_known())
                write("test (count (" + m_begin + "_words)) -eq " + std::to_string(at), offer_of(argument), "");
            ++at;
        }
    }

    void write_program_words(const std::string& options_with_values) {
        std::string none;
        for (const action& each : m_program.actions)
            none.append(none.empty() ? "" : "; and ")
                .append("not ")
                .append(m_begin)
                .append("_at ")
                .append(each.name)
                .append(" '*'");
        write(none, "-a '(__fish_complete_subcommand " + options_with_values + ")'", "");
    }

    std::string condition_of(const std::string& words) const { return m_begin + '_' + words; }
    const std::string& text() const { return m_text; }

private:
    // `condition` is in double quotes, because it has words in single ones.
    void write(const std::string& condition, const std::string& words, const std::string& description) {
        m_text.append("complete -c ").append(m_program.name);
        if (!condition.empty())
            m_text.append(" -n \"").append(condition).append("\"");
        m_text.append(" ").append(words);
        if (!description.empty())
            m_text.append(" -d ").append(quoted(description));
        m_text += '\n';
    }

    std::string offer_of(const kind& of) const {
        return "-a '(" + m_begin + "_offer \"" + kind_text(of) + "\" (commandline -ct))'";
    }

    void write_switch(const std::string& name, const option& each, const std::string& condition) {
        std::string words = name.starts_with("--") ? "-l " + name.substr(2) : "-s " + name.substr(1);
        if (each.has_value)
            words += " -x";
        if (each.value.is_known())
            words.append(" ").append(offer_of(each.value));
        write(condition, words, each.description);
    }

    // As an argument, because fish would also offer an option without the equals sign.
    void write_option_with_equals(const std::string& begin, const option& each, const std::string& condition) {
        const std::string types = m_begin + "_types " + begin;
        const std::string first = condition.empty() ? "" : condition + "; and ";
        write(first + m_begin + "_types -; and not " + types, "-a " + begin, each.description);
        if (each.value.is_known())
            write(first + types, "-a '(" + m_begin + "_value " + begin + " \"" + kind_text(each.value) + "\")'", "");
    }

    const program& m_program;
    std::string m_begin;
    std::string m_text;
};

} // namespace

std::string fish_completion(const program& of, std::string script) {
    script_writer writer(of);
    std::string separate;
    for (const option& each : of.options)
        if (each.has_value && !has_equals_only(of, each))
            for (const std::string& name : each.names)
                separate.append(separate.empty() ? "" : " ").append(name);
    const std::string before_action = of.has_options_anywhere ? "" : writer.condition_of("has_no_action");
    for (const option& each : of.options)
        writer.write_option(each, before_action);
    for (const option& each : of.framework_options)
        writer.write_option(each, "");
    for (const action& each : of.actions) {
        writer.write_action(each);
        for (const option& own : each.options)
            writer.write_option(own, writer.condition_of("at " + each.name + " '*'"));
    }
    writer.write_arguments();
    if (of.runs_program)
        writer.write_program_words(separate);
    script += writer.text();
    const std::string separate_case =
        separate.empty()
            ? ""
            : "                case " + separate + "\n                    set skips 1\n                    continue\n";
    return replaced(replaced(replaced(script, "@f@", function_name(of)), "@separate@", separate_case), "@name@",
                    of.name);
}

} // namespace qor::manual
