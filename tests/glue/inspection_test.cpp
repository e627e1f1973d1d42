// Information about hosts, as a client sees it.
#include "qor/qor.h"

#include <gtest/gtest.h>

#include <string>

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
