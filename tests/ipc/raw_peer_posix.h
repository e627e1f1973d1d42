// A peer that speaks the protocol by hand, or breaks it: a plain Unix socket.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace qor::test {

inline std::string number(std::uint32_t value) {
    std::string out;
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<char>(value >> (8 * i)));
    return out;
}

inline std::string frame(std::uint32_t kind, std::string_view bytes) {
    std::string out = number(static_cast<std::uint32_t>(bytes.size()));
    out.append(number(kind)).append(bytes);
    return out;
}

inline std::string hello(std::uint32_t longest = 1 << 20, std::uint32_t silence = 0) {
    std::string out = "qmsg";
    out.append(number(1)).append(number(longest)).append(number(silence));
    return frame(4, out);
}

class raw_peer {
public:
    explicit raw_peer(const std::string& path) : m_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
            << path << ": " << std::strerror(errno);
    }
    explicit raw_peer(int socket) : m_socket(socket) {}
    raw_peer(const raw_peer&) = delete;
    raw_peer& operator=(const raw_peer&) = delete;
    ~raw_peer() { close(); }

    int get() const { return m_socket; }
    void close() {
        if (m_socket >= 0)
            ::close(m_socket);
        m_socket = -1;
    }
    // False if the other side has closed.
    bool put(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t sent = send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent < 0)
                return false;
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }
    // Fewer than `length` at the end.
    std::string get(std::size_t length) {
        std::string out(length, '\0');
        std::size_t have = 0;
        while (have < length) {
            const ssize_t got = recv(m_socket, out.data() + have, length - have, 0);
            if (got <= 0)
                break;
            have += static_cast<std::size_t>(got);
        }
        out.erase(have);
        return out;
    }
    // The next frame that is no sign of life, header included; empty at the end.
    std::string next() {
        for (;;) {
            std::string head = get(8);
            if (head.size() < 8)
                return {};
            std::uint32_t length = 0;
            for (int i = 3; i >= 0; --i)
                length = length << 8 | static_cast<unsigned char>(head[static_cast<std::size_t>(i)]);
            if (head[4] == 1)
                continue;
            head.append(get(length));
            return head;
        }
    }
    // Whether the other side closes, whatever it sends before.
    bool is_closed_by_other() {
        char some[4096];
        for (;;) {
            const ssize_t got = recv(m_socket, some, sizeof some, 0);
            if (got <= 0)
                return got == 0 || errno == ECONNRESET;
        }
    }

private:
    int m_socket;
};

} // namespace qor::test
