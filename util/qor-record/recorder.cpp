#include "recorder.h"

#include "messages.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <random>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

namespace qor::record {

namespace {

constexpr int spare_descriptor = 700;         // out of the way of those that a process counts from 0
constexpr std::uint64_t few_records = 10'000; // of a forked child before it executes a program
constexpr std::uint64_t millisecond = 1'000'000;
constexpr std::uint64_t undecided_time = 1000 * millisecond;
constexpr std::uint64_t arrival_time = 200 * millisecond; // that a forked child may take to its session
constexpr std::uint64_t flush_time = 200 * millisecond;
constexpr std::uint64_t records_at_a_time = ring_size / 4;

std::uint64_t now() {
    timespec time;
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

std::string random_text(std::size_t size) {
    std::random_device device;
    std::string text;
    while (text.size() < size)
        text += "0123456789abcdef"[device() % 16];
    return text;
}

std::string program_of(std::int32_t process) {
    const std::string link = "/proc/" + std::to_string(process) + "/exe";
    char path[4096];
    const ssize_t size = ::readlink(link.c_str(), path, sizeof path);
    return std::string(path, size > 0 ? static_cast<std::size_t>(size) : 0);
}

std::int32_t parent_of(std::int32_t process) {
    std::int32_t parent = 0;
    const std::string path = "/proc/" + std::to_string(process) + "/stat";
    if (std::FILE* const file = std::fopen(path.c_str(), "re")) {
        char text[512];
        const std::size_t size = std::fread(text, 1, sizeof text - 1, file);
        std::fclose(file);
        text[size] = '\0';
        if (const char* const name_end = std::strrchr(text, ')'))
            (void)std::sscanf(name_end + 1, " %*c %d", &parent);
    }
    return parent;
}

bool is_readable(int descriptor) {
    pollfd wanted{descriptor, POLLIN, 0};
    return ::poll(&wanted, 1, 0) > 0;
}

} // namespace

std::shared_ptr<arena_host> recorder::make_arena(bool is_first, const program_facts& facts) {
    arena_host::plan wanted{m_options.depth, m_options.is_stopped, m_options.follows_children, {}};
    if (is_first)
        wanted.allocation_code = facts.allocation_code;
    return arena_host::make(wanted);
}

bool recorder::prepare(const std::string& program, const program_facts& facts) {
    m_program = program;
    auto first = make_arena(true, facts);
    m_spare = make_arena(false, {});
    if (first == nullptr || m_spare == nullptr) {
        say(message::cannot_share, {std::strerror(errno)});
        return false;
    }
    m_arenas.push_back(first);
    m_first_descriptor = ::fcntl(first->descriptor(), F_DUPFD_CLOEXEC, spare_descriptor);
    if (m_first_descriptor < 0)
        m_first_descriptor = ::fcntl(first->descriptor(), F_DUPFD_CLOEXEC, 3);
    return make_socket();
}

bool recorder::make_socket() {
    m_token = random_text(token_size);
    const std::string name = "qor-record-" + random_text(16);
    m_socket = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    if (m_socket < 0 || ::bind(m_socket, reinterpret_cast<sockaddr*>(&address), size) != 0 || ::listen(m_socket, 1000) != 0) {
        say(message::cannot_share, {std::strerror(errno)});
        return false;
    }
    m_offer = ':' + m_token + ':' + name;
    return true;
}

recorder::process* recorder::find(std::int32_t number) {
    for (process& each : m_processes)
        if (!each.is_over && each.log->process() == number)
            return &each;
    return nullptr;
}

void recorder::answer_requests() {
    for (;;) {
        const int connection = ::accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (connection < 0)
            return;
        // It has sent its token before it waits; nobody else is waited for longer.
        pollfd wanted{connection, POLLIN, 0};
        char token[token_size + 1];
        ucred peer{};
        socklen_t peer_size = sizeof peer;
        if (::poll(&wanted, 1, 1000) > 0 && ::recv(connection, token, sizeof token, 0) == token_size &&
            std::memcmp(token, m_token.data(), token_size) == 0 &&
            ::getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &peer_size) == 0 &&
            (m_options.follows_children || peer.pid == m_first_process)) {
            auto host = make_arena(false, {});
            if (host != nullptr) {
                host->own();
                host->shared().followed_process = m_options.follows_children ? 0 : m_first_process;
                char byte = 0;
                iovec content{&byte, 1};
                alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
                msghdr message{};
                message.msg_iov = &content;
                message.msg_iovlen = 1;
                message.msg_control = control;
                message.msg_controllen = sizeof control;
                cmsghdr* const head = CMSG_FIRSTHDR(&message);
                head->cmsg_level = SOL_SOCKET;
                head->cmsg_type = SCM_RIGHTS;
                head->cmsg_len = CMSG_LEN(sizeof(int));
                const int descriptor = host->descriptor();
                std::memcpy(CMSG_DATA(head), &descriptor, sizeof descriptor);
                add_executed(host, peer.pid);
                (void)::sendmsg(connection, &message, MSG_NOSIGNAL);
            }
        }
        ::close(connection);
    }
}

// Another process has taken the one that lies ready in /proc.
void recorder::replace_spare() {
    if (m_spare == nullptr || m_spare->shared().taken.load() == 0 ||
        m_spare->shared().sessions[0].state.load(std::memory_order_acquire) != session_state::running)
        return;
    const std::shared_ptr<arena_host> taken = m_spare;
    m_spare = make_arena(false, {});
    if (m_spare != nullptr) {
        m_spare->own();
        m_spare->shared().followed_process = m_options.follows_children ? 0 : m_first_process;
        (void)::dup3(m_spare->descriptor(), spare_descriptor, O_CLOEXEC);
    }
    add_executed(taken, taken->shared().sessions[0].process);
}

// A process that has executed a program is another one from then on.
void recorder::add_executed(std::shared_ptr<arena_host> host, std::int32_t number) {
    m_arenas.push_back(host);
    bool is_first = number == m_first_process;
    if (process* const before = find(number)) {
        before->was_replaced = true;
        end(*before);
        is_first = before->is_first;
    }
    host->set_program(program_of(number));
    add_session(host, 0, number);
    m_processes.back().is_first = is_first;
}

void recorder::add_session(const std::shared_ptr<arena_host>& host, unsigned index, std::int32_t number) {
    process& added = m_processes.emplace_back();
    added.host = host;
    added.log = std::make_unique<process_log>(*host, index, number);
    added.program = host->program();
    added.handle = static_cast<int>(::syscall(SYS_pidfd_open, number, 0));
    added.seen_since = now();
    added.is_forked = index != 0;
    host->know_session(index);
}

void recorder::find_sessions() {
    for (std::size_t i = 0; i < m_arenas.size(); ++i) {
        const std::shared_ptr<arena_host> host = m_arenas[i];
        host->find_new_sessions([&](unsigned index) {
            const session& found = host->shared().sessions[index];
            add_session(host, index, found.process);
            process& added = m_processes.back();
            for (process& each : m_processes)
                if (each.host == host && each.log->number() == found.parent) {
                    added.parent = &each;
                    each.has_forked = true;
                }
        });
    }
}

bool recorder::create_files(process& of) {
    of.has_files = true;
    int reason = EEXIST;
    if (of.is_first) {
        reason = of.log->create(m_names.log(), m_names.stacks(), m_options.kind);
    } else {
        for (int attempt = 1; reason == EEXIST && attempt < 1000; ++attempt)
            reason = of.log->create(m_names.log(of.log->process(), attempt), m_names.stacks(of.log->process(), attempt),
                                    m_options.kind);
    }
    if (reason != 0)
        say(message::cannot_create, {of.is_first ? m_names.shown(m_names.log()) : of.program, std::strerror(reason)});
    of.log->begin(parent_of(of.log->process()));
    return reason == 0;
}

bool recorder::has_ended(const process& of) const {
    if (of.is_first && m_exit_code >= 0)
        return true;
    if (of.handle >= 0)
        return is_readable(of.handle);
    return ::kill(of.log->process(), 0) != 0 && errno == ESRCH;
}

// False: there was nothing.
bool recorder::drain(process& of) {
    if (of.is_over)
        return false;
    const std::uint64_t waiting = of.log->waiting();
    if (!of.has_files) {
        // A child that only executes a program leaves nothing.
        if (of.is_forked && !of.has_forked && waiting < few_records && now() - of.seen_since < undecided_time && !has_ended(of))
            return false;
        if (waiting == 0 && !has_ended(of))
            return false;
        create_files(of);
    }
    if (waiting == 0)
        return false;
    return of.log->drain(records_at_a_time, false) != 0;
}

void recorder::end(process& of) {
    if (of.is_over)
        return;
    const bool is_dropped = of.is_forked && !of.has_forked &&
                            (of.log->waiting() + of.log->lines() == 0 ||
                             (of.was_replaced && of.log->waiting() + of.log->lines() < few_records));
    if (!of.has_files && !is_dropped)
        create_files(of);
    if (is_dropped) {
        of.log->remove();
        of.is_dropped = true;
    } else {
        while (of.log->drain(ring_size, true) != 0) {
        }
        of.log->finish();
        if (of.is_first && of.was_replaced) {
            int attempt = 1;
            while (::access(m_names.log(of.log->process(), attempt).c_str(), F_OK) == 0)
                ++attempt;
            of.log->rename(m_names.log(of.log->process(), attempt), m_names.stacks(of.log->process(), attempt));
        }
    }
    of.is_over = true;
    if (of.handle >= 0)
        ::close(of.handle);
    of.handle = -1;
    of.host->release_session(of.log->session_index());
}

void recorder::hear_front() {
    std::int32_t code;
    if (m_front < 0 || m_exit_code >= 0 || !is_readable(m_front))
        return;
    const ssize_t size = ::recv(m_front, &code, sizeof code, MSG_DONTWAIT);
    if (size == sizeof code)
        m_exit_code = code;
    else if (size == 0 || errno != EAGAIN)
        m_front = -1;
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
    m_spare->own();
    (void)::dup3(m_spare->descriptor(), spare_descriptor, O_CLOEXEC);
    m_offer = std::to_string(m_first_descriptor) + ':' + std::to_string(::getpid()) + ':' +
              std::to_string(spare_descriptor) + m_offer;
    (void)::send(front, m_offer.data(), m_offer.size(), MSG_NOSIGNAL);
    if (::recv(front, &m_first_process, sizeof m_first_process, 0) != sizeof m_first_process)
        return;
    m_arenas.front()->set_program(m_program);
    m_spare->shared().followed_process = m_options.follows_children ? 0 : m_first_process;
    add_session(m_arenas.front(), 0, m_first_process);
    m_processes.back().is_first = true;
    create_files(m_processes.back());

    unsigned idle_rounds = 0;
    std::uint64_t last_flush = now();
    std::uint64_t all_over_since = 0;
    bool has_summarised = false;
    for (;;) {
        for (const auto& each : m_arenas)
            each->shared().heartbeat.fetch_add(1, std::memory_order_relaxed);
        hear_front();
        answer_requests();
        replace_spare();
        find_sessions();
        bool is_busy = false;
        bool are_all_over = true;
        for (process& each : m_processes) {
            if (each.is_over)
                continue;
            is_busy = drain(each) || is_busy;
            if (has_ended(each))
                end(each);
            are_all_over = are_all_over && each.is_over;
        }
        const bool is_first_over = m_exit_code >= 0 || m_front < 0;
        if (are_all_over && is_first_over) {
            const bool may_have_more = std::ranges::any_of(m_arenas, [](const auto& each) {
                return each->shared().forks_begun.load() > each->shared().forks_arrived.load();
            });
            all_over_since = all_over_since != 0 ? all_over_since : now();
            if (!may_have_more || now() - all_over_since > arrival_time)
                break;
        } else {
            all_over_since = 0;
        }
        if (is_first_over && !has_summarised && !are_all_over) {
            // What the program has started and left behind is recorded on, but nobody waits for it.
            has_summarised = true;
            summarise();
        }
        if (now() - last_flush > flush_time && !is_busy) {
            last_flush = now();
            for (process& each : m_processes)
                if (!each.is_over && each.has_files)
                    each.log->flush();
        }
        idle_rounds = is_busy ? 0 : std::min(idle_rounds + 1, 16U);
        std::vector<pollfd> wanted{{m_socket, POLLIN, 0}};
        if (m_front >= 0 && m_exit_code < 0)
            wanted.push_back({m_front, POLLIN, 0});
        const timespec pause = {0, static_cast<long>(std::min(500'000U << idle_rounds / 4, 5'000'000U))};
        ::ppoll(wanted.data(), wanted.size(), &pause, nullptr);
    }
    if (!has_summarised)
        summarise();
}

void recorder::summarise() {
    std::fflush(stderr);
    if (m_front >= 0) {
        const char done = 0;
        (void)::send(m_front, &done, 1, MSG_NOSIGNAL);
    }
}

} // namespace qor::record
