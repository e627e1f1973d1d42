// Dumps of rtnetlink, against a plain reader of links and addresses. The first message of an input says which request
// is answered. The corpus was recorded from kernels.
#include "interfaces_posix.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <map>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace {

void require(bool agreed) {
    if (!agreed)
        std::abort();
}

using network::dump_state;

// What is left of a datagram.
struct rest {
    const std::uint8_t* at;
    std::size_t size;

    template <class VALUE>
    bool look(VALUE& value) const {
        if (size >= sizeof value)
            std::memcpy(&value, at, sizeof value);
        return size >= sizeof value;
    }
    rest first(std::size_t count) const { return {at, std::min(count, size)}; }
    // Behind `count` bytes, and what fills them up to four.
    rest behind(std::size_t count) const {
        const std::size_t padded = std::min((count + 3) / 4 * 4, size);
        return {at + padded, size - padded};
    }
    std::string bytes() const { return {reinterpret_cast<const char*>(at), size}; }
};

// The last attribute of each type.
std::map<int, std::string> attributes(rest from) {
    std::map<int, std::string> all;
    for (nlattr head; from.look(head) && head.nla_len >= sizeof head && head.nla_len <= from.size;
         from = from.behind(head.nla_len))
        all[head.nla_type & NLA_TYPE_MASK] = from.first(head.nla_len).bytes().substr(sizeof head);
    return all;
}

std::string up_to_nul(const std::string& text) { return text.substr(0, text.find('\0')); }

// One line for each link and address, and the state at the end; no line is made of what makes no sense.
struct reading {
    std::vector<std::string> lines;
    dump_state state = dump_state::more;
};

template <class HEADER>
bool split(rest message, HEADER& header, rest& behind) {
    rest payload{message.at + sizeof(nlmsghdr), message.size - sizeof(nlmsghdr)};
    behind = payload.behind(sizeof header);
    return payload.look(header);
}

std::string address_line(const ifaddrmsg& header, const std::string& address) {
    return "address " + std::to_string(header.ifa_index) + " " + std::to_string(header.ifa_prefixlen) + " " + address;
}

// False: it makes no sense.
bool plain_message(int type, rest message, reading& out) {
    rest behind;
    if (type == RTM_NEWLINK) {
        ifinfomsg header;
        if (!split(message, header, behind))
            return false;
        auto all = attributes(behind);
        out.lines.push_back("link " + std::to_string(static_cast<std::uint32_t>(header.ifi_index)) + " " +
                            up_to_nul(all[IFLA_IFNAME]) + " " + all[IFLA_ADDRESS]);
    } else if (type == RTM_NEWADDR) {
        ifaddrmsg header;
        if (!split(message, header, behind))
            return false;
        if (header.ifa_family != AF_INET && header.ifa_family != AF_INET6)
            return true;
        auto all = attributes(behind);
        const std::string address = all[all[IFA_LOCAL].empty() ? IFA_ADDRESS : IFA_LOCAL];
        if (address.size() != (header.ifa_family == AF_INET ? 4 : 16))
            return false;
        out.lines.push_back(address_line(header, address));
    }
    return true;
}

// Routes and next hops are not read here: where there are any, is_compared becomes false.
reading plain(rest datagram, std::uint32_t sequence, std::uint32_t port, bool& is_compared) {
    reading out;
    nlmsghdr head;
    for (; datagram.look(head) && head.nlmsg_len >= sizeof head && head.nlmsg_len <= datagram.size;
         datagram = datagram.behind(head.nlmsg_len)) {
        if (head.nlmsg_seq != sequence || head.nlmsg_pid != port)
            continue;
        const rest message = datagram.first(head.nlmsg_len);
        if ((head.nlmsg_flags & NLM_F_DUMP_INTR) != 0 || head.nlmsg_type == NLMSG_OVERRUN) {
            out.state = dump_state::interrupted;
            return out;
        }
        if (head.nlmsg_type == NLMSG_DONE || head.nlmsg_type == NLMSG_ERROR) {
            int code = 0;
            rest unused;
            if (split(message, code, unused) && -4096 < code && code < 0)
                out.state = dump_state::refused;
            else if (code == 0 && message.size >= sizeof head + sizeof code && head.nlmsg_type == NLMSG_DONE)
                out.state = dump_state::done;
            else
                out.state = dump_state::senseless;
            return out;
        }
        is_compared &= head.nlmsg_type != RTM_NEWROUTE && head.nlmsg_type != RTM_NEWNEXTHOP;
        if (!plain_message(head.nlmsg_type, message, out)) {
            out.state = dump_state::senseless;
            return out;
        }
    }
    if (datagram.size != 0)
        out.state = dump_state::senseless;
    return out;
}

std::vector<std::string> lines_of(const network::dump_tables& tables) {
    std::vector<std::string> links;
    for (const auto& link : tables.links)
        links.push_back("link " + std::to_string(link.index) + " " + link.name + " " +
                        std::string(link.hardware_address.begin(), link.hardware_address.end()));
    for (const auto& row : tables.addresses) {
        ifaddrmsg header{};
        header.ifa_index = row.link;
        header.ifa_prefixlen = row.prefix_length;
        links.push_back(address_line(header, {row.bytes.begin(), row.bytes.begin() + (row.is_ipv6 ? 16 : 4)}));
    }
    return links;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const rest all{data, size};
    nlmsghdr first{};
    all.look(first);
    network::dump_tables tables;
    const auto result = network::read_datagram({data, size}, first.nlmsg_seq, first.nlmsg_pid, tables);

    bool is_compared = true;
    reading expected = plain(all, first.nlmsg_seq, first.nlmsg_pid, is_compared);
    if (is_compared) {
        require(result.state == expected.state);
        // There, links come before addresses.
        std::stable_partition(expected.lines.begin(), expected.lines.end(),
                              [](const std::string& line) { return line.starts_with("link"); });
        require(lines_of(tables) == expected.lines);
    }
    // Whatever was read can be put together.
    network::device_finder devices("/nowhere");
    require(network::put_together(tables, devices).size() == tables.links.size());
    return 0;
}
