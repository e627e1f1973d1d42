#include "rtnetlink_posix.h"

#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

using network::conversation;
using network::dump_result;
using network::dump_state;
using network::dump_tables;

// The kernel fills at most 32 KiB unless a single message needs more.
constexpr std::size_t first_buffer_size = 32 * 1024;
constexpr std::size_t largest_buffer = 16 * 1024 * 1024;

// A dump, described by its request.
struct request {
    const char* name;
    uint16 type;
    std::size_t header_size;
    bool may_be_missing; // a kernel without this object, or a namespace that has none, refuses the request

    void fill(nlmsghdr* message) const;
};

constexpr request links = {"RTM_GETLINK", RTM_GETLINK, sizeof(ifinfomsg), false};
constexpr request addresses = {"RTM_GETADDR", RTM_GETADDR, sizeof(ifaddrmsg), false};
constexpr request routes = {"RTM_GETROUTE", RTM_GETROUTE, sizeof(rtmsg), true};
constexpr request next_hops = {"RTM_GETNEXTHOP", RTM_GETNEXTHOP, sizeof(nhmsg), true};

void request::fill(nlmsghdr* message) const {
    message->nlmsg_type = type;
    message->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    void* const header = mnl_nlmsg_put_extra_header(message, header_size);
    if (type == RTM_GETLINK) {
        // Omit the counters: they take most of the time and are not used here.
        mnl_attr_put_u32(message, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
    } else if (type == RTM_GETROUTE) {
        static_cast<rtmsg*>(header)->rtm_family = AF_INET;
        static_cast<rtmsg*>(header)->rtm_table = RT_TABLE_MAIN;
    }
}

class kernel final : public conversation {
public:
    ~kernel() override {
        if (m_socket != nullptr)
            mnl_socket_close(m_socket);
    }

    int open() override {
        m_socket = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
        if (m_socket == nullptr || mnl_socket_bind(m_socket, 0, MNL_SOCKET_AUTOPID) != 0)
            return errno;
        // Makes the kernel apply the filters of a request. Older kernels do not know this option and send unfiltered
        // data.
        int on = 1;
        mnl_socket_setsockopt(m_socket, NETLINK_GET_STRICT_CHK, &on, sizeof on);
        return 0;
    }

    uint32 port() override { return mnl_socket_get_portid(m_socket); }

    int send(std::span<const uint8> message) override {
        return mnl_socket_sendto(m_socket, message.data(), message.size()) < 0 ? errno : 0;
    }

    int receive(std::span<uint8> buffer, std::size_t& length) override {
        ssize_t got;
        do
            got = mnl_socket_recvfrom(m_socket, buffer.data(), buffer.size());
        while (got < 0 && errno == EINTR);
        length = static_cast<std::size_t>(std::max<ssize_t>(got, 0));
        return got < 0 ? errno : 0;
    }

private:
    mnl_socket* m_socket = nullptr;
};

class dump_reader {
public:
    dump_reader(conversation& with, std::vector<uint8>& buffer, dump_tables& out)
        : m_with(with), m_buffer(buffer), m_out(out) {}

    dump_result read(const request& what) {
        alignas(nlmsghdr) uint8 bytes[256] = {};
        nlmsghdr* const message = mnl_nlmsg_put_header(bytes);
        what.fill(message);
        message->nlmsg_seq = ++m_sequence;
        m_asked = what.name;
        if (const int code = m_with.send({bytes, message->nlmsg_len}))
            return {dump_state::refused, code};
        for (;;) {
            const dump_result result = read_one();
            if (result.state == dump_state::refused && what.may_be_missing &&
                (result.code == ENOENT || result.code == EOPNOTSUPP || result.code == EAFNOSUPPORT))
                return {dump_state::done};
            if (result.state != dump_state::more)
                return result;
        }
    }

    const char* asked() const noexcept { return m_asked; }

private:
    dump_result read_one() {
        std::size_t length = 0;
        switch (const int code = m_with.receive(m_buffer, length)) {
        case 0:
            return network::read_datagram({m_buffer.data(), length}, m_sequence, m_with.port(), m_out);
        case ENOBUFS:
            return {dump_state::interrupted};
        case ENOSPC:
            if (m_buffer.size() >= largest_buffer)
                return {dump_state::senseless};
            m_buffer.resize(m_buffer.size() * 2);
            return {dump_state::interrupted};
        default:
            return {dump_state::refused, code};
        }
    }

    conversation& m_with;
    std::vector<uint8>& m_buffer;
    dump_tables& m_out;
    uint32 m_sequence = 0;
    const char* m_asked = "socket";
};

dump_result read_all(dump_reader& reader, const dump_tables& tables) {
    for (const request& each : {links, addresses, routes})
        if (const dump_result result = reader.read(each); result.state != dump_state::done)
            return result;
    const bool is_needed = std::ranges::any_of(tables.gateways, [](const auto& each) { return each.next_hop != 0; });
    return is_needed ? reader.read(next_hops) : dump_result{dump_state::done};
}

void report(const dump_result& result, const char* asked) {
    switch (result.state) {
    case dump_state::refused:
        qorSetLastError(qorError_system, (std::string("rtnetlink, ") + asked).c_str(), std::strerror(result.code));
        break;
    case dump_state::interrupted:
        qorSetLastError(qorError_interfaces_change);
        break;
    default:
        qorSetLastError(qorError_netlink_senseless, asked);
        break;
    }
}

} // namespace

bool network::read_dumps(const std::function<std::unique_ptr<conversation>()>& begin, dump_tables& out) {
    std::vector<uint8> buffer(first_buffer_size);
    for (int left = dump_attempts;; --left) {
        out = {};
        const std::unique_ptr<conversation> talk = begin();
        dump_reader reader(*talk, buffer, out);
        const int code = talk->open();
        const dump_result result = code != 0 ? dump_result{dump_state::refused, code} : read_all(reader, out);
        if (result.state == dump_state::done)
            return true;
        if (result.state != dump_state::interrupted || left == 1) {
            report(result, reader.asked());
            return false;
        }
    }
}

std::unique_ptr<conversation> network::talk_to_kernel() { return std::make_unique<kernel>(); }
