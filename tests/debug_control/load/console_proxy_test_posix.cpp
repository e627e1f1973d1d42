// The console behind a proxy that breaks its connection: it ends in time and reports the cause.
#include "breaking_proxy.h"
#include "loopback.h"
#include "support/load.h"
#include "support/scenes.h"

#include <iostream>

namespace {

using namespace qor::test;

constexpr char end_of_input[] = "The input has ended.\n";

class console_through_a_proxy : public testing::Test {
protected:
    // Runs the console with all its input at once, as a script does.
    static ending console(uint16 port, const std::string& home) {
        const std::filesystem::path tool = std::filesystem::path(this_program()).parent_path() / "qortool";
        return run({"/bin/sh", "-c", R"(printf 'ada\nsecret\nshow-enabled\ndisable-all\n' | "$@")", "sh", tool,
                    "--quiet", "debug-control", "127.0.0.1", std::to_string(port)},
                   {"XDG_CONFIG_HOME=" + home});
    }

    // Returns its messages without that about the listener's key, which is new to it.
    static std::string said(const ending& ended) {
        const std::string& all = ended.err;
        return all.starts_with("The key of '127.0.0.1'") ? all.substr(all.find('\n') + 1) : all;
    }

    // Returns the duration.
    std::chrono::steady_clock::duration try_out(const breaking_proxy::order& wanted) {
        const temp_folder home;
        zetSmartPointer<IQORDebugListener> listener;
        uint16 port = 0;
        EXPECT_TRUE(create_debug_listener(listener.Out()));
        EXPECT_TRUE(listener->Listen("127.0.0.1:0", m_users.c_str(), &port)) << last_error();
        breaking_proxy proxy(port);
        proxy.set(wanted);
        const auto begin = std::chrono::steady_clock::now();
        const ending ended = console(proxy.port(), home.path());
        const auto time = std::chrono::steady_clock::now() - begin;
        SCOPED_TRACE(std::to_string(static_cast<int>(wanted.what)) + " at " + std::to_string(wanted.offset) + ": " +
                     ended.err);
        // The message of a failed command may come before or after that of the loss; the order depends on the threads.
        const bool lost = ended.code == 0 && ended.err.find("Debug connection lost\n") != std::string::npos;
        const bool failed = ended.code == 1 && !ended.err.empty();
        EXPECT_TRUE(lost || failed) << ended.code << ended.out;
        EXPECT_EQ(ended.err.find("refused"), std::string::npos);
        EXPECT_LE(time, std::chrono::seconds(20));
        if (wanted.what == fault::single) {
            EXPECT_EQ(said(ended), end_of_input);
        }
        EXPECT_EQ(said(console(port, home.path())), end_of_input) << "the one after it";
        return time;
    }

    const temp_folder m_folder;
    const std::string m_users = private_file(m_folder, "users", plain_scram::account("ada", "secret"));
};

TEST_F(console_through_a_proxy, ends_in_time_and_says_why) {
    // Within the greeting, within the login, and where the first command follows.
    const std::vector<std::size_t> brief{0, 400}, whole{0, 3, 100, 250, 330, 400, 470, 530, 590, 640, 700, 770};
    std::vector<breaking_proxy::order> orders;
    for (const fault what : {fault::stall, fault::close, fault::reset, fault::repeat, fault::single})
        for (const bool to_console : {false, true})
            for (const std::size_t offset : whole_load() ? whole : brief)
                orders.push_back({what, to_console, offset});
    std::atomic<std::size_t> next = 0;
    std::mutex lock;
    std::chrono::steady_clock::duration longest{};
    std::vector<std::thread> users;
    for (int i = 0; i < 20; ++i)
        users.emplace_back([&] {
            for (std::size_t mine; (mine = next++) < orders.size();) {
                const auto time = try_out(orders[mine]);
                const std::lock_guard hold(lock);
                longest = std::max(longest, time);
            }
        });
    for (std::thread& each : users)
        each.join();
    std::cout << "consoles through a proxy that breaks the connection: " << orders.size() << ", longest run "
              << std::chrono::duration<double>(longest).count() << " s (at most 20)\n";
}

} // namespace
