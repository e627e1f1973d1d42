// A child process: its pipes, its start and its end.
#include "child/child.h"
#include "child/family_posix.h"
#include "child/plan_posix.h"
#include "error/error.h"
#include "memory/allocator.h"
#include "platform/no_cancellation.h"
#include "platform/no_write_signals_posix.h"
#include "platform/uninterrupted_posix.h"
#include "qor/system/template/Object.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {
#include <sys/pidfd.h> // glibc 2.36 has not made it for C++
}

namespace {

using qor::child::deadline;
using qor::child::no_fork;
using qor::platform::uninterrupted;

constexpr char source[] = "qorcore/src/child/child_process_posix";

// Kernels since 6.9 send a signal to a whole group by a pidfd, and since 6.15 tell how a process has ended that was
// reaped already. Their numbers, for older headers.
constexpr unsigned to_the_group = 1u << 2;
struct pidfd_information {
    std::uint64_t mask;
    std::uint64_t cgroup;
    std::uint32_t numbers[11];
    std::int32_t exit_code;
};
static_assert(sizeof(pidfd_information) == 64);
constexpr std::uint64_t with_exit = 1u << 3;
constexpr unsigned long ask_pidfd = _IOWR(0xFF, 11, pidfd_information);

// Without a pidfd, the end of a child is looked for so often.
constexpr uint32 first_pause = 1; // milliseconds
constexpr uint32 longest_pause = 50;

uint64 ticks_of(const timeval& time) noexcept {
    return static_cast<uint64>(time.tv_sec) * qorTicksPerSecond + static_cast<uint64>(time.tv_usec) * 10;
}

void take_code(qorChildEnd& end, int status) noexcept {
    if (WIFSIGNALED(status))
        end.signal = static_cast<uint32>(WTERMSIG(status));
    else
        end.code = static_cast<uint32>(WEXITSTATUS(status));
}

// A stream of Communicate that is read.
struct reading {
    qorChildOutput from;
    std::atomic<int>* descriptor;
    IQORDataSink* sink;
};

enum class step { done, would_wait, failed };

class child_process final : public qor::object<IQORChildProcess> {
public:
    child_process(std::string program, bool whole_tree)
        : object("qorcore.child_process", "IQORChildProcess"), m_program(std::move(program)), m_whole_tree(whole_tree) {
    }

    ~child_process() override {
        if (m_own != getpid())
            return;
        if (m_process > 0 && !m_has_ended && m_whole_tree)
            send_to_tree(SIGKILL);
        no_fork hold;
        hold.remove(m_descriptors);
        for (std::atomic<int>* each : {&m_descriptors.input, &m_descriptors.output, &m_descriptors.errors})
            no_fork::close(*each);
        if (m_process > 0 && !m_has_ended)
            hold.leave(m_process, m_descriptors.pidfd.exchange(-1));
        else
            no_fork::close(m_descriptors.pidfd);
    }

    uint64 GetId() noexcept override { return static_cast<uint64>(m_process); }

    bool IsRunning() noexcept override {
        if (m_own != getpid())
            return false;
        const std::lock_guard hold(m_lock);
        return !m_has_ended && !is_over();
    }

    bool Wait(uint32 ms, qorChildEnd& end) noexcept override {
        if (!is_own())
            return false;
        const qor::platform::no_cancellation keep;
        if (!wait_for_end(deadline(ms))) {
            qor::error::set(qorError_timed_out);
            return false;
        }
        return get_end(end);
    }

    bool End(qorChildEnding how) noexcept override {
        if (!is_own())
            return false;
        const std::lock_guard hold(m_lock);
        if (m_has_ended)
            return true;
        const int number = how == qorChildEnding::kill ? SIGKILL : SIGTERM;
        const int code = m_whole_tree ? send_to_tree(number) : send(number);
        // It has ended, even if nobody has asked yet.
        if (code == 0 || code == ESRCH)
            return true;
        qor::error::set_with_reason(qorError_child_failed, m_program.c_str(), code);
        return false;
    }

    bool WriteInput(const void* bytes, uint64 length, uint32 ms, uint64* written) noexcept override {
        uint64 ignored = 0;
        uint64& done = written != nullptr ? *written : ignored;
        done = 0;
        if (!is_own() || !has_pipe(m_descriptors.input, "WriteInput"))
            return false;
        const qor::platform::no_cancellation keep;
        const deadline until(ms);
        qor::platform::no_write_signals quiet;
        while (done < length) {
            const int code = write_some(static_cast<const char*>(bytes) + done, length - done, done);
            if (code == EAGAIN) {
                if (wait_for(m_descriptors.input, POLLOUT, until))
                    continue;
                qor::error::set(qorError_timed_out);
                return false;
            }
            if (code != 0) {
                quiet.take(code);
                qor::error::set_with_reason(qorError_child_failed, m_program.c_str(), code);
                return false;
            }
        }
        return true;
    }

    void CloseInput() noexcept override {
        if (m_own != getpid())
            return;
        const no_fork hold;
        no_fork::close(m_descriptors.input);
    }

    bool Read(qorChildOutput from, void* buffer, uint64 length, uint32 ms, uint64& count) noexcept override {
        count = 0;
        std::atomic<int>& descriptor = from == qorChildOutput::errors ? m_descriptors.errors : m_descriptors.output;
        if (!is_own() || !has_pipe(descriptor, "Read"))
            return false;
        if (length == 0) {
            qor::error::set(qorError_invalid_argument, {"Read", "length"});
            return false;
        }
        const qor::platform::no_cancellation keep;
        const deadline until(ms);
        for (;;) {
            const ssize_t got = uninterrupted([&] {
                return read(descriptor, buffer, static_cast<std::size_t>(std::min<uint64>(length, SSIZE_MAX)));
            });
            if (got >= 0) {
                count = static_cast<uint64>(got);
                return true;
            }
            if (errno != EAGAIN) {
                qor::error::set_with_reason(qorError_child_failed, m_program.c_str(), errno);
                return false;
            }
            if (!wait_for(descriptor, POLLIN, until)) {
                qor::error::set(qorError_timed_out);
                return false;
            }
        }
    }

    bool Communicate(qorTextView input, IQORDataSink* output, IQORDataSink* errors, uint32 ms,
                     qorChildEnd& end) noexcept override;

    // ---- for the start
    // Makes the pipes that the options ask for, and adds the child's ends to the plan. Returns 0 or the system's code.
    int make_pipes(const qorChildProcessOptions& options, qor::child::start_plan& plan, std::vector<int>& childs);
    void adopt(const qor::child::start_result& started, no_fork& hold) noexcept {
        m_process = started.process;
        m_descriptors.pidfd = started.pidfd;
        hold.add(m_descriptors);
    }

private:
    bool is_own() const noexcept {
        if (m_own == getpid())
            return true;
        qor::error::set(qorError_child_of_another_process, {m_program.c_str()});
        return false;
    }

    bool has_pipe(const std::atomic<int>& descriptor, const char* operation) const noexcept {
        if (descriptor >= 0)
            return true;
        qor::error::set(qorError_child_without_pipe, {operation, m_program.c_str()});
        return false;
    }

    // Returns false when the time is over.
    static bool wait_for(int descriptor, short events, const deadline& until) noexcept {
        pollfd one = {descriptor, events, 0};
        do {
            if (poll(&one, 1, until.is_limited() ? static_cast<int>(until.left(INT_MAX)) : -1) > 0)
                return true;
        } while (!until.is_over());
        return false;
    }

    // Writes into the input's pipe what it takes at once.
    int write_some(const char* bytes, uint64 length, uint64& done) noexcept {
        const auto most = static_cast<std::size_t>(std::min<uint64>(length, SSIZE_MAX));
        const ssize_t written = uninterrupted([&] { return write(m_descriptors.input, bytes, most); });
        if (written < 0)
            return errno == EWOULDBLOCK ? EAGAIN : errno;
        done += static_cast<uint64>(written);
        return 0;
    }

    // Whether the process has ended; it is not reaped. Where others have reaped it, it is gone.
    bool is_over() const noexcept {
        siginfo_t info{};
        return wait_id(info, WNOHANG | WNOWAIT, nullptr) != 0 || info.si_pid != 0;
    }

    // waitid with the resources, which only the system call gets. Returns -1 with errno.
    long wait_id(siginfo_t& info, int flags, rusage* used) const noexcept {
        const int pidfd = m_descriptors.pidfd;
        return uninterrupted([&] {
            return syscall(SYS_waitid, pidfd >= 0 ? P_PIDFD : P_PID, pidfd >= 0 ? pidfd : m_process, &info,
                           WEXITED | __WALL | flags, used);
        });
    }

    // Waits without reaping. Returns false when the time is over.
    bool wait_for_end(const deadline& until) noexcept {
        if (const int pidfd = m_descriptors.pidfd; pidfd >= 0)
            return wait_for(pidfd, POLLIN, until);
        for (uint32 pause = first_pause;; pause = std::min(2 * pause, longest_pause)) {
            {
                const std::lock_guard hold(m_lock);
                if (m_has_ended || is_over())
                    return true;
            }
            if (until.is_over())
                return false;
            poll(nullptr, 0, static_cast<int>(std::max(until.left(pause), 1u)));
        }
    }

    int send(int number) const noexcept {
        if (const int pidfd = m_descriptors.pidfd; pidfd >= 0)
            return pidfd_send_signal(pidfd, number, nullptr, 0) == 0 ? 0 : errno;
        return is_over() ? ESRCH : kill(m_process, number) == 0 ? 0 : errno;
    }

    // The number of the group is that of the child, and is nobody else's until the child is reaped.
    int send_to_tree(int number) const noexcept {
        if (const int pidfd = m_descriptors.pidfd; pidfd >= 0) {
            if (pidfd_send_signal(pidfd, number, nullptr, to_the_group) == 0)
                return 0;
            if (errno != EINVAL)
                return errno;
        }
        siginfo_t info{};
        if (wait_id(info, WNOHANG | WNOWAIT, nullptr) != 0)
            return ESRCH;
        return kill(-m_process, number) == 0 ? 0 : errno;
    }

    // The process has ended: gets its end, once.
    bool get_end(qorChildEnd& end) noexcept {
        const std::lock_guard hold(m_lock);
        if (!m_has_ended) {
            if (m_whole_tree)
                send_to_tree(SIGKILL);
            siginfo_t info{};
            rusage used{};
            if (wait_id(info, 0, &used) == 0) {
                if (info.si_code == CLD_EXITED)
                    m_end.code = static_cast<uint32>(info.si_status);
                else
                    m_end.signal = static_cast<uint32>(info.si_status);
                m_end.user_time = ticks_of(used.ru_utime);
                m_end.kernel_time = ticks_of(used.ru_stime);
                m_end.peak_memory = static_cast<uint64>(used.ru_maxrss) * 1024;
            } else {
                m_is_unknown = !ask_kernel();
            }
            m_has_ended = true;
        }
        end = m_end;
        if (m_is_unknown)
            qor::error::set(qorError_child_end_unknown, {m_program.c_str()});
        return !m_is_unknown;
    }

    // Others have reaped the process.
    bool ask_kernel() noexcept {
        pidfd_information asked{};
        asked.mask = with_exit;
        const int pidfd = m_descriptors.pidfd;
        if (pidfd < 0 || ioctl(pidfd, ask_pidfd, &asked) != 0 || (asked.mask & with_exit) == 0)
            return false;
        take_code(m_end, asked.exit_code);
        return true;
    }

    // ---- for Communicate
    struct talk {
        qorTextView input;
        std::array<reading, 2> readings;
        const deadline until;
        uint64 written = 0;
        bool is_refused = false; // the child has closed its input
        std::unique_ptr<char[]> buffer;
    };
    static constexpr std::size_t buffer_size = 64 * 1024;

    step feed(talk& with) noexcept;
    step collect(talk& with, const reading& one) noexcept;
    void drop_pipes() noexcept {
        const no_fork hold;
        for (std::atomic<int>* each : {&m_descriptors.input, &m_descriptors.output, &m_descriptors.errors})
            no_fork::close(*each);
    }
    static void close_one(std::atomic<int>& which) noexcept {
        const no_fork hold;
        no_fork::close(which);
    }

    const std::string m_program;
    const bool m_whole_tree;
    const pid_t m_own = getpid();
    pid_t m_process = -1;
    qor::child::own_descriptors m_descriptors;

    std::mutex m_lock; // protects what follows, and the child's number from being reaped meanwhile
    bool m_has_ended = false;
    bool m_is_unknown = false;
    qorChildEnd m_end;
};

// Writes until the pipe is full or everything is written; then closes it. A child that has closed its input gets
// nothing more.
step child_process::feed(talk& with) noexcept {
    while (with.written < with.input.length) {
        const int code = write_some(with.input.text + with.written, with.input.length - with.written, with.written);
        if (code == EAGAIN)
            return step::would_wait;
        with.is_refused = code == EPIPE;
        if (with.is_refused)
            break;
        if (code != 0) {
            qor::error::set_with_reason(qorError_child_failed, m_program.c_str(), code);
            return step::failed;
        }
    }
    close_one(m_descriptors.input);
    return step::done;
}

// Reads what there is.
step child_process::collect(talk& with, const reading& one) noexcept {
    for (;;) {
        const ssize_t got = uninterrupted([&] { return read(*one.descriptor, with.buffer.get(), buffer_size); });
        if (got < 0 && errno == EAGAIN)
            return step::would_wait;
        if (got < 0) {
            qor::error::set_with_reason(qorError_child_failed, m_program.c_str(), errno);
            return step::failed;
        }
        if (got == 0) {
            close_one(*one.descriptor);
            return step::done;
        }
        if (one.sink != nullptr && !one.sink->Write(with.buffer.get(), static_cast<uint32>(got)))
            return step::failed;
        // A child that writes without end must not outlast the limit.
        if (static_cast<std::size_t>(got) < buffer_size || with.until.is_over())
            return step::would_wait;
    }
}

bool child_process::Communicate(qorTextView input, IQORDataSink* output, IQORDataSink* errors, uint32 ms,
                                qorChildEnd& end) noexcept {
    if (!is_own())
        return false;
    const qor::platform::no_cancellation keep;
    qor::platform::no_write_signals quiet;
    talk with = {input,
                 {{{qorChildOutput::output, &m_descriptors.output, output},
                   {qorChildOutput::errors, &m_descriptors.errors, errors}}},
                 deadline(ms),
                 0,
                 false,
                 std::make_unique<char[]>(buffer_size)};
    bool has_failed = m_descriptors.input >= 0 && feed(with) == step::failed;
    bool has_ended = false;
    bool is_late = false;
    while (!has_failed) {
        pollfd all[4] = {{m_descriptors.input, POLLOUT, 0}, // -1 is passed over
                         {m_descriptors.output, POLLIN, 0},
                         {m_descriptors.errors, POLLIN, 0}};
        if (all[0].fd < 0 && all[1].fd < 0 && all[2].fd < 0)
            break;
        // The end of the child ends its tree, and with it the streams.
        const int pidfd = m_descriptors.pidfd;
        all[3] = {has_ended ? -1 : pidfd, POLLIN, 0};
        const uint32 most = pidfd < 0 && !has_ended ? longest_pause : INT_MAX;
        const bool waits_always = !with.until.is_limited() && most == INT_MAX;
        const int ready = poll(all, 4, waits_always ? -1 : static_cast<int>(with.until.left(most)));
        if (with.until.is_over()) {
            is_late = true;
            break;
        }
        if (ready < 0)
            continue; // interrupted
        if (!has_ended && (all[3].revents != 0 || (pidfd < 0 && !IsRunning()))) {
            has_ended = true;
            // What is left of the input has no reader, unless the child has left one behind.
            if (m_whole_tree) {
                const std::lock_guard hold(m_lock);
                send_to_tree(SIGKILL);
            }
        }
        if (all[0].revents != 0)
            has_failed = feed(with) == step::failed;
        for (std::size_t i = 0; i < 2 && !has_failed; ++i)
            if (all[i + 1].revents != 0)
                has_failed = collect(with, with.readings[i]) == step::failed;
    }
    if (with.is_refused)
        quiet.take(EPIPE);
    if (!has_failed && !is_late && wait_for_end(with.until))
        return get_end(end);
    // What is there already still counts; the failure remains the last error.
    (void)End(qorChildEnding::kill);
    if (!has_failed)
        for (const reading& each : with.readings)
            if (*each.descriptor >= 0)
                has_failed = collect(with, each) == step::failed || has_failed;
    drop_pipes();
    if (has_failed) {
        zetSmartPointer<IQORErrorMessage> why;
        qor::glue::qorGetLastError_message(why.Out());
        wait_for_end(deadline(0));
        (void)get_end(end);
        if (!why.IsEmpty())
            qor::glue::qorSetLastErrorMessage(*why);
        return false;
    }
    wait_for_end(deadline(0));
    if (get_end(end)) // otherwise its end is unknown
        qor::error::set(qorError_child_timed_out, {m_program.c_str(), std::to_string(ms).c_str()});
    return false;
}

} // namespace

int child_process::make_pipes(const qorChildProcessOptions& options, qor::child::start_plan& plan,
                              std::vector<int>& childs) {
    struct {
        const qorChildStream& stream;
        std::atomic<int>& own;
        int number;
    } const all[] = {{options.input, m_descriptors.input, STDIN_FILENO},
                     {options.output, m_descriptors.output, STDOUT_FILENO},
                     {options.errors, m_descriptors.errors, STDERR_FILENO}};
    for (const auto& each : all) {
        if (each.stream.kind != qorChildStreamKind::pipe)
            continue;
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            return errno;
        const bool is_input = each.number == STDIN_FILENO;
        each.own = ends[is_input ? 1 : 0];
        childs.push_back(ends[is_input ? 0 : 1]);
        plan.add(childs.back(), each.number);
        if (fcntl(each.own, F_SETFL, O_NONBLOCK) != 0)
            return errno;
    }
    if (options.errors.kind == qorChildStreamKind::output)
        for (const auto& each : std::vector(plan.descriptors))
            if (each.in_child == STDOUT_FILENO)
                plan.add(each.own, STDERR_FILENO);
    return 0;
}

bool qor::child::start(const qorChildProcessOptions& options, IQORChildProcess** out) noexcept {
    start_plan plan;
    std::vector<std::string> files; // of the plan
    prepare(options, plan, files);
    std::vector<int> childs; // the child's ends, which the own process closes
    bool is_ready = open_stream(options.input, STDIN_FILENO, plan, childs) &&
                    open_stream(options.output, STDOUT_FILENO, plan, childs) &&
                    open_stream(options.errors, STDERR_FILENO, plan, childs) && add_handles(options, plan);
    child_process* created = nullptr;
    zetSmartPointer<child_process> made;
    if (is_ready && memory::make<child_process>(source, __LINE__, &created, program_name(options), options.whole_tree))
        made.AttachNew(created);
    else
        is_ready = false;
    // Errors are set behind this lock, because texts are memory of the framework, whose lock a fork takes before. The
    // destructor of a child that was not started takes it, too.
    std::optional<no_fork> hold(std::in_place);
    start_result started;
    if (is_ready)
        started.code = made->make_pipes(options, plan, childs);
    if (is_ready && started.code == 0) {
        std::sort(plan.descriptors.begin(), plan.descriptors.end(),
                  [](const auto& one, const auto& other) { return one.in_child < other.in_child; });
        started = start_program(plan);
        if (started.code == 0)
            made->adopt(started, *hold);
    }
    for (const int each : childs)
        close(each);
    hold.reset();
    if (is_ready && started.code != 0)
        set_start_error(options, files, started);
    if (!is_ready || started.code != 0)
        return false;
    *out = made.Detach();
    return true;
}
