// Process signals, delivered to one handler on a thread of the framework's own.
#include "process/signals.h"

#include "error/error.h"
#include "platform/end_of_process.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <list>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

namespace {

// Indexed by signal number, which starts at 1.
constexpr std::size_t kinds = static_cast<std::size_t>(qorSignal::quit) + 1;
using counts = std::array<unsigned, kinds>;

// Caught but undelivered signals. Code that the system calls asynchronously touches nothing else.
std::atomic<unsigned> pending[kinds];
static_assert(std::atomic<unsigned>::is_always_lock_free);

// A handler that was replaced before it received all its signals, with the reference that is held for it.
struct departing {
    IQORSignalHandler* handler;
    counts rest;
};

// Never destroyed: the thread waits until the process ends.
struct shared_state {
    std::mutex lock;
    std::condition_variable delivered;
    IQORSignalHandler* handler = nullptr;
    std::list<departing> departed;
    // Counters: signals whose delivery began and ended; replaced handlers that were queued and completely served.
    uint64 begun = 0;
    uint64 ended = 0;
    uint64 departures = 0;
    uint64 served = 0;
    bool has_thread = false;
    bool catching = false;
    std::thread::id thread;
};

shared_state& state() {
    static shared_state* const made = new shared_state;
    return *made;
}

// Returns 0 if there is no signal.
std::size_t first_of(const counts& all) noexcept {
    for (std::size_t kind = 1; kind < kinds; ++kind)
        if (all[kind] != 0)
            return kind;
    return 0;
}

std::size_t take_pending() noexcept {
    for (std::size_t kind = 1; kind < kinds; ++kind) {
        unsigned count = pending[kind].load();
        while (count != 0)
            if (pending[kind].compare_exchange_weak(count, count - 1))
                return kind;
    }
    return 0;
}

counts take_all_pending() noexcept {
    counts all{};
    for (std::size_t kind = 1; kind < kinds; ++kind)
        all[kind] = pending[kind].exchange(0);
    return all;
}

// Takes the next signal and its handler, with a reference. Returns false if there is no signal. The handler is null if
// none is set any more.
bool take_next(shared_state& shared, qorSignal& signal, IQORSignalHandler*& handler, bool& is_last_of_departed) {
    std::size_t kind;
    is_last_of_departed = false;
    if (!shared.departed.empty()) {
        departing& first = shared.departed.front();
        handler = first.handler;
        kind = first_of(first.rest);
        --first.rest[kind];
        is_last_of_departed = first_of(first.rest) == 0;
        if (is_last_of_departed)
            shared.departed.pop_front();
        else
            handler->AddRef();
    } else {
        kind = take_pending();
        handler = shared.handler;
        if (kind != 0 && handler != nullptr)
            handler->AddRef();
    }
    signal = static_cast<qorSignal>(kind);
    return kind != 0;
}

// Returns false if there was nothing to deliver.
bool deliver_next(shared_state& shared) {
    qorSignal signal;
    IQORSignalHandler* handler;
    bool is_last_of_departed;
    std::unique_lock hold(shared.lock);
    if (!take_next(shared, signal, handler, is_last_of_departed))
        return false;
    // The signal was caught while the last handler was being removed. The lock keeps out a new handler until the signal
    // is given back.
    if (handler == nullptr) {
        qor::process::raise_again(signal);
        return true;
    }
    ++shared.begun;
    hold.unlock();
    handler->Signal(signal);
    // Release first: after the update below, waiting threads may assume that the handler is no longer in use.
    handler->Release();
    hold.lock();
    shared.ended = shared.begun;
    shared.served += is_last_of_departed ? 1 : 0;
    shared.delivered.notify_all();
    return true;
}

void run() noexcept {
    shared_state& shared = state();
    {
        const std::lock_guard hold(shared.lock);
        shared.thread = std::this_thread::get_id();
    }
    for (;;)
        if (!deliver_next(shared))
            qor::process::wait_for_wake();
}

// Returns 0 or the system's error code.
int start_catching(shared_state& shared) {
    if (!shared.has_thread) {
        if (const int reason = qor::process::start_signal_thread(run))
            return reason;
        shared.has_thread = true;
    }
    const int reason = qor::process::catch_signals();
    shared.catching = reason == 0;
    return reason;
}

} // namespace

void qor::process::count_signal(qorSignal signal) noexcept {
    pending[static_cast<std::size_t>(signal)].fetch_add(1);
    wake_signal_thread();
}

// Reconstructs the state in place: threads that do not exist in the child may hold the lock or wait for the condition.
// The child takes over the reference to the handler and releases it when it sets another one. Pending signals belong to
// the parent and are dropped.
void qor::process::forget_signal_thread() noexcept {
    shared_state& shared = state();
    IQORSignalHandler* const handler = shared.handler;
    (::new (&shared) shared_state)->handler = handler;
    take_all_pending();
}

bool qor::glue::qorSetSignalHandler(IQORSignalHandler* handler) noexcept {
    shared_state& shared = state();
    std::unique_lock hold(shared.lock);
    if (handler != nullptr && !shared.catching) {
        if (const int reason = start_catching(shared)) {
            qor::error::set(qorError_signals_unavailable, {qor::error::system_reason(reason).c_str()});
            return false;
        }
    }
    if (handler != nullptr)
        handler->AddRef();
    else if (std::exchange(shared.catching, false))
        qor::process::release_signals();
    IQORSignalHandler* old = std::exchange(shared.handler, handler);
    // All signals caught so far belong to the old handler, whether or not a new one follows.
    if (old != nullptr) {
        const counts rest = take_all_pending();
        if (first_of(rest) != 0) {
            shared.departed.push_back({std::exchange(old, nullptr), rest});
            ++shared.departures;
            qor::process::wake_signal_thread();
        }
    }
    // The caller may destroy the old handler as soon as this function returns.
    if (std::this_thread::get_id() != shared.thread)
        (void)platform::wait_for_others(shared.delivered, hold,
                                        [&shared, departures = shared.departures, begun = shared.begun] {
                                            return shared.served >= departures && shared.ended >= begun;
                                        });
    hold.unlock();
    if (old != nullptr)
        old->Release();
    return true;
}
