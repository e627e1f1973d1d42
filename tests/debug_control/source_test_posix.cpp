// Assigns connections to the users of this host by user number, whatever address they use.
#include "channel/peer_source.h"
#include "channel/peer_source_posix.h"
#include "load/socket_peer.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

namespace {

using namespace qor::test;
using qor::sockets::endpoint;
using qor::sockets::owner_answer;

// A listener, and connections to it.
class sources : public testing::Test {
protected:
    struct pair {
        int peer = -1;
        qor::sockets::socket taken;
        endpoint from, here;
    };

    void listen(const char* host) {
        std::vector<endpoint> places;
        std::string reason;
        ASSERT_EQ(qor::sockets::resolve(host, 0, true, places, reason), 0) << reason;
        ASSERT_EQ(qor::sockets::listen_at(places.front(), m_listener), 0);
        m_at = qor::sockets::local_end(m_listener);
    }

    pair connect(std::optional<uid_t> user = {}, const char* address = nullptr, int family = AF_UNSPEC) {
        pair made;
        const uid_t before = geteuid();
        if (user)
            setfsuid(*user);
        made.peer = ::socket(family != AF_UNSPEC ? family
                             : m_at.is_ipv6()    ? AF_INET6
                                                 : AF_INET,
                             SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (user)
            setfsuid(before);
        if (address != nullptr) {
            sockaddr_in at{};
            at.sin_family = AF_INET;
            inet_pton(AF_INET, address, &at.sin_addr);
            EXPECT_EQ(bind(made.peer, reinterpret_cast<const sockaddr*>(&at), sizeof at), 0);
        }
        sockaddr_in6 mapped{};
        mapped.sin6_family = AF_INET6;
        mapped.sin6_port = htons(m_at.port());
        inet_pton(AF_INET6, "::ffff:127.0.0.1", &mapped.sin6_addr);
        if (family == AF_INET6)
            EXPECT_EQ(::connect(made.peer, reinterpret_cast<const sockaddr*>(&mapped), sizeof mapped), 0);
        else
            EXPECT_EQ(::connect(made.peer, reinterpret_cast<const sockaddr*>(m_at.bytes), m_at.size), 0);
        take(made);
        return made;
    }

    void take(pair& made) {
        qor::sockets::watched watched{&m_listener, true, false};
        ASSERT_TRUE(qor::sockets::wait({&watched, 1}, 10'000));
        ASSERT_EQ(qor::sockets::accept_from(m_listener, made.taken, made.from), 0);
        made.here = qor::sockets::local_end(made.taken);
    }

    // Asks in both ways; nullopt if no user owns the connection.
    static std::optional<uid_t> owner(const pair& of) {
        std::uint32_t asked = 0, listed = 0;
        const owner_answer one = qor::sockets::owner_by_question(of.from, of.here, asked);
        const owner_answer other = qor::sockets::owner_by_list("/proc/net", of.from, of.here, listed);
        EXPECT_NE(other, owner_answer::cannot_ask);
        if (one != owner_answer::cannot_ask) {
            EXPECT_EQ(one, other);
            EXPECT_EQ(asked, listed);
        }
        return other == owner_answer::found ? std::optional<uid_t>(listed) : std::nullopt;
    }

    qor::sockets::socket m_listener;
    endpoint m_at;
};

TEST_F(sources, users_of_this_host) {
    for (const char* const host : {"127.0.0.1", "::1"}) {
        std::vector<endpoint> places;
        std::string reason;
        listen(host);
        const pair own = connect();
        EXPECT_EQ(owner(own), geteuid()) << host;
        const qor::sockets::source found = qor::sockets::source_of(own.from, own.here);
        EXPECT_EQ(found.key, "user " + std::to_string(geteuid()));
        EXPECT_EQ(found.text, own.from.text() + " of user " + std::to_string(geteuid()));
        close(own.peer);
        if (!can_be_several_users())
            continue;
        for (const uid_t user : {20'001u, 20'002u}) {
            const pair other = connect(user);
            EXPECT_EQ(owner(other), user) << host;
            EXPECT_EQ(qor::sockets::source_of(other.from, other.here).key, "user " + std::to_string(user));
            close(other.peer);
        }
    }
}

TEST_F(sources, whatever_address_they_take) {
    listen("127.0.0.1");
    for (const char* const address : {"127.0.0.1", "127.1.2.3", "127.255.255.254"}) {
        const pair made = connect({}, address);
        EXPECT_EQ(made.from.host(), address);
        EXPECT_EQ(qor::sockets::source_of(made.from, made.here).key, "user " + std::to_string(geteuid()));
        close(made.peer);
    }
    const pair of_ipv6 = connect({}, nullptr, AF_INET6);
    EXPECT_FALSE(of_ipv6.from.is_ipv6());
    EXPECT_EQ(owner(of_ipv6), geteuid());
    close(of_ipv6.peer);
}

// For the kernel, a socket that nobody has open belongs to root.
TEST_F(sources, who_has_left_is_nobody) {
    listen("127.0.0.1");
    pair made = connect();
    close(made.peer);
    EXPECT_EQ(owner(made), std::nullopt);
    EXPECT_EQ(qor::sockets::source_of(made.from, made.here).key, "this host");
}

// If a peer on another host connects from a port that is also the port of a local listener, the listener's owner does
// not own the connection.
TEST_F(sources, other_hosts_are_told_by_address) {
    listen("127.0.0.1");
    const auto elsewhere = [](const char* host, uint16 port) {
        std::vector<endpoint> places;
        std::string reason;
        EXPECT_EQ(qor::sockets::resolve(host, port, false, places, reason), 0) << reason;
        return places.front();
    };
    const std::pair<const char*, bool> hosts[] = {
        {"192.0.2.7", false}, {"2001:db8::7", false}, {"127.0.0.9", true}, {"::1", true}};
    for (const auto& [host, is_here] : hosts) {
        const endpoint from = elsewhere(host, m_at.port());
        const endpoint here = elsewhere(from.is_ipv6() ? "::1" : "127.0.0.1", 4711);
        const qor::sockets::source found = qor::sockets::source_of(from, here);
        EXPECT_EQ(found.key, is_here ? "this host" : from.neighbour()) << host;
        EXPECT_EQ(found.text, from.text());
    }
    // An IPv4 listener on all addresses is also searched.
    qor::sockets::socket everywhere;
    ASSERT_EQ(qor::sockets::listen_at(elsewhere("0.0.0.0", 0), everywhere), 0);
    const endpoint from = elsewhere("192.0.2.7", qor::sockets::local_end(everywhere).port());
    EXPECT_EQ(qor::sockets::source_of(from, elsewhere("127.0.0.1", 4711)).key, from.neighbour());
}

TEST_F(sources, a_list_that_is_recorded_or_missing) {
    const temp_folder folder;
    endpoint from, here;
    std::vector<endpoint> places;
    std::string reason;
    ASSERT_EQ(qor::sockets::resolve("127.0.0.1", 0x8f7a, false, places, reason), 0);
    from = here = places.front();
    here.set_port(4711);
    std::uint32_t user = 0;
    EXPECT_EQ(qor::sockets::owner_by_list(folder.path().c_str(), from, here, user), owner_answer::cannot_ask);
    folder.file("tcp",
                "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
                "   0: 0100007F:8F7A 0100007F:1268 01 00000000:00000000 00:00000000 00000000  1001        0 70321 1\n"
                "   1: 0100007F:1267 0100007F:8F7A 01 00000000:00000000 00:00000000 00000000  1002        0 70322 1\n");
    EXPECT_EQ(qor::sockets::owner_by_list(folder.path().c_str(), from, here, user), owner_answer::nobody);
    folder.file("tcp6", "  sl  local_address                         remote_address                        st tx_queue "
                        "rx_queue tr ...\n"
                        "   0: 0000000000000000FFFF00000100007F:8F7A 0000000000000000FFFF00000100007F:1267 01 "
                        "00000000:00000000 02:000006F8 "
                        "00000000  1003        0 70323 2 0000000000000000 20 4 0 10 -1\n");
    EXPECT_EQ(qor::sockets::owner_by_list(folder.path().c_str(), from, here, user), owner_answer::found);
    EXPECT_EQ(user, 1003u);
}

} // namespace
