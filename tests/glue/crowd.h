// Threads that wait for the same event and are asleep before it happens.
#pragma once

#include "support/platform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace qor::test {

class crowd {
public:
    // Each thread calls `wait` with its number, from 0 up.
    template <class WAIT>
    crowd(int count, WAIT wait) : m_ids(static_cast<std::size_t>(count)) {
        for (int i = 0; i < count; ++i)
            m_threads.emplace_back([this, wait, i] {
                m_ids[static_cast<std::size_t>(i)] = thread_id();
                ++m_arrived;
                wait(i);
                ++m_passed;
            });
    }
    crowd(const crowd&) = delete;
    crowd& operator=(const crowd&) = delete;

    // All threads must be able to pass before this.
    ~crowd() {
        for (std::thread& each : m_threads)
            each.join();
    }

    // Returns when all threads wait, except those that have passed.
    void fall_asleep(int milliseconds) {
        while (m_arrived != static_cast<int>(m_ids.size()))
            std::this_thread::yield();
        wait_until_asleep(m_ids, milliseconds);
    }

    int passed() const { return m_passed; }

    // Returns true when `count` threads have passed; false only after a long time.
    bool pass(int count) const {
        for (int rest = 1000; m_passed < count && rest != 0; --rest)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return m_passed == count;
    }

private:
    std::vector<std::string> m_ids;
    std::atomic<int> m_arrived{0};
    std::atomic<int> m_passed{0};
    std::vector<std::thread> m_threads;
};

// Plays rounds, each of which returns whether it went well. On a system that cannot tell which threads sleep, a crowd
// waits for a number of milliseconds instead. There a round may begin too early, so if a round fails, all are repeated
// with a longer wait. A real fault fails with every wait.
template <class ROUND>
void in_each_round(ROUND round) {
    constexpr int rounds = 20;
    constexpr int most_milliseconds = 1000;
    for (int milliseconds = 10;; milliseconds *= 10) {
        int good = 0;
        for (int i = 0; i < rounds; ++i)
            good += round(milliseconds) ? 1 : 0;
        if (good != rounds && !tells_who_sleeps && milliseconds < most_milliseconds)
            continue;
        EXPECT_EQ(good, rounds);
        return;
    }
}

} // namespace qor::test
