// The console of debug control: shows and switches the trace codes of another process, by commands read from
// standard input.
#pragma once

#include "qor/qor.h"

class debug_control : public qorComponent2, public IQORDebugControlSink {
public:
    // `quiet` suppresses the messages before connecting and after the login.
    explicit debug_control(bool quiet);

    void AddRef() noexcept override { object_AddRef(); }
    void Release() noexcept override { object_Release(); }
    int QueryInterface(const char* name, void** out) noexcept override { return object_QueryInterface(name, out); }

    // Takes two arguments, a host and a port. Runs until the input ends or an unrecoverable failure occurs, of which
    // the user has been told. Always returns false. A lost connection ends the process.
    bool Execute(qorStringArray& args);

protected:
    ~debug_control() override;

    uint32 getver_IQORDebugControlSink() noexcept override;
    void debug_ConnectionLost() noexcept override;

private:
    struct command_row;
    static const command_row s_commands[];

    bool check_arguments(qorStringArray& args);
    void warn_of_unknown_key(const char* host, uint16 port);
    bool send_credentials(const qorString& user, const qorString& password);
    bool log_in();
    void run_command(qorString& line);

    void cmd_help(qorStringArray& args);
    void cmd_show_all(qorStringArray& args);
    void cmd_show_enabled(qorStringArray& args);
    void cmd_enable(qorStringArray& args);
    void cmd_disable(qorStringArray& args);
    void cmd_disable_all(qorStringArray& args);

    uint32 m_debug_code;
    bool m_quiet;
    zetSmartPointer<IQORDebugControl> m_control;
};
