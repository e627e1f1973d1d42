#include "unwind_stack.h"

#include <cerrno>
#include <cstddef>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

// Where the kernel put the arguments of the program: the frames of the main thread are below.
extern "C" void* __libc_stack_end __attribute__((weak));

namespace qor::record {
namespace {

constexpr std::uintptr_t page_of(std::uintptr_t address) noexcept { return address & ~(page_size - 1); }

// The thread's own stack, as far as it is known. All pages from `verified` up to `top` are readable as long as the
// thread lives.
struct own_stack {
    std::uintptr_t top;
    std::uintptr_t verified;
    bool is_whole; // the page below `verified` is not readable
    bool is_main;
};

[[gnu::tls_model("initial-exec")]] constinit thread_local own_stack own{};

// The kernel keeps other mappings at least 128 MiB away from the begin of the main stack.
constexpr std::uintptr_t main_reach = std::uintptr_t{120} << 20;

// How far a stack is followed page by page at a time.
constexpr std::uintptr_t reach = std::uintptr_t{1} << 20;

enum class answer { yes, no, none };

// The kernel reads the new signal mask before it refuses to do something unknown with it.
answer ask_for(std::uintptr_t address) noexcept {
    constexpr int no_such_way = -1;
    const int kept = errno;
    syscall(SYS_rt_sigprocmask, no_such_way, address & ~std::uintptr_t{7}, nullptr, std::size_t{8});
    const int reason = errno;
    errno = kept;
    return reason == EINVAL ? answer::yes : reason == EFAULT ? answer::no : answer::none;
}

void find_own_stack() noexcept {
    if (own.is_main) {
        own.top =
            &__libc_stack_end != nullptr ? reinterpret_cast<std::uintptr_t>(__libc_stack_end) & ~std::uintptr_t{7} : 0;
        own.verified = own.top;
    } else {
        // The C library puts what belongs to a thread above the frames, at the end of the memory for its stack.
        own.top = static_cast<std::uintptr_t>(pthread_self()) & ~std::uintptr_t{7};
        own.verified = page_of(own.top);
    }
    if (own.top == 0)
        own.top = own.verified = 1; // found nothing
}

// `is_running`: the page of the address is known to be readable.
bool is_own(std::uintptr_t address, bool is_running) noexcept {
    if (own.top == 0)
        find_own_stack();
    if (address >= own.top)
        return false;
    if (address >= own.verified)
        return true;
    if (own.is_main)
        return own.top - address < main_reach && (is_running || is_readable(address));
    if (own.is_whole || own.verified - address > reach)
        return false;
    // Downwards, so that what was found stays good when it ends at the guard of this stack.
    const std::uintptr_t last = is_running ? page_of(address) + page_size : page_of(address);
    while (own.verified > last) {
        const answer found = ask_for(own.verified - page_size);
        if (found == answer::no) {
            own.is_whole = true;
            return false;
        }
        // If a sandbox forbids the system call, a stack near by is taken for the thread's own.
        if (found == answer::none)
            return is_running;
        own.verified -= page_size;
    }
    own.verified = page_of(address);
    return true;
}

} // namespace

bool is_readable(std::uintptr_t address) noexcept { return ask_for(address) == answer::yes; }

void this_is_the_main_thread() noexcept {
    own = {};
    own.is_main = true;
}

void stack_view::enter_running(std::uintptr_t sp) noexcept {
    m_own = is_own(sp, true);
    m_low = sp;
    m_high = m_own ? own.top : page_of(sp) + page_size;
}

void stack_view::enter(std::uintptr_t sp) noexcept {
    m_own = is_own(sp, false);
    m_low = sp;
    m_high = m_own ? own.top : page_of(sp) + page_size;
    // The next page may be there, where a stack has just run into its guard.
    if (!m_own && !is_readable(sp))
        m_low = m_high;
}

bool stack_view::reaches(std::uintptr_t address) noexcept {
    if (covers(address))
        return true;
    if (m_own || address < m_low || address - m_low > reach || address % sizeof address != 0)
        return false;
    while (m_high <= address) {
        if (!is_readable(m_high))
            return false;
        m_high += page_size;
    }
    return covers(address);
}

} // namespace qor::record
