#include "qortool_app.h"

#include "command_table.h"
#include "message_names.h"
#include "version.h"

namespace message = qor::messages::tool;

namespace {

constexpr char source[] = "util/qortool/main";
constexpr char main_function[] = "int qortool_app::Main(qorStringArray&)";

} // namespace

struct qortool_app::option_row {
    const char* name;
    int (qortool_app::*handler)(const char* value);
    uint32 syntax;
    uint32 description;
};

struct qortool_app::action_row {
    const char* name;
    int (qortool_app::*handler)(qorStringArray& args);
    uint32 syntax;
    uint32 description;
};

const qortool_app::option_row qortool_app::s_options[] = {
    {"quiet", &qortool_app::opt_quiet, message::quiet_syntax, message::quiet_description},
};

// The order is that of the search and of the help text.
const qortool_app::action_row qortool_app::s_actions[] = {
    {"help", &qortool_app::func_help, message::help_syntax, message::help_description},
    {"sysinfo", &qortool_app::func_sysinfo, message::sysinfo_syntax, message::sysinfo_description},
    {"netlist", &qortool_app::func_netlist, message::netlist_syntax, message::netlist_description},
    {"pwcrypt", &qortool_app::func_pwcrypt, message::pwcrypt_syntax, message::pwcrypt_description},
    {"ttyinfo", &qortool_app::func_ttyinfo, message::ttyinfo_syntax, message::ttyinfo_description},
    {"list-serial", &qortool_app::func_list_serial, message::list_serial_syntax, message::list_serial_description},
    {"md5sum", &qortool_app::func_md5sum, message::md5sum_syntax, message::md5sum_description},
    {"lookup", &qortool_app::func_lookup, message::lookup_syntax, message::lookup_description},
    {"userinfo", &qortool_app::func_userinfo, message::userinfo_syntax, message::userinfo_description},
    {"timer-check", &qortool_app::func_timer_check, message::timer_check_syntax, message::timer_check_description},
    {"simd-test", &qortool_app::func_simd_test, message::simd_test_syntax, message::simd_test_description},
    {"dow", &qortool_app::func_dow, message::dow_syntax, message::dow_description},
    {"debug-control", &qortool_app::func_debug_control, message::debug_control_syntax,
     message::debug_control_description},
    {"mtrace", &qortool_app::func_mtrace, message::mtrace_syntax, message::mtrace_description},
    {"memcheck", &qortool_app::func_memcheck, message::memcheck_syntax, message::memcheck_description},
    {"tztest", &qortool_app::func_tztest, message::tztest_syntax, message::tztest_description},
    {"path-list", &qortool_app::func_pathlist, message::path_list_syntax, message::path_list_description},
    {"logon", &qortool_app::func_logon, message::logon_syntax, message::logon_description},
};

qortool_app::qortool_app() : qorComponent2("qorcore.qortool.qortool_app") {
    m_debug_code = qorDebugAllocateCode("system.util.qortool");
}

qortool_app::~qortool_app() {
    qorAutoLockFastMutex2 hold(&m_fifo_lock);
    m_fifo_gate.Close();
    while (m_fifo_head != nullptr)
        delete std::exchange(m_fifo_head, m_fifo_head->next);
    m_fifo_tail = nullptr;
    m_fifo_count = 0;
}

int qortool_app::find_option(const char* name) {
    const option_row* const found = find_row(s_options, name);
    return found != nullptr ? static_cast<int>(found - s_options) : -1;
}

int qortool_app::find_action(const char* name) {
    const action_row* const found = find_row(s_actions, name);
    return found != nullptr ? static_cast<int>(found - s_actions) : -1;
}

int qortool_app::opt_quiet(const char*) {
    m_quiet = true;
    return 0;
}

void qortool_app::print_banner() {
    qorString text;
    if (text.LoadString(message::catalog, message::banner))
        text.Put(stdout, true);
    text.Format(message::catalog, message::version, qor_version);
    text.Put(stdout, true);
}

int qortool_app::Main(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "Main");
    qorString name;
    qorString value;
    while (qorNextOption(args, name, value)) {
        const int option = find_option(name);
        if (option < 0) {
            fputmsg(stderr, message::catalog, message::unknown_option, name);
            return exit_unknown_option;
        }
        if (const int result = (this->*s_options[option].handler)(value))
            return result;
    }
    if (!m_quiet)
        print_banner();
    qorString temp;
    if (args.IsEmpty()) {
        if (!temp.LoadString(message::catalog, message::no_action))
            qorAssertFailed("temp.LoadString(\"qortool\", 5)", main_function, source, 167);
        temp.Put(stdout, true);
        return exit_no_action;
    }
    const qorString action_name(args[0]);
    args.RemoveAt(0, 1);
    const int action = find_action(action_name);
    if (action < 0) {
        fputmsg(stderr, message::catalog, message::unknown_action, action_name);
        return exit_unknown_action;
    }
    const int result = (this->*s_actions[action].handler)(args);
    if (result == 0 && !m_quiet) {
        if (!temp.LoadString(message::catalog, message::success))
            qorAssertFailed("temp.LoadString(\"qortool\", 6)", main_function, source, 192);
        temp.Put(stdout, true);
    }
    return result;
}

// Deliberately returns 1: a script that ends up in the help text has not done its work.
int qortool_app::func_help(qorStringArray&) {
    const qorDebugSeq trace(m_debug_code, "func_help");
    fputmsg(stderr, message::catalog, message::help_heading, true);
    fixed_fprintf(stderr, "\n");
    write_help_lines(stderr, message::catalog, s_actions);
    fixed_fprintf(stderr, "\n");
    write_help_lines(stderr, message::catalog, s_options);
    fixed_fprintf(stderr, "\n");
    qorWriteToolkitHelp(stderr);
    fixed_fprintf(stderr, "\n");
    return 1;
}

void qortool_app::queue(const deferred_call& call) {
    fifo_node* const node = new fifo_node{nullptr, call};
    qorAutoLockFastMutex2 hold(&m_fifo_lock);
    if (m_fifo_tail != nullptr) {
        m_fifo_tail->next = node;
        m_fifo_tail = node;
        ++m_fifo_count;
    } else {
        m_fifo_head = m_fifo_tail = node;
        m_fifo_count = 1;
        m_fifo_gate.Open();
    }
}

// Every signal queues a stop marker; calls queued before it still run.
void qortool_app::Signal(qorSignal) noexcept {
    qor::or_end([this] { queue({}); });
}

bool qortool_app::process_fifo() {
    qorSetSignalHandler(this);
    for (;;) {
        m_fifo_gate.Wait();
        qorAutoLockFastMutex2 hold(&m_fifo_lock);
        // The gate may be open although another pass has taken the last entry.
        if (m_fifo_head == nullptr) {
            m_fifo_gate.Close();
            continue;
        }
        fifo_node* const node = std::exchange(m_fifo_head, m_fifo_head->next);
        deferred_call call = node->call;
        delete node;
        if (m_fifo_head == nullptr) {
            m_fifo_tail = nullptr;
            m_fifo_gate.Close();
            m_fifo_count = 0;
        } else {
            --m_fifo_count;
        }
        hold.Unlock();
        if (call.is_empty())
            break;
        (this->*call.op)(call);
    }
    return qorSetSignalHandler(nullptr);
}
