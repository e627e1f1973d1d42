// What the tables of the programs say about their command lines, for manual pages and completions.
#pragma once

#include <string>
#include <vector>

namespace qor::manual {

// What an argument or the value of an option is, for completions.
struct kind {
    // Empty if nothing is known of it, otherwise one of
    //   file      any file
    //   mtrace    an mtrace log
    //   memcheck  an allocation log of the framework
    //   log       either of the two
    //   port      a serial port
    //   user      an account of the system
    //   account   an account of debug control
    //   host      the name of a host
    std::string name;
    std::vector<std::string> words; // fixed values, beside those of the name
    bool is_repeated = false;       // the last argument may come any number of times

    bool is_known() const { return !name.empty() || !words.empty(); }
};

struct option {
    std::vector<std::string> names; // "--limit"; the first one is that of the help text
    std::string syntax;
    std::string description;
    bool has_value = false;
    kind value;
    std::string variable; // of an option of the framework: the variable that does the same
};

struct action {
    std::string name;
    std::string syntax;
    std::string description;
    std::vector<kind> arguments;
    std::vector<option> options; // its own
};

struct exit_code {
    int code;
    std::string meaning;
};

struct program {
    std::string name;
    std::vector<action> actions;
    std::vector<kind> arguments; // of a program without actions
    std::vector<option> options;
    std::vector<option> framework_options;
    std::vector<exit_code> exit_codes;
    std::vector<std::string> console_commands; // lines of help: syntax, blanks, description
    bool takes_next_word = false;              // "--limit 5" is "--limit=5"
    bool has_options_anywhere = false;         // otherwise only before the action
    bool runs_program = false;                 // the words behind the options are a command
};

// All programs. `languages` are those of the messages, for completions.
std::vector<program> read_tables(const std::vector<std::string>& languages);

} // namespace qor::manual
