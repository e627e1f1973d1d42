// Calls with names that windows.h turns into macros, on our objects and on Windows. The including file has included
// qor.h and windows.h, in either order.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace {

#ifndef LoadString
#error "windows.h has lost its LoadString"
#endif

TEST(QOR_TEST_SUITE, ours_are_ours) {
    qorString text;
    EXPECT_TRUE(text.LoadString("qorcore", 1));
    EXPECT_FALSE(text.IsEmpty());
    EXPECT_FALSE(text.LoadString("qorcore", 0xffffffff));

    qorSetLastError(qorError_no_such_user, "somebody");
    zetSmartPointer<IQORErrorMessage> error;
    qorGetLastError(error.Out());
    qorString message;
    error->GetMessage(message);
    EXPECT_GE(message.FindString("somebody"), 0);
    qorString saved;
    qorSaveErrorInfo().GetMessage(saved);
    EXPECT_EQ(saved, message);

    qorString name;
    ASSERT_TRUE(qorGetCurrentUserName(name));
    zetSmartPointer<IQORUserToken> token;
    ASSERT_TRUE(qorGetCurrentUserToken(token.Out()));
    qorString from_token;
    token->GetUserName(from_token);
    EXPECT_EQ(from_token, name);
}

TEST(QOR_TEST_SUITE, those_of_windows_are_of_windows) {
    MSG message;
    (void)PeekMessage(&message, nullptr, 0, 0, PM_NOREMOVE); // creates the thread's message queue
    ASSERT_TRUE(PostThreadMessage(GetCurrentThreadId(), WM_APP + 7, 1, 2));
    ASSERT_GT(GetMessage(&message, nullptr, WM_APP, WM_APP + 15), 0);
    EXPECT_EQ(message.message, WM_APP + 7u);
    char text[16];
    EXPECT_EQ(LoadString(nullptr, 12345, text, sizeof text), 0);
}

} // namespace
