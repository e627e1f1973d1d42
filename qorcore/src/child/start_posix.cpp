// The child shares the memory of the own process until it executes the program, and the thread that starts it waits
// meanwhile: so the start takes as long in a process with much memory as in a small one. The child has a stack of its
// own, all signals are blocked in it, and it makes nothing but system calls.
#include "child/start_posix.h"

#include "platform/uninterrupted_posix.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

bool qor::child::s_uses_pidfd = true;

namespace {

using qor::child::start_plan;
using qor::child::start_result;
using qor::child::start_step;

// The sanitizers' own memory describes one process; with them the child gets a copy of it.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int shared_memory = 0;
#else
constexpr int shared_memory = CLONE_VM;
#endif

constexpr std::size_t stack_size = 64 * 1024;

// In memory that both processes share, at the end of the child's stack.
struct report {
    start_plan* plan;
    start_step step;
    int code;
    int descriptor;
};

[[noreturn]] void give_up(report& to, start_step step, int code, int descriptor = -1) noexcept {
    to.step = step;
    to.descriptor = descriptor;
    to.code = code;
    _exit(127);
}

// No handler of the own process may run here. What it ignores stays ignored, but for two signals whose default
// programs rely on.
void set_signals() noexcept {
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction action;
        if (sigaction(number, nullptr, &action) != 0 || action.sa_handler == SIG_DFL)
            continue;
        if (action.sa_handler == SIG_IGN && number != SIGPIPE && number != SIGCHLD)
            continue;
        action = {};
        action.sa_handler = SIG_DFL;
        sigaction(number, &action, nullptr);
    }
}

// For kernels and filters without close_range: what /proc lists. Without that, all numbers that are possible.
void close_one_by_one(unsigned first, unsigned last) noexcept {
    const int folder = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        const auto end = static_cast<unsigned>(std::min<rlim_t>(limit.rlim_cur, 1u << 20));
        for (unsigned i = first; i <= last && i < end; ++i)
            close(static_cast<int>(i));
        return;
    }
    alignas(dirent64) char entries[2048];
    for (bool has_closed = true; has_closed;) {
        // The list is read again until it holds nothing to close, because it changes under the reader.
        has_closed = false;
        lseek(folder, 0, SEEK_SET);
        for (ssize_t got; (got = getdents64(folder, entries, sizeof entries)) > 0;)
            for (ssize_t at = 0; at < got;) {
                const auto* const entry = reinterpret_cast<const dirent64*>(entries + at);
                at += entry->d_reclen;
                unsigned number = 0;
                const char* digit = entry->d_name;
                for (; *digit >= '0' && *digit <= '9'; ++digit)
                    number = number * 10 + static_cast<unsigned>(*digit - '0');
                if (*digit == '\0' && number >= first && number <= last && number != static_cast<unsigned>(folder))
                    has_closed = close(static_cast<int>(number)) == 0 || has_closed;
            }
    }
    close(folder);
}

void close_between(unsigned first, unsigned last) noexcept {
    if (first <= last && close_range(first, last, 0) != 0)
        close_one_by_one(first, last);
}

// First all are moved out of the way, because one's new number may be another's old one.
void pass_descriptors(start_plan& plan, report& to) noexcept {
    const int above = std::max(plan.descriptors.empty() ? 0 : plan.descriptors.back().in_child + 1, 3);
    for (auto& each : plan.descriptors) {
        if (each.own == each.in_child)
            continue;
        each.moved = fcntl(each.own, F_DUPFD_CLOEXEC, above);
        if (each.moved < 0)
            give_up(to, start_step::descriptors, errno, each.in_child);
    }
    unsigned next = 0;
    for (const auto& each : plan.descriptors) {
        const int result = each.own == each.in_child
                               ? fcntl(each.own, F_SETFD, 0)
                               : qor::platform::uninterrupted([&] { return dup2(each.moved, each.in_child); });
        if (result < 0)
            give_up(to, start_step::descriptors, errno, each.in_child);
        const auto number = static_cast<unsigned>(each.in_child);
        if (number > next)
            close_between(next, number - 1);
        next = number + 1;
    }
    close_between(next, UINT_MAX);
}

// Tries the files one after the other, like execvp, and tells about one that exists rather than about one that is
// missing.
int execute(const start_plan& plan) noexcept {
    int code = ENOENT;
    for (char* const file : plan.files) {
        if (file == nullptr)
            break;
        execve(file, plan.arguments.data(), plan.environment.data());
        switch (errno) {
        case ENOENT:
        case ENOTDIR:
        case ENODEV:
        case ESTALE:
        case ETIMEDOUT:
            break;
        case EACCES:
            code = EACCES;
            break;
        default:
            return errno;
        }
    }
    return code;
}

int child_main(void* given) {
    report& to = *static_cast<report*>(given);
    start_plan& plan = *to.plan;
    set_signals();
    if (plan.own_group && setpgid(0, 0) != 0)
        give_up(to, start_step::group, errno);
    if (plan.sets_umask)
        umask(plan.umask);
    pass_descriptors(plan, to);
    if (plan.folder != nullptr && chdir(plan.folder) != 0)
        give_up(to, start_step::folder, errno);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    give_up(to, start_step::program, execute(plan));
}

} // namespace

qor::child::start_result qor::child::start_program(start_plan& plan) noexcept {
    start_result result;
    void* const room = mmap(nullptr, stack_size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (room == MAP_FAILED) {
        result.code = errno;
        return result;
    }
    auto* const told = reinterpret_cast<report*>(static_cast<char*>(room) + stack_size) - 1;
    *told = {&plan, start_step::process, 0, -1};
    void* const stack = reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(told) & ~std::uintptr_t{63});

    // A cancellation in the shared memory would unwind this thread's stack.
    int cancellation;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancellation);
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    // Without a signal for its end: if the program cannot be executed, the host hears nothing of the attempt. From the
    // execution on, the kernel sends SIGCHLD as for every child.
    int pidfd = -1;
    result.process =
        clone(child_main, stack, shared_memory | CLONE_VFORK | (s_uses_pidfd ? CLONE_PIDFD : 0), told, &pidfd);
    const int code = errno;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_setcancelstate(cancellation, &cancellation);

    if (result.process < 0) {
        result.code = code;
    } else if (told->code != 0) {
        result.code = told->code;
        result.step = told->step;
        result.descriptor = told->descriptor;
        platform::uninterrupted([&] { return waitpid(result.process, nullptr, __WALL); });
        if (pidfd >= 0)
            close(pidfd);
        result.process = -1;
    } else {
        result.pidfd = pidfd;
    }
    munmap(room, stack_size);
    return result;
}
