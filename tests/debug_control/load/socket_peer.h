// Peers of a listener over real sockets. The listener distinguishes them by the users of this host who own the sockets.
#pragma once

#include "memory_client.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <unistd.h>

namespace qor::test {

using test_clock = std::chrono::steady_clock;

inline double seconds_since(test_clock::time_point begin) {
    return std::chrono::duration<double>(test_clock::now() - begin).count();
}

// Returns the time left until then, at least 0.
inline std::chrono::milliseconds left_until(test_clock::time_point end) {
    return std::max(std::chrono::ceil<std::chrono::milliseconds>(end - test_clock::now()), 0ms);
}

// The origin of a connection. Without a user it is the user that runs the tests.
struct source {
    std::string address;
    std::optional<uid_t> user;
};

// Returns an address of 127.0.0.0/8; the address does not identify the peer.
inline std::string address_of(unsigned number) {
    return "127." + std::to_string(1 + (number >> 16)) + '.' + std::to_string(number >> 8 & 0xff) + '.' +
           std::to_string(number & 0xff);
}

// Returns one of several users, for root only. Each also has its own address, so that ports do not run out.
inline source user_number(unsigned number) { return {address_of(number), 20'000 + number}; }

inline bool can_be_several_users() {
    const auto before = static_cast<uid_t>(setfsuid(20'000));
    const bool done = static_cast<uid_t>(setfsuid(before)) == 20'000;
    return done;
}

#define QOR_NEEDS_SEVERAL_USERS()                                                                                      \
    if (!can_be_several_users())                                                                                       \
    GTEST_SKIP() << "only root can connect as several users"

class socket_peer {
public:
    // `buffer_size` is for bytes that nobody reads; 0 lets the system choose.
    socket_peer(uint16 port, const source& from, int buffer_size = 0) : m_socket(make(from.user)) {
        const int on = 1;
        setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        // The port is chosen when the connection is made, so that every pair of ports can be used.
        setsockopt(m_socket, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
        setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (buffer_size != 0)
            setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &buffer_size, sizeof buffer_size);
        sockaddr_in at{};
        at.sin_family = AF_INET;
        inet_pton(AF_INET, from.address.c_str(), &at.sin_addr);
        EXPECT_EQ(bind(m_socket, reinterpret_cast<const sockaddr*>(&at), sizeof at), 0) << std::strerror(errno);
        at.sin_port = htons(port);
        at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(m_socket, reinterpret_cast<const sockaddr*>(&at), sizeof at), 0) << std::strerror(errno);
    }
    socket_peer(const socket_peer&) = delete;
    socket_peer& operator=(const socket_peer&) = delete;
    ~socket_peer() { ::close(m_socket); }

    int handle() const { return m_socket; }

    // Writes without waiting for space. Returns false if not all bytes were sent.
    bool write(std::string_view bytes) {
        return send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
               static_cast<ssize_t>(bytes.size());
    }

    // Returns the bytes that arrive in time: nullopt if none did, an empty text if the connection was cut.
    std::optional<std::string> read(std::chrono::milliseconds patience) {
        pollfd watched{m_socket, POLLIN, 0};
        if (poll(&watched, 1, static_cast<int>(patience.count())) <= 0)
            return std::nullopt;
        char bytes[16384];
        const ssize_t got = recv(m_socket, bytes, sizeof bytes, MSG_DONTWAIT);
        return std::string(bytes, got > 0 ? static_cast<std::size_t>(got) : 0);
    }

    // Ignores all other input.
    bool is_cut_within(std::chrono::milliseconds patience) {
        for (const auto end = test_clock::now() + patience; test_clock::now() <= end;)
            if (const auto came = read(left_until(end)); came && came->empty())
                return true;
        return false;
    }

private:
    // A socket belongs to the user who creates it. The file-system user is changed for this thread only.
    static int make(std::optional<uid_t> user) {
        const uid_t before = geteuid();
        if (user)
            setfsuid(*user);
        const int made = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (user)
            setfsuid(before);
        return made;
    }

    int m_socket;
};

// The same with TLS and frames.
class tls_peer {
public:
    tls_peer(uint16 port, const source& from, int buffer_size = 0) : socket(port, from, buffer_size) {}

    // Does all steps of the handshake, or all except the last message. Returns false on failure.
    bool shake_hands(std::chrono::milliseconds patience = 10s) {
        const auto end = test_clock::now() + patience;
        for (;;) {
            if (tls.is_open())
                return flush();
            if (!flush() || !take_some(end))
                return false;
        }
    }

    bool flush() { return socket.write(tls.take()); }

    bool send(frame_type type, uint32 request, std::string_view payload) {
        tls.send(type, request, payload);
        return flush();
    }

    // Returns the next frame that is not a heartbeat; nullopt if none came in time or the connection is cut.
    std::optional<frame> next(std::chrono::milliseconds patience = 10s) {
        for (const auto end = test_clock::now() + patience; m_frames.empty();) {
            if (!take_some(end))
                return std::nullopt;
            for (frame& each : tls.frames())
                m_frames.push_back(std::move(each));
        }
        frame first = std::move(m_frames.front());
        m_frames.pop_front();
        return first;
    }

    // Logs in up to the answer to the first message.
    std::optional<frame> begin_login(plain_scram::client& who) {
        who.binding = tls.binding();
        return send(frame_type::login_first, 1, who.first()) ? next() : std::nullopt;
    }

    // Does a complete login and returns its last answer.
    std::optional<frame> log_in(plain_scram::client who) {
        const std::optional<frame> first = begin_login(who);
        if (!first || first->type != frame_type::login_first_answer ||
            !send(frame_type::login_final, 2, who.final(first->payload)))
            return std::nullopt;
        return next();
    }

    socket_peer socket;
    memory_client tls;

private:
    bool take_some(test_clock::time_point end) {
        const std::optional<std::string> came = socket.read(left_until(end));
        if (!came || came->empty())
            return false;
        tls.give(*came);
        return true;
    }

    std::deque<frame> m_frames;
};

inline bool is_logged_in(const std::optional<frame>& answer) {
    return answer && answer->type == frame_type::login_final_answer;
}

inline bool is_refusal(const std::optional<frame>& answer) { return answer && answer->type == frame_type::refusal; }

} // namespace qor::test
