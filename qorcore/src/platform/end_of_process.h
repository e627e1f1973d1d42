// Inside the library: the end of a process. Windows ends all threads but one, wherever they are, before it calls the
// exit handlers and destructors of libraries. What the others held stays locked, and nobody wakes a thread that waits
// for them. On POSIX systems, the other threads run until the process is gone.
//
// On Windows, every lock of libqor and its modules counts as free then (end_of_process_windows.cpp). What it protects
// may be half changed. A wait for what another thread does has to ask, or to use wait_for_others.
#pragma once

#include <condition_variable>
#include <mutex>

namespace qor::platform {

// Whether the process is at its end and all other threads are gone.
bool other_threads_are_gone() noexcept;

// Waits until `ready` returns true. Returns false if nobody is left who could bring that about.
template <class READY>
bool wait_for_others(std::condition_variable& on, std::unique_lock<std::mutex>& hold, READY ready) {
    if (other_threads_are_gone())
        return ready();
    on.wait(hold, ready);
    return true;
}

} // namespace qor::platform
