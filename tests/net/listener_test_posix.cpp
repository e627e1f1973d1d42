// Listeners under limits of descriptors, beside forks, and in a process that closes what it does not know.
#include "net/peer_test_support.h"
#include "support/last_error.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using qor::test::last_error;
using qor::test::peer;

constexpr qorIPPortOptions local = {.address = "127.0.0.1", .connections = 0, .connections_of_source = 0};

std::ptrdiff_t entries(const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
}
std::ptrdiff_t descriptors() { return entries("/proc/self/fd"); }
std::ptrdiff_t threads() { return entries("/proc/self/task"); }

// The thread of the listeners may be about to close its last connection.
bool settles_at(std::ptrdiff_t count) {
    for (int i = 0; i < 6000 && descriptors() != count; ++i)
        qorSleep(10);
    return descriptors() == count;
}

// The time that the process has used, in milliseconds.
double used_time() {
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    const auto of = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1000 + static_cast<double>(time.tv_usec) / 1000;
    };
    return of(used.ru_utime) + of(used.ru_stime);
}

const auto ignore = [](IQORIPConnection&) {};

// The first listener of a process starts the thread, whose descriptors stay.
void start_thread() {
    qorIPPortListener first;
    ASSERT_TRUE(first.Begin(local, ignore));
}

TEST(posix_listener, a_thousand_leave_descriptors_threads_and_memory_as_they_were) {
    start_thread();
    const std::ptrdiff_t descriptors_before = descriptors();
    const std::ptrdiff_t threads_before = threads();
    for (int i = 0; i < 1000; ++i) {
        qorIPPortListener listener;
        ASSERT_TRUE(listener.Begin(local, ignore)) << last_error();
        if (i % 10 == 0) {
            EXPECT_TRUE(peer(listener.Port()).is_ended());
        }
    }
    EXPECT_TRUE(settles_at(descriptors_before));
    EXPECT_EQ(threads(), threads_before);
}

TEST(posix_listener, a_thousand_are_open_at_once) {
    start_thread();
    const std::ptrdiff_t before = descriptors();
    {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        const std::size_t count = std::min<rlim_t>(1000, limit.rlim_cur - static_cast<rlim_t>(before) - 50);
        std::vector<std::unique_ptr<qorIPPortListener>> all(count);
        for (auto& each : all) {
            each = std::make_unique<qorIPPortListener>();
            ASSERT_TRUE(each->Begin(local, ignore)) << last_error();
        }
        for (const auto& each : all)
            EXPECT_TRUE(peer(each->Port()).is_ended());
    }
    EXPECT_TRUE(settles_at(before));
}

TEST(posix_listener, a_reset_by_the_peer_is_an_error_of_the_read) {
    zetSmartPointer<IQORIPConnection> connection;
    qorGate gate(false);
    qorIPPortListener listener;
    ASSERT_TRUE(listener.Begin(local, [&](IQORIPConnection& made) {
        made.AddRef();
        connection.AttachNew(&made);
        gate.Open();
    }));
    peer other(listener.Port());
    gate.Wait();
    const std::string where = "127.0.0.1 port " + std::to_string(other.port());
    other.reset();
    char byte;
    uint64 count = 0;
    EXPECT_FALSE(connection->Read(&byte, 1, 60'000, count));
    EXPECT_EQ(last_error(), "The connection with " + where + " failed: Connection reset by peer.");
}

TEST(posix_listener, another_source_gets_in_beside_a_flood) {
    qorIPPortOptions options = local;
    options.address = "0.0.0.0";
    options.connections_of_source = 2;
    std::atomic<int> welcome{0};
    std::vector<zetSmartPointer<IQORIPConnection>> kept; // on the framework's thread only
    qorIPPortListener listener;
    ASSERT_TRUE(listener.Begin(options, [&](IQORIPConnection& connection) {
        qorIPEndpoint from;
        connection.GetPeer(from);
        if (from.address.ipv4.bytes[3] == 9)
            ++welcome;
        connection.AddRef();
        kept.emplace_back().AttachNew(&connection);
    })) << last_error();
    std::atomic<bool> stop{false};
    std::thread flood([&] {
        while (!stop)
            peer(listener.Port()).reset(); // an orderly end would keep its port here for a minute
    });
    std::vector<peer> others;
    for (int i = 0; i < 2; ++i)
        others.emplace_back(listener.Port(), qorAddressFamily::ipv4, "127.0.0.9");
    while (welcome < 2)
        qorSleep(1);
    stop = true;
    flood.join();
    EXPECT_TRUE(listener.Close());
}

// Where UBSan checks the type of an object, it needs descriptors the first time. So objects and failures that a test
// has without descriptors appear once before.

TEST(posix_listener, without_descriptors_it_waits_and_loses_nobody) {
    std::atomic<int> calls{0};
    qorIPPortListener listener;
    ASSERT_TRUE(listener.Begin(local, [&](IQORIPConnection& connection) {
        ++calls;
        (void)connection.Write("at last");
    }));
    EXPECT_TRUE(listener.IsListening());
    EXPECT_EQ(listener.Counts().without_resource, 0u);
    // The peers have their sockets already, so only those of the listener are missing.
    std::vector<int> sockets(5);
    for (int& each : sockets)
        each = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const int next = dup(0);
    close(next);
    rlimit none = before;
    none.rlim_cur = static_cast<rlim_t>(next); // below the free number, and perhaps below some of the open ones
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    at.sin_port = htons(listener.Port());
    for (const int each : sockets)
        EXPECT_EQ(connect(each, reinterpret_cast<const sockaddr*>(&at), sizeof at), 0);
    const double used = used_time();
    const auto begin = std::chrono::steady_clock::now();
    while (listener.Counts().without_resource < 3)
        qorSleep(10);
    const auto took = std::chrono::steady_clock::now() - begin;
    // It pauses: in a busy loop there would be thousands, and the time would be the processor's.
    EXPECT_LE(listener.Counts().without_resource, 3 + static_cast<uint64>(took / std::chrono::milliseconds(100)));
    EXPECT_LT(used_time() - used, 300);
    EXPECT_EQ(calls, 0);
    EXPECT_TRUE(listener.IsListening());
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    for (const int each : sockets) {
        char text[8] = {};
        EXPECT_EQ(recv(each, text, 7, MSG_WAITALL), 7);
        EXPECT_STREQ(text, "at last");
        close(each);
    }
    while (calls != 5)
        qorSleep(1);
}

TEST(posix_listener, without_descriptors_there_is_no_new_one_and_the_error_says_so) {
    qorIPPortListener first;
    ASSERT_TRUE(first.Begin(local, ignore));
    qorIPPortListener second;
    EXPECT_FALSE(second.Begin({.address = "127.0.0.1", .port = first.Port()}, ignore));
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit none = before;
    none.rlim_cur = 0;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_FALSE(second.Begin(local, ignore));
    const std::string text = last_error();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(text, "Cannot listen at 127.0.0.1 port 0: Too many open files.");
    EXPECT_TRUE(peer(first.Port()).is_ended());
}

// The thread sanitizer has descriptors, too, that two threads use for different things.
#if !defined(__SANITIZE_THREAD__)
TEST(posix_listener, that_lost_its_socket_says_so_and_rests) {
    qorIPPortListener broken, whole;
    ASSERT_TRUE(broken.Begin(local, ignore));
    ASSERT_TRUE(whole.Begin(local, ignore));
    // As a program does that closes all descriptors which it does not know.
    for (int number = 3; number < 1024; ++number) {
        sockaddr_in at{};
        socklen_t size = sizeof at;
        if (getsockname(number, reinterpret_cast<sockaddr*>(&at), &size) == 0 && at.sin_family == AF_INET &&
            ntohs(at.sin_port) == broken.Port())
            close(number);
    }
    EXPECT_TRUE(peer(whole.Port()).is_ended()); // which wakes the thread
    while (broken.IsListening())
        EXPECT_TRUE(peer(whole.Port()).is_ended());
    const double used = used_time();
    qorSleep(200);
    EXPECT_LT(used_time() - used, 150);
    EXPECT_TRUE(broken.Close());
    EXPECT_TRUE(whole.IsListening());
}
#endif

#if !defined(__SANITIZE_THREAD__) // it takes a thread of a forked child for one of the parent's

// Ends the child with 0 if the condition holds.
template <class CHILD>
void expect_child(CHILD child) {
    const pid_t forked = fork();
    if (forked == 0)
        _exit(child() ? 0 : 1);
    int status = -1;
    waitpid(forked, &status, 0);
    EXPECT_EQ(status, 0);
}

bool serves() {
    qorIPPortListener listener;
    return listener.Begin(local, ignore) && peer(listener.Port()).is_ended() && listener.Close();
}

TEST(posix_listener, a_forked_child_has_none_and_makes_its_own) {
    zetSmartPointer<IQORIPConnection> connection;
    qorGate gate(false);
    qorIPPortListener listener;
    ASSERT_TRUE(listener.Begin(local, [&](IQORIPConnection& made) {
        made.AddRef();
        connection.AttachNew(&made);
        gate.Open();
    }));
    peer other(listener.Port());
    gate.Wait();
    expect_child([&] {
        char byte;
        uint64 count = 0;
        const bool is_refused = !connection->Read(&byte, 1, 1, count);
        const bool says_why = last_error().find("belongs to another process") != std::string::npos;
        connection->Close();
        return is_refused && says_why && !listener.IsListening() && !listener.Close() && serves();
    });
    EXPECT_TRUE(listener.IsListening());
    EXPECT_TRUE(connection->Write("not closed by the child"));
    EXPECT_EQ(other.receive(23), "not closed by the child");
}

TEST(posix_listener, a_child_keeps_neither_the_port_nor_the_connection) {
    zetSmartPointer<IQORIPConnection> connection;
    qorGate gate(false);
    qorIPPortListener listener;
    ASSERT_TRUE(listener.Begin(local, [&](IQORIPConnection& made) {
        made.AddRef();
        connection.AttachNew(&made);
        gate.Open();
    }));
    peer other(listener.Port());
    gate.Wait();
    int end[2];
    ASSERT_EQ(pipe2(end, O_CLOEXEC), 0);
    const pid_t child = fork();
    if (child == 0) {
        close(end[1]);
        char byte;
        _exit(read(end[0], &byte, 1) == 0 ? 0 : 1); // until the parent is through
    }
    qorIPPortOptions options = local;
    options.port = listener.Port();
    EXPECT_TRUE(listener.Close());
    EXPECT_TRUE(listener.Begin(options, ignore)) << last_error();
    connection->Close();
    EXPECT_TRUE(other.is_ended());
    close(end[0]);
    close(end[1]);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

#if !defined(__SANITIZE_ADDRESS__) // its allocator does not release its own locks in a child
TEST(posix_listener, forks_beside_connections_leave_both_processes_whole) {
    qorIPPortListener listener;
    ASSERT_TRUE(listener.Begin(local, ignore));
    std::atomic<bool> stop{false};
    std::vector<std::thread> callers;
    for (int i = 0; i < 2; ++i)
        callers.emplace_back([&] {
            while (!stop) {
                peer(listener.Port()).reset(); // an orderly end would keep its port for a minute
                qorIPPortListener another;
                EXPECT_TRUE(another.Begin(local, ignore));
            }
        });
    for (int i = 0; i < 50; ++i)
        expect_child(serves);
    stop = true;
    for (std::thread& each : callers)
        each.join();
}

TEST(posix_listener, a_target_may_fork) {
    qorGate gate(false);
    std::atomic<int> status{-1};
    qorIPPortListener listener;
    ASSERT_TRUE(listener.Begin(local, [&](IQORIPConnection&) {
        const pid_t child = fork();
        if (child == 0)
            return; // the thread ends there, and with it the process, which has no other
        int ended = -1;
        waitpid(child, &ended, 0);
        status = ended;
        gate.Open();
    }));
    peer other(listener.Port());
    gate.Wait();
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(other.is_ended());
}
#endif
#endif

} // namespace
