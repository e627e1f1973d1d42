// The tracked allocator. With tracking off, it is the C library's malloc and one test.
//
// Before the process has started, it is unknown whether a log is wanted, so blocks are remembered. The log then begins
// with those that are still alive, so that no later free of them looks bad. While a log is written, a free of a block
// that is not alive is logged but not executed. The process survives it, and the report can show it.
//
// A process can use the allocator without starting the framework. So a log that the environment asks for begins with
// the first block, and a process that has not started after very many blocks is assumed never to start.
#include "memory/allocator.h"

#include "error/error.h"
#include "memory/allocation_log.h"
#include "memory/live_blocks.h"
#include "memory/pages.h"
#include "memory/tracking.h"
#include "platform/own_process.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

namespace {

using qor::memory::block_type;

std::atomic<bool> tracking{true};

// The allocator stops waiting for the start of the framework after this many blocks.
constexpr uint64 blocks_before_start = 1 << 20;

struct shared_state {
    // Not recursive: a forked child must be able to unlock what a thread of the parent locked.
    std::mutex lock;
    qor::memory::live_blocks blocks;
    qor::memory::allocation_log log;
    qor::memory::live_blocks huge_blocks; // with the sizes of their mappings, with or without a log
    // Some live blocks are not among `blocks`, so an unknown block may be one of them.
    bool has_forgotten = false;
    std::atomic<bool> is_held{false}; // whether some thread holds the lock
};

int open_log(shared_state& shared, const std::string& name);

// Around every fork, with a log or without one: a forked child must not find the lock held by a thread that it lacks.
void before_fork() noexcept;
void after_fork_in_parent() noexcept;
void after_fork_in_child() noexcept;

// The state, or null until it is complete.
std::atomic<shared_state*> complete_state{nullptr};

// Never destroyed: blocks are freed until the very end of the process.
shared_state& state() {
    alignas(shared_state) static std::byte place[sizeof(shared_state)];
    static shared_state* const made = [] {
        auto* const shared = new (place) shared_state;
        // On Windows, looking up a missing variable sets an error code, which an allocation must not do.
        const qor::error::keep_failures keep;
        // The command line takes precedence over the environment.
        const char* const name = qor::platform::environment(qor::memory::log_variable);
        if (name != nullptr && !qor::platform::has_argument(qor::memory::log_option))
            (void)open_log(*shared, name); // if it fails, the start of the process will report it
        complete_state = shared;
        qor::platform::watch_forks(before_fork, after_fork_in_parent, after_fork_in_child);
        return shared;
    }();
    return *made;
}

void forget_blocks(shared_state& shared) noexcept {
    tracking.store(false, std::memory_order_release);
    shared.has_forgotten = true;
    shared.blocks.clear();
}

// Holds the lock. The message that a log has ended is printed after unlocking, because printing may have to wait for a
// thread that wants the lock.
class guard {
public:
    guard() : m_hold(state().lock) { state().is_held = true; }
    guard(const guard&) = delete;
    guard& operator=(const guard&) = delete;
    ~guard() { unlock(); }

    void unlock() {
        if (!m_hold.owns_lock())
            return;
        std::string last_words;
        if (state().log.has_last_words()) [[unlikely]] {
            last_words = state().log.take_last_words();
            forget_blocks(state());
        }
        state().is_held = false;
        m_hold.unlock();
        if (!last_words.empty())
            qor::glue::fputtext(stderr, last_words.data(), last_words.size());
    }

private:
    std::unique_lock<std::mutex> m_hold;
};

bool is_tracking() noexcept { return tracking.load(std::memory_order_acquire); }

// The next two functions are called with the lock held. note_new needs room for one more block.
void note_new(void* block, uint64 size, block_type type, const char* file, int line) {
    if (!is_tracking())
        return;
    const qor::memory::live_block& noted = state().blocks.add(block, size, type, file, line);
    if (state().log.is_open())
        state().log.allocated(noted);
    else if (state().blocks.additions() > blocks_before_start)
        forget_blocks(state());
}

// Returns false if this is a bad free, which must not be executed.
bool note_end(const void* block, block_type type) {
    if (!is_tracking())
        return true;
    const qor::memory::live_block* const known = state().blocks.find(block);
    const bool is_huge = type == block_type::huge;
    // Mapped pages and malloc blocks are freed in different ways.
    const bool is_bad = known != nullptr ? is_huge != (known->type == block_type::huge) : !state().has_forgotten;
    if (state().log.is_open()) {
        if (known != nullptr || is_bad)
            state().log.freed(block, known != nullptr ? known->type : type);
        if (is_bad)
            return false;
    }
    state().blocks.remove(block);
    return true;
}

// For a size of 0, the C library may return null or free the block. Here, the result is always a block.
std::size_t at_least_a_byte(uint64 size) noexcept { return size != 0 ? size : 1; }

void* change_size(void* block, uint64 size) noexcept { return qor::memory::change_size(block, at_least_a_byte(size)); }

void* allocate(uint64 alignment, uint64 size, block_type type, const char* file, int line) noexcept {
    void* const block = alignment <= alignof(std::max_align_t) ? std::malloc(at_least_a_byte(size))
                                                               : qor::memory::allocate_aligned(alignment, size);
    if (block != nullptr && is_tracking()) [[unlikely]] {
        guard hold;
        if (!state().blocks.make_room()) {
            hold.unlock();
            qor::memory::give_back(block);
            return nullptr;
        }
        note_new(block, size, type, file, line);
    }
    return block;
}

void release(void* block, block_type type) noexcept {
    if (block == nullptr)
        return;
    if (is_tracking()) [[unlikely]] {
        const guard hold;
        if (!note_end(block, type))
            return;
    }
    qor::memory::give_back(block);
}

// Removes the old block before the C library can give its address to another thread. Adds it again if the call fails.
void* reallocate_tracked(void* block, uint64 size, const char* file, int line) {
    guard hold;
    if (!state().blocks.make_room())
        return nullptr;
    const qor::memory::live_block* const known = state().blocks.find(block);
    const qor::memory::live_block old =
        known != nullptr ? *known : qor::memory::live_block{block, 0, block_type::memory, file, line, nullptr, 0};
    if (!note_end(block, block_type::memory)) {
        // Not a live block: the caller gets the requested memory, and the log shows the bad free.
        hold.unlock();
        return allocate(0, size, block_type::memory, file, line);
    }
    void* const moved = change_size(block, size);
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
    const guard hold; // its destructor prints a pending message
}

void finish_log() noexcept {
    const guard hold;
    state().log.finish();
}

// The log is most useful when memory has run out. But this thread itself may hold the lock, or be creating the state
// that contains the log, and finishing the log may need memory again.
void begin_last_words() noexcept {
    static std::atomic<bool> begun{false};
    shared_state* const shared = complete_state;
    if (!begun.exchange(true) && shared != nullptr && !shared->is_held && shared->lock.try_lock())
        shared->log.finish();
    std::fflush(stdout);
}

// Exit handlers and other threads have no memory either. The program may have given standard error a buffer.
[[noreturn]] void end_process() noexcept {
    std::fflush(stderr);
    std::_Exit(1);
}

int open_log(shared_state& shared, const std::string& name) {
    if (const int reason = shared.log.open(name, shared.blocks))
        return reason;
    // The programs that this process starts inherit the variable and must not overwrite its log.
    if (qor::platform::environment(qor::memory::log_variable) != nullptr)
        qor::platform::set_environment(qor::memory::log_variable, qor::memory::log_name_for_children(name).c_str());
    tracking.store(true, std::memory_order_release);
    std::atexit([] { finish_log(); });
    return 0;
}

} // namespace

int qor::memory::start_log(const std::string& name) {
    const guard hold;
    return state().log.is_open() ? 0 : open_log(state(), name);
}

void qor::memory::stop_tracking() noexcept {
    const guard hold;
    forget_blocks(state());
}

void qor::memory::exhausted(uint64 size, const char* file, int line) noexcept {
    begin_last_words();
    std::fprintf(stderr, "out of memory: %llu bytes wanted by %s:%d\n", size, file, line);
    end_process();
}

void qor::glue::qorEndOutOfMemory() noexcept {
    begin_last_words();
    std::fputs("out of memory\n", stderr);
    end_process();
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
    if (is_tracking()) [[unlikely]]
        return reallocate_tracked(block, size, file, line);
    return change_size(block, size);
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
    const uint64 mapped = at_least_a_byte(size);
    void* const block = qor::memory::map_pages(mapped);
    if (block == nullptr)
        return nullptr;
    guard hold;
    if (!state().huge_blocks.make_room() || !state().blocks.make_room()) {
        hold.unlock();
        qor::memory::unmap_pages(block, mapped);
        return nullptr;
    }
    state().huge_blocks.add(block, mapped, block_type::huge, file, line);
    note_new(block, size, block_type::huge, file, line);
    return block;
}

void qor::glue::qor_do_huge_free(void* block, const char* file, int line) noexcept {
    if (block == nullptr)
        return;
    bool alive;
    uint64 size = 0;
    {
        const guard hold;
        alive = note_end(block, block_type::huge);
        if (const qor::memory::live_block* const mapped = state().huge_blocks.find(block)) {
            size = mapped->size;
            state().huge_blocks.remove(block);
        }
    }
    // A block of unknown size cannot be unmapped. If there is a log, it has shown that already.
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
    const guard hold;
    // Objects on a stack or inside another object have no block to name.
    if (qor::memory::live_block* const block = state().blocks.find(object)) {
        block->type_name = type_name;
        if (state().log.is_open())
            state().log.named(object, type_name);
    }
}
