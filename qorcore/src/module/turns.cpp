#include "module/turns.h"

#include "platform/end_of_process.h"
#include "platform/own_process.h"

#include <algorithm>
#include <condition_variable>
#include <new>
#include <utility>
#include <vector>

namespace qor::module {
namespace {

// A thread that waits for a thing. It stands on the stack of that thread.
struct waiter {
    std::thread::id thread;
    turn* wants;
    waiter* next;
};

struct shared {
    std::mutex lock;
    std::condition_variable changed;
    waiter* waiters = nullptr;
    turn* being_made = nullptr;
    running_call* calls = nullptr;
    std::vector<std::thread::id> in_loader;
};

// Never destroyed, because threads may use it until the process ends.
shared& all() noexcept {
    static auto& made = *new shared;
    return made;
}

// Removes an element from a list through its member `next`.
template <class TYPE>
void remove(TYPE*& first, TYPE* which, TYPE* TYPE::*next) noexcept {
    for (TYPE** at = &first; *at != nullptr; at = &((*at)->*next))
        if (*at == which) {
            *at = which->*next;
            return;
        }
}

void before_fork() noexcept {
    std::unique_lock hold(all().lock);
    const auto none_but_own = [] {
        for (const std::thread::id& each : all().in_loader)
            if (each != std::this_thread::get_id())
                return false;
        return true;
    };
    all().changed.wait(hold, none_but_own);
    hold.release();
}

void in_parent() noexcept { all().lock.unlock(); }

} // namespace

// In a forked child, with the lock held by the thread that has forked.
void forget_other_threads() noexcept {
    shared& own = all();
    const std::thread::id self = std::this_thread::get_id();
    turn* made = nullptr;
    for (turn* each = std::exchange(own.being_made, nullptr); each != nullptr;) {
        turn* const next = each->m_next_made;
        if (each->m_maker == self)
            each->m_next_made = std::exchange(made, each);
        else
            each->m_state = turn::state::unmade;
        each = next;
    }
    own.being_made = made;
    running_call* calls = nullptr;
    for (running_call* each = std::exchange(own.calls, nullptr); each != nullptr;) {
        running_call* const next = each->m_next;
        if (each->m_thread == self)
            each->m_next = std::exchange(calls, each);
        each = next;
    }
    own.calls = calls;
    own.waiters = nullptr; // the thread that forks waits for nothing
    // Threads that do not exist here stand in its line, so it is made anew. It owns no memory.
    new (&own.changed) std::condition_variable;
    own.lock.unlock();
}

namespace {

[[maybe_unused]] const bool s_watches_forks =
    (platform::watch_forks(before_fork, in_parent, forget_other_threads), true);

} // namespace

std::unique_lock<std::mutex> take_lock() noexcept { return std::unique_lock(all().lock); }

void wait_for_change(std::unique_lock<std::mutex>& hold) noexcept { all().changed.wait(hold); }

void tell_change() noexcept { all().changed.notify_all(); }

turn::outcome turn::enter(std::unique_lock<std::mutex>& hold) {
    shared& own = all();
    const std::thread::id self = std::this_thread::get_id();
    // Follows what the maker waits for, and the maker of that. No such way leads in a circle, since each step was
    // looked at before somebody began to wait.
    const auto waits_for_self = [&](std::thread::id thread) {
        for (;;) {
            if (thread == self)
                return true;
            const waiter* at = own.waiters;
            while (at != nullptr && at->thread != thread)
                at = at->next;
            if (at == nullptr || !at->wants->is_being_made())
                return false;
            thread = at->wants->m_maker;
        }
    };
    while (m_state == state::being_made) {
        if (waits_for_self(m_maker))
            return outcome::circular;
        if (platform::other_threads_are_gone())
            break; // the maker is gone, and this thread makes it
        waiter here{self, this, own.waiters};
        own.waiters = &here;
        own.changed.wait(hold);
        remove(own.waiters, &here, &waiter::next);
    }
    if (m_state == state::made)
        return outcome::made;
    m_state = state::being_made;
    m_maker = self;
    m_next_made = std::exchange(own.being_made, this);
    return outcome::mine;
}

void turn::leave(bool is_made) noexcept {
    remove(all().being_made, this, &turn::m_next_made);
    m_state = is_made ? state::made : state::unmade;
    tell_change();
}

in_loader::in_loader() noexcept {
    const auto hold = take_lock();
    all().in_loader.push_back(std::this_thread::get_id());
}

in_loader::~in_loader() {
    const auto hold = take_lock();
    std::vector<std::thread::id>& threads = all().in_loader;
    threads.erase(std::find(threads.begin(), threads.end(), std::this_thread::get_id())); // it may be there twice
    tell_change();
}

running_call::running_call(unsigned long long id) noexcept : m_id(id), m_next(std::exchange(all().calls, this)) {}

running_call::~running_call() {
    remove(all().calls, this, &running_call::m_next);
    tell_change();
}

bool running_call::is_running(unsigned long long id) noexcept {
    for (const running_call* each = all().calls; each != nullptr; each = each->m_next)
        if (each->m_id == id && each->m_thread != std::this_thread::get_id())
            return true;
    return false;
}

bool running_call::is_inside() noexcept {
    for (const running_call* each = all().calls; each != nullptr; each = each->m_next)
        if (each->m_thread == std::this_thread::get_id())
            return true;
    return false;
}

} // namespace qor::module
