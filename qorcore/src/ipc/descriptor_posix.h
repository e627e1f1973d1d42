// Inside the POSIX half of messages: descriptors that a forked child closes.
#pragma once

#include <mutex>

namespace qor::ipc {

// Holds one descriptor. Opening and closing happen under a lock that no fork passes, so a forked child knows all that
// it has inherited.
class descriptor {
public:
    descriptor() noexcept = default;
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;
    ~descriptor() { close(); }

    int get() const noexcept { return m_number; }
    bool is_open() const noexcept { return m_number >= 0; }
    // open() returns a new descriptor, or a negative number, with the system's code in errno.
    template <class OPEN>
    bool make(OPEN open) noexcept {
        const std::lock_guard hold(fork_lock());
        return adopt(open());
    }
    void close() noexcept;

    static std::mutex& fork_lock() noexcept;
    // In a forked child, whose only thread holds the lock.
    static void close_all() noexcept;

private:
    bool adopt(int number) noexcept;

    int m_number = -1;
    descriptor* m_before = nullptr;
    descriptor* m_behind = nullptr;
};

} // namespace qor::ipc
