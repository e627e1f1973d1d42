// Inside the module qor-openssl: the console's side of one connection of debug control, and the thread that keeps it
// alive.
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

// An error that may become a thread's last error later, or several times.
struct failure {
    uint32 number = qorError_none;
    std::string inserts[4];

    bool set() const noexcept; // makes it the last error; always false
};

// A text of the framework's catalog.
std::string reason_text(uint32 number, const char* insert = nullptr);

class link {
public:
    // What errors call the other side.
    struct peer_name {
        std::string host;
        uint16 port = 0;
    };

    link(peer_name peer, sockets::socket connected, SSL_CTX* context);
    link(const link&) = delete;
    link& operator=(const link&) = delete;
    ~link() {
        if (m_thread.joinable()) // a forked child's, where there is nothing to wait for
            m_thread.detach();
    }

    // Starts the thread and waits for the handshake. Throws std::system_error.
    static bool open(const std::shared_ptr<link>& self);

    const peer_name& peer() const noexcept { return m_peer; }

    // What the handshake brought; for a link that is open.
    const key_fingerprint& peer_key() const noexcept { return m_peer_key; }
    const std::array<uint8, 32>& binding() const noexcept { return m_binding; }

    // Sends a request and waits for its answer, which may be a refusal. One that takes longer than `patience` ends the
    // connection. Requests of several threads wait for one another. False: the last error says why.
    bool ask(frame_type type, std::string_view payload, std::chrono::seconds patience, frame& answer);

    // The answer makes no sense: the connection is lost by that. Always false; the last error says so.
    bool lose_to_nonsense();

    bool is_lost();
    bool is_logged_in();
    bool was_closed(); // it is lost because the other side ended it

    // In a forked child a link of the parent has no thread, and its locks may never be released: it must be left alone.
    bool is_of_parent() const noexcept { return m_forks != sockets::fork_count(); }

    void set_logged_in();

    // Whether somebody vouches for the listener's key: a line of the known hosts, or a login that proved it.
    void set_proved() noexcept { m_is_proved = true; }
    bool is_proved() const noexcept { return m_is_proved; }

    // False: the link is lost, and the sink will not be told. When it returns, the earlier sink is not told any more.
    bool set_sink(IQORDebugControlSink* sink);

    // Ends the connection; nobody is told. When it returns the thread does nothing any more, unless it is the thread's
    // own call. To be called once.
    void stop();

private:
    using clock = std::chrono::steady_clock;

    void run();
    bool turn(); // one round of the thread; false: the connection is over
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

    // The thread's alone.
    tls_channel m_channel;
    frame_reader m_frames;
    clock::time_point m_begun, m_heard, m_sent;
    std::optional<clock::time_point> m_within_since; // a record or a frame has begun that is not whole
    std::optional<clock::time_point> m_answer_by;    // as m_patience_ends when the thread looked last

    // Written before m_open.
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
    bool m_telling = false; // a call of the sink is running
    bool m_asking = false;  // a request is on its way
    frame_type m_asked{};
    refusals m_refusals = 0; // that it may get
    failure m_why;
    IQORDebugControlSink* m_sink = nullptr;
    std::string m_requests;
    uint32 m_last_request = 0;
    std::optional<clock::time_point> m_patience_ends; // of the request
    std::optional<frame> m_answer;
};

} // namespace qor::control
