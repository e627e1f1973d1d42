// Messages between processes on Linux: peers that are stopped, killed, or of another user; forks; what is left in the
// file system.
#include "ipc/server_posix.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <malloc.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

using qor::test::count_of;
using qor::test::frame;
using qor::test::hello;
using qor::test::in_child;
using qor::test::last_error;
using qor::test::last_number;
using qor::test::listen_at;
using qor::test::notes;
using qor::test::number;
using qor::test::raw_peer;
using qor::test::server;
using qor::test::wait_until;

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
