// A thread that reads a log ahead of its replay. It also parses the lines, which is half of the work, as long as enough
// batches are waiting for the replay.
#pragma once

#include "log_batch.h"
#include "thread_place.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace qor::heap {

template <class LINE>
class log_ahead {
public:
    using batch = log_batch<LINE>;

    // Throws std::system_error if the process cannot start a thread; nothing has been read then.
    log_ahead(const log_source<LINE>& source, bool are_ids_left_out)
        : m_shared(std::make_shared<shared>(source, are_ids_left_out)) {
        m_thread = std::thread([shared = m_shared] { qor::or_end([&] { shared->read(); }); });
    }

    log_ahead(const log_ahead&) = delete;
    log_ahead& operator=(const log_ahead&) = delete;

    // The thread may be waiting for a log that nobody writes to any more. It then runs on, detached, with the state
    // that it shares.
    ~log_ahead() {
        if (m_shared->abandon())
            m_thread.join();
        else
            m_thread.detach();
    }

    // Returns the next lines, valid until the next call. Returns null at the end of the log, or if it cannot be read:
    // then the last error says why, otherwise there is no last error. before_wait() is called before a long wait for
    // the lines, and every 100 ms during it; an exception from it leaves the log as it is.
    template <class BEFORE_WAIT>
    batch* next(const BEFORE_WAIT& before_wait) {
        return m_shared->take(before_wait);
    }

private:
    class shared {
    public:
        shared(const log_source<LINE>& source, bool are_ids_left_out) : m_source(source) {
            for (batch& each : m_batches)
                each.make_with_text();
            if (are_ids_left_out)
                m_ids.leave_out();
            else
                m_ids.make();
        }

        void read() {
            bool parsed;
            for (batch* free = next_free(parsed); free != nullptr && fill(*free, parsed); free = next_free(parsed))
                pass_on(*free);
            qorGetLastError(m_error.Out());
            const std::lock_guard hold(m_lock);
            m_is_done = true;
            m_changed.notify_all();
        }

        template <class BEFORE_WAIT>
        batch* take(const BEFORE_WAIT& before_wait) {
            std::unique_lock hold(m_lock);
            m_processor = current_processor();
            if (m_is_in_use)
                return_batch();
            wait_for_batches(hold, before_wait);
            if (waiting() != 0) {
                m_is_in_use = true;
                return &m_batches[m_taken % ring];
            }
            qor::glue::qorSetLastErrorMessage(*m_error);
            return nullptr;
        }

        // Tells the thread to end. Returns false if it has not ended yet.
        bool abandon() {
            const std::lock_guard hold(m_lock);
            m_is_abandoned = true;
            m_changed.notify_all();
            return m_is_done;
        }

    private:
        static constexpr uint64 ring = 16;

        // The low-water mark. With fewer waiting batches than this, the replay is the faster side. The thread then
        // leaves parsing to it, so that neither side waits for the other.
        static constexpr uint64 low_water = ring / 2;

        // Waking a thread costs more than processing one batch. So a waiting replay is woken when several batches are
        // ready, or after `patience`, so that a slow log is not held up.
        static constexpr uint64 wake_count = ring / 4;
        static constexpr std::chrono::milliseconds patience{1};

        // How often the end of a log that somebody still writes is tried again.
        static constexpr std::chrono::milliseconds follow_step{20};

        // before_wait() is called this often while the replay waits.
        static constexpr std::chrono::milliseconds wait_step{100};

        uint64 waiting() const noexcept { return m_passed - m_taken; }

        // before_wait() is called only after `patience`, so its cost does not matter.
        template <class BEFORE_WAIT>
        void wait_for_batches(std::unique_lock<std::mutex>& hold, const BEFORE_WAIT& before_wait) {
            if (waiting() != 0 || m_is_done)
                return;
            m_wanted = wake_count;
            if (m_changed.wait_for(hold, patience, [this] { return waiting() >= m_wanted || m_is_done; }))
                return;
            m_wanted = 1;
            if (waiting() != 0)
                return;
            do {
                hold.unlock();
                before_wait();
                hold.lock();
            } while (!m_changed.wait_for(hold, wait_step, [this] { return waiting() != 0 || m_is_done; }));
        }

        void return_batch() {
            m_is_in_use = false;
            ++m_taken;
            if (waiting() <= low_water)
                m_changed.notify_all();
        }

        batch* next_free(bool& parsed) {
            std::unique_lock hold(m_lock);
            if (waiting() == ring)
                m_changed.wait(hold, [this] { return waiting() <= low_water || m_is_abandoned; });
            parsed = waiting() >= low_water;
            m_place.keep_off(m_processor);
            return m_is_abandoned ? nullptr : &m_batches[m_passed % ring];
        }

        // Waits at the end of a log that somebody still writes.
        bool fill(batch& free, bool parsed) {
            while (!m_source.copy_batch(free, parsed, m_ids)) {
                qorString failure;
                if (!m_source.follows() || qorGetLastError(failure) != qorError_none)
                    return false;
                std::unique_lock hold(m_lock);
                if (m_changed.wait_for(hold, follow_step, [this] { return m_is_abandoned; }))
                    return false;
            }
            return true;
        }

        void pass_on(const batch& filled) {
            std::unique_lock hold(m_lock);
            ++m_passed;
            if (waiting() >= m_wanted || filled.is_borrowed)
                m_changed.notify_all();
            if (filled.is_borrowed)
                m_changed.wait(hold, [this] { return waiting() == 0 || m_is_abandoned; });
        }

        log_source<LINE> m_source;
        batch m_batches[ring];
        text_ids::assigner m_ids{1};
        zetSmartPointer<IQORErrorMessage> m_error; // the last error of the thread

        std::mutex m_lock;
        std::condition_variable m_changed;
        uint64 m_passed = 0; // batches, counted from the start
        uint64 m_taken = 0;
        uint64 m_wanted = 1;      // number of waiting batches at which the replay is woken
        bool m_is_in_use = false; // the replay is using the batch after those taken
        bool m_is_done = false;
        bool m_is_abandoned = false;
        int m_processor = current_processor(); // on which the replay was last seen
        thread_place m_place;                  // that of the thread
    };

    std::shared_ptr<shared> m_shared;
    std::thread m_thread;
};

} // namespace qor::heap
