// Signals and their effect on a whole process: each scene is a separate process.
#include "qor/qor.h"
#include "support/scenes.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <functional>
#include <mutex>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using qor::test::ending;
using qor::test::play;
using qor::test::scene;
using qor::test::words;

constexpr int numbers[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// Records its calls, in ways that only an ordinary thread may use.
class recorder : public IQORSignalHandler {
public:
    explicit recorder(std::function<void(qorSignal)> act = {}) : m_act(std::move(act)) {}
    virtual ~recorder() = default;

    void AddRef() noexcept override { ++m_references; }
    void Release() noexcept override { --m_references; }
    int QueryInterface(const char*, void**) noexcept override { return 0; }

    void Signal(qorSignal signal) noexcept override {
        if (m_act)
            m_act(signal);
        const std::lock_guard hold(m_lock);
        qorString text;
        text.Printf("%u %s", static_cast<unsigned>(signal), std::string(2000, 'x').c_str());
        m_signals.push_back(signal);
        m_changed.notify_all();
    }

    // Returns false if the signals did not come in time.
    bool wait_for(std::size_t count) {
        std::unique_lock hold(m_lock);
        return m_changed.wait_for(hold, std::chrono::seconds(20), [&] { return m_signals.size() >= count; });
    }

    std::vector<qorSignal> signals() {
        const std::lock_guard hold(m_lock);
        return m_signals;
    }

    int references() const { return m_references; }

private:
    const std::function<void(qorSignal)> m_act;
    std::atomic<int> m_references{0};
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::vector<qorSignal> m_signals;
};

void pause_for(int milliseconds) { std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds)); }

void (*disposition(int number))(int) {
    struct sigaction now {};
    sigaction(number, nullptr, &now);
    return now.sa_handler;
}

// Runs `act` in a child and returns its exit code, or 128 plus the signal that ended it.
int in_child(const std::function<int()>& act) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(20); // SIGALRM ends a child that hangs
        _exit(act());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void expect_success(const scene& which, const words& arguments = {}) {
    const ending ended = play(which, arguments);
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
}

} // namespace

// ---------------------------------------------------------------- delivery

namespace {

// The interrupted thread holds the lock that the handler needs. A handler that ran inside the interruption would wait
// forever.
int act_not_inside_the_interruption(const words&) {
    std::mutex lock;
    recorder handler([&lock](qorSignal) { const std::lock_guard hold(lock); });
    EXPECT_TRUE(qorSetSignalHandler(&handler));
    {
        const std::lock_guard hold(lock);
        raise(SIGINT);
        pause_for(20);
        EXPECT_EQ(handler.signals().size(), 0u);
    }
    EXPECT_TRUE(handler.wait_for(1));
    EXPECT_TRUE(qorSetSignalHandler(nullptr));
    return 0;
}
const scene not_inside_the_interruption{"signals_not_inside", act_not_inside_the_interruption};

// raise() returns after the signal has been delivered, so no two of them are merged.
int act_bursts(const words&) {
    recorder handler([](qorSignal) { pause_for(1); });
    EXPECT_TRUE(qorSetSignalHandler(&handler));
    for (int round = 0; round < 100; ++round)
        for (const int number : numbers)
            raise(number);
    EXPECT_TRUE(handler.wait_for(400));
    pause_for(20);
    const std::vector<qorSignal> got = handler.signals();
    EXPECT_EQ(got.size(), 400u);
    for (const qorSignal kind : {qorSignal::interrupt, qorSignal::terminate, qorSignal::hangup, qorSignal::quit})
        EXPECT_EQ(std::count(got.begin(), got.end(), kind), 100);
    EXPECT_TRUE(qorSetSignalHandler(nullptr));
    return 0;
}
const scene bursts{"signals_bursts", act_bursts};

int act_system_calls(const words&) {
    recorder handler;
    EXPECT_TRUE(qorSetSignalHandler(&handler));
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pthread_t me = pthread_self();
    std::thread sender([me, &ends] {
        pause_for(20);
        pthread_kill(me, SIGINT);
        pause_for(20);
        EXPECT_EQ(write(ends[1], "x", 1), 1);
    });
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
    sender.join();
    errno = ENOENT;
    raise(SIGINT);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(handler.wait_for(2));
    EXPECT_TRUE(qorSetSignalHandler(nullptr));
    return 0;
}
const scene system_calls{"signals_system_calls", act_system_calls};

} // namespace

TEST(signals_of_a_process, come_outside_the_interruption) { expect_success(not_inside_the_interruption); }
TEST(signals_of_a_process, of_a_burst_none_is_lost) { expect_success(bursts); }
TEST(signals_of_a_process, do_not_disturb_system_calls) { expect_success(system_calls); }

// ---------------------------------------------------------------- removal and replacement

namespace {

// Releases its last reference slowly, so that a later access to the handler would be detected.
class slow_release : public recorder {
public:
    using recorder::recorder;
    void Release() noexcept override {
        pause_for(20);
        recorder::Release();
    }
};

int act_removal_is_the_end(const words&) {
    for (int round = 0; round < 5; ++round) {
        std::atomic<bool> inside{false};
        slow_release handler([&](qorSignal) { inside = true; });
        EXPECT_TRUE(qorSetSignalHandler(&handler));
        raise(SIGINT);
        while (!inside)
            pause_for(1);
        EXPECT_TRUE(qorSetSignalHandler(nullptr));
        EXPECT_EQ(handler.references(), 0);
    }
    return 0;
}
const scene removal_is_the_end{"signals_removal_is_the_end", act_removal_is_the_end};

// While one handler replaces another, a signal must always find a handler.
int act_storm(const words&) {
    recorder always;
    EXPECT_TRUE(qorSetSignalHandler(&always));
    // The number of signals in a round is limited. Each round waits until all earlier signals have been delivered. With
    // a sender that is faster than the delivery, every round would otherwise take longer than the one before.
    constexpr int rounds = 300;
    constexpr int signals_per_round = 200;
    std::atomic<int> round{0};
    std::thread sender([&round] {
        for (int seen = 0, left = signals_per_round; seen < rounds;) {
            if (const int now = round; now != seen) {
                seen = now;
                left = signals_per_round;
            }
            if (left == 0)
                std::this_thread::yield();
            else if (kill(getpid(), SIGTERM) == 0)
                --left;
        }
    });
    for (; round < rounds; ++round) {
        recorder handler;
        EXPECT_TRUE(qorSetSignalHandler(&handler));
        EXPECT_TRUE(qorSetSignalHandler(&always));
        EXPECT_EQ(handler.references(), 0);
    }
    sender.join();
    EXPECT_TRUE(qorSetSignalHandler(nullptr));
    return 0;
}
const scene storm{"signals_storm", act_storm};

} // namespace

namespace {

constexpr std::size_t many = 300;

void raise_many() {
    for (std::size_t i = 0; i < many; ++i)
        raise(SIGTERM);
}

int act_taken_away_at_once(const words&) {
    recorder handler;
    EXPECT_TRUE(qorSetSignalHandler(&handler));
    raise_many();
    EXPECT_TRUE(qorSetSignalHandler(nullptr));
    EXPECT_EQ(handler.signals().size(), many);
    EXPECT_EQ(handler.references(), 0);
    return 0;
}
const scene taken_away_at_once{"signals_taken_away_at_once", act_taken_away_at_once};

int act_replaced_at_once(const words&) {
    recorder first;
    recorder second;
    EXPECT_TRUE(qorSetSignalHandler(&first));
    raise_many();
    EXPECT_TRUE(qorSetSignalHandler(&second));
    EXPECT_EQ(first.signals().size(), many);
    EXPECT_EQ(first.references(), 0);
    EXPECT_EQ(second.signals().size(), 0u);
    raise_many();
    EXPECT_TRUE(qorSetSignalHandler(nullptr));
    EXPECT_EQ(first.signals().size(), many);
    EXPECT_EQ(second.signals().size(), many);
    return 0;
}
const scene replaced_at_once{"signals_replaced_at_once", act_replaced_at_once};

int act_takes_itself_away(const words& arguments) {
    std::atomic<bool> all_raised{false};
    std::atomic<bool> has_left{false};
    recorder next;
    recorder handler([&](qorSignal) {
        while (!all_raised)
            pause_for(1);
        // Only at the first signal: the last ones may come when the replacing handler has gone too.
        if (!has_left.exchange(true)) {
            EXPECT_TRUE(qorSetSignalHandler(arguments[0] == "replaced" ? &next : nullptr));
        }
    });
    EXPECT_TRUE(qorSetSignalHandler(&handler));
    raise_many();
    all_raised = true;
    EXPECT_TRUE(handler.wait_for(1));
    EXPECT_TRUE(qorSetSignalHandler(nullptr));
    EXPECT_EQ(handler.signals().size(), many);
    EXPECT_EQ(handler.references(), 0);
    EXPECT_EQ(next.signals().size(), 0u);
    EXPECT_EQ(next.references(), 0);
    return 0;
}
const scene takes_itself_away{"signals_takes_itself_away", act_takes_itself_away};

std::atomic<unsigned> of_the_host{0};

// Handlers come and go while signals are raised one by one. Each signal goes to one of them or to the host.
int act_add_up(const words&) {
    std::signal(SIGTERM, [](int) { ++of_the_host; });
    constexpr unsigned all = 20000;
    std::atomic<bool> over{false};
    std::thread sender([&over] {
        for (unsigned i = 0; i < all; ++i)
            raise(SIGTERM);
        over = true;
    });
    std::size_t told = 0;
    while (!over) {
        recorder handler;
        EXPECT_TRUE(qorSetSignalHandler(&handler));
        EXPECT_TRUE(qorSetSignalHandler(nullptr));
        told += handler.signals().size();
    }
    sender.join();
    for (int rest = 1000; told + of_the_host < all && rest != 0; --rest)
        pause_for(10);
#if defined(__SANITIZE_THREAD__)
    // The sanitizer delays signals of the whole process, and so merges them.
    EXPECT_LE(told + of_the_host, all);
#else
    EXPECT_EQ(told + of_the_host, all);
#endif
    return 0;
}
const scene add_up{"signals_add_up", act_add_up};

// A host that saved our signal handling puts it back when no handler is set.
int act_put_back(const words&) {
    recorder handler;
    struct sigaction found {};
    EXPECT_TRUE(qorSetSignalHandler(&handler));
    sigaction(SIGTERM, nullptr, &found);
    EXPECT_TRUE(qorSetSignalHandler(nullptr));
    for (int round = 0; round < 2; ++round) {
        sigaction(SIGTERM, &found, nullptr);
        EXPECT_TRUE(qorSetSignalHandler(&handler));
        EXPECT_TRUE(qorSetSignalHandler(nullptr));
    }
    sigaction(SIGTERM, &found, nullptr);
    raise(SIGTERM);
    pause_for(20'000);
    return 0;
}
const scene put_back{"signals_put_back", act_put_back};

} // namespace

TEST(signals_of_a_process, taken_away_at_once_a_handler_has_got_all) { expect_success(taken_away_at_once); }
TEST(signals_of_a_process, replaced_at_once_each_handler_gets_its_own) { expect_success(replaced_at_once); }
TEST(signals_of_a_process, are_told_to_a_handler_that_takes_itself_away) {
    expect_success(takes_itself_away, {"removed"});
    expect_success(takes_itself_away, {"replaced"});
}
TEST(signals_of_a_process, add_up_while_handlers_come_and_go) { expect_success(add_up); }
TEST(signals_of_a_process, without_a_handler_do_what_they_did_before) { EXPECT_EQ(play(put_back).code, 128 + SIGTERM); }

TEST(signals_of_a_process, after_removal_nobody_touches_the_handler) { expect_success(removal_is_the_end); }
TEST(signals_of_a_process, handlers_are_replaced_in_a_storm) { expect_success(storm); }

// ---------------------------------------------------------------- the earlier handling of the process

namespace {

int act_given_back(const words& arguments) {
    recorder handler;
    EXPECT_TRUE(qorSetSignalHandler(&handler));
    EXPECT_TRUE(qorSetSignalHandler(nullptr));
    raise(std::stoi(arguments[0]));
    return 0;
}
const scene given_back{"signals_given_back", act_given_back};

int act_other_signals(const words&) {
    recorder handler;
    EXPECT_TRUE(qorSetSignalHandler(&handler));
    for (int number = 1; number < NSIG; ++number) {
        if (std::find(std::begin(numbers), std::end(numbers), number) == std::end(numbers) && number != SIGSEGV &&
            number != SIGBUS && number != SIGFPE && number != SIGILL && number != SIGABRT && number != SIGSYS) {
            EXPECT_TRUE(disposition(number) == SIG_DFL) << number;
        }
    }
    EXPECT_TRUE(qorSetSignalHandler(nullptr));
    return 0;
}
const scene other_signals{"signals_others", act_other_signals};

} // namespace

TEST(signals_of_a_process, of_other_kinds_are_left_alone) { expect_success(other_signals); }

TEST(signals_of_a_process, given_back_they_end_the_process) {
    for (const int number : numbers)
        EXPECT_EQ(play(given_back, {std::to_string(number)}).code, 128 + number);
}

// ---------------------------------------------------------------- forks

namespace {

int act_child_with_a_handler(const words& arguments) {
    recorder of_the_parent;
    EXPECT_TRUE(qorSetSignalHandler(&of_the_parent));
    // A thread that is still starting may hold a lock of the address sanitizer's allocator, which the child would
    // inherit.
    raise(SIGTERM);
    EXPECT_TRUE(of_the_parent.wait_for(1));
    pause_for(20);
    if (arguments[0] == "removed") {
        EXPECT_TRUE(qorSetSignalHandler(nullptr));
    }
    EXPECT_EQ(in_child([] {
                  recorder handler;
                  if (!qorSetSignalHandler(&handler))
                      return 1;
                  raise(SIGTERM);
                  if (!handler.wait_for(1))
                      return 2;
                  return qorSetSignalHandler(nullptr) && handler.references() == 0 ? 0 : 3;
              }),
              0);
    EXPECT_EQ(of_the_parent.signals().size(), 1u);
    EXPECT_TRUE(qorSetSignalHandler(nullptr));
    EXPECT_EQ(of_the_parent.references(), 0);
    return 0;
}
const scene child_with_a_handler{"signals_child_with_a_handler", act_child_with_a_handler};

int act_forked_during_a_call(const words&) {
    std::atomic<bool> inside{false};
    std::atomic<bool> go_on{false};
    recorder handler([&](qorSignal) {
        inside = true;
        while (!go_on)
            pause_for(1);
    });
    EXPECT_TRUE(qorSetSignalHandler(&handler));
    raise(SIGINT);
    while (!inside)
        pause_for(1);
    EXPECT_EQ(in_child([] {
                  qorCleanup();
                  return 0;
              }),
              0);
    go_on = true;
    EXPECT_TRUE(qorSetSignalHandler(nullptr));
    return 0;
}
const scene forked_during_a_call{"signals_forked_during_a_call", act_forked_during_a_call};

int act_forked_inside(const words&) {
    std::atomic<int> code{-1};
    recorder handler([&](qorSignal) {
        code = in_child([] {
            recorder another;
            if (!qorSetSignalHandler(&another))
                return 1;
            raise(SIGTERM);
            if (!another.wait_for(1))
                return 2;
            qorCleanup();
            return 0;
        });
    });
    EXPECT_TRUE(qorSetSignalHandler(&handler));
    raise(SIGINT);
    EXPECT_TRUE(handler.wait_for(1));
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(qorSetSignalHandler(nullptr));
    return 0;
}
const scene forked_inside{"signals_forked_inside", act_forked_inside};

} // namespace

// The thread sanitizer does not let a child of a multi-threaded process start a thread.
#if !defined(__SANITIZE_THREAD__)
TEST(signals_of_a_process, a_child_may_set_a_handler_of_its_own) {
    expect_success(child_with_a_handler, {"kept"});
    expect_success(child_with_a_handler, {"removed"});
}

TEST(signals_of_a_process, a_child_may_be_forked_inside_a_call) { expect_success(forked_inside); }
#endif

TEST(signals_of_a_process, a_child_that_is_forked_during_a_call_can_clean_up) { expect_success(forked_during_a_call); }
