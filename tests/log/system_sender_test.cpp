// The queue in front of the system's log, with a log that is slow, gone, or picky.
#include "log/system_sender.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using qor::log::system_entry;
using qor::log::system_sender;
using qor::log::system_service;
using outcome = system_service::outcome;
using words = std::vector<std::string>;

class fake_log final : public system_service {
public:
    outcome send(const system_entry& entry) noexcept override {
        std::unique_lock hold(m_lock);
        ++m_calls;
        m_tried.notify_all();
        if (m_waits)
            m_goes_on.wait(hold, [this] { return !m_waits; });
        if (!m_refused.empty() && entry.text.find(m_refused) != std::string::npos)
            return outcome::refused;
        if (m_answer == outcome::taken)
            m_texts.push_back(entry.text);
        return m_answer;
    }
    bool may_wait() const noexcept override { return m_may_wait; }
    std::string reason() override { return "a reason"; }
    void continue_in_child() noexcept override {}

    void answer(outcome wanted) {
        const std::lock_guard hold(m_lock);
        m_answer = wanted;
    }
    void refuse(const std::string& word) {
        const std::lock_guard hold(m_lock);
        m_refused = word;
    }
    void wait(bool waits) {
        const std::lock_guard hold(m_lock);
        m_waits = waits;
        m_goes_on.notify_all();
    }
    words texts() {
        const std::lock_guard hold(m_lock);
        return m_texts;
    }
    unsigned long calls() {
        const std::lock_guard hold(m_lock);
        return m_calls;
    }
    void wait_for_call(unsigned long number) {
        std::unique_lock hold(m_lock);
        m_tried.wait(hold, [&] { return m_calls >= number; });
    }
    bool m_may_wait = false;

private:
    std::mutex m_lock;
    std::condition_variable m_goes_on, m_tried;
    outcome m_answer = outcome::taken;
    std::string m_refused;
    bool m_waits = false;
    words m_texts;
    unsigned long m_calls = 0;
};

std::mutex said_lock;
words said;

void say(const std::string& line) noexcept {
    const std::lock_guard hold(said_lock);
    said.push_back(line);
}

system_sender* running;

int start_thread() noexcept {
    std::thread([] { running->run(); }).detach();
    return 0;
}

int start_no_thread() noexcept { return 11; }

std::shared_ptr<system_entry> an_entry(const std::string& text) {
    static const std::vector<qor::log::field> no_fields;
    const qorLogPlace place;
    return qor::log::make_system_entry({qorLogLevel::info, text, no_fields, place});
}

// Never destroyed, because the thread never ends.
template <class OBJECT, class... VALUES>
OBJECT& make(VALUES&&... values) {
    static auto& all = *new std::vector<OBJECT*>; // where the search for leaks finds them
    return *all.emplace_back(new OBJECT(std::forward<VALUES>(values)...));
}

class log_sender : public testing::Test {
protected:
    log_sender() { said.clear(); }
    void start() { running = &sender; }
    void send(const std::string& text) { sender.send(an_entry(text)); }
    bool flush(uint32 wait = 60'000) { return sender.flush(wait, waiting, reason); }

    fake_log& log = make<fake_log>();
    system_sender& sender = make<system_sender>(log, start_thread, say);
    std::size_t waiting = 0;
    std::string reason;
};

words numbers(int from, int to) {
    words all;
    for (int i = from; i < to; ++i)
        all.push_back(std::to_string(i));
    return all;
}

constexpr int room = static_cast<int>(system_sender::most_entries);

} // namespace

TEST_F(log_sender, sends_at_once_what_is_taken_at_once) {
    send("one");
    send("two");
    EXPECT_EQ(log.texts(), (words{"one", "two"}));
    EXPECT_TRUE(flush(0));
    EXPECT_EQ(sender.dropped(), 0u);
}

TEST_F(log_sender, keeps_the_order_of_what_waits) {
    start();
    log.answer(outcome::busy);
    for (int i = 0; i < 100; ++i)
        send(std::to_string(i));
    EXPECT_FALSE(flush(1));
    EXPECT_EQ(waiting, 100u);
    EXPECT_EQ(reason, "a reason");
    log.answer(outcome::taken);
    EXPECT_TRUE(flush());
    EXPECT_EQ(log.texts(), numbers(0, 100));
    EXPECT_EQ(said, words{});
}

TEST_F(log_sender, tells_how_many_had_no_room) {
    start();
    log.answer(outcome::busy);
    for (int i = 0; i < room + 7; ++i)
        send(std::to_string(i));
    EXPECT_EQ(sender.dropped(), 7u);
    log.answer(outcome::taken);
    EXPECT_TRUE(flush());
    send("last");
    words texts = log.texts();
    EXPECT_EQ(std::erase(texts, "7 log entries were dropped."), 1u);
    words expected = numbers(0, room);
    expected.push_back("last");
    EXPECT_EQ(texts, expected);
    EXPECT_EQ(sender.dropped(), 7u);
}

TEST_F(log_sender, has_room_for_a_number_of_bytes) {
    start();
    log.answer(outcome::busy);
    for (int i = 0; i < 6; ++i)
        send(std::string(1 << 20, 'x'));
    EXPECT_EQ(sender.dropped(), 3u);
    log.answer(outcome::taken);
    EXPECT_TRUE(flush());
    send("last");
    EXPECT_EQ(log.texts().size(), 5u); // with the notice
}

TEST_F(log_sender, does_not_repeat_a_notice_for_ever) {
    start();
    log.refuse("dropped");
    log.answer(outcome::busy);
    for (int i = 0; i < room + 7; ++i)
        send(std::to_string(i));
    log.answer(outcome::taken);
    EXPECT_TRUE(flush());
    const unsigned long calls = log.calls();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_LE(log.calls(), calls + 2);
    // No number is lost, either.
    log.refuse("");
    send("more");
    send("still more");
    const words texts = log.texts();
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "7 log entries were dropped."), 1);
}

TEST_F(log_sender, goes_on_behind_an_entry_that_is_refused) {
    log.refuse("bad");
    send("bad one");
    EXPECT_EQ(sender.dropped(), 1u);
    send("good one");
    EXPECT_EQ(log.texts(), (words{"1 log entries were dropped.", "good one"}));
}

TEST_F(log_sender, goes_on_behind_one_that_is_refused_in_the_queue) {
    start();
    log.answer(outcome::busy);
    for (const char* const text : {"one", "bad", "two"})
        send(text);
    log.refuse("bad");
    log.answer(outcome::taken);
    EXPECT_TRUE(flush());
    send("three");
    words texts = log.texts();
    EXPECT_EQ(std::erase(texts, "1 log entries were dropped."), 1u);
    EXPECT_EQ(texts, (words{"one", "two", "three"}));
}

TEST_F(log_sender, says_once_that_nobody_is_there) {
    start();
    log.answer(outcome::absent);
    for (int i = 0; i < 100; ++i)
        send(std::to_string(i));
    {
        const std::lock_guard hold(said_lock);
        ASSERT_EQ(said.size(), 1u);
        EXPECT_EQ(said[0], "The system's log takes no entries: a reason. The first 4096 wait for it; "
                           "'--qor-log=stderr' or '--qor-log=FILE' shows them.");
    }
    log.answer(outcome::taken);
    EXPECT_TRUE(flush());
    EXPECT_EQ(log.texts(), numbers(0, 100));
    EXPECT_EQ(said.size(), 1u);
}

TEST_F(log_sender, does_not_run_in_circles_while_nobody_is_there) {
    start();
    log.answer(outcome::absent);
    send("one");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_LT(log.calls(), 20u);
}

TEST_F(log_sender, says_at_the_end_what_is_lost) {
    start();
    log.answer(outcome::absent);
    for (int i = 0; i < 5; ++i)
        send(std::to_string(i));
    sender.finish(false, std::chrono::milliseconds(60'000)); // without waiting for somebody who is not there
    EXPECT_EQ(said.back(), "5 log entries were dropped.");
    EXPECT_EQ(sender.dropped(), 5u);
    sender.finish(true, std::chrono::milliseconds(0));
    EXPECT_EQ(said.size(), 2u);
}

TEST_F(log_sender, sends_at_the_end_what_is_left) {
    start();
    log.answer(outcome::busy);
    for (int i = 0; i < 50; ++i)
        send(std::to_string(i));
    log.answer(outcome::taken);
    sender.finish(false, std::chrono::milliseconds(60'000));
    EXPECT_EQ(log.texts(), numbers(0, 50));
    EXPECT_EQ(said, words{});
}

// As on Windows, where the end of the process has ended the thread.
TEST_F(log_sender, sends_what_is_left_without_its_thread) {
    system_sender& alone = make<system_sender>(
        log, []() noexcept { return 0; }, say);
    log.answer(outcome::busy);
    for (int i = 0; i < 50; ++i)
        alone.send(an_entry(std::to_string(i)));
    log.answer(outcome::taken);
    alone.finish(true, std::chrono::milliseconds(60'000));
    EXPECT_EQ(log.texts(), numbers(0, 50));
}

TEST_F(log_sender, drops_what_must_wait_where_no_thread_can_start) {
    system_sender& alone = make<system_sender>(log, start_no_thread, say);
    log.answer(outcome::busy);
    alone.send(an_entry("one"));
    EXPECT_EQ(alone.dropped(), 1u);
    log.answer(outcome::taken);
    alone.send(an_entry("two"));
    EXPECT_EQ(log.texts(), (words{"1 log entries were dropped.", "two"}));
}

TEST_F(log_sender, does_not_wait_with_a_log_that_waits) {
    start();
    log.m_may_wait = true;
    log.wait(true);
    for (int i = 0; i < 10; ++i)
        send(std::to_string(i));
    log.wait_for_call(1);
    for (int i = 10; i < room + 5; ++i)
        send(std::to_string(i)); // returns although the log is waiting
    EXPECT_FALSE(flush(1));
    EXPECT_EQ(sender.dropped(), 5u);
    log.wait(false);
    EXPECT_TRUE(flush());
    words texts = log.texts();
    EXPECT_EQ(std::erase(texts, "5 log entries were dropped."), 1u);
    EXPECT_EQ(texts, numbers(0, room));
}

TEST_F(log_sender, takes_entries_of_many_threads) {
    start();
    log.answer(outcome::busy);
    std::vector<std::thread> all;
    for (int thread = 0; thread < 4; ++thread)
        all.emplace_back([this, thread] {
            for (int i = 0; i < 500; ++i) {
                send(std::to_string(thread) + " " + std::to_string(i));
                if (thread == 0)
                    log.answer(i % 3 == 0 ? outcome::taken : outcome::busy);
            }
        });
    for (std::thread& each : all)
        each.join();
    log.answer(outcome::taken);
    EXPECT_TRUE(flush());
    std::vector<int> next(4);
    for (const std::string& text : log.texts()) {
        const std::size_t blank = text.find(' ');
        EXPECT_EQ(std::stoi(text.substr(blank)), next.at(static_cast<std::size_t>(std::stoi(text)))++);
    }
    EXPECT_EQ(next, std::vector<int>(4, 500));
}
