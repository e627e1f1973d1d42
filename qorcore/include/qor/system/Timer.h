// Timers: they call a function once or again and again. docs/timers.md has examples.
//
// The clock is that of qorGetTickCounter, which nobody sets. On Linux it stands still while the computer sleeps; on
// Windows it does not. A periodic timer is due at its first time and at whole periods behind it, however long its calls
// take. A call that comes so late that further times have passed stands for all of them, and says how many they were;
// they are not made up for.
//
// One thread of the framework, which the first timer starts, waits for all timers, and makes the calls of those without
// a queue one after the other. It receives no signals. Where nothing is due it sleeps.
//
// A forked child has none of its parent's timers and may set up timers of its own.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/Memory.h"
#include "qor/system/Time.h"
#include "qor/system/template/Object.h"
#include "qor/system/template/SmartPointer.h"

#include <chrono>
#include <concepts>
#include <type_traits>
#include <utility>

// Names a timer. No number is given twice in a process; 0 is no timer.
using qorTimerId = uint64;

// When a timer is due, in units of 100 ns (qorTicksPerSecond). qorTicks below converts durations.
struct qorTimerTimes {
    uint64 delay = 0;  // from now to the first time
    uint64 period = 0; // from each time to the next; 0: there is only one
};

// A duration of the C++ library in units of 100 ns, rounded up. A negative one is 0, and one beyond the range the
// greatest, which stands for never.
template <class NUMBER, class PERIOD>
constexpr uint64 qorTicks(std::chrono::duration<NUMBER, PERIOD> duration) noexcept {
    constexpr uint64 greatest = ~uint64{0};
    using ticks = std::chrono::duration<long double, std::ratio<1, qorTicksPerSecond>>;
    const long double exact = ticks(duration).count();
    if (!(exact > 0))
        return 0;
    if (exact >= 18446744073709551615.0L)
        return greatest;
    const auto whole = static_cast<uint64>(exact);
    return whole < exact ? whole + 1 : whole;
}

// One call of a timer.
struct qorTimerTick {
    qorTimerId timer = 0; // that is due
    uint64 due = 0;       // the time for which it stands, of qorGetTickCounter; with missed ones, the last of them
    uint64 missed = 0;    // how many times have passed without a call since the one before
};

// The function of a timer.
using qorTimerRoutine = void (*)(void* context, const qorTimerTick& tick) noexcept;

// A timer's function as an object, which the client implements. The timer holds a reference.
class IQORTimerTarget {
public:
    // Like those of IQORInterface.
    virtual void AddRef() noexcept = 0;
    virtual void Release() noexcept = 0;
    virtual int QueryInterface(const char* name, void** out) noexcept = 0;

    // The timer is due.
    virtual void TimerDue(const qorTimerTick& tick) noexcept = 0;

protected:
    ~IQORTimerTarget() = default;
};

// A call of a timer that waits in a queue.
class IQORTimerEvent : public IQORInterface {
public:
    // Calls the timer's target, on the calling thread. Does nothing if the timer was cancelled meanwhile, and the
    // second time.
    virtual void Run() noexcept = 0;
    // The timer.
    virtual qorTimerId GetTimer() noexcept = 0;

protected:
    ~IQORTimerEvent() = default;
};

// A queue of the caller's, whose own thread or threads run what is in it. The client implements it.
class IQORTimerQueue {
public:
    // Like those of IQORInterface.
    virtual void AddRef() noexcept = 0;
    virtual void Release() noexcept = 0;
    virtual int QueryInterface(const char* name, void** out) noexcept = 0;

    // Called on the framework's thread, which all timers wait for: it should not take long. The queue adds a reference
    // to the event and drops it when the event was run or is not wanted. It may also run it at once. While the event of
    // a timer is in the queue, or runs, the timer posts no further one and counts its times as missed.
    virtual void Post(IQORTimerEvent* event) noexcept = 0;

protected:
    ~IQORTimerQueue() = default;
};

// Sets up a timer that calls `routine(context)` or a target, on the framework's thread. A timer without a period ends
// with its call. `out`, which may be null, gets the timer before its first call is made. Returns false if the thread
// cannot be started, or on a null routine or target.
[[nodiscard]] inline bool qorSetupTimer(qorTimerRoutine routine, void* context, const qorTimerTimes& times,
                                        qorTimerId* out) noexcept {
    return qor::glue::qorSetupTimer(routine, context, times, out);
}
[[nodiscard]] inline bool qorSetupTimer(IQORTimerTarget* target, const qorTimerTimes& times, qorTimerId* out) noexcept {
    return qor::glue::qorSetupTimer_object(target, times, out);
}

// Sets up a timer whose calls are made where a queue runs them. The timer also holds a reference to the queue.
[[nodiscard]] inline bool qorSetupTimerDispatch(IQORTimerQueue* queue, IQORTimerTarget* target,
                                                const qorTimerTimes& times, qorTimerId* out) noexcept {
    return qor::glue::qorSetupTimerDispatch(queue, target, times, out);
}

// Ends a timer. When this returns, its function does not run and will not be called again, and the timer has released
// its target: what the function uses may be destroyed. So the caller must not hold a lock that the function takes, or
// otherwise be what the function waits for. There is one exception: a call from inside the function itself returns at
// once; there, the promise holds from the function's return on, and also for others that cancel the timer meanwhile.
// Returns whether it was this call that has ended the timer; false, without an error, if it had ended, was cancelled,
// or never was. Not a cancellation point.
inline bool qorCancelTimer(qorTimerId timer) noexcept { return qor::glue::qorCancelTimer(timer); }

namespace qor::glue {

// A target that calls a function object, which is destroyed with it.
template <class FUNCTION>
class function_target final : public qor::object<IQORTimerTarget> {
public:
    // Moves or copies the function object.
    explicit function_target(FUNCTION&& function)
        : object("qor.function_target", "IQORTimerTarget"), m_function(std::move(function)) {}
    explicit function_target(const FUNCTION& function)
        : object("qor.function_target", "IQORTimerTarget"), m_function(function) {}

    // An exception has nobody to go to: it is reported, and the timer goes on.
    void TimerDue(const qorTimerTick& tick) noexcept override {
        try {
            if constexpr (std::invocable<FUNCTION&, const qorTimerTick&>)
                m_function(tick);
            else
                m_function();
        } catch (...) {
            assert_failed("the function of a timer throws nothing", "TimerDue", "qorcore/include/qor/system/Timer", 1);
        }
    }

private:
    FUNCTION m_function;
};

// Whether a function object can be that of a timer.
template <class FUNCTION>
concept timer_function = std::invocable < std::decay_t<FUNCTION>
&, const qorTimerTick& > || std::invocable<std::decay_t<FUNCTION>&>;

} // namespace qor::glue

// Sets up a timer that calls a function object with a qorTimerTick, or without an argument; with a queue, there. It is
// destroyed with the end of the timer. Throws std::bad_alloc.
template <qor::glue::timer_function FUNCTION>
[[nodiscard]] bool qorSetupTimer(FUNCTION&& function, const qorTimerTimes& times, qorTimerId* out = nullptr,
                                 IQORTimerQueue* queue = nullptr) {
    using target = qor::glue::function_target<std::decay_t<FUNCTION>>;
    zetSmartPointer<target> made;
    made.AttachNew(QOR_NEW target(std::forward<FUNCTION>(function)));
    return queue != nullptr ? qor::glue::qorSetupTimerDispatch(queue, *made, times, out)
                            : qor::glue::qorSetupTimer_object(*made, times, out);
}

// A timer as a member: the destructor cancels it, and so returns when its function does not run. Not copyable.
class qorTimer {
public:
    qorTimer() noexcept = default; // none is set up
    qorTimer(const qorTimer&) = delete;
    qorTimer& operator=(const qorTimer&) = delete;
    ~qorTimer() { Cancel(); }

    // Sets it up, after cancelling an earlier one. Returns false on failure. Throws std::bad_alloc.
    template <qor::glue::timer_function FUNCTION>
    [[nodiscard]] bool Begin(FUNCTION&& function, const qorTimerTimes& times, IQORTimerQueue* queue = nullptr) {
        Cancel();
        return qorSetupTimer(std::forward<FUNCTION>(function), times, &m_timer, queue);
    }
    // The same with durations of the C++ library: once, or with a period.
    template <qor::glue::timer_function FUNCTION, class NUMBER, class PERIOD>
    [[nodiscard]] bool Once(std::chrono::duration<NUMBER, PERIOD> delay, FUNCTION&& function) {
        return Begin(std::forward<FUNCTION>(function), {.delay = qorTicks(delay)});
    }
    template <qor::glue::timer_function FUNCTION, class NUMBER, class PERIOD>
    [[nodiscard]] bool Every(std::chrono::duration<NUMBER, PERIOD> period, FUNCTION&& function) {
        return Begin(std::forward<FUNCTION>(function), {.delay = qorTicks(period), .period = qorTicks(period)});
    }

    // Like qorCancelTimer.
    bool Cancel() noexcept { return qorCancelTimer(std::exchange(m_timer, 0)); }

private:
    qorTimerId m_timer = 0;
};
