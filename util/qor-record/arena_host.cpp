#include "arena_host.h"

#include "process_facts.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>

namespace qor::record {

static_assert(sizeof(pthread_mutex_t) <= sizeof(arena::owner));

namespace {

// The limit on the size of files holds for this memory too, as far as the user may not raise it. Returns the size.
std::size_t grow(int descriptor) {
    rlimit before;
    if (::getrlimit(RLIMIT_FSIZE, &before) != 0)
        return 0;
    const rlimit raised = {before.rlim_max, before.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &raised);
    const std::size_t size = std::min<rlim_t>(arena_file_size, before.rlim_max) / 4096 * 4096;
    const bool has_grown = size >= sizeof(arena) && ::ftruncate(descriptor, static_cast<off_t>(size)) == 0;
    const int reason = size < sizeof(arena) ? EFBIG : errno;
    ::setrlimit(RLIMIT_FSIZE, &before);
    errno = reason;
    return has_grown ? size : 0;
}

} // namespace

std::unique_ptr<arena_host> arena_host::make(const plan& wanted) {
    std::unique_ptr<arena_host> made(new arena_host);
    made->m_descriptor = ::memfd_create("qor-record", MFD_CLOEXEC);
    const std::size_t size = made->m_descriptor >= 0 ? grow(made->m_descriptor) : 0;
    if (size < sizeof(arena))
        return nullptr;
    made->m_shared = static_cast<arena*>(made->map_part(0, sizeof(arena)));
    if (made->m_shared == nullptr)
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
    shared.magic = arena_magic;
    return made;
}

void arena_host::own() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    auto* const mutex = reinterpret_cast<pthread_mutex_t*>(m_shared->owner);
    pthread_mutex_init(mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    pthread_mutex_lock(mutex);
}

arena_host::~arena_host() {
    if (m_shared != nullptr) {
        auto* const mutex = reinterpret_cast<pthread_mutex_t*>(m_shared->owner);
        if (recorder_is_gone(*m_shared) == false)
            pthread_mutex_unlock(mutex);
        for (unsigned i = 1; i < most_sessions; ++i)
            if (m_rings[i] != nullptr)
                ::munmap(m_rings[i], ring_bytes);
        for (node* const chunk : m_chunks)
            if (chunk != nullptr)
                ::munmap(chunk, chunk_bytes);
        ::munmap(m_shared, sizeof(arena));
    }
    close_descriptor();
    for (const auto& each : m_callers)
        std::free(const_cast<caller_text*>(each.second));
}

void arena_host::close_descriptor() noexcept {
    if (m_descriptor >= 0)
        ::close(m_descriptor);
    m_descriptor = -1;
}

void* arena_host::map_part(std::size_t offset, std::size_t size) {
    if (offset + size > (m_shared != nullptr ? m_shared->file_size : size))
        return nullptr;
    void* const mapped =
        ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, m_descriptor, static_cast<off_t>(offset));
    return mapped != MAP_FAILED ? mapped : nullptr;
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

bool arena_host::is_program_of(std::int32_t process) const {
    program_image found{};
    const bool is_known = m_shared->image != program_image{} && image_of(process, found);
    return !is_known || found == m_shared->image;
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

// Its pages too: the next process in this place begins with an empty one.
void arena_host::release_ring(unsigned session_index) {
    if (session_index == 0 || m_rings[session_index] == nullptr)
        return;
    ::madvise(m_rings[session_index], ring_bytes, MADV_REMOVE);
    ::munmap(m_rings[session_index], ring_bytes);
    m_rings[session_index] = nullptr;
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
    const std::size_t size = ::strnlen(text, sizeof m_shared->texts - static_cast<std::size_t>(text - m_shared->texts));
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
