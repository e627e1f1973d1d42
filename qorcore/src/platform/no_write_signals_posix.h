// Inside the POSIX half of the library.
#pragma once

#include <cerrno>
#include <csignal>
#include <ctime>

namespace qor::platform {

// Blocks the signals that a failed write would send to this thread, because they would end the host.
class no_write_signals {
public:
    no_write_signals() noexcept {
        sigemptyset(&m_signals);
        sigaddset(&m_signals, SIGXFSZ);
        sigaddset(&m_signals, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_signals, &m_before);
    }
    no_write_signals(const no_write_signals&) = delete;
    no_write_signals& operator=(const no_write_signals&) = delete;
    ~no_write_signals() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

    // Call this after a failed write: it removes the pending signal, which would otherwise arrive when this object
    // ends.
    void take(int reason) noexcept {
        constexpr timespec no_time{};
        if (reason == EFBIG || reason == EPIPE)
            sigtimedwait(&m_signals, nullptr, &no_time);
    }

private:
    sigset_t m_signals;
    sigset_t m_before;
};

} // namespace qor::platform
