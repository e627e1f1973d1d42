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
#define QOR_OPTION(name, handler, messages)                                                                            \
    {name, &qortool_app::opt_##handler, message::messages##_syntax, message::messages##_description},
#include "command_line.def"
};

const qortool_app::action_row qortool_app::s_actions[] = {
#define QOR_ACTION(name, handler, messages, arguments)                                                                 \
    {name, &qortool_app::func_##handler, message::messages##_syntax, message::messages##_description},
#include "command_line.def"
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
