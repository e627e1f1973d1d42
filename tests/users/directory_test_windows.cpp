// Accounts of a domain. Wine knows none, so the functions of the system are those of a domain that this test makes up.
#include "user/directory_windows.h"

#include "support/last_error.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <new>
#include <string>
#include <vector>

namespace {

using qor::test::last_error;
using qor::user::account;
using qor::user::directory;
using qor::user::identity;

struct entry {
    std::wstring domain, name;
    SID_NAME_USE use;
    std::vector<BYTE> sid;
};

std::vector<BYTE> sid_of(WELL_KNOWN_SID_TYPE which) {
    std::vector<BYTE> sid(SECURITY_MAX_SID_SIZE);
    DWORD size = static_cast<DWORD>(sid.size());
    EXPECT_TRUE(CreateWellKnownSid(which, nullptr, sid.data(), &size));
    sid.resize(size);
    return sid;
}

// S-1-5-21-4711-1-2-NUMBER
std::vector<BYTE> sid_of(DWORD number) {
    std::vector<BYTE> sid(GetSidLengthRequired(5));
    SID_IDENTIFIER_AUTHORITY authority = SECURITY_NT_AUTHORITY;
    EXPECT_TRUE(InitializeSid(sid.data(), &authority, 5));
    for (const DWORD part : {0u, 1u, 2u, 3u, 4u}) {
        const DWORD parts[] = {21, 4711, 1, 2, number};
        *GetSidSubAuthority(sid.data(), part) = parts[part];
    }
    return sid;
}

std::wstring this_computer() {
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1];
    DWORD length = MAX_COMPUTERNAME_LENGTH + 1;
    EXPECT_TRUE(GetComputerNameW(name, &length));
    return {name, length};
}

// What the domain and this computer say.
struct made_up {
    std::vector<entry> entries;
    std::map<std::wstring, std::wstring> other_names;         // name@domain -> DOMAIN\name
    std::map<std::wstring, std::vector<std::wstring>> groups; // of this computer, by member
    std::wstring server = L"\\\\DC2";
    DWORD no_controller = 0;
    DWORD flags = 0;
    DWORD priv = USER_PRIV_USER;
    bool first_server_is_gone = false;
    std::vector<std::wstring> asked; // who was asked, and for whom
    int controllers_sought = 0;
};
made_up* world = nullptr;

BOOL give(const std::wstring& text, wchar_t* out, DWORD* size) {
    if (out == nullptr || *size <= text.size()) {
        *size = static_cast<DWORD>(text.size() + 1);
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    std::copy_n(text.c_str(), text.size() + 1, out);
    *size = static_cast<DWORD>(text.size());
    return TRUE;
}

BOOL WINAPI find_name(LPCWSTR, LPCWSTR name, PSID sid, LPDWORD sid_size, LPWSTR domain, LPDWORD domain_size,
                      PSID_NAME_USE use) {
    std::wstring wanted = name;
    if (const auto other = world->other_names.find(wanted); other != world->other_names.end())
        wanted = other->second;
    for (const entry& each : world->entries) {
        if (each.domain + L'\\' + each.name != wanted && each.name != wanted)
            continue;
        *use = each.use;
        if (sid == nullptr || *sid_size < each.sid.size()) {
            *sid_size = static_cast<DWORD>(each.sid.size());
            *domain_size = static_cast<DWORD>(each.domain.size() + 1);
            SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return FALSE;
        }
        std::copy(each.sid.begin(), each.sid.end(), static_cast<BYTE*>(sid));
        return give(each.domain, domain, domain_size);
    }
    SetLastError(ERROR_NONE_MAPPED);
    return FALSE;
}

BOOL WINAPI find_sid(LPCWSTR, PSID sid, LPWSTR name, LPDWORD name_size, LPWSTR domain, LPDWORD domain_size,
                     PSID_NAME_USE use) {
    for (const entry& each : world->entries) {
        if (!EqualSid(sid, const_cast<BYTE*>(each.sid.data())))
            continue;
        *use = each.use;
        const BOOL has_name = give(each.name, name, name_size);
        const BOOL has_domain = give(each.domain, domain, domain_size);
        return has_name && has_domain;
    }
    SetLastError(ERROR_NONE_MAPPED);
    return FALSE;
}

NET_API_STATUS WINAPI get_info(LPCWSTR server, LPCWSTR name, DWORD level, LPBYTE* out) {
    EXPECT_EQ(level, 1u);
    const std::wstring from = server != nullptr ? server : L"here";
    world->asked.push_back(from + L' ' + name);
    if (world->first_server_is_gone && world->asked.size() == 1)
        return RPC_S_SERVER_UNAVAILABLE;
    auto* const info = new (::operator new(sizeof(USER_INFO_1))) USER_INFO_1{};
    static wchar_t comment[] = L"a comment";
    info->usri1_comment = comment;
    info->usri1_priv = world->priv;
    info->usri1_flags = world->flags;
    *out = reinterpret_cast<BYTE*>(info);
    return NERR_Success;
}

NET_API_STATUS WINAPI get_groups(LPCWSTR server, LPCWSTR member, DWORD level, DWORD flags, LPBYTE* out, DWORD,
                                 LPDWORD count, LPDWORD total) {
    EXPECT_EQ(server, nullptr);
    EXPECT_EQ(level, 0u);
    EXPECT_EQ(flags, DWORD{LG_INCLUDE_INDIRECT});
    const auto found = world->groups.find(member);
    if (found == world->groups.end())
        return NERR_UserNotFound;
    auto* const list = static_cast<LOCALGROUP_USERS_INFO_0*>(
        ::operator new((found->second.size() + 1) * sizeof(LOCALGROUP_USERS_INFO_0)));
    for (std::size_t i = 0; i < found->second.size(); ++i)
        list[i].lgrui0_name = found->second[i].data();
    *out = reinterpret_cast<BYTE*>(list);
    *count = *total = static_cast<DWORD>(found->second.size());
    return NERR_Success;
}

DWORD WINAPI get_controller(LPCWSTR computer, LPCWSTR domain, GUID*, LPCWSTR site, ULONG flags,
                            PDOMAIN_CONTROLLER_INFOW* out) {
    EXPECT_EQ(computer, nullptr);
    EXPECT_EQ(site, nullptr);
    EXPECT_STREQ(domain, L"SALES");
    EXPECT_EQ(flags,
              world->controllers_sought == 0 ? DWORD{DS_IS_FLAT_NAME} : DWORD{DS_IS_FLAT_NAME | DS_FORCE_REDISCOVERY});
    ++world->controllers_sought;
    if (world->no_controller != 0)
        return world->no_controller;
    auto* const info = new (::operator new(sizeof(DOMAIN_CONTROLLER_INFOW))) DOMAIN_CONTROLLER_INFOW{};
    info->DomainControllerName = world->server.data();
    *out = info;
    return ERROR_SUCCESS;
}

int buffers_freed = 0;

NET_API_STATUS WINAPI free_buffer(LPVOID buffer) {
    ++buffers_freed;
    ::operator delete(buffer);
    return NERR_Success;
}

class user_directory : public testing::Test {
protected:
    user_directory() {
        world = &m_world;
        m_world.entries = {
            {L"SALES", L"jmiller", SidTypeUser, sid_of(1001)},
            {L"SALES", L"john.miller", SidTypeUser, sid_of(1002)}, // somebody else
            {this_computer(), L"operator", SidTypeUser, sid_of(1003)},
            {L"BUILTIN", L"Administratoren", SidTypeAlias, sid_of(WinBuiltinAdministratorsSid)},
            {L"BUILTIN", L"Benutzer", SidTypeAlias, sid_of(WinBuiltinUsersSid)},
            {L"BUILTIN", L"G\u00e4ste", SidTypeAlias, sid_of(WinBuiltinGuestsSid)},
            {L"NT-AUTORIT\u00c4T", L"SYSTEM", SidTypeWellKnownGroup, sid_of(WinLocalSystemSid)},
        };
        m_world.other_names = {{L"john.miller@example.org", L"SALES\\jmiller"}};
        m_world.groups = {{L"SALES\\jmiller", {L"Benutzer", L"J\u00e4ger"}}, {L"operator", {L"Administratoren"}}};
    }
    ~user_directory() override { world = nullptr; }

    account read(const wchar_t* name) {
        m_world.asked.clear();
        m_world.controllers_sought = 0;
        identity who;
        EXPECT_EQ(look_up(m_directory, name, who), 0u);
        account out;
        EXPECT_TRUE(read_account(m_directory, who, out)) << last_error();
        return out;
    }

    made_up m_world;
    const directory m_directory{find_name, find_sid, get_info, get_groups, get_controller, free_buffer, 0};
};

} // namespace

TEST_F(user_directory, a_name_at_a_domain_leads_to_the_account_that_has_it) {
    identity who;
    ASSERT_EQ(look_up(m_directory, L"john.miller@example.org", who), 0u);
    EXPECT_EQ(who.name, L"jmiller");
    EXPECT_EQ(who.domain, L"SALES");
    EXPECT_TRUE(who.is_user);
    EXPECT_EQ(who.sid, sid_of(1001));
}

TEST_F(user_directory, an_unknown_name_is_told) {
    identity who;
    EXPECT_EQ(look_up(m_directory, L"nobody@example.org", who), DWORD{ERROR_NONE_MAPPED});
}

TEST_F(user_directory, any_controller_of_the_domain_is_asked) {
    const account found = read(L"john.miller@example.org");
    EXPECT_EQ(found.name, "jmiller");
    EXPECT_EQ(found.description, "a comment");
    EXPECT_EQ(m_world.asked, std::vector<std::wstring>{L"\\\\DC2 jmiller"});
    EXPECT_EQ(m_world.controllers_sought, 1);
}

TEST_F(user_directory, another_controller_is_asked_if_the_known_one_is_gone) {
    m_world.first_server_is_gone = true;
    EXPECT_EQ(read(L"SALES\\jmiller").name, "jmiller");
    EXPECT_EQ(m_world.controllers_sought, 2);
    EXPECT_EQ(m_world.asked.size(), 2u);
}

TEST_F(user_directory, a_domain_without_a_controller_is_told) {
    m_world.no_controller = ERROR_NO_SUCH_DOMAIN;
    identity who;
    ASSERT_EQ(look_up(m_directory, L"SALES\\jmiller", who), 0u);
    account out;
    EXPECT_FALSE(read_account(m_directory, who, out));
    EXPECT_EQ(last_error().rfind("DsGetDcNameW: ", 0), 0u) << last_error();
}

// The rights of the account at the controller do not count.
TEST_F(user_directory, rights_and_groups_are_those_of_this_computer) {
    m_world.priv = USER_PRIV_ADMIN;
    const account found = read(L"SALES\\jmiller");
    EXPECT_EQ(found.groups, (std::vector<std::string>{"Benutzer", "J\u00e4ger"}));
    EXPECT_FALSE(found.is_super_user);
    EXPECT_EQ(found.level, qorAuthLevel_user);

    m_world.priv = USER_PRIV_USER;
    m_world.groups[L"SALES\\jmiller"].emplace_back(L"Admin\u00adistratoren"); // with a hyphen that nobody sees
    EXPECT_FALSE(read(L"SALES\\jmiller").is_super_user);
    m_world.groups[L"SALES\\jmiller"].emplace_back(L"administratoren");
    const account raised = read(L"SALES\\jmiller");
    EXPECT_TRUE(raised.is_super_user);
    EXPECT_EQ(raised.level, qorAuthLevel_administrator);
}

TEST_F(user_directory, an_account_of_this_computer_needs_no_controller) {
    const account found = read(L"operator");
    EXPECT_EQ(m_world.controllers_sought, 0);
    EXPECT_EQ(m_world.asked, std::vector<std::wstring>{L"here operator"});
    EXPECT_TRUE(found.is_super_user);
    EXPECT_EQ(found.level, qorAuthLevel_administrator);
}

TEST_F(user_directory, levels) {
    m_world.groups[L"operator"] = {L"G\u00e4ste"};
    EXPECT_EQ(read(L"operator").level, qorAuthLevel_guest);
    m_world.groups[L"operator"] = {L"G\u00e4ste", L"Benutzer"};
    EXPECT_EQ(read(L"operator").level, qorAuthLevel_user);
    m_world.groups[L"operator"] = {};
    EXPECT_EQ(read(L"operator").level, qorAuthLevel_user);
    m_world.groups[L"operator"] = {L"Administratoren"};
    for (const DWORD flag : {UF_ACCOUNTDISABLE, UF_LOCKOUT}) {
        m_world.flags = flag;
        EXPECT_EQ(read(L"operator").level, qorAuthLevel_none);
    }
}

// Services run as accounts that no directory has.
TEST_F(user_directory, an_account_of_the_system_has_its_name_alone) {
    identity who;
    const std::vector<BYTE> sid = sid_of(WinLocalSystemSid);
    ASSERT_EQ(look_up(m_directory, const_cast<BYTE*>(sid.data()), who), 0u);
    EXPECT_FALSE(who.is_user);
    account found;
    ASSERT_TRUE(read_account(m_directory, who, found)) << last_error();
    EXPECT_EQ(found.name, "SYSTEM");
    EXPECT_EQ(found.level, qorAuthLevel_none);
    EXPECT_TRUE(m_world.asked.empty());
}

TEST_F(user_directory, every_buffer_is_given_back) {
    m_world.first_server_is_gone = true;
    buffers_freed = 0;
    read(L"SALES\\jmiller");
    EXPECT_EQ(buffers_freed, 4); // two controllers, one account, one list
}
