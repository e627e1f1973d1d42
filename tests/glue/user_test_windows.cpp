// Accounts as a client sees them, compared with Windows.
#include "qor/qor.h"
#include "support/scenes.h"

#include <gtest/gtest.h>

#include <string>
#include <windows.h>

namespace {

using namespace qor::test;

// The library that asks directories for accounts, perhaps on a server.
bool has_loaded_directory() { return GetModuleHandleW(L"netapi32.dll") != nullptr; }

const scene asking{"user_asking", [](const words&) {
                       zetSmartPointer<IQORUserToken> token;
                       EXPECT_TRUE(qorGetCurrentUserToken(token.Out()));
                       EXPECT_EQ(token->IsSuperUser(), qorIsSuperUser());
                       EXPECT_FALSE(has_loaded_directory());
                       EXPECT_NE(token->GetAuthLevel(), qorAuthLevel_none);
                       EXPECT_TRUE(has_loaded_directory());
                       return 0;
                   }};

} // namespace

TEST(user, the_current_one) {
    char expected[256];
    DWORD size = sizeof expected;
    ASSERT_TRUE(GetUserNameA(expected, &size));
    qorString name;
    ASSERT_TRUE(qorGetCurrentUserName(name));
    EXPECT_STREQ(name.Text(), expected);
    zetSmartPointer<IQORUserToken> token;
    ASSERT_TRUE(qorGetCurrentUserToken(token.Out()));
    EXPECT_EQ(token->IsSuperUser(), qorIsSuperUser());
}

TEST(user, own_rights_are_known_without_a_directory) {
    const ending ended = play(asking);
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
}

TEST(user, there_is_none) {
    for (const char* name : {"no such user", "", "\xff", "Administrators", static_cast<const char*>(nullptr)}) {
        IQORUserToken* token = nullptr;
        EXPECT_FALSE(qorGetUserToken(name, &token));
        EXPECT_EQ(token, nullptr);
        qorString text;
        EXPECT_EQ(qorGetLastError(text), uint32{qorError_unknown_user}) << text.Text();
    }
}

TEST(user, logging_on_as_nobody) {
    for (const char* name : {"no such user", "", "Administrators", static_cast<const char*>(nullptr)}) {
        IQORUserToken* token = nullptr;
        EXPECT_FALSE(qorLogonUser(name, "secret", &token));
        EXPECT_EQ(token, nullptr);
        qorString text;
        EXPECT_EQ(qorGetLastError(text), uint32{qorError_credentials_refused}) << text.Text();
    }
}
