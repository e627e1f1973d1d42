// Inside the log: entries on their way to the system's log. The caller never waits: an entry that is not taken at once
// joins a queue, which a thread of the framework empties. The queue has an end; what comes then is dropped and counted,
// and a notice in the log says so.
#pragma once

#include "log/system_log.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

namespace qor::log {

// Any thread may use it. Never destroyed once its thread runs.
class system_sender {
public:
    // What a process has said on standard error.
    using speaker = void (*)(const std::string& line) noexcept;

    static constexpr std::size_t most_entries = qorMaxWaitingLogEntries;
    static constexpr std::size_t most_bytes = 4u << 20;

    // `start_thread` starts a thread that calls run(), and returns 0 on success.
    system_sender(system_service& service, int (*start_thread)() noexcept, speaker say) noexcept;
    system_sender(const system_sender&) = delete;
    system_sender& operator=(const system_sender&) = delete;

    void send(std::shared_ptr<system_entry> entry) noexcept;

    // The thread's work; never returns.
    [[noreturn]] void run() noexcept;

    // Waits until all entries so far have gone. Returns false after `wait` milliseconds; `waiting` and `reason` then
    // tell what remains and why.
    bool flush(uint32 wait, std::size_t& waiting, std::string& reason);

    // At the end of the framework, or in an exit handler: tries to send what is left, for `limit` at most, and says how
    // many entries are lost.
    void finish(bool at_exit, std::chrono::milliseconds limit) noexcept;

    // Of this process.
    uint64 dropped();

    // ---- around forks
    void before_fork() noexcept { m_lock.lock(); }
    void after_fork_in_parent() noexcept { m_lock.unlock(); }
    void after_fork_in_child() noexcept;

private:
    using outcome = system_service::outcome;
    using holding = std::unique_lock<std::mutex>;

    bool has_work() const noexcept { return !m_queue.empty() || may_tell_of_drops(); }
    bool may_tell_of_drops() const noexcept { return m_untold != 0 && m_notice_may_help; }
    outcome pass_on(holding& hold, const system_entry& entry) noexcept;
    outcome send_next(holding& hold) noexcept;
    outcome tell_of_drops(holding& hold) noexcept;
    void drop() noexcept;
    void enqueue(std::shared_ptr<system_entry> entry) noexcept;
    void say_once_that_nobody_is_there() noexcept;

    system_service& m_service;
    int (*const m_start_thread)() noexcept;
    const speaker m_say;
    std::mutex m_lock;
    std::condition_variable m_has_work; // the thread waits for it
    std::condition_variable m_is_idle;  // flush() and finish() do
    std::deque<std::shared_ptr<system_entry>> m_queue;
    std::size_t m_bytes = 0; // of the queue
    bool m_thread_runs = false;
    bool m_is_sending = false;      // the first of the queue, or a notice, without the lock
    bool m_was_absent = false;      // when last tried
    bool m_has_said = false;        // that nobody is there
    bool m_notice_may_help = false; // not refused since the last drop or the last entry that was taken
    uint64 m_untold = 0;            // dropped entries of which no notice has told
    uint64 m_dropped = 0;
};

} // namespace qor::log
