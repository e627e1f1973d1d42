// Where actions are run: on other stacks and in signal handlers.
#pragma once

#include "frames.h"

#include <csignal>
#include <cstddef>
#include <pthread.h>
#include <sys/mman.h>
#include <ucontext.h>

namespace qor::test {

// A function and its argument, run somewhere else.
struct errand {
    action act;
    void* argument;
};

// Memory for a stack that ends at pages which cannot be touched.
class stack_memory {
public:
    explicit stack_memory(std::size_t size) : m_size(size) {
        m_all =
            static_cast<unsigned char*>(mmap(nullptr, size + 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(m_all + page, size, PROT_READ | PROT_WRITE);
    }
    stack_memory(const stack_memory&) = delete;
    stack_memory& operator=(const stack_memory&) = delete;
    ~stack_memory() { munmap(m_all, m_size + 2 * page); }

    unsigned char* begin() const { return m_all + page; }
    unsigned char* end() const { return m_all + page + m_size; }
    std::size_t size() const { return m_size; }

    static constexpr std::size_t page = 4096;

private:
    unsigned char* m_all;
    std::size_t m_size;
};

// Runs an action on a stack of its own.
class context_run {
public:
    context_run(const stack_memory& stack, action act, void* argument) : m_errand{act, argument} {
        s_current = this;
        getcontext(&m_there);
        m_there.uc_stack.ss_sp = stack.begin();
        m_there.uc_stack.ss_size = stack.size();
        m_there.uc_link = &m_here;
        makecontext(&m_there, &context_run::enter, 0);
        swapcontext(&m_here, &m_there);
    }

private:
    static void enter() { s_current->m_errand.act(s_current->m_errand.argument); }

    static inline thread_local context_run* s_current = nullptr;
    ucontext_t m_here;
    ucontext_t m_there;
    errand m_errand;
};

// Runs an action in the handler of a signal.
class signal_run {
public:
    signal_run(int flags, action act, void* argument) : m_errand{act, argument} {
        s_errand = &m_errand;
        struct sigaction handling {};
        handling.sa_handler = &signal_run::handle;
        handling.sa_flags = flags;
        sigaction(SIGUSR1, &handling, &m_before);
    }
    signal_run(const signal_run&) = delete;
    signal_run& operator=(const signal_run&) = delete;
    ~signal_run() { sigaction(SIGUSR1, &m_before, nullptr); }

    // As an action.
    static void raise(void*) { pthread_kill(pthread_self(), SIGUSR1); }

private:
    static void handle(int) { s_errand->act(s_errand->argument); }

    static inline const errand* s_errand = nullptr;
    errand m_errand;
    struct sigaction m_before;
};

} // namespace qor::test
