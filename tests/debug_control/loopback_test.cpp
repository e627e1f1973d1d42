// A listener and consoles in one process, over the loopback network.
#include "channel/control_client.h"
#include "loopback.h"

namespace {

using namespace qor::test;

class loopback : public loopback_fixture {};

TEST_F(loopback, a_login_and_the_operations) {
    const uint32 code = qorDebugAllocateCode("loopback.one");
    qorDebugAllocateCode("loopback.two");
    control_pointer control = connect();
    ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
    EXPECT_TRUE(has(codes(control), "loopback.one"));
    EXPECT_TRUE(has(codes(control), "loopback.two"));
    EXPECT_TRUE(control->EnableCode("loopback.one", true));
    EXPECT_TRUE(qor::glue::debug_is_on(code));
    EXPECT_EQ(enabled_codes(control), (std::vector<std::string>{"loopback.one"}));
    EXPECT_TRUE(control->EnableCode("loopback.*", false));
    EXPECT_FALSE(qor::glue::debug_is_on(code));
    EXPECT_TRUE(enabled_codes(control).empty());
    EXPECT_TRUE(control->EnableCode("loopback.*", true));
    EXPECT_TRUE(control->DisableAll());
    EXPECT_FALSE(qor::glue::debug_is_on(code));
}

// A code is switched before it exists, and stays switched after the console has left.
TEST_F(loopback, codes_to_come) {
    control_pointer control = connect();
    ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
    EXPECT_TRUE(control->EnableCode("loopback.to_come", true));
    control.Empty();
    const uint32 code = qorDebugAllocateCode("loopback.to_come");
    EXPECT_TRUE(qor::glue::debug_is_on(code));
    control = connect();
    ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
    EXPECT_TRUE(has(enabled_codes(control), "loopback.to_come"));
    EXPECT_TRUE(control->DisableAll());
}

// After error 4 a login may be tried again any number of times: after five refusals the listener closes the connection,
// and the next login connects again by itself.
TEST_F(loopback, six_wrong_logins_and_a_right_one) {
    control_pointer control = connect();
    for (int i = 0; i < 6; ++i) {
        EXPECT_FALSE(control->Login("ada", "guess"));
        EXPECT_EQ(error_number(), 4u) << i << last_error();
    }
    EXPECT_TRUE(control->Login("ada", "secret")) << last_error();
    EXPECT_TRUE(control->DisableAll());
}

TEST_F(loopback, names_that_fit_no_frame_end_no_connection) {
    control_pointer control = connect();
    EXPECT_FALSE(control->Login(std::string(256, 'a').c_str(), "secret"));
    EXPECT_EQ(error_number(), qorError_credentials_refused);
    EXPECT_FALSE(control->Login(std::string(100'000, 'a').c_str(), "secret"));
    EXPECT_EQ(error_number(), qorError_credentials_refused);
    EXPECT_FALSE(control->Login(std::string(255, 'a').c_str(), "secret"));
    EXPECT_EQ(error_number(), qorError_credentials_refused);
    ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
    for (const std::size_t length : {65'535u, 65'536u, 1'000'000u}) {
        EXPECT_FALSE(control->EnableCode(std::string(length, 'x').c_str(), true));
        EXPECT_EQ(error_number(), qorError_debug_refused) << length;
    }
    EXPECT_TRUE(control->DisableAll()) << last_error();
}

TEST_F(loopback, operations_want_a_connection_and_a_login) {
    control_pointer control = make();
    qorStringArray out;
    EXPECT_FALSE(control->Login("ada", "secret"));
    EXPECT_EQ(error_number(), qorError_debug_not_connected);
    EXPECT_FALSE(control->GetCodes(out));
    EXPECT_EQ(error_number(), qorError_debug_not_connected);
    ASSERT_TRUE(control->Connect("127.0.0.1", port())) << last_error();
    EXPECT_FALSE(control->GetCodes(out));
    EXPECT_EQ(error_number(), qorError_debug_not_logged_in);
    EXPECT_FALSE(control->EnableCode("x", true));
    EXPECT_EQ(error_number(), qorError_debug_not_logged_in);
    EXPECT_FALSE(control->DisableAll());
    EXPECT_EQ(error_number(), qorError_debug_not_logged_in);
    EXPECT_FALSE(control->SetSink(nullptr));
    EXPECT_EQ(error_number(), qorError_debug_not_logged_in);
    EXPECT_FALSE(control->Login(nullptr, "secret"));
    EXPECT_EQ(error_number(), qorError_invalid_argument);
    ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
    EXPECT_FALSE(control->Login("ada", "secret"));
    EXPECT_EQ(error_number(), qorError_debug_logged_in);
    EXPECT_FALSE(control->EnableCode("", true));
    EXPECT_EQ(error_number(), qorError_invalid_argument);
}

TEST_F(loopback, too_many_sessions) {
    std::vector<control_pointer> all;
    for (int i = 0; i < 8; ++i) {
        all.push_back(connect());
        ASSERT_TRUE(all.back()->Login("ada", "secret")) << last_error();
    }
    control_pointer one_more = connect();
    EXPECT_FALSE(one_more->Login("ada", "secret"));
    EXPECT_EQ(error_number(), qorError_debug_sessions_full) << last_error();
    EXPECT_FALSE(one_more->Login("ada", "guess"));
    EXPECT_EQ(error_number(), qorError_credentials_refused) << last_error();
    EXPECT_TRUE(one_more->Login("bob", "other")) << last_error();
    for (const control_pointer& each : all)
        EXPECT_TRUE(each->DisableAll()) << last_error();
    // An ended session makes room.
    all.pop_back();
    control_pointer next = connect();
    while (!next->Login("ada", "secret"))
        ASSERT_EQ(error_number(), qorError_debug_sessions_full) << last_error();
}

TEST_F(loopback, too_many_switches) {
    control_pointer control = connect();
    ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
    ASSERT_TRUE(control->DisableAll());
    for (int i = 0; i < 256; ++i)
        ASSERT_TRUE(control->EnableCode(("loopback.full." + std::to_string(i) + "*x").c_str(), true)) << last_error();
    EXPECT_FALSE(control->EnableCode("loopback.full.more*x", true));
    EXPECT_EQ(error_number(), qorError_debug_switches_full) << last_error();
    EXPECT_TRUE(control->EnableCode("loopback.full.*x", true)) << last_error();
    EXPECT_TRUE(control->EnableCode("loopback.full.more*", true)) << last_error();
    EXPECT_TRUE(control->DisableAll());
}

TEST_F(loopback, nobody_listens) {
    listener.Empty();
    control_pointer control = make();
    EXPECT_FALSE(control->Connect("127.0.0.1", port()));
    EXPECT_EQ(error_number(), qorError_debug_cannot_connect);
    EXPECT_FALSE(control->Connect("no such host", 4711));
    EXPECT_EQ(error_number(), qorError_debug_cannot_connect);
}

TEST_F(loopback, both_families_and_the_name) {
    for (const char* const host : {"127.0.0.1", "::1", "localhost"}) {
        control_pointer control = make();
        ASSERT_TRUE(control->Connect(host, port())) << host << last_error();
        EXPECT_TRUE(control->Login("bob", "other")) << last_error();
    }
}

} // namespace
