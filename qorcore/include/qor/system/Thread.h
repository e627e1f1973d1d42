// Threads. docs/threads.md has examples.
//
// A thread runs one function and has a result. An exception that leaves the function is an error of the one who waits
// for the thread, never the end of the process. A thread that nobody waits for goes on by itself; it ends at the latest
// with the process, which waits for no thread.
//
// Any thread may call any operation. A thread of this kind cannot be cancelled (pthread_cancel), and ends only by its
// function's return: it must not call pthread_exit or ExitThread.
#pragma once

#include "qor/system/Error.h"
#include "qor/system/Interface.h"
#include "qor/system/Memory.h"
#include "qor/system/String.h"
#include "qor/system/template/SmartPointer.h"

#include <concepts>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

// How much of the processor a thread gets beside others. Linux: a nice value relative to the thread that starts it.
// More than `normal` needs a right there (CAP_SYS_NICE or RLIMIT_NICE); without it the start fails.
enum class qorThreadPriority : uint32 {
    normal,  // that of the thread that starts it
    low,     // nice + 5
    lowest,  // nice + 10
    high,    // nice - 5
    highest, // nice - 10
};

// How a thread is started.
struct qorThreadOptions {
    // The name that debuggers and the system's tools show; Linux shows at most its first 15 bytes. Null: none.
    const char* name = nullptr;
    // The size of the stack in bytes, rounded up to whole pages; 0 for the system's default.
    uint64 stack_size = 0;
    // Beside other threads.
    qorThreadPriority priority = qorThreadPriority::normal;
};

// How a thread's function has ended.
struct qorThreadEnd {
    uint32 result = 0;   // of the function; 0 after an exception
    bool failed = false; // an exception has left the function
    qorString reason{};  // the text of that exception; empty if it has none
};

// The function of a thread as the library calls it. It lets no exception out, but says so in `end`.
using qorThreadRoutine = void (*)(void* context, qorThreadEnd& end) noexcept;

// A thread's work as an object, which the client implements.
class IQORThreadWork {
public:
    // Like those of IQORInterface.
    virtual void AddRef() noexcept = 0;
    virtual void Release() noexcept = 0;
    virtual int QueryInterface(const char* name, void** out) noexcept = 0;

    // Called once, on the new thread. The returned number is the thread's result.
    virtual uint32 Run() = 0;

    // Calls Run and puts what it throws into `end`. In the client's own code, because exceptions cannot pass through
    // the library.
    virtual void RunGuarded(qorThreadEnd& end) noexcept;

protected:
    ~IQORThreadWork() = default;
};

// A thread that was begun.
class IQORThread : public IQORInterface {
public:
    // The whole name.
    virtual void GetName(qorString& out) noexcept = 0;
    // The system's number of the thread. It may be used again after the thread has ended.
    virtual uint64 GetId() noexcept = 0;
    // Whether the thread's function has not returned. In a forked child, no thread of the parent runs.
    virtual bool IsRunning() noexcept = 0;

protected:
    ~IQORThread() = default;
};

namespace qor::glue {

// Runs a function and describes its end.
template <class FUNCTION>
void run_guarded(FUNCTION&& function, qorThreadEnd& end) noexcept {
    try {
        if constexpr (std::is_void_v<std::invoke_result_t<FUNCTION>>)
            function();
        else
            end.result = static_cast<uint32>(function());
    } catch (const std::exception& thrown) {
        end.failed = true;
        end.reason = thrown.what();
    } catch (...) {
        end.failed = true;
    }
}

} // namespace qor::glue

inline void IQORThreadWork::RunGuarded(qorThreadEnd& end) noexcept {
    qor::glue::run_guarded([this] { return Run(); }, end);
}

// Begins a thread that calls `routine(context)`, or the work of an object, of which the thread holds a reference until
// it has ended. `out` may be null for a thread that nobody waits for. Returns false and leaves *out unchanged if the
// thread cannot be started as wished; then nothing is called.
[[nodiscard]] inline bool qorBeginThread(qorThreadRoutine routine, void* context, const qorThreadOptions& options,
                                         IQORThread** out) noexcept {
    return qor::glue::qorBeginThread(routine, context, options, out);
}
[[nodiscard]] inline bool qorBeginThread(IQORThreadWork* work, const qorThreadOptions& options,
                                         IQORThread** out) noexcept {
    return qor::glue::qorBeginThread_object(work, options, out);
}

// Waits until the thread's function has returned, and everything that it held is released. Gets its result. Several
// threads may wait, and may do so again. `ms`: as in qorGate::Wait, 0 means no limit. Returns false if an exception has
// ended the function (qorError_thread_failed), if the time is over (qorError_timed_out), or if there is nothing to wait
// for: it is the calling thread, it was detached, or it is a thread of the process from which this one was forked. No
// wait is a cancellation point.
[[nodiscard]] inline bool qorWaitThread(IQORThread* thread, uint32 ms = 0, uint32* result = nullptr) noexcept {
    return qor::glue::qorWaitThread(thread, ms, result);
}

// Declares that nobody will wait for the thread. It goes on, its result is lost, and an exception that leaves its
// function only becomes a line of the trace code "system.thread". The last Release of a thread that nobody has waited
// for does the same. Returns false if it was detached already.
inline bool qorDetachThread(IQORThread* thread) noexcept { return qor::glue::qorDetachThread(thread); }

// Begins a thread that calls a function object; its result is that of the function if it is a number, else 0. The
// thread destroys the object before a wait returns. Returns false like the forms above, and without memory for the
// object.
template <std::invocable FUNCTION>
[[nodiscard]] bool qorBeginThread(FUNCTION&& function, IQORThread** out,
                                  const qorThreadOptions& options = {}) noexcept {
    using held = std::decay_t<FUNCTION>;
    held* made = nullptr;
    try {
        made = new held(std::forward<FUNCTION>(function));
    } catch (...) {
        qorSetLastError(qorError_out_of_memory);
        return false;
    }
    const auto run = [](void* context, qorThreadEnd& end) noexcept {
        const std::unique_ptr<held> own(static_cast<held*>(context));
        qor::glue::run_guarded([&] { return std::invoke(*own); }, end);
    };
    if (qor::glue::qorBeginThread(run, made, options, out))
        return true;
    delete made;
    return false;
}

// A thread as a member: the destructor waits for it; what made the wait fail is then the last error. Not copyable.
class qorThread {
public:
    qorThread() noexcept = default; // there is none
    qorThread(const qorThread&) = delete;
    qorThread& operator=(const qorThread&) = delete;
    ~qorThread() { Join(); }

    // Begins it, after waiting for an earlier one. Returns false on failure.
    template <std::invocable FUNCTION>
    [[nodiscard]] bool Begin(FUNCTION&& function, const qorThreadOptions& options = {}) noexcept {
        Join();
        return qorBeginThread(std::forward<FUNCTION>(function), m_thread.Out(), options);
    }

    // Like qorWaitThread. Without a thread it returns false (qorError_invalid_argument).
    [[nodiscard]] bool Wait(uint32 ms = 0, uint32* result = nullptr) noexcept {
        return qorWaitThread(m_thread.IsEmpty() ? nullptr : *m_thread, ms, result);
    }
    // Lets it go on alone.
    void Detach() noexcept {
        if (!m_thread.IsEmpty())
            qorDetachThread(*m_thread);
        m_thread.Empty();
    }
    // Whether there is a thread that runs.
    bool IsRunning() const noexcept { return !m_thread.IsEmpty() && m_thread->IsRunning(); }

private:
    void Join() noexcept {
        if (!m_thread.IsEmpty())
            (void)qorWaitThread(*m_thread);
        m_thread.Empty();
    }

    zetSmartPointer<IQORThread> m_thread;
};
