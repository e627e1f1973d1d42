// Things that a recorded program may do to its recorder. The first argument chooses one; each kind of block has its own
// size, by which the test finds it in the report.
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <mcheck.h>
#include <new>
#include <sched.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int many = 2000;

// Keeps the compiler from removing unused allocations.
void* volatile used;

void lose(std::size_t size) { used = std::malloc(size); }

void use(std::size_t size) {
    void* volatile block = std::malloc(size);
    std::free(block);
}

int wait_for(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The child frees a block that it inherited and its parent keeps; so does the grandchild.
int fork_twice() {
    void* volatile first = std::malloc(71001);
    lose(71002);
    use(71003);
    pid_t child = fork();
    if (child != 0)
        return wait_for(child);
    std::free(first);
    void* volatile second = std::malloc(72001);
    child = fork();
    if (child != 0)
        _exit(wait_for(child));
    std::free(second);
    lose(73001);
    _exit(0);
}

int fork_and_execute() {
    lose(71001);
    const pid_t child = fork();
    if (child != 0)
        return wait_for(child);
    execl("/bin/true", "true", nullptr);
    _exit(1);
}

int leave_at_once() {
    lose(71001);
    _exit(7);
}

int free_twice() {
    void* volatile block = std::malloc(71001);
    lose(71002);
    std::free(block);
    std::free(block);
    return 0;
}

int free_a_part() {
    char* volatile block = static_cast<char*>(std::malloc(71001));
    char* volatile part = block + 8; // the compiler must not see that it is wrong
    std::free(part);
    return 0;
}

// No system has this much memory, and the compiler must not know the value.
volatile std::size_t too_much = SIZE_MAX / 4;

// A block survives a failed realloc; another block is moved before and after it.
int fail_to_grow() {
    void* volatile kept = std::malloc(71001);
    void* volatile moved = std::realloc(std::malloc(71003), 71004);
    const bool has_failed = std::realloc(kept, too_much) == nullptr && std::realloc(moved, too_much) == nullptr &&
                            std::realloc(nullptr, too_much) == nullptr && std::malloc(too_much) == nullptr &&
                            std::calloc(1, too_much) == nullptr;
    moved = std::realloc(moved, 71005);
    moved = std::realloc(moved, too_much) != nullptr ? nullptr : std::realloc(moved, 71002);
    std::free(std::malloc(71006));
    // A child that allocates nothing else has no log.
    const pid_t child = fork();
    if (child == 0)
        _exit(std::realloc(kept, too_much) == nullptr ? 0 : 1);
    used = moved;
    return has_failed && wait_for(child) == 0 ? 0 : 1;
}

// Traces without a recorder.
int trace_itself() {
    mtrace();
    void* volatile kept = std::malloc(71001);
    const bool has_failed = std::realloc(kept, too_much) == nullptr;
    muntrace();
    return has_failed ? 0 : 1;
}

int be_killed() {
    for (int i = 0; i < many; ++i)
        lose(71001);
    return std::raise(SIGKILL);
}

// Closes all descriptors, as a daemon does.
int close_everything() {
    lose(71001);
    close_range(3, ~0U, 0);
    lose(71002);
    return 0;
}

// The log's descriptor number is reused for one of the program's files.
int reuse_descriptors() {
    close_range(3, ~0U, 0);
    int mine = open("mine", O_RDWR | O_CREAT, 0600);
    for (int i = mine + 1; i < 1000; ++i)
        dup2(mine, i);
    lose(71001);
    return lseek(mine, 0, SEEK_END) == 0 ? 0 : 1;
}

int meet_a_limit() {
    constexpr rlimit limit{20'000, 20'000};
    setrlimit(RLIMIT_FSIZE, &limit);
    for (int i = 0; i < many; ++i)
        use(71001);
    return 0;
}

int leave_many() {
    for (int i = 0; i < many; ++i)
        use(71001);
    _exit(7);
}

void work() {
    for (int i = 0; i < many; ++i)
        use(71001);
}

int fork_between_threads() {
    std::thread threads[] = {std::thread(work), std::thread(work), std::thread(work)};
    int failed = 0;
    for (int i = 0; i < 20; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(60); // instead of a wait without end for a lock that nobody releases
            lose(72001);
            _exit(0);
        }
        failed |= wait_for(child);
    }
    for (std::thread& each : threads)
        each.join();
    return failed;
}

// Becomes another program that is also recorded.
int become_another() {
    lose(71001);
    execl("/proc/self/exe", "troubles", "leave_at_once", nullptr);
    return 1;
}

// The filter ends the process for every system call but reads, writes and its end.
int be_confined() {
    lose(71001);
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT) != 0)
        return 1;
    for (int i = 0; i < 100'000; ++i) // more than wait for the recorder anywhere
        use(72001);
    lose(71002);
    syscall(SYS_exit, 0);
    return 1;
}

// The filter ends the process for calls that it does not make by itself. It has several threads.
int be_filtered(long (*install)(const sock_fprog& filter)) {
    constexpr std::uint32_t allowed[] = {SYS_mmap,    SYS_munmap, SYS_mremap,    SYS_mprotect,
                                         SYS_madvise, SYS_brk,    SYS_exit_group};
    constexpr std::uint8_t count = std::size(allowed);
    sock_filter filter[count + 3] = {{BPF_LD | BPF_W | BPF_ABS, 0, 0, 0}};
    for (std::uint8_t i = 0; i < count; ++i)
        filter[1 + i] = {BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint8_t>(count - i), 0, allowed[i]};
    filter[count + 1] = {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_KILL_PROCESS};
    filter[count + 2] = {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW};
    static std::atomic<int> begun, ended;
    for (int i = 0; i < 2; ++i)
        std::thread([] {
            for (++begun; begun < 3;) {
            }
            work();
            lose(71003);
            for (++ended;;) {
            }
        }).detach();
    lose(71001);
    while (begun < 2) {
    }
    const sock_fprog program{count + 3, filter};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || install(program) != 0)
        return 77;
    ++begun;
    for (int i = 0; i < 100'000; ++i) // more than wait for the recorder anywhere
        use(72001);
    lose(71002);
    while (ended < 2) {
    }
    _exit(0);
}

int be_filtered_by_prctl() {
    return be_filtered(
        [](const sock_fprog& filter) -> long { return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter); });
}

int be_filtered_by_seccomp() {
    return be_filtered([](const sock_fprog& filter) {
        return syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_TSYNC, &filter);
    });
}

// A child that executes a program where it reaches no socket.
int execute_confined() {
    lose(71001);
    const pid_t child = fork();
    if (child != 0)
        return wait_for(child);
    if (unshare(CLONE_NEWNET) != 0)
        _exit(77);
    execl("/proc/self/exe", "troubles", "leave_at_once", nullptr);
    _exit(1);
}

// As a server does that gives up the rights of root.
int drop_rights() {
    lose(71001);
    if (chroot("/var/empty") != 0 && (mkdir("empty", 0755) != 0 || chroot("empty") != 0))
        return 77;
    if (chdir("/") != 0 || setgid(65534) != 0 || setuid(65534) != 0)
        return 77;
    lose(71002);
    const pid_t child = fork();
    if (child != 0)
        return wait_for(child);
    lose(72001);
    _exit(0);
}

int live_within_limits() {
    constexpr rlimit few_descriptors{3, 3};
    constexpr rlimit little_memory{64U << 20, 64U << 20};
    setrlimit(RLIMIT_NOFILE, &few_descriptors);
    setrlimit(RLIMIT_AS, &little_memory);
    void* const most = std::malloc(32U << 20);
    std::free(most);
    lose(71001);
    const pid_t child = fork();
    if (child != 0)
        return wait_for(child) != 0 || most == nullptr ? 1 : 0;
    lose(72001);
    _exit(0);
}

// vfork runs the child on the parent's stack and heap; posix_spawn does so too, and clone by its flags.
int start_programs() {
    lose(71001);
    char* const words[] = {const_cast<char*>("true"), nullptr};
    pid_t child = vfork();
    if (child == 0) {
        execv("/bin/true", words);
        _exit(1);
    }
    int failed = wait_for(child);
    failed |= posix_spawn(&child, "/bin/true", nullptr, nullptr, words, environ);
    failed |= wait_for(child);
    child = static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, 0));
    if (child == 0) {
        lose(72001);
        _exit(0);
    }
    failed |= wait_for(child);
    lose(71002);
    return failed;
}

int start_many_threads() {
    constexpr int count = 1000;
    std::thread threads[count];
    for (std::thread& each : threads)
        each = std::thread([] {
            for (int i = 0; i < 100; ++i)
                use(72001);
            lose(71001);
        });
    for (std::thread& each : threads)
        each.join();
    return 0;
}

int throw_exceptions() {
    int caught = 0;
    for (int i = 0; i < 100; ++i)
        try {
            used = ::operator new(i % 2 == 0 ? too_much : 72001);
            ::operator delete(used);
            throw std::runtime_error("a text that is longer than what is kept in a string itself");
        } catch (const std::bad_alloc&) {
            ++caught;
        } catch (const std::runtime_error&) {
            ++caught;
        }
    lose(71001);
    return caught == 100 ? 0 : 1;
}

// The C library's own tracing.
int trace_as_well() {
    lose(71001);
    setenv("MALLOC_TRACE", "own", 1);
    mtrace();
    lose(71002);
    muntrace();
    lose(71003);
    return 0;
}

// Its parent is the one that has started it; the recorder is that one's other child.
int lose_recorder() {
    lose(71001);
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/task/%d/children", getppid(), getppid());
    std::FILE* const list = std::fopen(path, "r");
    int killed = 0;
    for (pid_t each; list != nullptr && std::fscanf(list, "%d", &each) == 1;)
        if (each != getpid())
            killed += kill(each, SIGKILL) == 0 ? 1 : 0;
    if (list != nullptr)
        std::fclose(list);
    for (int i = 0; i < 200'000; ++i) // more than there is room for
        use(72001);
    return killed == 1 ? 0 : 1;
}

int abort_here() {
    lose(71001);
    std::abort();
}

// The test starts and stops the recording at the lines that this prints.
int be_controlled() {
    lose(71001);
    void* volatile early = std::malloc(72001);
    std::puts("early");
    std::fflush(stdout);
    std::getchar();
    lose(71002);
    std::free(early);
    void* volatile recorded = std::malloc(72002);
    void* volatile grown = std::realloc(std::malloc(72003), 71004);
    std::puts("recorded");
    std::fflush(stdout);
    std::getchar();
    lose(71003);
    std::free(recorded);
    std::free(std::realloc(grown, 72005));
    return 0;
}

// As servers do that show in the list of processes what they are at.
int rename_itself(char* name) {
    std::memcpy(name, "a b", 3);
    lose(71001);
    std::free(used);
    lose(71002);
    return 0;
}

struct trouble {
    const char* name;
    int (*act)();
};

constexpr trouble troubles[] = {
    {"fork_twice", fork_twice},
    {"fork_and_execute", fork_and_execute},
    {"leave_at_once", leave_at_once},
    {"free_twice", free_twice},
    {"free_a_part", free_a_part},
    {"fail_to_grow", fail_to_grow},
    {"trace_itself", trace_itself},
    {"be_killed", be_killed},
    {"close_everything", close_everything},
    {"reuse_descriptors", reuse_descriptors},
    {"meet_a_limit", meet_a_limit},
    {"leave_many", leave_many},
    {"fork_between_threads", fork_between_threads},
    {"become_another", become_another},
    {"be_confined", be_confined},
    {"be_filtered_by_prctl", be_filtered_by_prctl},
    {"be_filtered_by_seccomp", be_filtered_by_seccomp},
    {"execute_confined", execute_confined},
    {"drop_rights", drop_rights},
    {"live_within_limits", live_within_limits},
    {"start_programs", start_programs},
    {"start_many_threads", start_many_threads},
    {"throw_exceptions", throw_exceptions},
    {"trace_as_well", trace_as_well},
    {"lose_recorder", lose_recorder},
    {"abort_here", abort_here},
    {"be_controlled", be_controlled},
};

} // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "rename_itself") == 0)
        return rename_itself(argv[0]);
    for (const trouble& each : troubles)
        if (argc == 2 && std::strcmp(argv[1], each.name) == 0)
            return each.act();
    std::fprintf(stderr, "usage: troubles NAME\n");
    return 99;
}
