#include "recording_windows.h"

#include "walk_windows.h"

#include <windows.h>

extern "C" __declspec(dllimport) BOOLEAN NTAPI RtlDllShutdownInProgress();

namespace qor::record {

namespace {

constinit std::atomic<bool> is_on{false};
constinit std::atomic<bool> has_filled_gaps{false};

constexpr unsigned most_skipped = 16; // frames of allocation functions
constexpr unsigned pauses_without_heartbeat = 30'000;

void stop_here(loss why) noexcept {
    is_on.store(false, std::memory_order_relaxed);
    auto nothing = loss::nothing;
    this_process.own->lost_why.compare_exchange_strong(nothing, why);
}

// At the end of the process the system ends all threads but one. Tickets that they have taken are never committed, and
// the recorder would wait for them while this thread waits for room.
void fill_gaps(session& own) noexcept {
    if (has_filled_gaps.exchange(true))
        return;
    const std::uint64_t tail = own.tail.load(std::memory_order_acquire);
    const std::uint64_t head = own.head.load(std::memory_order_acquire); // behind the ticket of this thread
    for (std::uint64_t ticket = tail; ticket + 1 < head && ticket - tail < ring_size; ++ticket) {
        auto& commit = this_process.ring[ticket % ring_size].commit;
        if ((commit.load(std::memory_order_acquire) & ticket_bits) != ticket + 1)
            commit.store(commit_word(ticket, record_kind::left), std::memory_order_release);
    }
}

// Waits until the recorder has made room for the ticket. False: it does not read any more.
[[gnu::noinline]] bool wait_for_room(session& own, std::uint64_t ticket) noexcept {
    const DWORD before = GetLastError();
    wait_for_recorder wait;
    bool has_room = false;
    while (is_recording() && !(has_room = ticket - own.tail.load(std::memory_order_acquire) < ring_limit)) {
        if (RtlDllShutdownInProgress())
            fill_gaps(own);
        if (!wait.pause())
            stop_here(loss::recorder_stopped);
    }
    SetLastError(before);
    return has_room;
}

void put(record_kind kind, std::uint64_t address, std::uint64_t detail, std::uint32_t stack) noexcept {
    session& own = *this_process.own;
    const std::uint64_t ticket = own.head.fetch_add(1, std::memory_order_relaxed);
    if (ticket - own.tail.load(std::memory_order_acquire) >= ring_limit && !wait_for_room(own, ticket)) [[unlikely]]
        return;
    ring_record& record = this_process.ring[ticket % ring_size];
    record.address = address;
    record.detail = detail;
    record.stack = stack;
    record.thread = GetCurrentThreadId();
    record.commit.store(commit_word(ticket, kind), std::memory_order_release);
}

// The index of the first frame outside of allocation functions.
unsigned first_outside(const std::uintptr_t* frames, unsigned count) noexcept {
    unsigned first = 0;
    while (first + 1 < count && (module_of(frames[first]) & allocation_code) != 0)
        ++first;
    return first;
}

// The node of the stack; at depth 0 that of the caller alone.
[[gnu::noinline]] std::uint32_t stack_of(void* caller, unsigned depth) noexcept {
    const auto pc = reinterpret_cast<std::uintptr_t>(caller);
    const bool is_inside = (module_of(pc) & allocation_code) != 0;
    depth = depth != 0 ? depth : 1;
    if (depth == 1 && !is_inside)
        return node_of(&pc, 1);
    std::uintptr_t frames[most_frames + most_skipped];
    unsigned count = walk_stack(caller, frames, is_inside ? depth + most_skipped : depth);
    if (count == 0)
        return node_of(&pc, 1);
    const unsigned first = is_inside ? first_outside(frames, count) : 0;
    count -= first;
    return node_of(frames + first, count < depth ? count : depth);
}

[[gnu::noinline]] std::uintptr_t outside_caller(void* caller) noexcept {
    std::uintptr_t frames[most_skipped];
    const unsigned count = walk_stack(caller, frames, most_skipped);
    return count != 0 ? frames[first_outside(frames, count)] : reinterpret_cast<std::uintptr_t>(caller);
}

} // namespace

bool wait_for_recorder::pause() noexcept {
    const auto recorder = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(this_process.shared->recorder));
    if (WaitForSingleObject(recorder, 1) != WAIT_TIMEOUT)
        return false;
    const std::uint32_t now = this_process.shared->heartbeat.load(std::memory_order_relaxed);
    m_pauses = now == m_heartbeat ? m_pauses + 1 : 0;
    m_heartbeat = now;
    return m_pauses < pauses_without_heartbeat;
}

bool is_recording() noexcept { return is_on.load(std::memory_order_acquire); }

void begin_recording() noexcept { is_on.store(true, std::memory_order_release); }

void record_allocation(record_kind kind, const void* block, std::size_t size, void* caller) noexcept {
    if (!is_recording())
        return;
    const bool is_stopped = this_process.shared->stopped.load(std::memory_order_relaxed) != 0;
    put(kind, reinterpret_cast<std::uintptr_t>(block), size, stack_of(caller, is_stopped ? 0 : this_process.depth));
}

void record_release(record_kind kind, const void* block, void* caller) noexcept {
    if (!is_recording())
        return;
    auto pc = reinterpret_cast<std::uintptr_t>(caller);
    if ((module_of(pc) & allocation_code) != 0)
        pc = outside_caller(caller);
    put(kind, reinterpret_cast<std::uintptr_t>(block), pc, module_of(pc) & ~allocation_code);
}

void record_module_gone(std::uint32_t module) noexcept {
    if (is_recording())
        put(record_kind::module_gone, 0, module, 0);
}

} // namespace qor::record
