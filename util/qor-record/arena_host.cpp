#include "arena_host.h"

#include "clocks.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace qor::record {

std::unique_ptr<arena_host> arena_host::make(const plan& wanted) {
    std::unique_ptr<arena_host> made(new arena_host);
    const std::size_t size = made->map_arena();
    if (size == 0)
        return nullptr;
    arena& shared = *made->m_shared;
    shared.version = arena_version;
    shared.file_size = size;
    shared.depth = wanted.depth;
    shared.followed_process = wanted.follows_children ? 0 : -1;
    for (const code_range& range : wanted.allocation_code)
        if (shared.program_range_count < most_program_ranges)
            shared.program_ranges[shared.program_range_count++] = range;
    shared.stopped.store(wanted.is_stopped ? 1 : 0);
    shared.session_count.store(1);
    shared.node_count.store(1);
    shared.module_count.store(1);
    shared.text_size.store(1); // the empty text
    shared.sessions[0].state.store(session_state::claimed);
    shared.wants_system_heap = wanted.wants_system_heap ? 1 : 0;
    shared.magic = arena_magic;
    return made;
}

ring_record* arena_host::ring(unsigned session_index) {
    if (session_index == 0)
        return m_shared->first_ring;
    if (m_rings[session_index] == nullptr)
        m_rings[session_index] = static_cast<ring_record*>(map_part(ring_offset(session_index), ring_bytes));
    return m_rings[session_index];
}

bool arena_host::forks_are_under_way() {
    // In this order, so that a fork that ends meanwhile is not taken for one that has not begun.
    const std::uint64_t arrived = m_shared->forks_arrived.load(std::memory_order_seq_cst) + m_forks_given_up;
    return is_worth_waiting(m_shared->forks_begun.load(std::memory_order_seq_cst), arrived, m_forks_given_up,
                            m_forks_since);
}

bool arena_host::awaits_children() {
    return is_worth_waiting(m_shared->session_count.load(std::memory_order_seq_cst), m_known_count, m_known_count,
                            m_sessions_since) ||
           forks_are_under_way();
}

// Whether more are expected than have come, and not for too long.
bool arena_host::is_worth_waiting(std::uint64_t expected, std::uint64_t come, std::uint64_t& given_up,
                                  std::uint64_t& since) {
    constexpr std::uint64_t patience = 200'000'000;
    if (expected <= come) {
        since = 0;
        return false;
    }
    const std::uint64_t now = steady_time();
    since = since != 0 ? since : now;
    if (now - since < patience)
        return true;
    given_up += expected - come;
    since = 0;
    return false;
}

bool arena_host::has_new_executions() {
    const std::uint64_t count = m_shared->executions_begun.load(std::memory_order_acquire);
    return std::exchange(m_known_executions, count) != count;
}

std::vector<unsigned> arena_host::new_sessions() const {
    std::vector<unsigned> found;
    if (m_shared->session_count.load(std::memory_order_acquire) == m_known_count)
        return found;
    for (unsigned index = 1; index < most_sessions; ++index)
        if (!m_is_known[index] &&
            m_shared->sessions[index].state.load(std::memory_order_acquire) == session_state::running)
            found.push_back(index);
    return found;
}

void arena_host::release_session(unsigned index) {
    if (index == 0)
        return;
    release_ring(index);
    session& of = m_shared->sessions[index];
    of.head.store(0);
    of.tail.store(0);
    of.waiters.store(0);
    of.lost.store(0);
    of.lost_why.store(loss::nothing);
    m_is_known[index] = false;
    of.state.store(session_state::unused, std::memory_order_release);
}

const node* arena_host::node_at(std::uint32_t number) {
    const unsigned chunk = number / nodes_per_chunk;
    if (chunk == 0)
        return &m_shared->first_nodes[number];
    if (chunk >= most_node_chunks)
        return nullptr;
    if (m_chunks[chunk] == nullptr)
        m_chunks[chunk] = static_cast<node*>(map_part(chunk_offset(chunk), chunk_bytes));
    return m_chunks[chunk] != nullptr ? &m_chunks[chunk][number % nodes_per_chunk] : nullptr;
}

std::string_view arena_host::path_of(const module& of) const {
    const char* const text = m_shared->texts + (of.name < sizeof m_shared->texts ? of.name : 0);
    const std::size_t size = strnlen(text, sizeof m_shared->texts - static_cast<std::size_t>(text - m_shared->texts));
    return size != 0 ? std::string_view(text, size) : std::string_view(m_program);
}

const caller_text& arena_host::caller(std::uint64_t address, std::uint32_t module) {
    const place wanted{address, module};
    cached_caller& cached = m_cached_callers[place_hash()(wanted) % m_cached_callers.size()];
    if (cached.of == wanted && cached.text != nullptr) [[likely]]
        return *cached.text;
    const auto [found, is_new] = m_callers.try_emplace(wanted, nullptr);
    if (is_new)
        found->second = &make_caller(address, module);
    cached = {wanted, found->second};
    return *found->second;
}

const caller_text& arena_host::find_caller_of_node(std::uint32_t number) {
    const node* const found = node_at(number);
    const caller_text& text = found != nullptr ? caller(found->address, found->module) : caller(0, 0);
    if (number >= m_node_callers.size())
        m_node_callers.resize(std::max<std::size_t>(number + 1, 2 * m_node_callers.size()));
    m_node_callers[number] = &text;
    return text;
}

// A blank would part the name in two words of the log.
const caller_text& arena_host::make_caller(std::uint64_t address, std::uint32_t module) {
    std::string line = "@ ";
    if (module != 0 && module < most_modules) {
        const record::module& of = m_shared->modules[module];
        for (const char c : path_of(of).substr(0, 4096))
            line += std::strchr(" \t\n\v\f\r", c) != nullptr ? '_' : c;
        line += ':';
        address -= of.base;
    }
    char digits[16];
    const auto end = std::to_chars(digits, digits + sizeof digits, address, 16).ptr;
    line.append("[0x").append(digits, end).append("] ");
    auto* const made = static_cast<caller_text*>(std::malloc(sizeof(caller_text) + line.size() + 64));
    if (made == nullptr)
        std::abort();
    made->size = line.size();
    line.copy(reinterpret_cast<char*>(made) + offsetof(caller_text, text), line.size());
    return *made;
}

} // namespace qor::record
