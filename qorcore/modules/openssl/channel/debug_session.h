// Inside the module qor-openssl: the listener's side of a debug-control connection. It uses no sockets and no clock:
// the caller passes in bytes and the time, sends the output and calls again at the time that the session asks for.
#pragma once

#include "debug_frames.h"
#include "debug_gate.h"
#include "login/scram_server.h"
#include "peer_source.h"
#include "qor/qor.h"
#include "tls_channel.h"

#include <optional>
#include <string>

namespace qor::control {

// The parts that the sessions of a listener share.
struct session_host {
    SSL_CTX* context;
    gate& doorway;
    accounts& users;
    uint32 trace;
};

class session {
public:
    static constexpr std::chrono::seconds frame_time{5}; // for the handshake, and for an incomplete frame
    static constexpr std::chrono::seconds login_time{120};
    static constexpr std::chrono::seconds heartbeat_time{5}; // the longest time without sending anything
    static constexpr std::chrono::seconds silence_limit{15};
    static constexpr unsigned refusals = 5;
    static constexpr std::chrono::milliseconds refusal_delay{250}; // the first delay; each further one is twice as long
    static constexpr std::size_t queue_limit = 256 * 1024;

    // `place` is the session's place at the gate.
    session(const session_host& host, sockets::source peer, gate::place place, moment now);
    session(const session&) = delete;
    session& operator=(const session&) = delete;
    ~session();

    // Processes bytes from the peer. Throws std::bad_alloc, as does look_at_clock; the session cannot be used
    // afterwards.
    void receive(std::string_view wire, moment now);

    // Performs the actions that are due.
    void look_at_clock(moment now);

    // The time of the next call of look_at_clock.
    moment next_look() const noexcept;

    // The bytes to send; the caller removes the bytes it has sent.
    std::string& outgoing() noexcept { return m_channel.outgoing(); }

    // The session produces no more output. The caller closes the connection after sending all output, or after a time
    // limit.
    bool is_over() const noexcept { return m_over; }

    // Ends the session, for a reason that is traced.
    void lost(const char* reason);

    gate::place place() const noexcept { return m_place; } // 0 after it has left the gate

private:
    void handle(const frame& request, moment now);
    void begin_login(const frame& request);
    void finish_login(moment now);
    void refuse_later(moment now);
    void refuse_now();
    void carry_out(const frame& request);
    void enable_code(const frame& request);
    void refuse(const frame& request, refusal_code reason);
    void send(frame_type type, uint32 request, std::string_view payload);
    void end(const char* reason);
    void leave_gate();

    const session_host& m_host;
    sockets::source m_peer;
    gate::place m_place;
    tls_channel m_channel;
    frame_reader m_frames;
    bool m_open = false; // the handshake has finished
    bool m_logged_in = false;
    bool m_over = false;

    std::optional<scram_server> m_login;
    std::string m_account; // as sent by the peer
    std::string m_user;    // the same, quoted for the trace
    // A request whose answer is delayed: the last step of a login until the gate admits it, or a refusal.
    enum class waiting { nothing, try_to_log_in, refusal };
    waiting m_waiting = waiting::nothing;
    frame m_waiting_request{};
    moment m_try_at{};
    moment m_refuse_at{};
    unsigned m_refused = 0;

    moment m_begun;
    moment m_heard;
    moment m_sent;
    std::optional<moment> m_within_since; // since when a frame is incomplete
};

// Quotes an untrusted text for a line of trace. No text can end the quotes: quotes, backslashes and everything but
// printable ASCII become "\xNN". A text longer than the longest account name is cut there, and "+N" after the quotes
// gives the number of missing bytes.
std::string quoted(std::string_view text);

} // namespace qor::control
