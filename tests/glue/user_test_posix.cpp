// Accounts as a client sees them, compared with the C library.
#include "qor/qor.h"
#include "support/last_error.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <grp.h>
#include <pwd.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using token_pointer = zetSmartPointer<IQORUserToken>;

std::string name_of(const token_pointer& token) {
    qorString name("what it held before");
    token->GetUserName(name);
    return name.Text();
}

std::vector<std::string> groups_of(const token_pointer& token) {
    qorStringArray groups;
    groups.Append("what it held before");
    token->GetGroups(groups);
    groups.Sort(true);
    std::vector<std::string> out;
    for (uint32 i = 0; i < groups.GetCount(); ++i)
        out.emplace_back(groups[i]);
    return out;
}

std::vector<std::string> groups_by_libc(const passwd& entry) {
    gid_t numbers[1024];
    int count = 1024;
    EXPECT_GE(getgrouplist(entry.pw_name, entry.pw_gid, numbers, &count), 0);
    std::vector<std::string> out;
    for (int i = 0; i < count; ++i) {
        const group* const found = getgrgid(numbers[i]);
        out.push_back(found != nullptr ? found->gr_name : std::to_string(numbers[i]));
    }
    std::sort(out.begin(), out.end());
    return out;
}

using qor::test::last_error;

} // namespace

TEST(user, the_current_one) {
    const passwd* const entry = getpwuid(geteuid());
    const std::string expected = entry != nullptr ? entry->pw_name : std::to_string(geteuid());
    qorString name;
    ASSERT_TRUE(qorGetCurrentUserName(name));
    EXPECT_EQ(expected, name.Text());
    token_pointer token;
    ASSERT_TRUE(qorGetCurrentUserToken(token.Out()));
    EXPECT_EQ(name_of(token), expected);
    EXPECT_EQ(qorIsSuperUser(), geteuid() == 0);
    EXPECT_EQ(token->IsSuperUser(), geteuid() == 0);
    if (entry != nullptr) {
        EXPECT_EQ(groups_of(token), groups_by_libc(*entry));
    }
}

TEST(user, a_token_is_what_it_says) {
    token_pointer token;
    ASSERT_TRUE(qorGetUserToken("root", token.Out()));
    void* same = nullptr;
    EXPECT_EQ(token->QueryInterface("IQORSomething", &same), 0);
    EXPECT_EQ(same, nullptr);
    ASSERT_EQ(token->QueryInterface("IQORUserToken", &same), 1);
    EXPECT_EQ(same, *token);
    token->Release();
    EXPECT_TRUE(token->IsSuperUser());
    EXPECT_EQ(token->GetAuthLevel(), qorAuthLevel_administrator);
}

TEST(user, there_is_none) {
    for (const char* name : {"no such user", "", "0", "../etc/passwd", static_cast<const char*>(nullptr)}) {
        IQORUserToken* token = nullptr;
        EXPECT_FALSE(qorGetUserToken(name, &token));
        EXPECT_EQ(token, nullptr);
        EXPECT_EQ(last_error(), std::string("There is no user account '") + (name != nullptr ? name : "") + "'.");
    }
}

TEST(user, on_several_threads) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([] {
            for (int round = 0; round < 50; ++round) {
                token_pointer token;
                ASSERT_TRUE(qorGetUserToken(round % 2 == 0 ? "root" : "daemon", token.Out()));
                EXPECT_EQ(name_of(token), round % 2 == 0 ? "root" : "daemon");
                EXPECT_FALSE(groups_of(token).empty());
            }
        });
    for (std::thread& thread : threads)
        thread.join();
}

// An unknown name and a wrong password give the same error, for every caller.
TEST(user, logging_on_as_nobody) {
    for (const char* name : {"no such user", "", static_cast<const char*>(nullptr)}) {
        IQORUserToken* token = nullptr;
        EXPECT_FALSE(qorLogonUser(name, nullptr, &token));
        EXPECT_EQ(token, nullptr);
        EXPECT_EQ(last_error(), "The user name or the password was refused.");
    }
}
