// Threads that wait for one thing, and are asleep before anything happens to it.
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

    // All must be able to pass by then.
    ~crowd() {
        for (std::thread& each : m_threads)
            each.join();
    }

    // Returns when all wait, but for those who have passed.
    void fall_asleep(int milliseconds) {
        while (m_arrived != static_cast<int>(m_ids.size()))
            std::this_thread::yield();
        wait_until_asleep(m_ids, milliseconds);
    }

    int passed() const { return m_passed; }

    // Whether so many pass; false after a long time only.
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

// Plays rounds, each of which tells whether all went well. A system that does not tell who sleeps gives the threads of
// a crowd a number of milliseconds instead: there a round may begin too early, and what fails is tried again with more
// of them. A fault fails however many there are.
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
