// Accounts as a client sees them, compared with Windows.
#include "qor/qor.h"

#include <gtest/gtest.h>

#include <string>
#include <windows.h>

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
