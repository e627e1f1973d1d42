#include "log/system_sender.h"

#include "catalog/catalog.h"
#include "message_names.h"
#include "platform/end_of_process.h"

#include <algorithm>
#include <new>
#include <thread>
#include <utility>

namespace framework = qor::messages::framework;

namespace {

using std::chrono::milliseconds;

// How long the thread waits before it tries again: twice as long each time.
constexpr milliseconds first_pause{1};
constexpr milliseconds longest_pause_if_busy{64};
constexpr milliseconds longest_pause_if_absent{1024};

std::string text_of(uint32 number, const std::string& first, const std::string& second = {}) {
    const char* const inserts[10] = {first.c_str(), second.c_str()};
    return qor::catalog::expand(qor::catalog::find(framework::catalog, number), inserts);
}

} // namespace

qor::log::system_sender::system_sender(system_service& service, int (*start_thread)() noexcept, speaker say) noexcept
    : m_service(service), m_start_thread(start_thread), m_say(say) {}

void qor::log::system_sender::send(std::shared_ptr<system_entry> entry) noexcept {
    holding hold(m_lock);
    if (!m_service.may_wait() && m_queue.empty()) {
        const outcome told = may_tell_of_drops() ? tell_of_drops(hold) : outcome::taken;
        const outcome sent = told == outcome::taken || told == outcome::refused ? pass_on(hold, *entry) : told;
        if (sent == outcome::taken)
            return;
        if (sent == outcome::refused) {
            drop();
            return;
        }
    }
    enqueue(std::move(entry));
}

void qor::log::system_sender::enqueue(std::shared_ptr<system_entry> entry) noexcept {
    const std::size_t size = entry->size();
    if (m_queue.size() >= most_entries || m_bytes + size > most_bytes) {
        drop();
        return;
    }
    m_thread_runs = m_thread_runs || m_start_thread() == 0;
    if (!m_thread_runs) {
        drop();
        return;
    }
    entry->has_waited = true;
    m_bytes += size;
    m_queue.push_back(std::move(entry));
    if (m_queue.size() == 1)
        m_has_work.notify_one();
}

void qor::log::system_sender::drop() noexcept {
    ++m_dropped;
    ++m_untold;
    m_notice_may_help = true;
}

// Where sending may take long, others use the log meanwhile.
qor::log::system_sender::outcome qor::log::system_sender::pass_on(holding& hold, const system_entry& entry) noexcept {
    outcome sent;
    if (m_service.may_wait()) {
        m_is_sending = true;
        hold.unlock();
        sent = m_service.send(entry);
        hold.lock();
        m_is_sending = false;
    } else {
        sent = m_service.send(entry);
    }
    m_was_absent = sent == outcome::absent;
    if (sent == outcome::taken)
        m_notice_may_help = true;
    if (m_was_absent)
        say_once_that_nobody_is_there();
    return sent;
}

// The first of the queue stays there until it has gone, so that it counts as waiting.
qor::log::system_sender::outcome qor::log::system_sender::send_next(holding& hold) noexcept {
    const std::shared_ptr<system_entry> first = m_queue.front();
    const outcome sent = pass_on(hold, *first);
    if (sent == outcome::busy || sent == outcome::absent)
        return sent;
    // finish() may have given up meanwhile.
    if (!m_queue.empty() && m_queue.front() == first) {
        m_queue.pop_front();
        m_bytes -= first->size();
    }
    if (sent == outcome::refused)
        drop();
    return sent;
}

// A notice that is refused is not tried again until something else has changed.
qor::log::system_sender::outcome qor::log::system_sender::tell_of_drops(holding& hold) noexcept {
    const uint64 told = m_untold;
    static const std::vector<field> no_fields;
    const std::string count = std::to_string(told);
    const qorLogPlace nowhere;
    const auto notice =
        make_system_entry({qorLogLevel::warning, text_of(framework::log_dropped, count), no_fields, nowhere});
    notice->fields.push_back({"QOR_DROPPED", count});
    const outcome sent = pass_on(hold, *notice);
    if (sent == outcome::taken)
        m_untold -= told;
    else if (sent == outcome::refused)
        m_notice_may_help = false;
    return sent;
}

void qor::log::system_sender::run() noexcept {
    holding hold(m_lock);
    milliseconds pause = first_pause;
    for (;;) {
        m_has_work.wait(hold, [this] { return has_work() && !m_is_sending; });
        outcome sent = may_tell_of_drops() ? tell_of_drops(hold) : outcome::taken;
        if (sent != outcome::busy && sent != outcome::absent && !m_queue.empty())
            sent = send_next(hold);
        if (!has_work())
            m_is_idle.notify_all();
        if (sent != outcome::busy && sent != outcome::absent) {
            pause = first_pause;
            continue;
        }
        hold.unlock();
        std::this_thread::sleep_for(pause);
        hold.lock();
        pause = std::min(2 * pause, m_was_absent ? longest_pause_if_absent : longest_pause_if_busy);
    }
}

bool qor::log::system_sender::flush(uint32 wait, std::size_t& waiting, std::string& reason) {
    holding hold(m_lock);
    const auto is_idle = [this] { return m_queue.empty() && !m_is_sending; };
    const bool is_done =
        platform::other_threads_are_gone() ? is_idle() : m_is_idle.wait_for(hold, milliseconds(wait), is_idle);
    waiting = m_queue.size();
    if (!is_done)
        reason = m_service.reason();
    return is_done;
}

// An exit handler cannot rely on the thread: Windows has ended it, perhaps while it was sending.
void qor::log::system_sender::finish(bool at_exit, milliseconds limit) noexcept {
    holding hold(m_lock);
    const auto end = std::chrono::steady_clock::now() + limit;
    at_exit = at_exit || platform::other_threads_are_gone();
    if (!at_exit)
        m_is_idle.wait_until(hold, end, [this] { return !m_is_sending; });
    while (has_work() && (at_exit || !m_is_sending)) {
        outcome sent = may_tell_of_drops() ? tell_of_drops(hold) : outcome::taken;
        if (sent != outcome::busy && sent != outcome::absent && !m_queue.empty())
            sent = send_next(hold);
        if (sent == outcome::absent || std::chrono::steady_clock::now() >= end)
            break;
        if (sent == outcome::busy) {
            hold.unlock();
            std::this_thread::sleep_for(first_pause);
            hold.lock();
        }
    }
    const uint64 lost = m_untold + m_queue.size();
    m_dropped += m_queue.size();
    m_untold = 0;
    m_bytes = 0;
    m_queue.clear();
    if (lost != 0)
        m_say(text_of(framework::log_dropped, std::to_string(lost)));
}

uint64 qor::log::system_sender::dropped() {
    const holding hold(m_lock);
    return m_dropped;
}

void qor::log::system_sender::say_once_that_nobody_is_there() noexcept {
    if (!std::exchange(m_has_said, true))
        m_say(text_of(framework::log_has_no_daemon, m_service.reason(), std::to_string(most_entries)));
}

// The queue and the thread belong to the parent.
void qor::log::system_sender::after_fork_in_child() noexcept {
    m_queue.clear();
    m_bytes = 0;
    m_untold = 0;
    m_dropped = 0;
    m_thread_runs = false;
    m_is_sending = false;
    new (&m_has_work) std::condition_variable; // no thread waits for the old ones in this process
    new (&m_is_idle) std::condition_variable;
    m_service.continue_in_child();
    m_lock.unlock();
}
