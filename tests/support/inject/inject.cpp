// The injector: a library to preload (LD_PRELOAD) that makes one chosen call of a program fail, so that a test can try
// each call in turn. It has two kinds of targets:
//
//   alloc          every request to the C library's allocator: malloc, calloc, realloc, aligned_alloc, memalign,
//                  posix_memalign; operator new goes through malloc
//   <name>         one system call wrapper of the table at the end, mmap included
//
// It is controlled by environment variables, which are read once:
//
//   QOR_INJECT         the target
//   QOR_INJECT_AT      the number of the first call that fails, from 1 on
//   QOR_INJECT_COUNT   how many calls fail from there on; 0: all; default 1
//   QOR_INJECT_WITH    the result of a failed system call: a number of errno, or "short": the call is done with half of
//                      the requested length; default ENOMEM
//   QOR_INJECT_REPORT  a file that gets a line when a call fails: the call, its number, and for a memory request the
//                      library that made it. Without a line there were fewer calls
//
// A program that is prepared for it can use qor_inject_arm (inject.h) instead.
//
// A new system call is a row in the table. Calls inside the C library are not seen, except its memory requests. The
// library uses no function that allocates.
#include "inject.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

// Requests that are not counted and never fail, because their documentation tells users not to check the result.
struct exempt {
    const char* what;
    std::size_t alignment; // at least this
    std::size_t size;
};
constexpr exempt exempt_requests[] = {
    {"the eight buffers of simd-test", 16, 67'108'864},
};

constexpr char memory[] = "alloc";

struct settings {
    const char* target = nullptr;
    const char* report = nullptr;
    unsigned long first = 0; // 0: no call
    unsigned long count = 1;
    int error = ENOMEM;
    bool is_short = false;
};
settings s_settings;
std::atomic<int> s_is_read{0}; // 1: a thread is reading them now, 2: done
std::atomic<unsigned long> s_calls{0};
int s_told = -1;

unsigned long number(const char* name, unsigned long otherwise) {
    const char* const text = getenv(name);
    return text != nullptr ? std::strtoul(text, nullptr, 10) : otherwise;
}

void read_settings() {
    int before = 0;
    if (!s_is_read.compare_exchange_strong(before, 1))
        return;
    settings& s = s_settings;
    s.target = getenv("QOR_INJECT");
    s.report = getenv("QOR_INJECT_REPORT");
    s.first = number("QOR_INJECT_AT", 0);
    s.count = number("QOR_INJECT_COUNT", 1);
    const char* const with = getenv("QOR_INJECT_WITH");
    s.is_short = with != nullptr && std::strcmp(with, "short") == 0;
    if (with != nullptr && !s.is_short)
        s.error = std::atoi(with);
    s_is_read = 2;
}

// If the report cannot be written, the program ends; otherwise its test would conclude that there were no more calls.
void report(const char* call, unsigned long at, const void* caller) {
    if (s_told >= 0 && syscall(SYS_write, s_told, "!", 1) != 1)
        syscall(SYS_exit_group, 99);
    if (s_settings.report == nullptr)
        return;
    char line[160];
    std::size_t size = 0;
    const auto add = [&](const char* text) {
        while (*text != '\0' && size < 120)
            line[size++] = *text++;
    };
    add(call);
    add(" ");
    char digits[24];
    std::size_t count = 0;
    do
        digits[count++] = static_cast<char>('0' + at % 10);
    while ((at /= 10) != 0);
    while (count != 0)
        line[size++] = digits[--count];
    Dl_info library;
    if (caller != nullptr && dladdr(caller, &library) != 0 && library.dli_fname != nullptr) {
        add(" ");
        const char* const slash = std::strrchr(library.dli_fname, '/');
        add(slash != nullptr ? slash + 1 : library.dli_fname);
    }
    line[size++] = '\n';
    const long file = syscall(SYS_openat, AT_FDCWD, s_settings.report, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0 || syscall(SYS_write, file, line, size) != static_cast<long>(size))
        syscall(SYS_exit_group, 99);
    syscall(SYS_close, file);
}

// Returns whether this call of `target` must fail.
bool fires(const char* target, const char* call, const void* caller = nullptr) {
    if (s_is_read != 2)
        read_settings();
    const settings& s = s_settings;
    if (s.first == 0 || s.target == nullptr || std::strcmp(s.target, target) != 0)
        return false;
    const unsigned long at = s_calls.fetch_add(1) + 1;
    if (at < s.first || (s.count != 0 && at >= s.first + s.count))
        return false;
    const int saved = errno;
    report(call, at, caller);
    errno = saved;
    return true;
}

bool is_refused(const char* call, std::size_t alignment, std::size_t size, const void* caller) {
    for (const exempt& each : exempt_requests)
        if (size == each.size && alignment >= each.alignment)
            return false;
    return fires(memory, call, caller);
}

} // namespace

extern "C" {

void qor_inject_arm(const char* target, unsigned long at) {
    s_settings.target = target;
    s_settings.first = at;
    s_calls = 0;
    s_is_read = 2;
}

void qor_inject_tell(int descriptor) { s_told = descriptor; }

// ---- the allocator. These are the C library's own names of the functions behind malloc.
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

static void* no_memory() {
    errno = ENOMEM;
    return nullptr;
}

void* malloc(std::size_t size) {
    return is_refused("malloc", 0, size, __builtin_return_address(0)) ? no_memory() : __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
    return is_refused("calloc", 0, size, __builtin_return_address(0)) ? no_memory() : __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size) {
    return is_refused("realloc", 0, size, __builtin_return_address(0)) ? no_memory() : __libc_realloc(block, size);
}

void* memalign(std::size_t alignment, std::size_t size) {
    return is_refused("memalign", alignment, size, __builtin_return_address(0)) ? no_memory()
                                                                                : __libc_memalign(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return is_refused("aligned_alloc", alignment, size, __builtin_return_address(0)) ? no_memory()
                                                                                     : __libc_memalign(alignment, size);
}

int posix_memalign(void** out, std::size_t alignment, std::size_t size) {
    void* const block = is_refused("posix_memalign", alignment, size, __builtin_return_address(0))
                            ? nullptr
                            : __libc_memalign(alignment, size);
    if (block != nullptr)
        *out = block;
    return block != nullptr ? 0 : ENOMEM;
}

// ---- the system calls: CALL(result, name, (parameters), number of the call, its arguments), and CALL_OF_LENGTH with
// `length` for calls that may do less than requested. If a call has two names, the target's name comes first.
#define CALL(result, name, parameters, ...)                                                                            \
    result name parameters {                                                                                           \
        if (fires(#name, #name)) {                                                                                     \
            errno = s_settings.error;                                                                                  \
            return result(-1L);                                                                                        \
        }                                                                                                              \
        return result(syscall(__VA_ARGS__));                                                                           \
    }
#define CALL_OF_LENGTH(target, name, parameters, ...)                                                                  \
    ssize_t name parameters {                                                                                          \
        if (fires(target, #name)) {                                                                                    \
            if (!s_settings.is_short || length < 2) {                                                                  \
                errno = s_settings.error;                                                                              \
                return -1;                                                                                             \
            }                                                                                                          \
            length /= 2;                                                                                               \
        }                                                                                                              \
        return syscall(__VA_ARGS__);                                                                                   \
    }
using pointer = void*;

#define CALL_THAT_OPENS(name, parameters, ...)                                                                         \
    int name parameters {                                                                                              \
        if (fires("open", #name)) {                                                                                    \
            errno = s_settings.error;                                                                                  \
            return -1;                                                                                                 \
        }                                                                                                              \
        /* A call that creates no file passes no mode; the value read here is unused. */                               \
        std::va_list more;                                                                                             \
        va_start(more, flags);                                                                                         \
        const mode_t mode = va_arg(more, mode_t);                                                                      \
        va_end(more);                                                                                                  \
        return static_cast<int>(syscall(__VA_ARGS__, flags, mode));                                                    \
    }

CALL_THAT_OPENS(open, (const char* path, int flags, ...), SYS_openat, AT_FDCWD, path)
CALL_THAT_OPENS(open64, (const char* path, int flags, ...), SYS_openat, AT_FDCWD, path)
CALL_THAT_OPENS(openat, (int folder, const char* path, int flags, ...), SYS_openat, folder, path)
CALL_THAT_OPENS(openat64, (int folder, const char* path, int flags, ...), SYS_openat, folder, path)
CALL_OF_LENGTH("read", read, (int file, void* bytes, std::size_t length), SYS_read, file, bytes, length)
CALL_OF_LENGTH("pread", pread, (int file, void* bytes, std::size_t length, off_t at), SYS_pread64, file, bytes, length,
               at)
CALL_OF_LENGTH("pread", pread64, (int file, void* bytes, std::size_t length, off64_t at), SYS_pread64, file, bytes,
               length, at)
CALL_OF_LENGTH("write", write, (int file, const void* bytes, std::size_t length), SYS_write, file, bytes, length)
CALL_OF_LENGTH("pwrite", pwrite, (int file, const void* bytes, std::size_t length, off_t at), SYS_pwrite64, file, bytes,
               length, at)
CALL_OF_LENGTH("pwrite", pwrite64, (int file, const void* bytes, std::size_t length, off64_t at), SYS_pwrite64, file,
               bytes, length, at)
CALL_OF_LENGTH("copy_file_range", copy_file_range,
               (int from, off64_t* from_at, int to, off64_t* to_at, std::size_t length, unsigned flags),
               SYS_copy_file_range, from, from_at, to, to_at, length, flags)
CALL_OF_LENGTH("recv", recv, (int file, void* bytes, std::size_t length, int flags), SYS_recvfrom, file, bytes, length,
               flags, 0, 0)
CALL_OF_LENGTH("send", send, (int file, const void* bytes, std::size_t length, int flags), SYS_sendto, file, bytes,
               length, flags, 0, 0)
CALL(ssize_t, recvmsg, (int file, struct msghdr* message, int flags), SYS_recvmsg, file, message, flags)
CALL(ssize_t, sendmsg, (int file, const struct msghdr* message, int flags), SYS_sendmsg, file, message, flags)
CALL(int, close, (int file), SYS_close, file)
CALL(int, fstat, (int file, struct stat* out), SYS_fstat, file, out)
CALL(int, statx, (int folder, const char* path, int flags, unsigned mask, struct statx* out), SYS_statx, folder, path,
     flags, mask, out)
CALL(ssize_t, getdents64, (int folder, void* entries, std::size_t length), SYS_getdents64, folder, entries, length)
CALL(ssize_t, readlink, (const char* path, char* out, std::size_t length), SYS_readlinkat, AT_FDCWD, path, out, length)
CALL(off_t, lseek, (int file, off_t at, int from), SYS_lseek, file, at, from)
CALL(int, mkdirat, (int folder, const char* path, mode_t rights), SYS_mkdirat, folder, path, rights)
CALL(int, unlinkat, (int folder, const char* path, int flags), SYS_unlinkat, folder, path, flags)
CALL(int, linkat, (int folder, const char* path, int to_folder, const char* to, int flags), SYS_linkat, folder, path,
     to_folder, to, flags)
CALL(int, renameat, (int folder, const char* path, int to_folder, const char* to), SYS_renameat2, folder, path,
     to_folder, to, 0)
CALL(int, renameat2, (int folder, const char* path, int to_folder, const char* to, unsigned flags), SYS_renameat2,
     folder, path, to_folder, to, flags)
CALL(int, poll, (struct pollfd * files, nfds_t count, int milliseconds), SYS_poll, files, count, milliseconds)
CALL(int, socket, (int domain, int type, int protocol), SYS_socket, domain, type, protocol)
CALL(ssize_t, sendto,
     (int file, const void* bytes, std::size_t length, int flags, const struct sockaddr* to, socklen_t size),
     SYS_sendto, file, bytes, length, flags, to, size)
CALL(int, memfd_create, (const char* name, unsigned flags), SYS_memfd_create, name, flags)
CALL(int, connect, (int file, const struct sockaddr* to, socklen_t size), SYS_connect, file, to, size)
CALL(int, bind, (int file, const struct sockaddr* at, socklen_t size), SYS_bind, file, at, size)
CALL(int, listen, (int file, int waiting), SYS_listen, file, waiting)
CALL(int, accept4, (int file, struct sockaddr* from, socklen_t* size, int flags), SYS_accept4, file, from, size, flags)
CALL(int, epoll_create1, (int flags), SYS_epoll_create1, flags)
CALL(int, epoll_ctl, (int set, int operation, int file, struct epoll_event* event), SYS_epoll_ctl, set, operation, file,
     event)
CALL(int, epoll_wait, (int set, struct epoll_event* events, int most, int milliseconds), SYS_epoll_wait, set, events,
     most, milliseconds)
CALL(int, eventfd, (unsigned value, int flags), SYS_eventfd2, value, flags)
CALL(int, shutdown, (int file, int how), SYS_shutdown, file, how)
CALL(int, pipe2, (int ends[2], int flags), SYS_pipe2, ends, flags)
CALL(int, ioctl, (int file, unsigned long request, void* value), SYS_ioctl, file, request, value)
CALL(int, dup2, (int file, int number), SYS_dup2, file, number)
CALL(int, close_range, (unsigned first, unsigned last, int flags), SYS_close_range, first, last, flags)
CALL(int, setpgid, (pid_t process, pid_t group), SYS_setpgid, process, group)
CALL(int, chdir, (const char* path), SYS_chdir, path)
CALL(int, execve, (const char* path, char* const words[], char* const variables[]), SYS_execve, path, words, variables)
CALL(int, pidfd_send_signal, (int process, int number, siginfo_t* info, unsigned flags), SYS_pidfd_send_signal, process,
     number, info, flags)
CALL(int, fsync, (int file), SYS_fsync, file)
CALL(int, flock, (int file, int operation), SYS_flock, file, operation)
CALL(int, ftruncate, (int file, off_t size), SYS_ftruncate, file, size)
CALL(int, fchown, (int file, uid_t owner, gid_t group), SYS_fchown, file, owner, group)
CALL(int, fchmod, (int file, mode_t rights), SYS_fchmod, file, rights)
CALL(ssize_t, llistxattr, (const char* path, char* names, std::size_t length), SYS_llistxattr, path, names, length)
CALL(ssize_t, lgetxattr, (const char* path, const char* name, void* value, std::size_t length), SYS_lgetxattr, path,
     name, value, length)
CALL(int, fsetxattr, (int file, const char* name, const void* value, std::size_t length, int flags), SYS_fsetxattr,
     file, name, value, length, flags)
CALL(int, fremovexattr, (int file, const char* name), SYS_fremovexattr, file, name)
CALL(pointer, mmap, (void* at, std::size_t size, int access, int flags, int file, off_t from), SYS_mmap, at, size,
     access, flags, file, from)

// The system changes the time that it is given.
int ppoll(struct pollfd* files, nfds_t count, const struct timespec* patience, const sigset_t* signals) {
    if (fires("ppoll", "ppoll")) {
        errno = s_settings.error;
        return -1;
    }
    struct timespec left = {};
    if (patience != nullptr)
        left = *patience;
    constexpr std::size_t size_of_signals = 8; // of the system, not of the C library
    return static_cast<int>(
        syscall(SYS_ppoll, files, count, patience != nullptr ? &left : nullptr, signals, size_of_signals));
}

// A pure pause returns at once: after a wrong password, logging on waits for seconds.
int select(int count, fd_set* readable, fd_set* writable, fd_set* special, struct timeval* patience) {
    if (count == 0)
        return 0;
    if (fires("select", "select")) {
        errno = s_settings.error;
        return -1;
    }
    return static_cast<int>(syscall(SYS_select, count, readable, writable, special, patience));
}

} // extern "C"
