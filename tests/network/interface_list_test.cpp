// The objects that provide the data of the interfaces.
#include "interface_list.h"

#include <gtest/gtest.h>

namespace {

using network::interface_facts;

zetSmartPointer<IQORNetInterfaceList> make_list(std::vector<interface_facts> facts) {
    zetSmartPointer<IQORNetInterfaceList> list;
    list.AttachNew(network::make_list(std::move(facts)));
    return list;
}

interface_facts full() {
    interface_facts facts;
    facts.index = 7;
    facts.name = "eth0";
    facts.description = "a card";
    facts.display_name = "the card";
    facts.alternative_names = {"first", "second"};
    facts.hardware_address = std::vector<uint8>(20, 0xab);
    facts.ipv4 = {{{{10, 0, 0, 1}}, 24}, {{{10, 0, 0, 2}}, 32}};
    facts.gateway = {{{10, 0, 0, 254}}, 32};
    facts.ipv6 = {{{{0xfe, 0x80}}, 64, 7}};
    return facts;
}

} // namespace

TEST(net_interface_list, hands_out_all_that_is_known) {
    const auto list = make_list({full()});
    ASSERT_EQ(list->GetCount(), 1u);
    zetSmartPointer<IQORNetInterface> ni;
    ASSERT_TRUE(list->GetInterface(0, ni.Out()));
    EXPECT_EQ(ni->GetIndex(), 7u);
    qorString text;
    ni->GetName(text);
    EXPECT_STREQ(text, "eth0");
    ni->GetDescription(text);
    EXPECT_STREQ(text, "a card");
    ni->GetDisplayName(text);
    EXPECT_STREQ(text, "the card");
    qorStringArray names;
    names.Append("of before");
    ni->GetAlternativeNames(names);
    ASSERT_EQ(names.GetCount(), 2u);
    EXPECT_STREQ(names[1], "second");
    uint8_Array bytes;
    bytes.Append(1);
    EXPECT_TRUE(ni->GetHardwareAddress(bytes));
    ASSERT_EQ(bytes.GetCount(), 20u);
    EXPECT_EQ(*bytes.GetElementPtr(19), 0xab);

    ASSERT_EQ(ni->GetIPv4Count(), 2u);
    qorNetAddress4 ipv4{};
    EXPECT_TRUE(ni->GetIPv4Address(1, ipv4));
    EXPECT_EQ(ipv4.address, (qoraddr_ipv4{{10, 0, 0, 2}}));
    EXPECT_EQ(ipv4.prefix, 32);
    EXPECT_FALSE(ni->GetIPv4Address(2, ipv4));
    EXPECT_EQ(ipv4.prefix, 32);
    EXPECT_TRUE(ni->GetExtraIPv4Address(ipv4));
    EXPECT_EQ(ipv4.address, (qoraddr_ipv4{{10, 0, 0, 254}}));
    ASSERT_EQ(ni->GetIPv6Count(), 1u);
    qorNetAddress6 ipv6{};
    EXPECT_TRUE(ni->GetIPv6Address(0, ipv6));
    EXPECT_EQ(ipv6.scope, 7u);
    EXPECT_EQ(ipv6.prefix, 64);
    EXPECT_FALSE(ni->GetIPv6Address(1, ipv6));
}

TEST(net_interface_list, an_interface_without_anything) {
    const auto list = make_list({interface_facts{}});
    zetSmartPointer<IQORNetInterface> ni;
    ASSERT_TRUE(list->GetInterface(0, ni.Out()));
    uint8_Array bytes;
    bytes.Append(1);
    EXPECT_FALSE(ni->GetHardwareAddress(bytes));
    EXPECT_TRUE(bytes.IsEmpty());
    qorNetAddress4 ipv4{{{1, 2, 3, 4}}, 5};
    EXPECT_FALSE(ni->GetExtraIPv4Address(ipv4));
    EXPECT_FALSE(ni->GetIPv4Address(0, ipv4));
    EXPECT_EQ(ipv4.prefix, 5);
    EXPECT_EQ(ni->GetIPv4Count(), 0u);
    EXPECT_EQ(ni->GetIPv6Count(), 0u);
}

TEST(net_interface_list, finds_by_name_and_by_alternative_name) {
    interface_facts other;
    other.name = "eth1";
    const auto list = make_list({other, full()});
    for (const char* const name : {"eth0", "first", "second"}) {
        zetSmartPointer<IQORNetInterface> ni;
        ASSERT_TRUE(list->FindInterface(name, ni.Out()));
        EXPECT_EQ(ni->GetIndex(), 7u);
    }
    IQORNetInterface* untouched = nullptr;
    for (const char* const name : {"", "eth", "eth00", "ETH0"})
        EXPECT_FALSE(list->FindInterface(name, &untouched));
    EXPECT_FALSE(list->GetInterface(2, &untouched));
    EXPECT_EQ(untouched, nullptr);
    EXPECT_EQ(make_list({})->GetCount(), 0u);
}

TEST(net_interface_list, an_interface_outlives_its_list) {
    auto list = make_list({full()});
    zetSmartPointer<IQORNetInterface> ni;
    ASSERT_TRUE(list->GetInterface(0, ni.Out()));
    list.Empty();
    qorString text;
    ni->GetName(text);
    EXPECT_STREQ(text, "eth0");
    void* same = nullptr;
    EXPECT_EQ(ni->QueryInterface("IQORNetInterface", &same), 1);
    ni->Release();
    EXPECT_EQ(ni->QueryInterface("IQORNetInterfaceList", &same), 0);
}

// ---- this host, through the table and the module

TEST(net_interface_list, this_host_has_a_loopback) {
    zetSmartPointer<IQORNetInterfaceList> list;
    ASSERT_TRUE(qorEnumerateNetInterfaces(list.Out()));
    bool found = false;
    uint32 before = 0;
    for (uint32 i = 0; i < list->GetCount(); ++i) {
        zetSmartPointer<IQORNetInterface> ni;
        ASSERT_TRUE(list->GetInterface(i, ni.Out()));
        EXPECT_GT(ni->GetIndex(), before);
        before = ni->GetIndex();
        qorString text;
        ni->GetName(text);
        EXPECT_FALSE(text.IsEmpty());
        ni->GetDisplayName(text);
        EXPECT_FALSE(text.IsEmpty());
        for (uint32 each = 0; each < ni->GetIPv4Count(); ++each) {
            qorNetAddress4 ipv4{};
            ASSERT_TRUE(ni->GetIPv4Address(each, ipv4));
            found |= ipv4.address == qoraddr_ipv4{{127, 0, 0, 1}} && ipv4.prefix == 8;
        }
    }
    EXPECT_TRUE(found);
}
