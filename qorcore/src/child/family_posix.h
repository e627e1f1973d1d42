// Inside the POSIX half of child processes: what a fork must not disturb, and children that nobody waits for.
#pragma once

#include <atomic>
#include <mutex>
#include <sys/types.h>

namespace qor::child {

// Descriptors of a child process: a forked child of the own process closes its copies, so that a pipe ends when the
// own process closes it.
struct own_descriptors {
    std::atomic<int> input{-1};
    std::atomic<int> output{-1};
    std::atomic<int> errors{-1};
    std::atomic<int> pidfd{-1};
    own_descriptors* before = nullptr;
    own_descriptors* behind = nullptr;
    bool is_listed = false;
};

// While it lives, this process is not forked (by others than itself, and by what calls the C library's handlers): for
// changes of descriptors. Constructing it also reaps children that nobody waits for.
class no_fork {
public:
    no_fork() noexcept;
    no_fork(const no_fork&) = delete;
    no_fork& operator=(const no_fork&) = delete;
    ~no_fork();

    void add(own_descriptors& of) noexcept;
    void remove(own_descriptors& of) noexcept;
    // Closes one, if it is open.
    static void close(std::atomic<int>& descriptor) noexcept;
    // Takes over a child that was released while it runs; the pidfd, which may be -1, too.
    void leave(pid_t process, int pidfd) noexcept;
};

} // namespace qor::child
