#include "messages.h"
#include "options.h"

namespace qor::record {

std::span<const option_row> options_of_system() {
    static const option_row rows[] = {
#define QOR_SETS(statement) [](options& chosen, const std::string&) { return statement, true; }
#define QOR_WINDOWS_OPTION(name, has_value, handler, messages, value)                                                  \
    {name, has_value, handler, message::messages##_syntax, message::messages##_description},
#include "command_line.def"
#undef QOR_SETS
    };
    return rows;
}

} // namespace qor::record
