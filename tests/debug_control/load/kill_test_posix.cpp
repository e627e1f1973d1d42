// Loss of a connection because the other process is killed without a chance to say anything.
#include "loopback.h"
#include "support/load.h"

#include <csignal>
#include <iostream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace qor::test;

// A copy of this process that listens; made while this process has no threads.
class listening_child {
public:
    explicit listening_child(const std::string& users) {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        m_child = fork();
        if (m_child == 0) {
            zetSmartPointer<IQORDebugListener> listener;
            uint16 port = 0;
            if (!create_debug_listener(listener.Out()) || !listener->Listen("127.0.0.1:0", users.c_str(), &port) ||
                write(ends[1], &port, sizeof port) != sizeof port)
                _exit(1);
            for (;;)
                pause();
        }
        close(ends[1]);
        EXPECT_EQ(read(ends[0], &m_port, sizeof m_port), static_cast<ssize_t>(sizeof m_port));
        close(ends[0]);
    }
    listening_child(const listening_child&) = delete;
    listening_child& operator=(const listening_child&) = delete;
    ~listening_child() { kill_it(); }

    uint16 port() const { return m_port; }

    void kill_it() {
        if (m_child > 0) {
            kill(m_child, SIGKILL);
            waitpid(m_child, nullptr, 0);
        }
        m_child = 0;
    }

private:
    pid_t m_child = 0;
    uint16 m_port = 0;
};

TEST(killed_listener, is_told_once) {
    const temp_folder folder;
    const std::string users = private_file(folder, "users", plain_scram::account("ada", "secret"));
    const int rounds = load(20, 1000);
    int told = 0;
    std::chrono::steady_clock::duration longest{};
    for (int i = 0; i < rounds; ++i) {
        listening_child child(users);
        control_pointer control;
        // A port may come up again, with the same key: all copies use the key beside the accounts.
        ASSERT_TRUE(create_debug_control((folder / "known-hosts").c_str(), control.Out())) << last_error();
        ASSERT_TRUE(control->Connect("127.0.0.1", child.port())) << last_error();
        ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
        counting_sink sink;
        ASSERT_TRUE(control->SetSink(&sink));
        const auto begin = std::chrono::steady_clock::now();
        child.kill_it();
        sink.wait_for(1);
        longest = std::max(longest, std::chrono::steady_clock::now() - begin);
        EXPECT_FALSE(control->DisableAll());
        EXPECT_EQ(error_number(), qorError_debug_connection_lost);
        control.Empty();
        told += sink.count();
    }
    EXPECT_EQ(told, rounds);
    const long long milliseconds = std::chrono::ceil<std::chrono::milliseconds>(longest).count();
    EXPECT_TRUE(milliseconds <= 1000 || !whole_load()) << milliseconds;
    std::cout << "listeners killed: " << rounds << ", told: " << told << ", after " << milliseconds
              << " ms at most (at most 1000)\n";
}

} // namespace
