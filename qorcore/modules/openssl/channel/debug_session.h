// Inside the module qor-openssl: the listener's side of one connection of debug control. It knows no sockets and no
// clock: bytes and the time are given to it, and it says what to send and when it wants to be called again.
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

// What the sessions of a listener have in common.
struct session_host {
    SSL_CTX* context;
    gate& doorway;
    accounts& users;
    uint32 trace;
};

class session {
public:
    static constexpr std::chrono::seconds frame_time{5}; // for the handshake, and for a frame that has begun
    static constexpr std::chrono::seconds login_time{120};
    static constexpr std::chrono::seconds heartbeat_time{5}; // as long one side may say nothing
    static constexpr std::chrono::seconds silence_limit{15};
    static constexpr unsigned refusals = 5;
    static constexpr std::chrono::milliseconds refusal_delay{250}; // the first; each is twice the one before
    static constexpr std::size_t queue_limit = 256 * 1024;

    // The gate has given it a place.
    session(const session_host& host, sockets::source peer, gate::place place, moment now);
    session(const session&) = delete;
    session& operator=(const session&) = delete;
    ~session();

    // Bytes from the peer. Throws std::bad_alloc, as the next one; the session cannot be used any more then.
    void receive(std::string_view wire, moment now);

    // Does what the time demands.
    void look_at_clock(moment now);

    // When that should happen next.
    moment next_look() const noexcept;

    // What is to be sent; who sends it takes it out.
    std::string& outgoing() noexcept { return m_channel.outgoing(); }

    // Nothing more comes: the connection is closed once all is sent, or the time of next_look is over.
    bool is_over() const noexcept { return m_over; }

    // The connection ends, for a reason in words.
    void lost(const char* reason);

    gate::place place() const noexcept { return m_place; } // 0: it has none any more

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
    bool m_open = false; // the handshake is done
    bool m_logged_in = false;
    bool m_over = false;

    std::optional<scram_server> m_login;
    std::string m_account; // as the peer names it
    std::string m_user;    // the same for the trace
    // A request whose answer waits for its time: a login's last step, until the gate lets it, or a refusal.
    enum class waiting { nothing, try_to_log_in, refusal };
    waiting m_waiting = waiting::nothing;
    frame m_waiting_request{};
    moment m_try_at{};
    moment m_refuse_at{};
    unsigned m_refused = 0;

    moment m_begun;
    moment m_heard;
    moment m_sent;
    std::optional<moment> m_within_since; // a frame has begun that is not whole
};

// A text of somebody who may not be trusted, as it stands in a line of trace: between quotes, which no text can leave,
// since what is not printable ASCII, quotes and backslashes are "\xNN" within. A text longer than an account's name can
// be is cut there, and "+N" behind the quotes says how many bytes more there are.
std::string quoted(std::string_view text);

} // namespace qor::control
