// Services of Windows' service control manager. advapi32's functions for it are looked up when they are first wanted.
#include "error/error.h"
#include "message_names.h"
#include "platform/system_library_windows.h"
#include "platform/wide_windows.h"
#include "service/system_services.h"

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <windows.h> // before winsvc.h

#include <winsvc.h>

namespace framework = qor::messages::framework;

namespace {

using qor::platform::from_wide;

constexpr std::size_t longest_name = 256;

struct service_api {
    template <class FUNCTION>
    static void find(FUNCTION*& out, const char* name) noexcept {
        out = qor::platform::find_function<FUNCTION>(L"advapi32.dll", name);
    }

    service_api() noexcept {
        find(open_manager, "OpenSCManagerW");
        find(open_service, "OpenServiceW");
        find(close, "CloseServiceHandle");
        find(query_status, "QueryServiceStatusEx");
        find(query_config, "QueryServiceConfigW");
        find(start, "StartServiceW");
        find(control, "ControlService");
        find(enumerate_dependents, "EnumDependentServicesW");
    }

    bool is_there() const noexcept {
        return open_manager != nullptr && open_service != nullptr && close != nullptr && query_status != nullptr &&
               query_config != nullptr && start != nullptr && control != nullptr && enumerate_dependents != nullptr;
    }

    decltype(OpenSCManagerW)* open_manager = nullptr;
    decltype(OpenServiceW)* open_service = nullptr;
    decltype(CloseServiceHandle)* close = nullptr;
    decltype(QueryServiceStatusEx)* query_status = nullptr;
    decltype(QueryServiceConfigW)* query_config = nullptr;
    decltype(StartServiceW)* start = nullptr;
    decltype(ControlService)* control = nullptr;
    decltype(EnumDependentServicesW)* enumerate_dependents = nullptr;
};

const service_api& api() noexcept {
    static const service_api found;
    return found;
}

// A handle of the manager. Threads share one.
class handle {
public:
    handle() noexcept = default;
    explicit handle(SC_HANDLE value)
        : m_value(value, [](SC_HANDLE each) {
              if (each != nullptr)
                  api().close(each);
          }) {}
    SC_HANDLE get() const noexcept { return m_value.get(); }

private:
    std::shared_ptr<std::remove_pointer_t<SC_HANDLE>> m_value;
};

// ---- time limits

class time_limit {
public:
    explicit time_limit(uint32 milliseconds) noexcept : m_end(milliseconds != 0 ? now() + milliseconds : endless) {}

    bool is_over() const noexcept { return m_end != endless && now() >= m_end; }
    // At most `most` milliseconds.
    DWORD left(DWORD most) const noexcept {
        if (m_end == endless)
            return most;
        const ULONGLONG present = now();
        return present >= m_end ? 0 : static_cast<DWORD>(std::min<ULONGLONG>(m_end - present, most));
    }

private:
    static constexpr ULONGLONG endless = ~0ULL;
    static ULONGLONG now() noexcept { return GetTickCount64(); }

    ULONGLONG m_end;
};

// A request that the system may not answer for half a minute: it runs in a thread of its own, which goes on if nobody
// waits for it any more.
struct slow_request {
    handle service;
    DWORD (*work)(SC_HANDLE) noexcept;
    DWORD code = WAIT_TIMEOUT; // valid once the thread has ended
};

DWORD WINAPI run_slowly(void* given) noexcept {
    const std::unique_ptr<std::shared_ptr<slow_request>> request(static_cast<std::shared_ptr<slow_request>*>(given));
    (*request)->code = (*request)->work((*request)->service.get());
    return 0;
}

// Returns the code of the system, or WAIT_TIMEOUT if the time is over.
DWORD run_in_time(const handle& service, DWORD (*work)(SC_HANDLE) noexcept, const time_limit& limit) {
    const auto request = std::make_shared<slow_request>(slow_request{service, work});
    auto given = std::make_unique<std::shared_ptr<slow_request>>(request);
    const HANDLE thread = CreateThread(nullptr, 0, &run_slowly, given.get(), 0, nullptr);
    if (thread == nullptr)
        return GetLastError();
    static_cast<void>(given.release()); // the thread has it
    DWORD waited = WAIT_TIMEOUT;
    while (waited == WAIT_TIMEOUT && !limit.is_over())
        waited = WaitForSingleObject(thread, limit.left(60'000));
    const DWORD code = waited == WAIT_OBJECT_0 ? request->code : WAIT_TIMEOUT;
    CloseHandle(thread);
    return code;
}

// ---- errors

bool refused(const char* name, DWORD code) {
    switch (code) {
    case ERROR_SERVICE_DOES_NOT_EXIST:
        qor::error::set(qorError_service_unknown, {name});
        break;
    case ERROR_SERVICE_DISABLED:
        qor::error::set(qorError_service_masked, {name});
        break;
    case ERROR_ACCESS_DENIED:
        qor::error::set_with_reason(qorError_service_no_right, name, static_cast<int>(code));
        break;
    case RPC_S_SERVER_UNAVAILABLE:
    case RPC_S_CALL_FAILED:
        qor::error::set_with_reason(qorError_service_manager_lost, name, static_cast<int>(code));
        break;
    default:
        qor::error::set_with_reason(qorError_service_refused, name, static_cast<int>(code));
    }
    return false;
}

const char* word_of(DWORD state) noexcept {
    switch (state) {
    case SERVICE_STOPPED:
        return "stopped";
    case SERVICE_START_PENDING:
        return "start pending";
    case SERVICE_STOP_PENDING:
        return "stop pending";
    case SERVICE_RUNNING:
        return "running";
    case SERVICE_CONTINUE_PENDING:
        return "continue pending";
    case SERVICE_PAUSE_PENDING:
        return "pause pending";
    case SERVICE_PAUSED:
        return "paused";
    default:
        return "unknown";
    }
}

qorServiceState state_of(DWORD state) noexcept {
    switch (state) {
    case SERVICE_STOPPED:
        return qorServiceState::inactive;
    case SERVICE_START_PENDING:
    case SERVICE_CONTINUE_PENDING:
        return qorServiceState::activating;
    case SERVICE_STOP_PENDING:
    case SERVICE_PAUSE_PENDING:
        return qorServiceState::deactivating;
    case SERVICE_RUNNING:
        return qorServiceState::active;
    case SERVICE_PAUSED:
        return qorServiceState::paused;
    default:
        return qorServiceState::unknown;
    }
}

// ---- one service

class service {
public:
    service(const char* name, const qorServiceOptions& options, qorServiceStatus& status) noexcept
        : m_name(name), m_options(options), m_limit(options.wait), m_status(status) {}

    // ERROR_SERVICE_DOES_NOT_EXIST sets no error here.
    DWORD open(DWORD rights);
    bool exists();
    bool start();
    bool stop();

private:
    bool read_status(SERVICE_STATUS_PROCESS& out);
    void read_config();
    bool wait_for(DWORD wanted);
    bool timed_out();
    bool has_no_dependents();

    const char* const m_name;
    const qorServiceOptions& m_options;
    const time_limit m_limit;
    qorServiceStatus& m_status;
    handle m_manager, m_service;
    DWORD m_state = 0;
};

DWORD service::open(DWORD rights) {
    std::wstring wide;
    if (*m_name == '\0' || !qor::platform::to_wide(m_name, wide) || wide.size() > longest_name ||
        wide.find_first_of(L"/\\") != std::wstring::npos)
        return ERROR_INVALID_NAME;
    m_manager = handle(api().open_manager(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (m_manager.get() == nullptr)
        return GetLastError();
    m_service = handle(api().open_service(m_manager.get(), wide.c_str(), rights));
    if (m_service.get() == nullptr)
        return GetLastError();
    m_status.name = m_name;
    read_config();
    return 0;
}

// Members that the system does not tell stay empty.
void service::read_config() {
    DWORD size = 0;
    api().query_config(m_service.get(), nullptr, 0, &size);
    std::vector<BYTE> data(size);
    auto* const config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(data.data());
    if (size == 0 || !api().query_config(m_service.get(), config, size, &size))
        return;
    m_status.masked = config->dwStartType == SERVICE_DISABLED;
    if (config->lpDisplayName != nullptr)
        m_status.description = from_wide(config->lpDisplayName).c_str();
}

bool service::read_status(SERVICE_STATUS_PROCESS& out) {
    DWORD size = 0;
    if (!api().query_status(m_service.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&out), sizeof out, &size))
        return refused(m_name, GetLastError());
    m_state = out.dwCurrentState;
    m_status.state = state_of(m_state);
    m_status.process = out.dwProcessId;
    m_status.end = qorServiceEnd::none;
    m_status.code = 0;
    if (m_state == SERVICE_STOPPED && out.dwWin32ExitCode != ERROR_SERVICE_NEVER_STARTED) {
        const bool is_own = out.dwWin32ExitCode == ERROR_SERVICE_SPECIFIC_ERROR;
        m_status.end = is_own ? qorServiceEnd::reported : qorServiceEnd::exited;
        m_status.code = static_cast<int32>(is_own ? out.dwServiceSpecificExitCode : out.dwWin32ExitCode);
    }
    return true;
}

bool service::timed_out() {
    qor::error::set(qorError_service_timeout, {m_name, word_of(m_state), std::to_string(m_options.wait).c_str()});
    return false;
}

// Waits until the service is in this state, or stopped.
bool service::wait_for(DWORD wanted) {
    SERVICE_STATUS_PROCESS now;
    for (DWORD pause = 5;; pause = std::min<DWORD>(pause * 2, 250)) {
        if (!read_status(now))
            return false;
        if (m_state == wanted)
            return true;
        if (m_state == SERVICE_STOPPED)
            break;
        if (m_limit.is_over())
            return timed_out();
        Sleep(m_limit.left(pause));
    }
    qorString reason;
    std::string text;
    if (m_status.end == qorServiceEnd::exited && m_status.code != 0) {
        text = qor::error::system_reason(m_status.code);
    } else {
        reason.Format(framework::catalog, framework::service_exited, std::to_string(m_status.code).c_str());
        text = reason.Text();
    }
    qor::error::set(qorError_service_failed, {m_name, text.c_str(), ""});
    return false;
}

bool service::exists() {
    SERVICE_STATUS_PROCESS now;
    return read_status(now);
}

bool service::start() {
    const DWORD code = run_in_time(
        m_service, [](SC_HANDLE each) noexcept { return api().start(each, 0, nullptr) ? DWORD(0) : GetLastError(); },
        m_limit);
    SERVICE_STATUS_PROCESS now;
    if (!read_status(now))
        return false;
    if (code == WAIT_TIMEOUT)
        return timed_out();
    // Its process ended before the manager had finished with it.
    const bool is_over = (code == ERROR_SERVICE_REQUEST_TIMEOUT || code == ERROR_PROCESS_ABORTED) &&
                         m_state == SERVICE_STOPPED && m_status.code != 0;
    if (code != 0 && code != ERROR_SERVICE_ALREADY_RUNNING && !is_over)
        return refused(m_name, code);
    // A service that is paused runs already.
    return m_state == SERVICE_PAUSED || wait_for(SERVICE_RUNNING);
}

bool service::has_no_dependents() {
    DWORD size = 0, count = 0;
    if (api().enumerate_dependents(m_service.get(), SERVICE_ACTIVE, nullptr, 0, &size, &count))
        return true;
    DWORD code = GetLastError();
    std::vector<BYTE> data;
    // There may be more of them by now.
    for (int i = 0; i < 10 && code == ERROR_MORE_DATA; ++i) {
        data.assign(size, 0);
        code = api().enumerate_dependents(m_service.get(), SERVICE_ACTIVE,
                                          reinterpret_cast<ENUM_SERVICE_STATUSW*>(data.data()), size, &size, &count)
                   ? 0
                   : GetLastError();
    }
    if (code != 0)
        return refused(m_name, code);
    if (count == 0)
        return true;
    std::string names;
    for (DWORD i = 0; i < count; ++i) {
        if (i != 0)
            names.append(", ");
        names.append(from_wide(reinterpret_cast<const ENUM_SERVICE_STATUSW*>(data.data())[i].lpServiceName));
    }
    qor::error::set(qorError_service_needed, {m_name, names.c_str()});
    return false;
}

bool service::stop() {
    SERVICE_STATUS_PROCESS now;
    if (!read_status(now))
        return false;
    if (m_state == SERVICE_STOPPED)
        return true;
    if (!has_no_dependents())
        return false;
    const DWORD code = run_in_time(
        m_service,
        [](SC_HANDLE each) noexcept {
            SERVICE_STATUS unused;
            return api().control(each, SERVICE_CONTROL_STOP, &unused) ? DWORD(0) : GetLastError();
        },
        m_limit);
    if (!read_status(now))
        return false;
    // It may have ended by itself, or end already.
    if (m_state == SERVICE_STOPPED || m_state == SERVICE_STOP_PENDING)
        return wait_for(SERVICE_STOPPED);
    if (code == WAIT_TIMEOUT)
        return timed_out();
    return code != 0 ? refused(m_name, code) : wait_for(SERVICE_STOPPED);
}

bool wrong_name(const char* name) {
    qorString reason;
    reason.LoadString(framework::catalog, framework::service_characters);
    qor::error::set(qorError_service_name, {name, reason.Text()});
    return false;
}

} // namespace

bool qor::service::perform(qorServiceRequest request, const char* name, const qorServiceOptions& options,
                           qorServiceStatus& status) noexcept {
    if (options.manager == qorServiceManager::user || !api().is_there()) {
        qorString reason;
        if (options.manager == qorServiceManager::user)
            reason.LoadString(framework::catalog, framework::service_no_user_manager);
        else
            reason = "advapi32.dll";
        error::set(qorError_service_no_manager, {reason.Text()});
        return false;
    }
    DWORD rights = SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG;
    if (request == qorServiceRequest::start)
        rights |= SERVICE_START;
    else if (request == qorServiceRequest::stop)
        rights |= SERVICE_STOP | SERVICE_ENUMERATE_DEPENDENTS;
    ::service asked(name, options, status);
    if (const DWORD code = asked.open(rights); code != 0) {
        if (code == ERROR_INVALID_NAME)
            return wrong_name(name);
        if (code == ERROR_SERVICE_DOES_NOT_EXIST && request == qorServiceRequest::exists)
            return false;
        return refused(name, code);
    }
    switch (request) {
    case qorServiceRequest::start:
        return asked.start();
    case qorServiceRequest::stop:
        return asked.stop();
    default:
        return asked.exists();
    }
}
