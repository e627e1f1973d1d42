// The operations of child processes: their options are checked here, the same on all systems.
#include "child/child.h"
#include "error/error.h"
#include "message_names.h"

#include <cstring>

namespace {

namespace framework = qor::messages::framework;

bool refuse(const char* argument) noexcept {
    qor::error::set(qorError_invalid_argument, {"qorCreateChildProcess", argument});
    return false;
}

bool refuse(uint32 message, uint32 position) noexcept {
    qorString reason;
    const std::string number = std::to_string(position);
    const char* const inserts[10] = {number.c_str()};
    (void)qor::glue::qorString_Format(&reason, framework::catalog, message, inserts);
    return refuse(reason.Text());
}

bool has_nul(const qorString& text) noexcept { return std::strlen(text.Text()) != text.Length(); }

bool check_texts(const qorChildProcessOptions& options) noexcept {
    for (uint32 i = 0; i < options.arguments->GetCount(); ++i)
        if (has_nul(options.arguments->begin()[i]))
            return refuse(framework::child_argument_with_nul, i);
    if (options.environment == nullptr)
        return true;
    for (uint32 i = 0; i < options.environment->GetCount(); ++i) {
        const qorString& each = options.environment->begin()[i];
        if (has_nul(each))
            return refuse(framework::child_variable_with_nul, i);
        // Windows keeps folders in variables whose names begin with '='.
        const char* const text = each.Text();
        if (*text == '\0' || std::strchr(text + 1, '=') == nullptr)
            return refuse(framework::child_variable_without_value, i);
    }
    return true;
}

bool check_stream(const qorChildStream& stream, const char* name, bool may_be_output) noexcept {
    switch (stream.kind) {
    case qorChildStreamKind::inherit:
    case qorChildStreamKind::null:
    case qorChildStreamKind::pipe:
        return true;
    case qorChildStreamKind::file:
        return (stream.path != nullptr && *stream.path != '\0') || refuse(name);
    case qorChildStreamKind::output:
        return may_be_output || refuse(name);
    }
    return refuse(name);
}

bool check(const qorChildProcessOptions& options) noexcept {
    if (options.arguments == nullptr || options.arguments->IsEmpty())
        return refuse("arguments");
    if (options.program != nullptr && *options.program == '\0')
        return refuse("program");
    if (options.folder != nullptr && *options.folder == '\0')
        return refuse("folder");
    if (options.umask != qorKeepUmask && options.umask > 0777)
        return refuse("umask");
    if (options.handles == nullptr && options.handle_count != 0)
        return refuse("handles");
    if (options.program == nullptr && *(*options.arguments)[0] == '\0') {
        qor::error::set(qorError_child_program_missing, {""});
        return false;
    }
    return check_texts(options) && check_stream(options.input, "input", false) &&
           check_stream(options.output, "output", false) && check_stream(options.errors, "errors", true);
}

} // namespace

const char* qor::child::program_name(const qorChildProcessOptions& options) noexcept {
    return options.program != nullptr ? options.program : (*options.arguments)[0];
}

bool qor::glue::qorCreateChildProcess(const qorChildProcessOptions& options, IQORChildProcess** out) noexcept {
    if (out == nullptr)
        return refuse("out");
    return check(options) && child::start(options, out);
}

bool qor::glue::qorExecuteChildProcess(const qorChildProcessOptions& options, const qorTextView& input,
                                       IQORDataSink* output, IQORDataSink* errors, qorChildEnd& end) noexcept {
    zetSmartPointer<IQORChildProcess> started;
    return check(options) && child::start(options, started.Out()) &&
           started->Communicate(input, output, errors, options.time_limit, end);
}
