// The two columns of a help text.
#include "process/framework_options.h"

#include <string>

namespace {

// Where descriptions begin; a longer syntax has its description on the next line.
constexpr std::size_t indent = 2;
constexpr std::size_t column = 38;

} // namespace

void qor::glue::qorWriteHelpLine(std::FILE* stream, const char* catalog, uint32 syntax,
                                 uint32 description) noexcept {
    qorString left;
    qorString right;
    left.LoadString(catalog, syntax);
    right.LoadString(catalog, description);
    std::string line(indent, ' ');
    line += left.Text();
    if (line.size() + 2 > column)
        line += '\n' + std::string(column, ' ');
    else
        line.resize(column, ' ');
    line += right.Text();
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stream);
}

void qor::glue::qorWriteToolkitHelp(std::FILE* stream) noexcept {
    ::fputmsg(stream, "qorcore", 1000, true);
    for (const qor::process::option_help& each : qor::process::option_helps)
        ::qorWriteHelpLine(stream, "qorcore", each.syntax, each.description);
}
