// The command line of qor-heap.
#pragma once

#include "export/named_profile.h"

#include <string>
#include <utility>
#include <vector>

namespace qor::heap_tool {

enum class command : uint8 { none, sites, diff, timeline, tree, top, page, exporting };

// The forms of an export.
enum class export_form : uint8 {
    none,
#define QOR_EXPORT_FORM(name) name,
#include "command_line.def"
};

struct options {
    heap_tool::command command = command::none;
    measure what = measure::live;
    bool only_growing = false;
    bool has_last_record = false;
    uint64 last_record = 0;
    bool is_bottom_up = false;
    uint64 rows = 20;  // 0: all
    uint64 frames = 8; // of a stack; 0: all
    bool wants_symbols = true;
    bool may_fetch = true;
    bool is_anonymous = false;
    std::string suppressions; // a file; empty: none
    bool has_built_in_suppressions = true;
    bool has_limit = false; // --fail-on
    uint64 limit = 0;
    bool fails_on_bad_free = false;
    uint64 tables = 0; // of top; 0: until it is ended
    export_form form = export_form::none;
    std::vector<std::pair<std::string, std::string>> labels;
    std::string output; // a file; empty or "-": standard output
    std::string compared;
    std::vector<std::string> logs;
};

// Exit codes. Those of a wrong command line are the ones that the other programs use, see command_table.h.
#define QOR_EXIT_CODE(code, name, meaning) inline constexpr int exit_##name = code;
#include "command_line.def"

inline constexpr int no_exit_code = -1;

// Reads the words behind the program's name. Returns `no_exit_code`, or the exit code of a run that is over: after
// help, or after a message on what is wrong.
int read_options(const std::vector<std::string>& words, options& chosen);

} // namespace qor::heap_tool
