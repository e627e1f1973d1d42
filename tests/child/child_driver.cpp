// Runs a program, in the form of line_driver.h, for the comparison with another implementation:
//
//   run FOLDER UMASK INPUT-KIND OUTPUT-KIND ERRORS-KIND TREE LIMIT HANDLES PROGRAM ARGUMENT-COUNT ARGUMENTS VARIABLES
//
// Empty words stand for what is not given; kinds are "inherit", "null", "pipe", "output", "file:PATH" and
// "append:PATH"; HANDLES is "OWN:IN-CHILD,..."; the variables are those behind the arguments, "-" for the own ones.
#include "support/line_driver.h"

#include <cstdlib>

namespace {

using line_driver::words;

qorChildStream stream_of(const std::string& text) {
    constexpr std::string_view file = "file:";
    constexpr std::string_view append = "append:";
    if (text.starts_with(file))
        return {qorChildStreamKind::file, text.c_str() + file.size()};
    if (text.starts_with(append))
        return {qorChildStreamKind::file, text.c_str() + append.size(), true};
    return {text == "null"     ? qorChildStreamKind::null
            : text == "pipe"   ? qorChildStreamKind::pipe
            : text == "output" ? qorChildStreamKind::output
                               : qorChildStreamKind::inherit};
}

std::vector<qorChildHandle> handles_of(const std::string& text) {
    std::vector<qorChildHandle> all;
    std::istringstream in(text);
    for (std::string each; std::getline(in, each, ',');)
        all.push_back({std::stoll(each), std::stoi(each.substr(each.find(':') + 1))});
    return all;
}

bool run(const words& given, std::string& answer) {
    const auto argument_count = static_cast<std::size_t>(std::stoul(given[11]));
    qorStringArray arguments;
    qorStringArray variables;
    for (std::size_t i = 12; i < given.size(); ++i)
        (i < 12 + argument_count ? arguments : variables).Append(given[i]);
    const bool has_variables = variables.IsEmpty() || std::string_view(variables[0]) != "-";
    const std::vector<qorChildHandle> handles = handles_of(given[9]);
    const qorChildProcessOptions options = {
        .arguments = &arguments,
        .program = given[10].empty() ? nullptr : given[10].c_str(),
        .environment = has_variables ? &variables : nullptr,
        .folder = given[1].empty() ? nullptr : given[1].c_str(),
        .umask = given[2].empty() ? qorKeepUmask : static_cast<uint32>(std::stoul(given[2], nullptr, 8)),
        .input = stream_of(given[4]),
        .output = stream_of(given[5]),
        .errors = stream_of(given[6]),
        .handles = handles.data(),
        .handle_count = static_cast<uint32>(handles.size()),
        .whole_tree = given[7] == "1",
        .time_limit = given[8].empty() ? 0 : static_cast<uint32>(std::stoul(given[8])),
    };
    std::string output;
    std::string errors;
    zetSmartPointer<IQORDataSink> output_sink;
    zetSmartPointer<IQORDataSink> errors_sink;
    output_sink.AttachNew(QOR_NEW qor::glue::text_sink(output));
    errors_sink.AttachNew(QOR_NEW qor::glue::text_sink(errors));
    qorChildEnd end;
    if (!qorExecuteChildProcess(options, given[3], *output_sink, *errors_sink, end))
        return false;
    answer = ' ' + std::to_string(end.code) + ' ' + std::to_string(end.signal) + ' ' +
             line_driver::hexadecimal(output) + ' ' + line_driver::hexadecimal(errors);
    return true;
}

} // namespace

int main() { return line_driver::apply_lines({{"run", run}}, 12); }
