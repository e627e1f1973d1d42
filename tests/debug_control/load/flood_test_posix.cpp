// A crowd of connections from one address: its cost, and whether another address can still log in.
#include "host_process.h"
#include "socket_peer.h"
#include "support/load.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <memory>
#include <thread>

namespace {

using namespace qor::test;

const plain_scram::client ada{"ada", "secret", {}};

// Returns the seconds that a login takes; less than 0 if it fails.
double time_of_login(const host_process& host, const source& from) {
    const test_clock::time_point begin = test_clock::now();
    tls_peer peer(host.port(), from);
    return peer.shake_hands() && is_logged_in(peer.log_in(ada)) ? seconds_since(begin) : -1;
}

// One of a crowd. It keeps its connection as long as it lives.
using attacker = std::shared_ptr<void>;

struct crowd {
    const char* what;
    attacker (*make)(uint16 port, const source& from);
};

const crowd crowds[] = {
    {"that say nothing",
     [](uint16 port, const source& from) -> attacker { return std::make_shared<socket_peer>(port, from); }},
    {"that speak HTTP",
     [](uint16 port, const source& from) -> attacker {
         auto made = std::make_shared<socket_peer>(port, from);
         made->write("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n");
         return made;
     }},
    {"that begin a handshake",
     [](uint16 port, const source& from) -> attacker {
         auto made = std::make_shared<tls_peer>(port, from);
         made->flush();
         return made;
     }},
};

TEST(flood, of_connections_from_one_user) {
    QOR_NEEDS_SEVERAL_USERS();
    const int connections = load(2000, 10000);
    for (const crowd& each : crowds) {
        host_process host;
        const holdings at_first = host.measure();
        ASSERT_GE(time_of_login(host, user_number(2)), 0);
        const holdings before = host.measure_at_rest(at_first);
        constexpr int attackers = 3;
        std::atomic<int> at_work = attackers;
        std::vector<std::thread> all;
        for (int i = 0; i < attackers; ++i)
            all.emplace_back([&] {
                std::deque<attacker> open;
                for (int made = 0; made < connections / attackers; ++made) {
                    open.push_back(each.make(host.port(), user_number(1)));
                    if (open.size() > 100)
                        open.pop_front();
                }
                --at_work;
            });
        long heap = 0, resident = 0;
        double longest = 0;
        int logins = 0, failed = 0;
        do {
            const double time = time_of_login(host, user_number(2));
            ++logins;
            failed += time < 0;
            longest = std::max(longest, time);
            const holdings now = host.measure();
            heap = std::max(heap, now.heap - before.heap);
            resident = std::max(resident, now.resident - before.resident);
        } while (at_work > 0);
        for (std::thread& attacking : all)
            attacking.join();
        const holdings after = host.measure_at_rest(before);
        std::printf(
            "%d connections of one user %s: %ld KiB more resident, %ld KiB more allocated (at most 2048), %ld KiB "
            "in the end; %d logins of another one meanwhile, %d of them failed, the longest took %.0f ms (3000); "
            "descriptors before %ld, after %ld\n",
            connections, each.what, resident / 1024, heap / 1024, (after.heap - before.heap) / 1024, logins, failed,
            longest * 1000, before.descriptors, after.descriptors);
        EXPECT_LE(heap, 2048 * 1024);
        EXPECT_EQ(failed, 0);
        EXPECT_EQ(after.descriptors, before.descriptors);
        EXPECT_EQ(after.threads, before.threads);
        if (whole_load()) {
            EXPECT_LE(longest, 3);
        }
    }
}

} // namespace
