// The half of a connection that runs on its loop's thread.
#include "ipc/connection.h"

#include "ipc/loop.h"

#include <algorithm>

namespace {

using qor::ipc::never;
using qor::ipc::ticks_now;
using qor::ipc::ticks_per_ms;

// The rest of a message that is longer than this is read to its place, with little of what follows, so that it need not
// be copied; and so often before the others get their turn.
constexpr std::size_t long_rest = 16 << 10;
constexpr std::size_t little = 4 << 10;
constexpr int most_reads = 4;
// How long one connection may take for its message while the others wait for memory, if silence is not limited.
constexpr uint32 growing_time = 15'000;

} // namespace

bool qor::ipc::connection::begin() noexcept {
    const std::lock_guard hold(m_lock);
    if (const int code = m_loop->m_poller.add(m_channel, m_id)) {
        m_code = code;
        return false;
    }
    if (!m_is_servers) {
        char bytes[hello_size];
        write_hello(bytes, {m_options.max_message, m_options.silence});
        enqueue(frame_kind::hello, bytes, sizeof bytes);
        flush(); // a server that has refused reads nothing, but its answer is there
    }
    set_interest();
    return true;
}

void qor::ipc::connection::can_write() noexcept {
    bool is_done = false;
    {
        const std::lock_guard hold(m_lock);
        flush();
        is_done = m_queue.empty() && !m_is_writing;
    }
    if (is_done && m_phase == phase::lingering)
        drop();
}

void qor::ipc::connection::can_read(char* buffer, std::size_t size) noexcept {
    for (int i = 0; i < most_reads && !m_is_gone; ++i) {
        if (m_phase == phase::lingering) {
            const piece all = {buffer, size};
            std::size_t dropped = 0;
            const io result = m_channel.read(&all, 1, dropped);
            if (result == io::ended || result == io::failed)
                drop();
            return;
        }
        if (!read_once(buffer, size))
            return;
    }
}

// Returns whether there may be more, which is worth a look at once.
bool qor::ipc::connection::read_once(char* buffer, std::size_t size) noexcept {
    piece pieces[2];
    unsigned count = 0;
    std::size_t part = 0;
    char* const room = m_reader.room(part);
    const bool is_long = part >= long_rest;
    if (part != 0)
        pieces[count++] = {room, part};
    pieces[count++] = {buffer, is_long ? little : size};
    std::size_t got = 0;
    const io result = m_channel.read(pieces, count, got);
    if (result == io::would_wait)
        return false;
    if (result != io::done) {
        at_end(result);
        return false;
    }
    const bool is_all = is_long && got == part + little;
    bool is_right = true;
    const auto taker = [this](const frame& what) { return take(what); };
    part = std::min(part, got);
    if (part == 0 || m_reader.added(part, taker))
        is_right = m_reader.feed(buffer, got - part, taker);
    if (!is_right) {
        finish(qorIpcEnd::violation);
        return false;
    }
    {
        const std::lock_guard hold(m_lock);
        m_last_heard = m_loop->now();
        if (m_partial != m_reader.held()) {
            m_partial = m_reader.held();
            hold_changed();
        }
    }
    if (m_is_finished_here)
        return false;
    look_at_memory();
    const std::lock_guard hold(m_lock);
    return is_all && m_reads;
}

// When all connections together hold too much, only one of them goes on to receive a message that has begun.
void qor::ipc::connection::look_at_memory() noexcept {
    if (m_partial <= free_share || m_loop->m_held <= m_options.memory) {
        m_loop->end_growth(*this);
        return;
    }
    if (m_loop->may_grow(*this)) {
        m_loop->check_at(*this, ticks_now() + growing_time * ticks_per_ms);
        return;
    }
    const std::lock_guard hold(m_lock);
    m_is_starved = true;
    set_interest();
}

void qor::ipc::connection::feed_again() noexcept {
    const std::lock_guard hold(m_lock);
    if (!std::exchange(m_is_starved, false))
        return;
    m_last_heard = ticks_now();
    set_interest();
}

void qor::ipc::connection::at_end(io result) noexcept {
    if (result == io::failed) {
        const std::lock_guard hold(m_lock);
        m_code = m_channel.code();
    }
    finish_lost();
}

void qor::ipc::connection::finish_lost() noexcept {
    bool has_failed = false;
    {
        const std::lock_guard hold(m_lock);
        has_failed = m_code != 0;
    }
    finish(has_failed ? qorIpcEnd::failed : qorIpcEnd::lost);
}

bool qor::ipc::connection::take(const frame& what) noexcept {
    if (m_phase == phase::greeting) {
        if (!take_hello(what))
            finish(qorIpcEnd::violation);
        return !m_is_finished_here;
    }
    switch (what.kind) {
    case frame_kind::message:
        deliver(what);
        break;
    case frame_kind::alive:
        break;
    case frame_kind::end:
        take_end();
        break;
    case frame_kind::arrived: {
        bool is_asked = false;
        {
            const std::lock_guard hold(m_lock);
            is_asked = m_is_closing;
            m_has_arrived = is_asked;
        }
        finish(is_asked ? qorIpcEnd::closed_here : qorIpcEnd::violation);
        break;
    }
    case frame_kind::hello:
    case frame_kind::refused:
        finish(qorIpcEnd::violation);
        break;
    }
    return !m_is_finished_here;
}

// Returns false if it is a violation.
bool qor::ipc::connection::take_hello(const frame& what) noexcept {
    if (what.kind == frame_kind::refused && !m_is_servers) {
        {
            const std::lock_guard hold(m_lock);
            m_refusal = read_number(what.bytes);
        }
        finish(qorIpcEnd::closed);
        return true;
    }
    hello of_peer{};
    if (what.kind != frame_kind::hello || !read_hello(what.bytes, of_peer))
        return false;
    m_phase = phase::open;
    if (m_has_target && !make_face(shared_from_this(), false, m_face.Out())) {
        finish(qorIpcEnd::failed);
        return true;
    }
    {
        const std::lock_guard hold(m_lock);
        m_peer_longest = std::min(of_peer.longest_message, qorIpcLongestMessage);
        m_peer_silence = of_peer.silence;
        if (m_is_servers) {
            char bytes[hello_size];
            write_hello(bytes, {m_options.max_message, m_options.silence});
            enqueue(frame_kind::hello, bytes, sizeof bytes);
            m_is_writing = true; // what the program sends while it decides comes behind it
        }
        m_is_open = true;
    }
    m_is_announced = true;
    if (m_is_servers && !m_target->Accept(*m_face)) {
        m_is_announced = false;
        refuse(refusal::by_program);
        return true;
    }
    {
        const std::lock_guard hold(m_lock);
        if (m_is_servers)
            m_is_writing = false;
        flush();
        m_has_changed.notify_all();
    }
    m_loop->check_at(*this, 0);
    return true;
}

void qor::ipc::connection::refuse(refusal why) noexcept {
    {
        const std::lock_guard hold(m_lock);
        m_is_writing = false;
        drop_queue(false);
        char number[refused_size];
        write_number(number, static_cast<uint32>(why));
        enqueue(frame_kind::refused, number, sizeof number);
        flush();
    }
    m_lingers = true;
    finish(qorIpcEnd::closed_here);
}

// All messages of the peer have been received. The peer wants no more, so the queue for it is dropped.
void qor::ipc::connection::take_end() noexcept {
    bool closes_too = false;
    {
        const std::lock_guard hold(m_lock);
        closes_too = m_is_closing;
        if (!closes_too)
            drop_queue(true);
        if (!m_is_broken)
            enqueue(frame_kind::arrived, nullptr, 0);
        flush();
    }
    if (closes_too)
        return; // until the peer has answered likewise
    m_lingers = true;
    finish(qorIpcEnd::closed);
}

void qor::ipc::connection::deliver(const frame& what) noexcept {
    {
        const std::lock_guard hold(m_lock);
        if (m_is_closing)
            return;
        if (!m_has_target) {
            auto copy = std::make_unique_for_overwrite<char[]>(what.length);
            if (what.length != 0)
                std::memcpy(copy.get(), what.bytes, what.length);
            m_received.emplace_back(std::move(copy), what.length);
            m_received_bytes += what.length;
            if (m_received_bytes > m_options.receive_queue) {
                m_is_paused = true;
                set_interest();
            }
            hold_changed();
            m_receiver_may_go.notify_one();
            return;
        }
    }
    m_target->Received(*m_face, what.length != 0 ? what.bytes : "", what.length);
}

uint64 qor::ipc::connection::check(uint64 now, bool has_seen_all) noexcept {
    if (m_is_gone)
        return never;
    if (m_phase == phase::lingering) {
        if (now >= m_lingers_since + lingering_time)
            drop();
        return m_is_gone ? never : m_lingers_since + lingering_time;
    }
    if (now >= m_close_until) {
        finish(qorIpcEnd::closed_here);
        return never;
    }
    if (m_phase == phase::greeting) {
        const uint64 until = m_options.connect == 0 ? never : m_since + m_options.connect * ticks_per_ms;
        if (now >= until && has_seen_all)
            finish(qorIpcEnd::silent);
        return std::min(m_close_until, std::max(until, now + ticks_per_ms));
    }
    if (m_loop->is_grower(*this)) {
        const uint32 most = m_options.silence != 0 ? m_options.silence : growing_time;
        if (now >= m_loop->grows_since() + most * ticks_per_ms) {
            finish(qorIpcEnd::overloaded);
            return never;
        }
    }
    uint64 next = m_close_until;
    bool is_silent = false;
    {
        const std::lock_guard hold(m_lock);
        if (m_options.silence != 0 && !m_is_paused && !m_is_starved) {
            const uint64 until = m_last_heard + m_options.silence * ticks_per_ms;
            is_silent = now >= until && has_seen_all;
            next = std::min(next, std::max(until, now + ticks_per_ms));
        } else if (m_options.silence != 0) {
            next = std::min(next, now + m_options.silence * ticks_per_ms);
        }
        if (m_peer_silence != 0 && !is_silent && !m_is_broken) {
            const uint64 pause = m_peer_silence * ticks_per_ms / 3;
            // Where something waits already, the peer has to read first.
            if (now >= m_last_sent + pause && m_queue.empty() && !m_is_writing) {
                enqueue(frame_kind::alive, nullptr, 0);
                flush();
            }
            next = std::min(next, std::max(m_last_sent, now - std::min(now, pause / 2)) + pause);
        }
    }
    if (is_silent) {
        finish(qorIpcEnd::silent);
        return never;
    }
    return next;
}

void qor::ipc::connection::begin_close(uint64 until) noexcept {
    if (m_is_finished_here)
        return;
    m_close_until = std::min(m_close_until, until);
    bool is_broken = false;
    {
        const std::lock_guard hold(m_lock);
        send_end();
        is_broken = m_is_broken;
    }
    if (m_phase == phase::greeting)
        finish(qorIpcEnd::closed_here);
    else if (is_broken)
        finish_lost(); // nothing that was sent will be answered
    else
        feed_closed();
    m_loop->check_at(*this, m_is_finished_here ? 0 : m_close_until);
}

// Messages are dropped from now on, so nothing waits for the program.
void qor::ipc::connection::feed_closed() noexcept {
    const std::lock_guard hold(m_lock);
    m_is_paused = false;
    set_interest();
}

void qor::ipc::connection::finish(qorIpcEnd how) noexcept {
    if (m_is_finished_here)
        return;
    m_is_finished_here = true;
    {
        const std::lock_guard hold(m_lock);
        m_end = how;
        m_is_over = true;
        m_is_in_order = m_has_arrived || how == qorIpcEnd::closed || !m_is_announced;
        // Behind a closing from both sides, the answer to the peer's may still wait.
        m_lingers = m_lingers || (m_has_arrived && !m_queue.empty());
        if (!m_lingers)
            drop_queue(false);
        m_partial = 0;
        hold_changed();
        m_sender_may_go.notify_all();
        m_receiver_may_go.notify_all();
    }
    if (m_is_announced && m_has_target)
        m_target->Ended(*m_face);
    m_target.Empty();
    m_face.Empty();
    m_loop->end_growth(*this);
    m_phase = phase::lingering;
    m_lingers_since = ticks_now();
    {
        const std::lock_guard hold(m_lock);
        m_is_finished = true;
        m_is_paused = m_is_starved = false;
        m_lingers = m_lingers && (m_is_writing || !m_queue.empty());
        if (m_lingers)
            set_interest();
        m_has_changed.notify_all();
    }
    if (!m_lingers)
        drop();
    else
        m_loop->check_at(*this, m_lingers_since + lingering_time);
}

void qor::ipc::connection::drop() noexcept {
    m_is_gone = true;
    const std::lock_guard hold(m_lock);
    m_is_dropped = true;
    drop_queue(false);
    set_interest();
    // A thread that writes meanwhile closes it.
    if (m_is_writing)
        m_channel.shut();
    else
        m_channel.close();
}
