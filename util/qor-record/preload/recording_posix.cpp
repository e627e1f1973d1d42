#include "recording.h"

#include "process.h"
#include "raw_calls.h"
#include "shared/owner_posix.h"

#include <cerrno>
#include <ctime>
#include <linux/futex.h>
#include <pthread.h>

namespace qor::record {

namespace {

// With the initial-exec model, the first use allocates nothing.
#define QOR_PER_THREAD __thread __attribute__((tls_model("initial-exec")))

// The most records that a hook looks back on: those of one call and of signal handlers meanwhile.
constexpr unsigned most_remembered = 64;
struct remembered {
    std::uintptr_t address; // the complement of the address if the block was released
    std::size_t size;
};

QOR_PER_THREAD struct {
    std::uint32_t thread;  // the system's number; 0: not asked yet
    std::uint32_t process; // at a fork the thread gets another number
    std::uint32_t last_slot;
    bool is_starting;       // a child's session, in this very thread
    volatile unsigned puts; // how many put() are under way, one in the signal handler that has interrupted the other
    std::uint64_t tail;     // as it was seen last
    unsigned long records;
    remembered recorded[most_remembered]; // the last ones
} self;

// The last ticket that each thread has taken. It is private memory: a forked child finds the tickets that were taken
// before the fork, as a fork copies them. Threads share a slot only where there are more of them than slots.
struct alignas(64) {
    std::atomic<std::uint64_t> ticket; // + 1
} last_tickets[1024];
std::atomic<std::uint32_t> next_slot;

// Allocations and releases before start_recording().
struct early_record {
    record_kind kind;
    const void* block;
    std::uint64_t detail;
    std::uintptr_t caller;
};
constexpr unsigned most_early_records = 4096;
early_record early[most_early_records];
unsigned early_count;
unsigned early_lost;
bool has_started;

constexpr unsigned most_skipped = 16; // frames of allocation functions

constexpr timespec wait_for_recorder = {0, 100'000'000};
constexpr unsigned waits_without_heartbeat = 300;

void stop_here(loss why) noexcept {
    this_process.owner->phase.store(phase_off, std::memory_order_relaxed);
    if (this_process.own != nullptr) {
        auto nothing = loss::nothing;
        this_process.own->lost_why.compare_exchange_strong(nothing, why);
    }
}

// Gives a forked child its session. Returns false if the child is not recorded.
bool begin_child() noexcept {
    arena& shared = *this_process.shared;
    std::uint64_t fork_ticket = 0;
    for (auto& last : last_tickets) {
        const std::uint64_t ticket = last.ticket.load(std::memory_order_relaxed);
        fork_ticket = ticket > fork_ticket ? ticket : fork_ticket;
        last.ticket.store(0, std::memory_order_relaxed);
    }
    const std::uint64_t parent = this_process.own != nullptr ? this_process.own->number : 0;
    this_process.own = nullptr;
    if (shared.followed_process != 0 || recorder_is_gone(shared))
        return false;
    unsigned index = 0;
    for (unsigned i = 1; i < most_sessions && index == 0; ++i) {
        auto state = session_state::unused;
        if (shared.sessions[i].state.compare_exchange_strong(state, session_state::claimed))
            index = i;
    }
    auto* const ring =
        index != 0 ? static_cast<ring_record*>(map_behind_arena(ring_offset(index), ring_bytes)) : nullptr;
    if (ring == nullptr) {
        if (index != 0)
            shared.sessions[index].state.store(session_state::unused, std::memory_order_release);
        shared.unrecorded_children.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    session& own = shared.sessions[index];
    own.process = static_cast<std::int32_t>(raw_call(SYS_getpid));
    own.parent_process = static_cast<std::int32_t>(raw_call(SYS_getppid));
    own.number = shared.session_count.fetch_add(1) + 1;
    own.parent = parent;
    own.fork_ticket = fork_ticket;
    own.state.store(session_state::running, std::memory_order_release);
    this_process.own = &own;
    this_process.own_index = index;
    this_process.ring = ring;
    self.tail = 0;
    return true;
}

bool begin_child_once() noexcept {
    if (self.is_starting)
        return false; // a signal handler
    auto& phase = this_process.owner->phase;
    std::uint32_t before = phase_forked;
    if (phase.compare_exchange_strong(before, phase_starting)) {
        self.is_starting = true;
        const bool has_begun = begin_child();
        self.is_starting = false;
        phase.store(has_begun ? phase_running : phase_off, std::memory_order_release);
        return has_begun;
    }
    while ((before = phase.load(std::memory_order_acquire)) == phase_starting)
        pause_briefly();
    return before == phase_running;
}

// Returns false if this process is not recorded, or not any more.
inline bool is_recording() noexcept {
    if (this_process.shared == nullptr) [[unlikely]]
        return false;
    const std::uint32_t phase = this_process.owner->phase.load(std::memory_order_acquire);
    if (phase == phase_running) [[likely]]
        return true;
    return phase != phase_off && begin_child_once();
}

// Waits until the recorder has made room for the ticket. Returns false if it does not read any more.
[[gnu::noinline]] bool wait_for_room(session& own, std::uint64_t ticket, std::uint64_t limit) noexcept {
    const arena& shared = *this_process.shared;
    std::uint32_t heartbeat = shared.heartbeat.load(std::memory_order_relaxed);
    for (unsigned waits = 0; waits < waits_without_heartbeat;) {
        const std::uint32_t moves = own.tail_moves.load(std::memory_order_acquire);
        self.tail = own.tail.load(std::memory_order_acquire);
        if (ticket - self.tail < limit)
            return true;
        if (this_process.owner->phase.load(std::memory_order_relaxed) != phase_running || recorder_is_gone(shared))
            break;
        if (this_process.without_system_calls || this_process.is_filtered) {
            for (int i = 0; i < 1000; ++i)
                pause_briefly();
            continue;
        }
        own.waiters.store(1, std::memory_order_seq_cst);
        if (ticket - own.tail.load(std::memory_order_seq_cst) >= limit)
            raw_call(SYS_futex, as_word(&own.tail_moves), FUTEX_WAIT, moves, as_word(&wait_for_recorder));
        const std::uint32_t now = shared.heartbeat.load(std::memory_order_relaxed);
        waits = now == heartbeat ? waits + 1 : 0;
        heartbeat = now;
    }
    stop_here(loss::recorder_stopped);
    return false;
}

// The C library knows the number and writes it into a mutex that the thread holds.
std::uint32_t known_thread_number() noexcept {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&mutex);
    const auto number = static_cast<std::uint32_t>(mutex.__data.__owner);
    pthread_mutex_unlock(&mutex);
    return number;
}

inline std::uint32_t thread_number() noexcept {
    const auto process = static_cast<std::uint32_t>(this_process.own->process);
    if (self.process != process) [[unlikely]] {
        self.process = process;
        const bool is_confined = this_process.without_system_calls || this_process.is_filtered;
        self.thread = is_confined ? known_thread_number() : static_cast<std::uint32_t>(raw_call(SYS_gettid));
        self.last_slot =
            next_slot.fetch_add(1, std::memory_order_relaxed) % (sizeof last_tickets / sizeof *last_tickets);
        self.tail = 0;
    }
    return self.thread;
}

inline void put(record_kind kind, std::uint64_t address, std::uint64_t detail, std::uint32_t stack) noexcept {
    session& own = *this_process.own;
    const std::uint32_t thread = thread_number();
    const std::uint64_t limit = self.puts == 0 ? ring_limit : ring_size;
    self.puts = self.puts + 1;
    const std::uint64_t ticket = own.head.fetch_add(1, std::memory_order_relaxed);
    last_tickets[self.last_slot].ticket.store(ticket + 1, std::memory_order_relaxed);
    if (ticket - self.tail < limit || wait_for_room(own, ticket, limit)) [[likely]] {
        ring_record& record = this_process.ring[ticket % ring_size];
        record.address = address;
        record.detail = detail;
        record.stack = stack;
        record.thread = thread;
        record.commit.store(commit_word(ticket, kind), std::memory_order_release);
    }
    self.puts = self.puts - 1;
}

inline void remember(std::uintptr_t address, std::size_t size) noexcept {
    const unsigned long number = self.records;
    self.recorded[number % most_remembered] = {address, size};
    self.records = number + 1;
}

std::uint64_t address_of(const void* block) noexcept { return reinterpret_cast<std::uintptr_t>(block); }

void keep_early(record_kind kind, const void* block, std::uint64_t detail, std::uintptr_t caller) noexcept {
    if (has_started)
        return;
    if (early_count < most_early_records)
        early[early_count++] = {kind, block, detail, caller};
    else
        ++early_lost;
}

std::uint32_t plain_module_of(std::uintptr_t address) noexcept { return module_of(address) & ~allocation_code; }

// The index of the frame of the hook that has called FUNCTION, if all frames before it are in the library of FUNCTION.
// `count`: they are not. A signal handler that has interrupted the function has its frame between them.
unsigned frame_of_hook(const void* function, const std::uintptr_t* frames, unsigned first, unsigned count) noexcept {
    const std::uint32_t library = plain_module_of(reinterpret_cast<std::uintptr_t>(function) + 1);
    for (unsigned i = first; i < count && i < most_skipped; ++i) {
        if (is_own_code(frames[i]))
            return i;
        if (plain_module_of(frames[i]) != library)
            break;
    }
    return count;
}

// The index of the first frame outside of allocation functions.
unsigned first_outside(const std::uintptr_t* frames, unsigned count) noexcept {
    unsigned first = 0;
    while (first + 1 < count && (module_of(frames[first]) & allocation_code) != 0)
        ++first;
    if (called_text_function == nullptr)
        return first;
    const unsigned hook = frame_of_hook(called_text_function, frames, first, count);
    return hook + 1 < count ? hook + 1 : first;
}

// Returns the node of the stack; at depth 0 that of the caller alone.
[[gnu::noinline]] std::uint32_t stack_of(const machine_context& caller, unsigned depth) noexcept {
    std::uintptr_t frames[most_frames + most_skipped];
    depth = depth != 0 ? depth : 1;
    const bool is_inside = called_text_function != nullptr || (module_of(caller.pc) & allocation_code) != 0;
    if (depth == 1 && !is_inside)
        return node_of(&caller.pc, 1);
    if (is_inside && depth == 1 && called_text_function == nullptr) {
        // Most often it is an operator new that has called malloc.
        const unsigned few = unwind(caller, frames, 4);
        const unsigned outside = few != 0 ? first_outside(frames, few) : 0;
        if (outside + 1 < few || (few != 0 && (module_of(frames[outside]) & allocation_code) == 0))
            return node_of(frames + outside, 1);
    }
    unsigned count = unwind(caller, frames, is_inside ? depth + most_skipped : depth);
    if (count == 0)
        return node_of(&caller.pc, 1);
    const unsigned first = is_inside ? first_outside(frames, count) : 0;
    count -= first;
    return node_of(frames + first, count < depth ? count : depth);
}

std::uintptr_t outside_caller(const machine_context& caller) noexcept {
    if ((module_of(caller.pc) & allocation_code) == 0) [[likely]]
        return caller.pc;
    std::uintptr_t frames[most_skipped];
    const unsigned count = unwind(caller, frames, most_skipped);
    return count != 0 ? frames[first_outside(frames, count)] : caller.pc;
}

} // namespace

unsigned long records_of_this_thread() noexcept { return self.records; }

namespace {

// The last of these records that `is_wanted` accepts; null: it accepts no record.
template <class Wanted>
inline const remembered* find_recorded(unsigned long since, Wanted is_wanted) noexcept {
    const unsigned long count = self.records;
    for (unsigned long number = count; number != since && count - number < most_remembered; --number)
        if (const remembered& each = self.recorded[(number - 1) % most_remembered]; is_wanted(each))
            return &each;
    return nullptr;
}

} // namespace

bool has_recorded(const void* block, unsigned long since) noexcept {
    const std::uintptr_t address = address_of(block);
    const remembered* const last = find_recorded(
        since, [=](const remembered& each) { return each.address == address || each.address == ~address; });
    return last != nullptr && last->address == address;
}

bool has_recorded_around(const void* block, unsigned long since) noexcept {
    const std::uintptr_t address = address_of(block);
    return find_recorded(since, [=](const remembered& each) {
               return address >= each.address && address - each.address < each.size &&
                      has_recorded(reinterpret_cast<const void*>(each.address), since);
           }) != nullptr;
}

void record_allocation(record_kind kind, const void* block, std::size_t size, const machine_context& caller) noexcept {
    remember(address_of(block), size);
    if (announced == block) [[unlikely]]
        announced = nullptr; // a signal handler has left the release by a jump, and the block is another one now
    if (!is_recording()) [[unlikely]] {
        keep_early(kind, block, size, caller.pc);
        return;
    }
    const bool is_stopped = this_process.shared->stopped.load(std::memory_order_relaxed) != 0;
    put(kind, address_of(block), size, stack_of(caller, is_stopped ? 0 : this_process.depth));
}

void record_release(record_kind kind, const void* block, const machine_context& caller) noexcept {
    remember(~address_of(block), 0);
    if (!is_recording()) [[unlikely]] {
        keep_early(kind, block, caller.pc, caller.pc);
        return;
    }
    const std::uintptr_t outside = outside_caller(caller);
    put(kind, address_of(block), outside, module_of(outside) & ~allocation_code);
}

[[gnu::noinline]] bool is_called_by_allocator(const machine_context& caller) noexcept {
    if (this_process.shared == nullptr)
        return false;
    if (is_own_code(caller.pc))
        return true; // it has jumped to the hook
    std::uintptr_t frames[most_skipped];
    const std::uint32_t library = plain_module_of(reinterpret_cast<std::uintptr_t>(called_allocator) + 1);
    if (plain_module_of(caller.pc) != library)
        return false;
    const unsigned count = unwind(caller, frames, most_skipped);
    return frame_of_hook(called_allocator, frames, 0, count) < count;
}

void modules_are_going() noexcept {
    unloading.fetch_add(1);
    modules_changing();
}

void modules_have_gone() noexcept {
    if (is_recording())
        find_modules_gone([](std::uint32_t module) noexcept {
            forget_places();
            forget_stacks();
            put(record_kind::module_gone, 0, module, 0);
        });
    modules_changed();
    unloading.fetch_sub(1);
}

void confine(bool is_strict) noexcept {
    if (is_recording())
        thread_number();
    (is_strict ? this_process.without_system_calls : this_process.is_filtered) = true;
}

void put_early_records() noexcept {
    add_allocation_code(own_code().begin, own_code().end);
    for (unsigned i = 0; i < early_count; ++i) {
        const early_record& each = early[i];
        const bool is_release = each.kind == record_kind::release || each.kind == record_kind::moved_from;
        put(each.kind, address_of(each.block), each.detail,
            is_release ? module_of(each.caller) & ~allocation_code : node_of(&each.caller, 1));
    }
    this_process.own->lost.fetch_add(early_lost, std::memory_order_relaxed);
}

void end_of_start() noexcept { has_started = true; }

// The child takes its session at once, so that the recorder knows of it although its parent may end before.
void follow_forks() noexcept {
    pthread_atfork([] { this_process.shared->forks_begun.fetch_add(1, std::memory_order_seq_cst); }, nullptr,
                   [] {
                       (void)is_recording();
                       this_process.shared->forks_arrived.fetch_add(1, std::memory_order_seq_cst);
                   });
}

} // namespace qor::record
