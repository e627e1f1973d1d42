// Messages between processes on Linux: peers that are hostile, stopped, killed, of another user; forks; what is left
// in the file system.
#include "ipc/raw_peer_posix.h"
#include "qor/qor.h"
#include "support/last_error.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <malloc.h>
#include <mutex>
#include <random>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using qor::test::frame;
using qor::test::hello;
using qor::test::last_error;
using qor::test::number;
using qor::test::raw_peer;

namespace {

constexpr auto long_time = 120s; // only against hanging

uint32 last_number() {
    zetSmartPointer<IQORErrorMessage> error;
    qorGetLastError(error.Out());
    return error->GetErrorNumber();
}

class notes final : public qor::object<IQORIpcTarget> {
public:
    notes() : object("notes", "IQORIpcTarget") {}

    bool Accept(IQORIpcConnection*) noexcept override {
        const std::lock_guard hold(lock);
        ++accepted;
        changed.notify_all();
        return true;
    }
    void Received(IQORIpcConnection* from, const void* bytes, uint64 length) noexcept override {
        const std::string_view message(static_cast<const char*>(bytes), length);
        if (echoes)
            (void)from->TrySend(message);
        const std::lock_guard hold(lock);
        ++count;
        last = message;
        changed.notify_all();
    }
    void Ended(IQORIpcConnection* connection) noexcept override {
        const std::lock_guard hold(lock);
        ends.push_back(connection->GetEnd());
        changed.notify_all();
    }
    template <class READY>
    bool wait(READY ready) {
        std::unique_lock hold(lock);
        return changed.wait_for(hold, long_time, ready);
    }

    unsigned accepted_now() {
        const std::lock_guard hold(lock);
        return accepted;
    }

    bool echoes = true;
    std::mutex lock;
    std::condition_variable changed;
    unsigned accepted = 0;
    unsigned count = 0;
    std::string last;
    std::vector<qorIpcEnd> ends;
};

// A server in a folder of the test's own.
struct server {
    explicit server(const qorIpcOptions& options = {}) {
        told.AttachNew(QOR_NEW notes);
        EXPECT_TRUE(qorCreateIpcServer(address.c_str(), options, *told, object.Out())) << last_error();
    }
    zetSmartPointer<IQORIpcConnection> connect(const qorIpcOptions& options = {}) const {
        zetSmartPointer<IQORIpcConnection> made;
        EXPECT_TRUE(qorCreateIpcConnection(address.c_str(), options, static_cast<IQORIpcTarget*>(nullptr), made.Out()))
            << last_error();
        return made;
    }
    bool answers() const {
        const auto one = connect();
        std::string back;
        return one->Send("ping") && one->Receive(back, 60'000) && back == "ping";
    }

    const qor::test::temp_folder folder;
    const std::string path = folder / "socket";
    const std::string address = "unix:" + path;
    zetSmartPointer<notes> told;
    zetSmartPointer<IQORIpcServer> object;
};

std::string greet(raw_peer& peer) {
    EXPECT_TRUE(peer.put(hello()));
    return peer.next();
}

unsigned count_of(const char* folder) {
    unsigned count = 0;
    DIR* const all = opendir(folder);
    while (readdir(all) != nullptr)
        ++count;
    closedir(all);
    return count;
}

void wait_until(const std::function<bool()>& ready) {
    const auto end = std::chrono::steady_clock::now() + long_time;
    while (!ready() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(ready());
}

// A socket that listens as a program of somebody else's does.
int listen_at(const std::string& path) {
    const int made = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(made, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(made, 10), 0);
    return made;
}

// Runs in a child process; the result is its exit code, or 256 and the signal.
int in_child(const std::function<int()>& run) {
    const pid_t child = fork();
    if (child == 0)
        _exit(run());
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
}

} // namespace

TEST(posix_ipc, the_form_of_the_bytes) {
    const server there({.max_message = 12345, .silence = 7777});
    raw_peer peer(there.path);
    std::string expected = "qmsg";
    expected.append(number(1)).append(number(12345)).append(number(7777));
    EXPECT_EQ(greet(peer), frame(4, expected));
    EXPECT_TRUE(peer.put(frame(0, "abc")));
    EXPECT_EQ(peer.next(), frame(0, "abc"));
    EXPECT_TRUE(peer.put(frame(0, "")));
    EXPECT_EQ(peer.next(), frame(0, ""));
    EXPECT_TRUE(peer.put(frame(1, "")));
    EXPECT_TRUE(peer.put(frame(2, "")));
    EXPECT_EQ(peer.next(), frame(3, ""));
    ASSERT_TRUE(there.told->wait([&] { return there.told->ends.size() == 1; }));
    EXPECT_EQ(there.told->ends.front(), qorIpcEnd::closed);
}

TEST(posix_ipc, bytes_may_come_one_by_one) {
    const server there;
    raw_peer peer(there.path);
    std::string all = hello();
    for (int i = 0; i < 20; ++i)
        all.append(frame(0, std::string(static_cast<std::size_t>(i), 'x')));
    for (const char& each : all)
        ASSERT_TRUE(peer.put({&each, 1}));
    (void)peer.next();
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(peer.next(), frame(0, std::string(static_cast<std::size_t>(i), 'x')));
}

TEST(posix_ipc, what_is_not_the_protocol_ends_the_connection) {
    const server there({.max_message = 1000});
    std::vector<std::string> wrong = {
        "GET / HTTP/1.1\r\n\r\n",
        frame(0, "no greeting"),
        frame(4, "qmsx" + number(1) + number(1) + number(0)),
        frame(4, "qmsg" + number(2) + number(1) + number(0)),
        frame(4, "qmsg" + number(1) + number(1) + number(99)),
        hello() + hello(),
        hello() + frame(0, std::string(1001, 'x')),
        hello() + number(0xffffffff) + number(0),
        hello() + number(0) + number(6),
        hello() + number(0) + number(256),
        hello() + frame(1, "x"),
        hello() + frame(3, ""),
        hello() + frame(5, number(1)),
    };
    for (const std::string& each : wrong) {
        raw_peer peer(there.path);
        (void)peer.put(each);
        EXPECT_TRUE(peer.is_closed_by_other());
    }
    EXPECT_TRUE(there.answers());
    wait_until([&] { return there.object->GetConnectionCount() == 0; });
}

TEST(posix_ipc, random_bytes_do_no_harm) {
    const server there({.max_message = 1000});
    std::minstd_rand random(1);
    for (int round = 0; round < 200; ++round) {
        raw_peer peer(there.path);
        std::string bytes = round % 2 != 0 ? hello() : std::string();
        for (int i = 0; i < 300; ++i) {
            // Mostly small numbers, which get farther.
            if (random() % 3 != 0)
                bytes.append(number(random() % 7));
            else
                bytes.push_back(static_cast<char>(random()));
        }
        (void)peer.put(bytes);
        if (round % 3 == 0)
            shutdown(peer.get(), SHUT_WR);
    }
    EXPECT_TRUE(there.answers());
    wait_until([&] { return there.object->GetConnectionCount() == 0; });
}

TEST(posix_ipc, an_announced_length_takes_no_memory) {
    const server there({.max_message = qorIpcLongestMessage, .memory = 1 << 20});
    const struct mallinfo2 before = mallinfo2();
    std::vector<std::unique_ptr<raw_peer>> peers;
    for (int i = 0; i < 100; ++i) {
        peers.push_back(std::make_unique<raw_peer>(there.path));
        (void)greet(*peers.back());
        ASSERT_TRUE(peers.back()->put(number(qorIpcLongestMessage) + number(0) + "a few bytes"));
    }
    EXPECT_TRUE(there.answers());
    const struct mallinfo2 after = mallinfo2();
    EXPECT_LT(after.uordblks + after.hblkhd, before.uordblks + before.hblkhd + (8 << 20));
}

TEST(posix_ipc, those_who_flood_share_a_bounded_memory) {
    const server there({.max_message = qorIpcLongestMessage, .memory = 4 << 20, .silence = 500});
    std::vector<std::thread> floods;
    std::atomic<uint64> sent{0};
    for (int i = 0; i < 8; ++i)
        floods.emplace_back([&] {
            raw_peer peer(there.path);
            (void)greet(peer);
            if (!peer.put(number(qorIpcLongestMessage) + number(0)))
                return;
            // Much more than there may be, and never the end of the message.
            const std::string piece(64 << 10, 'x');
            for (int j = 0; j < 256; ++j) {
                if (!peer.put(piece))
                    return;
                sent += piece.size();
            }
            (void)peer.is_closed_by_other();
        });
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(there.answers());
    for (std::thread& each : floods)
        each.join();
    EXPECT_TRUE(there.told->wait([&] { return there.told->ends.size() >= 8; }));
    const std::lock_guard hold(there.told->lock);
    EXPECT_GT(std::count(there.told->ends.begin(), there.told->ends.end(), qorIpcEnd::overloaded) +
                  std::count(there.told->ends.begin(), there.told->ends.end(), qorIpcEnd::silent),
              0);
}

TEST(posix_ipc, a_peer_that_does_not_read_costs_nobody_else_anything) {
    const server there({.send_queue = 100'000});
    raw_peer deaf(there.path);
    (void)greet(deaf);
    std::thread floods([&] {
        const std::string piece = frame(0, std::string(10'000, 'x'));
        for (int i = 0; i < 1000; ++i)
            if (!deaf.put(piece))
                return;
    });
    for (int i = 0; i < 50; ++i)
        EXPECT_TRUE(there.answers());
    floods.join(); // the server reads all of it: only its answers are dropped
}

TEST(posix_ipc, half_closed_connections_end) {
    const server there;
    raw_peer peer(there.path);
    (void)greet(peer);
    ASSERT_TRUE(peer.put(frame(0, "last") + number(1000) + number(0) + "the beginning of another"));
    shutdown(peer.get(), SHUT_WR);
    EXPECT_EQ(peer.next(), frame(0, "last"));
    EXPECT_TRUE(peer.is_closed_by_other());
    ASSERT_TRUE(there.told->wait([&] { return there.told->ends.size() == 1; }));
    EXPECT_EQ(there.told->ends.front(), qorIpcEnd::lost);
    EXPECT_EQ(there.told->count, 1u);
}

TEST(posix_ipc, those_who_never_greet_are_dropped) {
    const server there({.connect = 100});
    raw_peer mute(there.path);
    raw_peer slow(there.path);
    ASSERT_TRUE(slow.put(hello().substr(0, 10)));
    EXPECT_TRUE(mute.is_closed_by_other());
    EXPECT_TRUE(slow.is_closed_by_other());
    EXPECT_EQ(there.told->accepted_now(), 0u);
}

TEST(posix_ipc, a_silent_peer_is_noticed_and_one_that_lives_is_not) {
    const server there({.silence = 300});
    const auto idle = there.connect({.silence = 300});
    raw_peer silent(there.path);
    (void)greet(silent);
    EXPECT_TRUE(silent.is_closed_by_other());
    ASSERT_TRUE(there.told->wait([&] { return there.told->ends.size() == 1; }));
    EXPECT_EQ(there.told->ends.front(), qorIpcEnd::silent);
    std::this_thread::sleep_for(700ms); // more than twice the limit
    std::string back;
    EXPECT_TRUE(idle->Send("still there"));
    EXPECT_TRUE(idle->Receive(back)) << last_error();
}

TEST(posix_ipc, signs_of_life_come_as_often_as_the_peer_needs_them) {
    const server there({.silence = 0});
    raw_peer peer(there.path);
    ASSERT_TRUE(peer.put(hello(1000, 300)));
    EXPECT_EQ(peer.get(24).size(), 24u);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(peer.get(8), frame(1, ""));
}

TEST(posix_ipc, a_server_that_is_stopped_is_noticed) {
    qor::test::temp_folder folder;
    const std::string path = folder / "socket";
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    // A server by hand, which answers the greeting and then is stopped.
    const pid_t child = fork();
    if (child == 0) {
        const int listener = listen_at(path);
        (void)!write(ready[1], "x", 1);
        raw_peer peer(accept(listener, nullptr, nullptr));
        (void)peer.next();
        (void)peer.put(hello());
        raise(SIGSTOP);
        (void)peer.put(frame(0, "late"));
        _exit(0);
    }
    char byte;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    zetSmartPointer<IQORIpcConnection> connection;
    const std::string address = "unix:" + path;
    ASSERT_TRUE(qorCreateIpcConnection(address.c_str(), {.silence = 200}, static_cast<IQORIpcTarget*>(nullptr),
                                       connection.Out()))
        << last_error();
    std::string message;
    EXPECT_FALSE(connection->Receive(message));
    EXPECT_EQ(connection->GetEnd(), qorIpcEnd::silent);
    EXPECT_EQ(last_error(), "The connection has ended: nothing was heard of the peer for 200 ms.");
    kill(child, SIGKILL);
    kill(child, SIGCONT);
    waitpid(child, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
}

TEST(posix_ipc, a_peer_that_is_killed_in_the_middle_of_a_message) {
    const server there;
    const pid_t child = fork();
    if (child == 0) {
        raw_peer peer(there.path);
        (void)peer.put(hello());
        (void)peer.next();
        (void)peer.put(frame(0, "whole") + number(1 << 20) + number(0) + std::string(100'000, 'x'));
        for (;;)
            pause();
    }
    ASSERT_TRUE(there.told->wait([&] { return there.told->count == 1; }));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    ASSERT_TRUE(there.told->wait([&] { return there.told->ends.size() == 1; }));
    EXPECT_EQ(there.told->ends.front(), qorIpcEnd::lost);
    EXPECT_EQ(there.told->count, 1u);
    EXPECT_EQ(there.told->last, "whole");
}

TEST(posix_ipc, a_dead_servers_socket_is_replaced_and_a_live_one_is_not) {
    qor::test::temp_folder folder;
    const std::string path = folder / "socket";
    const std::string address = "unix:" + path;
    zetSmartPointer<notes> told;
    told.AttachNew(QOR_NEW notes);
    zetSmartPointer<IQORIpcServer> made;
    const int foreign = listen_at(path);
    EXPECT_FALSE(qorCreateIpcServer(address.c_str(), {}, *told, made.Out()));
    EXPECT_EQ(last_number(), qorError_ipc_address_taken);
    close(foreign); // its socket stays behind
    ASSERT_TRUE(qorCreateIpcServer(address.c_str(), {}, *told, made.Out())) << last_error();
    zetSmartPointer<IQORIpcServer> second;
    EXPECT_FALSE(qorCreateIpcServer(address.c_str(), {}, *told, second.Out()));
    EXPECT_EQ(last_number(), qorError_ipc_address_taken);
    struct stat info {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    made.Empty();
    EXPECT_EQ(count_of(folder.path().c_str()), 2u); // only "." and ".."
    folder.file("socket", "a file of somebody's");
    EXPECT_FALSE(qorCreateIpcServer(address.c_str(), {}, *told, made.Out()));
    EXPECT_EQ(last_number(), qorError_ipc_not_replaced);
    EXPECT_EQ(qor::test::read_file(path), "a file of somebody's");
    EXPECT_FALSE(qorCreateIpcServer(("unix:" + folder.path() + "/none/socket").c_str(), {}, *told, made.Out()));
    EXPECT_EQ(last_number(), qorError_ipc_cannot_listen);
    EXPECT_FALSE(qorCreateIpcServer(("unix:/" + std::string(107, 'x')).c_str(), {}, *told, made.Out()));
    EXPECT_EQ(last_number(), qorError_ipc_address);
}

TEST(posix_ipc, of_many_servers_that_want_an_address_one_gets_it) {
    for (int round = 0; round < 20; ++round) {
        qor::test::temp_folder folder;
        const std::string path = folder / "socket";
        close(listen_at(path)); // each of them finds a dead one
        std::atomic<int> won{0};
        std::vector<zetSmartPointer<IQORIpcServer>> servers(8);
        std::vector<std::thread> threads;
        for (zetSmartPointer<IQORIpcServer>& each : servers)
            threads.emplace_back([&] {
                won += qorCreateIpcServer(("unix:" + path).c_str(), {}, [](IQORIpcConnection&, std::string_view) {},
                                          each.Out());
            });
        for (std::thread& each : threads)
            each.join();
        EXPECT_EQ(won, 1);
        zetSmartPointer<IQORIpcConnection> connection;
        EXPECT_TRUE(qorCreateIpcConnection(("unix:" + path).c_str(), connection.Out())) << last_error();
    }
}

TEST(posix_ipc, names_lie_in_a_private_folder) {
    qor::test::temp_folder folder;
    ASSERT_EQ(chmod(folder.path().c_str(), 0700), 0);
    const char* const before = getenv("XDG_RUNTIME_DIR");
    const std::string kept = before != nullptr ? before : "";
    setenv("XDG_RUNTIME_DIR", folder.path().c_str(), 1);
    zetSmartPointer<notes> told;
    told.AttachNew(QOR_NEW notes);
    zetSmartPointer<IQORIpcServer> made;
    EXPECT_TRUE(qorCreateIpcServer("unix:some.name", {}, *told, made.Out())) << last_error();
    qorString address;
    made->GetAddress(address);
    EXPECT_EQ(std::string(address.Text()), "unix:" + (folder / "qor/some.name"));
    struct stat info {};
    ASSERT_EQ(stat((folder / "qor").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    zetSmartPointer<IQORIpcConnection> connection;
    EXPECT_TRUE(qorCreateIpcConnection("some.name", connection.Out())) << last_error();
    connection.Empty();
    made.Empty();
    // Others could change it.
    ASSERT_EQ(chmod((folder / "qor").c_str(), 0777), 0);
    EXPECT_FALSE(qorCreateIpcServer("some.name", {}, *told, made.Out()));
    EXPECT_EQ(last_number(), qorError_ipc_folder);
    EXPECT_FALSE(qorCreateIpcConnection("some.name", connection.Out()));
    EXPECT_EQ(last_number(), qorError_ipc_folder);
    ASSERT_EQ(rmdir((folder / "qor").c_str()), 0);
    ASSERT_EQ(symlink("/tmp", (folder / "qor").c_str()), 0);
    EXPECT_FALSE(qorCreateIpcServer("some.name", {}, *told, made.Out()));
    EXPECT_EQ(last_number(), qorError_ipc_folder);
    if (before != nullptr)
        setenv("XDG_RUNTIME_DIR", kept.c_str(), 1);
    else
        unsetenv("XDG_RUNTIME_DIR");
}

TEST(posix_ipc, another_user_is_refused_on_both_sides) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can run a process as another user";
    constexpr uid_t nobody = 65534;
    qor::test::temp_folder folder;
    ASSERT_EQ(chmod(folder.path().c_str(), 0777), 0);
    const std::string path = folder / "socket";
    const std::string address = "unix:" + path;
    zetSmartPointer<notes> told;
    told.AttachNew(QOR_NEW notes);
    zetSmartPointer<IQORIpcServer> made;
    ASSERT_TRUE(qorCreateIpcServer(address.c_str(), {}, *told, made.Out())) << last_error();
    // The file's rights are one barrier. Behind it, the server looks at the user.
    EXPECT_EQ(in_child([&] {
                  if (setresuid(nobody, nobody, nobody) != 0)
                      return 1;
                  const int one = socket(AF_UNIX, SOCK_STREAM, 0);
                  sockaddr_un to{};
                  to.sun_family = AF_UNIX;
                  path.copy(to.sun_path, sizeof to.sun_path - 1);
                  return connect(one, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0 && errno == EACCES ? 0
                                                                                                                 : 2;
              }),
              0);
    ASSERT_EQ(chmod(path.c_str(), 0777), 0);
    EXPECT_EQ(in_child([&] {
                  if (setresuid(nobody, nobody, nobody) != 0)
                      return 1;
                  raw_peer peer(path);
                  return peer.next() == frame(5, number(3)) ? 0 : 2;
              }),
              0);
    EXPECT_EQ(told->accepted_now(), 0u);
    // With the option, it may come.
    made.Empty();
    ASSERT_TRUE(qorCreateIpcServer(address.c_str(), {.users = qorIpcUsers::any}, *told, made.Out())) << last_error();
    EXPECT_EQ(in_child([&] {
                  if (setresuid(nobody, nobody, nobody) != 0)
                      return 1;
                  raw_peer peer(path);
                  return peer.put(hello()) && peer.next().size() == 24 ? 0 : 2;
              }),
              0);
    EXPECT_EQ(told->accepted_now(), 1u);
    made.Empty();
    // A server of another user gets nothing, not even a greeting.
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
        if (setresuid(nobody, nobody, nobody) != 0)
            _exit(1);
        const int listener = listen_at(path);
        (void)!write(ready[1], "x", 1);
        for (;;) {
            raw_peer peer(accept(listener, nullptr, nullptr));
            const std::string first = peer.next();
            (void)!write(ready[1], first.empty() ? "n" : "y", 1);
        }
    }
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    zetSmartPointer<IQORIpcConnection> connection;
    EXPECT_FALSE(qorCreateIpcConnection(address.c_str(), connection.Out()));
    EXPECT_EQ(last_number(), qorError_ipc_other_user);
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    EXPECT_EQ(byte, 'n');
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
}

TEST(posix_ipc, a_forked_child_has_nothing_of_it) {
    const server there;
    const auto connection = there.connect();
    ASSERT_TRUE(connection->Send("before"));
    EXPECT_EQ(in_child([&] {
                  std::string message;
                  if (connection->Send("x") || last_number() != qorError_ipc_of_another_process)
                      return 1;
                  if (connection->Receive(message, 10) || connection->Close(10) || there.object->Close(10))
                      return 2;
                  zetSmartPointer<IQORIpcConnection> kept = connection;
                  kept.Empty();
                  const_cast<zetSmartPointer<IQORIpcServer>&>(there.object).Empty();
                  // Sockets of the parent's are closed here.
                  for (int each = 3; each < 200; ++each) {
                      struct stat info {};
                      if (fstat(each, &info) == 0 && S_ISSOCK(info.st_mode))
                          return 3;
                  }
                  // The child may have its own, also to the parent.
                  zetSmartPointer<IQORIpcConnection> own;
                  if (!qorCreateIpcConnection(there.address.c_str(), own.Out()))
                      return 4;
                  if (!own->Send("from the child") || !own->Receive(message) || message != "from the child")
                      return 5;
                  return own->Close(0) ? 0 : 6;
              }),
              0);
    std::string message;
    EXPECT_TRUE(connection->Receive(message));
    EXPECT_EQ(message, "before");
    EXPECT_TRUE(there.answers());
    EXPECT_EQ(access(there.path.c_str(), F_OK), 0);
}

TEST(posix_ipc, a_program_that_is_started_inherits_nothing) {
    const server there;
    const auto connection = there.connect();
    for (int each = 3; each < 1000; ++each) {
        struct stat info {};
        if (fstat(each, &info) == 0 && S_ISSOCK(info.st_mode)) {
            EXPECT_NE(fcntl(each, F_GETFD) & FD_CLOEXEC, 0) << each;
        }
    }
}

TEST(posix_ipc, starts_and_ends_leave_nothing_behind) {
    const server warm; // the thread of the connections stays
    EXPECT_TRUE(warm.answers());
    const auto round = [](const std::string& path) {
        zetSmartPointer<IQORIpcServer> one;
        ASSERT_TRUE(qorCreateIpcServer(
            path.c_str(), {}, [](IQORIpcConnection& from, std::string_view message) { (void)from.TrySend(message); },
            one.Out()))
            << last_error();
        zetSmartPointer<IQORIpcConnection> connection;
        ASSERT_TRUE(qorCreateIpcConnection(path.c_str(), connection.Out())) << last_error();
        std::string back;
        ASSERT_TRUE(connection->Send("x") && connection->Receive(back)) << last_error();
        ASSERT_TRUE(connection->Close(0)) << last_error();
        ASSERT_TRUE(one->Close(0)) << last_error();
    };
    qor::test::temp_folder folder;
    const std::string address = "unix:" + (folder / "socket");
    for (int i = 0; i < 10; ++i)
        round(address);
    const unsigned descriptors = count_of("/proc/self/fd");
    const unsigned threads = count_of("/proc/self/task");
    const struct mallinfo2 before = mallinfo2();
    for (int i = 0; i < 1000; ++i)
        round(address);
    const struct mallinfo2 after = mallinfo2();
    // What the first rounds have left to be closed a moment later was counted with them.
    wait_until([&] { return count_of("/proc/self/task") <= threads; });
    wait_until([&] { return count_of("/proc/self/fd") <= descriptors; });
    EXPECT_LT(after.uordblks + after.hblkhd, before.uordblks + before.hblkhd + (512 << 10));
    EXPECT_EQ(count_of(folder.path().c_str()), 2u);
}

TEST(posix_ipc, without_descriptors_a_server_waits_and_goes_on) {
    const server there;
    const auto connection = there.connect();
    // Where UBSan checks the type of an object, it needs descriptors the first time. So everything appears once before.
    zetSmartPointer<IQORIpcConnection> none;
    std::string back;
    EXPECT_TRUE(connection->Send("first") && connection->Receive(back));
    EXPECT_FALSE(qorCreateIpcConnection((there.address + ".not").c_str(), none.Out()));
    EXPECT_EQ(last_number(), qorError_ipc_no_server);
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    raw_peer waits(there.path);
    const rlimit less = {count_of("/proc/self/fd"), limit.rlim_max};
    std::vector<int> taken;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &less), 0);
    for (int each; (each = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;)
        taken.push_back(each);
    raw_peer* more = nullptr;
    if (!taken.empty()) {
        close(taken.back()); // this one is for the peer, so the server has none
        taken.pop_back();
        more = new raw_peer(there.path);
        (void)more->put(hello());
        EXPECT_TRUE(connection->Send("others are served") && connection->Receive(back));
        EXPECT_FALSE(qorCreateIpcConnection(there.address.c_str(), none.Out()));
        EXPECT_EQ(last_number(), qorError_ipc_cannot_connect);
    }
    for (const int each : taken)
        close(each);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    ASSERT_NE(more, nullptr);
    EXPECT_EQ(more->next().size(), 24u); // its turn has come
    delete more;
}
