// The tracked allocator. With tracking off it is the C library's malloc and one test.
//
// Until the process has started it is not known whether a log is wanted, so blocks are remembered; the log then
// begins with those that still live, and no later free is a bad one. While a log is written, a free of what is
// not alive is logged and goes no further: the report can show it because the process survives it.
#include "memory/allocator.h"

#include "error/error.h"
#include "memory/allocation_log.h"
#include "memory/live_blocks.h"
#include "memory/pages.h"
#include "memory/tracking.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>

namespace {

using qor::memory::block_type;

std::atomic<bool> tracking{true};

// Never destroyed: blocks are freed until the very end of the process.
struct shared_state {
    // Not recursive: a child process must be able to unlock what its parent's thread locked.
    std::mutex lock;
    qor::memory::live_blocks blocks;
    qor::memory::allocation_log log;
    std::unordered_map<void*, uint64> huge_sizes;
};

shared_state& state() {
    static shared_state* const made = new shared_state;
    return *made;
}

using guard = std::lock_guard<std::mutex>;

bool is_tracking() noexcept { return tracking.load(std::memory_order_acquire); }

// These two are called with the lock held.
void note_new(void* block, uint64 size, block_type type, const char* file, int line) {
    if (!is_tracking())
        return;
    state().blocks.add(block, size, type, file, line);
    if (state().log.is_open())
        state().log.allocated(*state().blocks.find(block));
}

// False: the block is not alive and must not be given back.
bool note_end(const void* block, block_type unknown_type) {
    if (!is_tracking())
        return true;
    const qor::memory::live_block* const known = state().blocks.find(block);
    if (state().log.is_open()) {
        state().log.freed(block, known != nullptr ? known->type : unknown_type);
        if (known == nullptr)
            return false;
    }
    state().blocks.remove(block);
    return true;
}

void* allocate(uint64 alignment, uint64 size, block_type type, const char* file, int line) noexcept {
    void* const block = alignment <= alignof(std::max_align_t) ? std::malloc(size != 0 ? size : 1)
                                                               : qor::memory::allocate_aligned(alignment, size);
    if (block != nullptr && is_tracking()) [[unlikely]] {
        const guard hold(state().lock);
        note_new(block, size, type, file, line);
    }
    return block;
}

void release(void* block, block_type type) noexcept {
    if (block == nullptr)
        return;
    if (is_tracking()) [[unlikely]] {
        const guard hold(state().lock);
        if (!note_end(block, type))
            return;
    }
    qor::memory::give_back(block);
}

// The old block ends before the C library can give its address to somebody else; if it stays, it begins again.
void* reallocate_tracked(void* block, uint64 size, const char* file, int line) {
    std::unique_lock hold(state().lock);
    const qor::memory::live_block* const known = state().blocks.find(block);
    const qor::memory::live_block old =
        known != nullptr ? *known : qor::memory::live_block{block, 0, block_type::memory, file, line, nullptr, 0};
    if (!note_end(block, block_type::memory)) {
        // Not a live block: the caller gets the memory that it asked for, and the report the bad free.
        hold.unlock();
        return allocate(0, size, block_type::memory, file, line);
    }
    void* const moved = qor::memory::change_size(block, size);
    if (moved != nullptr)
        note_new(moved, size, old.type, file, line);
    else
        note_new(block, old.size, old.type, old.file, old.line);
    return moved;
}

void before_fork() noexcept { state().lock.lock(); }
void after_fork_in_parent() noexcept { state().lock.unlock(); }
void after_fork_in_child() noexcept {
    state().log.continue_in_child(state().blocks);
    state().lock.unlock();
}

void finish_log() noexcept {
    const guard hold(state().lock);
    state().log.finish();
}

} // namespace

int qor::memory::start_log(const std::string& path) {
    const guard hold(state().lock);
    if (const int reason = state().log.open(path))
        return reason;
    for (const live_block& block : state().blocks.in_order()) {
        state().log.allocated(block);
        if (block.type_name != nullptr)
            state().log.named(block.address, block.type_name);
    }
    watch_forks(before_fork, after_fork_in_parent, after_fork_in_child);
    std::atexit([] { finish_log(); });
    return 0;
}

void qor::memory::stop_tracking() noexcept {
    const guard hold(state().lock);
    tracking.store(false, std::memory_order_release);
    state().blocks.clear();
}

void qor::memory::exhausted(uint64 size, const char* file, int line) noexcept {
    finish_log();
    std::fprintf(stderr, "qor: out of memory: %llu bytes wanted by %s:%d\n", size, file, line);
    std::abort();
}

void* qor::glue::qor_do_malloc(uint64 alignment, uint64 size, bool, const char* file, int line) noexcept {
    if ((alignment & (alignment - 1)) != 0) {
        qor::error::set(qorError_invalid_argument, {"qor_do_malloc", "alignment"});
        return nullptr;
    }
    return allocate(alignment, size, block_type::memory, file, line);
}

void* qor::glue::qor_do_realloc(void* block, uint64 size, const char* file, int line) noexcept {
    if (block == nullptr)
        return allocate(0, size, block_type::memory, file, line);
    // The C library would free the block for a size of 0; here it stays a block.
    const uint64 wanted = size != 0 ? size : 1;
    if (is_tracking()) [[unlikely]]
        return reallocate_tracked(block, wanted, file, line);
    return qor::memory::change_size(block, wanted);
}

void qor::glue::qor_do_free(void* block, const char*, int) noexcept { release(block, block_type::memory); }

void* qor::glue::qor_do_memdup(const void* bytes, uint64 size, const char* file, int line) noexcept {
    void* const copy = allocate(0, size, block_type::memory, file, line);
    if (copy != nullptr && size != 0)
        std::memcpy(copy, bytes, size);
    return copy;
}

char* qor::glue::qor_do_strdup(const char* text, const char* file, int line) noexcept {
    return static_cast<char*>(qor_do_memdup(text, std::strlen(text) + 1, file, line));
}

char* qor::glue::qor_do_strndup(const char* text, uint64 length, const char* file, int line) noexcept {
    const void* const end = std::memchr(text, '\0', length);
    const uint64 count = end != nullptr ? static_cast<uint64>(static_cast<const char*>(end) - text) : length;
    char* const copy = static_cast<char*>(allocate(0, count + 1, block_type::memory, file, line));
    if (copy != nullptr) {
        std::memcpy(copy, text, count);
        copy[count] = '\0';
    }
    return copy;
}

void* qor::glue::qor_do_huge_alloc(uint64 size, const char* file, int line) noexcept {
    const uint64 mapped = size != 0 ? size : 1;
    void* const block = qor::memory::map_pages(mapped);
    if (block == nullptr)
        return nullptr;
    const guard hold(state().lock);
    state().huge_sizes.insert_or_assign(block, mapped);
    note_new(block, size, block_type::huge, file, line);
    return block;
}

void qor::glue::qor_do_huge_free(void* block, const char* file, int line) noexcept {
    if (block == nullptr)
        return;
    bool alive;
    uint64 size = 0;
    {
        const guard hold(state().lock);
        alive = note_end(block, block_type::huge);
        const auto mapped = state().huge_sizes.find(block);
        if (mapped != state().huge_sizes.end()) {
            size = mapped->second;
            state().huge_sizes.erase(mapped);
        }
    }
    // Without its size a block cannot be given back. Where there is a log, it has shown that already.
    if (size != 0)
        qor::memory::unmap_pages(block, size);
    else if (alive)
        qorAssertFailed("block is a live huge block", "void qor_do_huge_free(void*, const char*, int)", file, line);
}

void* qor::glue::qor_do_new(uint64 size, const char* file, int line) noexcept {
    return allocate(0, size, block_type::object, file, line);
}

void qor::glue::qor_do_delete(void* object) noexcept { release(object, block_type::object); }

void qor::glue::qorAnnounceObject(const void* object, const char* type_name) noexcept {
    if (!is_tracking() || type_name == nullptr || *type_name == '\0') [[likely]]
        return;
    const guard hold(state().lock);
    // Objects that live elsewhere, on a stack or inside another, have no block to name.
    if (qor::memory::live_block* const block = state().blocks.find(object)) {
        block->type_name = type_name;
        if (state().log.is_open())
            state().log.named(object, type_name);
    }
}
