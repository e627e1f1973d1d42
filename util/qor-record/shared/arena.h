// The memory that a recorded process and its recorder share: one memfd, an "arena", for each executed program and the
// processes that it forks. The recorder makes it, the preloaded library maps it; both are of one build, which `version`
// checks. A process needs no descriptor and no file to record: a forked child inherits the mapping, and takes a session
// of its own in it. On Windows it is a section of the paging file, and each process has one, with one session.
//
// A session is a ring of records. A thread takes a ticket from `head`, fills in the record at that place and commits it
// with a release store; the recorder reads the tickets in their order and moves `tail`. No lock is involved, so a
// signal handler may record whatever it interrupts, and a process may end anywhere.
//
// Stacks are a tree of nodes: a frame and its caller's node. Equal stacks are the same node.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace qor::record {

inline constexpr std::uint64_t arena_magic = 0x616e657261726f71; // "qorarena" in memory
inline constexpr std::uint32_t arena_version = 2;

inline constexpr unsigned most_frames = 256;

// ---- records

inline constexpr std::uint64_t ring_size = 1U << 16;

// Threads wait when so much of the ring is in use. The rest is for signal handlers that have interrupted a thread
// between its ticket and its commit: the recorder cannot read on before they return, so they must not wait for it.
inline constexpr std::uint64_t ring_limit = ring_size * 3 / 4;

enum class record_kind : std::uint8_t {
    allocation = 1, // "+"
    release,        // "-"
    moved_from,     // "<"
    moved_to,       // ">"
    not_moved,      // ">": a realloc has failed, and its block is alive again
    module_gone,    // detail: the module
    left,           // nothing: the thread that had the ticket was ended
};

struct ring_record {
    std::uint64_t address;
    std::uint64_t detail;              // the size of an allocation, the caller of a release
    std::uint32_t stack;               // the node of an allocation, the module of the caller of a release
    std::uint32_t thread;              // the system's number of the thread
    std::atomic<std::uint64_t> commit; // commit_word() of the ticket, once the record is whole
};
static_assert(sizeof(ring_record) == 32);

constexpr std::uint64_t commit_word(std::uint64_t ticket, record_kind kind) {
    return (ticket + 1) | static_cast<std::uint64_t>(kind) << 56;
}
constexpr std::uint64_t ticket_bits = (std::uint64_t{1} << 56) - 1;

// ---- sessions

enum class session_state : std::uint32_t {
    unused,  // the recorder's to hand out
    claimed, // a process fills it in
    running,
};

enum class loss : std::uint32_t {
    nothing,
    recorder_stopped, // the recorder stopped reading
    no_memory,        // the ring could not be mapped
};

struct session {
    alignas(64) std::atomic<std::uint64_t> head; // the next ticket
    alignas(64) std::atomic<std::uint64_t> tail; // the recorder has read all tickets below it
    std::atomic<std::uint32_t> tail_moves;       // a futex for those that wait for room
    std::atomic<std::uint32_t> waiters;
    alignas(64) std::atomic<session_state> state;
    std::int32_t process;        // its number where it runs, which may be a namespace of its own
    std::int32_t parent_process; // 0: it is outside of that namespace
    std::uint64_t number;        // counts the sessions of this arena, from 1
    std::uint64_t parent;        // the number of the session that was forked; 0: it was not forked
    std::uint64_t fork_ticket;   // the child inherits what the tickets below it did
    std::atomic<loss> lost_why;
    std::atomic<std::uint64_t> lost; // records that were not written
};

inline constexpr unsigned most_sessions = 1024;

// ---- modules: the object files that frames lie in. Module 0 stands for code without one.

inline constexpr unsigned most_modules = 1U << 15;
inline constexpr unsigned most_build_id_bytes = 32;

struct module {
    std::uint64_t begin; // its mapping
    std::uint64_t end;
    std::uint64_t base; // an address in memory minus the base is the address in the file
    std::uint32_t name; // an offset in `texts`; the text ends with a NUL, an empty one is the program itself
    std::uint8_t build_id_size;
    std::uint8_t build_id[most_build_id_bytes];
};

// ---- nodes

inline constexpr unsigned nodes_per_chunk = 1U << 16;
inline constexpr unsigned most_node_chunks = 256;
inline constexpr unsigned node_buckets = 1U << 18;

struct node {
    std::uint64_t address;
    std::uint32_t parent; // the caller's; 0: this is the outermost frame
    std::uint32_t module;
    std::uint32_t next; // in its bucket
    std::uint32_t unused;
};
static_assert(sizeof(node) == 24);

// ---- programs that the processes of an arena execute or start

// A hook writes it before the process becomes the program, and takes it back if that fails; for a program that was
// started in another process, it writes it afterwards. The recorder names the programs that do not ask for an arena.
struct execution {
    std::atomic<std::int32_t> process; // that of the program; 0: unused; -1: it is being filled in
    std::uint32_t is_new_process;      // it was started, and runs; else a process is about to become it. On Windows
                                       // it is 0 for one that waits until the program lets it run
    char program[248];                 // its path or name, cut off
};
inline constexpr unsigned most_executions = 256;

// Values of the auxiliary vector, by which a process that has executed another program is told from one that has not.
struct program_image {
    std::uint64_t entry;
    std::uint64_t random_bytes;
    std::uint64_t kernel_library;
    bool operator==(const program_image&) const = default;
};

// ---- the arena

// Where the program has allocation functions of its own, such as an operator new that was linked statically: addresses
// in the file, found in its symbols.
struct code_range {
    std::uint64_t begin;
    std::uint64_t end;
};
inline constexpr unsigned most_program_ranges = 64;

struct arena {
    std::uint64_t magic;
    std::uint32_t version;
    std::uint32_t depth;             // the most frames of a stack; 0: the caller alone
    std::uint64_t file_size;         // a limit of the recorder may make it less than arena_file_size
    std::int32_t followed_process;   // only this process is recorded, and no child; 0: children too
    std::uint32_t is_first;          // the arena belongs to the process that the recorder started
    std::uint32_t wants_system_heap; // on Windows: the functions of the system's heaps are recorded, too
    std::uint32_t program_range_count;
    code_range program_ranges[most_program_ranges];
    program_image image; // all zero: no process has mapped the arena

    // A robust mutex that the recorder holds: the kernel marks the word when the recorder ends, in whatever way.
    alignas(64) unsigned char owner[64];
    alignas(64) std::atomic<std::uint32_t> heartbeat; // grows while the recorder reads
    std::atomic<std::uint32_t> stopped;               // allocations are not written now, so their stacks are not needed
    std::atomic<std::uint32_t> taken;                 // 1: a process has mapped it
    alignas(64) std::atomic<std::uint64_t> session_count; // taken so far
    std::atomic<std::uint64_t> unrecorded_children;       // there was no session for them
    std::atomic<std::uint64_t> forks_begun;               // a child of one of them may not have its session yet
    std::atomic<std::uint64_t> forks_arrived;
    std::atomic<std::uint64_t> executions_begun;       // grows with each new entry of `executions`
    std::atomic<std::uint64_t> unnamed_executions;     // there was no room for them
    alignas(64) std::atomic<std::uint32_t> node_count; // node 0 is the empty stack
    std::atomic<std::uint32_t> nodes_are_full;
    std::atomic<std::uint32_t> module_count; // module 0 stands for no module
    std::atomic<std::uint32_t> text_size;

    // On Windows: what the hooks stand before. `runtimes` has a bit for each of `runtime_names`.
    std::atomic<std::uint32_t> runtimes;
    std::atomic<std::uint32_t> hooked_modules;
    std::atomic<std::uint32_t> hooked_imports;
    std::atomic<std::uint32_t> hooked_imports_of_program;
    std::atomic<std::uint32_t> was_left_alone; // the process was changed, and its library found no place to begin
    std::uint64_t recorder;                    // the recorder's process, a handle in the recorded one

    execution executions[most_executions];
    session sessions[most_sessions];
    alignas(4096) module modules[most_modules];
    alignas(4096) char texts[4U << 20];
    alignas(4096) std::atomic<std::uint32_t> buckets[node_buckets];
    alignas(4096) node first_nodes[nodes_per_chunk];
    alignas(4096) ring_record first_ring[ring_size];
};

// Rings and chunks of nodes lie behind the arena in its file, in turn, so that the first few of both lie within the
// limits of a process that may have little memory. Each process maps those that it needs.
constexpr std::size_t ring_bytes = sizeof(ring_record) * ring_size;
constexpr std::size_t chunk_bytes = sizeof(node) * nodes_per_chunk;
static_assert(ring_bytes % 4096 == 0 && chunk_bytes % 4096 == 0 && sizeof(arena) % 4096 == 0);

constexpr std::size_t chunk_offset(unsigned chunk) { // from 1 on
    return sizeof(arena) + (ring_bytes + chunk_bytes) * (chunk - 1) + ring_bytes;
}
constexpr std::size_t ring_offset(unsigned session_index) { // from 1 on
    return sizeof(arena) + (ring_bytes + chunk_bytes) * (session_index - 1);
}
constexpr std::size_t arena_file_size = ring_offset(most_sessions);

} // namespace qor::record
