#include "host_process.h"

#include "support/scenes.h"

#include <dirent.h>
#include <malloc.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

// The sanitizers have their own allocator.
extern "C" [[gnu::weak]] std::size_t __sanitizer_get_current_allocated_bytes();

namespace {

using namespace qor::test;

long entries(const char* path) {
    long count = -2; // do not count "." and ".."
    DIR* const folder = opendir(path);
    while (readdir(folder) != nullptr)
        ++count;
    closedir(folder);
    return count;
}

long allocated() {
    if (__sanitizer_get_current_allocated_bytes != nullptr)
        return static_cast<long>(__sanitizer_get_current_allocated_bytes());
    const struct mallinfo2 info = mallinfo2();
    return static_cast<long>(info.uordblks + info.hblkhd);
}

long resident() {
    const std::string text = read_file("/proc/self/statm");
    return std::stol(text.substr(text.find(' '))) * sysconf(_SC_PAGESIZE);
}

// Sockets of the host itself, each with a byte to read.
class own_sockets {
public:
    static constexpr int pairs = 32;

    void open() {
        for (int i = 0; i < pairs; ++i) {
            int ends[2];
            if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0 || write(ends[0], "x", 1) != 1 ||
                write(ends[1], "x", 1) != 1)
                std::abort();
            m_all.insert(m_all.end(), {ends[0], ends[1]});
        }
    }

    long untouched() const {
        return std::count_if(m_all.begin(), m_all.end(), [](int each) {
            char bytes[2];
            return recv(each, bytes, 2, MSG_PEEK | MSG_DONTWAIT) == 1 && bytes[0] == 'x';
        });
    }

private:
    std::vector<int> m_all;
};

// Arguments: the file of accounts, and one for the trace. Answers each input byte with a line, and ends with its input.
const scene host{"debug_control_host", [](const words& arguments) {
                     // Enough trace codes to fill several pages.
                     for (int i = 0; i < 2000; ++i)
                         qorDebugAllocateCode(("host." + std::to_string(i) + std::string(200, 'x')).c_str());
                     zetSmartPointer<IQORDebugListener> listener;
                     uint16 port = 0;
                     const auto listen = [&] {
                         return create_debug_listener(listener.Out()) &&
                                listener->Listen("127.0.0.1:0", arguments[0].c_str(), &port);
                     };
                     if (!listen())
                         return 1;
                     own_sockets sockets;
                     std::setvbuf(stdout, nullptr, _IOLBF, 256);
                     for (int what; (what = std::getchar()) != EOF;)
                         if (what == 'p' || what == 'l') {
                             std::printf("%u\n", what == 'p' || listen() ? port : 0u);
                         } else if (what == 'c') {
                             if (std::freopen(arguments[1].c_str(), "w", stderr) == nullptr)
                                 return 1;
                             qorDebugEnableCode("system.debug-control", true);
                             closefrom(3);
                             sockets.open();
                             std::puts("done");
                         } else if (what == 'u') {
                             std::printf("%ld\n", sockets.untouched());
                         } else if (what == 'r') {
                             listener.Empty();
                             std::puts("done");
                         } else {
                             const holdings now = measure_this_process();
                             std::printf("%ld %ld %ld %ld\n", now.heap, now.resident, now.descriptors, now.threads);
                         }
                     return 0;
                 }};

} // namespace

qor::test::holdings qor::test::measure_this_process() {
    return {allocated(), resident(), entries("/proc/self/fd"), entries("/proc/self/task")};
}

qor::test::host_process::host_process(const std::string& more_accounts) {
    const std::string users =
        private_file(m_folder, "users",
                     plain_scram::account("ada", "secret") + plain_scram::account("bob", "other") + more_accounts);
    int in[2], out[2];
    EXPECT_EQ(pipe2(in, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    words all = command(host, {users, trace_path()});
    std::vector<char*> pointers;
    for (std::string& each : all)
        pointers.push_back(each.data());
    pointers.push_back(nullptr);
    EXPECT_EQ(posix_spawn(&m_process, pointers[0], &actions, nullptr, pointers.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    m_in = in[1];
    m_out = out[0];
    m_port = static_cast<uint16>(std::atoi(ask('p').c_str()));
    EXPECT_NE(m_port, 0);
}

qor::test::host_process::~host_process() {
    ::close(m_in);
    ::close(m_out);
    int status = 0;
    while (waitpid(m_process, &status, 0) < 0 && errno == EINTR) {
    }
    EXPECT_EQ(status, 0);
}

std::string qor::test::host_process::ask(char what) {
    std::string line;
    EXPECT_EQ(write(m_in, &what, 1), 1);
    for (char c; read(m_out, &c, 1) == 1 && c != '\n';)
        line += c;
    return line;
}

qor::test::holdings qor::test::host_process::measure() {
    holdings now;
    const std::string line = ask('m');
    EXPECT_EQ(std::sscanf(line.c_str(), "%ld %ld %ld %ld", &now.heap, &now.resident, &now.descriptors, &now.threads), 4)
        << line;
    return now;
}

qor::test::holdings qor::test::host_process::measure_at_rest(const holdings& before) {
    holdings now = measure();
    // Remaining connections are cut off after the time for a handshake at the latest.
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(15);
         now.descriptors > before.descriptors && std::chrono::steady_clock::now() < end; now = measure())
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return now;
}
