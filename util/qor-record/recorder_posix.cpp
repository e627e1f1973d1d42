#include "recorder_posix.h"

#include "clocks.h"
#include "control.h"
#include "messages.h"
#include "process_facts.h"
#include "shared/offer_posix.h"
#include "unix_socket.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <random>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace qor::record {

namespace {

constexpr int spare_descriptor = 700;         // out of the way of those that a process counts from 0
constexpr std::uint64_t few_records = 10'000; // a forked child with fewer leaves no log if it executes a program
constexpr std::uint64_t millisecond = 1'000'000;
constexpr std::uint64_t undecided_time = 1000 * millisecond;
constexpr std::uint64_t look_time = 50 * millisecond;
constexpr std::uint64_t flush_time = 200 * millisecond;
constexpr std::uint64_t records_at_a_time = ring_size / 4;

std::string random_text(std::size_t size) {
    std::random_device device;
    std::string text;
    while (text.size() < size)
        text += "0123456789abcdef"[device() % 16];
    return text;
}

} // namespace

std::shared_ptr<arena_host> recorder::make_arena(const std::vector<code_range>& allocation_code) {
    std::shared_ptr<arena_host> made =
        arena_host::make({m_options.depth, m_is_stopped, m_options.follows_children, false, allocation_code});
    if (made != nullptr && !m_options.follows_children && m_first_process != 0)
        made->shared().followed_process = m_first_process;
    return made;
}

bool recorder::prepare(const std::string& program, const program_facts& facts) {
    m_program = program;
    m_is_stopped = m_options.is_stopped;
    m_has_own_malloc = facts.has_own_malloc;
    m_arenas.push_back(make_arena(facts.allocation_code));
    if (m_arenas.front() == nullptr) {
        say(message::cannot_share, {std::strerror(errno)});
        return false;
    }
    m_token = random_text(token_size);
    m_socket_name = "qor-record-" + random_text(token_size);
    m_socket = listen_at(m_socket_name);
    m_control_socket = listen_at(control_name(m_names));
    if (m_socket < 0 || m_control_socket < 0) {
        say(errno == EADDRINUSE ? message::already_recording : message::cannot_share,
            {errno == EADDRINUSE ? m_names.prefix() : std::strerror(errno)});
        return false;
    }
    m_first_descriptor = ::fcntl(m_arenas.front()->descriptor(), F_DUPFD_CLOEXEC, spare_descriptor + 1);
    if (m_first_descriptor < 0)
        m_first_descriptor = ::dup(m_arenas.front()->descriptor());
    return true;
}

recorded_process* recorder::find(std::int32_t number) {
    for (recorded_process& each : m_processes)
        if (!each.is_over && each.log->process() == number)
            return &each;
    return nullptr;
}

// Executed programs ask for an arena of their own.
void recorder::answer_requests() {
    for (int connection; (connection = accept_at(m_socket)) >= 0; ::close(connection)) {
        peer other;
        if (receive(connection, token_size + 1) != m_token || !peer_of(connection, other) ||
            (!m_options.follows_children && other.process != m_first_process))
            continue;
        if (const auto host = make_arena(allocation_code_of(other.process))) {
            host->own();
            add_executed(host, other.process);
            (void)send_descriptor(connection, host->descriptor());
        }
    }
}

void recorder::answer_control() {
    for (int connection; (connection = accept_at(m_control_socket)) >= 0; ::close(connection)) {
        peer other;
        if (!peer_of(connection, other) || (other.user != ::geteuid() && other.user != 0))
            continue;
        const std::string word = receive(connection, 16);
        if (word != "start" && word != "stop")
            continue;
        stop(word == "stop");
        (void)send_text(connection, "done");
    }
}

// The records from before the command are written in the state from before.
void recorder::stop(bool is_stopped) {
    m_is_stopped = is_stopped;
    if (m_spare != nullptr)
        m_spare->shared().stopped.store(is_stopped ? 1 : 0);
    for (const auto& each : m_arenas)
        each->shared().stopped.store(is_stopped ? 1 : 0);
    for (recorded_process& each : m_processes) {
        if (each.is_over)
            continue;
        for (std::uint64_t left = each.log->waiting(); left != 0;) {
            const std::uint64_t read = each.has_files ? each.log->drain(left, false) : 0;
            if (read == 0)
                break;
            left -= std::min(left, read);
        }
        each.log->stop(is_stopped);
    }
}

// In /proc, for those that cannot reach the socket.
void recorder::publish_spare() {
    m_spare = make_arena({});
    if (m_spare == nullptr)
        return;
    m_spare->own();
    (void)::dup3(m_spare->descriptor(), spare_descriptor, O_CLOEXEC);
}

void recorder::replace_spare() {
    if (m_spare == nullptr ||
        m_spare->shared().sessions[0].state.load(std::memory_order_acquire) != session_state::running)
        return;
    const std::shared_ptr<arena_host> taken = m_spare;
    publish_spare();
    add_executed(taken, taken->shared().sessions[0].process);
}

recorded_process& recorder::add(const std::shared_ptr<arena_host>& host, unsigned index, std::int32_t number) {
    recorded_process& added = m_processes.emplace_back();
    added.host = host;
    added.log = std::make_unique<process_log>(*host, index, number);
    added.log->stop(m_is_stopped);
    added.program = host->program();
    added.handle = number != 0 ? open_process(number) : -1;
    added.known_since = steady_time();
    added.is_forked = index != 0;
    host->know_session(index);
    return added;
}

// A process that has executed a program is another one from then on.
void recorder::add_executed(const std::shared_ptr<arena_host>& host, std::int32_t number) {
    find_forked();
    for (const auto& each : m_arenas)
        m_executed.read(each);
    m_executed.forget(number);
    bool is_first = number == m_first_process;
    if (recorded_process* const before = find(number)) {
        before->was_replaced = true;
        is_first = before->is_first;
        end(*before);
    }
    m_arenas.push_back(host);
    host->set_program(program_of(number));
    host->shared().is_first = is_first ? 1 : 0;
    add(host, 0, number).is_first = is_first;
}

// The number of a process in its own namespace, which another one may have later.
std::int32_t recorder::inner_number(const recorded_process& of) {
    return of.is_over ? of.inner_number : of.host->shared().sessions[of.log->session_index()].process;
}

// Whether the numbers in the namespace of a process are not those here.
bool recorder::is_elsewhere(const arena_host& host, const session& of) const {
    return of.parent_process == 0 || std::ranges::any_of(m_processes, [&](const recorded_process& parent) {
               return parent.host.get() == &host && parent.log->number() == of.parent &&
                      (parent.is_elsewhere || parent.log->process() != inner_number(parent));
           });
}

// Parents before their children, and children in the order in which they were forked: the place in the parent's log
// only ever moves on.
void recorder::find_forked() {
    for (const auto& host : m_arenas) {
        if (host->forks_are_under_way())
            continue;
        std::vector<unsigned> found = host->new_sessions();
        std::ranges::sort(found, {}, [&](unsigned index) {
            const session& of = host->shared().sessions[index];
            return std::pair(of.parent, of.fork_ticket);
        });
        for (const unsigned index : found) {
            const session& of = host->shared().sessions[index];
            const bool is_here = !is_elsewhere(*host, of);
            const std::int32_t number = is_here ? of.process : find_in_namespaces(of.process, host->shared().image);
            recorded_process& added = add(host, index, number != 0 ? number : of.process);
            added.is_elsewhere = !is_here;
            added.was_gone = number == 0;
            for (recorded_process& each : m_processes) {
                if (each.host != host || each.log->number() != of.parent)
                    continue;
                added.parent = &each;
                each.has_forked = true;
                if (!each.has_files && !each.is_over)
                    begin_files(each);
                added.inherited = each.log->place_of_fork(of.fork_ticket, each.is_over || has_ended(each));
            }
        }
    }
}

// Programs that processes have become or started without an arena of their own.
void recorder::find_executed() {
    for (const auto& each : m_arenas)
        m_executed.read(each);
    m_executed.look();
    const std::uint64_t now = steady_time();
    if (now - m_last_look < look_time)
        return;
    m_last_look = now;
    for (const recorded_process& each : m_processes)
        if (!each.is_over && !each.host->is_program_of(each.log->process()))
            m_executed.add(each.log->process(), program_of(each.log->process()));
}

bool recorder::has_arena(std::int32_t process, std::uint64_t since) const {
    return std::ranges::any_of(m_processes, [=](const recorded_process& each) {
        if (each.is_forked || each.known_since < since)
            return false;
        return each.log->process() == process || inner_number(each) == process;
    });
}

void recorder::add_up(const arena& of) {
    m_unrecorded_children += of.unrecorded_children.load();
    m_unnamed_executions += of.unnamed_executions.load();
    m_stacks_were_full = m_stacks_were_full || of.nodes_are_full.load() != 0;
}

// An arena takes memory as long as it exists. The first one tells the summary whether anything was recorded.
void recorder::drop_arenas() {
    std::erase_if(m_arenas, [this](const std::shared_ptr<arena_host>& host) {
        const auto needs = [&](const recorded_process& each) { return !each.is_over && each.host == host; };
        if (host == m_arenas.front() || std::ranges::any_of(m_processes, needs) || host->awaits_children())
            return false;
        m_executed.read(host);
        add_up(host->shared());
        for (recorded_process& each : m_processes)
            if (each.host == host)
                each.host.reset();
        return true;
    });
}

int recorder::create_files(recorded_process& of) {
    if (of.is_first)
        return of.log->create(m_names.log(), m_names.stacks(), m_options.kind);
    int reason = EEXIST;
    for (int attempt = 1; reason == EEXIST && attempt < 1000; ++attempt)
        reason = of.log->create(m_names.log(of.log->process(), attempt), m_names.stacks(of.log->process(), attempt),
                                m_options.kind);
    return reason;
}

void recorder::begin_files(recorded_process& of) {
    of.has_files = true;
    if (!of.is_first || of.log->log().path().empty())
        (void)create_files(of);
    of.log->begin(parent_of(of.log->process()));
    if (of.parent != nullptr)
        of.log->inherit(*of.parent->log, of.inherited);
}

bool recorder::has_ended(const recorded_process& of) const {
    return (of.is_first && m_exit_code >= 0) || of.was_gone || record::has_ended(of.log->process(), of.handle);
}

// Whether it is worth a log: a child that only executes a program leaves nothing.
bool recorder::is_decided(const recorded_process& of) const {
    if (!of.is_forked)
        return of.log->waiting() != 0;
    return of.log->waiting() >= few_records ||
           (of.log->waiting() != 0 && steady_time() - of.known_since > undecided_time);
}

// False: there was nothing.
bool recorder::drain(recorded_process& of) {
    if (!of.has_files && !is_decided(of))
        return false;
    if (!of.has_files)
        begin_files(of);
    return of.log->drain(records_at_a_time, false) != 0;
}

void recorder::tell_failure(recorded_process& of) {
    const int reason = of.log->log().failure() != 0 ? of.log->log().failure() : of.log->stacks().failure();
    if (reason == 0 || of.has_failed)
        return;
    of.has_failed = true;
    const std::string path = of.log->log().path();
    say(message::log_ended, {path.empty() ? of.program : m_names.shown(path), std::strerror(reason)});
}

void recorder::end(recorded_process& of) {
    if (of.is_over)
        return;
    of.inner_number = inner_number(of);
    of.is_over = true;
    m_executed.read(of.host);
    const bool has_executed = of.was_replaced || m_executed.has(of.log->process());
    of.is_dropped = of.is_forked && !of.has_forked &&
                    (of.log->waiting() + of.log->own_lines() == 0 ||
                     (has_executed && of.log->waiting() + of.log->own_lines() < few_records));
    if (!of.is_dropped && !of.has_files)
        begin_files(of);
    while (!of.is_dropped && of.log->drain(ring_size, true) != 0) {
    }
    of.log->finish();
    if (of.is_dropped)
        of.log->remove();
    else
        tell_failure(of);
    if (of.is_first && of.was_replaced) {
        // The name is that of the program that the process ends as.
        int attempt = 1;
        while (::access(m_names.log(of.log->process(), attempt).c_str(), F_OK) == 0)
            ++attempt;
        of.log->rename(m_names.log(of.log->process(), attempt), m_names.stacks(of.log->process(), attempt));
    }
    if (of.handle >= 0)
        ::close(of.handle);
    of.handle = -1;
    of.host->release_session(of.log->session_index());
}

// Processes that run a program which is not recorded.
void recorder::end_replaced() {
    for (recorded_process& each : m_processes)
        if (!each.is_over && m_executed.has(each.log->process()))
            end(each);
}

void recorder::hear_front() {
    if (m_front < 0 || m_exit_code >= 0 || !is_readable(m_front))
        return;
    std::int32_t code;
    if (::recv(m_front, &code, sizeof code, MSG_DONTWAIT) == sizeof code)
        m_exit_code = code;
    else
        m_front = -1;
}

// The process that waits for the program has all that it needs. This process may go on, without the streams.
void recorder::dismiss_front() {
    for (recorded_process& each : m_processes)
        if (!each.is_over && !each.has_files)
            begin_files(each);
    summarise();
    const char has_nothing = m_arenas.front()->shared().taken.load() == 0 ? 1 : 0;
    if (m_front >= 0)
        (void)::send(m_front, &has_nothing, 1, MSG_NOSIGNAL);
    m_front = -1;
    const int nowhere = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        ::dup2(nowhere, stream);
}

void recorder::flush() {
    for (recorded_process& each : m_processes)
        if (!each.is_over && each.has_files) {
            each.log->flush();
            tell_failure(each);
        }
}

// One round. False: there was nothing to do.
bool recorder::work() {
    for (const auto& each : m_arenas)
        each->shared().heartbeat.fetch_add(1, std::memory_order_relaxed);
    hear_front();
    answer_requests();
    answer_control();
    replace_spare();
    find_forked();
    bool is_busy = false;
    bool has_ended_one = false;
    for (recorded_process& each : m_processes) {
        if (each.is_over)
            continue;
        const bool is_last = has_ended(each);
        is_busy = drain(each) || is_busy;
        if (is_last && !each.host->awaits_children()) {
            end(each);
            has_ended_one = true;
        }
    }
    find_executed();
    if (has_ended_one)
        drop_arenas();
    return is_busy;
}

void recorder::run(int front) {
    m_front = front;
    ::setsid();
    rlimit descriptors;
    if (::getrlimit(RLIMIT_NOFILE, &descriptors) == 0) {
        descriptors.rlim_cur = descriptors.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &descriptors);
    }
    m_arenas.front()->own();
    m_arenas.front()->set_program(m_program);
    m_arenas.front()->shared().is_first = 1;
    recorded_process& first = add(m_arenas.front(), 0, 0);
    first.is_first = true;
    if (const int reason = create_files(first)) {
        say(message::cannot_create, {m_names.shown(m_names.log()), std::strerror(reason)});
        return;
    }
    publish_spare();
    const std::string offer = std::to_string(m_first_descriptor) + ':' + std::to_string(::getpid()) + ':' +
                              std::to_string(spare_descriptor) + ':' + m_token + ':' + m_socket_name;
    if (!send_text(front, offer) ||
        ::recv(front, &m_first_process, sizeof m_first_process, 0) != sizeof m_first_process) {
        first.log->remove();
        return;
    }
    ::close(m_first_descriptor);
    first.log->set_process(m_first_process);
    first.handle = open_process(m_first_process);
    if (m_spare != nullptr && !m_options.follows_children)
        m_spare->shared().followed_process = m_first_process;
    begin_files(first);

    bool is_dismissed = false;
    std::uint64_t last_flush = 0;
    for (unsigned idle_rounds = 0;;) {
        const bool is_busy = work();
        const bool is_first_over = m_exit_code >= 0 || m_front < 0;
        if (is_first_over && !m_executed.are_starting())
            end_replaced();
        const bool are_all_over = std::ranges::all_of(m_processes, &recorded_process::is_over);
        if (is_first_over && m_executed.are_starting()) {
            // A program that is being loaded may ask for an arena.
        } else if (is_first_over && are_all_over &&
                   std::ranges::none_of(m_arenas, [](const auto& each) { return each->awaits_children(); })) {
            break;
        } else if (is_first_over && !are_all_over && !is_dismissed && !find(m_first_process)) {
            // The recording of processes that the program has left running goes on, but nobody waits for it.
            is_dismissed = true;
            dismiss_front();
        }
        if (!is_busy && steady_time() - last_flush > flush_time) {
            last_flush = steady_time();
            flush();
        }
        idle_rounds = is_busy ? 0 : std::min(idle_rounds + 1, 16U);
        pollfd wanted[] = {
            {m_socket, POLLIN, 0}, {m_control_socket, POLLIN, 0}, {m_exit_code < 0 ? m_front : -1, POLLIN, 0}};
        const timespec pause = {0, static_cast<long>(std::min(500'000U << idle_rounds / 4, 5'000'000U))};
        ::ppoll(wanted, std::size(wanted), &pause, nullptr);
    }
    if (!is_dismissed) {
        // The next recorder of these files may begin as soon as the front process has ended.
        ::close(m_control_socket);
        dismiss_front();
    }
}

} // namespace qor::record
