// Threads: the state that a thread shares with those who wait for it. One mutex guards each state. A forked child has
// only a copy of it, whose mutex may be held by a thread that is not there; so the process is compared first.
#include "error/error.h"
#include "memory/allocator.h"
#include "message_names.h"
#include "platform/end_of_process.h"
#include "platform/no_cancellation.h"
#include "platform/own_process.h"
#include "qor/system/template/Object.h"
#include "thread/system_thread.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

namespace {

constexpr char source[] = "qorcore/src/thread/thread";

struct state {
    // What the thread does; one of the two. Only the thread itself uses them once it runs.
    qorThreadRoutine routine = nullptr;
    void* context = nullptr;
    IQORThreadWork* work = nullptr;

    std::string name;
    qorThreadPriority priority = qorThreadPriority::normal;
    unsigned long process = qor::platform::process_id();
    std::atomic<unsigned long> id{0}; // the system's; 0 until the thread runs
    std::atomic<bool> has_returned{false};

    std::mutex lock; // protects what follows
    std::condition_variable changed;
    qor::thread::handle handle = 0;
    int refused = 0; // the system's code for the priority
    bool is_ready = false;
    bool is_done = false;
    bool is_awaited = false; // somebody has got the end
    bool is_detached = false;
    enum class place { there, being_joined, gone } where = place::there;
    qorThreadEnd end;
};

// An exception without a text.
void give_reason(qorThreadEnd& end) noexcept {
    namespace framework = qor::messages::framework;
    if (end.failed && end.reason.IsEmpty())
        (void)qor::glue::qorString_LoadString(&end.reason, framework::catalog, framework::thread_unknown_exception);
}

const char* shown_name(const state& of) noexcept { return of.name.empty() ? "?" : of.name.c_str(); }

// An exception that nobody will ask for.
void trace_exception(const state& of) noexcept {
    static const uint32 code = qor::glue::qorDebugAllocateCode("system.thread");
    qorString line;
    line.Printf("an exception has ended the thread '%s', which nobody waits for: %s", shown_name(of),
                of.end.reason.Text());
    qor::glue::qorSendDebugLiteral(code, line);
}

// Returns whether the thread may go on.
bool get_ready(state& own) noexcept {
    if (!own.name.empty())
        qor::thread::set_own_name(own.name.c_str());
    const int refused = qor::thread::set_own_priority(own.priority);
    const std::lock_guard hold(own.lock);
    own.id = qor::platform::thread_id();
    own.refused = refused;
    own.is_ready = true;
    own.changed.notify_all();
    return refused == 0;
}

void run(void* given) noexcept {
    std::unique_ptr<std::shared_ptr<state>> passed(static_cast<std::shared_ptr<state>*>(given));
    const std::shared_ptr<state> own = *passed;
    passed.reset();
    if (!get_ready(*own))
        return;
    qorThreadEnd end;
    if (own->work == nullptr) {
        own->routine(own->context, end);
    } else {
        own->work->RunGuarded(end);
        own->work->Release();
    }
    // In a child that the function has forked, others of the parent may have held the lock.
    if (own->process != qor::platform::process_id())
        return;
    const std::lock_guard hold(own->lock);
    own->end = std::move(end);
    give_reason(own->end);
    own->is_done = true;
    own->has_returned = true;
    if (own->end.failed && own->is_detached)
        trace_exception(*own);
    own->changed.notify_all();
}

// Returns false if the thread was detached before.
bool detach(state& of) noexcept {
    if (of.process != qor::platform::process_id())
        return true;
    const std::lock_guard hold(of.lock);
    if (of.is_detached)
        return false;
    of.is_detached = true;
    if (of.where == state::place::there) {
        of.where = state::place::gone;
        qor::thread::detach(of.handle);
    }
    if (of.is_done && of.end.failed && !of.is_awaited)
        trace_exception(of);
    return true;
}

class thread_object final : public qor::object<IQORThread> {
public:
    explicit thread_object(std::shared_ptr<state> of) noexcept
        : object("qorcore.thread", "IQORThread"), m_state(std::move(of)) {}
    ~thread_object() override { detach(*m_state); }

    void GetName(qorString& out) noexcept override { out = m_state->name; }

    uint64 GetId() noexcept override {
        state& of = *m_state;
        if (of.id == 0 && of.process == qor::platform::process_id()) {
            const qor::platform::no_cancellation keep;
            std::unique_lock hold(of.lock);
            (void)qor::platform::wait_for_others(of.changed, hold, [&] { return of.is_ready; });
        }
        return of.id;
    }

    bool IsRunning() noexcept override {
        return !m_state->has_returned && m_state->process == qor::platform::process_id();
    }

    const std::shared_ptr<state>& get_state() const noexcept { return m_state; }

private:
    const std::shared_ptr<state> m_state;
};

bool begin(std::shared_ptr<state> made, const qorThreadOptions& options, IQORThread** out) noexcept {
    if (options.name != nullptr)
        made->name = options.name;
    made->priority = options.priority;
    zetSmartPointer<thread_object> object;
    if (out != nullptr) {
        thread_object* created = nullptr;
        if (!qor::memory::make<thread_object>(source, __LINE__, &created, made))
            return false;
        object.AttachNew(created);
    }
    if (made->work != nullptr)
        made->work->AddRef();
    auto passed = std::make_unique<std::shared_ptr<state>>(made);
    std::unique_lock hold(made->lock);
    int failed = qor::thread::start(options.stack_size, run, passed.get(), made->handle);
    if (failed == 0) {
        (void)passed.release();
        // The system has the last word about a priority, and only the thread itself can ask for one.
        if (options.priority != qorThreadPriority::normal) {
            const qor::platform::no_cancellation keep;
            made->changed.wait(hold, [&] { return made->is_ready; });
            failed = made->refused;
            if (failed != 0)
                qor::thread::join(made->handle);
        }
    }
    if (failed != 0) {
        made->is_detached = true; // there is nothing to wait for
        made->where = state::place::gone;
        hold.unlock();
        if (made->work != nullptr)
            made->work->Release();
        qor::error::set_with_reason(qorError_cannot_start_thread, shown_name(*made), failed);
        return false;
    }
    if (out == nullptr) {
        made->is_detached = true;
        made->where = state::place::gone;
        qor::thread::detach(made->handle);
    }
    hold.unlock();
    if (out != nullptr)
        *out = object.Detach();
    return true;
}

// Returns whether a thread can be waited for by the calling one.
bool may_wait(const state& of) noexcept {
    if (of.process != qor::platform::process_id()) {
        qor::error::set(qorError_thread_of_another_process, {shown_name(of)});
        return false;
    }
    if (of.id == qor::platform::thread_id() && !of.has_returned) {
        qor::error::set(qorError_thread_waits_for_itself, {shown_name(of)});
        return false;
    }
    return true;
}

// Waits for what `is_so` says. Returns false when the time is over.
template <class CONDITION>
bool wait_until(state& of, std::unique_lock<std::mutex>& hold, uint32 ms, CONDITION is_so) {
    const qor::platform::no_cancellation keep;
    if (ms != 0 && !qor::platform::other_threads_are_gone())
        return of.changed.wait_for(hold, std::chrono::milliseconds(ms), is_so);
    return qor::platform::wait_for_others(of.changed, hold, is_so);
}

} // namespace

bool qor::glue::qorBeginThread(qorThreadRoutine routine, void* context, const qorThreadOptions& options,
                               IQORThread** out) noexcept {
    if (routine == nullptr) {
        error::set(qorError_invalid_argument, {"qorBeginThread", "routine"});
        return false;
    }
    auto made = std::make_shared<state>();
    made->routine = routine;
    made->context = context;
    return begin(std::move(made), options, out);
}

bool qor::glue::qorBeginThread_object(IQORThreadWork* work, const qorThreadOptions& options,
                                      IQORThread** out) noexcept {
    if (work == nullptr) {
        error::set(qorError_invalid_argument, {"qorBeginThread", "work"});
        return false;
    }
    auto made = std::make_shared<state>();
    made->work = work;
    return begin(std::move(made), options, out);
}

bool qor::glue::qorDetachThread(IQORThread* given) noexcept {
    if (given == nullptr) {
        error::set(qorError_invalid_argument, {"qorDetachThread", "thread"});
        return false;
    }
    state& of = *static_cast<thread_object*>(given)->get_state();
    if (detach(of))
        return true;
    error::set(qorError_thread_detached, {shown_name(of)});
    return false;
}

bool qor::glue::qorWaitThread(IQORThread* given, uint32 ms, uint32* result) noexcept {
    if (given == nullptr) {
        error::set(qorError_invalid_argument, {"qorWaitThread", "thread"});
        return false;
    }
    const std::shared_ptr<state> of = static_cast<thread_object*>(given)->get_state();
    if (!may_wait(*of))
        return false;
    std::unique_lock hold(of->lock);
    if (of->is_detached) {
        error::set(qorError_thread_detached, {shown_name(*of)});
        return false;
    }
    if (!wait_until(*of, hold, ms, [&] { return of->is_done && of->where != state::place::being_joined; })) {
        error::set(qorError_timed_out);
        return false;
    }
    of->is_awaited = true;
    if (of->where == state::place::there) {
        // What the thread's own data have as destructors may take other locks.
        of->where = state::place::being_joined;
        hold.unlock();
        qor::thread::join(of->handle);
        hold.lock();
        of->where = state::place::gone;
        of->changed.notify_all();
    }
    if (of->end.failed) {
        error::set(qorError_thread_failed, {shown_name(*of), of->end.reason.Text()});
        return false;
    }
    if (result != nullptr)
        *result = of->end.result;
    return true;
}
