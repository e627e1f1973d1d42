// Debug control through its public calls, as a program uses them; each scene is a separate process.
#include "loopback.h"
#include "support/scenes.h"

namespace {

using namespace qor::test;

// Arguments: the file of accounts, and what to do at the end.
const scene both_ends{
    "debug_control_both_ends", [](const words& arguments) {
        uint16 port = 0;
        EXPECT_TRUE(qorDebugListen("0", arguments[0].c_str(), &port)) << last_error();
        EXPECT_NE(port, 0);
        qorDebugAllocateCode("both.ends");
        control_pointer control;
        create_IQORDebugControl(control.Out());
        EXPECT_TRUE(control->Connect("localhost", port)) << last_error();
        EXPECT_TRUE(control->Login("ada", "secret")) << last_error();
        qorString settings;
        EXPECT_TRUE(qorGetFolderPath(qorFolder_qor_user_configuration, settings)) << last_error();
        const std::string known_hosts = read_file(std::string(settings.Text()) + "/known-hosts");
        EXPECT_NE(known_hosts.find("localhost " + std::to_string(port) + " sha256 "), std::string::npos) << known_hosts;
        qorStringArray out;
        EXPECT_TRUE(control->GetCodes(out)) << last_error();
        EXPECT_TRUE(has(texts(out), "both.ends"));
        EXPECT_TRUE(control->EnableCode("both.ends", true)) << last_error();
        if (arguments[1] == "clean up") {
            control.Empty();
            qorCleanup();
            // The listener has ended: nobody listens any more.
            create_IQORDebugControl(control.Out());
            EXPECT_FALSE(control->Connect("localhost", port));
            return 0;
        }
        // Both threads are running while the process ends. The object is still reachable, so it is not a leak.
        static IQORDebugControl* kept = nullptr;
        kept = control.Detach();
        EXPECT_NE(kept, nullptr);
        return 0;
    }};

// Starts with the framework's options and reports the result.
const scene listen{"debug_control_listen", [](const words& arguments) {
                       qorStringArray args;
                       args.Append("program");
                       for (const std::string& word : arguments)
                           args.Append(word.c_str());
                       if (!qorInitProcess("program", args, 0)) {
                           std::printf("%u %s", error_number(), last_error().c_str());
                           return 1;
                       }
                       qorCleanup();
                       return 0;
                   }};

// Starts as the environment says, then starts another process with the same environment.
const scene listen_and_start_another{"debug_control_listen_and_start_another", [](const words&) {
                                         qorStringArray args;
                                         args.Append("program");
                                         if (!qorInitProcess("program", args, 0)) {
                                             std::printf("%s", last_error().c_str());
                                             return 2;
                                         }
                                         const int code = std::system(
                                             ('"' + this_program() + "\" --scene debug_control_listen").c_str());
                                         qorCleanup();
                                         return code == 0 ? 0 : 1;
                                     }};

class debug_control_process : public testing::Test {
protected:
    debug_control_process() { m_users = private_file(m_folder, "users", plain_scram::account("ada", "secret")); }

    words environment(words more = {}) const {
        more.push_back("XDG_CONFIG_HOME=" + m_folder.path());
        return more;
    }

    ending start(const words& arguments, const words& more = {}) const {
        return play(listen, arguments, environment(more));
    }

    // Returns a port that was free a moment ago.
    std::string free_port() const {
        zetSmartPointer<IQORDebugListener> listener;
        uint16 port = 0;
        EXPECT_TRUE(create_debug_listener(listener.Out()));
        EXPECT_TRUE(listener->Listen("127.0.0.1:0", m_users.c_str(), &port)) << last_error();
        return std::to_string(port);
    }

    temp_folder m_folder;
    std::string m_users;
};

TEST_F(debug_control_process, by_the_public_calls) {
    for (const char* const end : {"clean up", "just end"}) {
        const ending ended = play(both_ends, {m_users, end}, environment());
        EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
    }
    EXPECT_TRUE(std::filesystem::exists(m_users + ".key"));
}

TEST_F(debug_control_process, by_the_options) {
    const ending by_words =
        start({"--qor-debug-listen=0", "--qor-debug-users=" + m_users, "--qor-debug=system.debug-control"});
    EXPECT_EQ(by_words.code, 0) << by_words.out;
    EXPECT_NE(by_words.err.find(" system.debug-control listening on 127.0.0.1 port "), std::string::npos)
        << by_words.err;
    const ending by_environment =
        start({}, {"QOR_DEBUG_LISTEN=127.0.0.1:0", "QOR_DEBUG_USERS=" + m_users, "QOR_DEBUG=system.*"});
    EXPECT_EQ(by_environment.code, 0) << by_environment.out;
    EXPECT_NE(by_environment.err.find(" listening on 127.0.0.1 port "), std::string::npos) << by_environment.err;
    EXPECT_EQ(by_environment.err.find("::1"), std::string::npos) << by_environment.err;
}

TEST_F(debug_control_process, who_cannot_listen_does_not_start) {
    const std::string users = "--qor-debug-users=" + m_users;
    for (const char* const address :
         {"", ":1", "x", "65536", "-1", "1x", "a:b:1", "[::1:1", "::1", "[::1]1", "127.0.0.1:"}) {
        const ending ended = start({users, "--qor-debug-listen=" + std::string(address)});
        EXPECT_EQ(ended.code, 1) << address;
    }
    EXPECT_EQ(start({users, "--qor-debug-listen=1x"}).out,
              "123 '1x' is not an address to listen on. Write it as [HOST:]PORT, for example 4711, 0.0.0.0:4711 or "
              "[::]:4711.");
    EXPECT_TRUE(start({users, "--qor-debug-listen=no such host:1"}).out.starts_with("124 "));
    EXPECT_NE(start({"--qor-debug-listen=0", "--qor-debug-users=" + m_folder / "none"}).code, 0);
}

// A port is for one process: its child processes ignore the variable.
TEST_F(debug_control_process, the_variable_is_for_the_process_it_was_given_to) {
    ending ended{};
    std::string port;
    // Another process may take a port that has just been free.
    for (int attempt = 0; attempt < 10 && (attempt == 0 || ended.code == 2); ++attempt) {
        port = free_port();
        ended = play(listen_and_start_another, {},
                     environment({"QOR_DEBUG_LISTEN=127.0.0.1:" + port, "QOR_DEBUG_USERS=" + m_users,
                                  "QOR_DEBUG=system.debug-control"}));
    }
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
    const std::string line = " listening on 127.0.0.1 port " + port + '\n';
    const std::size_t first = ended.err.find(line);
    EXPECT_NE(first, ended.err.npos) << ended.err;
    EXPECT_EQ(ended.err.find(line, first + 1), ended.err.npos) << ended.err;
    EXPECT_EQ(ended.out, "");
}

TEST_F(debug_control_process, a_port_that_is_taken) {
    zetSmartPointer<IQORDebugListener> first;
    uint16 port = 0;
    ASSERT_TRUE(create_debug_listener(first.Out()));
    ASSERT_TRUE(first->Listen("127.0.0.1:0", m_users.c_str(), &port)) << last_error();
    const ending ended =
        start({"--qor-debug-users=" + m_users, "--qor-debug-listen=127.0.0.1:" + std::to_string(port)});
    EXPECT_EQ(ended.code, 1);
    EXPECT_TRUE(
        ended.out.starts_with("124 Cannot listen for debug control on '127.0.0.1:" + std::to_string(port) + "': "))
        << ended.out;
}

} // namespace
