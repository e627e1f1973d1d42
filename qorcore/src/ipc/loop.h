// Inside the library: a thread that serves connections, those of one server or those that this process has made.
#pragma once

#include "ipc/channel.h"
#include "ipc/connection.h"
#include "thread/system_thread.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <queue>
#include <unordered_map>
#include <vector>

namespace qor::ipc {

class loop final : public std::enable_shared_from_this<loop> {
public:
    loop() = default;
    loop(const loop&) = delete;
    loop& operator=(const loop&) = delete;
    ~loop() = default;

    // Starts the thread, for a server if `target` is not null. Returns 0 or the system's code.
    int start(const qorIpcOptions& options, IQORIpcTarget* target) noexcept;
    // Lets the thread do something. Any thread; does nothing if the loop's has ended.
    void post(std::function<void(loop&)> what);
    bool is_own_thread() const noexcept;
    // The moment at which the thread has last looked at the clock; for the thread, a moment ago.
    uint64 now() const noexcept { return m_now.load(std::memory_order_relaxed); }

    // ---- for a server
    listener& own_listener() noexcept { return m_listener; }
    // Ends it, and waits for that. Returns whether all connections have ended in order.
    bool close(uint64 until, bool at_once) noexcept;
    uint32 count() const noexcept { return m_count; }

    // ---- for connections; the loop's thread
    void add(const std::shared_ptr<connection>& made) noexcept;
    void check_at(connection& which, uint64 when);
    uint64 new_id() noexcept { return ++m_last_id; }
    // Whether this connection may hold more memory than there is: one may. It then has to be told that it has ended.
    bool may_grow(const connection& which) noexcept;
    bool is_grower(const connection& which) const noexcept { return m_grower == which.id(); }
    void end_growth(const connection& which) noexcept;
    uint64 grows_since() const noexcept { return m_grows_since; }

    poller m_poller;
    std::atomic<uint64> m_held{0}; // by connections, beyond what each may hold in any case

private:
    struct check {
        uint64 when;
        uint64 id;
        bool operator>(const check& other) const noexcept { return when > other.when; }
    };

    static void thread_main(void* context) noexcept;
    void run() noexcept;
    void run_posted() noexcept;
    void accept() noexcept;
    void run_checks(bool has_seen_all) noexcept;
    void forget_if_gone(connection& which) noexcept;
    void begin_end(uint64 until, bool at_once) noexcept;
    uint64 next_due() const noexcept;

    // ---- of the thread
    qorIpcOptions m_options;
    zetSmartPointer<IQORIpcTarget> m_target;
    listener m_listener;
    uint64 m_accept_again = never;
    bool m_is_ending = false;
    bool m_is_in_order = true;
    std::atomic<uint32> m_count{0};
    std::atomic<uint64> m_last_id{1};
    std::unordered_map<uint64, std::shared_ptr<connection>> m_connections;
    std::priority_queue<check, std::vector<check>, std::greater<check>> m_checks;
    std::unique_ptr<char[]> m_buffer;
    uint64 m_grower = 0;
    uint64 m_grows_since = 0;

    // ---- under the lock
    std::mutex m_lock;
    std::condition_variable m_has_ended;
    std::vector<std::function<void(loop&)>> m_posted;
    bool m_takes_posts = true;
    bool m_is_over = false;
    bool m_has_thread = false; // that nobody has joined or detached
    thread::handle m_thread = 0;
    std::atomic<bool> m_has_posts{false};
    std::atomic<uint64> m_now{0};
};

// The loop of the connections that this process makes. Null with the last error if its thread cannot be started.
std::shared_ptr<loop> clients() noexcept;

} // namespace qor::ipc
