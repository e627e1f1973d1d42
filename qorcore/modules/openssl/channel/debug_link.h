// Inside the module qor-openssl: the console's side of a debug-control connection, and the thread that keeps the
// connection alive.
#pragma once

#include "debug_frames.h"
#include "qor/qor.h"
#include "sockets.h"
#include "tls_channel.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace qor::control {

// An error that may be set as a thread's last error later, or several times.
struct failure {
    uint32 number = qorError_none;
    std::string inserts[4];

    bool set() const noexcept; // sets the last error; always returns false
};

// Returns a text of the framework's catalog.
std::string reason_text(uint32 number, const char* insert = nullptr);

class link {
public:
    // The name of the other side in error messages.
    struct peer_name {
        std::string host;
        uint16 port = 0;
    };

    link(peer_name peer, sockets::socket connected, SSL_CTX* context);
    link(const link&) = delete;
    link& operator=(const link&) = delete;
    ~link() {
        if (m_thread.joinable()) // in a forked child, there is no thread to wait for
            m_thread.detach();
    }

    // Starts the thread and waits for the handshake. On false, the last error gives the reason. Throws
    // std::system_error.
    static bool open(const std::shared_ptr<link>& self);

    const peer_name& peer() const noexcept { return m_peer; }

    // Results of the handshake; call these only for an open link.
    const key_fingerprint& peer_key() const noexcept { return m_peer_key; }
    const std::array<uint8, 32>& binding() const noexcept { return m_binding; }

    // Sends a request and waits for its answer, which may be a refusal. A request that takes longer than `patience`
    // ends the connection. Concurrent requests wait for each other. On false, the last error gives the reason.
    bool ask(frame_type type, std::string_view payload, std::chrono::seconds patience, frame& answer);

    // Ends the connection because an answer makes no sense. Sets the last error and always returns false.
    bool lose_to_nonsense();

    bool is_lost();
    bool is_logged_in();
    bool was_closed(); // lost because the other side closed the connection

    // In a forked child, a link of the parent has no thread, and its locks may stay locked. Do not use such a link.
    bool is_of_parent() const noexcept { return m_forks != sockets::fork_count(); }

    void set_logged_in();

    // Whether the listener's key is trusted: because of a line in the known hosts or a login that proved it.
    void set_proved() noexcept { m_is_proved = true; }
    bool is_proved() const noexcept { return m_is_proved; }

    // Replaces the sink. Returns false if the link is lost; the new sink is then not called. After the return, the
    // earlier sink is not called any more.
    bool set_sink(IQORDebugControlSink* sink);

    // Ends the connection without calling the sink. After the return, the thread does nothing any more, unless the
    // thread itself made this call. Call this once.
    void stop();

private:
    using clock = std::chrono::steady_clock;

    void run();
    bool turn(); // one round of the thread; false if the connection is over
    clock::time_point next_look() const noexcept;
    bool look_at_clock(clock::time_point now);
    bool receive(clock::time_point now);
    bool take_frames(std::string_view plain);
    bool finish_handshake();
    bool flush();
    bool lose(uint32 number, std::string reason);
    bool lose_to_peer(std::string reason);
    bool lose_own_socket();
    bool lose_in_handshake(uint32 number, std::string reason);
    void tell_sink();
    bool is_own_thread() const noexcept { return std::this_thread::get_id() == m_thread_id; }

    const peer_name m_peer;
    std::atomic<bool> m_is_proved = false;
    sockets::socket m_socket;
    sockets::waker m_waker;
    std::thread m_thread;
    unsigned m_forks;

    // Used by the thread only.
    tls_channel m_channel;
    frame_reader m_frames;
    clock::time_point m_begun, m_heard, m_sent;
    std::optional<clock::time_point> m_within_since; // since when a record or a frame is incomplete
    std::optional<clock::time_point> m_answer_by;    // the thread's latest copy of m_patience_ends

    // Set before m_open becomes true.
    std::thread::id m_thread_id;
    key_fingerprint m_peer_key{};
    std::array<uint8, 32> m_binding{};

    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_open = false;
    bool m_lost = false;
    bool m_closed = false;
    bool m_stopping = false;
    bool m_logged_in = false;
    bool m_telling = false; // a callback of the sink is running
    bool m_asking = false;  // a request is in progress
    frame_type m_asked{};
    refusals m_refusals = 0; // the refusals that this request may receive
    failure m_why;
    IQORDebugControlSink* m_sink = nullptr;
    std::string m_requests;
    uint32 m_last_request = 0;
    std::optional<clock::time_point> m_patience_ends; // for the current request
    std::optional<frame> m_answer;
};

} // namespace qor::control
