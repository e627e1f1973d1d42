#include "platform/own_process.h"
#include "process/signals.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

struct caught_signal {
    int number;
    qorSignal meaning;
};

constexpr caught_signal signals[] = {
    {SIGINT, qorSignal::interrupt},
    {SIGTERM, qorSignal::terminate},
    {SIGHUP, qorSignal::hangup},
    {SIGQUIT, qorSignal::quit},
};
constexpr std::size_t signal_count = sizeof signals / sizeof *signals;

std::atomic<int> wake{-1};
static_assert(std::atomic<int>::is_always_lock_free);

struct sigaction previous[signal_count];
bool caught[signal_count];

// The signal thread blocks all signals. A child that is forked on it must not inherit this mask.
sigset_t mask_of_the_host;
thread_local bool is_signal_thread = false;

extern "C" void on_signal(int number) {
    const int saved = errno;
    for (const caught_signal& each : signals)
        if (each.number == number)
            qor::process::count_signal(each.meaning);
    errno = saved;
}

// The child has no signal thread, and its signals must not wake the parent's.
void after_fork_in_child() noexcept {
    qor::process::release_signals();
    close(wake.exchange(-1));
    qor::process::forget_signal_thread();
    if (is_signal_thread)
        pthread_sigmask(SIG_SETMASK, &mask_of_the_host, nullptr);
    is_signal_thread = false;
}

void (*run_of_signal_thread)() noexcept = nullptr;

void signal_thread() noexcept {
    is_signal_thread = true;
    run_of_signal_thread();
}

} // namespace

int qor::process::catch_signals() noexcept {
    for (std::size_t i = 0; i < signal_count; ++i) {
        if (sigaction(signals[i].number, nullptr, &previous[i]) != 0)
            return errno;
        // A host may have installed our handler again after we gave the signal back.
        if (previous[i].sa_handler == on_signal)
            previous[i].sa_handler = SIG_DFL;
        // A process that was started with nohup or in the background must keep ignoring the signal.
        if (previous[i].sa_handler == SIG_IGN)
            continue;
        struct sigaction action = {};
        action.sa_handler = on_signal;
        action.sa_flags = SA_RESTART;
        sigemptyset(&action.sa_mask);
        if (sigaction(signals[i].number, &action, nullptr) != 0)
            return errno;
        caught[i] = true;
    }
    return 0;
}

void qor::process::release_signals() noexcept {
    for (std::size_t i = 0; i < signal_count; ++i) {
        if (caught[i])
            sigaction(signals[i].number, &previous[i], nullptr);
        caught[i] = false;
    }
}

// The signal goes to the process, not to this thread: a host that waits for signals blocks them in all its threads,
// while this thread has a mask of its own.
void qor::process::raise_again(qorSignal signal) noexcept {
    for (std::size_t i = 0; i < signal_count; ++i) {
        if (signals[i].meaning != signal)
            continue;
        struct sigaction now;
        if (sigaction(signals[i].number, nullptr, &now) == 0 && now.sa_handler == on_signal)
            sigaction(signals[i].number, &previous[i], nullptr);
        kill(getpid(), signals[i].number);
    }
}

int qor::process::start_signal_thread(void (*run)() noexcept) noexcept {
    const int event = eventfd(0, EFD_CLOEXEC);
    if (event < 0)
        return errno;
    wake.store(event);
    pthread_sigmask(SIG_SETMASK, nullptr, &mask_of_the_host);
    run_of_signal_thread = run;
    const int failed = platform::start_thread(signal_thread);
    if (failed != 0) {
        close(event);
        return failed;
    }
    // Registered only once: a child that starts its own signal thread has inherited the registration.
    static const bool watching_forks = (platform::watch_forks(nullptr, nullptr, after_fork_in_child), true);
    (void)watching_forks;
    return 0;
}

void qor::process::wait_for_wake() noexcept {
    std::uint64_t woken;
    (void)!read(wake.load(), &woken, sizeof woken);
}

void qor::process::wake_signal_thread() noexcept {
    const std::uint64_t one = 1;
    // The write fails only if the counter is full, and then the thread is awake anyway.
    (void)!write(wake.load(), &one, sizeof one);
}
