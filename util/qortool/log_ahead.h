// A thread that reads a log ahead of its replay. It reads and parses, which is about half of the work.
#pragma once

#include "log_batch.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

template <class LINE>
class log_ahead {
public:
    using batch = log_batch<LINE>;

    // Throws std::system_error where the process may start no thread; nothing was read then.
    explicit log_ahead(const log_source<LINE>& source) : m_shared(std::make_shared<shared>(source)) {
        m_thread = std::thread([shared = m_shared] { shared->read(); });
    }

    log_ahead(const log_ahead&) = delete;
    log_ahead& operator=(const log_ahead&) = delete;

    // The thread may be waiting for a log that nobody writes any more. What it uses is its own as well, so it is left to
    // itself then.
    ~log_ahead() {
        if (m_shared->leave())
            m_thread.join();
        else
            m_thread.detach();
    }

    // The next lines, valid until the next call; null at the end of the log, or where it cannot be read: then the last
    // error says why.
    const batch* next() { return m_shared->take(); }

private:
    class shared {
    public:
        explicit shared(const log_source<LINE>& source) : m_source(source) {
            for (batch& each : m_batches)
                each.make_with_text();
        }

        void read() noexcept {
            for (batch* free = next_free(); free != nullptr && m_source.give(*free); free = next_free())
                pass_on(*free);
            qorGetLastError(m_error.Out());
            const std::lock_guard hold(m_lock);
            m_is_done = true;
            m_changed.notify_all();
        }

        const batch* take() {
            std::unique_lock hold(m_lock);
            if (m_is_held)
                give_back();
            m_changed.wait(hold, [this] { return m_passed != m_taken || m_is_done; });
            if (m_passed != m_taken) {
                m_is_held = true;
                return &m_batches[m_taken % ring];
            }
            if (m_error->IsError())
                qor::glue::qorSetLastErrorMessage(*m_error);
            return nullptr;
        }

        // False: the thread has not come to its end yet.
        bool leave() {
            const std::lock_guard hold(m_lock);
            m_is_left = true;
            m_changed.notify_all();
            return m_is_done;
        }

    private:
        static constexpr uint64 ring = 8;

        // With the lock held. To wake the thread costs more than a batch is worth, so that it waits for some of them.
        void give_back() {
            m_is_held = false;
            ++m_taken;
            if (m_passed - m_taken <= ring / 2)
                m_changed.notify_all();
        }

        batch* next_free() {
            std::unique_lock hold(m_lock);
            if (m_passed - m_taken == ring)
                m_changed.wait(hold, [this] { return m_passed - m_taken <= ring / 2 || m_is_left; });
            return m_is_left ? nullptr : &m_batches[m_passed % ring];
        }

        void pass_on(const batch& filled) {
            std::unique_lock hold(m_lock);
            ++m_passed;
            m_changed.notify_all();
            if (filled.is_lent)
                m_changed.wait(hold, [this] { return m_passed == m_taken || m_is_left; });
        }

        log_source<LINE> m_source;
        batch m_batches[ring];
        zetSmartPointer<IQORErrorMessage> m_error; // the thread's last one

        std::mutex m_lock;
        std::condition_variable m_changed;
        uint64 m_passed = 0; // batches, counted from the first
        uint64 m_taken = 0;
        bool m_is_held = false; // the one behind those taken is in use
        bool m_is_done = false;
        bool m_is_left = false;
    };

    std::shared_ptr<shared> m_shared;
    std::thread m_thread;
};
