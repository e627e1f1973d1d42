#include "debug_control.h"

#include "action_arguments.h"
#include "command_table.h"
#include "message_names.h"
#include "secret_string.h"

#include <cstdlib>
#include <cstring>
#include <string>

namespace framework = qor::messages::framework;
namespace message = qor::messages::tool;

namespace {

// Checks a command that takes `count` arguments. Returns false after the user has been told that the number is wrong.
bool check_count(const qorStringArray& args, uint32 count) {
    if (args.GetCount() == count)
        return true;
    fputmsg(stderr, message::catalog, message::wrong_command_arguments, true);
    return false;
}

// A failed command does not end the console.
void report_unless(bool done) {
    if (!done)
        fputerr(stderr, true);
}

void list_codes(qorStringArray& codes, uint32 heading) {
    codes.Sort(true);
    fixed_fprintf(stdout, "\n");
    fputmsg(stdout, message::catalog, heading, true);
    fixed_fprintf(stdout, "\n");
    for (uint32 i = 0; i < codes.GetCount(); ++i)
        fixed_fprintf(stdout, "%s\n", codes[i]);
    fixed_fprintf(stdout, "\n");
}

// The framework would use only the text up to the zero byte, which is not the text that was typed.
bool has_zero_byte(const qorString& line) { return std::strlen(line) != line.Length(); }

// Prints a prompt and reads a line. Returns false at the end of the input, after the user has been told.
bool ask(const char* prompt, qorString& line) {
    fixed_fprintf(stdout, "%s", prompt);
    std::fflush(stdout);
    // An earlier error has been reported and is unrelated to the input.
    qorClearLastError();
    if (line.GetLine(stdin))
        return true;
    qorString failure;
    if (qorGetLastError(failure) == qorError_none)
        qorSetLastError(qorError_end_of_input);
    fputerr(stderr, true);
    return false;
}

} // namespace

struct debug_control::command_row {
    const char* name;
    uint32 help;
    void (debug_control::*handler)(qorStringArray& args);
};

// The order is that of the search and of the help text.
const debug_control::command_row debug_control::s_commands[] = {
#define QOR_CONSOLE_COMMAND(name, handler, text) {name, message::console_##text, &debug_control::cmd_##handler},
#include "command_line.def"
};

debug_control::debug_control(bool quiet)
    : qorComponent2("qorcore.qortool.debug_control"), m_debug_code(qorDebugAllocateCode("qortool.debug-control")),
      m_quiet(quiet) {}

debug_control::~debug_control() = default;

uint32 debug_control::getver_IQORDebugControlSink() noexcept { return 1; }

// Called on a thread of the framework while the console waits for input, which may never come. An orderly exit could
// wait for the lock of the stream that the console is reading, so the process ends without one.
void debug_control::debug_ConnectionLost() noexcept {
    fixed_fprintf(stderr, "Debug connection lost\n");
    std::fflush(stderr);
    std::_Exit(0);
}

bool debug_control::check_arguments(qorStringArray& args) {
    // "xxx" has no effect; old scripts pass it.
    const action_arguments arguments(args, 2, "xxx");
    if (arguments.found() == action_arguments::fault::unknown_option)
        qorDebug(m_debug_code, "FAIL bad option");
    else if (arguments.found() == action_arguments::fault::wrong_count)
        qorDebug(m_debug_code, "FAIL wrong number of args");
    return arguments.accept("debug-control");
}

// On a first connection, only the fingerprint tells users which process will receive their password.
void debug_control::warn_of_unknown_key(const char* host, uint16 port) {
    zetSmartPointer<IQORDebugControl2> control;
    qorString fingerprint;
    bool is_known = true;
    if (m_control->QueryInterface("IQORDebugControl2", reinterpret_cast<void**>(control.Out())) == 1 &&
        control->GetListenerKey(fingerprint, is_known) && !is_known)
        fputmsg(stderr, framework::catalog, framework::unknown_listener_key, host, std::to_string(port).c_str(),
                fingerprint);
}

bool debug_control::send_credentials(const qorString& user, const qorString& password) {
    if (!has_zero_byte(user) && !has_zero_byte(password))
        return m_control->Login(user, password);
    qorSetLastError(qorError_credentials_refused); // no account has such a name or password
    return false;
}

bool debug_control::log_in() {
    // A buffer would keep all input, including passwords.
    std::setvbuf(stdin, nullptr, _IONBF, 0);
    for (;;) {
        qorString user;
        qorString password;
        const bool asked = ask("Username: ", user) && ask("Password: ", password);
        const bool done = asked && send_credentials(user, password);
        wipe_string(user); // users easily type a password at the wrong prompt
        wipe_string(password);
        if (done || !asked)
            return done;
        qorString reason;
        const uint32 error = qorGetLastError(reason);
        fputerr(stderr, true);
        if (error != qorError_credentials_refused)
            return false;
    }
}

bool debug_control::Execute(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "Execute");
    if (!check_arguments(args))
        return false;
    create_IQORDebugControl(m_control.Out());
    if (!m_quiet)
        fputmsg(stdout, message::catalog, message::connecting, true);
    // A port number above 65535 loses its upper bits: 70000 becomes 4464.
    const auto port = static_cast<uint16>(std::atoi(args[1]));
    if (!m_control->Connect(args[0], port)) {
        qorDebug(m_debug_code, "FAIL conn->Connect() returned false");
        fputerr(stderr, true);
        return false;
    }
    warn_of_unknown_key(args[0], port);
    if (!log_in())
        return false;
    if (!m_control->SetSink(this)) {
        fputerr(stderr, true);
        return false;
    }
    if (!m_quiet)
        fputmsg(stdout, message::catalog, message::logged_in, true);
    qorString line;
    while (ask("Debug> ", line))
        run_command(line);
    return false;
}

void debug_control::run_command(qorString& line) {
    line.TrimBoth();
    if (line.IsEmpty())
        return;
    if (has_zero_byte(line)) {
        fputmsg(stderr, message::catalog, message::unknown_command, true);
        return;
    }
    qorStringArray args;
    if (!line.Tokenise_WS(args)) {
        fputerr(stderr, true);
        return;
    }
    if (args.IsEmpty())
        return;
    const qorString command(args[0]);
    args.RemoveAt(0, 1);
    if (const command_row* const row = find_row(s_commands, command))
        (this->*row->handler)(args);
    else
        fputmsg(stderr, message::catalog, message::unknown_command, true);
}

void debug_control::cmd_help(qorStringArray&) {
    const qorDebugSeq trace(m_debug_code, "cmd_help");
    fixed_fprintf(stdout, "\n");
    fputmsg(stdout, message::catalog, message::commands_heading, true);
    fixed_fprintf(stdout, "\n");
    for (const command_row& row : s_commands)
        fputmsg(stdout, message::catalog, row.help, true);
    fixed_fprintf(stdout, "\n");
}

void debug_control::cmd_show_all(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "cmd_show_all");
    if (!check_count(args, 0))
        return;
    qorStringArray codes;
    if (m_control->GetCodes(codes))
        list_codes(codes, message::codes_heading);
    else
        fputerr(stderr, true);
}

void debug_control::cmd_show_enabled(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "cmd_show_enabled");
    if (!check_count(args, 0))
        return;
    qorStringArray codes;
    if (!m_control->GetEnabledCodes(codes))
        fputerr(stderr, true);
    else if (codes.IsEmpty())
        fputmsg(stdout, message::catalog, message::no_code_is_on, true);
    else
        list_codes(codes, message::enabled_codes_heading);
}

void debug_control::cmd_enable(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "cmd_enable");
    if (check_count(args, 1))
        report_unless(m_control->EnableCode(args[0], true));
}

void debug_control::cmd_disable(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "cmd_disable");
    if (check_count(args, 1))
        report_unless(m_control->EnableCode(args[0], false));
}

void debug_control::cmd_disable_all(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "cmd_disable_all");
    if (check_count(args, 0))
        report_unless(m_control->DisableAll());
}
