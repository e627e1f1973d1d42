// The application object. It runs the action that the command line names and returns its result as the exit code.
#pragma once

#include "qor/qor.h"

class qortool_app : public qorComponent2, public IQORInterface, private IQORSignalHandler {
public:
    qortool_app();

    void AddRef() noexcept override { object_AddRef(); }
    void Release() noexcept override { object_Release(); }
    int QueryInterface(const char* name, void** out) noexcept override { return object_QueryInterface(name, out); }

    // Runs the action that `args` names and returns the exit code of the process.
    int Main(qorStringArray& args);

    // The signal queue: work that an action defers to its own thread, done in order until a signal arrives. `op`
    // receives the queued call as its argument. Any thread may queue and signal.
    struct deferred_call {
        void (qortool_app::*op)(deferred_call& self) = nullptr;
        bool is_empty() const noexcept { return op == nullptr; }
    };

    // Runs the queued calls until it meets a stop marker, which a signal queues. Returns the result of restoring the
    // signals.
    bool process_fifo();

protected:
    ~qortool_app() override;

    // Protected, not private, because no action queues anything yet; derived classes may.
    void queue(const deferred_call& call);
    void Signal(qorSignal signal) noexcept override;
    uint32 queued() const noexcept { return m_fifo_count; }

    void netlist_show_net(IQORNetInterface* ni);

private:
    struct fifo_node {
        fifo_node* next;
        deferred_call call;
    };

    struct option_row;
    struct action_row;
    static const option_row s_options[];
    static const action_row s_actions[];

    static int find_option(const char* name);
    static int find_action(const char* name);
    void print_banner();

    int opt_quiet(const char* value);

    int func_help(qorStringArray& args);
    int func_sysinfo(qorStringArray& args);
    int func_ttyinfo(qorStringArray& args);
    int func_list_serial(qorStringArray& args);
    int func_md5sum(qorStringArray& args);
    int func_debug_control(qorStringArray& args);
    int func_lookup(qorStringArray& args);
    int func_mtrace(qorStringArray& args);
    int func_memcheck(qorStringArray& args);
    int func_netlist(qorStringArray& args);
    int func_simd_test(qorStringArray& args);
    int func_timer_check(qorStringArray& args);
    int func_dow(qorStringArray& args);
    int func_tztest(qorStringArray& args);
    int func_pathlist(qorStringArray& args);
    int func_pwcrypt(qorStringArray& args);
    int func_userinfo(qorStringArray& args);
    int func_logon(qorStringArray& args);

    uint32 m_debug_code = 0;
    bool m_quiet = false;
    qorFastMutex2 m_fifo_lock;
    qorGate m_fifo_gate{false};
    fifo_node* m_fifo_head = nullptr;
    fifo_node* m_fifo_tail = nullptr;
    uint32 m_fifo_count = 0;
};
