// A host that closes all descriptors which it does not know and opens others with their numbers.
#include "host_process.h"
#include "socket_peer.h"

#include <thread>

namespace {

using namespace qor::test;

const plain_scram::client ada{"ada", "secret", {}};

#ifdef __SANITIZE_THREAD__
constexpr bool is_race_a_finding = true;
#else
constexpr bool is_race_a_finding = false;
#endif

TEST(closed_sockets, end_the_listener) {
    if (is_race_a_finding)
        GTEST_SKIP()
            << "the race for the numbers, which is the host's and the point here, is a finding of the thread sanitizer";
    host_process host;
    tls_peer session(host.port(), {"127.0.0.1", {}}), waiting(host.port(), {"127.0.0.1", {}});
    ASSERT_TRUE(session.shake_hands());
    ASSERT_TRUE(is_logged_in(session.log_in(ada)));
    ASSERT_TRUE(waiting.shake_hands());
    const long threads = host.measure().threads;
    host.close_descriptors();
    EXPECT_TRUE(session.socket.is_cut_within(30s));
    EXPECT_TRUE(waiting.socket.is_cut_within(30s));
    // The listener's thread ends.
    for (const auto end = test_clock::now() + 30s; host.measure().threads != threads - 1 && test_clock::now() < end;)
        std::this_thread::sleep_for(10ms);
    EXPECT_EQ(host.measure().threads, threads - 1);
    const std::string trace = read_file(host.trace_path());
    EXPECT_NE(trace.find("'ada' from 127.0.0.1 port "), std::string::npos) << trace;
    EXPECT_NE(trace.find(" has left: nobody listens any more\n"), std::string::npos) << trace;
    EXPECT_NE(
        trace.find(
            " system.debug-control this process has closed the sockets of its listener: nobody listens any more\n"),
        std::string::npos)
        << trace;
    // The numbers now belong to the host.
    EXPECT_EQ(host.untouched(), 64);
    host.release_listener();
    EXPECT_EQ(host.untouched(), 64);
    host.listen_again();
    ASSERT_NE(host.port(), 0);
    tls_peer again(host.port(), {"127.0.0.1", {}});
    ASSERT_TRUE(again.shake_hands());
    EXPECT_TRUE(is_logged_in(again.log_in(ada)));
    EXPECT_EQ(host.untouched(), 64);
}

} // namespace
