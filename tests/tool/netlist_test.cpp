// The output of netlist for invented interfaces, byte for byte.
#include "qortool_app.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct facts {
    bool is_there = true;
    const char* name = "eth0";
    const char* description = "a card";
    const char* display_name = "the card";
    bool has_hardware_address = true;
    std::vector<uint8> hardware_address{};
    std::vector<qorNetAddress4> ipv4{};
    bool has_gateway = false;
    qorNetAddress4 gateway{};
    std::vector<qorNetAddress6> ipv6{};
};

class fake_interface final : public qor::object<IQORNetInterface> {
public:
    explicit fake_interface(const facts& of) : object("test.interface", "IQORNetInterface"), m_facts(of) {}

    uint32 GetIndex() noexcept override { return 1; }
    void GetName(qorString& out) noexcept override { out = m_facts.name; }
    void GetDescription(qorString& out) noexcept override { out = m_facts.description; }
    void GetAlternativeNames(qorStringArray& out) noexcept override { out.Empty(); }
    void GetDisplayName(qorString& out) noexcept override { out = m_facts.display_name; }
    bool GetHardwareAddress(uint8_Array& out) noexcept override {
        out.Append(m_facts.hardware_address.data(), static_cast<uint32>(m_facts.hardware_address.size()));
        return m_facts.has_hardware_address;
    }
    uint32 GetIPv4Count() noexcept override { return static_cast<uint32>(m_facts.ipv4.size()); }
    bool GetIPv4Address(uint32 index, qorNetAddress4& out) noexcept override {
        out = m_facts.ipv4[index];
        return false; // never called
    }
    bool GetExtraIPv4Address(qorNetAddress4& out) noexcept override {
        out = m_facts.gateway;
        return m_facts.has_gateway;
    }
    uint32 GetIPv6Count() noexcept override { return static_cast<uint32>(m_facts.ipv6.size()); }
    bool GetIPv6Address(uint32 index, qorNetAddress6& out) noexcept override {
        out = m_facts.ipv6[index];
        return false;
    }

private:
    const facts m_facts;
};

std::vector<facts> s_interfaces;

class fake_list final : public qor::object<IQORNetInterfaceList> {
public:
    fake_list() : object("test.list", "IQORNetInterfaceList") {}

    bool FindInterface(const char*, IQORNetInterface**) noexcept override { return false; }
    uint32 GetCount() noexcept override { return static_cast<uint32>(s_interfaces.size()); }
    bool GetInterface(uint32 index, IQORNetInterface** out) noexcept override {
        EXPECT_EQ(*out, nullptr);
        if (s_interfaces[index].is_there)
            *out = new ("tests/tool/netlist_test", __LINE__) fake_interface(s_interfaces[index]);
        return s_interfaces[index].is_there;
    }
};

bool list_them(IQORNetInterfaceList** out) noexcept {
    EXPECT_EQ(*out, nullptr);
    *out = new ("tests/tool/netlist_test", __LINE__) fake_list;
    return true;
}

bool fail(IQORNetInterfaceList**) noexcept {
    qorSetLastError(qorError_system, "rtnetlink, RTM_GETLINK", "no luck");
    return false;
}

class netlist : public testing::Test {
protected:
    netlist() : m_real(qor::glue::table()), m_table(*m_real) {
        m_table.qorEnumerateNetInterfaces = list_them;
        s_interfaces.clear();
    }

    struct result {
        int code;
        std::string out;
        std::string err;
    };

    result run(bool quiet = true) {
        zetSmartPointer<qortool_app> app;
        app.AttachNew(new ("tests/tool/netlist_test", __LINE__) qortool_app);
        qorStringArray args;
        if (quiet)
            args.Append("--quiet");
        args.Append("netlist");
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        qor::glue::s_funcs = &m_table;
        const int code = app->Main(args);
        qor::glue::s_funcs = m_real;
        const std::string out = testing::internal::GetCapturedStdout();
        return {code, out, testing::internal::GetCapturedStderr()};
    }

    // Returns the line of the hardware address.
    std::string hardware_address(std::vector<uint8> bytes, bool has_one = true) {
        facts one;
        one.hardware_address = std::move(bytes);
        one.has_hardware_address = has_one;
        s_interfaces = {one};
        const std::string out = run().out;
        const std::size_t at = out.find("Hardware address:  ") + 19;
        return out.substr(at, out.find('\n', at) - at);
    }

    const qor::glue::binding_table* m_real;
    qor::glue::binding_table m_table;
};

} // namespace

TEST_F(netlist, a_host_without_interfaces_has_a_heading) {
    EXPECT_EQ(run().out, "");
    const result loud = run(false);
    EXPECT_EQ(loud.code, 0);
    EXPECT_TRUE(loud.out.ends_with("\nNetwork interfaces:\n\nThe action has succeeded.\n")) << loud.out;
}

TEST_F(netlist, a_block_for_each_interface) {
    facts full;
    full.hardware_address = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
    full.ipv4 = {{{{192, 168, 1, 10}}, 24}, {{{10, 0, 0, 1}}, 0}, {{{255, 255, 255, 255}}, 32}};
    full.has_gateway = true;
    full.gateway = {{{192, 168, 1, 1}}, 17};
    full.ipv6 = {{{{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}}, 64, 0},
                 {{{0x20, 0x01, 0x0d, 0xb8}}, 128, 0}};
    facts bare;
    bare.name = "tun0";
    bare.description = "100% sure {1} %s";
    bare.display_name = "";
    bare.has_hardware_address = false;
    s_interfaces = {full, bare};
    const result got = run();
    EXPECT_EQ(got.code, 0);
    EXPECT_EQ(got.err, "");
    EXPECT_EQ(got.out, "Name:              eth0\n"
                       "Description:       a card\n"
                       "Display name:      the card\n"
                       "Hardware address:  00:1a:2b:3c:4d:5e\n"
                       "IPv4 address:      192.168.1.10/24\n"
                       "IPv4 address:      10.0.0.1/0\n"
                       "IPv4 address:      255.255.255.255/32\n"
                       "Default gateway:   192.168.1.1\n"
                       "IPv6 address:      fe80::1/64\n"
                       "IPv6 address:      2001:db8::/128\n"
                       "\n"
                       "Name:              tun0\n"
                       "Description:       100% sure {1} %s\n"
                       "Display name:      \n"
                       "Hardware address:  (none)\n"
                       "\n");
}

TEST_F(netlist, a_gateway_is_shown_without_addresses_too) {
    facts one;
    one.has_gateway = true;
    one.gateway = {{{10, 0, 0, 1}}, 32};
    s_interfaces = {one};
    EXPECT_TRUE(run().out.ends_with("(none)\nDefault gateway:   10.0.0.1\n\n"));
}

TEST_F(netlist, hardware_addresses_of_every_length) {
    EXPECT_EQ(hardware_address({0xab}), "ab");
    EXPECT_EQ(hardware_address({0x0f, 0xf0}), "0f:f0");
    EXPECT_EQ(hardware_address({0, 0, 0, 0, 0, 0}), "00:00:00:00:00:00");
    std::string twenty = "00";
    std::vector<uint8> bytes{0};
    for (int i = 1; i < 20; ++i) {
        twenty += ":0" + std::string(1, "0123456789abcdef"[i % 16]);
        bytes.push_back(static_cast<uint8>(i % 16));
    }
    EXPECT_EQ(hardware_address(bytes), twenty);
    EXPECT_EQ(hardware_address({}), "(none)");
    EXPECT_EQ(hardware_address({1, 2}, false), "(none)");
}

TEST_F(netlist, an_index_without_an_interface_is_passed_over) {
    facts gone;
    gone.is_there = false;
    s_interfaces = {gone, {}, gone};
    const result got = run();
    EXPECT_EQ(got.code, 0);
    EXPECT_EQ(got.out, "Name:              eth0\nDescription:       a card\nDisplay name:      the card\n"
                       "Hardware address:  (none)\n\n");
}

TEST_F(netlist, says_why_there_is_no_list) {
    m_table.qorEnumerateNetInterfaces = fail;
    const result got = run();
    EXPECT_EQ(got.code, 1);
    EXPECT_EQ(got.out, "");
    EXPECT_EQ(got.err, "Cannot list the network interfaces: rtnetlink, RTM_GETLINK: no luck.\n");
}
