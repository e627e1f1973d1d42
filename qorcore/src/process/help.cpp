// The two columns of a help text.
#include "message_names.h"
#include "process/framework_options.h"
#include "stream/text_output.h"

#include <algorithm>
#include <string>

namespace framework = qor::messages::framework;

namespace {

// The column where descriptions begin. The description of a longer syntax starts on the next line.
constexpr std::size_t indent = 2;
constexpr std::size_t column = 38;

// Counts columns on the screen: continuation bytes of UTF-8 take none.
std::size_t width(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

} // namespace

void qor::glue::qorWriteHelpLine_sink(IQORStreamSink* sink, const char* catalog, uint32 syntax,
                                      uint32 description) noexcept {
    qorString left;
    qorString right;
    left.LoadString(catalog, syntax);
    right.LoadString(catalog, description);
    std::string line(indent, ' ');
    line += left.Text();
    if (width(line) + 2 > column)
        line += '\n' + std::string(column, ' ');
    else
        line.append(column - width(line), ' ');
    line += right.Text();
    line += '\n';
    (void)qor::stream::write_text(*sink, line);
}

void qor::glue::qorWriteToolkitHelp_sink(IQORStreamSink* sink) noexcept {
    fputmsg_sink(sink, framework::catalog, framework::options_heading, nullptr, true);
    for (const qor::process::option_help& each : qor::process::option_helps())
        qorWriteHelpLine_sink(sink, framework::catalog, each.syntax, each.description);
}

void qor::glue::qorWriteHelpLine(std::FILE* stream, const char* catalog, uint32 syntax, uint32 description) noexcept {
    ::qorWriteHelpLine(stream, catalog, syntax, description);
}

void qor::glue::qorWriteToolkitHelp(std::FILE* stream) noexcept { ::qorWriteToolkitHelp(stream); }
