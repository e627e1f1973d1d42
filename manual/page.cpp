#include "page.h"

#include <algorithm>
#include <functional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace qor::manual {

namespace {

// Text in roff. A hyphen becomes a minus, which can be searched for and copied, and which does not end a line.
std::string plain(std::string_view text) {
    std::string made;
    for (const char c : text) {
        if (c == '\\')
            made += "\\e";
        else if (c == '-')
            made += "\\-";
        else if (c == '\'')
            made += "\\(aq";
        else
            made += c;
    }
    // At the beginning of a line, a dot would begin a macro.
    return made.starts_with('.') ? "\\&" + made : made;
}

bool is_placeholder(std::string_view word) {
    return !word.empty() && std::ranges::all_of(word, [](char c) { return (c >= 'A' && c <= 'Z') || c == '_'; });
}

// The syntax of a row: words as they are typed in bold, what is to be replaced in italics.
std::string syntax_in_roff(std::string_view syntax) {
    std::string made;
    std::string bold;
    const auto end_bold = [&] {
        if (!bold.empty())
            made.append("\\fB").append(plain(bold)).append("\\fR");
        bold.clear();
    };
    for (std::size_t at = 0; at < syntax.size();) {
        const char c = syntax[at];
        if (c == '<') {
            end_bold();
            const std::size_t end = syntax.find('>', at);
            made.append("\\fI").append(plain(syntax.substr(at + 1, end - at - 1))).append("\\fR");
            at = end + 1;
            continue;
        }
        const std::size_t end = std::min(syntax.find_first_of(" []|:=.<", at), syntax.size());
        const std::string_view word = syntax.substr(at, end - at);
        if (is_placeholder(word)) {
            end_bold();
            made.append("\\fI").append(word).append("\\fR");
            at = end;
        } else if (!word.empty()) {
            bold += word;
            at = end;
        } else if (c == '=' || c == ':') {
            bold += c;
            ++at;
        } else {
            end_bold();
            made += c;
            ++at;
        }
    }
    end_bold();
    return made;
}

std::string row(const std::string& syntax, const std::string& description) {
    std::string made = ".TP\n" + syntax + '\n';
    // In roff, a sentence ends at the end of a line.
    std::string sentences = plain(description);
    for (std::size_t at = sentences.find(". "); at != sentences.npos; at = sentences.find(". ", at + 1))
        sentences[at + 1] = '\n';
    if (!description.empty())
        made.append(sentences).append("\n");
    return made;
}

std::string row_of(const action& each) { return row(syntax_in_roff(each.syntax), each.description); }

std::string row_of(const option& each) {
    std::string syntax = syntax_in_roff(each.syntax);
    for (std::size_t other = 1; other < each.names.size(); ++other)
        syntax.append(", \\fB").append(plain(each.names[other])).append("\\fR");
    return row(syntax, each.description);
}

const std::string& name_of(const action& each) { return each.name; }
const std::string& name_of(const option& each) { return each.names[0]; }

// The rows of a table, each of which has exactly one place in the page.
template <class ROW>
class placed_rows {
public:
    explicit placed_rows(const std::vector<ROW>& rows) : m_rows(rows) {}

    std::string place(const std::string& name) {
        const auto found = std::ranges::find_if(m_rows, [&name](const ROW& each) { return name_of(each) == name; });
        if (found == m_rows.end() || !m_placed.insert(name).second)
            throw std::runtime_error("the tables have no row '" + name + "', or it has a place already");
        return row_of(*found);
    }

    // `named` are the rows that places of the page name.
    std::string place_others(const std::set<std::string>& named) {
        std::string made;
        for (const ROW& each : m_rows)
            if (!named.contains(name_of(each)))
                made += place(name_of(each));
        return made;
    }

    void check() const {
        for (const ROW& each : m_rows)
            if (!m_placed.contains(name_of(each)))
                throw std::runtime_error("no place for '" + name_of(each) + "'");
    }

private:
    const std::vector<ROW>& m_rows;
    std::set<std::string> m_placed;
};

class page_writer {
public:
    page_writer(const program& of, const std::string& page)
        : m_program(of), m_actions(of.actions), m_options(of.options) {
        std::istringstream lines(page);
        for (std::string line; std::getline(lines, line);)
            for (auto [begin, named] :
                 {std::pair("@ACTION ", &m_named_actions), std::pair("@OPTION ", &m_named_options)})
                if (line.starts_with(begin) && line.ends_with('@'))
                    named->insert(
                        line.substr(std::string_view(begin).size(), line.size() - std::string_view(begin).size() - 1));
    }

    std::string place(const std::string& words) {
        if (words.starts_with("ACTION "))
            return m_actions.place(words.substr(7));
        if (words.starts_with("OPTION "))
            return m_options.place(words.substr(7));
        if (words == "ACTIONS")
            return m_actions.place_others(m_named_actions);
        if (words == "OPTIONS")
            return m_options.place_others(m_named_options);
        if (words == "FRAMEWORK OPTIONS")
            return framework_options();
        if (words == "ENVIRONMENT")
            return environment();
        if (words == "EXIT CODES")
            return exit_codes();
        if (words == "CONSOLE COMMANDS")
            return console_commands();
        throw std::runtime_error("unknown place");
    }

    void check() const {
        m_actions.check();
        m_options.check();
    }

private:
    std::string framework_options() const {
        std::string made;
        for (const option& each : m_program.framework_options)
            made += row_of(each);
        return made;
    }

    std::string environment() const {
        std::string made;
        for (const option& each : m_program.framework_options)
            made +=
                row("\\fB" + each.variable + "\\fR", "The same as " + each.names[0] + ". The option takes precedence.");
        return made;
    }

    std::string exit_codes() const {
        std::string made;
        for (const exit_code& each : m_program.exit_codes)
            made += row("\\fB" + std::to_string(each.code) + "\\fR", each.meaning);
        return made;
    }

    // A line of the console's help is a syntax, at least two blanks, and a description.
    std::string console_commands() const {
        std::string made;
        for (const std::string& line : m_program.console_commands) {
            const std::size_t end = line.find("  ");
            made += row(syntax_in_roff(line.substr(0, end)), line.substr(line.find_first_not_of(' ', end)));
        }
        return made;
    }

    const program& m_program;
    placed_rows<action> m_actions;
    placed_rows<option> m_options;
    std::set<std::string> m_named_actions;
    std::set<std::string> m_named_options;
};

} // namespace

std::string fill_in(const std::string& page, const std::string& version, const program* of) {
    static const program nothing;
    page_writer writer(of != nullptr ? *of : nothing, page);
    std::string made;
    std::istringstream lines(page);
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        constexpr std::string_view version_place = "@VERSION@";
        if (const std::size_t at = line.find(version_place); at != line.npos)
            line.replace(at, version_place.size(), version);
        if (line.size() > 2 && line.starts_with('@') && line.ends_with('@')) {
            try {
                made += writer.place(line.substr(1, line.size() - 2));
            } catch (const std::runtime_error& fault) {
                throw std::runtime_error("line " + std::to_string(number) + ": " + line + ": " + fault.what());
            }
        } else {
            made.append(line).append("\n");
            // A word that is parted can be neither searched for nor copied. Each heading takes the register again.
            if (line.starts_with(".TH "))
                made += ".ad l\n.nh\n.nr HY 0\n";
        }
    }
    writer.check();
    return made;
}

} // namespace qor::manual
