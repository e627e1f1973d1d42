// Side effects that a listener must not have on its host process, with signals, forks and descriptors.
#include "loopback.h"
#include "support/platform.h"
#include "support/scenes.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <netinet/in.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace qor::test;

#ifdef __SANITIZE_THREAD__
constexpr bool no_threads_after_fork = true;
#else
constexpr bool no_threads_after_fork = false;
#endif

// Finds sockets by their names: another thread may close a descriptor meanwhile, so using it would be a race.
std::vector<int> open_sockets() {
    constexpr std::string_view beginning = "socket:";
    std::vector<int> all;
    DIR* const folder = opendir("/proc/self/fd");
    while (const dirent* const each = readdir(folder)) {
        char name[32];
        const ssize_t length = readlinkat(dirfd(folder), each->d_name, name, sizeof name);
        if (length > 0 && std::string_view(name, static_cast<std::size_t>(length)).starts_with(beginning))
            all.push_back(std::atoi(each->d_name));
    }
    closedir(folder);
    return all;
}

// Starts as the environment says, then runs another program in its place that does the same.
const scene listen_and_become_another{"debug_control_listen_and_become_another", [](const words&) {
                                          qorStringArray args;
                                          args.Append("program");
                                          EXPECT_TRUE(qorInitProcess("program", args, 0)) << last_error();
                                          const std::string self = this_program();
                                          execl(self.c_str(), self.c_str(), "--scene", "debug_control_listen", nullptr);
                                          return 1;
                                      }};

// Starts as the environment says, and starts another process with a different variable.
const scene listen_and_let_listen{
    "debug_control_listen_and_let_listen", [](const words&) {
        qorStringArray args;
        args.Append("program");
        EXPECT_TRUE(qorInitProcess("program", args, 0)) << last_error();
        setenv("QOR_DEBUG_LISTEN", "127.0.0.1:0", 1);
        EXPECT_EQ(std::system(('\'' + this_program() + "' --scene debug_control_listen").c_str()), 0);
        qorCleanup();
        return 0;
    }};

// The system's ids of the threads of this process, without the calling one.
std::vector<std::string> other_threads() {
    std::vector<std::string> all;
    for (const auto& each : std::filesystem::directory_iterator("/proc/self/task"))
        if (each.path().filename() != thread_id())
            all.push_back(each.path().filename());
    return all;
}

class hosts : public loopback_fixture {
protected:
    // Returns the exit code of a forked child. The other threads of this process are asleep at the fork: the address
    // sanitizer's allocator does not unlock in the child what another thread has locked.
    static int in_child(const std::function<int()>& act) {
        wait_until_asleep(other_threads(), 0);
        const pid_t child = fork();
        if (child == 0)
            _exit(act());
        int status = 0;
        while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
};

TEST_F(hosts, descriptors_are_for_no_other_program) {
    control_pointer control = connect();
    ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
    const std::vector<int> all = open_sockets();
    EXPECT_GE(all.size(), 6u);
    for (const int each : all)
        EXPECT_NE(fcntl(each, F_GETFD) & FD_CLOEXEC, 0) << each;
}

// The child has none of our sockets and releases both ends without harm; the parent continues.
TEST_F(hosts, a_forked_child_listens_no_more) {
    const std::size_t before = open_sockets().size();
    control_pointer control = connect();
    ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
    counting_sink sink;
    ASSERT_TRUE(control->SetSink(&sink));
    const int ended = in_child([&] {
        qorStringArray out;
        if (!open_sockets().empty() || control->GetCodes(out) || error_number() != qorError_debug_not_connected)
            return 1;
        control.Empty();
        listener.Empty();
        return 0;
    });
    EXPECT_EQ(ended, 0);
    EXPECT_TRUE(control->DisableAll()) << last_error();
    control.Empty();
    EXPECT_EQ(sink.count(), 0);
    // The listener's thread closes its end too.
    while (open_sockets().size() != before)
        std::this_thread::yield();
}

TEST_F(hosts, a_forked_child_may_listen_itself) {
    if (no_threads_after_fork)
        GTEST_SKIP() << "the thread sanitizer takes no thread that a forked child starts";
    const std::size_t before = open_sockets().size();
    const int ended = in_child([&] {
        listen(0);
        if (HasFailure() || open_sockets().size() != before)
            return 1;
        listener.Empty();
        return open_sockets().empty() ? 0 : 2;
    });
    EXPECT_EQ(ended, 0);
    control_pointer control = connect();
    EXPECT_TRUE(control->Login("ada", "secret")) << last_error();
}

// Writing to a closed peer would end the process by SIGPIPE.
TEST_F(hosts, no_signal_is_raised) {
    ASSERT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_DFL);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(port());
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int i = 0; i < 200; ++i) {
        const int peer = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(::connect(peer, reinterpret_cast<const sockaddr*>(&at), sizeof at), 0);
        // Text that is not TLS is answered with an alert; a peer that closes with unread input resets the connection.
        EXPECT_EQ(write(peer, "not TLS at all", 14), 14);
        const linger at_once{1, 0};
        setsockopt(peer, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        close(peer);
    }
    // Until the listener has noticed the last of them, it may have no room for another from this address.
    control_pointer control = make();
    while (!control->Connect("127.0.0.1", port()))
        ASSERT_EQ(error_number(), qorError_debug_busy) << last_error();
    EXPECT_TRUE(control->Login("ada", "secret")) << last_error();
}

// The threads must not take signals for which the host waits elsewhere.
TEST_F(hosts, the_threads_block_all_signals) {
    control_pointer control = connect();
    ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
    unsigned others = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string status = read_file(task.path() / "status");
        const std::size_t at = status.find("SigBlk:\t") + 8;
        const unsigned long long blocked = std::stoull(status.substr(at, 16), nullptr, 16);
        if (task.path().filename() == std::to_string(getpid()))
            continue;
        ++others;
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGALRM, SIGUSR1})
            EXPECT_NE(blocked >> (signal - 1) & 1, 0u) << signal;
    }
    EXPECT_GE(others, 2u);
}

TEST_F(hosts, others_may_not_read_the_key_and_the_known_hosts) {
    control_pointer control = connect();
    ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
    for (const std::string& path : {folder() / "users.key", folder() / "known-hosts"}) {
        struct stat status;
        ASSERT_EQ(stat(path.c_str(), &status), 0) << path;
        EXPECT_EQ(status.st_mode & 0777, 0600u) << path;
    }
}

// A process keeps its port as long as it lives, whichever program it runs; and a process that is told to listen does
// so.
TEST(debug_control_processes, listen_where_they_are_told_to) {
    const temp_folder folder;
    const std::string users = private_file(folder, "users", plain_scram::account("ada", "secret"));
    for (const scene* const each : {&listen_and_become_another, &listen_and_let_listen}) {
        const ending ended = play(*each, {},
                                  {"QOR_DEBUG_LISTEN=127.0.0.1:0", "QOR_DEBUG_USERS=" + users,
                                   "QOR_DEBUG=system.debug-control", "XDG_CONFIG_HOME=" + folder.path()});
        EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
        const std::string line = " listening on 127.0.0.1 port ";
        const std::size_t first = ended.err.find(line);
        EXPECT_NE(first, ended.err.npos) << ended.err;
        EXPECT_NE(ended.err.find(line, first + 1), ended.err.npos) << ended.err;
    }
}

} // namespace
