// A child process: its pipes and its end. The start is in start_windows.cpp.
#include "child/child_process_windows.h"

#include "error/error.h"
#include "platform/system_library_windows.h"

#include <algorithm>
#include <psapi.h>

using qor::child::deadline;
using qor::child::pipe_end;

namespace {

uint64 ticks_of(const FILETIME& time) noexcept {
    return static_cast<uint64>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
}

DWORD limit(const deadline& until) noexcept { return until.is_limited() ? until.left(INFINITE - 1) : INFINITE; }

uint64 peak_memory(HANDLE process) noexcept {
    using function = BOOL WINAPI(HANDLE, PROCESS_MEMORY_COUNTERS*, DWORD);
    static function* const get = qor::platform::find_function<function>(L"kernel32.dll", "K32GetProcessMemoryInfo");
    PROCESS_MEMORY_COUNTERS counters{};
    return get != nullptr && get(process, &counters, sizeof counters) ? counters.PeakWorkingSetSize : 0;
}

bool is_end(int code) noexcept {
    return code == ERROR_BROKEN_PIPE || code == ERROR_NO_DATA || code == ERROR_HANDLE_EOF;
}

} // namespace

qor::child::child_process::child_process(std::string program, bool whole_tree)
    : object("qorcore.child_process", "IQORChildProcess"), m_program(std::move(program)), m_whole_tree(whole_tree) {}

// The job of a whole tree kills what is still in it when its last handle is closed.
qor::child::child_process::~child_process() {
    for (const HANDLE each : {m_process, m_job})
        if (each != nullptr)
            CloseHandle(each);
}

uint64 qor::child::child_process::GetId() noexcept { return m_id; }

bool qor::child::child_process::IsRunning() noexcept { return WaitForSingleObject(m_process, 0) == WAIT_TIMEOUT; }

bool qor::child::child_process::fail(int code) const noexcept {
    error::set_with_reason(qorError_child_failed, m_program.c_str(), code);
    return false;
}

bool qor::child::child_process::has_pipe(const pipe_end& pipe, const char* operation) const noexcept {
    if (pipe.is_open())
        return true;
    error::set(qorError_child_without_pipe, {operation, m_program.c_str()});
    return false;
}

bool qor::child::child_process::get_end(qorChildEnd& end) noexcept {
    if (m_job != nullptr)
        TerminateJobObject(m_job, 1);
    DWORD code = 0;
    FILETIME created, ended, kernel{}, user{};
    if (!GetExitCodeProcess(m_process, &code))
        return fail(static_cast<int>(GetLastError()));
    end = {};
    end.code = code;
    if (GetProcessTimes(m_process, &created, &ended, &kernel, &user)) {
        end.user_time = ticks_of(user);
        end.kernel_time = ticks_of(kernel);
    }
    end.peak_memory = peak_memory(m_process);
    return true;
}

bool qor::child::child_process::Wait(uint32 ms, qorChildEnd& end) noexcept {
    switch (WaitForSingleObject(m_process, limit(deadline(ms)))) {
    case WAIT_OBJECT_0:
        return get_end(end);
    case WAIT_TIMEOUT:
        error::set(qorError_timed_out);
        return false;
    default:
        return fail(static_cast<int>(GetLastError()));
    }
}

bool qor::child::child_process::End(qorChildEnding how) noexcept {
    if (how != qorChildEnding::kill) {
        error::set(qorError_not_supported);
        return false;
    }
    const bool is_done = m_job != nullptr ? TerminateJobObject(m_job, 1) : TerminateProcess(m_process, 1);
    const auto code = static_cast<int>(GetLastError());
    // A process that has ended cannot be ended again.
    return is_done || !IsRunning() || fail(code);
}

bool qor::child::child_process::WriteInput(const void* bytes, uint64 length, uint32 ms, uint64* written) noexcept {
    uint64 ignored = 0;
    uint64& done = written != nullptr ? *written : ignored;
    done = 0;
    if (!has_pipe(m_input, "WriteInput"))
        return false;
    const deadline until(ms);
    while (done < length) {
        if (const int code = m_input.begin_write(static_cast<const char*>(bytes) + done, length - done))
            return fail(code);
        if (WaitForSingleObject(m_input.event(), limit(until)) != WAIT_OBJECT_0) {
            done += m_input.cancel_write();
            if (done == length)
                return true;
            error::set(qorError_timed_out);
            return false;
        }
        if (const int code = m_input.end_write(done))
            return fail(code);
    }
    return true;
}

void qor::child::child_process::CloseInput() noexcept { m_input.close(); }

bool qor::child::child_process::Read(qorChildOutput from, void* buffer, uint64 length, uint32 ms,
                                     uint64& count) noexcept {
    count = 0;
    pipe_end& pipe = from == qorChildOutput::errors ? m_errors : m_output;
    if (!has_pipe(pipe, "Read"))
        return false;
    if (length == 0) {
        error::set(qorError_invalid_argument, {"Read", "length"});
        return false;
    }
    const deadline until(ms);
    for (;;) {
        int code = pipe.begin_read();
        if (code == 0 && pipe.is_busy() && WaitForSingleObject(pipe.event(), limit(until)) != WAIT_OBJECT_0) {
            error::set(qorError_timed_out);
            return false;
        }
        const char* bytes = nullptr;
        uint64 there = 0;
        if (code == 0)
            code = pipe.end_read(bytes, there);
        if (is_end(code))
            return true;
        if (code != 0)
            return fail(code);
        if (there == 0)
            continue; // a program has written nothing, which is no end
        count = std::min(length, there);
        std::memcpy(buffer, bytes, static_cast<std::size_t>(count));
        pipe.take(count);
        return true;
    }
}

// Writes until the pipe is full. A child that has closed its input gets nothing more.
bool qor::child::child_process::feed(qorTextView input, uint64& written) noexcept {
    for (;;) {
        int code = 0;
        if (m_input.is_busy())
            code = m_input.end_write(written);
        if (code == ERROR_IO_INCOMPLETE)
            return true;
        if (code == 0 && written < input.length)
            code = m_input.begin_write(input.text + written, input.length - written);
        else if (code == 0)
            return m_input.close(), true;
        if (is_end(code))
            return m_input.close(), true;
        if (code != 0)
            return fail(code);
    }
}

// Reads what there is.
bool qor::child::child_process::collect(pipe_end& pipe, IQORDataSink* sink, const deadline& until) noexcept {
    for (;;) {
        const char* bytes = nullptr;
        uint64 count = 0;
        int code = pipe.begin_read();
        if (code == 0)
            code = pipe.end_read(bytes, count);
        if (code == ERROR_IO_INCOMPLETE)
            return true;
        if (is_end(code))
            return pipe.close(), true;
        if (code != 0)
            return fail(code);
        pipe.take(count);
        if (sink != nullptr && count != 0 && !sink->Write(bytes, static_cast<uint32>(count)))
            return false;
        if (until.is_over())
            return true;
    }
}

bool qor::child::child_process::Communicate(qorTextView input, IQORDataSink* output, IQORDataSink* errors, uint32 ms,
                                            qorChildEnd& end) noexcept {
    const deadline until(ms);
    uint64 written = 0;
    bool has_failed = false;
    bool is_late = false;
    bool has_ended = false;
    while (!has_failed) {
        has_failed = (m_input.is_open() && !feed(input, written)) ||
                     (m_output.is_open() && !collect(m_output, output, until)) ||
                     (m_errors.is_open() && !collect(m_errors, errors, until));
        HANDLE all[4];
        DWORD count = 0;
        for (const pipe_end* each : {&m_input, &m_output, &m_errors})
            if (each->is_open())
                all[count++] = each->event();
        if (has_failed || count == 0)
            break;
        is_late = until.is_over();
        if (is_late)
            break;
        const DWORD pipes = count;
        if (!has_ended)
            all[count++] = m_process;
        const DWORD woken = WaitForMultipleObjects(count, all, FALSE, limit(until));
        // The end of the child ends its tree, and with it the streams.
        if (woken == WAIT_OBJECT_0 + pipes && !has_ended) {
            has_ended = true;
            if (m_job != nullptr)
                TerminateJobObject(m_job, 1);
        }
    }
    if (!has_failed && !is_late && WaitForSingleObject(m_process, limit(until)) == WAIT_OBJECT_0)
        return get_end(end);
    if (has_failed) {
        zetSmartPointer<IQORErrorMessage> why;
        qor::glue::qorGetLastError_message(why.Out());
        (void)End(qorChildEnding::kill);
        WaitForSingleObject(m_process, INFINITE);
        (void)get_end(end);
        if (!why.IsEmpty())
            qor::glue::qorSetLastErrorMessage(*why);
    } else {
        (void)End(qorChildEnding::kill);
        WaitForSingleObject(m_process, INFINITE);
        (void)get_end(end);
        error::set(qorError_child_timed_out, {m_program.c_str(), std::to_string(ms).c_str()});
    }
    for (pipe_end* each : {&m_input, &m_output, &m_errors})
        each->close();
    return false;
}
