// Whole sessions through a proxy that breaks them at every place of their bytes. No operation hangs, no failure is
// mistaken for another, and the listener still serves the next peer.
#include "breaking_proxy.h"
#include "loopback.h"
#include "support/load.h"

#include <deque>
#include <iostream>
#include <map>
#include <optional>
#include <set>

namespace {

using namespace qor::test;
using clock = std::chrono::steady_clock;

constexpr auto longest_allowed = std::chrono::seconds(20);

struct kind {
    const char* words;
    bool harmless; // the session succeeds anyway
    // The stride between the offsets that are tried, in each direction; 1 tries all.
    std::size_t brief;
    std::size_t whole;
};

const std::map<fault, kind> kinds{
    {fault::split, {"split", true, 41, 1}},
    {fault::single, {"byte by byte from", true, 401, 11}},
    {fault::pause, {"delayed 0.2 s", true, 211, 2}},
    {fault::long_pause, {"delayed 6 s", false, 701, 2}},
    {fault::repeat, {"a byte repeated", false, 73, 1}},
    {fault::stall, {"stalled", false, 311, 1}},
    {fault::close, {"truncated", false, 31, 1}},
    {fault::reset, {"reset", false, 43, 1}},
};

struct figures {
    std::size_t tried = 0, fired = 0, failed = 0;
    clock::duration longest{};
};

std::string seconds(clock::duration time) {
    return std::to_string(std::chrono::duration<double>(time).count()).substr(0, 5);
}

// Returns true for errors that correctly describe a broken connection.
bool is_clear(uint32 number) {
    static const std::set<uint32> clear{qorError_debug_cannot_connect, qorError_debug_not_ours, qorError_debug_busy,
                                        qorError_debug_protocol, qorError_debug_connection_lost};
    return clear.count(number) != 0;
}

// A listener with the proxy in front of it. Each stage has its own, so that the limits of one do not affect the others.
class stage {
public:
    stage(const temp_folder& folder, const std::string& users, std::size_t number)
        : m_known_hosts(folder / ("known-hosts." + std::to_string(number))) {
        EXPECT_TRUE(create_debug_listener(m_listener.Out()));
        EXPECT_TRUE(m_listener->Listen("127.0.0.1:0", users.c_str(), &m_port)) << last_error();
        m_proxy.emplace(m_port);
    }

    struct outcome {
        clock::duration longest{}; // of any operation
        bool failed = false;
    };

    outcome play(const breaking_proxy::order& wanted) {
        m_proxy->set(wanted);
        const outcome ended = session(m_proxy->port());
        if (!kinds.at(wanted.what).harmless && ended.failed) {
            const outcome next = session(m_port);
            EXPECT_FALSE(next.failed) << "the session after it";
        }
        return ended;
    }

    std::array<std::size_t, 2> lengths() {
        m_proxy->set({});
        EXPECT_FALSE(session(m_proxy->port()).failed);
        return {m_proxy->passed(false), m_proxy->passed(true)};
    }

    breaking_proxy& proxy() { return *m_proxy; }

private:
    outcome session(uint16 port) {
        outcome out;
        counting_sink sink;
        int lost = 0; // operations that reported the loss after the sink was set
        bool told_of = false;
        const auto step = [&](auto operation) {
            if (out.failed)
                return;
            const clock::time_point begin = clock::now();
            out.failed = !operation();
            out.longest = std::max(out.longest, clock::now() - begin);
            if (out.failed) {
                EXPECT_TRUE(is_clear(error_number())) << last_error();
                lost += told_of;
            }
        };
        control_pointer control;
        EXPECT_TRUE(create_debug_control(m_known_hosts.c_str(), control.Out())) << last_error();
        qorStringArray names;
        step([&] { return control->Connect("127.0.0.1", port); });
        step([&] { return control->Login("ada", "secret"); });
        step([&] { return told_of = control->SetSink(&sink); });
        step([&] { return control->GetCodes(names); });
        step([&] { return control->EnableCode("proxy.code", true); });
        step([&] { return control->GetEnabledCodes(names); });
        step([&] { return control->DisableAll(); });
        const clock::time_point begin = clock::now();
        if (lost != 0)
            sink.wait_for(1);
        control.Empty();
        out.longest = std::max(out.longest, clock::now() - begin);
        EXPECT_LE(sink.count(), 1);
        return out;
    }

    std::string m_known_hosts;
    zetSmartPointer<IQORDebugListener> m_listener;
    uint16 m_port = 0;
    std::optional<breaking_proxy> m_proxy;
};

TEST(proxy, breaks_a_session_at_each_offset) {
    const temp_folder folder;
    const std::string users = private_file(folder, "users", plain_scram::account("ada", "secret"));
    std::vector<std::unique_ptr<stage>> stages;
    for (std::size_t i = 0; i < static_cast<std::size_t>(load(12, 150)); ++i)
        stages.push_back(std::make_unique<stage>(folder, users, i));

    // Lengths vary by a few bytes, because signatures have different lengths.
    const std::array<std::size_t, 2> lengths = stages.front()->lengths();
    std::deque<breaking_proxy::order> orders;
    std::size_t begin = 0;
    for (const auto& [what, of] : kinds)
        for (const bool to_console : {false, true}) {
            const std::size_t stride = whole_load() ? of.whole : of.brief;
            // Shifted, because kinds with the same stride would meet the same places.
            for (std::size_t offset = (begin += 7) % stride; offset <= lengths[to_console]; offset += stride)
                if (what == fault::stall || what == fault::long_pause)
                    orders.push_front({what, to_console, offset});
                else
                    orders.push_back({what, to_console, offset});
        }

    std::mutex lock;
    std::map<fault, figures> all;
    std::vector<std::thread> workers;
    for (const auto& each : stages)
        workers.emplace_back([&, stage = each.get()] {
            for (;;) {
                breaking_proxy::order wanted;
                {
                    const std::lock_guard hold(lock);
                    if (orders.empty())
                        return;
                    wanted = orders.front();
                    orders.pop_front();
                }
                const kind& of = kinds.at(wanted.what);
                const std::string where = std::string(of.words) + " at " + std::to_string(wanted.offset) +
                                          (wanted.to_console ? " to the console" : " to the listener");
                SCOPED_TRACE(where);
                const stage::outcome ended = stage->play(wanted);
                const bool fired = stage->proxy().fired();
                EXPECT_LE(ended.longest, longest_allowed) << where;
                EXPECT_TRUE(!ended.failed || (fired && !of.harmless)) << where << ": " << last_error();
                const std::lock_guard hold(lock);
                figures& sum = all[wanted.what];
                ++sum.tried;
                sum.fired += fired;
                sum.failed += ended.failed;
                sum.longest = std::max(sum.longest, ended.longest);
            }
        });
    for (std::thread& each : workers)
        each.join();
    std::cout << "a session: " << lengths[0] << " bytes to the listener, " << lengths[1] << " to the console\n";
    for (const auto& [what, sum] : all) {
        std::cout << kinds.at(what).words << " at each of " << sum.tried << " offsets: longest end "
                  << seconds(sum.longest) << " s (at most 20), sessions that failed: " << sum.failed << '\n';
        EXPECT_GT(sum.fired, 0u);
        EXPECT_EQ(sum.failed != 0, !kinds.at(what).harmless);
    }
}

} // namespace
