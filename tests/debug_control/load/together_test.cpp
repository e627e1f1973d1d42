// All threads of debug control at once, beside threads of a host that allocates and switches codes. Mainly for the
// thread sanitizer.
#include "breaking_proxy.h"
#include "loopback.h"
#include "support/load.h"

#include <iostream>
#include <set>

namespace {

using namespace qor::test;

class together : public loopback_fixture {
protected:
    // The work of one console, until it is disconnected or leaves.
    void round_of(breaking_proxy& proxy, int round) {
        control_pointer control = make();
        counting_sink sink;
        sink.act = [&] {
            qorStringArray names;
            EXPECT_FALSE(control->GetCodes(names));
            qorDebugAllocateCode("together.lost");
        };
        const bool to_be_told =
            control->Connect("127.0.0.1", proxy.port()) && control->Login("ada", "secret") && control->SetSink(&sink);
        bool well = to_be_told;
        qorStringArray names;
        for (int i = 0; well && i <= round % 4; ++i)
            well = control->EnableCode("together.*", i % 2 == 0) && control->GetCodes(names) &&
                   control->GetEnabledCodes(names) && control->EnableCode("together.traced", true);
        if (well) {
            ++m_left;
        } else {
            static const std::set<uint32> clear{qorError_debug_cannot_connect, qorError_debug_busy,
                                                qorError_debug_connection_lost};
            EXPECT_TRUE(clear.count(error_number()) != 0) << last_error();
            ++m_lost;
            if (to_be_told)
                sink.wait_for(1);
        }
        control.Empty();
        EXPECT_LE(sink.count(), 1);
        m_told += sink.count();
    }

    std::atomic<int> m_left = 0, m_lost = 0, m_told = 0;
};

TEST_F(together, listener_consoles_losses_and_codes) {
    ASSERT_TRUE(qorDebugAttachFile((folder() / "trace").c_str()));
    const int rounds = load(30, 1000);
    std::atomic<int> next = 0;
    std::atomic<bool> done = false;
    std::array<breaking_proxy, 3> proxies{breaking_proxy(port()), breaking_proxy(port()), breaking_proxy(port())};
    std::vector<std::thread> consoles, others;
    for (breaking_proxy& proxy : proxies)
        consoles.emplace_back([&] {
            for (int round; (round = next++) < rounds;)
                round_of(proxy, round);
        });
    // The host's own work: new codes, which follow the consoles' settings, and trace lines.
    others.emplace_back([&] {
        const uint32 traced = qorDebugAllocateCode("together.traced");
        for (int i = 0; !done; ++i) {
            const uint32 code = qorDebugAllocateCode(("together." + std::to_string(i % 200)).c_str());
            const qorDebugSeq scope(code, "work");
            qorDebug(traced, "round %d", next.load());
            std::this_thread::yield();
        }
    });
    others.emplace_back([&] {
        for (int i = 0; !done; ++i) {
            qorStringArray names;
            qorDebugGetEnabledCodes(names);
            qorDebugEnableCode("together.*", i % 2 == 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    int restarts = 0;
    others.emplace_back([&] {
        for (std::size_t i = 0; !done; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            if (i % 8 == 0) {
                listener.Empty();
                listen(port());
                ++restarts;
            } else {
                proxies[i % proxies.size()].break_off(i % 2 == 0);
            }
        }
    });
    for (std::thread& each : consoles)
        each.join();
    done = true;
    for (std::thread& each : others)
        each.join();
    (void)qorDebugAttachFile(nullptr);
    control_pointer control = connect();
    EXPECT_TRUE(control->Login("ada", "secret")) << last_error();
    EXPECT_TRUE(control->DisableAll()) << last_error();
    EXPECT_EQ(m_left + m_lost, rounds);
    std::cout << "sessions together: " << rounds << ", left by themselves: " << m_left << ", lost: " << m_lost
              << ", told: " << m_told << ", listeners: " << restarts << '\n';
}

} // namespace
