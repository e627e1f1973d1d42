#include "unix_socket.h"

#include <cstddef>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace qor::record {

namespace {

socklen_t set_name(sockaddr_un& address, const std::string& name) {
    address.sun_family = AF_UNIX;
    const std::size_t size = std::min(name.size(), sizeof address.sun_path - 1);
    std::memcpy(address.sun_path + 1, name.data(), size);
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + size);
}

using action = int (*)(int, const sockaddr*, socklen_t);

int make_socket(const std::string& name, int flags, action act) {
    const int made = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0);
    sockaddr_un address{};
    const socklen_t size = set_name(address, name);
    if (made >= 0 && act(made, reinterpret_cast<const sockaddr*>(&address), size) == 0)
        return made;
    if (made >= 0)
        ::close(made);
    return -1;
}

} // namespace

int listen_at(const std::string& name) {
    const int made = make_socket(name, SOCK_NONBLOCK, &::bind);
    constexpr int most_waiting = 1000;
    if (made < 0 || ::listen(made, most_waiting) == 0)
        return made;
    ::close(made);
    return -1;
}

int connect_to(const std::string& name) { return make_socket(name, 0, &::connect); }

bool peer_of(int connection, peer& found) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
        return false;
    found = {credentials.pid, credentials.uid};
    return true;
}

int accept_at(int socket) { return socket >= 0 ? ::accept4(socket, nullptr, nullptr, SOCK_CLOEXEC) : -1; }

std::string receive(int connection, std::size_t size) {
    std::string text(size, '\0');
    pollfd wanted{connection, POLLIN, 0};
    const ssize_t received = ::poll(&wanted, 1, 1000) > 0 ? ::recv(connection, text.data(), size, MSG_DONTWAIT) : -1;
    text.resize(received > 0 ? static_cast<std::size_t>(received) : 0);
    return text;
}

bool send_text(int connection, const std::string& text) {
    return ::send(connection, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
           static_cast<ssize_t>(text.size());
}

bool send_descriptor(int connection, int descriptor) {
    char byte = 0;
    iovec content{&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* const head = CMSG_FIRSTHDR(&message);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(head), &descriptor, sizeof descriptor);
    return ::sendmsg(connection, &message, MSG_NOSIGNAL | MSG_DONTWAIT) == 1;
}

} // namespace qor::record
