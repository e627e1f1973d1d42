// qor-debug-user: manages the accounts that may log in to debug control.
#include "command_table.h"
#include "entry.h"
#include "failure.h"
#include "finish_output.h"
#include "message_names.h"
#include "secret_input.h"
#include "secret_string.h"

#include <charconv>
#include <cstring>
#include <string_view>

namespace message = qor::messages::debug_user;

namespace {

struct settings {
    qorString file;
    bool has_file = false;
    bool generate = false;

    // Null selects the file in the framework's configuration folder.
    const char* file_or_null() const { return has_file ? file.Text() : nullptr; }
};

struct option_row {
    const char* name;
    bool needs_value; // otherwise it takes no value
    void (*handler)(settings& chosen, const qorString& value);
    uint32 syntax;
    uint32 description;
};

void opt_file(settings& chosen, const qorString& value) {
    chosen.file = value;
    chosen.has_file = true;
}

void opt_generate(settings& chosen, const qorString&) { chosen.generate = true; }

constexpr option_row options[] = {
#define QOR_OPTION(name, messages, value)                                                                              \
    {#name, *(value) != '\0', opt_##name, message::messages##_syntax, message::messages##_description},
#include "command_line.def"
};

// Returns 0, or the exit code for an option that is unknown or wrong.
int take_options(qorStringArray& args, settings& chosen) {
    qorString name;
    qorString value;
    while (qorNextOption(args, name, value)) {
        const option_row* const option = find_row(options, name);
        if (option == nullptr) {
            fputmsg(stderr, message::catalog, message::unknown_option, name);
            return exit_unknown_option;
        }
        if (value.IsEmpty() == option->needs_value) {
            qorString syntax;
            syntax.LoadString(message::catalog, option->syntax);
            fputmsg(stderr, message::catalog, message::wrong_option_value, name, syntax);
            return exit_unknown_option;
        }
        option->handler(chosen, value);
    }
    return 0;
}

// Returns false after the user has been told.
bool ask(uint32 prompt, const char* name, qorString& out) {
    qorString text;
    text.Format(message::catalog, prompt, name);
    if (read_secret(text, out))
        return true;
    fputmsg(stderr, message::catalog, message::no_password, true);
    return false;
}

// A password that is typed is not shown, so it is asked for twice. Returns false after the user has been told.
bool get_password(const settings& chosen, const char* name, qorString& out) {
    if (chosen.generate) {
        const bool done = qorGeneratePassword(out);
        if (!done)
            report_failure();
        return done;
    }
    if (!ask(message::password_prompt, name, out))
        return false;
    // The framework would use the password only up to its first zero byte.
    if (std::strlen(out) != out.Length()) {
        qorSetLastError(qorError_bad_password);
        report_failure();
        return false;
    }
    if (!input_is_terminal())
        return true;
    qorString again;
    const bool asked = ask(message::repeat_prompt, name, again);
    const bool same = out == again;
    wipe_string(again);
    if (asked && !same)
        fputmsg(stderr, message::catalog, message::passwords_differ, true);
    return asked && same;
}

using password_operation = bool (*)(const char* file, const char* name, const char* password) noexcept;

int set_password(const settings& chosen, const char* name, password_operation operation, uint32 done) {
    qorString password;
    int code = 1;
    if (get_password(chosen, name, password)) {
        code = operation(chosen.file_or_null(), name, password) ? 0 : report_failure();
        if (code == 0 && chosen.generate)
            password.Put(stdout, true);
    }
    wipe_string(password);
    if (code == 0)
        fputmsg(stderr, message::catalog, done, name);
    return code;
}

int act_add(const settings& chosen, qorStringArray& args) {
    return set_password(chosen, args[0], qorAddDebugUser, message::account_added);
}

int act_password(const settings& chosen, qorStringArray& args) {
    return set_password(chosen, args[0], qorChangeDebugUser, message::password_changed);
}

int act_remove(const settings& chosen, qorStringArray& args) {
    if (!qorRemoveDebugUser(chosen.file_or_null(), args[0]))
        return report_failure();
    fputmsg(stderr, message::catalog, message::account_removed, args[0]);
    return 0;
}

int act_fingerprint(const settings& chosen, qorStringArray&) {
    qorString fingerprint;
    if (!qorGetDebugKeyFingerprint(chosen.file_or_null(), fingerprint))
        return report_failure();
    fingerprint.Put(stdout, true);
    return 0;
}

int act_trust(const settings&, qorStringArray& args) {
    const std::string_view text = args[1];
    uint16 port = 0;
    const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (fault != std::errc() || end != text.data() + text.size() || port == 0) {
        fputmsg(stderr, message::catalog, message::bad_port, args[1]);
        return 1;
    }
    if (!qorTrustDebugListener(args[0], port, args[2]))
        return report_failure();
    fputmsg(stderr, message::catalog, message::listener_trusted, args[0], args[1]);
    return 0;
}

int act_list(const settings& chosen, qorStringArray&) {
    qorStringArray names;
    if (!qorGetDebugUsers(chosen.file_or_null(), names))
        return report_failure();
    names.Sort(true);
    for (uint32 i = 0; i < names.GetCount(); ++i)
        fixed_fprintf(stdout, "%s\n", names[i]);
    return 0;
}

int act_help(const settings&, qorStringArray&);

struct action_row {
    const char* name;
    int (*handler)(const settings& chosen, qorStringArray& args);
    uint32 count; // number of arguments
    uint32 syntax;
    uint32 description;
};

constexpr action_row actions[] = {
#define QOR_ACTION(name, count, messages, arguments)                                                                   \
    {#name, act_##name, count, message::messages##_syntax, message::messages##_description},
#include "command_line.def"
};

int act_help(const settings&, qorStringArray&) {
    fputmsg(stdout, message::catalog, message::help_heading, true);
    write_help_lines(stdout, message::catalog, actions);
    std::fputc('\n', stdout);
    write_help_lines(stdout, message::catalog, options);
    std::fputc('\n', stdout);
    qorWriteToolkitHelp(stdout);
    return 0;
}

int run(qorStringArray& args) {
    settings chosen;
    if (const int code = take_options(args, chosen))
        return code;
    if (args.IsEmpty()) {
        fputmsg(stderr, message::catalog, message::no_action, true);
        return exit_no_action;
    }
    const qorString word(args[0]);
    args.RemoveAt(0, 1);
    const action_row* const action = find_row(actions, word);
    if (action == nullptr) {
        fputmsg(stderr, message::catalog, message::unknown_action, word);
        return exit_unknown_action;
    }
    if (const int code = take_options(args, chosen))
        return code;
    if (args.GetCount() != action->count) {
        fputmsg(stderr, message::catalog, message::wrong_argument_count, word);
        return 1;
    }
    return action->handler(chosen, args);
}

} // namespace

int run_tool(int argc, char* const* argv) {
    qorStringArray args;
    args.SetFromArgVec(argc, argv);
    // A buffer would keep all input, including passwords.
    std::setvbuf(stdin, nullptr, _IONBF, 0);
    if (!qorInitProcess("qor-debug-user", args, 0)) {
        zetSmartPointer<IQORErrorMessage> error;
        qorGetLastError(error.Out());
        error->Report();
        return 1;
    }
    const int code = finish_output(run(args));
    qorCleanup();
    return code;
}
