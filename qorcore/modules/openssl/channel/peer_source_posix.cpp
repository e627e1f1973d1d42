#include "peer_source_posix.h"

#include "peer_source.h"

#include <cstdio>
#include <cstring>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using qor::sockets::endpoint;
using qor::sockets::owner_answer;

// The size without the family: an IPv4 address has 4 bytes.
std::size_t address_size(const endpoint& of) noexcept { return of.is_ipv6() ? 16 : 4; }
const unsigned char* address_bytes(const endpoint& of) noexcept {
    return of.bytes + (of.is_ipv6() ? endpoint::ipv6_at : endpoint::ipv4_at);
}

// Formats an end of a connection as in the kernel's lists: words of 32 bits in memory order, and the port. The IPv6
// list has IPv4 addresses in their mapped form.
std::string listed(const endpoint& of, bool among_ipv6) {
    unsigned char bytes[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    const std::size_t size = among_ipv6 ? 16 : 4;
    std::memcpy(bytes + size - address_size(of), address_bytes(of), address_size(of));
    std::string text;
    for (std::size_t at = 0; at < size; at += 4) {
        std::uint32_t word;
        std::memcpy(&word, bytes + at, 4);
        char digits[9];
        std::snprintf(digits, sizeof digits, "%08X", word);
        text += digits;
    }
    char port[6];
    std::snprintf(port, sizeof port, ":%04X", of.port());
    return text + port;
}

} // namespace

owner_answer qor::sockets::owner_by_question(const endpoint& from, const endpoint& here, std::uint32_t& user) {
    struct {
        nlmsghdr head;
        inet_diag_req_v2 what;
    } question{};
    question.head = {sizeof question, SOCK_DIAG_BY_FAMILY, NLM_F_REQUEST, 1, 0};
    question.what.sdiag_family = static_cast<unsigned char>(from.is_ipv6() ? AF_INET6 : AF_INET);
    question.what.sdiag_protocol = IPPROTO_TCP;
    question.what.idiag_states = ~0u;
    inet_diag_sockid& id = question.what.id;
    id.idiag_sport = htons(from.port());
    id.idiag_dport = htons(here.port());
    std::memcpy(id.idiag_src, address_bytes(from), address_size(from));
    std::memcpy(id.idiag_dst, address_bytes(here), address_size(here));
    if (from.is_ipv6())
        id.idiag_if = reinterpret_cast<const sockaddr_in6*>(from.bytes)->sin6_scope_id;
    id.idiag_cookie[0] = id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    const int made = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_SOCK_DIAG);
    if (made < 0)
        return owner_answer::cannot_ask;
    const socket to(made);
    // The kernel answers before send() returns, so receive() need not wait.
    alignas(nlmsghdr) char bytes[1024];
    std::size_t size;
    if (sockets::send(to, reinterpret_cast<const char*>(&question), sizeof question, &size) != 0 ||
        sockets::receive(to, bytes, sizeof bytes, &size) != 0 || size < sizeof(nlmsghdr))
        return owner_answer::cannot_ask;
    const auto& head = *reinterpret_cast<const nlmsghdr*>(bytes);
    if (head.nlmsg_type == NLMSG_ERROR && size >= NLMSG_LENGTH(sizeof(nlmsgerr)))
        return reinterpret_cast<const nlmsgerr*>(NLMSG_DATA(&head))->error == -ENOENT ? owner_answer::nobody
                                                                                      : owner_answer::cannot_ask;
    if (head.nlmsg_type != SOCK_DIAG_BY_FAMILY || size < NLMSG_LENGTH(sizeof(inet_diag_msg)))
        return owner_answer::cannot_ask;
    const auto& found = *reinterpret_cast<const inet_diag_msg*>(NLMSG_DATA(&head));
    // If there is no such socket, the kernel returns a listener on that port. A socket that its process has closed
    // appears to belong to root. Neither is an answer.
    if (found.idiag_state == TCP_LISTEN || found.idiag_inode == 0 || found.id.idiag_dport != id.idiag_dport)
        return owner_answer::nobody;
    user = found.idiag_uid;
    return owner_answer::found;
}

owner_answer qor::sockets::owner_by_list(const char* folder, const endpoint& from, const endpoint& here,
                                         std::uint32_t& user) {
    bool is_listed = false;
    for (const bool among_ipv6 : {false, true}) {
        if (from.is_ipv6() && !among_ipv6)
            continue;
        std::FILE* const list = std::fopen((std::string(folder) + (among_ipv6 ? "/tcp6" : "/tcp")).c_str(), "re");
        if (list == nullptr)
            continue;
        is_listed = true;
        const std::string near_end = listed(from, among_ipv6), far_end = listed(here, among_ipv6);
        char line[512], near[64], far[64];
        unsigned owner = 0;
        unsigned long inode = 0;
        bool found = false;
        while (!found && std::fgets(line, sizeof line, list) != nullptr)
            found =
                std::sscanf(line, " %*[0-9]: %63s %63s %*x %*s %*s %*x %u %*u %lu", near, far, &owner, &inode) == 4 &&
                near == near_end && far == far_end && inode != 0;
        std::fclose(list);
        if (found) {
            user = owner;
            return owner_answer::found;
        }
    }
    return is_listed ? owner_answer::nobody : owner_answer::cannot_ask;
}

bool qor::sockets::owner_of(const endpoint& from, const endpoint& here, std::string& user) {
    std::uint32_t number = 0;
    owner_answer answer = owner_by_question(from, here, number);
    // The lists are long if there are many connections, and they contain no sockets of other hosts.
    if (answer == owner_answer::cannot_ask && from.is_loopback())
        answer = owner_by_list("/proc/net", from, here, number);
    if (answer == owner_answer::found)
        user = std::to_string(number);
    return answer == owner_answer::found;
}
