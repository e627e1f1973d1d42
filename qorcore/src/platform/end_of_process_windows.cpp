// The linker leads the calls of the thread library and of the C++ run-time here (qorcore/CMakeLists.txt), those of the
// run-time itself included. So at the end of a process no lock is waited for, whether it is a mutex of ours, that of a
// static variable which a thread was making, or one inside the thread library. Critical sections of the system need no
// such care: Windows ends the process when it meets one that a thread which is gone has held, and Wine lets it through.
#include "platform/end_of_process.h"

#include <cerrno>
#include <cstdlib>
#include <pthread.h>
#include <windows.h>

namespace {

using is_ending_function = BOOLEAN NTAPI();

// Found when the library is loaded, and not at the first question: that may be asked at the end, where another thread
// may have been ended in the middle of finding it.
is_ending_function* const is_ending = reinterpret_cast<is_ending_function*>(
    reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress")));

} // namespace

// Asked before it is found, while the library is being loaded, the answer is no.
bool qor::platform::other_threads_are_gone() noexcept { return is_ending != nullptr && is_ending(); }

using qor::platform::other_threads_are_gone;

extern "C" {

int __real_pthread_mutex_lock(pthread_mutex_t* which);
int __real_pthread_mutex_unlock(pthread_mutex_t* which);
int __real_pthread_spin_lock(pthread_spinlock_t* which);
int __real_pthread_cond_wait(pthread_cond_t* on, pthread_mutex_t* hold);
int __real_pthread_cond_timedwait(pthread_cond_t* on, pthread_mutex_t* hold, const struct timespec* until);
int __real_pthread_cond_signal(pthread_cond_t* which);
int __real_pthread_cond_broadcast(pthread_cond_t* which);
int __real_pthread_cond_destroy(pthread_cond_t* which);
int __real_pthread_create(pthread_t* out, const pthread_attr_t* attributes, void* (*run)(void*), void* context);
int __real___cxa_guard_acquire(long long* guard);
void __real___cxa_guard_release(long long* guard);
void __real___cxa_guard_abort(long long* guard);

int __wrap_pthread_mutex_lock(pthread_mutex_t* which) {
    const int result = pthread_mutex_trylock(which);
    if (result != EBUSY)
        return result;
    return other_threads_are_gone() ? 0 : __real_pthread_mutex_lock(which);
}

// A recursive mutex of a thread that is gone refuses to be unlocked.
int __wrap_pthread_mutex_unlock(pthread_mutex_t* which) {
    const int result = __real_pthread_mutex_unlock(which);
    return result != 0 && other_threads_are_gone() ? 0 : result;
}

int __wrap_pthread_spin_lock(pthread_spinlock_t* which) {
    if (pthread_spin_trylock(which) == 0 || other_threads_are_gone())
        return 0;
    return __real_pthread_spin_lock(which);
}

// Nobody is left to wake this thread. Code that could go on without that has asked before (wait_for_others).
int __wrap_pthread_cond_wait(pthread_cond_t* on, pthread_mutex_t* hold) {
    if (other_threads_are_gone())
        TerminateProcess(GetCurrentProcess(), EXIT_FAILURE);
    return __real_pthread_cond_wait(on, hold);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* on, pthread_mutex_t* hold, const struct timespec* until) {
    return other_threads_are_gone() ? ETIMEDOUT : __real_pthread_cond_timedwait(on, hold, until);
}

// The next three would wait for the threads that wait.
int __wrap_pthread_cond_signal(pthread_cond_t* which) {
    return other_threads_are_gone() ? 0 : __real_pthread_cond_signal(which);
}

int __wrap_pthread_cond_broadcast(pthread_cond_t* which) {
    return other_threads_are_gone() ? 0 : __real_pthread_cond_broadcast(which);
}

int __wrap_pthread_cond_destroy(pthread_cond_t* which) {
    return other_threads_are_gone() ? 0 : __real_pthread_cond_destroy(which);
}

// A new thread would not get to run.
int __wrap_pthread_create(pthread_t* out, const pthread_attr_t* attributes, void* (*run)(void*), void* context) {
    return other_threads_are_gone() ? EAGAIN : __real_pthread_create(out, attributes, run, context);
}

// A static variable that another thread was making is made anew. The first byte of its guard says that it is made.
int __wrap___cxa_guard_acquire(long long* guard) {
    if (other_threads_are_gone())
        return *reinterpret_cast<const char*>(guard) == 0 ? 1 : 0;
    return __real___cxa_guard_acquire(guard);
}

void __wrap___cxa_guard_release(long long* guard) {
    if (other_threads_are_gone())
        *reinterpret_cast<char*>(guard) = 1;
    else
        __real___cxa_guard_release(guard);
}

void __wrap___cxa_guard_abort(long long* guard) {
    if (!other_threads_are_gone())
        __real___cxa_guard_abort(guard);
}

} // extern "C"
