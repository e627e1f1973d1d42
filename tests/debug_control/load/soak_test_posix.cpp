// Many sessions, some of them broken off: neither side keeps resources of them.
#include "breaking_proxy.h"
#include "host_process.h"
#include "support/load.h"

#include <iostream>

namespace {

using namespace qor::test;

#if defined __SANITIZE_ADDRESS__ || defined __SANITIZE_THREAD__
// The sanitizers' allocators count allocations exactly, but keep freed memory for a while.
constexpr long heap_slack = 4096;
constexpr long resident_slack = 1L << 40;
#else
// The C library counts free blocks that it caches for each size, until all its caches are full.
constexpr long heap_slack = 64 * 1024;
constexpr long resident_slack = 1024 * 1024;
#endif

void expect_the_same(const char* who, const holdings& before, const holdings& after) {
    std::cout << who << ": heap " << before.heap << " to " << after.heap << " bytes, resident "
              << before.resident / 1024 << " to " << after.resident / 1024 << " KiB, descriptors " << before.descriptors
              << " to " << after.descriptors << ", threads " << before.threads << " to " << after.threads << '\n';
    EXPECT_LE(after.heap, before.heap + heap_slack) << who;
    EXPECT_LE(after.resident, before.resident + resident_slack) << who;
    EXPECT_EQ(after.descriptors, before.descriptors) << who;
    EXPECT_EQ(after.threads, before.threads) << who;
}

class soak : public testing::Test {
protected:
    // Runs a session as far as it gets.
    void session(int number) {
        counting_sink sink; // outlives the connection, which may still be calling it
        control_pointer control;
        ASSERT_TRUE(create_debug_control((m_folder / "known-hosts").c_str(), control.Out())) << last_error();
        const auto place = static_cast<std::size_t>(number);
        const int what = number % 8;
        const bool by_proxy = what >= 5;
        if (what == 5)
            m_proxy.set({fault::reset, false, place * 37 % 700});
        else if (what == 6)
            m_proxy.set({fault::close, true, place * 41 % 1000});
        const bool connected = control->Connect("127.0.0.1", by_proxy ? m_proxy.port() : m_host.port());
        if (what == 4 || (what == 0 && !control->Connect("127.0.0.1", m_host.port())))
            return;
        qorStringArray names;
        const std::string name = "soak." + std::to_string(number);
        const bool done = connected && control->Login("ada", "secret") && control->SetSink(&sink) &&
                          control->EnableCode(name.c_str(), true) && control->GetEnabledCodes(names) &&
                          (what != 1 || control->GetCodes(names)) && control->DisableAll();
        m_broken += !done;
        if (what == 7) {
            m_proxy.break_off(number % 16 == 7);
            sink.wait_for(1);
        }
        EXPECT_TRUE(done || what == 5 || what == 6) << what << last_error();
    }

    temp_folder m_folder;
    host_process m_host;
    breaking_proxy m_proxy{m_host.port()};
    int m_broken = 0;
};

TEST_F(soak, leaves_nothing_behind) {
    const int rounds = load(150, 10'000);
    const holdings host_at_first = m_host.measure();
    const auto play = [this](int count) {
        for (int i = 0; i < count; ++i)
            session(i);
    };
    play(load(50, 1000)); // fills caches and creates everything that is created once
    const holdings host_before = m_host.measure_at_rest(host_at_first), before = measure_this_process();
    play(rounds);
    const holdings host_after = m_host.measure_at_rest(host_before), after = measure_this_process();
    std::cout << "sessions: " << rounds << ", broken off: " << m_broken << '\n';
    expect_the_same("listener", host_before, host_after);
    expect_the_same("console", before, after);
}

} // namespace
