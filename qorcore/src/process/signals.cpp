// Process signals, delivered to one handler on a thread of our own.
#include "process/signals.h"

#include "error/error.h"

#include <condition_variable>
#include <mutex>
#include <new>
#include <thread>

namespace {

// Never destroyed: the thread waits until the process ends.
struct shared_state {
    std::mutex lock;
    std::condition_variable delivered;
    IQORSignalHandler* handler = nullptr;
    bool has_thread = false;
    bool catching = false;
    bool delivering = false;
    std::thread::id thread;
};

shared_state& state() {
    static shared_state* const made = new shared_state;
    return *made;
}

void deliver(qorSignal signal) {
    shared_state& shared = state();
    std::unique_lock hold(shared.lock);
    IQORSignalHandler* const handler = shared.handler;
    if (handler == nullptr)
        return;
    handler->AddRef();
    shared.delivering = true;
    hold.unlock();
    handler->Signal(signal);
    // Before anyone may believe that the handler is no longer in use.
    handler->Release();
    hold.lock();
    shared.delivering = false;
    shared.delivered.notify_all();
}

void run() noexcept {
    {
        const std::lock_guard hold(state().lock);
        state().thread = std::this_thread::get_id();
    }
    for (;;)
        deliver(qor::process::wait_for_signal());
}

// 0, or the system's error code.
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

// Built anew in its place: the lock may be held, and the condition waited for, by threads that the child does
// not have. The reference to the handler is the child's now, to be given back when it sets another.
void qor::process::forget_signal_thread() noexcept {
    shared_state& shared = state();
    IQORSignalHandler* const handler = shared.handler;
    (::new (&shared) shared_state)->handler = handler;
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
    IQORSignalHandler* const old = std::exchange(shared.handler, handler);
    // The caller may end the old handler as soon as this returns.
    if (std::this_thread::get_id() != shared.thread)
        shared.delivered.wait(hold, [&shared] { return !shared.delivering; });
    hold.unlock();
    if (old != nullptr)
        old->Release();
    return true;
}
