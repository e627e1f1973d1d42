// The half of a connection that the program calls, and what both halves do under the lock.
#include "ipc/connection.h"

#include "error/error.h"
#include "ipc/loop.h"
#include "ipc/texts.h"
#include "message_names.h"
#include "platform/end_of_process.h"
#include "platform/no_cancellation.h"
#include "platform/own_process.h"

#include <algorithm>

namespace framework = qor::messages::framework;

namespace {

using qor::ipc::never;
using qor::ipc::ticks_now;
using qor::ipc::ticks_per_ms;

// At most so much is written for one connection before the others get their turn.
constexpr std::size_t most_at_once = 1 << 20;
// A message up to this length is written together with its header.
constexpr std::size_t short_message = 1 << 10;

// Waits with a limit. Returns whether it is ready.
template <class READY>
bool wait(std::condition_variable& on, std::unique_lock<std::mutex>& hold, uint64 until, READY ready) noexcept {
    constexpr uint64 longest = qorTicksPerSecond; // then it looks again: on Windows, somebody may set the clock
    while (!ready()) {
        if (qor::platform::other_threads_are_gone())
            return false;
        if (until == never) {
            on.wait(hold);
            continue;
        }
        const uint64 now = ticks_now();
        if (now >= until)
            return false;
        using ticks = std::chrono::duration<int64, std::ratio<1, qorTicksPerSecond>>;
        on.wait_for(hold, ticks(static_cast<int64>(std::min(until - now, longest))));
    }
    return true;
}

} // namespace

qor::ipc::connection::connection(std::shared_ptr<loop> owner, channel&& from, peer&& who, const qorIpcOptions& options,
                                 IQORIpcTarget* target, bool is_servers, uint64 id)
    : m_loop(std::move(owner)), m_options(options), m_peer(std::move(who)), m_id(id), m_is_servers(is_servers),
      m_has_target(target != nullptr), m_reader(options.max_message), m_since(ticks_now()), m_channel(std::move(from)),
      m_last_heard(m_since), m_last_sent(m_since) {
    if (target != nullptr) {
        target->AddRef();
        m_target.AttachNew(target);
    }
}

qor::ipc::connection::~connection() { m_loop->m_held -= m_charge; }

// ---- under the lock

void qor::ipc::connection::hold_changed() noexcept {
    const uint64 held = m_queued + m_received_bytes + m_partial;
    const uint64 charge = held > free_share ? held - free_share : 0;
    m_loop->m_held += charge - m_charge; // modulo 2^64
    m_charge = charge;
}

bool qor::ipc::connection::fail_ended() noexcept {
    std::string why;
    const qorIpcEnd broken = m_code != 0 ? qorIpcEnd::failed : qorIpcEnd::lost;
    switch (m_is_over ? m_end : m_is_closing ? qorIpcEnd::closed_here : broken) {
    case qorIpcEnd::closed:
        why = text_of(framework::ipc_peer_closed);
        break;
    case qorIpcEnd::none:
    case qorIpcEnd::closed_here:
        why = text_of(framework::ipc_closed_here);
        break;
    case qorIpcEnd::lost:
        why = text_of(framework::ipc_peer_lost);
        break;
    case qorIpcEnd::silent:
        why = text_of(framework::ipc_peer_silent, std::to_string(m_options.silence).c_str());
        break;
    case qorIpcEnd::violation:
        why = text_of(framework::ipc_peer_violates);
        break;
    case qorIpcEnd::overloaded:
        why = text_of(framework::ipc_overloaded);
        break;
    case qorIpcEnd::failed:
        why = error::system_reason(m_code);
        break;
    }
    error::set(qorError_ipc_ended, {why.c_str()});
    return false;
}

bool qor::ipc::connection::can_send(uint64 length) noexcept {
    if (m_is_over || m_is_closing || m_is_broken)
        return fail_ended();
    if (length <= m_peer_longest)
        return true;
    error::set(qorError_ipc_too_long, {std::to_string(length).c_str(), std::to_string(m_peer_longest).c_str()});
    return false;
}

bool qor::ipc::connection::has_room(uint64 length) const noexcept {
    const uint64 whole = length + header_size;
    return m_queued == 0 || (m_queued + whole <= m_options.send_queue &&
                             (m_queued + whole <= free_share || m_loop->m_held + whole <= m_options.memory));
}

void qor::ipc::connection::enqueue(frame_kind kind, const char* bytes, std::size_t length, place where,
                                   std::size_t written) {
    chunk made{std::make_unique_for_overwrite<char[]>(header_size + length), header_size + length, written};
    write_header(made.bytes.get(), kind, static_cast<uint32>(length));
    if (length != 0)
        std::memcpy(made.bytes.get() + header_size, bytes, length);
    m_queued += made.length - written;
    if (where == place::first)
        m_queue.push_front(std::move(made));
    else
        m_queue.push_back(std::move(made));
    hold_changed();
}

void qor::ipc::connection::drop_queue(bool keep_begun) noexcept {
    const bool keeps = keep_begun && !m_queue.empty() && m_queue.front().begin != 0;
    m_queue.erase(m_queue.begin() + (keeps ? 1 : 0), m_queue.end());
    m_queued = keeps ? m_queue.front().length - m_queue.front().begin : 0;
    hold_changed();
}

// The peer reads no more, or the system refuses to write. What the peer has sent may still be there, so this is not the
// end yet; that comes when the peer notices that nothing follows.
void qor::ipc::connection::break_writing(io result) noexcept {
    if (result == io::failed)
        m_code = m_channel.code();
    m_is_broken = true;
    drop_queue(false);
    m_channel.shut_writing();
    m_sender_may_go.notify_all();
}

void qor::ipc::connection::set_interest() noexcept {
    const bool reads = !m_is_dropped && !m_is_paused && !m_is_starved;
    const bool writes = !m_is_dropped && !m_is_writing && !m_queue.empty();
    if (reads == m_reads && writes == m_writes)
        return;
    m_reads = reads;
    m_writes = writes;
    const int code = m_loop->m_poller.set(m_channel, m_id, reads, writes);
    if (code == 0 || m_is_over)
        return;
    m_code = code;
    m_loop->post([self = shared_from_this()](loop& own) {
        self->finish(qorIpcEnd::failed);
        own.check_at(*self, 0);
    });
}

// Writes what waits, as far as the system takes it at once.
void qor::ipc::connection::flush() noexcept {
    if (m_is_writing)
        return;
    std::size_t total = 0;
    while (!m_queue.empty() && total < most_at_once) {
        piece pieces[most_pieces];
        unsigned count = 0;
        for (auto each = m_queue.begin(); each != m_queue.end() && count < most_pieces; ++each)
            pieces[count++] = {each->bytes.get() + each->begin, each->length - each->begin};
        std::size_t written = 0;
        const io result = m_channel.write(pieces, count, written);
        if (result == io::would_wait)
            break;
        if (result != io::done) {
            break_writing(result);
            break;
        }
        total += written;
        m_queued -= written;
        m_last_sent = ticks_now();
        while (written != 0) {
            chunk& first = m_queue.front();
            const std::size_t part = std::min(written, first.length - first.begin);
            first.begin += part;
            written -= part;
            if (first.begin == first.length)
                m_queue.pop_front();
        }
    }
    if (total != 0) {
        hold_changed();
        m_sender_may_go.notify_all();
    }
    set_interest();
}

// Nothing waits. The calling thread writes by itself, and waits itself for the peer, so nothing is copied.
bool qor::ipc::connection::send_now(const char* bytes, std::size_t length, uint64 until,
                                    std::unique_lock<std::mutex>& hold) noexcept {
    char header[header_size + short_message]; // with the message, if it is short
    write_header(header, frame_kind::message, static_cast<uint32>(length));
    const std::size_t whole = header_size + length;
    std::size_t in_header = header_size;
    if (length <= short_message && length != 0) {
        std::memcpy(header + header_size, bytes, length);
        in_header = whole;
    }
    std::size_t done = 0;
    m_is_writing = true;
    hold.unlock();
    io result = io::done;
    while (done < whole) {
        piece pieces[2];
        unsigned count = 0;
        if (done < in_header)
            pieces[count++] = {header + done, in_header - done};
        const std::size_t of_bytes = std::max(done, in_header) - header_size;
        if (of_bytes < length)
            pieces[count++] = {const_cast<char*>(bytes) + of_bytes, length - of_bytes};
        std::size_t written = 0;
        result = m_channel.write(pieces, count, written);
        done += written;
        if (result == io::done)
            continue;
        const uint64 now = until == 0 ? 0 : ticks_now();
        if (result != io::would_wait || now >= until)
            break;
        const uint64 left = until == never ? 60'000 : (until - now) / ticks_per_ms + 1;
        if (!m_channel.wait_writable(static_cast<uint32>(std::min<uint64>(left, 60'000))))
            break;
    }
    hold.lock();
    m_is_writing = false;
    if (done != 0)
        m_last_sent = m_loop->is_own_thread() ? m_loop->now() : ticks_now();
    if (result != io::done && result != io::would_wait)
        break_writing(result);
    if (m_is_dropped)
        m_channel.close();
    const bool is_taken = done == whole || (!m_is_over && !m_is_broken);
    // A frame that has begun is finished even if it comes too late, because the end goes behind it.
    if (done < whole && !m_is_broken && !m_is_dropped && (is_taken || done != 0))
        enqueue(frame_kind::message, bytes, length, place::first, done);
    if (!is_taken)
        fail_ended();
    set_interest();
    m_sender_may_go.notify_all();
    return is_taken;
}

// The program has closed it: the end goes behind what waits.
void qor::ipc::connection::send_end() noexcept {
    if (m_is_closing)
        return;
    m_is_closing = true;
    if (m_is_open && !m_is_over && !m_is_broken) {
        enqueue(frame_kind::end, nullptr, 0);
        flush();
    }
    m_sender_may_go.notify_all();
}

// ---- for the program

bool qor::ipc::connection::send(const char* bytes, uint64 length, bool may_wait, uint32 ms) noexcept {
    const platform::no_cancellation keep;
    may_wait = may_wait && !m_loop->is_own_thread();
    const uint64 until = may_wait ? in_ms(ms) : 0;
    std::unique_lock hold(m_lock);
    for (;;) {
        if (!can_send(length))
            return false;
        if (!m_is_writing && m_queue.empty())
            return send_now(bytes, static_cast<std::size_t>(length), until, hold);
        if (has_room(length)) {
            enqueue(frame_kind::message, bytes, static_cast<std::size_t>(length));
            set_interest();
            return true;
        }
        if (!may_wait) {
            error::set(qorError_ipc_would_wait);
            return false;
        }
        const bool is_ready = wait(m_sender_may_go, hold, until, [&] {
            return m_is_over || m_is_closing || m_is_broken || has_room(length) || (!m_is_writing && m_queue.empty());
        });
        if (!is_ready) {
            error::set(qorError_timed_out);
            return false;
        }
    }
}

bool qor::ipc::connection::receive(IQORDataSink* sink, uint32 ms) noexcept {
    if (m_has_target) {
        error::set(qorError_ipc_has_target);
        return false;
    }
    const platform::no_cancellation keep;
    std::unique_lock hold(m_lock);
    if (m_received.empty() && !m_is_over && m_loop->is_own_thread()) {
        error::set(qorError_ipc_nothing_there);
        return false;
    }
    if (!wait(m_receiver_may_go, hold, in_ms(ms), [this] { return m_is_over || !m_received.empty(); })) {
        error::set(qorError_timed_out);
        return false;
    }
    if (m_received.empty())
        return fail_ended();
    const auto [bytes, length] = std::move(m_received.front());
    m_received.pop_front();
    m_received_bytes -= length;
    hold_changed();
    if (m_is_paused && m_received_bytes <= m_options.receive_queue / 2) {
        m_is_paused = false;
        m_last_heard = ticks_now();
        set_interest();
    }
    hold.unlock();
    return sink->Write(bytes.get(), length);
}

bool qor::ipc::connection::close(uint32 ms) noexcept {
    const platform::no_cancellation keep;
    const bool is_inside = m_loop->is_own_thread();
    const uint64 until = is_inside && ms == 0 ? ticks_now() + lingering_time : in_ms(ms);
    {
        const std::lock_guard hold(m_lock);
        send_end();
    }
    m_loop->post([self = shared_from_this(), until](loop&) { self->begin_close(until); });
    if (is_inside)
        return true;
    std::unique_lock hold(m_lock);
    wait(m_has_changed, hold, never, [this] { return m_is_finished; });
    if (m_has_arrived)
        return true;
    if (m_end == qorIpcEnd::closed_here)
        error::set(qorError_timed_out);
    else
        fail_ended();
    return false;
}

void qor::ipc::connection::abort() noexcept {
    const platform::no_cancellation keep;
    m_loop->post([self = shared_from_this()](loop& own) {
        self->finish(qorIpcEnd::closed_here);
        own.check_at(*self, 0);
    });
    if (m_loop->is_own_thread())
        return;
    std::unique_lock hold(m_lock);
    wait(m_has_changed, hold, never, [this] { return m_is_finished; });
}

uint64 qor::ipc::connection::unsent() noexcept {
    const std::lock_guard hold(m_lock);
    return m_queued;
}

qorIpcEnd qor::ipc::connection::end() noexcept {
    const std::lock_guard hold(m_lock);
    return m_end;
}

bool qor::ipc::connection::wait_until_open(const char* address) noexcept {
    std::unique_lock hold(m_lock);
    wait(m_has_changed, hold, never, [this] { return m_is_open || m_is_finished; });
    if (m_is_open)
        return true;
    const auto fail = [&](uint32 why) { error::set(qorError_ipc_cannot_connect, {address, text_of(why).c_str()}); };
    if (m_refusal == static_cast<uint32>(refusal::full))
        error::set(qorError_ipc_refused, {address, text_of(framework::ipc_full).c_str()});
    else if (m_refusal == static_cast<uint32>(refusal::other_user))
        error::set(qorError_ipc_other_user, {address, m_peer.user.c_str()});
    else if (m_refusal.has_value())
        error::set(qorError_ipc_refused, {address, text_of(framework::ipc_refused_by_program).c_str()});
    else if (m_end == qorIpcEnd::silent)
        error::set(qorError_timed_out);
    else if (m_end == qorIpcEnd::failed)
        error::set(qorError_ipc_cannot_connect, {address, error::system_reason(m_code).c_str()});
    else
        fail(m_end == qorIpcEnd::violation ? framework::ipc_peer_violates : framework::ipc_peer_lost);
    return false;
}
