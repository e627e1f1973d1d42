// The framework's locks, events and atomic counter. They run inline on top of the operating system. They call the
// library only to report a failed assertion, and only once the table is bound.
//
// The lines that assertions name are constants of the contract, not lines of this file.
#pragma once

#include "qor/glue/binding.h"

#if defined(_WIN32)
#include "qor/glue/impl_windows.h"
#else
#include "qor/glue/impl_posix.h"
#endif

#include <atomic>

namespace qor::glue {

// The expression that a failed wait without limit asserts.
inline constexpr char unlimited_wait_expression[] =
    "::WaitForSingleObject(m_event, 0xffffffff) == ((((DWORD)0x00000000)) + 0)";

// Waits like qorGate::Wait(uint32), and reports a failure under the name `func`.
inline bool limited_wait(event* on, uint32 ms, const char* func, int line) noexcept {
    const event::outcome result = event::wait(on, ms);
    if (result == event::outcome::failed)
        assert_failed("result == WAIT_TIMEOUT", func, impl_file, line);
    return result == event::outcome::signalled;
}

} // namespace qor::glue

// A recursive mutex: the thread that holds it may lock it again and must unlock it equally often. Not copyable.
class qorFastMutex2 {
public:
    qorFastMutex2() noexcept : m_pCrit(qor::glue::critical_section::create()) {
        if (m_pCrit == nullptr)
            qor::glue::assert_failed("m_pCrit != NULL", "qorFastMutex2::qorFastMutex2()", qor::glue::impl_file, 147);
    }
    qorFastMutex2(const qorFastMutex2&) = delete;
    qorFastMutex2& operator=(const qorFastMutex2&) = delete;
    ~qorFastMutex2() { qor::glue::critical_section::destroy(m_pCrit); }

    // Waits until no other thread holds the mutex, then takes it.
    void Lock() noexcept { qor::glue::critical_section::enter(m_pCrit); }
    // Releases the mutex once. Only the thread that holds it may call this.
    void Unlock() noexcept { qor::glue::critical_section::leave(m_pCrit); }

private:
    qor::glue::critical_section* m_pCrit;
};

// Holds at most one mutex and unlocks it at the end of the scope.
class qorAutoLockFastMutex2 {
public:
    qorAutoLockFastMutex2() noexcept = default;
    // Locks the mutex, which must outlive this object.
    explicit qorAutoLockFastMutex2(qorFastMutex2* mutex) noexcept : m_mutex(mutex) { m_mutex->Lock(); }
    qorAutoLockFastMutex2(const qorAutoLockFastMutex2&) = delete;
    qorAutoLockFastMutex2& operator=(const qorAutoLockFastMutex2&) = delete;
    ~qorAutoLockFastMutex2() {
        if (m_mutex != nullptr)
            m_mutex->Unlock();
    }

    // Locks a mutex. If one is held already, that is a programming error: it is reported, the held mutex is unlocked,
    // and the new one is locked.
    void Lock(qorFastMutex2* mutex) noexcept {
        if (m_mutex != nullptr) {
            qor::glue::assert_failed("m_mutex == NULL", "void qorAutoLockFastMutex2::Lock(qorFastMutex2*)",
                                     "qorcore/include/qor/glue/impl_common", 861);
            m_mutex->Unlock();
        }
        m_mutex = mutex;
        m_mutex->Lock();
    }

    // Unlocks the held mutex. If none is held, that is reported and nothing happens.
    void Unlock() noexcept {
        if (m_mutex == nullptr) {
            qor::glue::assert_failed("m_mutex != NULL", "void qorAutoLockFastMutex2::Unlock()",
                                     "qorcore/include/qor/glue/impl_common", 871);
            return;
        }
        m_mutex->Unlock();
        m_mutex = nullptr;
    }

private:
    qorFastMutex2* m_mutex = nullptr;
};

// A gate is open or closed. While it is open, waiting threads and those that arrive later pass. Open releases every
// waiting thread, even if Close follows at once. A gate may be destroyed as soon as all waiting threads have been
// released, even before they return from Wait. No wait is a cancellation point.
class qorGate {
public:
    // If the system cannot create the gate, that is reported, and every wait fails; waits without limit return at once.
    explicit qorGate(bool open) noexcept : m_event(qor::glue::event::create(true, open)) {
        if (m_event == nullptr)
            qor::glue::assert_failed("m_event != NULL", "qorGate::qorGate(bool)", qor::glue::impl_file, 175);
    }
    qorGate(const qorGate&) = delete;
    qorGate& operator=(const qorGate&) = delete;
    virtual ~qorGate() { qor::glue::event::destroy(m_event); }

    // Any thread may call these, in either state.
    void Open() noexcept { qor::glue::event::set(m_event); }
    void Close() noexcept { qor::glue::event::reset(m_event); }

    // Returns when the gate is open.
    void Wait() noexcept {
        if (qor::glue::event::wait(m_event, 0) != qor::glue::event::outcome::signalled)
            qor::glue::assert_failed(qor::glue::unlimited_wait_expression, "void qorGate::Wait()", qor::glue::impl_file,
                                     195);
    }

    // Returns true if the gate is open, false if the time ran out. A limit of 0 milliseconds means no limit; it does
    // not poll.
    bool Wait(uint32 ms) noexcept { return qor::glue::limited_wait(m_event, ms, "bool qorGate::Wait(uint32)", 204); }

private:
    qor::glue::event* m_event;
};

// Each Set lets one thread pass: a waiting one, or, if none waits, the next to arrive. Several calls of Set without a
// waiting thread count as one. Destruction and cancellation work as for qorGate.
class qorTrigger {
public:
    // Fails like qorGate::qorGate.
    explicit qorTrigger(bool set) noexcept : m_event(qor::glue::event::create(false, set)) {
        if (m_event == nullptr)
            qor::glue::assert_failed("m_event != NULL", "qorTrigger::qorTrigger(bool)", qor::glue::impl_file, 214);
    }
    qorTrigger(const qorTrigger&) = delete;
    qorTrigger& operator=(const qorTrigger&) = delete;
    ~qorTrigger() { qor::glue::event::destroy(m_event); }

    // Any thread.
    void Set() noexcept { qor::glue::event::set(m_event); }

    // Returns when a Set lets this thread pass.
    void Wait() noexcept {
        if (qor::glue::event::wait(m_event, 0) != qor::glue::event::outcome::signalled)
            qor::glue::assert_failed(qor::glue::unlimited_wait_expression, "void qorTrigger::Wait()",
                                     qor::glue::impl_file, 229);
    }

    // Like qorGate::Wait(uint32): 0 means no limit.
    bool Wait(uint32 ms) noexcept { return qor::glue::limited_wait(m_event, ms, "bool qorTrigger::Wait(uint32)", 238); }

private:
    qor::glue::event* m_event;
};

// A signed 32-bit counter. Changes are full barriers; Read is a load with acquire order.
class qorAtomic2 {
public:
    // The current value, no older than any that this thread has seen.
    int32 Read() const noexcept { return m_value.load(std::memory_order_acquire); }
    // Replaces the value.
    void Set(int32 value) noexcept { m_value.exchange(value); }
    // Add or subtract 1; the value wraps.
    void Increment() noexcept { m_value.fetch_add(1); }
    void Decrement() noexcept { m_value.fetch_sub(1); }

    // Returns true if the value was `expected` and is now `desired`; otherwise changes nothing.
    bool CompareAndExchange(int32 expected, int32 desired) noexcept {
        return m_value.compare_exchange_strong(expected, desired);
    }

    // Subtracts 1. Returns true if the value is now 0; if several threads race, exactly one gets true.
    bool DecrementAndTestZero() noexcept { return m_value.fetch_sub(1) == 1; }

private:
    std::atomic<int32> m_value{0};
};
