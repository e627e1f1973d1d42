// Inside the library: one connection, as the loop that serves it and the objects of the program share it.
#pragma once

#include "ipc/channel.h"
#include "ipc/frame.h"
#include "qor/qor.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>

namespace qor::ipc {

class loop;

// A moment of qorGetTickCounter.
inline constexpr uint64 never = ~uint64{0};
inline constexpr uint64 ticks_per_ms = qorTicksPerSecond / 1000;
inline uint64 ticks_now() noexcept { return qor::glue::qorGetTickCounter(); }
inline uint64 in_ms(uint32 ms) noexcept { return ms == 0 ? never : ticks_now() + ms * ticks_per_ms; }

// A connection may hold so much, whatever the others hold.
inline constexpr uint64 free_share = 64 << 10;
// How long an ended connection waits until the peer has read the end, and the end of Close without a limit.
inline constexpr uint64 lingering_time = 10'000 * ticks_per_ms;

// The lock is held for moments only, and for writing that does not wait.
class connection final : public std::enable_shared_from_this<connection> {
public:
    connection(std::shared_ptr<loop> owner, channel&& from, peer&& who, const qorIpcOptions& options,
               IQORIpcTarget* target, bool is_servers, uint64 id);
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;
    ~connection();

    // ---- for the program; any thread
    bool send(const char* bytes, uint64 length, bool may_wait, uint32 ms) noexcept;
    bool receive(IQORDataSink* sink, uint32 ms) noexcept;
    bool close(uint32 ms) noexcept;
    // Ends it at once, and waits for a call of the target like close.
    void abort() noexcept;
    uint64 unsent() noexcept;
    qorIpcEnd end() noexcept;
    const peer& who() const noexcept { return m_peer; }
    // False in a forked child.
    bool is_current() const noexcept { return m_generation == generation(); }
    // Waits until it is open. Returns false with the last error if it has ended before.
    bool wait_until_open(const char* address) noexcept;

    // ---- for the loop; its thread
    uint64 id() const noexcept { return m_id; }
    bool begin() noexcept;
    void can_read(char* buffer, std::size_t size) noexcept;
    void can_write() noexcept;
    // Does what is due, and returns when to look again.
    uint64 check(uint64 now, bool has_seen_all) noexcept;
    void begin_close(uint64 until) noexcept;
    void finish(qorIpcEnd how) noexcept;
    // There is memory again.
    void feed_again() noexcept;
    // Nothing is left to be sent or read, or nobody waits for it.
    bool is_gone() const noexcept { return m_is_gone; }
    bool is_finished() const noexcept { return m_is_finished_here; }
    bool has_ended_in_order() const noexcept { return m_is_in_order; }
    void drop() noexcept;

    // The loop's own: when it looks again.
    uint64 m_next_check = never;

private:
    enum class phase : uint8 { greeting, open, lingering };

    struct chunk {
        std::unique_ptr<char[]> bytes;
        std::size_t length;
        std::size_t begin; // what is before it was written
    };

    // Return false if no more frames are wanted.
    bool take(const frame& what) noexcept;
    bool take_hello(const frame& what) noexcept;
    void take_end() noexcept;
    void deliver(const frame& what) noexcept;
    void refuse(refusal why) noexcept;
    bool read_once(char* buffer, std::size_t size) noexcept;
    void at_end(io result) noexcept;
    void finish_lost() noexcept;
    void look_at_memory() noexcept;
    void feed_closed() noexcept;

    // Under the lock.
    bool can_send(uint64 length) noexcept;
    bool fail_ended() noexcept;
    bool has_room(uint64 length) const noexcept;
    // With `written`, so much of the frame is on its way already.
    enum class place : uint8 { first, last };
    void enqueue(frame_kind kind, const char* bytes, std::size_t length, place where = place::last,
                 std::size_t written = 0);
    bool send_now(const char* bytes, std::size_t length, uint64 until, std::unique_lock<std::mutex>& hold) noexcept;
    void send_end() noexcept;
    void flush() noexcept;
    void set_interest() noexcept;
    void hold_changed() noexcept;
    void drop_queue(bool keep_begun) noexcept;
    void break_writing(io result) noexcept;

    const std::shared_ptr<loop> m_loop;
    const qorIpcOptions m_options;
    const peer m_peer;
    const uint64 m_id;
    const unsigned m_generation = generation();
    const bool m_is_servers;
    const bool m_has_target;

    // ---- of the loop's thread
    phase m_phase = phase::greeting;
    bool m_is_announced = false; // the target knows it
    bool m_lingers = false;      // there is something to be sent behind the end
    bool m_is_finished_here = false;
    bool m_is_gone = false;
    bool m_is_in_order = false;
    frame_reader m_reader;
    const uint64 m_since; // it is there
    uint64 m_lingers_since = 0;
    uint64 m_close_until = never;
    zetSmartPointer<IQORIpcTarget> m_target;
    zetSmartPointer<IQORIpcConnection> m_face; // what the target gets

    // ---- under the lock
    std::mutex m_lock;
    std::condition_variable m_sender_may_go;
    std::condition_variable m_receiver_may_go;
    std::condition_variable m_has_changed; // it is open, or finished
    channel m_channel;
    std::deque<chunk> m_queue;
    uint64 m_queued = 0;
    std::deque<std::pair<std::unique_ptr<char[]>, uint32>> m_received;
    uint64 m_received_bytes = 0;
    uint64 m_partial = 0; // of an incomplete message
    uint64 m_charge = 0;
    uint64 m_last_heard;
    uint64 m_last_sent;
    uint32 m_peer_longest = 0;
    uint32 m_peer_silence = 0;
    int m_code = 0;
    qorIpcEnd m_end = qorIpcEnd::none;
    std::optional<uint32> m_refusal;
    bool m_is_open = false;
    bool m_is_closing = false; // by the program
    bool m_has_arrived = false;
    bool m_is_writing = false; // a thread, outside of the lock
    bool m_is_broken = false;  // nobody reads any more
    bool m_is_paused = false;  // what has arrived waits for the program
    bool m_is_starved = false; // there is no memory for more
    bool m_is_over = false;    // m_end is valid
    bool m_is_finished = false;
    bool m_is_dropped = false;
    bool m_reads = false; // what the poller tells
    bool m_writes = false;
};

// The object of the program. The one that `owns` ends the connection with its last reference.
bool make_face(const std::shared_ptr<connection>& of, bool owns, IQORIpcConnection** out) noexcept;

} // namespace qor::ipc
