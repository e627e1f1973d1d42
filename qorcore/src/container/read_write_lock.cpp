// The read/write lock: one mutex guards the state, and two conditions wake those who wait.
#include "error/error.h"
#include "memory/allocator.h"
#include "platform/end_of_process.h"
#include "platform/no_cancellation.h"
#include "qor/system/template/Object.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace {

constexpr char source[] = "qorcore/src/container/read_write_lock";

class read_write_lock final : public qor::object<IQORReadWriteLock> {
public:
    read_write_lock() noexcept : object("qorcore.read_write_lock", "IQORReadWriteLock") {}

    bool LockRead(uint32 ms) noexcept override { return lock_read(ms == 0 ? wait::always : wait::limited, ms); }
    bool TryLockRead() noexcept override { return lock_read(wait::never, 0); }

    void UnlockRead() noexcept override {
        const std::lock_guard hold(m_lock);
        const auto own = find_reader();
        if (own == m_readers.end())
            return qor::glue::assert_failed("the thread reads", "void IQORReadWriteLock::UnlockRead()", source, 1);
        if (--own->times == 0) {
            m_readers.erase(own);
            if (m_readers.empty() && m_writes == 0)
                wake();
        }
    }

    bool LockWrite(uint32 ms) noexcept override { return lock_write(ms == 0 ? wait::always : wait::limited, ms); }
    bool TryLockWrite() noexcept override { return lock_write(wait::never, 0); }

    void UnlockWrite() noexcept override {
        const std::lock_guard hold(m_lock);
        if (m_writes == 0 || m_writer != std::this_thread::get_id())
            return qor::glue::assert_failed("the thread writes", "void IQORReadWriteLock::UnlockWrite()", source, 2);
        if (--m_writes == 0)
            wake();
    }

private:
    enum class wait { never, limited, always };

    struct reader {
        std::thread::id thread;
        uint64 times;
    };

    std::vector<reader>::iterator find_reader() noexcept {
        return std::find_if(m_readers.begin(), m_readers.end(),
                            [](const reader& each) { return each.thread == std::this_thread::get_id(); });
    }
    bool is_writer() const noexcept { return m_writes != 0 && m_writer == std::this_thread::get_id(); }

    // Waits until `may_go`, and returns whether that is so.
    template <class CONDITION>
    static bool wait_for(std::condition_variable& on, std::unique_lock<std::mutex>& hold, wait how, uint32 ms,
                         CONDITION may_go) {
        const qor::platform::no_cancellation keep;
        switch (how) {
        case wait::never:
            return may_go();
        case wait::limited:
            return on.wait_for(hold, std::chrono::milliseconds(ms), may_go);
        case wait::always:
            on.wait(hold, may_go);
            return true;
        }
        return false;
    }

    // At the end of a process, nobody else holds it any more.
    void forget_the_gone() noexcept {
        if (!qor::platform::other_threads_are_gone())
            return;
        std::erase_if(m_readers, [](const reader& each) { return each.thread != std::this_thread::get_id(); });
        m_writes = is_writer() ? m_writes : 0;
        m_waiting_writers = 0;
    }

    bool lock_read(wait how, uint32 ms) noexcept {
        std::unique_lock hold(m_lock);
        forget_the_gone();
        const auto own = find_reader();
        if (own != m_readers.end()) {
            ++own->times;
            return true;
        }
        // A writer that waits goes first, except before the thread that writes already.
        const auto may_go = [this] { return is_writer() || (m_writes == 0 && m_waiting_writers == 0); };
        if (!wait_for(m_readers_may_go, hold, how, ms, may_go))
            return false;
        m_readers.push_back({std::this_thread::get_id(), 1});
        return true;
    }

    bool lock_write(wait how, uint32 ms) noexcept {
        std::unique_lock hold(m_lock);
        forget_the_gone();
        if (!is_writer()) {
            if (find_reader() != m_readers.end()) {
                qor::error::set(qorError_lock_would_wait_for_itself, {"IQORReadWriteLock::LockWrite"});
                return false;
            }
            ++m_waiting_writers;
            const bool may_write =
                wait_for(m_writer_may_go, hold, how, ms, [this] { return m_writes == 0 && m_readers.empty(); });
            --m_waiting_writers;
            if (!may_write) {
                // Readers may have waited for this writer alone.
                if (m_waiting_writers == 0 && m_writes == 0)
                    m_readers_may_go.notify_all();
                return false;
            }
            m_writer = std::this_thread::get_id();
        }
        ++m_writes;
        return true;
    }

    // Nobody writes any more, or nobody reads.
    void wake() noexcept {
        if (m_waiting_writers != 0)
            m_writer_may_go.notify_one();
        else
            m_readers_may_go.notify_all();
    }

    std::mutex m_lock;
    std::condition_variable m_readers_may_go;
    std::condition_variable m_writer_may_go;
    std::vector<reader> m_readers; // few: one for each thread that reads
    std::thread::id m_writer;      // meaningful if it writes
    uint64 m_writes = 0;           // how often the writer has locked
    uint32 m_waiting_writers = 0;
};

} // namespace

void qor::glue::create_IQORReadWriteLock(IQORReadWriteLock** out) noexcept {
    *out = nullptr;
    memory::make<read_write_lock>(source, __LINE__, out);
}
