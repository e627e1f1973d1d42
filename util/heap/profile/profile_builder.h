// Makes a profile of the logs of one process: an mtrace log, with the file of its stacks and an allocation log of the
// framework if there are such, or an allocation log alone.
#pragma once

#include "heap/log/stacks_log.h"
#include "heap/replay/replay.h"
#include "place_tallies.h"
#include "profile.h"
#include "timeline.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace qor::heap {

class profile_maker;

// All places are kept, also those without a live block. So memory follows the live blocks and the distinct places, of
// which there is a limit.
struct profile_rules : exact_rules {
    static constexpr bool keeps_origins = true;
    static constexpr bool reads_in_thread = true;
};

// Which places a profile has: all that had a block, or those with such blocks.
enum class places_with : uint8 { any, live, at_peak, allocated, temporary };

// The object contains the head of every bucket of the table (8 MiB), so allocate it on the heap. One object makes one
// profile.
class profile_builder {
public:
    using engine = replay<profile_builder, profile_rules>;
    using block = heap::block<uint64>;
    using mtrace_line = log_lines::mtrace_line<uint64>;
    using memcheck_line = log_lines::memcheck_line<uint64>;

    // Asked every 100 ms, and before each wait for a log. False ends the reading; the profile is then partial.
    using ask = std::function<bool()>;

    // When there are so many places, all others are one unknown place, so that the sums are right.
    static constexpr uint32 most_places = uint32{1} << 22;

    explicit profile_builder(ask goes_on = {}, uint32 places = most_places);
    profile_builder(const profile_builder&) = delete;
    profile_builder& operator=(const profile_builder&) = delete;
    ~profile_builder();

    // open(): the first log of either kind, see replay::open. The others return false on failure; the last error says
    // why. open_stacks() returns false without a last error if the file is
    // not one of stacks, or of another version.
    engine::opened open(const std::string& path, std::string& beginning) {
        return m_replay->open(path.c_str(), beginning);
    }
    bool open_mtrace(const std::string& path);
    bool open_memcheck(const std::string& path);
    bool open_stacks(const std::string& path) { return m_stacks.open(path.c_str()); }

    // To be called before opening: somebody still writes the logs, so they are read on where they end, until ask() says
    // otherwise.
    void follow();

    // Ends the reading behind this many records.
    void set_last_record(uint64 records) noexcept { m_last_record = records; }

    // Takes no notice of the blocks that a forked child began with: they are in its parent's log.
    void leave_out_inherited() noexcept { m_leaves_out_inherited = true; }

    // Reads the logs. Throws std::bad_alloc.
    void run();

    // What is known up to now; of the places, those with blocks of a kind. The sums count all of them. During run()
    // only ask() may call it.
    profile make_profile(places_with wanted = places_with::any);

    uint64 position() const noexcept { return m_replay->position(); } // see replay::position
    uint64 records() const noexcept { return m_timeline.records(); }
    const profile::counts& live() const noexcept { return m_live; }
    const profile::sums& sums() const noexcept { return m_sums; }
    const engine& replayed() const noexcept { return *m_replay; }
    const stacks_log& stacks() const noexcept { return m_stacks; }
    uint64 warnings() const noexcept { return m_warnings; }   // lines that are no records, or odd ones
    uint64 leftovers() const noexcept { return m_leftovers; } // records of the allocation log without a partner
    bool was_ended() const noexcept { return m_was_ended; }   // by ask()

    // The events of the replay.
    void allocation(const block& of);
    void release(const block& of);
    void origin_changed(const block& of, uint32 before);
    void bad_free(const mtrace_line& rec) { add_bad_free(rec.address, rec.caller); }
    void bad_free(const memcheck_line& rec) { add_bad_free(rec.address, {}); }
    void warning(heap::warning, std::string_view) noexcept { ++m_warnings; }
    void progress(uint32 count);
    void before_read() noexcept {}
    void before_wait() { ask_now(); }
    void leftover(const memcheck_line&) noexcept { ++m_leftovers; }
    void end_of_log(uint32) noexcept {}
    uint32 next_stack();
    bool has_stacks() const noexcept { return m_stacks.is_open() && m_stacks.of().depth != 0; }

private:
    // Thrown through the replay to end it.
    struct end_of_reading {};

    // A stack's number in an origin: its node, and whether the block is inherited.
    static constexpr uint32 node_of(uint32 stack) noexcept { return stack / 2; }
    static constexpr bool is_inherited(uint32 stack) noexcept { return stack % 2 != 0; }

    bool is_left_out(uint32 origin) const {
        return m_leaves_out_inherited && is_inherited(m_replay->origins().get(origin).stack);
    }
    void begin_record();
    void end_record();
    void begin_parts();
    void ask_now();
    void add_places(places_with wanted, profile_maker& to);
    void add_bad_free(uint64 address, std::string_view caller);
    profile::moment now() const;

    ask m_goes_on;
    std::unique_ptr<engine> m_replay;
    stacks_log m_stacks;
    place_tallies m_places; // by the number of the origin
    timeline m_timeline;
    profile::counts m_live;
    profile::sums m_sums;
    std::vector<profile::bad_free> m_bad_frees;
    profile m_texts; // of the callers of bad frees
    uint64 m_last_record = ~uint64{0};
    uint64 m_recent = 0;   // address of the block that the last record allocated; 0: it did not
    uint64 m_part_end = 1; // records before the next part of the run
    uint64 m_part_length = 1;
    uint64 m_warnings = 0;
    uint64 m_leftovers = 0;
    bool m_leaves_out_inherited = false;
    bool m_follows = false;
    bool m_was_ended = false;
    std::chrono::steady_clock::time_point m_asked{};
};

} // namespace qor::heap
