// Information about hosts, as a client sees it.
#include "qor/qor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(system_info, every_operation_answers) {
    zetSmartPointer<IQORSystemInfo> info;
    create_IQORSystemInfo(info.Out());
    qorMemoryInfo memory{};
    ASSERT_TRUE(info->GetMemoryInfo(memory));
    EXPECT_GT(memory.total, 0u);
    EXPECT_EQ(memory.total, memory.used + memory.free);
    EXPECT_EQ(info->GetPageSize() & (info->GetPageSize() - 1), 0u);
    EXPECT_GE(info->GetPageSize(), 4096u);
    EXPECT_GE(info->GetLogicalCPUCount(), info->GetPhysicalCoreCount());
    EXPECT_GE(info->GetPhysicalCoreCount(), 1u);

    bool (IQORSystemInfo::*const always[])(qorString&) = {
        &IQORSystemInfo::GetPlatformString,    &IQORSystemInfo::GetSystemType, &IQORSystemInfo::GetSystemVersion,
        &IQORSystemInfo::GetSystemDescription, &IQORSystemInfo::GetCPUType,
    };
    for (const auto operation : always) {
        qorString text;
        EXPECT_TRUE(((*info)->*operation)(text));
        EXPECT_FALSE(text.IsEmpty());
    }
    bool (IQORSystemInfo::*const sometimes[])(qorString&) = {
        &IQORSystemInfo::GetEnhancedPlatformString,
        &IQORSystemInfo::GetCPUTypeExtended,
        &IQORSystemInfo::GetHypervisor,
    };
    for (const auto operation : sometimes) {
        qorString text("what it held");
        const bool is_known = ((*info)->*operation)(text);
        EXPECT_EQ(is_known, text != "what it held");
    }
    qorString text;
    EXPECT_EQ(info->GetHypervisor(text), info->IsVirtualMachine());

    void* again = nullptr;
    ASSERT_EQ(info->QueryInterface("IQORSystemInfo", &again), 1);
    static_cast<IQORSystemInfo*>(again)->Release();
}

TEST(lookup_host, gives_each_address_by_its_index) {
    zetSmartPointer<IQORHostAddressList> list;
    ASSERT_TRUE(qorLookupHost("192.0.2.1", list.Out()));
    ASSERT_EQ(list->GetCount(), 1u);
    qorHostAddress address;
    ASSERT_TRUE(list->GetAddress(0, address));
    EXPECT_EQ(address, (qorHostAddress{.family = qorAddressFamily::ipv4, .ipv4 = {{192, 0, 2, 1}}}));
    const qorHostAddress before = address;
    EXPECT_FALSE(list->GetAddress(1, address));
    EXPECT_EQ(address, before);
}

TEST(lookup_host, what_is_no_name_is_no_host) {
    for (const char* const name : {static_cast<const char*>(nullptr), ""}) {
        IQORHostAddressList* list = nullptr;
        qorClearLastError();
        EXPECT_FALSE(qorLookupHost(name, &list));
        EXPECT_EQ(list, nullptr);
        qorString reason;
        EXPECT_EQ(qorGetLastError(reason), qorError_no_such_host);
    }
}

TEST(host_dns_name, of_this_host_under_any_name) {
    // Whatever the name is, it is one, and it is that of the address, too, if that has any.
    qorString name("what it held");
    ASSERT_TRUE(qorGetHostDNSName("localhost", name));
    EXPECT_FALSE(name.IsEmpty());
    EXPECT_NE(name, "what it held");
    qorString of_address("what it held");
    const qorHostAddress loopback{.family = qorAddressFamily::ipv4, .ipv4 = {{127, 0, 0, 1}}};
    if (qorGetHostDNSName(loopback, of_address)) {
        qorString of_text;
        EXPECT_TRUE(qorGetHostDNSName("127.0.0.1", of_text));
        EXPECT_EQ(of_text, of_address);
    } else {
        EXPECT_EQ(of_address, "what it held");
    }
}

TEST(host_dns_name, of_nothing_is_an_error) {
    qorString name("what it held");
    EXPECT_FALSE(qorGetHostDNSName("", name));
    EXPECT_EQ(qorGetLastError(name), qorError_no_such_host);
    EXPECT_FALSE(qorGetHostDNSName(qorHostAddress{}, name));
    EXPECT_EQ(qorGetLastError(name), qorError_invalid_argument);
}

TEST(local_addresses, are_those_of_the_interfaces) {
    zetSmartPointer<IQORNetInterfaceList> interfaces;
    ASSERT_TRUE(qorEnumerateNetInterfaces(interfaces.Out()));
    std::vector<qorLocalAddress> addresses;
    ASSERT_TRUE(qorGetLocalAddresses(addresses));
    std::size_t at = 0;
    for (uint32 i = 0; i < interfaces->GetCount(); ++i) {
        zetSmartPointer<IQORNetInterface> each;
        ASSERT_TRUE(interfaces->GetInterface(i, each.Out()));
        for (uint32 k = 0; k < each->GetIPv4Count(); ++k, ++at) {
            qorNetAddress4 address{};
            ASSERT_TRUE(each->GetIPv4Address(k, address));
            ASSERT_LT(at, addresses.size());
            EXPECT_EQ(addresses[at].address,
                      (qorHostAddress{.family = qorAddressFamily::ipv4, .ipv4 = address.address}));
            EXPECT_EQ(addresses[at].prefix, address.prefix);
            EXPECT_EQ(addresses[at].interface_index, each->GetIndex());
            EXPECT_EQ(addresses[at].IsLoopback(), address.address.bytes[0] == 127);
        }
        for (uint32 k = 0; k < each->GetIPv6Count(); ++k, ++at) {
            qorNetAddress6 address{};
            ASSERT_TRUE(each->GetIPv6Address(k, address));
            ASSERT_LT(at, addresses.size());
            EXPECT_EQ(
                addresses[at].address,
                (qorHostAddress{.family = qorAddressFamily::ipv6, .ipv6 = address.address, .scope = address.scope}));
            EXPECT_EQ(addresses[at].prefix, address.prefix);
            EXPECT_EQ(addresses[at].interface_index, each->GetIndex());
            EXPECT_EQ(addresses[at].IsLinkLocal(), address.address.bytes[0] == 0xfe && address.scope != 0);
        }
    }
    EXPECT_EQ(at, addresses.size());

    zetSmartPointer<IQORLocalAddressList> list;
    ASSERT_TRUE(qorGetLocalAddresses(list.Out()));
    qorLocalAddress kept;
    kept.prefix = 99;
    EXPECT_FALSE(list->GetAddress(list->GetCount(), kept));
    EXPECT_EQ(kept.prefix, 99);
}

TEST(string_to_address, of_either_family) {
    qorHostAddress address;
    ASSERT_TRUE(qorStringToAddress("203.0.113.9", address));
    EXPECT_EQ(address, (qorHostAddress{.family = qorAddressFamily::ipv4, .ipv4 = {{203, 0, 113, 9}}}));
    ASSERT_TRUE(qorStringToAddress("fe80::2%7", address));
    qorHostAddress expected{.family = qorAddressFamily::ipv6, .ipv6 = {{0xfe, 0x80}}, .scope = 7};
    expected.ipv6.bytes[15] = 2;
    EXPECT_EQ(address, expected);
    qorString text;
    qorAddressToString(address, false, text);
    EXPECT_STREQ(text, "fe80::2");
}

TEST(string_to_address, looks_nothing_up) {
    for (const char* const text : {"localhost", "", "1.2.3.4.5", "fe80::1::2", static_cast<const char*>(nullptr)}) {
        qorHostAddress address{.scope = 5};
        const qorHostAddress before = address;
        qorClearLastError();
        EXPECT_FALSE(qorStringToAddress(text, address));
        EXPECT_EQ(address, before);
        qorString reason;
        EXPECT_EQ(qorGetLastError(reason), qorError_invalid_argument);
    }
}

} // namespace
