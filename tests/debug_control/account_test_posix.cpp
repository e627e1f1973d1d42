// Accounts as a peer of a real listener sees them: accounts that are changed during a login, and invented accounts.
#include "load/socket_peer.h"
#include "loopback.h"

#include <cmath>
#include <fcntl.h>
#include <map>
#include <sys/file.h>
#include <unistd.h>

namespace {

using namespace qor::test;

class accounts_of_a_listener : public loopback_fixture {
protected:
    const std::string m_file = folder() / "users";

    // Returns the last answer to a login during which `happens` is called.
    std::optional<frame> log_in(const std::string& name, const std::string& password,
                                const std::function<void()>& happens) {
        tls_peer peer(port(), {"127.0.0.1", std::nullopt});
        plain_scram::client who{name, password, {}};
        EXPECT_TRUE(peer.shake_hands());
        const std::optional<frame> first = peer.begin_login(who);
        happens();
        if (!first || !peer.send(frame_type::login_final, 2, who.final(first->payload)))
            return std::nullopt;
        return peer.next();
    }
};

TEST_F(accounts_of_a_listener, count_as_they_are_at_the_end_of_a_login) {
    EXPECT_TRUE(is_logged_in(log_in("ada", "secret", [] {})));
    EXPECT_TRUE(is_logged_in(
        log_in("ada", "secret", [&] { ASSERT_TRUE(qorAddDebugUser(m_file.c_str(), "eve", "new")) << last_error(); })));
    EXPECT_TRUE(is_refusal(log_in(
        "ada", "secret", [&] { ASSERT_TRUE(qorChangeDebugUser(m_file.c_str(), "ada", "changed")) << last_error(); })));
    // The same password with another salt makes another account too, because the change was deliberate.
    EXPECT_TRUE(is_refusal(log_in(
        "ada", "changed", [&] { ASSERT_TRUE(qorChangeDebugUser(m_file.c_str(), "ada", "changed")) << last_error(); })));
    EXPECT_TRUE(is_refusal(
        log_in("bob", "other", [&] { ASSERT_TRUE(qorRemoveDebugUser(m_file.c_str(), "bob")) << last_error(); })));
    EXPECT_TRUE(is_logged_in(log_in("ada", "changed", [] {})));
    EXPECT_TRUE(is_refusal(log_in("ada", "changed", [&] { std::filesystem::remove(m_file); })));
}

// Invented accounts look like the real ones, and each look is as frequent as among these.
TEST_F(accounts_of_a_listener, that_are_invented_look_like_the_others) {
    std::string text;
    const auto add = [&](const std::string& name, int iterations, std::size_t salt) {
        text += name + ":SCRAM-SHA-256$" + std::to_string(iterations) + ':' +
                plain_scram::base64(std::string(salt, 's')) +
                plain_scram::account(name, "x").substr(name.size() + 1 + 43);
    };
    add("a", 4096, 16);
    add("b", 4096, 16);
    add("c", 4096, 40);
    add("d", 5000, 16);
    private_file(folder(), "users", text);
    std::map<std::string, int> seen;
    const auto look_of = [&](const std::string& name) {
        tls_peer peer(port(), {"127.0.0.1", std::nullopt});
        plain_scram::client who{name, "guess", {}};
        const std::optional<frame> first = peer.shake_hands() ? peer.begin_login(who) : std::nullopt;
        if (!first || first->type != frame_type::login_first_answer)
            return std::string("none");
        auto of = plain_scram::attributes(first->payload);
        return of['i'] + '/' + std::to_string(plain_scram::from_base64(of['s']).size());
    };
    EXPECT_EQ(look_of("c"), "4096/40");
    EXPECT_EQ(look_of("d"), "5000/16");
    constexpr int names = 120;
    for (int i = 0; i < names; ++i)
        ++seen[look_of("nobody" + std::to_string(i))];
    // The counts stay within 6.5 standard deviations: less than one run in ten thousand million fails by chance.
    for (const auto& [look, share] : {std::pair("4096/16", 0.5), {"4096/40", 0.25}, {"5000/16", 0.25}}) {
        std::printf("%s: %d of %d\n", look, seen[look], names);
        EXPECT_NEAR(seen[look], names * share, 6.5 * std::sqrt(names * share * (1 - share))) << look;
        seen.erase(look);
    }
    EXPECT_TRUE(seen.empty()) << seen.begin()->first;
}

// Anybody who may read a folder can hold a lock on it.
TEST_F(accounts_of_a_listener, need_no_lock_that_others_can_hold) {
    const int held = open(folder().path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(held, LOCK_EX | LOCK_NB), 0);
    EXPECT_TRUE(qorAddDebugUser(m_file.c_str(), "eve", "new")) << last_error();
    std::filesystem::remove(m_file + ".key");
    listen(0);
    const control_pointer control = connect();
    EXPECT_TRUE(control->Login("eve", "new")) << last_error();
    EXPECT_TRUE(std::filesystem::exists(folder() / "known-hosts"));
    close(held);
}

} // namespace
