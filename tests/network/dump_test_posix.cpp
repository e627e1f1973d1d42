// Hand-written dumps: contents that no host of ours has, and faults.
#include "message_maker.h"
#include "rtnetlink_posix.h"
#include "support/last_error.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <deque>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/if_tun.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace {

using namespace network_test;
using network::dump_state;
using network::dump_tables;

dump_tables read(const bytes& datagram, dump_state expected = dump_state::more, int code = 0) {
    dump_tables tables;
    const network::dump_result result = network::read_datagram(datagram, sequence, port, tables);
    EXPECT_EQ(result.state, expected);
    EXPECT_EQ(result.code, code);
    return tables;
}

bytes link(int index, const std::string& name, std::initializer_list<bytes> further = {}, int type = ARPHRD_ETHER) {
    ifinfomsg header{};
    header.ifi_index = index;
    header.ifi_type = static_cast<uint16>(type);
    return message(RTM_NEWLINK, header, {attribute(IFLA_IFNAME, text(name)), join(further)});
}

bytes address4(uint32 index, std::initializer_list<bytes> attributes) {
    ifaddrmsg header{};
    header.ifa_family = AF_INET;
    header.ifa_prefixlen = 24;
    header.ifa_index = index;
    return message(RTM_NEWADDR, header, attributes);
}

rtmsg default_route() {
    rtmsg header{};
    header.rtm_family = AF_INET;
    header.rtm_table = RT_TABLE_MAIN;
    header.rtm_type = RTN_UNICAST;
    return header;
}

const bytes gateway_1 = {10, 0, 0, 1};
const bytes gateway_2 = {10, 0, 0, 2};

bytes hop(int link, const bytes& gateway, int flags = 0) {
    const bytes inside = attribute(RTA_GATEWAY, gateway);
    return join(
        {raw(rtnexthop{static_cast<uint16>(sizeof(rtnexthop) + inside.size()), static_cast<uint8>(flags), 0, link}),
         inside});
}

using qor::test::last_error;

} // namespace

TEST(netlink_dump, hardware_addresses_of_every_length) {
    for (std::size_t length = 0; length <= 32; ++length) {
        bytes address(length);
        for (std::size_t i = 0; i < length; ++i)
            address[i] = static_cast<uint8>(0xf0 + i);
        const auto tables = read(link(7, "ib0", {attribute(IFLA_ADDRESS, address)}, ARPHRD_INFINIBAND));
        ASSERT_EQ(tables.links.size(), 1u);
        EXPECT_EQ(tables.links[0].index, 7u);
        EXPECT_EQ(tables.links[0].type, ARPHRD_INFINIBAND);
        EXPECT_EQ(tables.links[0].hardware_address, address);
    }
}

TEST(netlink_dump, what_is_known_of_a_link) {
    const auto tables = read(
        join({link(3, "tap0",
                   {attribute(IFLA_IFALIAS, text("to the lab")),
                    attribute(IFLA_PROP_LIST | NLA_F_NESTED,
                              join({attribute(IFLA_ALT_IFNAME, text("first")),
                                    attribute(IFLA_ALT_IFNAME, text("a name of more than fifteen bytes"))})),
                    attribute(IFLA_LINKINFO, join({attribute(IFLA_INFO_KIND, text("tun")),
                                                   attribute(IFLA_INFO_DATA, attribute(IFLA_TUN_TYPE, {IFF_TAP}))}))}),
              link(4, "eth1",
                   {attribute(IFLA_PARENT_DEV_NAME, text("0000:00:03.0")),
                    attribute(IFLA_PARENT_DEV_BUS_NAME, text("pci"))})}));
    ASSERT_EQ(tables.links.size(), 2u);
    EXPECT_EQ(tables.links[0].name, "tap0");
    EXPECT_EQ(tables.links[0].alias, "to the lab");
    EXPECT_EQ(tables.links[0].alternative_names,
              (std::vector<std::string>{"first", "a name of more than fifteen bytes"}));
    EXPECT_EQ(tables.links[0].kind, "tun");
    EXPECT_EQ(tables.links[0].tun_type, IFF_TAP);
    EXPECT_EQ(tables.links[1].bus, "pci");
    EXPECT_EQ(tables.links[1].device, "0000:00:03.0");
}

TEST(netlink_dump, on_a_link_to_a_peer_the_address_is_ours) {
    const auto tables =
        read(join({address4(2, {attribute(IFA_ADDRESS, {10, 0, 0, 9}), attribute(IFA_LOCAL, {10, 0, 0, 8}),
                                attribute(IFA_LABEL, text("ppp0:1"))}),
                   address4(2, {attribute(IFA_ADDRESS, {10, 0, 0, 7})})}));
    ASSERT_EQ(tables.addresses.size(), 2u);
    EXPECT_EQ(tables.addresses[0].bytes[3], 8);
    EXPECT_EQ(tables.addresses[0].prefix_length, 24);
    EXPECT_EQ(tables.addresses[1].bytes[3], 7);
    EXPECT_FALSE(tables.addresses[0].is_ipv6);
}

TEST(netlink_dump, addresses_of_other_families_are_passed_over) {
    ifaddrmsg header{};
    header.ifa_family = AF_PHONET;
    EXPECT_TRUE(read(message(RTM_NEWADDR, header, {attribute(IFA_LOCAL, {1})})).addresses.empty());
}

TEST(netlink_dump, an_address_of_the_wrong_length_makes_no_sense) {
    for (std::size_t length : {0, 1, 3, 5, 16})
        read(address4(2, {attribute(IFA_LOCAL, bytes(length, 1))}), dump_state::senseless);
}

TEST(netlink_dump, default_routes_with_a_gateway) {
    const auto one = read(
        message(RTM_NEWROUTE, default_route(),
                {attribute(RTA_GATEWAY, gateway_1), attribute(RTA_OIF, raw(5)), attribute(RTA_PRIORITY, raw(100))}));
    ASSERT_EQ(one.gateways.size(), 1u);
    EXPECT_EQ(one.gateways[0].link, 5u);
    EXPECT_EQ(one.gateways[0].metric, 100u);
    EXPECT_EQ(one.gateways[0].gateway[3], 1);

    const auto several = read(message(
        RTM_NEWROUTE, default_route(),
        {attribute(RTA_MULTIPATH, join({hop(5, gateway_1), hop(6, gateway_2), hop(7, gateway_2, RTNH_F_DEAD)}))}));
    ASSERT_EQ(several.gateways.size(), 2u);
    EXPECT_EQ(several.gateways[0].link, 5u);
    EXPECT_EQ(several.gateways[1].link, 6u);
    EXPECT_EQ(several.gateways[1].gateway[3], 2);
}

TEST(netlink_dump, routes_that_are_no_default_gateway) {
    const bytes gateway = attribute(RTA_GATEWAY, gateway_1);
    const auto expect_none = [&](rtmsg header, const bytes& more = {}) {
        EXPECT_TRUE(read(message(RTM_NEWROUTE, header, {gateway, attribute(RTA_OIF, raw(5)), more})).gateways.empty());
    };
    rtmsg header = default_route();
    header.rtm_dst_len = 1;
    expect_none(header);
    header = default_route();
    header.rtm_table = 100;
    expect_none(header);
    expect_none(default_route(), attribute(RTA_TABLE, raw(1000)));
    header = default_route();
    header.rtm_type = RTN_UNREACHABLE;
    expect_none(header);
    header = default_route();
    header.rtm_tos = 8;
    expect_none(header);
    header = default_route();
    header.rtm_flags = RTM_F_CLONED;
    expect_none(header);
    header = default_route();
    header.rtm_flags = RTNH_F_DEAD;
    expect_none(header);
    header = default_route();
    header.rtm_family = AF_INET6;
    expect_none(header);
    // A gateway with only an IPv6 address, and a route without a gateway.
    EXPECT_TRUE(
        read(message(RTM_NEWROUTE, default_route(), {attribute(RTA_VIA, bytes(18, 1)), attribute(RTA_OIF, raw(5))}))
            .gateways.empty());
    EXPECT_TRUE(read(message(RTM_NEWROUTE, default_route(), {attribute(RTA_OIF, raw(5))})).gateways.empty());
}

TEST(netlink_dump, several_next_hops_that_do_not_fit_make_no_sense) {
    bytes broken = hop(5, gateway_1);
    broken[0] = 200;
    read(message(RTM_NEWROUTE, default_route(), {attribute(RTA_MULTIPATH, broken)}), dump_state::senseless);
    broken[0] = 3;
    read(message(RTM_NEWROUTE, default_route(), {attribute(RTA_MULTIPATH, broken)}), dump_state::senseless);
}

TEST(netlink_dump, next_hops_by_number) {
    const auto tables = read(
        join({message(RTM_NEWROUTE, default_route(), {attribute(RTA_NH_ID, raw(9)), attribute(RTA_PRIORITY, raw(3))}),
              message(RTM_NEWNEXTHOP, nhmsg{AF_INET, 0, 0, 0, 0},
                      {attribute(NHA_ID, raw(8)), attribute(NHA_OIF, raw(5)), attribute(NHA_GATEWAY, gateway_2)}),
              message(RTM_NEWNEXTHOP, nhmsg{AF_UNSPEC, 0, 0, 0, 0},
                      {attribute(NHA_ID, raw(9)), attribute(NHA_GROUP, raw(nexthop_grp{8, 0, 0, 0}))}),
              message(RTM_NEWNEXTHOP, nhmsg{AF_INET, 0, 0, 0, RTNH_F_DEAD},
                      {attribute(NHA_ID, raw(10)), attribute(NHA_OIF, raw(5)), attribute(NHA_GATEWAY, gateway_2)})}));
    ASSERT_EQ(tables.gateways.size(), 1u);
    EXPECT_EQ(tables.gateways[0].next_hop, 9u);
    EXPECT_EQ(tables.gateways[0].metric, 3u);
    ASSERT_EQ(tables.next_hops.size(), 2u);
    EXPECT_EQ(tables.next_hops[0].link, 5u);
    EXPECT_EQ((*tables.next_hops[0].gateway)[3], 2);
    EXPECT_EQ(tables.next_hops[1].group, std::vector<uint32>{8});
}

TEST(netlink_dump, what_the_kernel_looked_up_needs_no_next_hop) {
    const auto tables =
        read(message(RTM_NEWROUTE, default_route(),
                     {attribute(RTA_NH_ID, raw(9)), attribute(RTA_GATEWAY, gateway_1), attribute(RTA_OIF, raw(5))}));
    ASSERT_EQ(tables.gateways.size(), 1u);
    EXPECT_EQ(tables.gateways[0].next_hop, 0u);
}

TEST(netlink_dump, how_it_ends) {
    read(link(1, "lo"), dump_state::more);
    read(join({link(1, "lo"), done()}), dump_state::done);
    read(join({link(1, "lo"), done(-EINVAL)}), dump_state::refused, EINVAL);
    read(refusal(EPERM), dump_state::refused, EPERM);
    read(refusal(0), dump_state::senseless);
    for (const int status : {1, INT_MIN, -4096})
        read(done(status), dump_state::senseless);
    read(done(0, NLM_F_MULTI | NLM_F_DUMP_INTR), dump_state::interrupted);
    nlmsghdr interrupted = header_of(link(1, "lo"));
    interrupted.nlmsg_flags |= NLM_F_DUMP_INTR;
    read(with_header(link(1, "lo"), interrupted), dump_state::interrupted);
    read({}, dump_state::more);
}

TEST(netlink_dump, answers_to_somebody_else_are_passed_over) {
    nlmsghdr foreign = header_of(link(1, "lo"));
    foreign.nlmsg_seq = 99;
    const bytes late = with_header(link(1, "lo"), foreign);
    foreign = header_of(link(1, "lo"));
    foreign.nlmsg_pid = 0;
    const bytes event = with_header(link(1, "lo"), foreign);
    EXPECT_EQ(read(join({late, event, link(2, "eth0"), done()}), dump_state::done).links.size(), 1u);
}

TEST(netlink_dump, what_is_cut_off_makes_no_sense) {
    const bytes whole = link(1, "lo", {attribute(IFLA_ADDRESS, bytes(6, 1))});
    for (std::size_t length = 1; length < whole.size(); ++length)
        read({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)}, dump_state::senseless);
    nlmsghdr endless = header_of(whole);
    endless.nlmsg_len = 0x80000010;
    read(with_header(whole, endless), dump_state::senseless);
    // A message without room for its own header.
    for (const int type :
         std::initializer_list<int>{RTM_NEWLINK, RTM_NEWADDR, RTM_NEWROUTE, RTM_NEWNEXTHOP, NLMSG_DONE, NLMSG_ERROR}) {
        const bytes padded = message(type, uint8{1}, {}, 0);
        nlmsghdr header = header_of(padded);
        header.nlmsg_len = sizeof header + 1;
        read(with_header(padded, header), dump_state::senseless);
    }
}

// ---- the exchange with a kernel

namespace {

struct reply {
    int code = 0;
    bytes datagram{};
};

// Answers with prepared messages; one list for each conversation.
struct script {
    std::deque<std::vector<reply>> conversations;
    std::vector<std::size_t> buffers{};
    int begun = 0;
    int open_code = 0;
    int send_code = 0;
};

class scripted final : public network::conversation {
public:
    explicit scripted(script& from) : m_script(from) {
        ++m_script.begun;
        if (!m_script.conversations.empty()) {
            m_replies = {m_script.conversations.front().begin(), m_script.conversations.front().end()};
            if (m_script.conversations.size() > 1)
                m_script.conversations.pop_front();
        }
    }
    int open() override { return m_script.open_code; }
    uint32 port() override { return network_test::port; }
    int send(std::span<const uint8> request) override {
        std::memcpy(&m_asked, request.data(), sizeof m_asked);
        return m_script.send_code;
    }
    int receive(std::span<uint8> buffer, std::size_t& length) override {
        m_script.buffers.push_back(buffer.size());
        if (m_replies.empty())
            return ETIMEDOUT;
        reply next = m_replies.front();
        m_replies.pop_front();
        // Recorded messages have sequence 1; the answer must have that of the request.
        for (std::size_t at = 0; at + sizeof(nlmsghdr) <= next.datagram.size();) {
            nlmsghdr header;
            std::memcpy(&header, next.datagram.data() + at, sizeof header);
            header.nlmsg_seq = m_asked.nlmsg_seq;
            std::memcpy(next.datagram.data() + at, &header, sizeof header);
            at += std::max<std::size_t>(sizeof header, (header.nlmsg_len + 3) / 4 * 4);
        }
        std::ranges::copy(next.datagram, buffer.begin());
        length = next.datagram.size();
        return next.code;
    }

private:
    script& m_script;
    std::deque<reply> m_replies;
    nlmsghdr m_asked{};
};

bool talk(script& with, dump_tables& out) {
    return network::read_dumps([&with] { return std::make_unique<scripted>(with); }, out);
}

// The answers of a quiet host: one link, one address, no route.
std::vector<reply> quiet_host() {
    return {{0, link(1, "lo")},
            {0, done()},
            {0, join({address4(1, {attribute(IFA_LOCAL, {127, 0, 0, 1})}), done()})},
            {0, done()}};
}

std::vector<reply> then(std::vector<reply> first, const std::vector<reply>& rest) {
    first.insert(first.end(), rest.begin(), rest.end());
    return first;
}

} // namespace

TEST(netlink_talk, reads_three_dumps) {
    script kernel{{quiet_host()}};
    dump_tables tables;
    ASSERT_TRUE(talk(kernel, tables));
    EXPECT_EQ(tables.links.size(), 1u);
    EXPECT_EQ(tables.addresses.size(), 1u);
    EXPECT_EQ(kernel.begun, 1);
}

TEST(netlink_talk, begins_again_when_something_changed_and_keeps_nothing) {
    const std::vector<reply> interruptions[] = {
        {{0, link(1, "old")}, {0, done(0, NLM_F_MULTI | NLM_F_DUMP_INTR)}},
        {{0, link(1, "old")}, {ENOBUFS, {}}},
        {{0, join({link(1, "old"), done()})}, {0, done(0, NLM_F_MULTI | NLM_F_DUMP_INTR)}},
        {{0, join({link(1, "old"), done()})}, {0, done()}, {0, done(0, NLM_F_MULTI | NLM_F_DUMP_INTR)}},
    };
    for (const auto& interruption : interruptions) {
        script kernel{{interruption, interruption, quiet_host()}};
        dump_tables tables;
        ASSERT_TRUE(talk(kernel, tables));
        EXPECT_EQ(kernel.begun, 3);
        ASSERT_EQ(tables.links.size(), 1u);
        EXPECT_EQ(tables.links[0].name, "lo");
    }
}

TEST(netlink_talk, does_not_begin_again_for_ever) {
    script kernel{{{{0, done(0, NLM_F_MULTI | NLM_F_DUMP_INTR)}}}};
    dump_tables tables;
    EXPECT_FALSE(talk(kernel, tables));
    EXPECT_EQ(kernel.begun, network::dump_attempts);
    EXPECT_EQ(last_error(), "The network interfaces change faster than they can be listed.");
}

TEST(netlink_talk, a_message_longer_than_the_buffer_is_read_with_a_longer_one) {
    script kernel{{{{ENOSPC, {}}}, {{ENOSPC, {}}}, quiet_host()}};
    dump_tables tables;
    ASSERT_TRUE(talk(kernel, tables));
    ASSERT_GE(kernel.buffers.size(), 3u);
    EXPECT_EQ(kernel.buffers[1], 2 * kernel.buffers[0]);
    EXPECT_EQ(kernel.buffers[2], 4 * kernel.buffers[0]);
}

TEST(netlink_talk, no_message_is_endless) {
    script kernel{{{{ENOSPC, {}}}}};
    dump_tables tables;
    EXPECT_FALSE(talk(kernel, tables));
    EXPECT_EQ(last_error(), "The kernel's answer to RTM_GETLINK is malformed.");
}

TEST(netlink_talk, a_refusal_names_the_question_and_the_reason) {
    const std::vector<reply> links = {{0, join({link(1, "lo"), done()})}};
    for (const int code : {EPERM, EINVAL}) {
        script kernel{{then(links, {{0, refusal(code)}})}};
        dump_tables tables;
        EXPECT_FALSE(talk(kernel, tables));
        EXPECT_EQ(last_error(), std::string("rtnetlink, RTM_GETADDR: ") + std::strerror(code) + ".");
        EXPECT_EQ(kernel.begun, 1);
    }
    script without_socket{{}, {}, 0, EACCES};
    script without_room{{}, {}, 0, 0, ENOMEM};
    dump_tables tables;
    EXPECT_FALSE(talk(without_socket, tables));
    EXPECT_EQ(last_error(), "rtnetlink, socket: Permission denied.");
    EXPECT_FALSE(talk(without_room, tables));
    EXPECT_EQ(last_error(), "rtnetlink, RTM_GETLINK: Cannot allocate memory.");
    script silent{{{{EIO, {}}}}};
    EXPECT_FALSE(talk(silent, tables));
    EXPECT_EQ(last_error(), "rtnetlink, RTM_GETLINK: Input/output error.");
}

TEST(netlink_talk, a_host_without_routes_or_next_hops_has_none) {
    const std::vector<reply> start = {{0, join({link(1, "lo"), done()})}, {0, done()}};
    for (const int code : {ENOENT, EOPNOTSUPP, EAFNOSUPPORT}) {
        script kernel{{then(start, {{0, refusal(code)}})}};
        dump_tables tables;
        EXPECT_TRUE(talk(kernel, tables));
        script without_hops{
            {then(start, {{0, join({message(RTM_NEWROUTE, default_route(), {attribute(RTA_NH_ID, raw(9))}), done()})},
                          {0, refusal(code)}})}};
        EXPECT_TRUE(talk(without_hops, tables));
        // Links and addresses are required.
        script without_links{{{{0, refusal(code)}}}};
        EXPECT_FALSE(talk(without_links, tables));
    }
}

TEST(netlink_talk, next_hops_are_read_where_a_route_names_one) {
    script kernel{
        {{{0, join({link(1, "lo"), done()})},
          {0, done()},
          {0, join({message(RTM_NEWROUTE, default_route(), {attribute(RTA_NH_ID, raw(9))}), done()})},
          {0, join({message(RTM_NEWNEXTHOP, nhmsg{AF_INET, 0, 0, 0, 0},
                            {attribute(NHA_ID, raw(9)), attribute(NHA_OIF, raw(5)), attribute(NHA_GATEWAY, gateway_2)}),
                    done()})}}}};
    dump_tables tables;
    ASSERT_TRUE(talk(kernel, tables));
    EXPECT_EQ(tables.next_hops.size(), 1u);
}
