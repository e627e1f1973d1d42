// Threads: what the system shows of them, and forks.
#include "qor/qor.h"
#include "support/last_error.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string shown_name_of(const char* name) {
    std::string shown;
    zetSmartPointer<IQORThread> made;
    EXPECT_TRUE(
        qorBeginThread([&] { shown = qor::test::read_file("/proc/thread-self/comm"); }, made.Out(), {.name = name}));
    EXPECT_TRUE(qorWaitThread(*made));
    return shown;
}

TEST(posix_thread, has_the_name_that_the_system_shows) {
    EXPECT_EQ(shown_name_of("worker"), "worker\n");
    EXPECT_EQ(shown_name_of("a name that is too long"), "a name that is \n");
    EXPECT_EQ(shown_name_of("12345678901234\xc3\xa4"), "12345678901234\n"); // no half character
}

TEST(posix_thread, has_the_priority_that_was_wished) {
    const int here = getpriority(PRIO_PROCESS, 0);
    int there = 0;
    zetSmartPointer<IQORThread> made;
    ASSERT_TRUE(qorBeginThread([&] { there = getpriority(PRIO_PROCESS, 0); }, made.Out(),
                               {.priority = qorThreadPriority::low}));
    EXPECT_TRUE(qorWaitThread(*made));
    EXPECT_EQ(there, std::min(here + 5, 19));
    EXPECT_EQ(getpriority(PRIO_PROCESS, 0), here);
}

TEST(posix_thread, a_priority_without_the_right_is_an_error_of_the_start) {
    const pid_t child = fork();
    if (child == 0) {
        const rlimit none = {0, 0};
        bool is_right = setrlimit(RLIMIT_NICE, &none) == 0;
        if (geteuid() == 0)
            is_right = setresuid(65534, 65534, 65534) == 0 && is_right;
        bool has_run = false;
        zetSmartPointer<IQORThread> made;
        is_right = is_right && !qorBeginThread([&] { has_run = true; }, made.Out(),
                                               {.name = "fast", .priority = qorThreadPriority::high});
        is_right = is_right && !has_run && made.IsEmpty() &&
                   qor::test::last_error().starts_with("The thread 'fast' cannot be started: ");
        _exit(is_right ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST(posix_thread, is_not_cancelled) {
    qorGate is_known(false);
    pthread_t id{};
    zetSmartPointer<IQORThread> made;
    ASSERT_TRUE(qorBeginThread(
        [&] {
            id = pthread_self();
            is_known.Open();
            usleep(1000);
            pthread_testcancel();
            return 9u;
        },
        made.Out()));
    is_known.Wait();
    pthread_cancel(id);
    uint32 result = 0;
    EXPECT_TRUE(qorWaitThread(*made, 0, &result));
    EXPECT_EQ(result, 9u);
}

// The thread sanitizer takes a thread of the child for one of the parent's.
#if !defined(__SANITIZE_THREAD__)
TEST(posix_thread, does_not_exist_in_a_forked_child) {
    qorGate gate(false);
    zetSmartPointer<IQORThread> made;
    ASSERT_TRUE(qorBeginThread([&] { gate.Wait(); }, made.Out()));
    const pid_t child = fork();
    if (child == 0) {
        bool is_right = !made->IsRunning() && !qorWaitThread(*made);
        qorString text;
        is_right = is_right && qorGetLastError(text) == qorError_thread_of_another_process && qorDetachThread(*made);
        made.Empty();
        zetSmartPointer<IQORThread> other;
        is_right = is_right && qorBeginThread([] {}, other.Out()) && qorWaitThread(*other);
        _exit(is_right ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    gate.Open();
    EXPECT_TRUE(qorWaitThread(*made));
}
#endif

TEST(posix_thread, may_fork_itself) {
    int status = -1;
    zetSmartPointer<IQORThread> made;
    ASSERT_TRUE(qorBeginThread(
        [&] {
            const pid_t child = fork();
            if (child == 0)
                _exit(5);
            waitpid(child, &status, 0);
        },
        made.Out()));
    EXPECT_TRUE(qorWaitThread(*made));
    EXPECT_EQ(WEXITSTATUS(status), 5);
}

} // namespace
