#include "recorder_windows.h"

#include "clocks.h"
#include "inject_windows.h"
#include "messages.h"
#include "program_file_windows.h"
#include "wide_text_windows.h"

#include <algorithm>
#include <utility>
#include <windows.h>

extern "C" __declspec(dllimport) LONG NTAPI NtResumeProcess(HANDLE);

namespace qor::record {

namespace {

constexpr std::uint64_t flush_time = 200'000'000;
constexpr std::uint64_t records_at_a_time = ring_size / 4;

bool has_ended(const recorded_process& of) { return WaitForSingleObject(of.handle, 0) == WAIT_OBJECT_0; }

// A variable of the environment for the program alone: the recorder is not to take it for its own.
class lent_variable {
public:
    lent_variable(const wchar_t* name, const std::wstring& value) : m_name(name) {
        m_before.resize(GetEnvironmentVariableW(name, nullptr, 0));
        m_before.resize(GetEnvironmentVariableW(name, m_before.data(), static_cast<DWORD>(m_before.size())));
        SetEnvironmentVariableW(name, value.c_str());
    }
    ~lent_variable() { SetEnvironmentVariableW(m_name, m_before.empty() ? nullptr : m_before.c_str()); }
    lent_variable(const lent_variable&) = delete;
    lent_variable& operator=(const lent_variable&) = delete;

private:
    const wchar_t* m_name;
    std::wstring m_before;
};

std::string program_of(HANDLE process) {
    std::wstring path(32768, L'\0');
    auto size = static_cast<DWORD>(path.size());
    if (!QueryFullProcessImageNameW(process, 0, path.data(), &size))
        return {};
    return narrow(std::wstring_view(path).substr(0, size));
}

} // namespace

int recorder::create_files(recorded_process& of) {
    if (of.is_first)
        return of.log->create(m_names.log(), m_names.stacks(), m_options.kind);
    int reason = 0;
    for (int attempt = 1; attempt < 1000; ++attempt) {
        reason = of.log->create(m_names.log(of.log->process(), attempt), m_names.stacks(of.log->process(), attempt),
                                m_options.kind);
        if (!is_taken(reason))
            break;
    }
    return reason;
}

// The process has not begun to run. False, after a message if it is the first one: it cannot be recorded.
bool recorder::begin(void* process, std::int32_t number, const std::string& program, std::int32_t parent) {
    const bool is_first = m_processes.empty();
    const std::shared_ptr<arena_host> host =
        arena_host::make({m_options.depth, m_is_stopped, m_options.follows_children, m_options.wants_system_heap,
                          allocation_code_of(program)});
    const auto refuse = [&](std::uint32_t text, int reason) {
        if (is_first)
            say(text, {text == message::cannot_create ? m_names.shown(m_names.log()) : program, reason_of(reason)});
        return false;
    };
    if (host == nullptr)
        return refuse(message::cannot_start, out_of_memory);
    switch (inject(process, host->section(), m_hooks)) {
    case injected::done:
        break;
    case injected::is_foreign:
        if (is_first)
            say(message::is_32_bit, {program});
        return false;
    case injected::failed:
        return refuse(message::cannot_start, static_cast<int>(GetLastError()));
    }
    host->close_descriptor();
    host->set_program(program);
    recorded_process added;
    added.host = host;
    added.log = std::make_unique<process_log>(*host, 0, number);
    added.log->stop(m_is_stopped);
    added.program = program;
    added.is_first = is_first;
    if (const int reason = create_files(added); reason != 0 && is_first)
        return refuse(message::cannot_create, reason);
    added.log->begin(parent);
    added.handle = process;
    m_processes.push_back(std::move(added));
    return true;
}

// A process that has been started, and waits. In any case it may run afterwards.
void recorder::take(std::int32_t number, recorded_process& parent, bool runs_at_once) {
    const HANDLE process = OpenProcess(PROCESS_ALL_ACCESS, FALSE, static_cast<DWORD>(number));
    const std::string program = process != nullptr ? program_of(process) : "?";
    if (process != nullptr && begin(process, number, program, parent.log->process())) {
        m_processes.back().holder = runs_at_once ? &parent : nullptr;
        return;
    }
    m_unrecorded[program].push_back(number);
    if (process != nullptr)
        CloseHandle(process);
}

void recorder::follow(recorded_process& parent) {
    if (!parent.host->has_new_executions())
        return;
    for (execution& each : parent.host->shared().executions) {
        std::int32_t number = each.process.load(std::memory_order_acquire);
        if (number <= 0)
            continue;
        take(number, parent, each.is_new_process != 0);
        each.process.compare_exchange_strong(number, 0);
    }
}

void recorder::answer_control() {
    const std::optional<bool> is_stopped = m_control.asked();
    if (!is_stopped)
        return;
    m_is_stopped = *is_stopped;
    // The records from before the command are written in the state from before.
    for (recorded_process& each : m_processes) {
        if (each.is_over())
            continue;
        each.host->shared().stopped.store(m_is_stopped ? 1 : 0);
        for (std::uint64_t left = each.log->waiting(); left != 0;) {
            const std::uint64_t read = each.log->drain(left, false);
            if (read == 0)
                break;
            left -= std::min(left, read);
        }
        each.log->stop(m_is_stopped);
    }
    m_control.answer();
}

void recorder::tell_failure(recorded_process& of) {
    const int reason = of.log->log().failure() != 0 ? of.log->log().failure() : of.log->stacks().failure();
    if (reason == 0 || of.has_failed)
        return;
    of.has_failed = true;
    const std::string path = of.log->log().path();
    say(message::log_ended, {path.empty() ? of.program : m_names.shown(path), reason_of(reason)});
}

void recorder::end(recorded_process& of) {
    while (of.log->drain(ring_size, true) != 0) {
    }
    of.log->finish();
    tell_failure(of);
    const arena& shared = of.host->shared();
    of.has_begun = shared.taken.load() != 0;
    m_runtimes |= shared.runtimes.load();
    m_hooked_modules += shared.hooked_modules.load();
    m_stacks_were_full = m_stacks_were_full || shared.nodes_are_full.load() != 0;
    m_unnamed += shared.unnamed_executions.load();
    if (of.is_first) {
        m_program_has_imports = shared.hooked_imports_of_program.load() != 0;
        GetExitCodeProcess(of.handle, &m_exit_code);
    }
    CloseHandle(of.handle);
    of.host.reset();
}

// The hook that holds a process before its first instruction may end with its own process.
void recorder::let_run(recorded_process& of) {
    if (of.holder == nullptr || !of.holder->is_over())
        return;
    of.holder = nullptr;
    if (of.host->shared().taken.load() == 0)
        NtResumeProcess(of.handle); // does nothing to one that runs
}

// One round. False: there was nothing to do.
bool recorder::work() {
    bool is_busy = false;
    answer_control();
    for (recorded_process& each : m_processes) { // new ones are added at the end
        if (each.is_over())
            continue;
        each.host->shared().heartbeat.fetch_add(1, std::memory_order_relaxed);
        const bool is_last = has_ended(each);
        let_run(each);
        follow(each);
        is_busy = each.log->drain(records_at_a_time, false) != 0 || is_busy;
        if (is_last)
            end(each);
    }
    return is_busy;
}

void recorder::flush() {
    for (recorded_process& each : m_processes)
        if (!each.is_over()) {
            each.log->flush();
            tell_failure(each);
        }
}

bool recorder::start(const std::string& path) {
    STARTUPINFOW about{};
    about.cb = sizeof about;
    about.dwFlags = STARTF_USESTDHANDLES;
    about.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    about.hStdOutput = GetStdHandle(STD_OUTPUT_HANDLE);
    about.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    for (const HANDLE each : {about.hStdInput, about.hStdOutput, about.hStdError})
        SetHandleInformation(each, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    std::wstring line = wide(command_line(m_options.command));
    PROCESS_INFORMATION started{};
    int reason = 0;
    {
        const lent_variable memcheck(L"QOR_MEMCHECK", wide(m_names.memcheck()));
        if (!CreateProcessW(wide(path).c_str(), line.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED, nullptr, nullptr,
                            &about, &started))
            reason = static_cast<int>(GetLastError());
    }
    if (reason != 0) {
        if (reason == ERROR_EXE_MACHINE_TYPE_MISMATCH)
            say(message::is_32_bit, {path});
        else
            say(message::cannot_start, {path, reason_of(reason)});
        return false;
    }
    m_first_thread = started.hThread;
    if (begin(started.hProcess, static_cast<std::int32_t>(started.dwProcessId), path,
              static_cast<std::int32_t>(GetCurrentProcessId())))
        return true;
    TerminateProcess(started.hProcess, 1);
    CloseHandle(started.hThread);
    CloseHandle(started.hProcess);
    return false;
}

int recorder::run(const std::string& path) {
    if (!start(path))
        return 1;
    ResumeThread(m_first_thread);
    CloseHandle(m_first_thread);
    std::uint64_t last_flush = 0;
    for (unsigned idle_rounds = 0;
         std::ranges::any_of(m_processes, [](const auto& each) { return !each.is_over(); });) {
        const bool is_busy = work();
        if (!is_busy && steady_time() - last_flush > flush_time) {
            last_flush = steady_time();
            flush();
        }
        idle_rounds = is_busy ? 0 : std::min(idle_rounds + 1, 16U);
        Sleep(is_busy ? 0 : 1 + idle_rounds / 8);
    }
    summarise();
    const bool has_nothing = !m_processes.front().has_begun;
    return has_nothing && m_exit_code == 0 ? 1 : static_cast<int>(m_exit_code);
}

} // namespace qor::record
