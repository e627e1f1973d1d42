// Measures messages between processes beside a bare socket pair, with the other side in a process of its own:
// round trips of 64 bytes, 1 GiB in messages of 64 KiB, and the memory of idle connections.
//
//   ipc_bench [--brief]
//
// The rounds of both take turns; the figures are medians. The exit code is 1 if a limit is missed. A brief run fails by
// no figure.
#include "qor/qor.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr double round_trip_limit = 1.3; // of a socket pair's time
constexpr double throughput_limit = 0.8; // of a socket pair's throughput
constexpr std::size_t short_message = 64;
constexpr std::size_t long_message = 64 << 10;

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point begin) {
    return std::chrono::duration<double>(clock_type::now() - begin).count();
}

double median(std::vector<double> all) {
    std::nth_element(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(all.size() / 2), all.end());
    return all[all.size() / 2];
}

void must(bool is_done, const char* what) {
    if (is_done)
        return;
    std::fprintf(stderr, "%s: ", what);
    fputerr(stderr, true);
    std::_Exit(2);
}

// That of a process that serves.
zetSmartPointer<IQORIpcServer> s_server;

// A process that does something, and ends with this one.
class other_process {
public:
    explicit other_process(const std::function<void()>& run) {
        must(pipe(m_end) == 0, "pipe");
        m_process = fork();
        if (m_process == 0) {
            close(m_end[1]);
            run();
            char byte;
            (void)!read(m_end[0], &byte, 1);
            s_server.Empty(); // which removes its socket
            std::_Exit(0);
        }
        close(m_end[0]);
    }
    other_process(const other_process&) = delete;
    other_process& operator=(const other_process&) = delete;
    ~other_process() {
        close(m_end[1]);
        waitpid(m_process, nullptr, 0);
    }
    pid_t id() const { return m_process; }

private:
    int m_end[2];
    pid_t m_process;
};

void read_all(int file, char* to, std::size_t length) {
    while (length != 0) {
        const ssize_t got = read(file, to, length);
        if (got <= 0)
            std::_Exit(0);
        to += got;
        length -= static_cast<std::size_t>(got);
    }
}

void write_all(int file, const char* from, std::size_t length) {
    while (length != 0) {
        const ssize_t done = write(file, from, length);
        if (done <= 0)
            std::_Exit(0);
        from += done;
        length -= static_cast<std::size_t>(done);
    }
}

// ---- a bare socket pair, which waits in read and write

class bare {
public:
    // The other side sends what is short back, and answers the last of so many long messages with one byte.
    explicit bare(std::size_t length, std::size_t count) {
        must(socketpair(AF_UNIX, SOCK_STREAM, 0, m_ends) == 0, "socketpair");
        m_other = std::make_unique<other_process>([this, length, count] {
            close(m_ends[0]);
            std::vector<char> buffer(length);
            for (;;) {
                for (std::size_t i = 0; i < count; ++i)
                    read_all(m_ends[1], buffer.data(), length);
                write_all(m_ends[1], buffer.data(), count == 1 ? length : 1);
            }
        });
        close(m_ends[1]);
    }
    bare(const bare&) = delete;
    bare& operator=(const bare&) = delete;
    ~bare() { close(m_ends[0]); }

    double round_trips(std::size_t count) {
        char message[short_message] = {};
        const auto begin = clock_type::now();
        for (std::size_t i = 0; i < count; ++i) {
            write_all(m_ends[0], message, sizeof message);
            read_all(m_ends[0], message, sizeof message);
        }
        return seconds_since(begin) / static_cast<double>(count);
    }
    double transfer(std::size_t count) {
        const std::vector<char> message(long_message, 'x');
        char answer;
        const auto begin = clock_type::now();
        for (std::size_t i = 0; i < count; ++i)
            write_all(m_ends[0], message.data(), message.size());
        read_all(m_ends[0], &answer, 1);
        return static_cast<double>(count * long_message) / seconds_since(begin);
    }

private:
    int m_ends[2];
    std::unique_ptr<other_process> m_other;
};

// ---- messages

// Answers each message, or each `count`th with one byte.
void serve(const char* address, std::size_t count, uint32 connections) {
    auto answer = [count, seen = std::size_t{0}](IQORIpcConnection& from, std::string_view message) mutable {
        if (++seen % count == 0)
            (void)from.TrySend(count == 1 ? message : message.substr(0, 1));
    };
    must(qorCreateIpcServer(address, {.max_connections = connections}, answer, s_server.Out()), "qorCreateIpcServer");
}

void connect_within_time(const char* address, IQORIpcTarget* target, IQORIpcConnection** out) {
    const auto begin = clock_type::now();
    while (!qorCreateIpcConnection(address, {}, target, out)) {
        must(seconds_since(begin) < 20, "qorCreateIpcConnection"); // until the other process listens
        usleep(1000);
    }
}

std::string new_address() {
    static int count = 0;
    return "unix:/tmp/qor.bench." + std::to_string(getpid()) + "." + std::to_string(++count);
}

class messages {
public:
    explicit messages(std::size_t count)
        : m_address(new_address()), m_other([this, count] { serve(m_address.c_str(), count, 10); }) {
        connect_within_time(m_address.c_str(), nullptr, m_queued.Out());
    }

    // From call to call, on the thread of the connections: each message is answered in the target.
    double round_trips(std::size_t count) {
        qorGate done(false);
        std::size_t left = count;
        zetSmartPointer<IQORIpcConnection> connection;
        auto pass = [&](IQORIpcConnection& from, std::string_view message) {
            if (--left == 0)
                done.Open();
            else
                (void)from.TrySend(message);
        };
        const auto target = qor::glue::make_ipc_target(pass);
        connect_within_time(m_address.c_str(), *target, connection.Out());
        const std::string message(short_message, '\0');
        const auto begin = clock_type::now();
        must(connection->TrySend(message), "TrySend");
        done.Wait();
        return seconds_since(begin) / static_cast<double>(count);
    }
    // With Receive, which costs the way from that thread to the program's.
    double round_trips_by_queue(std::size_t count) {
        const std::string message(short_message, '\0');
        std::string back;
        const auto begin = clock_type::now();
        for (std::size_t i = 0; i < count; ++i) {
            must(m_queued->Send(message), "Send");
            must(m_queued->Receive(back), "Receive");
        }
        return seconds_since(begin) / static_cast<double>(count);
    }
    double transfer(std::size_t count) {
        const std::string message(long_message, 'x');
        std::string back;
        const auto begin = clock_type::now();
        for (std::size_t i = 0; i < count; ++i)
            must(m_queued->Send(message), "Send");
        must(m_queued->Receive(back), "Receive");
        return static_cast<double>(count * long_message) / seconds_since(begin);
    }

private:
    const std::string m_address;
    other_process m_other;
    zetSmartPointer<IQORIpcConnection> m_queued;
};

// ---- idle connections

std::size_t memory_of(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmRSS:"))
            return std::strtoul(line.c_str() + 6, nullptr, 10) * 1024;
    return 0;
}

void idle(std::size_t count) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < count + 100) {
        std::printf("this user may open %llu descriptors only\n", static_cast<unsigned long long>(limit.rlim_max));
        count = limit.rlim_max - 100;
    }
    const std::string address = new_address();
    const other_process other([&] { serve(address.c_str(), 1, static_cast<uint32>(count + 1)); });
    zetSmartPointer<IQORIpcConnection> first;
    connect_within_time(address.c_str(), nullptr, first.Out());
    const std::size_t before = memory_of(other.id());
    // The peers are bare sockets, whose memory is not the subject.
    std::vector<int> peers;
    sockaddr_un to{};
    to.sun_family = AF_UNIX;
    address.copy(to.sun_path, sizeof to.sun_path - 1, 5);
    char hello[24] = {16, 0, 0, 0, 4, 0, 0, 0, 'q', 'm', 's', 'g', 1};
    hello[18] = 1; // it takes messages of 64 KiB, and does not judge
    for (std::size_t i = 0; i < count; ++i) {
        const int one = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        must(one >= 0 && connect(one, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0, "connect");
        write_all(one, hello, sizeof hello);
        char answer[24];
        read_all(one, answer, sizeof answer);
        peers.push_back(one);
    }
    const std::size_t behind = memory_of(other.id());
    std::printf("%zu idle connections: %.0f bytes of the server's memory each\n", count,
                static_cast<double>(behind - before) / static_cast<double>(count));
    const auto begin = clock_type::now();
    std::string back;
    constexpr int trips = 1000;
    for (int i = 0; i < trips; ++i) {
        must(first->Send("ping"), "Send");
        must(first->Receive(back), "Receive");
    }
    std::printf("a round trip by Receive beside them: %.1f us\n", seconds_since(begin) * 1e6 / trips);
    for (const int each : peers)
        close(each);
}

} // namespace

int main(int argc, char** argv) {
    const bool is_brief = argc > 1 && std::strcmp(argv[1], "--brief") == 0;
    const std::size_t rounds = is_brief ? 1 : 9;
    const std::size_t trips = is_brief ? 200 : 20'000;
    const std::size_t parts = is_brief ? 100 : 16'384; // 1 GiB

    std::vector<double> of_pair, of_calls, of_queue;
    {
        bare pair(short_message, 1);
        messages ours(1);
        for (std::size_t i = 0; i < rounds; ++i) {
            of_pair.push_back(pair.round_trips(trips));
            of_calls.push_back(ours.round_trips(trips));
            of_queue.push_back(ours.round_trips_by_queue(trips));
        }
    }
    const double trip_ratio = median(of_calls) / median(of_pair);
    std::printf("round trip of %zu bytes: socket pair %.2f us, target %.2f us (%.2f, limit %.2f), Receive %.2f us\n",
                short_message, median(of_pair) * 1e6, median(of_calls) * 1e6, trip_ratio, round_trip_limit,
                median(of_queue) * 1e6);

    std::vector<double> pair_speed, our_speed;
    {
        bare pair(long_message, parts);
        messages ours(parts);
        for (std::size_t i = 0; i < rounds; ++i) {
            pair_speed.push_back(pair.transfer(parts));
            our_speed.push_back(ours.transfer(parts));
        }
    }
    const double speed_ratio = median(our_speed) / median(pair_speed);
    std::printf("%zu MiB in messages of 64 KiB: socket pair %.2f GB/s, messages %.2f GB/s (%.2f, limit %.2f)\n",
                parts * long_message >> 20, median(pair_speed) / 1e9, median(our_speed) / 1e9, speed_ratio,
                throughput_limit);

    idle(is_brief ? 100 : 10'000);
    return is_brief || (trip_ratio <= round_trip_limit && speed_ratio >= throughput_limit) ? 0 : 1;
}
