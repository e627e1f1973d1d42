#include "arena_host.h"

#include "process_facts.h"
#include "shared/owner_posix.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

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

std::size_t arena_host::map_arena() {
    m_descriptor = ::memfd_create("qor-record", MFD_CLOEXEC);
    const std::size_t size = m_descriptor >= 0 ? grow(descriptor()) : 0;
    if (size < sizeof(arena))
        return 0;
    m_shared = static_cast<arena*>(map_part(0, sizeof(arena)));
    return m_shared != nullptr ? size : 0;
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
        ::close(descriptor());
    m_descriptor = -1;
}

void* arena_host::map_part(std::size_t offset, std::size_t size) {
    if (offset + size > (m_shared != nullptr ? m_shared->file_size : size))
        return nullptr;
    void* const mapped =
        ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor(), static_cast<off_t>(offset));
    return mapped != MAP_FAILED ? mapped : nullptr;
}

bool arena_host::is_program_of(std::int32_t process) const {
    program_image found{};
    const bool is_known = m_shared->image != program_image{} && image_of(process, found);
    return !is_known || found == m_shared->image;
}

// Its pages too: the next process in this place begins with an empty one.
void arena_host::release_ring(unsigned session_index) {
    if (session_index == 0 || m_rings[session_index] == nullptr)
        return;
    ::madvise(m_rings[session_index], ring_bytes, MADV_REMOVE);
    ::munmap(m_rings[session_index], ring_bytes);
    m_rings[session_index] = nullptr;
}

void arena_host::wake_writers(session& of) {
    if (of.waiters.load(std::memory_order_seq_cst) == 0)
        return;
    of.waiters.store(0, std::memory_order_seq_cst);
    of.tail_moves.fetch_add(1, std::memory_order_seq_cst);
    ::syscall(SYS_futex, &of.tail_moves, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

} // namespace qor::record
