// An arena in the recorder, which makes the file and maps the parts that it reads.
#pragma once

#include "shared/arena.h"

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qor::record {

// The text "@ CALLER " of a line in the log, of any length. It is copied 64 bytes at a time.
struct caller_text {
    std::size_t size;
    char text[64]; // the first of them
};

class arena_host {
public:
    struct plan {
        unsigned depth;
        bool is_stopped;
        bool follows_children;
        bool wants_system_heap = false;            // on Windows
        std::vector<code_range> allocation_code{}; // in the program's file, if it is known
    };

    // Null: there is no memory for it; the system's last error says why. The calling thread is the one that reads the
    // arena.
    static std::unique_ptr<arena_host> make(const plan& wanted);
    ~arena_host();
    arena_host(const arena_host&) = delete;

    // From now on the arena is marked when the calling thread ends.
    void own();

    // Of the arena's file. On Windows it is the handle of a section.
    int descriptor() const noexcept { return static_cast<int>(m_descriptor); }
    void* section() const noexcept { return reinterpret_cast<void*>(m_descriptor); }
    void close_descriptor() noexcept;

    arena& shared() const noexcept { return *m_shared; }
    // Lets threads go on that wait for room in a ring.
    static void wake_writers(session& of);

    // Null: no memory.
    ring_record* ring(unsigned session_index);
    void release_ring(unsigned session_index);
    const node* node_at(std::uint32_t number);

    std::string_view path_of(const module& of) const;
    void set_program(const std::string& path) { m_program = path; }
    const std::string& program() const noexcept { return m_program; }

    // Whether a process is forking, or a child has come that is not known yet.
    bool awaits_children();
    // Whether a process is forking. A child that does not come in time was not made, or ended at once.
    bool forks_are_under_way();

    // Whether there are new entries of `executions` since the last call.
    bool has_new_executions();

    // Whether a process runs the program of this arena, as far as can be seen.
    bool is_program_of(std::int32_t process) const;

    // The sessions that processes have taken, without those that were given to know_session().
    std::vector<unsigned> new_sessions() const;
    void know_session(unsigned index) {
        m_is_known[index] = true;
        m_known_count += index != 0 ? 1 : 0;
    }
    // When its process is over: the next one may take it.
    void release_session(unsigned index);

    const caller_text& caller(std::uint64_t address, std::uint32_t module);
    const caller_text& caller_of_node(std::uint32_t number) {
        if (number < m_node_callers.size() && m_node_callers[number] != nullptr) [[likely]]
            return *m_node_callers[number];
        return find_caller_of_node(number);
    }

private:
    arena_host() = default;
    static bool is_worth_waiting(std::uint64_t expected, std::uint64_t come, std::uint64_t& given_up,
                                 std::uint64_t& since);
    // Returns the size of the arena's file, 0 after an error.
    std::size_t map_arena();
    void* map_part(std::size_t offset, std::size_t size);
    const caller_text& find_caller_of_node(std::uint32_t number);
    const caller_text& make_caller(std::uint64_t address, std::uint32_t module);

    struct place {
        std::uint64_t address;
        std::uint32_t module;
        bool operator==(const place&) const = default;
    };
    struct place_hash {
        std::size_t operator()(const place& of) const noexcept {
            return (of.address ^ of.module) * 0x9e3779b97f4a7c15U >> 16;
        }
    };
    struct cached_caller {
        place of;
        const caller_text* text;
    };

    std::intptr_t m_descriptor = -1;
    arena* m_shared = nullptr;
    std::string m_program;
    std::vector<bool> m_is_known = std::vector<bool>(most_sessions);
    std::uint64_t m_known_count = 1;
    std::uint64_t m_known_executions = 0;
    std::uint64_t m_forks_given_up = 0;
    std::uint64_t m_forks_since = 0; // when the wait for them began; 0: nothing is awaited
    std::uint64_t m_sessions_since = 0;
    std::vector<ring_record*> m_rings = std::vector<ring_record*>(most_sessions);
    std::vector<node*> m_chunks = std::vector<node*>(most_node_chunks);
    std::vector<const caller_text*> m_node_callers;
    std::unordered_map<place, const caller_text*, place_hash> m_callers;
    std::vector<cached_caller> m_cached_callers = std::vector<cached_caller>(1U << 14);
};

} // namespace qor::record
