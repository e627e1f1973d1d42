#include "debug_link.h"

#include "common/system_reason.h"
#include "message_names.h"
#include "support/primitives.h"

#include <algorithm>

namespace framework = qor::messages::framework;

using namespace std::chrono_literals;

namespace {

// The listener uses the same values.
constexpr auto handshake_time = 5s;
constexpr auto frame_time = 5s;
constexpr auto heartbeat_time = 5s;
constexpr auto silence_limit = 15s;

} // namespace

bool qor::control::failure::set() const noexcept {
    qorSetLastError(number, inserts[0].c_str(), inserts[1].c_str(), inserts[2].c_str(), inserts[3].c_str());
    return false;
}

std::string qor::control::reason_text(uint32 number, const char* insert) {
    qorString text;
    text.Format(framework::catalog, number, insert);
    return text.Text();
}

qor::control::link::link(peer_name peer, sockets::socket connected, SSL_CTX* context)
    : m_peer(std::move(peer)), m_socket(std::move(connected)), m_forks(sockets::fork_count()),
      m_channel(context, tls_channel::side::client), m_begun(clock::now()), m_heard(m_begun), m_sent(m_begun) {}

bool qor::control::link::open(const std::shared_ptr<link>& self) {
    // The thread holds a reference to the link, because the last callback of a sink may release all other references.
    self->m_thread = sockets::start_thread([self] { self->run(); });
    std::unique_lock hold(self->m_lock);
    self->m_changed.wait(hold, [&] { return self->m_open || self->m_lost; });
    return !self->m_lost || self->m_why.set();
}

void qor::control::link::run() {
    m_thread_id = std::this_thread::get_id();
    try {
        while (turn())
            ;
    } catch (const std::exception&) {
        lose(qorError_out_of_memory, {});
    }
    m_channel.end();
    (void)flush();
    m_socket = {};
    tell_sink();
}

bool qor::control::link::turn() {
    if (!flush())
        return lose_to_peer(reason_text(framework::peer_closed_connection));
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next_look() - clock::now()).count();
    sockets::watched watched[] = {{&m_waker.receiver(), true, false}, {&m_socket, true, !m_channel.outgoing().empty()}};
    if (!sockets::wait(watched, static_cast<int>(std::max<long long>(0, left))))
        return lose_own_socket();
    const clock::time_point now = clock::now();
    if (watched[1].ready && !receive(now))
        return false;
    m_waker.take();
    std::string requests;
    {
        const std::lock_guard hold(m_lock);
        if (m_stopping || m_lost)
            return false;
        requests = std::exchange(m_requests, {});
        m_answer_by = m_patience_ends;
        if (m_logged_in)
            m_frames.set_limit(payload_limit);
    }
    if (!look_at_clock(now))
        return false;
    if (m_open && requests.empty() && now >= m_sent + heartbeat_time)
        append_frame(requests, frame_type::heartbeat, 0, {});
    if (!requests.empty()) {
        m_channel.send(requests);
        crypto::wipe(requests);
        m_sent = now;
    }
    return true;
}

qor::control::link::clock::time_point qor::control::link::next_look() const noexcept {
    if (!m_open)
        return m_begun + handshake_time;
    clock::time_point next = std::min(m_sent + heartbeat_time, m_heard + silence_limit);
    if (m_within_since)
        next = std::min(next, *m_within_since + frame_time);
    return m_answer_by ? std::min(next, *m_answer_by) : next;
}

bool qor::control::link::look_at_clock(clock::time_point now) {
    if (!m_open)
        return now < m_begun + handshake_time ||
               lose_in_handshake(qorError_debug_cannot_connect, reason_text(framework::peer_does_not_answer));
    if (now >= m_heard + silence_limit)
        return lose(qorError_debug_connection_lost, reason_text(framework::peer_was_silent));
    // Heartbeats only prove that the peer is there. They do not prove that an answer will be completed or will come at
    // all.
    if ((m_within_since && now >= *m_within_since + frame_time) || (m_answer_by && now >= *m_answer_by))
        return lose(qorError_debug_connection_lost, reason_text(framework::peer_does_not_answer));
    return true;
}

bool qor::control::link::receive(clock::time_point now) {
    char bytes[16384];
    std::size_t count;
    const int failed = sockets::receive(m_socket, bytes, sizeof bytes, &count);
    if (failed == sockets::would_block)
        return true;
    const bool closed = failed != 0 || count == 0;
    std::string plain;
    if (!closed) {
        m_heard = now;
        m_channel.receive({bytes, count}, plain);
    }
    const tls_channel::state state = m_channel.now();
    if (!m_open) {
        if (state == tls_channel::state::failed)
            return lose_in_handshake(qorError_debug_not_ours,
                                     reason_text(framework::tls_failed, m_channel.reason().c_str()));
        if (closed)
            return lose_to_peer({});
        if (state == tls_channel::state::handshake)
            return true;
        if (!finish_handshake())
            return false;
    }
    if (!take_frames(plain))
        return lose_to_nonsense();
    // A long answer may take any time as long as its pieces keep coming.
    if (!m_frames.is_within() && !m_channel.is_within())
        m_within_since.reset();
    else if (!plain.empty() || !m_within_since)
        m_within_since = now;
    if (closed)
        return lose_to_peer(failed != 0 ? modules::system_reason(failed)
                                        : reason_text(framework::peer_closed_connection));
    if (state == tls_channel::state::failed)
        return lose(qorError_debug_connection_lost, reason_text(framework::tls_failed, m_channel.reason().c_str()));
    return state != tls_channel::state::ended || lose_to_peer(reason_text(framework::peer_closed_connection));
}

bool qor::control::link::finish_handshake() {
    if (!m_channel.speaks_protocol())
        return lose_in_handshake(qorError_debug_not_ours, reason_text(framework::protocol_not_spoken, protocol_name));
    m_peer_key = m_channel.peer_key();
    m_binding = m_channel.binding();
    const std::lock_guard hold(m_lock);
    m_open = true;
    m_changed.notify_all();
    return true;
}

bool qor::control::link::take_frames(std::string_view plain) {
    m_frames.add(plain);
    for (frame found;;) {
        const frame_reader::result result = m_frames.next(found);
        if (result != frame_reader::result::frame)
            return result == frame_reader::result::nothing;
        if (found.type == frame_type::heartbeat) {
            if (!is_heartbeat(found))
                return false;
            continue;
        }
        const std::lock_guard hold(m_lock);
        const bool wanted = m_asking && !m_answer && found.request == m_last_request;
        if (!wanted || !is_answer(found, m_asked, m_refusals))
            return false;
        m_answer = std::move(found);
        m_patience_ends.reset();
        m_changed.notify_all();
    }
}

bool qor::control::link::flush() {
    std::string& out = m_channel.outgoing();
    while (!out.empty() && m_socket.is_open()) {
        std::size_t count;
        const int failed = sockets::send(m_socket, out.data(), out.size(), &count);
        if (failed == sockets::would_block)
            return true;
        if (failed != 0)
            return false;
        out.erase(0, count);
    }
    return true;
}

bool qor::control::link::lose_to_peer(std::string reason) {
    {
        const std::lock_guard hold(m_lock);
        m_closed = true;
    }
    // A listener without room closes the connection without a message.
    return m_open ? lose(qorError_debug_connection_lost, std::move(reason))
                  : lose_in_handshake(qorError_debug_busy, {});
}

bool qor::control::link::lose_own_socket() {
    std::string reason = reason_text(framework::own_socket_closed);
    return m_open ? lose(qorError_debug_connection_lost, std::move(reason))
                  : lose_in_handshake(qorError_debug_cannot_connect, std::move(reason));
}

bool qor::control::link::lose_in_handshake(uint32 number, std::string reason) {
    const std::lock_guard hold(m_lock);
    m_why = {number, {m_peer.host, std::to_string(m_peer.port), std::move(reason), {}}};
    m_lost = true;
    m_changed.notify_all();
    return false;
}

bool qor::control::link::lose(uint32 number, std::string reason) {
    const std::lock_guard hold(m_lock);
    m_why = {number, {std::move(reason), {}, {}, {}}};
    m_lost = true;
    m_changed.notify_all();
    return false;
}

void qor::control::link::tell_sink() {
    IQORDebugControlSink* sink = nullptr;
    {
        const std::lock_guard hold(m_lock);
        m_lost = true;
        if (!m_stopping)
            sink = std::exchange(m_sink, nullptr);
        m_telling = sink != nullptr;
        m_changed.notify_all();
    }
    if (sink == nullptr)
        return;
    sink->debug_ConnectionLost();
    const std::lock_guard hold(m_lock);
    m_telling = false;
    m_changed.notify_all();
}

bool qor::control::link::ask(frame_type type, std::string_view payload, std::chrono::seconds patience, frame& answer) {
    std::unique_lock hold(m_lock);
    m_changed.wait(hold, [this] { return !m_asking || m_lost || m_stopping; });
    if (m_lost || m_stopping)
        return m_why.set();
    append_frame(m_requests, type, ++m_last_request, payload);
    m_patience_ends = clock::now() + patience;
    m_asked = type;
    m_refusals = refusals_of(type, payload);
    m_asking = true;
    m_waker.wake();
    m_changed.wait(hold, [this] { return m_answer || m_lost || m_stopping; });
    m_asking = false;
    m_changed.notify_all();
    if (!m_answer)
        return m_why.set();
    answer = *std::exchange(m_answer, {});
    return true;
}

bool qor::control::link::lose_to_nonsense() {
    lose(qorError_debug_protocol, reason_text(framework::senseless_frame));
    m_waker.wake();
    const std::lock_guard hold(m_lock);
    return m_why.set();
}

bool qor::control::link::is_lost() {
    const std::lock_guard hold(m_lock);
    return m_lost;
}

bool qor::control::link::is_logged_in() {
    const std::lock_guard hold(m_lock);
    return m_logged_in;
}

bool qor::control::link::was_closed() {
    const std::lock_guard hold(m_lock);
    return m_lost && m_closed;
}

void qor::control::link::set_logged_in() {
    const std::lock_guard hold(m_lock);
    m_logged_in = true;
}

bool qor::control::link::set_sink(IQORDebugControlSink* sink) {
    std::unique_lock hold(m_lock);
    if (!is_own_thread())
        m_changed.wait(hold, [this] { return !m_telling; });
    m_sink = nullptr;
    if (m_lost && sink != nullptr)
        return m_why.set();
    m_sink = sink;
    return true;
}

void qor::control::link::stop() {
    if (is_of_parent())
        return;
    {
        const std::lock_guard hold(m_lock);
        m_stopping = true;
        m_sink = nullptr;
        if (!m_lost)
            m_why = {qorError_debug_not_connected, {}};
        m_changed.notify_all();
    }
    m_waker.wake();
    if (is_own_thread())
        m_thread.detach();
    else if (m_thread.joinable())
        m_thread.join();
}
