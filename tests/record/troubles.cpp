// What a recorded program may do to its recorder. The first word says what; each kind of block has a size of
// its own, by which the test finds it in the report.
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mcheck.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int many = 2000;

// Keeps the compiler from taking out allocations that nobody uses.
void* volatile used;

void lose(std::size_t size) { used = std::malloc(size); }

void use(std::size_t size) {
    used = std::malloc(size);
    std::free(used);
}

int wait_for(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The child frees what it inherited and its parent keeps; so does the child's child.
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

// Nothing has so much memory; the compiler must not know.
volatile std::size_t too_much = SIZE_MAX / 4;

// A block outlives a realloc that fails; another one is moved before and after that.
int fail_to_grow() {
    void* volatile kept = std::malloc(71001);
    void* volatile moved = std::realloc(std::malloc(71003), 71004);
    const bool has_failed = std::realloc(kept, too_much) == nullptr && std::realloc(moved, too_much) == nullptr &&
                            std::realloc(nullptr, too_much) == nullptr && std::malloc(too_much) == nullptr &&
                            std::calloc(1, too_much) == nullptr;
    moved = std::realloc(moved, 71005);
    moved = std::realloc(moved, too_much) != nullptr ? nullptr : std::realloc(moved, 71002);
    std::free(std::malloc(71006));
    // A child that does nothing else has no log.
    const pid_t child = fork();
    if (child == 0)
        _exit(std::realloc(kept, too_much) == nullptr ? 0 : 1);
    used = moved;
    return has_failed && wait_for(child) == 0 ? 0 : 1;
}

// Without a recorder.
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

// As a daemon does.
int close_everything() {
    lose(71001);
    close_range(3, ~0U, 0);
    lose(71002);
    return 0;
}

// The log's descriptor becomes one of the program's files.
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
            alarm(60); // instead of waiting for ever for a lock that nobody will open
            lose(72001);
            _exit(0);
        }
        failed |= wait_for(child);
    }
    for (std::thread& each : threads)
        each.join();
    return failed;
}

// Turns into another program that is to be recorded.
int become_another() {
    lose(71001);
    execl("/proc/self/exe", "troubles", "leave_at_once", nullptr);
    return 1;
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
    {"fail_to_grow", fail_to_grow},
    {"trace_itself", trace_itself},
    {"be_killed", be_killed},
    {"close_everything", close_everything},
    {"reuse_descriptors", reuse_descriptors},
    {"meet_a_limit", meet_a_limit},
    {"leave_many", leave_many},
    {"fork_between_threads", fork_between_threads},
    {"become_another", become_another},
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
