// A lock that many readers or one writer hold. docs/containers.md has examples.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/Memory.h"
#include "qor/system/template/SmartPointer.h"

// Any thread may call any operation. Waiting is not a cancellation point.
//
// - Preference: writers. While a writer waits, a thread that holds nothing waits behind it, so readers cannot keep a
//   writer out. Writers do not pass each other by intention, but the system decides which of them wakes first; so
//   writers without pause can keep readers out.
// - Recursion: a thread may lock again what it holds, for reading any number of times, even while a writer waits, and
//   for writing likewise; it unlocks equally often. A writer may also lock for reading; when it then unlocks for
//   writing, it goes on as a reader, without a moment in which others write.
// - A reader cannot become a writer: the two of them that try would wait for each other. LockWrite on a thread that
//   only reads fails at once (last error).
// - Timed forms: they give up after `ms` milliseconds. As in qorGate::Wait, 0 means no limit; TryLock... does not wait.
//
// A lock belongs to the thread: another one cannot unlock it. Unlocking what the thread does not hold is reported as an
// assertion and does nothing. The lock must not be destroyed while it is held.
class IQORReadWriteLock : public IQORInterface {
public:
    // Lock for reading. Return false if the time is over, without an error.
    virtual bool LockRead(uint32 ms) noexcept = 0;
    virtual bool TryLockRead() noexcept = 0;
    virtual void UnlockRead() noexcept = 0;

    // Lock for writing. Return false if the time is over, without an error, or if this thread only reads (last error).
    virtual bool LockWrite(uint32 ms) noexcept = 0;
    virtual bool TryLockWrite() noexcept = 0;
    virtual void UnlockWrite() noexcept = 0;

protected:
    ~IQORReadWriteLock() = default;
};

// Creates a lock that nobody holds, with a reference for the caller. Throws std::bad_alloc.
inline void create_IQORReadWriteLock(IQORReadWriteLock** out) {
    qor::glue::create_IQORReadWriteLock(out);
    qor::glue::or_throw(*out);
}

// The lock as a member, for the scopes below. The constructor throws std::bad_alloc.
class qorReadWriteLock {
public:
    // Nobody holds it.
    qorReadWriteLock() { create_IQORReadWriteLock(m_lock.Out()); }
    qorReadWriteLock(const qorReadWriteLock&) = delete;
    qorReadWriteLock& operator=(const qorReadWriteLock&) = delete;

    // Like those of IQORReadWriteLock.
    bool LockRead(uint32 ms = 0) noexcept { return m_lock->LockRead(ms); }
    bool TryLockRead() noexcept { return m_lock->TryLockRead(); }
    void UnlockRead() noexcept { m_lock->UnlockRead(); }
    bool LockWrite(uint32 ms = 0) noexcept { return m_lock->LockWrite(ms); }
    bool TryLockWrite() noexcept { return m_lock->TryLockWrite(); }
    void UnlockWrite() noexcept { m_lock->UnlockWrite(); }

private:
    zetSmartPointer<IQORReadWriteLock> m_lock;
};

// Holds a lock for reading until the end of the scope. The lock must outlive it.
class qorAutoLockRead {
public:
    // Waits for the lock.
    explicit qorAutoLockRead(qorReadWriteLock& lock) noexcept : m_lock(lock), m_held(lock.LockRead()) {}
    qorAutoLockRead(const qorAutoLockRead&) = delete;
    qorAutoLockRead& operator=(const qorAutoLockRead&) = delete;
    ~qorAutoLockRead() {
        if (m_held)
            m_lock.UnlockRead();
    }
    // Whether it holds the lock.
    bool IsHeld() const noexcept { return m_held; }

private:
    qorReadWriteLock& m_lock;
    bool m_held;
};

// Holds a lock for writing until the end of the scope. The lock must outlive it. On a thread that reads, `IsHeld`
// returns false, and the scope unlocks nothing.
class qorAutoLockWrite {
public:
    // Waits for the lock.
    explicit qorAutoLockWrite(qorReadWriteLock& lock) noexcept : m_lock(lock), m_held(lock.LockWrite()) {}
    qorAutoLockWrite(const qorAutoLockWrite&) = delete;
    qorAutoLockWrite& operator=(const qorAutoLockWrite&) = delete;
    ~qorAutoLockWrite() {
        if (m_held)
            m_lock.UnlockWrite();
    }
    // Whether it holds the lock.
    bool IsHeld() const noexcept { return m_held; }

private:
    qorReadWriteLock& m_lock;
    bool m_held;
};
