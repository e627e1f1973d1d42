// Inside the library: things that one thread makes while others wait for them, such as loaded modules and the values of
// the whole process.
#pragma once

#include <mutex>
#include <thread>

namespace qor::module {

// The lock of everything in this folder. A fork waits for it, when it holds the locks of other facilities: with this
// one held, nothing may be called that takes another, such as a client, the system's loader or the tracked allocator.
std::unique_lock<std::mutex> take_lock() noexcept;

// Waits until another thread changes something; tell_change() says so. Both with the lock held.
void wait_for_change(std::unique_lock<std::mutex>& hold) noexcept;
void tell_change() noexcept;

// The state of such a thing. All under the lock.
class turn {
public:
    turn() = default;
    turn(const turn&) = delete;
    turn& operator=(const turn&) = delete;

    enum class outcome {
        made,     // it is there
        mine,     // the caller makes it, and calls leave()
        circular, // the caller would wait for itself
    };

    // Waits while another thread makes it. A forked child forgets the threads of its parent, so what they were making
    // is not made there.
    outcome enter(std::unique_lock<std::mutex>& hold);
    void leave(bool is_made) noexcept;

    bool is_made() const noexcept { return m_state == state::made; }
    bool is_unmade() const noexcept { return m_state == state::unmade; }
    bool is_being_made() const noexcept { return m_state == state::being_made; }

private:
    enum class state { unmade, being_made, made };
    friend void forget_other_threads() noexcept;

    state m_state = state::unmade;
    std::thread::id m_maker;
    turn* m_next_made = nullptr; // in the list of those that are being made
};

// Marks the time that the calling thread spends in the system's loader. A fork waits for its end, because the loader of
// a child would find a library that is half there.
class in_loader {
public:
    in_loader() noexcept;
    in_loader(const in_loader&) = delete;
    in_loader& operator=(const in_loader&) = delete;
    ~in_loader();
};

// A call of a component's function, which has this number. Begins and ends with the lock held; is_running() says
// whether another thread is inside such a call.
class running_call {
public:
    explicit running_call(unsigned long long id) noexcept;
    running_call(const running_call&) = delete;
    running_call& operator=(const running_call&) = delete;
    ~running_call();

    static bool is_running(unsigned long long id) noexcept;
    // Whether the calling thread is inside any such call.
    static bool is_inside() noexcept;

private:
    friend void forget_other_threads() noexcept;

    const unsigned long long m_id;
    const std::thread::id m_thread = std::this_thread::get_id();
    running_call* m_next;
};

} // namespace qor::module
